// The frame cipher modes: self-inverse XOR, key fitting, the start-code checks and the small helpers.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

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

// The enhanced key is the caller's key_len bytes, the rest of the 16-byte area zero: a key that ends
// where readable memory ends (a guard page behind it) is read no further, and whatever follows a key
// in memory does not change the result.
TEST(FrameCipher, EnhancedKeyReadsOnlyTheGivenBytes) {
    const long page = sysconf(_SC_PAGESIZE);
    unsigned char *map = (unsigned char *)mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE,
                                               MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    ASSERT_EQ(mprotect(map + page, page, PROT_NONE), 0);
    unsigned char *edge_key = map + page - 9;
    memcpy(edge_key, "secret123", 9);
    const unsigned char zero_padded[16] = "secret123";
    unsigned char k_edge[64], k_zero[64], k_garbage[64];
    ASSERT_EQ(frame_key_stream_ex(7, edge_key, 9, k_edge), 0);
    ASSERT_EQ(frame_key_stream_ex(7, zero_padded, 16, k_zero), 0);
    EXPECT_EQ(0, memcmp(k_edge, k_zero, 64));
    const unsigned char garbage[17] = "secret123XYZW!!!";
    ASSERT_EQ(frame_key_stream_ex(7, garbage, 9, k_garbage), 0);
    EXPECT_EQ(0, memcmp(k_garbage, k_zero, 64));
    ASSERT_EQ(frame_key_stream_ex(7, garbage, 16, k_garbage), 0);
    EXPECT_NE(0, memcmp(k_garbage, k_zero, 64));

    // Through the exported call: enciphered with the zero-padded key, deciphered with the edge key.
    Bytes buf(300, 0x5A), clear;
    memcpy(buf.data(), "\x00\x00\x00\x01", 4);
    clear = buf;
    ASSERT_EQ(video_aes_ctr_ex_apply(buf.data(), 300, 7, zero_padded, 16, 0), 0);
    EXPECT_EQ(video_AES_CTR_EX(buf.data(), 300, 7, edge_key, 9), 0);
    EXPECT_EQ(buf, clear);
    munmap(map, 2 * page);
}
