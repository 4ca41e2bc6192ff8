// The frame cipher modes: self-inverse XOR, key fitting, the start-code checks, the bytes the
// enhanced form touches, and the small helpers.
#include <gtest/gtest.h>
#include <string.h>

#include <vector>

#include "crypto/crypto_internal.h"

namespace {

const unsigned char kKey[17] = "0123456789abcdef";

// A buffer whose first four bytes decipher to the start code under the plain key stream.
std::vector<uint8_t> plain_cipher_text(int len, uint32_t counter, const unsigned char *key, int key_len) {
    std::vector<uint8_t> buf(len);
    for (int i = 0; i < len; ++i) buf[i] = (uint8_t)(i * 7 + 3);
    memcpy(buf.data(), cValidFrameFlag, 4);
    aes_crypt(buf.data(), len, counter, key, key_len);
    return buf;
}

}  // namespace

TEST(FrameCipher, AesCryptIsItsOwnInverseAndFitsKeys) {
    std::vector<uint8_t> orig(37), buf;
    for (size_t i = 0; i < orig.size(); ++i) orig[i] = (uint8_t)i;
    buf = orig;
    EXPECT_EQ(aes_crypt(buf.data(), 37, 9, kKey, 5), 0);
    EXPECT_NE(buf, orig);
    EXPECT_EQ(buf[0] ^ orig[0], buf[16] ^ orig[16]);  // one block, repeated every 16 bytes
    EXPECT_EQ(AES_CTR(buf.data(), 37, 9, kKey, 5), 0);
    EXPECT_EQ(buf, orig);

    // Over 16 bytes the key counts as 16 zero bytes; a short key is padded with 0xFF.
    unsigned char zero16[16] = {0}, s17[16], s0[16], s3[16], s3ff[16];
    frame_key_stream_block(4, kKey, 17, s17);
    frame_key_stream_block(4, zero16, 16, s0);
    EXPECT_EQ(0, memcmp(s17, s0, 16));
    unsigned char padded[16];
    memset(padded, 0xFF, 16);
    memcpy(padded, "abc", 3);
    frame_key_stream_block(4, padded, 3, s3);
    frame_key_stream_block(4, padded, 16, s3ff);
    EXPECT_EQ(0, memcmp(s3, s3ff, 16));

    unsigned char out[17];
    memset(out, 0x11, sizeof(out));
    EXPECT_EQ(expand_key(kKey, 17, out), -1);
    EXPECT_EQ(out[0], 0x11);
    EXPECT_EQ(expand_key(kKey, 16, out), 0);
    EXPECT_EQ(0, memcmp(out, kKey, 16));
    EXPECT_EQ(out[16], 0);
    EXPECT_EQ(expand_key(kKey, 5, out), 0);
    EXPECT_EQ(out[5], 0xFF);
    EXPECT_EQ(out[15], 0xFF);
}

TEST(FrameCipher, VideoCtrChecksStartCodeBeforeTouching) {
    std::vector<uint8_t> buf = plain_cipher_text(64, 77, kKey, 8), copy = buf;
    EXPECT_EQ(video_AES_CTR(buf.data(), 64, 77, kKey, 7), -1);  // wrong key
    EXPECT_EQ(video_AES_CTR(buf.data(), 64, 78, kKey, 8), -1);  // wrong counter
    EXPECT_EQ(video_AES_CTR(buf.data(), 3, 77, kKey, 8), -1);   // too short for the test
    EXPECT_EQ(buf, copy);
    EXPECT_EQ(video_AES_CTR(buf.data(), 64, 77, kKey, 8), 0);
    EXPECT_EQ(0, memcmp(buf.data(), cValidFrameFlag, 4));
    EXPECT_EQ(buf[63], (uint8_t)(63 * 7 + 3));
}

TEST(FrameCipher, EnhancedTouchesFirst64OfEvery256WithinLimit) {
    struct Case { int len; std::vector<std::pair<int, int>> changed; };
    const Case cases[] = {
        {100, {{0, 64}}},
        {300, {{0, 64}, {256, 300}}},
        {400, {{0, 64}, {256, 320}}},
        {262244, {{0, 64}, {261888, 261952}}},
    };
    unsigned char k[64];
    ASSERT_EQ(frame_key_stream_ex(5, kKey, k), 0);
    for (const Case &c : cases) {
        std::vector<uint8_t> buf(c.len, 0);
        // Enciphered start code, so the check passes; every other byte 0 shows the key stream.
        for (int i = 0; i < 4; ++i) buf[i] = (uint8_t)(cValidFrameFlag[i] ^ k[i]);
        std::vector<uint8_t> orig = buf;
        ASSERT_EQ(video_AES_CTR_EX(buf.data(), c.len, 5, kKey, 16), 0);
        for (int i = 0; i < c.len; ++i) {
            bool in_unit = (i % 256) < 64 && i < 0x40000 && (i < (c.len & ~255) || i - (c.len & ~255) < 64);
            uint8_t want = in_unit ? (uint8_t)(orig[i] ^ k[i % 64]) : orig[i];
            ASSERT_EQ(buf[i], want) << "len " << c.len << " byte " << i;
        }
        for (auto &r : c.changed) EXPECT_EQ(buf[r.second - 1], k[(r.second - 1) % 64]);
    }
    // Fewer than four bytes, a wrong key, a null key: refused, nothing changed.
    std::vector<uint8_t> small = {1, 2, 3};
    EXPECT_EQ(video_AES_CTR_EX(small.data(), 3, 5, kKey, 16), -1);
    std::vector<uint8_t> buf(64, 0), orig = buf;
    EXPECT_EQ(video_AES_CTR_EX(buf.data(), 64, 5, kKey, 16), -1);
    EXPECT_EQ(video_AES_CTR_EX(buf.data(), 64, 5, nullptr, 16), -1);
    EXPECT_EQ(buf, orig);
    // The encrypting road skips the start-code test but stays reversible by the checked road.
    memcpy(buf.data(), cValidFrameFlag, 4);
    orig = buf;
    ASSERT_EQ(video_aes_ctr_ex_apply(buf.data(), 64, 5, kKey, 16, 0), 0);
    ASSERT_EQ(video_AES_CTR_EX(buf.data(), 64, 5, kKey, 16), 0);
    EXPECT_EQ(buf, orig);
}

TEST(FrameCipher, KeyRotationAndHelpers) {
    // A key text below four characters does not rotate: the four blocks are equal.
    unsigned char k[64], key3[16] = {'a', 'b', 'c'};
    ASSERT_EQ(frame_key_stream_ex(1, key3, k), 0);
    EXPECT_EQ(0, memcmp(k, k + 48, 16));
    ASSERT_EQ(frame_key_stream_ex(1, kKey, k), 0);
    EXPECT_NE(0, memcmp(k, k + 16, 16));

    unsigned char s[9] = "ABCDEFGH";
    str_leftshift(s, 8, 2);
    EXPECT_STREQ((char *)s, "CDEFGHAB");
    str_leftshift(s, 8, 0);
    str_leftshift(s, 8, 8);
    str_leftshift(s, 17, 2);
    EXPECT_STREQ((char *)s, "CDEFGHAB");

    unsigned char data[4] = {'a', 'b', 'c', 'd' ^ 1}, key4[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(CheckDecrypt(data, 4, key4, 4), 0);
    EXPECT_EQ(CheckDecrypt(data, 4, key4, 3), -1);
    EXPECT_EQ(CheckDecrypt(data, 3, key4, 4), -1);

    unsigned char out[16], out2[16];
    EXPECT_EQ(AES_ENC_STR("x", 17, kKey, 16, out), -1);
    EXPECT_EQ(AES_ENC_STR("0123456789abcdef", 16, kKey, 0, out), 0);
    AES_ctx ctx;
    AES_init_ctx(&ctx, kKey);
    memcpy(out2, "0123456789abcdef", 16);
    AES_ECB_encrypt(&ctx, out2);
    EXPECT_EQ(0, memcmp(out, out2, 16));  // zero IV: one plain block
}
