// Known answers of both AES forms, the chaining behaviour of the byte-wise modes, and the shared
// tables of the table-driven form.
#include <gtest/gtest.h>
#include <string.h>

#include <thread>
#include <vector>

#include "crypto/crypto_internal.h"
#include "crypto/hex.h"

namespace {

const char *kPlain = "00112233445566778899aabbccddeeff";
struct Vector { const char *key, *cipher; };
const Vector kFips[] = {
    {"000102030405060708090a0b0c0d0e0f", "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"000102030405060708090a0b0c0d0e0f1011121314151617", "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "8ea2b7ca516745bfeafc49904b496089"},
};
// NIST SP 800-38A, AES-128: the four plaintext blocks shared by the CBC and CTR examples.
const char *kSpKey = "2b7e151628aed2a6abf7158809cf4f3c";
const char *kSpPlain = "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                       "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";

}  // namespace

TEST(AesTable, FipsVectorsAllKeySizesBothDirections) {
    for (const Vector &v : kFips) {
        std::vector<uint8_t> key = hex(v.key), pt = hex(kPlain), ct = hex(v.cipher);
        STR_AES aes;
        memset(&aes, 0, sizeof(aes));
        set_key(&aes, key.data(), key.size() * 8);
        EXPECT_EQ(aes.uiKeyWords, key.size() / 4);
        uint8_t out[16], back[16];
        encrypt(&aes, pt.data(), out);
        EXPECT_EQ(std::vector<uint8_t>(out, out + 16), ct) << v.key;
        decrypt(&aes, out, back);
        EXPECT_EQ(std::vector<uint8_t>(back, back + 16), pt) << v.key;
    }
    EXPECT_EQ(tab_gen.load(), 1);
    // The appendix B example and the generated S-box corners.
    STR_AES aes;
    memset(&aes, 0, sizeof(aes));
    set_key(&aes, hex(kSpKey).data(), 128);
    uint8_t out[16];
    encrypt(&aes, hex("3243f6a8885a308d313198a2e0370734").data(), out);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 16), hex("3925841d02dc09fbdc118597196a0b32"));
    EXPECT_EQ(sbx_tab[0x00], 0x63);
    EXPECT_EQ(sbx_tab[0x53], 0xed);
    EXPECT_EQ(isb_tab[0x63], 0x00);
    EXPECT_EQ(rco_tab[9], 0x36u);
}

TEST(AesTable, UnsupportedKeyLengthGivesZeroBlocks) {
    STR_AES aes;
    memset(&aes, 0xA5, sizeof(aes));
    uint8_t key[32] = {1}, out[16];
    set_key(&aes, key, 100);
    encrypt(&aes, key, out);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 16), std::vector<uint8_t>(16, 0));
}

TEST(AesTable, ConcurrentFirstUseSeesCompleteTables) {
    // Each test runs in its own process under ctest, so the tables are still ungenerated here.
    if (tab_gen.load() != 0) GTEST_SKIP() << "tables already built in this process";
    std::vector<uint8_t> key = hex(kFips[0].key), pt = hex(kPlain), ct = hex(kFips[0].cipher);
    std::atomic<int> go{0}, wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            while (!go.load()) std::this_thread::yield();
            STR_AES aes;
            memset(&aes, 0, sizeof(aes));
            set_key(&aes, key.data(), 128);
            uint8_t out[16];
            encrypt(&aes, pt.data(), out);
            if (memcmp(out, ct.data(), 16) != 0) wrong++;
        });
    }
    go = 1;
    for (auto &t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(AesBytewise, FipsAndSp80038aVectors) {
    AES_ctx ctx;
    std::vector<uint8_t> block = hex(kPlain);
    AES_init_ctx(&ctx, hex(kFips[0].key).data());
    AES_ECB_encrypt(&ctx, block.data());
    EXPECT_EQ(block, hex(kFips[0].cipher));
    AES_ECB_decrypt(&ctx, block.data());
    EXPECT_EQ(block, hex(kPlain));

    // CBC in one call and as two calls that continue the chain through Iv.
    std::vector<uint8_t> cbc = hex("7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
                                   "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7");
    std::vector<uint8_t> iv = hex("000102030405060708090a0b0c0d0e0f"), buf = hex(kSpPlain);
    AES_init_ctx_iv(&ctx, hex(kSpKey).data(), iv.data());
    AES_CBC_encrypt_buffer(&ctx, buf.data(), 32);
    AES_CBC_encrypt_buffer(&ctx, buf.data() + 32, 32);
    EXPECT_EQ(buf, cbc);
    EXPECT_EQ(0, memcmp(ctx.Iv, cbc.data() + 48, 16));
    AES_ctx_set_iv(&ctx, iv.data());
    AES_CBC_decrypt_buffer(&ctx, buf.data(), 64);
    EXPECT_EQ(buf, hex(kSpPlain));

    std::vector<uint8_t> ctr = hex("874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
                                   "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee");
    AES_ctx_set_iv(&ctx, hex("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff").data());
    AES_CTR_xcrypt_buffer(&ctx, buf.data(), 64);
    EXPECT_EQ(buf, ctr);
}

TEST(AesBytewise, CtrRestartsKeyStreamPerCallAndWrapsCounter) {
    AES_ctx one, two;
    std::vector<uint8_t> a(20, 0), b(20, 0);
    std::vector<uint8_t> ff(16, 0xFF);
    AES_init_ctx_iv(&one, hex(kSpKey).data(), ff.data());
    two = one;
    AES_CTR_xcrypt_buffer(&one, a.data(), 20);
    AES_CTR_xcrypt_buffer(&two, b.data(), 10);
    AES_CTR_xcrypt_buffer(&two, b.data() + 10, 10);
    EXPECT_EQ(0, memcmp(a.data(), b.data(), 10));
    EXPECT_NE(0, memcmp(a.data() + 10, b.data() + 10, 10));
    // All-ones counter wraps to zero, then counts on from there.
    uint8_t expect[16] = {0};
    expect[15] = 1;
    EXPECT_EQ(0, memcmp(one.Iv, expect, 16));
    // A trailing partial block is left as it is by CBC.
    std::vector<uint8_t> odd(20, 7);
    AES_CBC_encrypt_buffer(&one, odd.data(), 20);
    EXPECT_EQ(std::vector<uint8_t>(odd.begin() + 16, odd.end()), std::vector<uint8_t>(4, 7));
}
