// One command of three keys and two parameters through the command engine, against a strtok split
// of a copy of the same text (the least any engine has to do with it).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include "korvex/korvex.h"

namespace {

const char kCommand[] = "CMD\tVIDEO\tBITRATE\t4096\tmain";

int on_bitrate(tagAnalyzeParam *param) { return param->param_num == 2 ? 0 : 1; }

void BM_PapRunCmd(benchmark::State &state) {
    _TProtFrame *frame = pap_init();
    if (frame == nullptr || pap_regist_cbk_cmd_analyze(frame, "CMD\tVIDEO\tBITRATE", on_bitrate) != 0) abort();
    for (auto _ : state) {
        int rc = pap_run_cmd(frame, kCommand, (int)sizeof(kCommand) - 1, nullptr);
        if (rc != 0) abort();
        benchmark::DoNotOptimize(rc);
    }
    pap_uninit(frame);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PapRunCmd);

void BM_StrtokSplit(benchmark::State &state) {
    char copy[sizeof(kCommand)];
    char *words[8];
    for (auto _ : state) {
        memcpy(copy, kCommand, sizeof(kCommand));
        benchmark::DoNotOptimize(copy);
        int n = 0;
        char *save = nullptr;
        for (char *w = strtok_r(copy, "\t", &save); w != nullptr && n < 8; w = strtok_r(nullptr, "\t", &save))
            words[n++] = w;
        if (n != 5) abort();
        benchmark::DoNotOptimize(words);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StrtokSplit);

}  // namespace

BENCHMARK_MAIN();
