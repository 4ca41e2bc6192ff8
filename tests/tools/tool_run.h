// What the tools' tests share: a scratch directory per test, running a tool into files there and
// reading back its exit status, standard output and standard error, and JSON Lines.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace tool_run {

using Json = nlohmann::json;

struct Result {
    int status;
    std::string out, err;
};

inline std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void spill(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

inline std::vector<Json> json_lines(const std::string &text) {
    std::vector<Json> out;
    for (const std::string &l : lines_of(text)) out.push_back(Json::parse(l));
    return out;
}

// A fixture with a scratch directory, removed after the test.
class ToolDirTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/korvex_tools_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { (void)!system(("rm -rf '" + dir_ + "'").c_str()); }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    bool exists(const std::string &name) const { return access(path(name).c_str(), F_OK) == 0; }

    Result run(const std::string &tool, const std::string &args) {
        std::string cmd = tool + " " + args + " >" + path("out.txt") + " 2>" + path("err.txt");
        int rc = system(cmd.c_str());
        return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, slurp(path("out.txt")), slurp(path("err.txt"))};
    }

    std::string dir_;
};

}  // namespace tool_run
