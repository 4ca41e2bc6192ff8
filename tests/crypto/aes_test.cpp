// Known answers of both AES forms, the chaining behaviour of the byte-wise modes, and the first use
// of the shared tables from several threads.
#include <gtest/gtest.h>
#include <string.h>

#include <thread>

#include "crypto/crypto_internal.h"
#include "crypto/hex.h"

namespace {

const char *kPlain = "00112233445566778899aabbccddeeff";
const char *kFips[][2] = {
    {"000102030405060708090a0b0c0d0e0f", "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"000102030405060708090a0b0c0d0e0f1011121314151617", "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "8ea2b7ca516745bfeafc49904b496089"},
};

bool table_aes_ok(const char *key_hex, const char *cipher_hex) {
    Bytes key = hex(key_hex), out(16), back(16);
    STR_AES aes;
    memset(&aes, 0, sizeof(aes));
    set_key(&aes, key.data(), key.size() * 8);
    encrypt(&aes, hex(kPlain).data(), out.data());
    decrypt(&aes, out.data(), back.data());
    return out == hex(cipher_hex) && back == hex(kPlain) && aes.uiKeyWords == key.size() / 4;
}

}  // namespace

TEST(AesTable, FipsVectorsAllKeySizesBothDirections) {
    for (auto &v : kFips) EXPECT_TRUE(table_aes_ok(v[0], v[1])) << v[0];
    EXPECT_EQ(tab_gen.load(), 1);
}

TEST(AesTable, ConcurrentFirstUseSeesCompleteTables) {
    // Each test runs in its own process under ctest, so the tables are still ungenerated here.
    if (tab_gen.load() != 0) GTEST_SKIP() << "tables already built in this process";
    std::atomic<int> go{0}, wrong{0};
    std::thread threads[8];
    for (auto &t : threads) {
        t = std::thread([&] {
            while (!go.load()) std::this_thread::yield();
            if (!table_aes_ok(kFips[2][0], kFips[2][1])) wrong++;
        });
    }
    go = 1;
    for (auto &t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(AesBytewise, FipsAndSp80038aVectors) {
    AES_ctx ctx;
    Bytes block = hex(kPlain);
    AES_init_ctx(&ctx, hex(kFips[0][0]).data());
    AES_ECB_encrypt(&ctx, block.data());
    EXPECT_EQ(block, hex(kFips[0][1]));
    AES_ECB_decrypt(&ctx, block.data());
    EXPECT_EQ(block, hex(kPlain));

    // SP 800-38A, AES-128: CBC as two calls that continue the chain through Iv, then CTR.
    const char *plain = "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                        "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
    Bytes iv = hex("000102030405060708090a0b0c0d0e0f"), buf = hex(plain);
    AES_init_ctx_iv(&ctx, hex("2b7e151628aed2a6abf7158809cf4f3c").data(), iv.data());
    AES_CBC_encrypt_buffer(&ctx, buf.data(), 32);
    AES_CBC_encrypt_buffer(&ctx, buf.data() + 32, 32);
    EXPECT_EQ(buf, hex("7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
                       "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"));
    EXPECT_EQ(Bytes(ctx.Iv, ctx.Iv + 16), Bytes(buf.end() - 16, buf.end()));
    AES_ctx_set_iv(&ctx, iv.data());
    AES_CBC_decrypt_buffer(&ctx, buf.data(), 64);
    EXPECT_EQ(buf, hex(plain));
    AES_ctx_set_iv(&ctx, hex("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff").data());
    AES_CTR_xcrypt_buffer(&ctx, buf.data(), 64);
    EXPECT_EQ(buf, hex("874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
                       "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee"));
}

TEST(AesBytewise, CtrRestartsKeyStreamPerCallAndWrapsCounter) {
    AES_ctx one, two;
    Bytes a(20), b(20), ff(16, 0xFF), wrapped(16);
    wrapped[15] = 1;  // all ones, plus the two blocks each context used
    AES_init_ctx_iv(&one, hex(kFips[0][0]).data(), ff.data());
    two = one;
    AES_CTR_xcrypt_buffer(&one, a.data(), 20);
    AES_CTR_xcrypt_buffer(&two, b.data(), 10);
    AES_CTR_xcrypt_buffer(&two, b.data() + 10, 10);
    EXPECT_EQ(0, memcmp(a.data(), b.data(), 10));
    EXPECT_NE(0, memcmp(a.data() + 10, b.data() + 10, 10));
    EXPECT_EQ(Bytes(one.Iv, one.Iv + 16), wrapped);
    EXPECT_EQ(Bytes(two.Iv, two.Iv + 16), wrapped);
}
