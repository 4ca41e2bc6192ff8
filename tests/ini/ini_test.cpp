// Reading and writing single INI values in a scratch directory.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "korvex/korvex.h"

namespace {

struct Ini : ::testing::Test {
    char dir[32] = "/tmp/kx_ini_XXXXXX";
    std::string path = std::string(mkdtemp(dir)) + "/a.ini";
    ~Ini() override { std::filesystem::remove_all(dir); }
    void put(const std::string &s) { std::ofstream(path, std::ios::binary) << s; }
    std::string get() {
        std::ifstream f(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(f), {}};
    }
    int num(const char *sec, const char *key) { return readIntValue(sec, key, -9, path.c_str()); }
};

TEST_F(Ini, ReadsByTheLineRules) {
    put(";[File]\n[File] trailing\n;Level=9\n\r\nLevel=5\nGap = 7 "
        "\r\nEmpty=\nWord=abc\nDup=1\nDup=2\nNoEq\nNoEq=3\n"
        "Big=99999999999\n[Pre]\nLevelMax=8\n[File]\nLater=1\n[Long]\nPad=" +
        std::string(251, 'x') + "Deep=4\n[Next]\nDup=3\nLast=tail");
    EXPECT_EQ(5, num("File", "Level"));
    char v[256] = "unset", w[256] = "unset";
    EXPECT_EQ(0, readStringValue("File", "Gap", v, path.c_str()));
    EXPECT_STREQ(" 7 ", v);  // untrimmed, CR LF cut off
    EXPECT_EQ(7, num("File", "Gap"));
    EXPECT_EQ(-9, num("File", "Empty"));
    EXPECT_EQ(0, num("File", "Word"));
    EXPECT_EQ(2, num("File", "Dup"));    // the last in the section, not the next section's
    EXPECT_EQ(-9, num("File", "NoEq"));  // a key line without "=" ends the search
    EXPECT_EQ(2147483647, num("File", "Big"));
    EXPECT_EQ(-9, num("File", "Later"));  // only the first section of a name counts
    EXPECT_EQ(8, num("Pre", "Level"));    // keys match as prefixes
    EXPECT_EQ(4, num("Long", "Deep"));    // a line over 255 characters arrives in parts
    IniReadValue("[Next]", "Last", w, path.c_str());
    IniReadValue("[Next]", "Absent", w, path.c_str());
    EXPECT_STREQ("tail", w);
    EXPECT_EQ(-9, num("Absent", "Level"));
    EXPECT_EQ(-9, readIntValue("File", "Level", -9, "/nonexistent/a.ini"));
    EXPECT_EQ(-1, readStringValue("File", nullptr, v, path.c_str()));
    EXPECT_EQ(-9, readIntValue(nullptr, "Level", -9, path.c_str()));
}

TEST_F(Ini, WritesThroughACopyAndLosesNoByte) {
    put("[A]\nKey=1   \n[B]\nKey=5   \nKey=6   \nOther=x\n[C]\nKey=9   \n");
    struct stat after;
    EXPECT_EQ(0, writeIntValue("B", "Key", -123, path.c_str()));
    EXPECT_EQ("[A]\nKey=1   \n[B]\nKey=-123\nKey=-123\nOther=x\n[C]\nKey=9   \n", get());

    const std::string tail = std::string("\0bin\n", 5) + "[C]\nKey=1\n";
    put("[B]\r\nKey=5\r\nKey=66\nOther=x\r\n" + tail);
    chmod(path.c_str(), 0640);
    writeIntValue("B", "Key", 12345, path.c_str());  // the width of "%-4d" is a minimum
    EXPECT_EQ("[B]\r\nKey=12345\nKey=12345\nOther=x\r\n" + tail, get());
    writeStringVlaue("B", "Key", "", path.c_str());
    EXPECT_EQ("[B]\r\nKey=\nKey=\nOther=x\r\n" + tail, get());
    stat(path.c_str(), &after);
    EXPECT_EQ(0640u, after.st_mode & 0777u);
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir), {}));  // no temporary left
}

TEST_F(Ini, RefusedWritesChangeNothing) {
    const std::string text = "[A]\nLevelMax=3\nLevel=2\n[B]\nKey=1\n";
    put(text);
    writeIntValue("A", "Level", 4, path.c_str());  // "Level" begins "LevelMax"
    writeIntValue("A", "Absent", 4, path.c_str());
    writeIntValue("Absent", "Key", 4, path.c_str());
    writeStringVlaue("B", "Key", std::string(300, 'v').c_str(), path.c_str());
    EXPECT_EQ(-1, writeStringVlaue("B", "Key", nullptr, path.c_str()));
    EXPECT_EQ(text, get());
    writeIntValue("B", "Key", 4, (std::string(dir) + "/none.ini").c_str());
    EXPECT_FALSE(std::filesystem::exists(std::string(dir) + "/none.ini"));
}

}  // namespace

// Writers killed at random points leave the file old or new, also with the key twice in its
// section, and at most the one temporary file, which the next write takes away.
TEST_F(Ini, KilledWritersLeaveOldOrNewAndNoTemporary) {
    const std::string a = "[S]\nk=1   \nx=y\nk=1   \n[T]\nk=0\n", b = "[S]\nk=2   \nx=y\nk=2   \n[T]\nk=0\n";
    const std::string c = "[S]\nk=333333\nx=y\nk=333333\n[T]\nk=0\n";  // a longer line
    put(a);
    unsigned seed = 24;
    int changes = 0;
    for (int round = 0; round < 150; round++) {
        std::string before = get();
        const char *val = round % 3 == 0 ? "333333" : (before == b ? "1" : "2");
        std::string after = round % 3 == 0 ? c : (before == b ? a : b);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (;;) writeIntValue("S", "k", atoi(val), path.c_str());  // until killed
        }
        usleep(rand_r(&seed) % 3000);
        // Every tenth writer lives until its write has landed (bounded), so that some rounds change
        // the file also where a write takes longer than the random wait (an emulated processor).
        for (int ms = 0; round % 10 == 9 && ms < 2000 && get() == before; ms++) usleep(1000);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        std::string now = get();
        ASSERT_TRUE(now == before || now == after) << "round " << round << ":\n" << now;
        if (now != before) changes++;
        EXPECT_LE(std::distance(std::filesystem::directory_iterator(dir), {}), 2);
        if (round % 3 == 0 && now == c) put(a);  // back to lines of four
    }
    EXPECT_GT(changes, 0);
    writeIntValue("S", "k", 5, path.c_str());
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir), {}));
}
