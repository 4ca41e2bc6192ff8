#include <gtest/gtest.h>

#include <string.h>
#include <time.h>

#include <string>

#include "korvex/korvex.h"

TEST(OsHelpers, GuardedCopies) {
    char dst[16] = "..........";
    EXPECT_EQ(os_memcpy(dst, 4, "0123456789", 10), 0);
    EXPECT_EQ(std::string(dst, 6), "0123..");
    EXPECT_EQ(os_memcpy(dst, 4, nullptr, 10), 22);
    os_strcpy(dst, "abcdef", 4);
    EXPECT_STREQ(dst, "abc");
    os_strcpy(dst, "ab", 1);
    EXPECT_STREQ(dst, "");
    os_strcpy(dst, "whole text", 0);
    EXPECT_STREQ(dst, "whole text");
}

TEST(OsHelpers, SplitterPiecesAndLimits) {
    tagOsStrArray arr;
    auto split = [&](std::string s) { return os_split_str_to_arr(&s[0], ',', &arr) == 0 ? arr.iItemNum : -1; };
    EXPECT_EQ(split("a,b,"), 2);
    EXPECT_EQ(split(",,b"), 3);
    EXPECT_EQ(split(""), 1);
    for (int i = 1; i < OS_STR_ARRAY_MAX; i++) ASSERT_STREQ(arr.apcItem[i], "") << i;  // [0] was the text
    std::string s511 = "x";
    for (int i = 0; i < 511; i++) s511 += ",y";
    EXPECT_EQ(split(s511), 512);
    EXPECT_EQ(split(s511 + ","), 512);  // the 512th separator is trailing
    EXPECT_EQ(split(s511 + ",z"), -1);
    EXPECT_EQ(arr.iItemNum, 0);

    char text[] = "a,,b";
    ASSERT_EQ(os_split_str_to_arr(text, ',', &arr), 0);
    EXPECT_STREQ(arr.apcItem[2], "b");
}

TEST(OsHelpers, Utf8Detection) {
    struct {
        const char *bytes;
        int want;
    } cases[] = {
        {"plain", 0}, {"", 0}, {"\xC3\xA9", 1}, {"a\xE2\x82\xAC!", 1}, {"\xFC\x80\x80\x80\x80\x80", 1},
        {"\xC3", 0}, {"\x80", 0}, {"\xF0\x9F\x98", 0}, {"\xC3\xA9\xA9", 0}, {"\xC3\x41", 0},
    };
    for (auto &c : cases) {
        int len = (int)strlen(c.bytes);
        EXPECT_EQ(os_is_utf8_encoding(c.bytes, len), c.want) << c.bytes;
        EXPECT_EQ(os_get_charset_code(c.bytes, len), c.want);
        EXPECT_EQ(os_is_wide_char(c.bytes, len), c.want);
    }
}

TEST(OsHelpers, LoadsASharedObjectAndFindsASymbol) {
    char dir[] = KX_TEST_PLUGIN_DIR;
    void *lib = os_load_library(nullptr, KX_TEST_PLUGIN_NAME, nullptr, dir, 0);
    ASSERT_NE(lib, nullptr);
    auto fn = reinterpret_cast<int (*)(int)>(os_dlsym_address(lib, "kx_test_plugin_answer"));
    ASSERT_NE(fn, nullptr);
    EXPECT_EQ(fn(20), 41);
    EXPECT_EQ(os_free_library(lib), 0);
    EXPECT_EQ(os_load_library(nullptr, "no_such_lib.so", nullptr, dir, 0), nullptr);
    std::string long_dir(300, 'd');
    EXPECT_EQ(os_load_library(nullptr, KX_TEST_PLUGIN_NAME, nullptr, &long_dir[0], 0), nullptr);
}

TEST(OsHelpers, FilesAndClock) {
    std::string path = std::string(KORVEX_BINARY_DIR) + "/os_helpers_test.bin";
    EXPECT_EQ(os_fopen(path.c_str(), nullptr, 0, 0, 0), nullptr);
    void *f = os_fopen(path.c_str(), "w+b", 0, 0, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(os_fwrite("hello", 1, 5, f), 5u);
    char buf[8] = {0};
    EXPECT_EQ(os_fseek(f, 1, SEEK_SET), 0);
    EXPECT_EQ(os_fread(buf, 1, 8, f), 4u);
    EXPECT_EQ(os_fclose(f), 0);
    remove(path.c_str());
    EXPECT_NEAR((double)os_get_tick_count(), (double)time(nullptr) * 1000, 2000.0);
}
