// Frames per second of SA_GetUserDataInfoEx on a typical frame - 100 KB with one user-data container of
// time, VCA targets and a plate - in both analyses, against memcpy of the frame and of the frame plus
// the 10 KiB working buffer; and on a small frame with the same container, against the floor of the
// analysis's own work (clearing the 10 KiB working buffer and copying the container).
#include <benchmark/benchmark.h>
#include <string.h>

#include <vector>

#include "framegen.h"
#include "korvex/korvex.h"

namespace {

using framegen::Bytes;

constexpr size_t kFrameLen = 100 * 1000;

// A container with a time block, eight VCA targets and one plate, as a device sends them.
Bytes container() {
    Bytes vca;
    framegen::put16(vca, 8);
    for (unsigned i = 0; i < 8; i++) {
        for (unsigned w : {1000 * i, 2000u, 1000 * i + 800, 3500u, i, 0u, 0u, 0u})
            framegen::put16(vca, uint16_t(w));
    }
    Bytes plate = framegen::le32(1);
    for (int i = 0; i < 64; i++) plate.push_back(uint8_t("AB123CD"[i % 7]));
    return framegen::container("QZST", {framegen::block(0xFED3, framegen::le32(1700000000)),
                                        framegen::block(0xFED2, vca), framegen::block(0xFED5, plate)});
}

// A frame: header, the user-data unit, then the start of a coded slice, filled up to len bytes with
// slice data (a small frame holds only the unit and the slice's first bytes).
Bytes frame(framegen::Layout layout, size_t len) {
    Bytes data = framegen::cat({framegen::unit(21, layout, container()), {0, 0, 0, 1, 0x65, 0x88}});
    for (size_t i = 0; data.size() + 32 < len; i++) data.push_back(uint8_t(i * 131 + 7) | 1);
    return framegen::frame(data);
}

int on_block(int, int type, const void *, int len, TUserDataFrameInfo *, void *user) {
    *static_cast<long *>(user) += type + len;
    return 0;
}

void per_frame(benchmark::State &state, size_t bytes) {
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(int64_t(state.iterations() * bytes));
}

void run_analysis(benchmark::State &state, framegen::Layout layout, int type, int mask, size_t len) {
    const Bytes f = frame(layout, len);
    static tagUserDataAll all;
    static tagVcaTargetGet vca;
    static tagLprInfo lpr;
    __S_AbsoluteTime time;
    tagUserDataOut slots = {};
    slots.pTime = &time, slots.pVca = &vca, slots.iVcaSize = sizeof(vca), slots.pLpr = &lpr;
    long sum = 0;
    tagUserDataInfoPara in = {};
    in.iSize = sizeof(in), in.iType = type, in.pucFrameBuf = f.data(), in.iFrameLen = int(f.size());
    in.iEncode = 21, in.pfnUserDataCb = on_block, in.pvCbUser = &sum, in.iTypeMask = mask;
    void *out = mask > 0 ? static_cast<void *>(&slots) : static_cast<void *>(&all);
    const int out_size = mask > 0 ? int(sizeof(slots)) : int(sizeof(all));
    all.tLpr.iEntrySize = lpr.iEntrySize = 120;
    for (auto _ : state) {
        // Clearing the records between frames is the caller's work and stays out of the measurement;
        // 0xFED2 replaces its count anyway.
        int rc = SA_GetUserDataInfoEx(&in, sizeof(in), out, out_size);
        if (rc != 0) state.SkipWithError("analysis failed");
        benchmark::DoNotOptimize(sum);
    }
    per_frame(state, f.size());
}

void BM_SingleFrameAllTypes(benchmark::State &state) {
    run_analysis(state, framegen::kOld, 255, 0, kFrameLen);
}
BENCHMARK(BM_SingleFrameAllTypes);

void BM_TwoLayoutOldContainer(benchmark::State &state) {
    run_analysis(state, framegen::kOld, 255, 0x7FFFFFFF, kFrameLen);
}
BENCHMARK(BM_TwoLayoutOldContainer);

void BM_TwoLayoutNewContainer(benchmark::State &state) {
    run_analysis(state, framegen::kNew, 255, 0x7FFFFFFF, kFrameLen);
}
BENCHMARK(BM_TwoLayoutNewContainer);

// The same analyses on a small frame: the header, the unit and the first bytes of a slice.
void BM_SmallSingleFrameAllTypes(benchmark::State &state) {
    run_analysis(state, framegen::kOld, 255, 0, 0);
}
BENCHMARK(BM_SmallSingleFrameAllTypes);

void BM_SmallTwoLayoutOldContainer(benchmark::State &state) {
    run_analysis(state, framegen::kOld, 255, 0x7FFFFFFF, 0);
}
BENCHMARK(BM_SmallTwoLayoutOldContainer);

void BM_SmallTwoLayoutNewContainer(benchmark::State &state) {
    run_analysis(state, framegen::kNew, 255, 0x7FFFFFFF, 0);
}
BENCHMARK(BM_SmallTwoLayoutNewContainer);

// The floor of an analysis: clearing a 10 KiB working buffer and copying the container into it.
void BM_SmallFloor(benchmark::State &state) {
    const Bytes c = container();
    static uint8_t work[10240];
    for (auto _ : state) {
        memset(work, 0, sizeof(work));
        benchmark::ClobberMemory();
        memcpy(work, c.data(), c.size());
        benchmark::DoNotOptimize(work);
        benchmark::ClobberMemory();
    }
    per_frame(state, c.size());
}
BENCHMARK(BM_SmallFloor);

void run_memcpy(benchmark::State &state, size_t extra) {
    const Bytes f = frame(framegen::kOld, kFrameLen);
    Bytes src = f;
    src.resize(f.size() + extra);
    Bytes dst(src.size());
    for (auto _ : state) {
        memcpy(dst.data(), src.data(), src.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    per_frame(state, src.size());
}

void BM_MemcpyFrame(benchmark::State &state) {
    run_memcpy(state, 0);
}
BENCHMARK(BM_MemcpyFrame);

void BM_MemcpyFramePlus10KiB(benchmark::State &state) {
    run_memcpy(state, 10240);
}
BENCHMARK(BM_MemcpyFramePlus10KiB);

}  // namespace

BENCHMARK_MAIN();
