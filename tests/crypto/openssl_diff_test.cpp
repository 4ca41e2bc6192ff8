// Both AES forms, MD5 and the frame key streams against OpenSSL's libcrypto as an independent oracle.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <string.h>

#include <algorithm>
#include <random>

#include "crypto/crypto_internal.h"
#include "crypto/hex.h"
#include "korvex/korvex.h"

namespace {

Bytes ossl_ecb(const uint8_t *key, int key_bits, const uint8_t *in, bool enc) {
    const EVP_CIPHER *c = key_bits == 128 ? EVP_aes_128_ecb() : key_bits == 192 ? EVP_aes_192_ecb() : EVP_aes_256_ecb();
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    Bytes out(16);
    int n = 0;
    EVP_CipherInit_ex(ctx, c, nullptr, key, nullptr, enc ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_CipherUpdate(ctx, out.data(), &n, in, 16);
    EVP_CIPHER_CTX_free(ctx);
    return out;
}

Bytes ossl_md5(const uint8_t *in, size_t len) {
    Bytes d(16);
    EVP_Digest(in, len, d.data(), nullptr, EVP_md5(), nullptr);
    return d;
}

Bytes random_bytes(std::mt19937 &rng, size_t n) {
    Bytes b(n);
    for (auto &x : b) x = (uint8_t)rng();
    return b;
}

}  // namespace

TEST(OpenSslDiff, AesBothFormsRandomKeysAndBlocks) {
    std::mt19937 rng(1234);
    for (int i = 0; i < 3000; ++i) {
        int bits = 128 + 64 * (i % 3);
        Bytes key = random_bytes(rng, 32), in = random_bytes(rng, 16), out(16), back(16);
        STR_AES aes;
        memset(&aes, 0, sizeof(aes));
        set_key(&aes, key.data(), bits);
        encrypt(&aes, in.data(), out.data());
        decrypt(&aes, in.data(), back.data());
        ASSERT_EQ(out, ossl_ecb(key.data(), bits, in.data(), true)) << "bits " << bits << " run " << i;
        ASSERT_EQ(back, ossl_ecb(key.data(), bits, in.data(), false)) << "bits " << bits << " run " << i;
        if (bits != 128) continue;
        Bytes one(16);
        aes128_encrypt_block(key.data(), in.data(), one.data());
        ASSERT_EQ(one, out) << "one-block form, run " << i;
        AES_ctx ctx;
        AES_init_ctx(&ctx, key.data());
        AES_ECB_encrypt(&ctx, in.data());
        ASSERT_EQ(in, out) << "byte-wise form, run " << i;
    }
}

TEST(OpenSslDiff, Md5RandomInputs) {
    std::mt19937 rng(99);
    for (int i = 0; i < 3000; ++i) {
        Bytes in = random_bytes(rng, 1 + rng() % (i < 2000 ? 200 : 5000));
        char out[16];
        int len = 16;
        ASSERT_EQ(MD5_Encrypt(out, &len, (const char *)in.data(), (int)in.size()), 0);
        ASSERT_EQ(Bytes(out, out + 16), ossl_md5(in.data(), in.size())) << "len " << in.size();
    }
}

// The frame key streams rebuilt from their definition with OpenSSL's AES and MD5.
TEST(OpenSslDiff, FrameKeyStreams) {
    std::mt19937 rng(7);
    for (int i = 0; i < 500; ++i) {
        uint32_t counter = rng();
        int key_len = 1 + (int)(rng() % 16);
        uint8_t key[16] = {0}, counter_block[16] = {0};
        for (int j = 0; j < key_len; ++j) key[j] = (uint8_t)(1 + rng() % 255);
        for (int j = 0; j < 4; ++j) counter_block[j] = (uint8_t)(counter >> (8 * j));

        // Plain: the counter block under the key padded with 0xFF, repeated over the buffer.
        uint8_t padded[16];
        memset(padded, 0xFF, 16);
        memcpy(padded, key, key_len);
        Bytes s = ossl_ecb(padded, 128, counter_block, true), buf(40);
        ASSERT_EQ(aes_crypt(buf.data(), 40, counter, key, key_len), 0);
        for (int j = 0; j < 40; ++j) ASSERT_EQ(buf[j], s[j % 16]) << "run " << i;

        // Enhanced: the MD5 of the counter under the key text rotated by a quarter of its length per block.
        Bytes d = ossl_md5(counter_block, 4), k, area(key, key + 16);
        for (int b = 0; b < 4; ++b) {
            Bytes block = ossl_ecb(area.data(), 128, d.data(), true);
            k.insert(k.end(), block.begin(), block.end());
            std::rotate(area.begin(), area.begin() + key_len / 4, area.begin() + key_len);
        }
        Bytes frame(300);
        for (int j = 0; j < 4; ++j) frame[j] = (uint8_t)(k[j] ^ (j == 3));  // enciphered start code
        ASSERT_EQ(video_AES_CTR_EX(frame.data(), 300, counter, key, key_len), 0) << "run " << i;
        for (int j = 4; j < 300; ++j) ASSERT_EQ(frame[j], j < 64 ? k[j] : j < 256 ? 0 : k[j - 256]) << j;
    }
}
