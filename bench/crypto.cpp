// Ciphers and frame encryption against OpenSSL and memcpy.
//
// OpenSSL picks its AES code once, when it initialises, from OPENSSL_ia32cap. The program therefore
// runs its OpenSSL AES benchmark in the mode the environment gives, and then starts itself twice more
// with AES-NI masked off (OpenSSL then uses its SSSE3 vector-permutation AES) and with AES-NI and
// SSSE3 masked off (its table-driven AES, the same technique as ours).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "korvex/korvex.h"
#include "platform/bytes.h"
#include "stream/frame_header.h"
#ifdef KORVEX_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace {

constexpr int kBlocks = 1024;  // blocks per iteration of the block cipher benchmarks
const unsigned char kKey[17] = "bench-key-01234";

std::vector<uint8_t> filled(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = (uint8_t)(i * 131 + 7);
    return v;
}

void per_block(benchmark::State &state) {
    state.SetItemsProcessed(state.iterations() * kBlocks);
    state.counters["per_block"] = benchmark::Counter((double)kBlocks,
                                                    benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}

void BM_TableAesEncrypt(benchmark::State &state) {
    STR_AES aes;
    memset(&aes, 0, sizeof(aes));
    set_key(&aes, kKey, 128);
    std::vector<uint8_t> in = filled(16 * kBlocks), out(16 * kBlocks);
    for (auto _ : state) {
        for (int i = 0; i < kBlocks; ++i) encrypt(&aes, &in[16 * i], &out[16 * i]);
        benchmark::DoNotOptimize(out.data());
    }
    per_block(state);
}
BENCHMARK(BM_TableAesEncrypt);

void BM_BytewiseAesEncrypt(benchmark::State &state) {
    AES_ctx ctx;
    AES_init_ctx(&ctx, kKey);
    std::vector<uint8_t> buf = filled(16 * kBlocks);
    for (auto _ : state) {
        for (int i = 0; i < kBlocks; ++i) AES_ECB_encrypt(&ctx, &buf[16 * i]);
        benchmark::DoNotOptimize(buf.data());
    }
    per_block(state);
}
BENCHMARK(BM_BytewiseAesEncrypt);

void BM_BytewiseAesCtr(benchmark::State &state) {
    AES_ctx ctx;
    const uint8_t iv[16] = {0};
    AES_init_ctx_iv(&ctx, kKey, iv);
    std::vector<uint8_t> buf = filled(16 * kBlocks);
    for (auto _ : state) {
        AES_CTR_xcrypt_buffer(&ctx, buf.data(), buf.size());
        benchmark::DoNotOptimize(buf.data());
    }
    state.SetBytesProcessed(state.iterations() * 16 * kBlocks);
}
BENCHMARK(BM_BytewiseAesCtr);

void BM_Md5(benchmark::State &state) {
    std::vector<uint8_t> in = filled((size_t)state.range(0));
    char out[16];
    for (auto _ : state) {
        int len = 16;
        MD5_Encrypt(out, &len, (const char *)in.data(), (int)in.size());
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Md5)->Arg(64)->Arg(65536);

#ifdef KORVEX_HAVE_OPENSSL
void BM_OpenSslAesEncrypt(benchmark::State &state) {
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_128_ecb(), nullptr, kKey, nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    std::vector<uint8_t> in = filled(16 * kBlocks), out(16 * kBlocks);
    for (auto _ : state) {
        int n = 0;
        EVP_EncryptUpdate(ctx, out.data(), &n, in.data(), 16 * kBlocks);
        benchmark::DoNotOptimize(out.data());
    }
    EVP_CIPHER_CTX_free(ctx);
    per_block(state);
    const char *caps = getenv("OPENSSL_ia32cap");
    state.SetLabel(caps ? std::string("OPENSSL_ia32cap=") + caps : "all CPU features");
}
BENCHMARK(BM_OpenSslAesEncrypt);

void BM_OpenSslAesCtr(benchmark::State &state) {
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    const uint8_t iv[16] = {0};
    EVP_EncryptInit_ex(ctx, EVP_aes_128_ctr(), nullptr, kKey, iv);
    std::vector<uint8_t> buf = filled(16 * kBlocks);
    for (auto _ : state) {
        int n = 0;
        EVP_EncryptUpdate(ctx, buf.data(), &n, buf.data(), 16 * kBlocks);
        benchmark::DoNotOptimize(buf.data());
    }
    EVP_CIPHER_CTX_free(ctx);
    state.SetBytesProcessed(state.iterations() * 16 * kBlocks);
    const char *caps = getenv("OPENSSL_ia32cap");
    state.SetLabel(caps ? std::string("OPENSSL_ia32cap=") + caps : "all CPU features");
}
BENCHMARK(BM_OpenSslAesCtr);

void BM_OpenSslMd5(benchmark::State &state) {
    std::vector<uint8_t> in = filled((size_t)state.range(0));
    unsigned char out[16];
    for (auto _ : state) {
        unsigned int n = 0;
        EVP_Digest(in.data(), in.size(), out, &n, EVP_md5(), nullptr);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_OpenSslMd5)->Arg(64)->Arg(65536);
#endif

// An encrypted frame of `size` bytes in the given mode.
std::vector<uint8_t> encrypted_frame(size_t size, bool enhanced) {
    std::vector<uint8_t> f = filled(size);
    uint32_t payload = (uint32_t)size - 32;
    memset(f.data(), 0, 32);
    kx_wr32le(&f[KX_FH_FRAME_LEN], (uint32_t)size);
    kx_wr32le(&f[KX_FH_FRAME_NO], 4711);
    kx_wr32le(&f[KX_FH_PAYLOAD_LEN], payload);
    fh_set_flags(f.data(), 0xFFFF);
    memcpy(&f[32], "\x00\x00\x00\x01", 4);
    int rc = enhanced ? SA_EncryptOneFrameEx(f.data(), (int)size, kKey, 15) : SA_EncryptOneFrame(f.data(), (int)size, kKey, 15);
    if (rc != 0) abort();
    return f;
}

// Puts back the bytes a decryption changes: the flag word and the enciphered ranges.
inline void restore(uint8_t *f, const uint8_t *enc, size_t size, bool enhanced) {
    memcpy(f + 30, enc + 30, 2);
    if (!enhanced) {
        memcpy(f + 32, enc + 32, 64);
        return;
    }
    size_t end = size - 32 < 0x40000 ? size - 32 : 0x40000;
    for (size_t u = 0; u < end; u += 256) memcpy(f + 32 + u, enc + 32 + u, end - u < 64 ? end - u : 64);
}

// Each iteration restores the changed bytes and decrypts; Restore alone is the part to subtract.
void decrypt_frame(benchmark::State &state, bool enhanced, bool decrypt) {
    size_t size = (size_t)state.range(0);
    std::vector<uint8_t> enc = encrypted_frame(size, enhanced), f = enc;
    for (auto _ : state) {
        restore(f.data(), enc.data(), size, enhanced);
        if (decrypt && SA_DecryptOneFrame(f.data(), (int)size, kKey, 15) != 0) abort();
        benchmark::DoNotOptimize(f.data());
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_DecryptPlain(benchmark::State &s) { decrypt_frame(s, false, true); }
void BM_DecryptEnhanced(benchmark::State &s) { decrypt_frame(s, true, true); }
void BM_RestorePlain(benchmark::State &s) { decrypt_frame(s, false, false); }
void BM_RestoreEnhanced(benchmark::State &s) { decrypt_frame(s, true, false); }

void BM_FrameMemcpy(benchmark::State &state) {
    std::vector<uint8_t> src = filled((size_t)state.range(0)), dst(src.size());
    for (auto _ : state) {
        memcpy(dst.data(), src.data(), src.size());
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetItemsProcessed(state.iterations());
}

#define FRAME_SIZES ->Arg(1024)->Arg(16384)->Arg(100000)->Arg(262144)->Arg(1048576)
BENCHMARK(BM_DecryptPlain) FRAME_SIZES;
BENCHMARK(BM_RestorePlain) FRAME_SIZES;
BENCHMARK(BM_DecryptEnhanced) FRAME_SIZES;
BENCHMARK(BM_RestoreEnhanced) FRAME_SIZES;
BENCHMARK(BM_FrameMemcpy) FRAME_SIZES;

// Runs this program again on its OpenSSL AES benchmarks with the given CPU feature mask.
void rerun_openssl_aes(const char *self, const char *caps) {
    pid_t pid = fork();
    if (pid == 0) {
        setenv("OPENSSL_ia32cap", caps, 1);
        execl(self, self, "--benchmark_filter=BM_OpenSslAes", (char *)nullptr);
        _exit(127);
    }
    if (pid > 0) waitpid(pid, nullptr, 0);
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
#ifdef KORVEX_HAVE_OPENSSL
    if (getenv("OPENSSL_ia32cap") == nullptr) {
        rerun_openssl_aes("/proc/self/exe", "~0x200000000000000");   // AES-NI off
        rerun_openssl_aes("/proc/self/exe", "~0x200020000000000");   // AES-NI and SSSE3 off
    }
#endif
    return 0;
}
