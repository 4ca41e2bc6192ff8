#include <gtest/gtest.h>

#include <string>

#include "korvex/korvex.h"

namespace {
void fn_a(void) {}
void fn_b(void) {}
FunctionMap *g_key_map;  // key maps live for the process; reachable, so no leak is reported
}  // namespace

TEST(FunctionMap, KeyMapCutsKeysAndFindsFirstBinding) {
    EXPECT_EQ(function_map_create_key(), nullptr);
    EXPECT_EQ(function_map_create(MAP_TYPE_INDEX), nullptr);
    EXPECT_EQ(function_map_create(7), nullptr);
    g_key_map = function_map_create(MAP_TYPE_KEY);
    ASSERT_NE(g_key_map, nullptr);
    std::string k31(31, 'k'), k40(40, 'x');
    EXPECT_EQ(function_map_bind_key(g_key_map, k31.c_str(), fn_a), 0);
    EXPECT_EQ(function_map_bind_key(g_key_map, k40.c_str(), fn_b), 0);
    EXPECT_EQ(function_map_bind_key(g_key_map, "dup", fn_a), 0);
    EXPECT_EQ(function_map_bind_key(g_key_map, "dup", fn_b), 0);

    EXPECT_EQ(function_map_get_key_map(g_key_map, k31.c_str())->func, fn_a);
    EXPECT_EQ(function_map_get_key_map(g_key_map, k40.c_str()), nullptr);
    EXPECT_EQ(function_map_get_key_map(g_key_map, k40.substr(0, 31).c_str())->func, fn_b);
    EXPECT_EQ(function_map_get_key_map(g_key_map, "dup")->func, fn_a);
    EXPECT_EQ(function_map_get_key_map(g_key_map, "none"), nullptr);

    EXPECT_EQ(function_map_bind_index(g_key_map, 0, fn_a), -1);
    EXPECT_EQ(function_map_destroy(g_key_map), -1);  // refused, and still usable
    EXPECT_NE(function_map_get_key_map(g_key_map, "dup"), nullptr);
    EXPECT_EQ(function_map_destroy(nullptr), -1);
}

TEST(FunctionMap, IndexMapBounds) {
    EXPECT_EQ(function_map_create_index(0), nullptr);
    FunctionMap *map = function_map_create_index(1);
    ASSERT_NE(map, nullptr);
    ASSERT_NE(function_map_get_index_map(map, 0), nullptr);
    EXPECT_EQ(*function_map_get_index_map(map, 0), nullptr);
    EXPECT_EQ(function_map_bind_index(map, 0, fn_b), 0);
    EXPECT_EQ(*function_map_get_index_map(map, 0), fn_b);
    EXPECT_EQ(function_map_bind_index(map, 1, fn_a), -1);
    EXPECT_EQ(function_map_bind_index(map, -1, fn_a), -1);
    EXPECT_EQ(function_map_get_index_map(map, 1), nullptr);
    EXPECT_EQ(function_map_bind_key(map, "a", fn_a), -1);
    EXPECT_EQ(function_map_destroy(map), 0);
}

TEST(FunctionMap, StrcpySafeAlwaysTerminates) {
    char buf[8];
    EXPECT_EQ(strcpy_safe(buf, "abc", 4), 0);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(strcpy_safe(buf, "abcd", 4), 0);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(strcpy_safe(buf, nullptr, 4), -1);
    EXPECT_EQ(strcpy_safe(buf, "a", 0), -1);
}
