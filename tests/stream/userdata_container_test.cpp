// The user-data container: a unit decoded end to end, emulation prevention, size bytes, tags and tables.
#include <gtest/gtest.h>

#include <string.h>

#include <random>

#include "stream/userdata_internal.h"
#include "support/frame_builder.h"

using fb::Bytes;

TEST(UserDataContainer, WorkedExampleDecodesEndToEnd) {
    Bytes c = fb::container("QZST", {fb::block(0xFED3, fb::le32(1700000000))});
    Bytes u = fb::unit(21, fb::kOld, c);
    const Bytes expect = {0, 0, 0, 1,    6,    0xF0, 0x10, 0x51, 0x5A, 0x53, 0x54, 1,
                          0, 8, 0, 0xD3, 0xFE, 4,    0,    0x00, 0xF1, 0x53, 0x65, 0x80};
    ASSERT_EQ(expect, u);
    Bytes f = fb::frame(fb::cat({u, {0, 0, 0, 1, 0x65, 0x88}}), {.frame_no = 42, .attr = 3, .info = 0x1234});
    const auto *hdr = reinterpret_cast<const __S_FrameHeader *>(f.data());
    fb::CallbackLog log;
    _tagInnerFramePara para = log.para(hdr, GetUserDataFlag(0));

    char old_flag[KX_UD_PATTERN_MAX];
    int plen = GetUserDataFlag(para.iEncode, old_flag, nullptr);
    ASSERT_EQ(0, FindPosByFlag(para.pucData, para.iDataLen, old_flag, plen));
    int nsize = 0;
    int stated = ud_read_size_run(para.pucData + plen, para.iDataLen - plen, KX_UD_OLD_SIZE_BYTES, &nsize);
    ASSERT_EQ(16, stated);
    uint8_t buf[KX_UD_NEW_MAX] = {};
    int size = stated;
    EXPECT_EQ(0, RevertUserData(para.pucData + plen + nsize, buf, size, sizeof(buf)));
    TUserDataHeader h;
    ASSERT_EQ(KX_UD_TAG_QZST, GetUserdataFlagType(buf, h));
    EXPECT_TRUE(size == 16 && h.usBlockCount == 1 && stated == int(h.uiDataLen + 8));
    TUserDataBlockHead bh;
    ASSERT_TRUE(ud_read_block_head(buf, size, KX_UD_HEADER_LEN, &bh));
    ASSERT_EQ(para.iFlag, bh.usType);
    __S_AbsoluteTime t;
    GetFrameAbsoluteTime(false, buf + 12, &t, bh.usLen, &para);
    EXPECT_EQ((std::vector<uint16_t>{2023, 11, 14, 22, 13, 20}),
              (std::vector<uint16_t>{t.usYear, t.usMonth, t.usDay, t.usHour, t.usMinute, t.usSecond}));
    EXPECT_EQ(1700000000u, t.uiSeconds);
    ASSERT_EQ(1u, log.calls.size());
    const fb::Call &cb = log.calls[0];
    EXPECT_EQ((std::vector<uint32_t>{77, KX_CB_ABS_TIME, 16, 42, 3, 0x1234}),
              (std::vector<uint32_t>{uint32_t(cb.handle), uint32_t(cb.type), uint32_t(cb.info.iSize),
                                     cb.info.uiFrameNo, cb.info.uiFrameAttr, cb.info.uiFrameInfo}));
    EXPECT_EQ(fb::le32(1700000000), cb.data);
}

TEST(UserDataContainer, RevertRemovesEmulationPreventionWithinTheGrowingSize) {
    auto revert = [](const Bytes &src, int stated, int limit, int *size_out) {
        Bytes dst(16, 0xEE);
        int size = stated;
        RevertUserData(src.data(), dst.data(), size, limit);
        *size_out = size;
        return dst;
    };
    int size;
    // Consecutive runs each lose their 03.
    EXPECT_EQ(fb::cat({{0, 0, 0, 0, 7}, Bytes(11, 0xEE)}), revert({0, 0, 3, 0, 0, 3, 7}, 5, 16, &size));
    EXPECT_EQ(7, size);
    // A run across the stated end (8) is found because the first removal grew the size.
    Bytes spanning = {0, 0, 3, 1, 2, 3, 0, 0, 3, 9};
    EXPECT_EQ(fb::cat({{0, 0, 1, 2, 3, 0, 0, 9}, Bytes(8, 0xEE)}), revert(spanning, 8, 16, &size));
    EXPECT_EQ(10, size);
    // A target limit of 4 is never written past.
    EXPECT_EQ(fb::cat({{0, 0, 1, 2}, Bytes(12, 0xEE)}), revert(spanning, 8, 4, &size));
    // The bounded form refuses a container that runs past its source.
    uint8_t dst[16];
    size = 8;
    EXPECT_EQ(-1, ud_revert(spanning.data(), 9, dst, &size, sizeof(dst), -1));
    size = 8;
    EXPECT_EQ(0, ud_revert(spanning.data(), 10, dst, &size, sizeof(dst), -1));
    // The builder's escaping and the revert are inverse.
    Bytes raw = {0, 0, 0, 0, 1, 0, 0, 2, 0, 0, 3, 0, 0}, esc = fb::escape(raw), back(raw.size());
    size = int(raw.size());
    EXPECT_EQ(0, ud_revert(esc.data(), int(esc.size()), back.data(), &size, int(back.size()), -1));
    EXPECT_EQ(raw, back);
    EXPECT_EQ(int(raw.size()) + 4, size);
    // A long container, with runs of zeros that put a 03 into the stream every few bytes, goes through
    // the copy in whole blocks: the same bytes without scratch room (nothing written behind the stated
    // size) and with it; the source is read no further than its end (ASan).
    Bytes big;
    for (int i = 0; i < 700; i++) big.push_back(i % 11 < 5 ? 0 : uint8_t(i % 5));
    const Bytes esc_big = fb::escape(big);
    for (int room : {-1, 1024}) {
        Bytes out(1024, 0xEE);
        size = int(big.size());
        EXPECT_EQ(0, ud_revert(esc_big.data(), int(esc_big.size()), out.data(), &size, 1024, room));
        EXPECT_EQ(int(esc_big.size()), size);
        EXPECT_EQ(big, Bytes(out.begin(), out.begin() + big.size()));
        if (room < 0) {
            EXPECT_EQ(Bytes(1024 - big.size(), 0xEE), Bytes(out.begin() + big.size(), out.end()));
        }
    }
}

// The removal as its rule reads, one byte at a time: look for 00 00 03 from the read position up to the
// grown size, stop when it would begin beyond the target, keep the two zeros, drop the 03.
int reference_revert(const uint8_t *src, int src_len, uint8_t *dst, int *size, int limit) {
    int n = *size, r = 0, w = 0;
    if (n <= 0) return 0;
    if (n > src_len) return -1;
    for (;;) {
        int d = -1;
        for (int i = r; i + 3 <= n && d < 0; i++)
            if (src[i] == 0 && src[i + 1] == 0 && src[i + 2] == 3) d = i - r;
        if (d < 0 || w + d > limit) break;
        if (n >= src_len) {
            *size = n;
            return -1;
        }
        n++;
        for (int i = 0; i < d + 2; i++, w++)
            if (w < limit) dst[w] = src[r + i];
        r += d + 3;
    }
    for (; r < n; r++, w++)
        if (w < limit) dst[w] = src[r];
    *size = n;
    return 0;
}

TEST(UserDataContainer, RevertMatchesTheRuleOnRandomContainers) {
    // Containers thick with zeros and 03 bytes (and plain ones), sources cut short or running on, targets
    // with scratch room, without it, and shorter than the stated size: the same bytes, size and result as
    // the rule, nothing written behind what the room allows, nothing read behind the source (ASan).
    std::mt19937 rng(20);
    for (int round = 0; round < 20000; round++) {
        const int stated = int(rng() % 400) + 1;
        const int dense = int(rng() % 3);
        Bytes src(stated + rng() % 200);
        for (uint8_t &b : src) {
            const unsigned x = rng() % 8;
            b = x < 4 ? 0 : x < 6 ? 3 : uint8_t(dense ? rng() : 1);
        }
        if (rng() % 4 == 0) src.resize(stated + rng() % 8);
        src.shrink_to_fit();  // no spare capacity: a read behind the source is caught
        const int limit = rng() % 8 == 0 ? int(rng() % (stated + 1)) : 1024;
        const int room = rng() % 2 ? -1 : limit;
        Bytes want(1024 + 64, 0xEE), got(1024 + 64, 0xEE);
        int want_size = stated, got_size = stated;
        const int want_rc = reference_revert(src.data(), int(src.size()), want.data(), &want_size, limit);
        const int got_rc = ud_revert(src.data(), int(src.size()), got.data(), &got_size, limit, room);
        ASSERT_EQ(want_rc, got_rc) << "round " << round;
        ASSERT_EQ(want_size, got_size) << "round " << round;
        if (want_rc != 0) continue;
        const int kept = stated < limit ? stated : limit;
        ASSERT_EQ(Bytes(want.begin(), want.begin() + kept), Bytes(got.begin(), got.begin() + kept))
            << "round " << round;
        const int reach = room < 0 ? kept : room;
        ASSERT_EQ(Bytes(got.size() - reach, 0xEE), Bytes(got.begin() + reach, got.end()))
            << "round " << round;
    }
}

TEST(UserDataContainer, SizeBytesPatternsTagsAndTables) {
    auto run = [](const Bytes &b, int max, int expect_consumed) {
        int consumed = -1;
        int sum = ud_read_size_run(b.data(), int(b.size()), max, &consumed);
        EXPECT_EQ(expect_consumed, consumed);
        return sum;
    };
    EXPECT_EQ(255, run({0xFF, 0x00, 0x44}, 5, 2));
    EXPECT_EQ(1024, run({0xFF, 0xFF, 0xFF, 0xFF, 0x04}, 5, 5));
    EXPECT_EQ(1275, run({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x05}, 5, 5));  // no sixth byte in an old unit
    EXPECT_EQ(1280, run({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x05}, 0, 6));
    EXPECT_EQ(510, run({0xFF, 0xFF}, 0, 2));  // the data ends inside the run

    char o[8] = {}, n[8] = {};
    EXPECT_EQ(7, GetUserDataFlag(23, o, n));
    EXPECT_EQ(0, memcmp(o, fb::pattern(23, fb::kOld).data(), 7));
    EXPECT_EQ(0, memcmp(n, fb::pattern(23, fb::kNew).data(), 7));
    EXPECT_EQ(6, GetUserDataFlag(22, nullptr, n));
    EXPECT_EQ(0, GetUserDataFlag(41, o, n));
    Bytes hay = {9, 9, 0, 0, 0, 1, 6, 0xF0};
    EXPECT_EQ(2, FindPosByFlag(hay.data(), int(hay.size()), fb::pattern(21, fb::kOld).data(), 6));
    EXPECT_EQ(-1, FindPosByFlag(hay.data(), 7, fb::pattern(21, fb::kOld).data(), 6));

    EXPECT_EQ(0xFFFF, GetUserDataFlag(255));
    EXPECT_EQ(8, GetUDTypeByFlag(0xFF, 0xFEE3));
    EXPECT_EQ(1 << 28, GetUDTypeByFlag(0x7FFFFFFF, 0xFEF1));
    EXPECT_EQ(0, GetUDTypeByFlag(0x7FFFFFFF, 0xFEF7));
    EXPECT_EQ(0, GetUDTypeByFlag(-1, 0xFED3));

    TUserDataHeader h;
    memset(&h, 0xAB, sizeof(h));
    EXPECT_EQ(-1, GetUserdataFlagType(nullptr, h));
    EXPECT_EQ(0xABAB, h.usBlockCount);
    const char *tags[] = {"QZST", "QZSS", "QZSC", "QZSE", "QZSX"};
    for (int i = 0; i < 5; i++) {
        Bytes c = fb::container(tags[i], {}, 3, 0x0102);
        EXPECT_EQ(i < 4 ? i : -1, GetUserdataFlagType(c.data(), h));
        EXPECT_EQ(3, h.usBlockCount);  // copied whatever the tag
        EXPECT_EQ(0x0102, h.uiDataLen);
    }
}
