// The frame cipher modes: self-inverse XOR, key fitting, the start-code checks and the small helpers.
#include <gtest/gtest.h>
#include <string.h>

#include "crypto/crypto_internal.h"
#include "crypto/hex.h"

namespace {
const unsigned char kKey[17] = "0123456789abcdef";
}

TEST(FrameCipher, PlainFormsAndKeyFitting) {
    Bytes orig(37), buf, zero_key_buf;
    for (size_t i = 0; i < orig.size(); ++i) orig[i] = (uint8_t)i;
    buf = zero_key_buf = orig;
    EXPECT_EQ(aes_crypt(buf.data(), 37, 9, kKey, 5), 0);
    EXPECT_EQ(AES_CTR(buf.data(), 37, 9, kKey, 5), 0);
    EXPECT_EQ(buf, orig);
    // Over 16 bytes the key counts as 16 zero bytes, and the call still succeeds.
    unsigned char zero16[16] = {0};
    EXPECT_EQ(aes_crypt(buf.data(), 37, 9, kKey, 17), 0);
    EXPECT_EQ(aes_crypt(zero_key_buf.data(), 37, 9, zero16, 16), 0);
    EXPECT_EQ(buf, zero_key_buf);

    // video_AES_CTR deciphers only what begins with an enciphered start code.
    buf = orig;
    memcpy(buf.data(), cValidFrameFlag, 4);
    Bytes clear = buf;
    aes_crypt(buf.data(), 37, 77, kKey, 8);
    Bytes enc = buf;
    EXPECT_EQ(video_AES_CTR(buf.data(), 37, 77, kKey, 7), -1);  // wrong key
    EXPECT_EQ(video_AES_CTR(buf.data(), 37, 78, kKey, 8), -1);  // wrong counter
    EXPECT_EQ(video_AES_CTR(buf.data(), 3, 77, kKey, 8), -1);   // too short for the test
    EXPECT_EQ(buf, enc);
    EXPECT_EQ(video_AES_CTR(buf.data(), 37, 77, kKey, 8), 0);
    EXPECT_EQ(buf, clear);

    unsigned char out[17];
    memset(out, 0x11, sizeof(out));
    EXPECT_EQ(expand_key(kKey, 17, out), -1);
    EXPECT_EQ(out[0], 0x11);
    EXPECT_EQ(expand_key(kKey, 5, out), 0);
    EXPECT_EQ(Bytes(out, out + 17), hex("3031323334ffffffffffffffffffffff00"));
}

// The bytes the enhanced form touches are pinned by the frame round trips and the OpenSSL oracle.
TEST(FrameCipher, EnhancedRefusalsAndHelpers) {
    // Fewer than four bytes, no enciphered start code, a null key: refused, nothing changed.
    Bytes buf(64, 0), orig = buf;
    EXPECT_EQ(video_AES_CTR_EX(buf.data(), 3, 5, kKey, 16), -1);
    EXPECT_EQ(video_AES_CTR_EX(buf.data(), 64, 5, kKey, 16), -1);
    EXPECT_EQ(video_AES_CTR_EX(buf.data(), 64, 5, nullptr, 16), -1);
    EXPECT_EQ(buf, orig);

    unsigned char s[9] = "ABCDEFGH";
    str_leftshift(s, 8, 2);
    EXPECT_STREQ((char *)s, "CDEFGHAB");
    str_leftshift(s, 8, 0), str_leftshift(s, 8, 8), str_leftshift(s, 17, 2);  // whole turns, too long
    EXPECT_STREQ((char *)s, "CDEFGHAB");

    unsigned char data[4] = {'a', 'b', 'c', 'd' ^ 1}, key4[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(CheckDecrypt(data, 4, key4, 4), 0);
    EXPECT_EQ(CheckDecrypt(data, 4, key4, 3), -1);
    EXPECT_EQ(CheckDecrypt(data, 3, key4, 4), -1);

    // With a zero IV and 16 bytes AES_ENC_STR is one plain AES block.
    unsigned char out[16], ecb[16];
    EXPECT_EQ(AES_ENC_STR("x", 17, kKey, 16, out), -1);
    EXPECT_EQ(AES_ENC_STR("0123456789abcdef", 16, kKey, 0, out), 0);
    AES_ctx ctx;
    AES_init_ctx(&ctx, kKey);
    memcpy(ecb, "0123456789abcdef", 16);
    AES_ECB_encrypt(&ctx, ecb);
    EXPECT_EQ(0, memcmp(out, ecb, 16));
}
