#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <time.h>

#include <string>

#include "korvex/korvex.h"

TEST(OsHelpers, GuardedCopies) {
    char dst[16] = "..........";
    EXPECT_EQ(os_memcpy(dst, 4, "0123456789", 10), 0);
    EXPECT_EQ(std::string(dst, 6), "0123..");
    EXPECT_EQ(os_memcpy(dst, 4, nullptr, 10), 22);
    EXPECT_EQ(os_memcpy(nullptr, 4, "a", 1), 22);

    EXPECT_EQ(os_strcpy(dst, "abcdef", 4), 0);
    EXPECT_STREQ(dst, "abc");
    EXPECT_EQ(os_strcpy(dst, "ab", 4), 0);
    EXPECT_STREQ(dst, "ab");
    EXPECT_EQ(os_strcpy(dst, "ab", 1), 0);
    EXPECT_STREQ(dst, "");
    EXPECT_EQ(os_strcpy(dst, "whole text", 0), 0);
    EXPECT_STREQ(dst, "whole text");
    EXPECT_EQ(os_strcpy(dst, nullptr, 4), -1);
}

TEST(OsHelpers, SplitterPiecesAndLimits) {
    tagOsStrArray arr;
    char t1[] = "a,b,", t2[] = "a,,b", t3[] = "", t4[] = ",x";
    ASSERT_EQ(os_split_str_to_arr(t1, ',', &arr), 0);
    EXPECT_EQ(arr.iItemNum, 2);
    EXPECT_STREQ(arr.apcItem[1], "b");
    ASSERT_EQ(os_split_str_to_arr(t2, ',', &arr), 0);
    EXPECT_EQ(arr.iItemNum, 3);
    EXPECT_STREQ(arr.apcItem[1], "");
    EXPECT_STREQ(arr.apcItem[2], "b");
    ASSERT_EQ(os_split_str_to_arr(t3, ',', &arr), 0);
    EXPECT_EQ(arr.iItemNum, 1);
    EXPECT_STREQ(arr.apcItem[0], "");
    for (int i = 1; i < OS_STR_ARRAY_MAX; i++) ASSERT_STREQ(arr.apcItem[i], "") << i;
    ASSERT_EQ(os_split_str_to_arr(t4, ',', &arr), 0);
    EXPECT_STREQ(arr.apcItem[0], "");
    EXPECT_STREQ(arr.apcItem[1], "x");
    EXPECT_EQ(os_split_str_to_arr(nullptr, ',', &arr), -1);

    std::string s511 = "x", s512 = "x";
    for (int i = 0; i < 511; i++) s511 += ",y";
    for (int i = 0; i < 512; i++) s512 += ",y";
    std::string trailing = s511 + ",";  // 512 separators, the last one trailing
    ASSERT_EQ(os_split_str_to_arr(&s511[0], ',', &arr), 0);
    EXPECT_EQ(arr.iItemNum, 512);
    EXPECT_STREQ(arr.apcItem[511], "y");
    EXPECT_EQ(os_split_str_to_arr(&s512[0], ',', &arr), -1);
    EXPECT_EQ(arr.iItemNum, 0);
    EXPECT_EQ(os_split_str_to_arr(&trailing[0], ',', &arr), 0);
    EXPECT_EQ(arr.iItemNum, 512);
}

TEST(OsHelpers, Utf8Detection) {
    struct {
        const char *bytes;
        int want;
    } cases[] = {
        {"plain ascii", 0}, {"", 0}, {"\xC3\xA9", 1}, {"a\xE2\x82\xAC!", 1}, {"\xF0\x9F\x98\x80", 1},
        {"\xC3", 0}, {"\x80", 0}, {"\xF0\x9F\x98", 0}, {"\xC3\xA9\xA9", 0}, {"\xC3\x41", 0},
        {"\xFC\x80\x80\x80\x80\x80", 1}, {"\xFF\x80\x80\x80\x80", 1},
    };
    for (auto &c : cases) {
        int len = (int)strlen(c.bytes);
        EXPECT_EQ(os_is_utf8_encoding(c.bytes, len), c.want) << c.bytes;
        EXPECT_EQ(os_get_charset_code(c.bytes, len), c.want);
        EXPECT_EQ(os_is_wide_char(c.bytes, len), c.want);
    }
    EXPECT_EQ(os_is_utf8_encoding("\xC3\xA9", 1), 0);  // the length cuts the sequence
    EXPECT_EQ(os_is_utf8_encoding(nullptr, 4), 0);
}

TEST(OsHelpers, LoadsASharedObjectAndFindsASymbol) {
    char dir[] = KX_TEST_PLUGIN_DIR;
    void *lib = os_load_library(nullptr, KX_TEST_PLUGIN_NAME, nullptr, dir, 0);
    ASSERT_NE(lib, nullptr);
    auto fn = reinterpret_cast<int (*)(int)>(os_dlsym_address(lib, "kx_test_plugin_answer"));
    ASSERT_NE(fn, nullptr);
    EXPECT_EQ(fn(20), 41);
    EXPECT_EQ(os_dlsym_address(lib, "no_such_symbol"), nullptr);
    EXPECT_EQ(os_free_library(lib), 0);

    std::string full = std::string(KX_TEST_PLUGIN_DIR) + "/" + KX_TEST_PLUGIN_NAME;
    lib = os_load_library(nullptr, full.c_str(), nullptr, nullptr, 0);
    ASSERT_NE(lib, nullptr);
    EXPECT_EQ(os_free_library(lib), 0);
    EXPECT_EQ(os_load_library(nullptr, "no_such_lib.so", nullptr, dir, 0), nullptr);
    std::string long_dir(300, 'd');
    EXPECT_EQ(os_load_library(nullptr, KX_TEST_PLUGIN_NAME, nullptr, &long_dir[0], 0), nullptr);
}

TEST(OsHelpers, FilesClockAndConversions) {
    std::string path = std::string(KORVEX_BINARY_DIR) + "/os_helpers_test.bin";
    EXPECT_EQ(os_fopen(nullptr, "wb", 0, 0, 0), nullptr);
    EXPECT_EQ(os_fopen(path.c_str(), nullptr, 0, 0, 0), nullptr);
    void *f = os_fopen(path.c_str(), "w+b", 0, 0, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(os_fwrite("hello", 1, 5, f), 5u);
    EXPECT_EQ(os_ftell(f), 5);
    EXPECT_EQ(os_fseek(f, 1, SEEK_SET), 0);
    char buf[8] = {0};
    EXPECT_EQ(os_fread(buf, 1, 8, f), 4u);
    EXPECT_STREQ(buf, "ello");
    EXPECT_NE(os_feof(f), 0);
    EXPECT_EQ(os_fclose(f), 0);
    EXPECT_NE(os_feof(nullptr), 0);
    EXPECT_EQ(os_fread(buf, 1, 1, nullptr), 0u);
    remove(path.c_str());

    int64_t now = (int64_t)time(nullptr) * 1000;
    EXPECT_NEAR((double)os_get_tick_count(), (double)now, 2000.0);
    EXPECT_EQ(os_convert_video_size(1088), 1080);
    EXPECT_EQ(os_convert_video_size(1624), 1620);
    EXPECT_EQ(os_convert_video_size(1080), 1080);
    EXPECT_EQ(os_convert_video_size(720), 720);
    EXPECT_STREQ(os_get_sdk_version(), "The dev sdkversion is 5.5.0.0 build20250821 revision ");
    char text[] = "MiXeD 42";
    os_to_lower(text);
    EXPECT_STREQ(text, "mixed 42");
    os_to_lower(nullptr);
}
