#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "korvex/korvex.h"

namespace {

struct Item {
    int32_t stamp;
    uint32_t signs;
};

void put_le(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; i++) p[i] = (uint8_t)(v >> (8 * i));
}

// A word of the item copy as the block holds it: little-endian, whatever the host.
uint32_t le(const void *field) {
    const uint8_t *p = static_cast<const uint8_t *>(field);
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

// The head, then item i of item_size bytes with the words 0xA0 + i, stamp, signs (cut to the size),
// little-endian as the format is.
std::vector<uint8_t> block(uint32_t item_size, const std::vector<Item> &items, uint32_t count = 0) {
    std::vector<uint8_t> b(45 + item_size * items.size(), 0);
    if (count == 0) count = (uint32_t)items.size();
    put_le(&b[32], count);
    put_le(&b[36], item_size);
    for (size_t i = 0; i < items.size(); i++) {
        uint8_t word[12];
        put_le(word, 0xA0u + (uint32_t)i), put_le(word + 4, (uint32_t)items[i].stamp), put_le(word + 8, items[i].signs);
        memcpy(&b[44 + i * item_size], word, item_size < 12 ? item_size : 12);
    }
    return b;
}

// Runs one query in find mode (ordinal > -1) or with ordinal -1; the record starts filled with 77.
TIFrameInfoQuery run(int type, const std::vector<uint8_t> &b, int ordinal, int *rc, int room = 24) {
    TIFrameInfoQuery q = {77, ordinal, 77, {77, 77, 77}};
    *rc = SA_GetIFrameInfo(type, b.data(), (int)b.size(), &q, &room);
    return q;
}

const std::vector<Item> kItems = {{5, 0x1}, {9, 0x2}, {9, 0x3}, {3, 0x10}, {4, 0x0}};

}  // namespace

TEST(IFrameIndex, RefusesBadBlocksAndTypes) {
    TIFrameInfoQuery q = {};
    int room = 24, rc;
    std::vector<uint8_t> b = block(12, kItems);
    EXPECT_EQ(SA_GetIFrameInfo(0, b.data(), (int)b.size(), &q, nullptr), -101);
    EXPECT_EQ(SA_GetIFrameInfo(0, b.data(), 44, &q, &room), -104);
    EXPECT_EQ(SA_GetIFrameInfo(0, b.data(), (int)b.size() - 2, &q, &room), -104);
    std::vector<uint8_t> wrap = block(4, {{1, 1}}, 0x40000000u);  // 2^32 + 44 wraps to 44
    run(100, wrap, -1, &rc);
    EXPECT_EQ(rc, -104);
    run(100, block(0, {}, 3), -1, &rc);  // three items of no size
    EXPECT_EQ(rc, -104);
    run(106, b, 1, &rc);
    EXPECT_EQ(rc, -100);
    run(-1, b, 1, &rc);
    EXPECT_EQ(rc, -100);
}

TEST(IFrameIndex, CountMode) {
    int rc;
    std::vector<uint8_t> b = block(12, kItems);
    TIFrameInfoQuery q = run(100, b, 3, &rc);
    EXPECT_TRUE(q.iMatchCount == 5 && q.iRestartCount == 77);
    EXPECT_EQ(run(101, b, 3, &rc).iMatchCount, 2);
    EXPECT_EQ(run(105, b, 3, &rc).iMatchCount, 1);
    EXPECT_EQ(run(2, b, -1, &rc).iMatchCount, 2);  // ordinal -1 counts whatever the type
    EXPECT_EQ(run(100, block(12, {}), -1, &rc).iMatchCount, 0);
    EXPECT_EQ(rc, 0);
}

TEST(IFrameIndex, FindModeRestartsAndRoom) {
    int rc, room = 100;
    std::vector<uint8_t> b = block(12, kItems);
    TIFrameInfoQuery q = run(0, b, 4, &rc);  // stamps 5, 9, 9, 3: restarts at the second 9 and at 3
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(q.iRestartCount == 2 && q.iMatchCount == 77);
    // tItem is the item's bytes as the block holds them: on a big-endian host its words read swapped.
    EXPECT_EQ(0, memcmp(&q.tItem, &b[44 + 3 * 12], 12));
    EXPECT_TRUE(le(&q.tItem.uiItemWord) == 0xA3u && le(&q.tItem.iItemStamp) == 3 && le(&q.tItem.uiSignMask) == 0x10u);

    EXPECT_EQ(SA_GetIFrameInfo(2, b.data(), (int)b.size(), &q, &room), 0);  // ordinal 4 of bit 1: none
    EXPECT_EQ(room, 100);
    q.iWantedOrdinal = 2;
    EXPECT_EQ(SA_GetIFrameInfo(2, b.data(), (int)b.size(), &q, &room), 0);
    EXPECT_TRUE(room == 24 && q.iRestartCount == 1 && le(&q.tItem.uiItemWord) == 0xA2u);

    q = run(0, b, 1, &rc, 16);  // room for the item's first word only
    EXPECT_TRUE(q.iRestartCount == 0 && le(&q.tItem.uiItemWord) == 0xA0u && q.tItem.iItemStamp == 77);
    for (int ordinal : {0, 6}) EXPECT_EQ(run(0, b, ordinal, &rc).iRestartCount, 77);
    EXPECT_EQ(run(0, b, 1, &rc, 12).tItem.uiItemWord, 77u);  // no room for any of the item
}

TEST(IFrameIndex, ShortAndLongItems) {
    int rc;
    std::vector<uint8_t> b8 = block(8, {{1, 0}, {2, 0}, {3, 0}});  // no room for the mask
    EXPECT_EQ(run(100, b8, -1, &rc).iMatchCount, 3);
    EXPECT_EQ(run(101, b8, -1, &rc).iMatchCount, 0);
    EXPECT_EQ(run(0, b8, 3, &rc).tItem.uiSignMask, 0u);

    std::vector<uint8_t> b200 = block(200, {{1, 4}, {2, 0}, {1, 4}});
    memset(&b200[44 + 12], 0xFF, 188);  // the rest of a long item is never read
    EXPECT_EQ(run(103, b200, -1, &rc).iMatchCount, 2);
    TIFrameInfoQuery q = run(3, b200, 2, &rc);
    EXPECT_EQ(le(&q.tItem.uiItemWord), 0xA2u);
    EXPECT_EQ(q.iRestartCount, 1);
}
