#include <gtest/gtest.h>

#include <string>

#include "korvex/korvex.h"

namespace {

void fn_a(void) {}
void fn_b(void) {}

// Key maps live for the whole process; keeping them reachable keeps the leak checker quiet.
FunctionMap *g_key_map;

}  // namespace

TEST(FunctionMap, KeyMapCutsKeysAndFindsFirstBinding) {
    g_key_map = function_map_create(MAP_TYPE_KEY);
    ASSERT_NE(g_key_map, nullptr);
    std::string k31(31, 'k'), k40(40, 'x');
    EXPECT_EQ(function_map_bind_key(g_key_map, k31.c_str(), fn_a), 0);
    EXPECT_EQ(function_map_bind_key(g_key_map, k40.c_str(), fn_b), 0);
    EXPECT_EQ(function_map_bind_key(g_key_map, "dup", fn_a), 0);
    EXPECT_EQ(function_map_bind_key(g_key_map, "dup", fn_b), 0);
    EXPECT_EQ(function_map_bind_key(g_key_map, nullptr, fn_a), -1);
    EXPECT_EQ(function_map_bind_key(g_key_map, "x", nullptr), -1);

    FunctionMapItem *item = function_map_get_key_map(g_key_map, k31.c_str());
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->func, fn_a);
    EXPECT_EQ(function_map_get_key_map(g_key_map, k40.c_str()), nullptr);
    item = function_map_get_key_map(g_key_map, k40.substr(0, 31).c_str());
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->func, fn_b);
    EXPECT_EQ(function_map_get_key_map(g_key_map, "dup")->func, fn_a);
    EXPECT_EQ(function_map_get_key_map(g_key_map, "none"), nullptr);

    EXPECT_EQ(function_map_bind_index(g_key_map, 0, fn_a), -1);
    EXPECT_EQ(function_map_get_index_map(g_key_map, 0), nullptr);
    EXPECT_EQ(function_map_destroy(g_key_map), -1);  // refused, still usable
    EXPECT_NE(function_map_get_key_map(g_key_map, "dup"), nullptr);
}

TEST(FunctionMap, OnlyTypeZeroMakesAKeyMap) {
    EXPECT_EQ(function_map_create_key(), nullptr);
    EXPECT_EQ(function_map_create(MAP_TYPE_INDEX), nullptr);
    EXPECT_EQ(function_map_create(7), nullptr);
    EXPECT_EQ(function_map_destroy(nullptr), -1);
}

TEST(FunctionMap, IndexMapBounds) {
    EXPECT_EQ(function_map_create_index(0), nullptr);
    EXPECT_EQ(function_map_create_index(-3), nullptr);
    FunctionMap *map = function_map_create_index(1);
    ASSERT_NE(map, nullptr);
    FunctionMapFunc *slot = function_map_get_index_map(map, 0);
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(*slot, nullptr);
    EXPECT_EQ(function_map_bind_index(map, 0, fn_a), 0);
    EXPECT_EQ(function_map_bind_index(map, 0, fn_b), 0);
    EXPECT_EQ(*function_map_get_index_map(map, 0), fn_b);
    EXPECT_EQ(function_map_bind_index(map, 1, fn_a), -1);
    EXPECT_EQ(function_map_bind_index(map, -1, fn_a), -1);
    EXPECT_EQ(function_map_bind_index(map, 0, nullptr), -1);
    EXPECT_EQ(function_map_get_index_map(map, 1), nullptr);
    EXPECT_EQ(function_map_get_index_map(map, -1), nullptr);
    EXPECT_EQ(function_map_bind_key(map, "a", fn_a), -1);
    EXPECT_EQ(function_map_get_key_map(map, "a"), nullptr);
    EXPECT_EQ(function_map_destroy(map), 0);
}

TEST(FunctionMap, StrcpySafeAlwaysTerminates) {
    char buf[8];
    memset(buf, 'z', sizeof(buf));
    EXPECT_EQ(strcpy_safe(buf, "abc", 4), 0);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(strcpy_safe(buf, "abcd", 4), 0);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(strcpy_safe(buf, "abcd", 1), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(strcpy_safe(nullptr, "a", 4), -1);
    EXPECT_EQ(strcpy_safe(buf, nullptr, 4), -1);
    EXPECT_EQ(strcpy_safe(buf, "a", 0), -1);
}
