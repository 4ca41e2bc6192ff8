// The record and VCA decoders: what they store, what the callback sees, and the bounds they keep.
#include <gtest/gtest.h>

#include <string.h>
#include <time.h>

#include <memory>

#include "stream/userdata_internal.h"
#include "support/frame_builder.h"

using fb::Bytes;

namespace {

struct Decoders : ::testing::Test {
    fb::CallbackLog log;
    _tagInnerFramePara para = log.para();
    std::unique_ptr<tagUserDataAll> all{new tagUserDataAll()};
    std::unique_ptr<tagVcaTargetGet> vca{new tagVcaTargetGet()};
    std::vector<int> lens() const {
        std::vector<int> l;
        for (const fb::Call &c : log.calls) l.push_back(c.len);
        return l;
    }
};

// An 18-byte target record of a 0xFEE3 block.
Bytes record(uint16_t a, uint16_t b, uint16_t c, uint16_t d, uint16_t extra = 7) {
    return fb::cat({fb::le16(18), fb::le16(a), fb::le16(b), fb::le16(c), fb::le16(d), fb::le16(extra),
                    fb::le16(extra), fb::le16(extra), fb::le16(extra)});
}

Bytes repeat(const Bytes &b, int n) {
    Bytes out;
    for (int i = 0; i < n; i++) out.insert(out.end(), b.begin(), b.end());
    return out;
}

}  // namespace

TEST_F(Decoders, AbsoluteTimeInUtcBehind2038) {
    __S_AbsoluteTime t;
    auto date = [&]() {
        return std::vector<int>{t.usYear, t.usMonth, t.usDay, t.usHour, t.usMinute, t.usSecond};
    };
    GetFrameAbsoluteTime(false, fb::le32(0x80000000u).data(), &t, 4, &para);
    EXPECT_EQ((std::vector<int>{2038, 1, 19, 3, 14, 8}), date());
    GetFrameAbsoluteTime(false, fb::le32(0xFFFFFFFFu).data(), &t, 4, &para);
    EXPECT_EQ((std::vector<int>{2106, 2, 7, 6, 28, 15}), date());
    EXPECT_EQ(0xFFFFFFFFu, t.uiSeconds);
    GetFrameAbsoluteTime(false, Bytes{0x10, 0x0E, 0xEE}.data(), &t, 2, &para);  // 3600 s from two low bytes
    EXPECT_EQ((std::vector<int>{1970, 1, 1, 1, 0, 0}), date());
    GetFrameAbsoluteTime(true, Bytes(8, 0).data(), all.get(), 8, &para);
    EXPECT_EQ(1, all->bTimeValid);
    GetFrameAbsoluteTime(true, Bytes(8, 0).data(), nullptr, 8, &para);
    EXPECT_EQ((std::vector<int>{4, 4, 2, 4, 8}), lens());  // cut only where something was stored
    unsigned int raw = 5;
    EXPECT_EQ(0, GetFrameTimeInfo(fb::le32(77).data(), 3, 0, &raw));  // only exactly 4 bytes are copied
    EXPECT_EQ(5u, raw);
    // The frame-time record is the block's bytes unconverted: 77 on a little-endian host, 77 << 24 on
    // a big-endian one.
    EXPECT_EQ(0, GetFrameTimeInfo(fb::le32(77).data(), 4, 0, &raw));
    EXPECT_EQ(0, memcmp(&raw, fb::le32(77).data(), 4));
    const uint32_t one = 1;
    const bool big_endian = *reinterpret_cast<const uint8_t *>(&one) == 0;
    EXPECT_EQ(big_endian ? 77u << 24 : 77u, raw);
}

// Days from 1970-01-01 to a proleptic Gregorian date (H. Hinnant's days_from_civil): the inverse of
// the conversion under test, a check that needs no time_t.
static int64_t days_from_civil(int64_t y, int m, int d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    return era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
}

TEST(AbsoluteTime, EveryDayOfTheUnsignedRangeAgreesWithGmtime) {
    // One second of every day from 1970 to 2106, each at another time of day, and the ends of the range.
    // gmtime is the reference wherever the host's time_t holds the value (with a 32-bit time_t, up to
    // 2038); every value also converts back to its seconds through the inverse calendar.
    static const int kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    auto month_days = [](int y, int m) {
        return kMonthDays[m - 1] + (m == 2 && y % 4 == 0 && (y % 100 != 0 || y % 400 == 0));
    };
    for (uint64_t s = 0; s <= 0xFFFFFFFFu; s += 86400 - 7) {
        for (uint64_t at : {s, 0xFFFFFFFFu - s}) {
            __S_AbsoluteTime t;
            MakeAbsoluteTime(&t, uint32_t(at));
            const std::vector<int> got{t.usYear, t.usMonth, t.usDay, t.usHour, t.usMinute, t.usSecond};
            ASSERT_TRUE(t.usMonth >= 1 && t.usMonth <= 12 && t.usDay >= 1 && t.usDay <= month_days(t.usYear, t.usMonth))
                << at;
            ASSERT_TRUE(t.usHour < 24 && t.usMinute < 60 && t.usSecond < 60) << at;
            ASSERT_EQ(int64_t(at), days_from_civil(t.usYear, t.usMonth, t.usDay) * 86400 + t.usHour * 3600 +
                                       t.usMinute * 60 + t.usSecond)
                << at;
            if (sizeof(time_t) < 8 && at > 0x7FFFFFFFu) continue;
            const time_t tt = time_t(at);
            struct tm want;
            ASSERT_NE(nullptr, gmtime_r(&tt, &want));
            ASSERT_EQ((std::vector<int>{want.tm_year + 1900, want.tm_mon + 1, want.tm_mday, want.tm_hour,
                                        want.tm_min, want.tm_sec}),
                      got)
                << at;
        }
    }
}

TEST_F(Decoders, OsdTextTerminatorStaysInsideItsArea) {
    auto osd = [](int sub_type, int text_len) {
        Bytes b(600, 'A');
        memcpy(&b[0], fb::le32(uint32_t(sub_type)).data(), 4);
        memcpy(&b[28], fb::le32(uint32_t(text_len)).data(), 4);
        return b;
    };
    GetOsdExInfo(true, osd(3, 5).data(), all.get(), 600, &para);
    EXPECT_FALSE(all->bOsd1Valid || all->bOsd2Valid || all->bOsd4Valid || all->bOsd7Valid);
    GetOsdExInfo(true, osd(7, 5).data(), all.get(), 600, &para);
    EXPECT_EQ(0, all->aucOsd7[37]);
    EXPECT_EQ('A', all->aucOsd7[36]);
    EXPECT_EQ(1, all->bOsd7Valid);
    GetOsdExInfo(true, osd(7, 100000).data(), all.get(), 600, &para);
    EXPECT_EQ(0, all->aucOsd7[543]);
    EXPECT_EQ(0, all->ucReserved2);
    EXPECT_EQ((std::vector<int>{544, 544, 544}), lens());
}

TEST_F(Decoders, PlatesSplitTheBlockAndStayInsideTheRecord) {
    tagLprInfo lpr = {};
    Bytes b = fb::cat({fb::le32(2), Bytes(120, 'x')});
    b[4] = 'P', b[66] = 'Q';
    GetLPRInfo(false, b.data(), &lpr, 124, &para);  // iEntrySize 0: turned away
    EXPECT_TRUE(log.calls.empty());
    lpr.iEntrySize = 120;
    GetLPRInfo(false, b.data(), &lpr, 124, &para);
    EXPECT_EQ(2, lpr.iCount);
    EXPECT_EQ('P', lpr.atEntry[0][0]);
    EXPECT_EQ('Q', lpr.atEntry[1][0]);
    EXPECT_EQ(0, lpr.atEntry[1][58]);  // the second plate runs 4 bytes past the block: not read
    EXPECT_EQ((std::vector<int>{62, 58}), lens());
    all->tLpr.iEntrySize = 0;
    GetLPRInfo(true, b.data(), all.get(), 124, &para);
    EXPECT_EQ(1, all->bLprValid);
    EXPECT_EQ(2u, log.calls.size());
    // Twelve plates of 200 bytes, 300 wanted: ten stored, 120 bytes of each, all twelve reported.
    Bytes many = fb::cat({fb::le32(12), Bytes(2396, 'y')});
    lpr.iEntrySize = 300;
    log.calls.clear();
    GetLPRInfo(false, many.data(), &lpr, 2400, &para);
    EXPECT_EQ(10, lpr.iCount);
    EXPECT_EQ(12u, log.calls.size());
    EXPECT_EQ(200, log.calls[0].len);
    EXPECT_EQ(196, log.calls[11].len);
    GetLPRInfo(false, fb::le32(0).data(), &lpr, 4, &para);
    GetLPRInfo(false, fb::le32(1000).data(), &lpr, 4, &para);  // more plates than bytes
    EXPECT_EQ(12u, log.calls.size());
}

TEST_F(Decoders, SlotRuleStoresAtMostTheCapacity) {
    Bytes b(100, 0x33);
    uint8_t buf[32] = {};
    tagUserDataOut out = {};
    out.pPoliceCloth = buf, out.iPoliceClothSize = 10;
    out.iVestClothSize = 50;  // no pointer
    out.pHmac = buf, out.iHmacSize = 0;
    out.pWatermarkAdd = buf, out.iWatermarkAddSize = 10;
    GetPoliceClothInfo(b.data(), 100, &out, &para);
    EXPECT_EQ(10, out.iPoliceClothSize);
    EXPECT_EQ(0x33, buf[9]);
    EXPECT_EQ(0, buf[10]);
    GetVestClothInfo(b.data(), 100, &out, &para);
    EXPECT_EQ(50, out.iVestClothSize);
    GetHmacInfo(b.data(), 100, &out, &para);
    EXPECT_EQ(0, out.iHmacSize);
    Bytes wm(100, 0x44);
    GetWatermarkAddData(wm.data(), 100, &out, &para);  // room for the 4-byte head besides; the size counts it
    EXPECT_EQ(14, out.iWatermarkAddSize);
    EXPECT_EQ(0x44, buf[13]);
    EXPECT_EQ(0, buf[14]);
    EXPECT_EQ((std::vector<int>{31, 32, 34, 42}), log.types());
    EXPECT_EQ(std::vector<int>(4, 100), lens());
    GetLdcInfo(false, nullptr, all.get(), 10, &para);
    GetHmacInfo(nullptr, 10, &out, &para);
    EXPECT_EQ(4u, log.calls.size());
}

TEST_F(Decoders, VcaTargetListsAndRawCopy) {
    Bytes nine = fb::cat({fb::le16(9), Bytes(256, 9)});
    GetVcaTargetnfo(false, nine.data(), 258, vca.get(), sizeof(tagVcaTargetGet), &para);
    Bytes block = fb::cat({fb::le16(20), Bytes(1998, 1)});  // 20 targets, 2000 bytes
    GetVcaTargetnfo(false, block.data(), 2000, vca.get(), 2567, &para);
    EXPECT_EQ(16, vca->usTargetCount);
    EXPECT_EQ(258, vca->iRawLen);  // 2567 leaves the raw copy alone
    GetVcaTargetnfo(false, block.data(), 2000, vca.get(), 2568 + 10, &para);
    EXPECT_EQ(10, vca->iRawLen);  // cut at the record's end
    GetVcaTargetnfo(false, block.data(), 2000, vca.get(), sizeof(tagVcaTargetGet), &para);
    EXPECT_EQ(1024, vca->iRawLen);
    Bytes five = fb::cat({fb::le16(5), Bytes(80, 5)});
    GetVcaTargetnfo(false, five.data(), 82, vca.get(), sizeof(tagVcaTargetGet), &para);
    EXPECT_EQ(5, vca->usTargetCount);
    EXPECT_EQ(0x0101, vca->atTarget[8].ausWord[0]);  // entries behind the count stay
    EXPECT_EQ((std::vector<int>{258, 2000, 2000, 2000, 82}), lens());
}

TEST_F(Decoders, VcaTargetRecordsRescaleAndKeepTheirLimits) {
    Bytes three = fb::cat({record(10000, 10000, 5000, 5000), record(56, 0, 0, 10000), record(1, 2, 3, 4)});
    vca->usTargetCount = 2;  // two targets of a 0xFED2 block come first
    GetVcaTargetnfoEx(false, three.data(), 54, vca.get(), sizeof(tagVcaTargetGet), &para);
    EXPECT_EQ(5, vca->usTargetCount);
    const uint16_t *w = vca->atTarget[2].ausWord;
    EXPECT_EQ((std::vector<int>{176, 144, 88, 72, 7, 7, 7, 7}), std::vector<int>(w, w + 8));
    EXPECT_EQ(0, vca->atTarget[3].ausWord[0]);
    EXPECT_EQ(10000, vca->atTargetRaw[2].ausWord[0]);
    EXPECT_EQ(1, vca->atTargetRaw[4].iValid);
    EXPECT_EQ(0, vca->atTargetRaw[5].iValid);
    GetVcaTargetnfoEx(false, repeat(record(1, 1, 1, 1), 20).data(), 360, vca.get(), sizeof(*vca), &para);
    EXPECT_EQ(21, vca->usTargetCount);  // 16 from one block
    vca->usTargetCount = 32;
    GetVcaTargetnfoEx(false, three.data(), 54, vca.get(), sizeof(*vca), &para);
    EXPECT_EQ(32, vca->usTargetCount);
    GetVcaTargetnfoEx(false, Bytes(54, 0).data(), 54, vca.get(), sizeof(*vca), &para);  // record length 0
    EXPECT_EQ((std::vector<int>{43, 43, 43}), log.types());
    GetVcaTargetnfoNew(repeat(record(5000, 5000, 1, 1), 130).data(), 2340, vca.get(), sizeof(*vca), &para);
    EXPECT_EQ(128, vca->usTargetNewCount);
    EXPECT_EQ(72, vca->atTargetNew[127].ausWord[1]);
    EXPECT_EQ(1, vca->atTargetNewRaw[127].iValid);
    EXPECT_EQ((std::vector<int>{43, 43, 43, 44}), log.types());
}

TEST_F(Decoders, VcaDecodersLeaveTheAllTypesRecordAlone) {
    memset(all.get(), 0x11, sizeof(tagUserDataAll));
    Bytes block = fb::cat({record(1, 1, 1, 1), Bytes(300, 0)});
    GetVcaTargetnfo(true, block.data(), 318, all.get(), sizeof(tagUserDataAll), &para);
    GetVcaTargetnfoEx(true, block.data(), 318, all.get(), sizeof(tagUserDataAll), &para);
    GetVcaSrcVideo(true, block.data(), 318, all.get(), sizeof(tagUserDataAll), &para);
    GetVcaSrcVideoSize(true, block.data(), 318, all.get(), sizeof(tagUserDataAll), &para);
    GetVcaSrcVideoSizeEnable(true, block.data(), 318, all.get(), sizeof(tagUserDataAll), &para);
    GetVcaTimestamp(true, block.data(), 318, all.get(), sizeof(tagUserDataAll), &para);
    GetVcaTargetAttr(block.data(), 318, nullptr, &para, 0);
    std::vector<uint8_t> bytes((uint8_t *)all.get(), (uint8_t *)all.get() + sizeof(tagUserDataAll));
    EXPECT_EQ(std::vector<uint8_t>(sizeof(tagUserDataAll), 0x11), bytes);
    EXPECT_EQ((std::vector<int>{3, 43, 11, 38, 39, 12, 13}), log.types());
}
