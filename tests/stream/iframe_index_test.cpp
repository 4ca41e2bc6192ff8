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

// An index block: the head, then one item of item_size bytes for each entry; the first word of
// item i is 0xA0 + i.
std::vector<uint8_t> block(uint32_t item_size, const std::vector<Item> &items, uint32_t count_override = 0) {
    std::vector<uint8_t> b(44 + item_size * items.size() + (items.empty() ? 1 : 0), 0);
    uint32_t count = count_override ? count_override : (uint32_t)items.size();
    memcpy(&b[32], &count, 4);
    memcpy(&b[36], &item_size, 4);
    for (size_t i = 0; i < items.size(); i++) {
        uint32_t word[3] = {0xA0u + (uint32_t)i, (uint32_t)items[i].stamp, items[i].signs};
        memcpy(&b[44 + i * item_size], word, item_size < 12 ? item_size : 12);
    }
    return b;
}

int query(int type, const std::vector<uint8_t> &b, TIFrameInfoQuery *q, int room = 24) {
    return SA_GetIFrameInfo(type, b.data(), (int)b.size(), q, &room);
}

const std::vector<Item> kItems = {{5, 0x1}, {9, 0x2}, {9, 0x3}, {3, 0x10}, {4, 0x0}};

}  // namespace

TEST(IFrameIndex, RefusesBadBlocksAndTypes) {
    TIFrameInfoQuery q = {};
    int room = 24;
    std::vector<uint8_t> b = block(12, kItems);
    EXPECT_EQ(SA_GetIFrameInfo(0, nullptr, 100, &q, &room), -101);
    EXPECT_EQ(SA_GetIFrameInfo(0, b.data(), (int)b.size(), &q, nullptr), -101);
    EXPECT_EQ(SA_GetIFrameInfo(0, b.data(), 44, &q, &room), -104);
    EXPECT_EQ(SA_GetIFrameInfo(0, b.data(), (int)b.size() - 1, &q, &room), -104);
    // 0x40000000 items of 4 bytes: the length wraps 32 bits to 44.
    std::vector<uint8_t> wrap = block(4, {{1, 1}}, 0x40000000u);
    wrap.resize(200);
    EXPECT_EQ(query(0, wrap, &q), -104);
    std::vector<uint8_t> empty_items = block(0, {}, 3);  // three items of no size
    EXPECT_EQ(query(100, empty_items, &q), -104);

    testing::internal::CaptureStderr();
    EXPECT_EQ(query(106, b, &q), -100);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("invalid sign type(106) ."), std::string::npos);
    EXPECT_EQ(query(-1, b, &q), -100);
    EXPECT_EQ(query(6, b, &q), -100);
}

TEST(IFrameIndex, CountMode) {
    TIFrameInfoQuery q = {};
    std::vector<uint8_t> b = block(12, kItems);
    q.iRestartCount = 77;
    EXPECT_EQ(query(100, b, &q), 0);
    EXPECT_EQ(q.iMatchCount, 5);
    EXPECT_EQ(q.iRestartCount, 77);
    EXPECT_EQ(query(101, b, &q), 0);
    EXPECT_EQ(q.iMatchCount, 2);
    EXPECT_EQ(query(105, b, &q), 0);
    EXPECT_EQ(q.iMatchCount, 1);
    q.iWantedOrdinal = -1;  // count mode whatever the type says
    EXPECT_EQ(query(2, b, &q), 0);
    EXPECT_EQ(q.iMatchCount, 2);
    std::vector<uint8_t> none = block(12, {});  // 45 bytes, no items
    EXPECT_EQ(query(100, none, &q), 0);
    EXPECT_EQ(q.iMatchCount, 0);
}

TEST(IFrameIndex, FindModeRestartsAndRoom) {
    std::vector<uint8_t> b = block(12, kItems);
    TIFrameInfoQuery q = {};
    q.iMatchCount = 55;
    q.iWantedOrdinal = 4;  // stamps 5, 9, 9, 3: restarts at the second 9 and at 3
    EXPECT_EQ(query(0, b, &q), 0);
    EXPECT_EQ(q.iRestartCount, 2);
    EXPECT_EQ(q.tItem.uiItemWord, 0xA3u);
    EXPECT_EQ(q.tItem.iItemStamp, 3);
    EXPECT_EQ(q.tItem.uiSignMask, 0x10u);
    EXPECT_EQ(q.iMatchCount, 55);

    q = TIFrameInfoQuery{};
    q.iWantedOrdinal = 2;  // the second item with bit 1: stamps 5, 9, 9
    int room = 100;
    EXPECT_EQ(SA_GetIFrameInfo(2, b.data(), (int)b.size(), &q, &room), 0);
    EXPECT_EQ(room, 24);
    EXPECT_EQ(q.iRestartCount, 1);
    EXPECT_EQ(q.tItem.uiItemWord, 0xA2u);

    q = TIFrameInfoQuery{};
    q.iWantedOrdinal = 1;
    q.iRestartCount = -9;
    EXPECT_EQ(query(0, b, &q, 16), 0);
    EXPECT_EQ(q.iRestartCount, 0);
    EXPECT_EQ(q.tItem.uiItemWord, 0xA0u);
    EXPECT_EQ(q.tItem.iItemStamp, 0);  // only four bytes fit
    q = TIFrameInfoQuery{};
    q.iWantedOrdinal = 1;
    q.iRestartCount = -9;
    EXPECT_EQ(query(0, b, &q, 12), 0);
    EXPECT_EQ(q.iRestartCount, -9);
    EXPECT_EQ(q.tItem.uiItemWord, 0u);
    for (int ordinal : {0, 6, -5}) {
        q = TIFrameInfoQuery{};
        q.iWantedOrdinal = ordinal;
        EXPECT_EQ(query(0, b, &q), 0);
        EXPECT_EQ(q.iRestartCount, 0);
        EXPECT_EQ(q.iMatchCount, 0);
    }
}

TEST(IFrameIndex, ShortAndLongItems) {
    TIFrameInfoQuery q = {};
    std::vector<uint8_t> b8 = block(8, {{1, 0}, {2, 0}, {3, 0}});  // no room for the mask
    EXPECT_EQ(query(100, b8, &q), 0);
    EXPECT_EQ(q.iMatchCount, 3);
    EXPECT_EQ(query(101, b8, &q), 0);
    EXPECT_EQ(q.iMatchCount, 0);
    q.iWantedOrdinal = 3;
    EXPECT_EQ(query(0, b8, &q), 0);
    EXPECT_EQ(q.tItem.iItemStamp, 3);
    EXPECT_EQ(q.iRestartCount, 0);

    std::vector<uint8_t> b200 = block(200, {{1, 4}, {2, 0}, {1, 4}});
    b200[44 + 80] = 0xFF;  // bytes past the meaningful part are never read as a next item
    q = TIFrameInfoQuery{};
    EXPECT_EQ(query(103, b200, &q), 0);
    EXPECT_EQ(q.iMatchCount, 2);
    q.iWantedOrdinal = 2;
    EXPECT_EQ(query(3, b200, &q), 0);
    EXPECT_EQ(q.tItem.uiItemWord, 0xA2u);
    EXPECT_EQ(q.iRestartCount, 1);
}
