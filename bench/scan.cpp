// The link's head scan over a run of noise against memchr over the same bytes. The noise is
// pseudo-random bytes with every head magic broken up and without the byte memchr looks for, so
// both walk the whole run once.
#include <benchmark/benchmark.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "link/link_internal.h"

namespace {

constexpr size_t kRun = 1 << 20;
constexpr int kAbsent = 0xA5;  // never in the noise: memchr reads to the end

std::vector<char> noise() {
    std::vector<char> v(kRun);
    uint32_t x = 2463534242u;
    for (size_t i = 0; i < kRun; i++) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        uint8_t b = (uint8_t)(x >> 24);
        v[i] = (char)(b == kAbsent ? 0x5A : b);
    }
    // Breaks every command, data and ODNS magic the generator happened to write.
    for (size_t i = 0; i + 4 <= kRun; i++) {
        const uint8_t *p = (const uint8_t *)&v[i];
        if (memcmp(p, kLinkCommandMagic, 4) == 0 || memcmp(p, kLinkDataMagic, 4) == 0 ||
            memcmp(p, kLinkOdnsMagic, 4) == 0)
            v[i + 1] = 0x11;
    }
    return v;
}

void BM_HeadScan(benchmark::State &state) {
    std::vector<char> run = noise();
    for (auto _ : state) {
        int package_len = 0;
        int skip = protocol_parase_net_data(run.data(), (int)run.size(), &package_len);
        if (skip != (int)run.size() - LINK_SCAN_TAIL) abort();
        benchmark::DoNotOptimize(skip);
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)kRun);
}
BENCHMARK(BM_HeadScan);

void BM_Memchr(benchmark::State &state) {
    std::vector<char> run = noise();
    for (auto _ : state) {
        const void *hit = memchr(run.data(), kAbsent, run.size());
        if (hit != nullptr) abort();
        benchmark::DoNotOptimize(hit);
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)kRun);
}
BENCHMARK(BM_Memchr);

}  // namespace

BENCHMARK_MAIN();
