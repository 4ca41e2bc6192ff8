// Frames per second of SA_GetUserDataInfoEx on a typical frame - 100 KB with one user-data container of
// time, VCA targets and a plate - in both analyses, against memcpy of the frame and of the frame plus
// the 10 KiB working buffer.
#include <benchmark/benchmark.h>
#include <string.h>

#include <vector>

#include "korvex/korvex.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kFrameLen = 100 * 1000;

void put16(Bytes &b, unsigned v) {
    b.push_back(uint8_t(v)), b.push_back(uint8_t(v >> 8));
}

void put32(Bytes &b, uint32_t v) {
    put16(b, v & 0xFFFF), put16(b, v >> 16);
}

void block(Bytes &c, unsigned type, const Bytes &payload) {
    put16(c, type), put16(c, unsigned(payload.size()));
    c.insert(c.end(), payload.begin(), payload.end());
}

// A container with a time block, eight VCA targets and one plate, as a device sends them.
Bytes container() {
    Bytes blocks;
    Bytes time;
    put32(time, 1700000000);
    block(blocks, 0xFED3, time);
    Bytes vca;
    put16(vca, 8);
    for (unsigned i = 0; i < 8; i++) {
        for (unsigned w : {1000 * i, 2000u, 1000 * i + 800, 3500u, i, 0u, 0u, 0u}) put16(vca, w);
    }
    block(blocks, 0xFED2, vca);
    Bytes plate;
    put32(plate, 1);
    for (int i = 0; i < 64; i++) plate.push_back(uint8_t("AB123CD"[i % 7]));
    block(blocks, 0xFED5, plate);
    Bytes c = {'Q', 'Z', 'S', 'T'};
    put16(c, 3), put16(c, unsigned(blocks.size()));
    c.insert(c.end(), blocks.begin(), blocks.end());
    return c;
}

// The user-data unit: pattern, size bytes, the container with emulation prevention, trailing byte.
Bytes unit(uint8_t payload_type) {
    const Bytes c = container();
    Bytes u = {0, 0, 0, 1, 0x06, payload_type};
    for (size_t n = c.size();; n -= 255) {
        u.push_back(uint8_t(n >= 255 ? 255 : n));
        if (n < 255) break;
    }
    int zeros = 0;
    for (uint8_t b : c) {
        if (zeros >= 2 && b <= 3) u.push_back(3), zeros = 0;
        u.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    u.push_back(0x80);
    return u;
}

// A 100 KB frame: header, the unit, then the coded slice.
Bytes frame(uint8_t payload_type) {
    Bytes f(32, 0);
    Bytes data = unit(payload_type);
    const Bytes slice = {0, 0, 0, 1, 0x65, 0x88};
    data.insert(data.end(), slice.begin(), slice.end());
    for (size_t i = 0; data.size() + 32 < kFrameLen; i++) data.push_back(uint8_t(i * 131 + 7) | 1);
    const uint32_t len = uint32_t(32 + data.size()), payload = uint32_t(data.size());
    memcpy(&f[4], &len, 4);
    memcpy(&f[20], &payload, 4);
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

int on_block(int, int type, const void *, int len, TUserDataFrameInfo *, void *user) {
    *static_cast<long *>(user) += type + len;
    return 0;
}

void per_frame(benchmark::State &state, size_t bytes) {
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(int64_t(state.iterations() * bytes));
}

void run_analysis(benchmark::State &state, uint8_t payload_type, int type, int mask) {
    const Bytes f = frame(payload_type);
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
    run_analysis(state, 0xF0, 255, 0);
}
BENCHMARK(BM_SingleFrameAllTypes);

void BM_TwoLayoutOldContainer(benchmark::State &state) {
    run_analysis(state, 0xF0, 255, 0x7FFFFFFF);
}
BENCHMARK(BM_TwoLayoutOldContainer);

void BM_TwoLayoutNewContainer(benchmark::State &state) {
    run_analysis(state, 0xF1, 255, 0x7FFFFFFF);
}
BENCHMARK(BM_TwoLayoutNewContainer);

void run_memcpy(benchmark::State &state, size_t extra) {
    const Bytes f = frame(0xF0);
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
