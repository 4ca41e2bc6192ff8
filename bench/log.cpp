// sdk_log_msg with its record suppressed by the levels, and written to the log file, against a bare
// fprintf + fflush of the same text to a file in the same directory.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "log/log_internal.h"

namespace {

std::string s_dir;  // scratch log directory, emptied and removed at the end

void BM_LogSuppressed(benchmark::State &state) {
    sdk_log_set_level(SDK_LOG_LEVEL_ERR, SDK_LOG_LEVEL_ERR, 0);
    int i = 0;
    for (auto _ : state) sdk_log_msg("frame %d of channel %d", i++, 3);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogSuppressed);

void BM_LogToFile(benchmark::State &state) {
    sdk_log_set_level(SDK_LOG_LEVEL_ERR, SDK_LOG_LEVEL_MSG, 1);  // the file only, not the terminal
    int i = 0;
    for (auto _ : state) sdk_log_msg("frame %d of channel %d", i++, 3);
    sdk_log_set_level(SDK_LOG_LEVEL_ERR, SDK_LOG_LEVEL_ERR, 0);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogToFile);

void BM_FprintfFlush(benchmark::State &state) {
    FILE *fp = fopen((s_dir + "fprintf_peer").c_str(), "a");
    if (fp == nullptr) abort();
    int i = 0;
    for (auto _ : state) {
        fprintf(fp, "frame %d of channel %d\n", i++, 3);
        fflush(fp);
    }
    fclose(fp);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FprintfFlush);

void remove_dir(const std::string &dir) {
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d))
            if (e->d_name[0] != '.') unlink((dir + e->d_name).c_str());
        closedir(d);
    }
    rmdir(dir.c_str());
}

}  // namespace

int main(int argc, char **argv) {
    char dir[] = "/tmp/kx_bench_log_XXXXXX";
    if (mkdtemp(dir) == nullptr || log_set_path(dir) != 1) return 1;
    s_dir = log_path();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    remove_dir(s_dir);
    return 0;
}
