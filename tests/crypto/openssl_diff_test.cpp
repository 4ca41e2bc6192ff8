// Both AES forms, MD5 and the frame key streams against OpenSSL's libcrypto as an independent oracle.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <vector>

#include "korvex/korvex.h"

namespace {

void ossl_ecb(const uint8_t *key, int key_bits, const uint8_t *in, uint8_t *out, bool enc) {
    const EVP_CIPHER *c = key_bits == 128 ? EVP_aes_128_ecb() : key_bits == 192 ? EVP_aes_192_ecb() : EVP_aes_256_ecb();
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    int n = 0;
    ASSERT_EQ(EVP_CipherInit_ex(ctx, c, nullptr, key, nullptr, enc ? 1 : 0), 1);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    ASSERT_EQ(EVP_CipherUpdate(ctx, out, &n, in, 16), 1);
    EXPECT_EQ(n, 16);
    EVP_CIPHER_CTX_free(ctx);
}

std::vector<uint8_t> ossl_md5(const uint8_t *in, size_t len) {
    std::vector<uint8_t> d(16);
    unsigned int n = 0;
    EVP_Digest(in, len, d.data(), &n, EVP_md5(), nullptr);
    return d;
}

}  // namespace

TEST(OpenSslDiff, AesBothFormsRandomKeysAndBlocks) {
    std::mt19937 rng(1234);
    uint8_t key[32], in[16], want[16], got[16], back[16];
    for (int i = 0; i < 3000; ++i) {
        int bits = 128 + 64 * (i % 3);
        for (auto &b : key) b = (uint8_t)rng();
        for (auto &b : in) b = (uint8_t)rng();
        STR_AES aes;
        memset(&aes, 0, sizeof(aes));
        set_key(&aes, key, bits);
        ossl_ecb(key, bits, in, want, true);
        encrypt(&aes, in, got);
        ASSERT_EQ(0, memcmp(got, want, 16)) << "bits " << bits << " run " << i;
        ossl_ecb(key, bits, in, want, false);
        decrypt(&aes, in, back);
        ASSERT_EQ(0, memcmp(back, want, 16)) << "bits " << bits << " run " << i;
        if (bits == 128) {
            AES_ctx ctx;
            AES_init_ctx(&ctx, key);
            memcpy(got, in, 16);
            AES_ECB_encrypt(&ctx, got);
            ossl_ecb(key, 128, in, want, true);
            ASSERT_EQ(0, memcmp(got, want, 16)) << "run " << i;
            AES_ECB_decrypt(&ctx, got);
            ASSERT_EQ(0, memcmp(got, in, 16)) << "run " << i;
        }
    }
}

TEST(OpenSslDiff, Md5RandomInputs) {
    std::mt19937 rng(99);
    std::vector<uint8_t> in;
    for (int i = 0; i < 3000; ++i) {
        in.resize(1 + rng() % (i < 2000 ? 200 : 5000));
        for (auto &b : in) b = (uint8_t)rng();
        char out[16];
        int len = 16;
        ASSERT_EQ(MD5_Encrypt(out, &len, (const char *)in.data(), (int)in.size()), 0);
        ASSERT_EQ(std::vector<uint8_t>(out, out + 16), ossl_md5(in.data(), in.size())) << "len " << in.size();
    }
}

// The frame key streams rebuilt from their definition with OpenSSL's AES and MD5.
TEST(OpenSslDiff, FrameKeyStreams) {
    std::mt19937 rng(7);
    for (int i = 0; i < 500; ++i) {
        uint32_t counter = rng();
        int key_len = 1 + (int)(rng() % 16);
        uint8_t key[17] = {0};
        for (int j = 0; j < key_len; ++j) key[j] = (uint8_t)(1 + rng() % 255);

        // Plain: the counter block under the key padded with 0xFF, repeated over the buffer.
        uint8_t aes_key[16], block[16] = {0}, s[16];
        memset(aes_key, 0xFF, 16);
        memcpy(aes_key, key, key_len);
        memcpy(block, &counter, 4);  // little-endian host
        ossl_ecb(aes_key, 128, block, s, true);
        std::vector<uint8_t> buf(40, 0);
        ASSERT_EQ(aes_crypt(buf.data(), 40, counter, key, key_len), 0);
        for (int j = 0; j < 40; ++j) ASSERT_EQ(buf[j], s[j % 16]) << "run " << i;

        // Enhanced: the MD5 of the counter under the key text rotated by a quarter of its length per block.
        std::vector<uint8_t> d = ossl_md5(block, 4), k(64);
        uint8_t area[16];
        memcpy(area, key, 16);
        for (int b = 0; b < 4; ++b) {
            ossl_ecb(area, 128, d.data(), k.data() + 16 * b, true);
            std::rotate(area, area + key_len / 4, area + key_len);
        }
        std::vector<uint8_t> frame(300, 0);
        for (int j = 0; j < 4; ++j) frame[j] = (uint8_t)(k[j] ^ (j == 3));
        ASSERT_EQ(video_AES_CTR_EX(frame.data(), 300, counter, key, key_len), 0) << "run " << i;
        for (int j = 0; j < 64; ++j) ASSERT_EQ(frame[j], j < 4 ? (j == 3) : k[j]) << j;
        for (int j = 256; j < 300; ++j) ASSERT_EQ(frame[j], k[j - 256]) << j;
    }
}
