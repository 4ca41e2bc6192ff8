// MD5 against the RFC 1321 test suite, and the output contract of MD5_Encrypt.
#include <gtest/gtest.h>
#include <string.h>

#include "crypto/hex.h"
#include "korvex/korvex.h"

TEST(Md5, Rfc1321Suite) {
    const char *suite[][2] = {
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (auto &c : suite) {
        char out[100];
        memset(out, 0x5A, sizeof(out));
        int len = (int)sizeof(out);
        ASSERT_EQ(MD5_Encrypt(out, &len, c[0], (int)strlen(c[0])), 0);
        EXPECT_EQ(len, 16);
        EXPECT_EQ(Bytes(out, out + 17), hex(std::string(c[1]) + "5a")) << c[0];  // raw, unterminated
    }
}

TEST(Md5, RefusalsLeaveOutputAlone) {
    char out[16] = {1};
    int len = 15;
    EXPECT_EQ(MD5_Encrypt(out, &len, "abc", 3), -1);  // capacity below 16
    EXPECT_EQ(len, 15);
    len = 16;
    EXPECT_EQ(MD5_Encrypt(out, &len, "", 0), -1);  // the empty string is refused by contract
    EXPECT_EQ(MD5_Encrypt(nullptr, &len, "abc", 3), -1);
    EXPECT_EQ(MD5_Encrypt(out, &len, nullptr, 3), -1);
    EXPECT_EQ(len, 16);
    EXPECT_EQ(out[0], 1);
}
