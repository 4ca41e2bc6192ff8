// The producer side shared by the tools, checked against the library's own readers: access units of
// the committed streams, user-data units through RevertUserData, plates through GetLPRInfo, and the
// parsing of times and bytes on the command line.
#if defined(KORVEX_DUMP) && defined(KORVEX_MKFRAME)

#include <gtest/gtest.h>
#include <string.h>

#include "common/annexb.h"
#include "common/frame_make.h"
#include "common/tool_util.h"
#include "support/frame_builder.h"

namespace {

using kxt::Bytes;
using kxt::Codec;

TEST(ToolCommon, AccessUnitsOfTheTestStreams) {
    const char *names[] = {"testsrc_high.h264", "testsrc_baseline.h264", "testsrc_main.h265", "testsrc_slices.h265"};
    for (const char *name : names) {
        SCOPED_TRACE(name);
        Bytes in = fb::read_data_file(name);
        Codec codec = kxt::probe_codec(in.data(), in.size());
        ASSERT_EQ(codec, name[strlen(name) - 1] == '4' ? Codec::kH264 : Codec::kH265);
        size_t skipped = 99;
        std::vector<kxt::Nal> nals = kxt::scan_nals(in.data(), in.size(), &skipped);
        EXPECT_EQ(skipped, 0u);
        std::vector<kxt::AccessUnit> units = kxt::split_access_units(codec, in.data(), nals);
        ASSERT_EQ(units.size(), 8u);  // eight pictures were coded
        size_t covered = 0;
        for (size_t i = 0; i < units.size(); ++i) {
            EXPECT_EQ(units[i].first, covered);
            EXPECT_EQ(units[i].key, i == 0);
            covered += units[i].count;
        }
        EXPECT_EQ(covered, nals.size());
        EXPECT_EQ(nals.back().end, in.size());
    }
}

TEST(ToolCommon, PicturesSplitAtTheirFirstSliceAndAtPrefixUnits) {
    // Junk, SPS, PPS, IDR slice with first_mb 0, a second slice of it, SEI, a slice of the next picture,
    // then a slice that starts a third picture; start codes of four and three bytes and trailing zeros.
    Bytes s = {9, 9, 0, 0, 0, 1, 0x67, 1, 0, 0, 1, 0x68, 2, 0, 0, 1, 0x65, 0x88, 0, 0,
               0, 1, 0x65, 0x40, 0, 0, 1, 0x06, 5, 0, 0, 1, 0x41, 0x9A, 0, 0, 1, 0x41, 0x80};
    size_t skipped = 0;
    std::vector<kxt::Nal> nals = kxt::scan_nals(s.data(), s.size(), &skipped);
    EXPECT_EQ(skipped, 2u);
    ASSERT_EQ(nals.size(), 7u);
    EXPECT_EQ(nals[2].end, 18u);  // the IDR slice ends before the zeros of the next start code
    std::vector<kxt::AccessUnit> units = kxt::split_access_units(Codec::kH264, s.data(), nals);
    ASSERT_EQ(units.size(), 3u);
    EXPECT_EQ(units[0].count, 4u);
    EXPECT_TRUE(units[0].key);
    EXPECT_EQ(units[1].first, 4u);
    EXPECT_EQ(units[1].count, 2u);
    EXPECT_FALSE(units[1].key);
    EXPECT_EQ(units[2].first, 6u);
}

// A stream read in pieces gives the units of the whole buffer: start codes of three and four bytes
// placed across the 1 MiB pieces at every phase, trailing zeros, junk in front, a unit at the end.
TEST(ToolCommon, NalReaderMatchesTheWholeBufferScan) {
    Bytes s = {7, 7, 7};
    const size_t piece = 1u << 20;
    for (size_t k = 0; s.size() < 3 * piece + 100; ++k) {
        size_t target = (s.size() / piece + 1) * piece - k % 6;  // the next start code ends near a boundary
        while (s.size() + 4 < target) s.push_back(uint8_t(0x40 + s.size() % 90));
        if (k % 3 == 0) s.push_back(0);  // a trailing zero of the unit before
        s.insert(s.end(), {0, 0, 0, 1});
        if (k % 2) s.erase(s.end() - 4);  // a three-byte start code
        s.push_back(uint8_t(0x41 + k % 5));
        for (size_t i = 0; i < 1000 + 37 * k; ++i) s.push_back(uint8_t(0x80 + i % 100));
        for (int u = 0; u < 5; ++u) s.insert(s.end(), {0, 0, 1, uint8_t(0x06 + u), 0x55, 0x66});
    }
    size_t skipped = 0;
    std::vector<kxt::Nal> whole = kxt::scan_nals(s.data(), s.size(), &skipped);
    FILE *f = tmpfile();
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(fwrite(s.data(), 1, s.size(), f), s.size());
    rewind(f);
    kxt::NalReader reader(f);
    const uint8_t *head;
    ASSERT_EQ(reader.peek(16, &head), 16u);
    EXPECT_EQ(Bytes(head, head + 3), Bytes({7, 7, 7}));
    const uint8_t *nal;
    size_t len, n = 0;
    while (reader.next(&nal, &len)) {
        ASSERT_LT(n, whole.size());
        const kxt::Nal &w = whole[n++];
        ASSERT_EQ(len, w.end - w.begin) << n;
        ASSERT_EQ(memcmp(nal, s.data() + w.begin, len), 0) << n;
    }
    fclose(f);
    EXPECT_EQ(n, whole.size());
    EXPECT_GE(n, 4u);
    EXPECT_EQ(reader.skipped(), skipped);
    EXPECT_EQ(reader.bytes(), s.size());
    EXPECT_FALSE(reader.too_long());
}

TEST(ToolCommon, UserDataUnitsReadBackThroughTheLibrary) {
    for (int len : {1, 100, 247, 1016, 5000}) {
        SCOPED_TRACE(len);
        Bytes payload(size_t(len), 0);  // runs of zeros need emulation prevention all along
        for (size_t i = 0; i < payload.size(); i += 7) payload[i] = uint8_t(i % 4);
        Bytes c = kxt::ud_container({kxt::ud_block(0x0001, payload)});
        Bytes u = kxt::ud_unit(Codec::kH265, kxt::Layout::kNew, c);
        ASSERT_EQ(Bytes(u.begin(), u.begin() + 7), Bytes({0, 0, 0, 1, 0x4E, 0x01, 0xF1}));
        size_t at = 7, stated = 0;
        while (u[at] == 0xFF) stated += u[at++];
        stated += u[at++];
        EXPECT_EQ(stated, c.size());
        EXPECT_EQ(u.back(), 0x80);
        Bytes back(10240 + 16, 0xEE);
        int size = int(stated);
        RevertUserData(u.data() + at, back.data(), size, 10240);
        EXPECT_EQ(size_t(size), u.size() - at - 1);  // every escaped byte consumed, the closing byte left
        EXPECT_EQ(Bytes(back.begin(), back.begin() + long(c.size())), c);
    }
}

TEST(ToolCommon, PlatesLandWhereTheDecoderLooks) {
    std::vector<std::string> plates;
    for (int n = 1; n <= kxt::kPlateMax; ++n) {
        plates.push_back(std::string(size_t(n * 7 % 13 + 1), char('A' + n)));
        if (n == 3) plates.back() = std::string(kxt::kPlateTextMax, 'Z');
        Bytes p = kxt::plate_payload(plates);
        tagLprInfo lpr;
        memset(&lpr, 0, sizeof(lpr));
        lpr.iEntrySize = sizeof(lpr.atEntry[0]);
        _tagInnerFramePara para;
        memset(&para, 0, sizeof(para));
        GetLPRInfo(false, p.data(), &lpr, int(p.size()), &para);
        ASSERT_EQ(lpr.iCount, n);
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(kxt::printable_text(lpr.atEntry[i], sizeof(lpr.atEntry[i])), plates[size_t(i)]) << n << " " << i;
        }
    }
}

TEST(ToolCommon, CommandLineValues) {
    uint32_t t = 0;
    for (const char *text : {"2023-11-14T22:13:20Z", "2023-11-14 22:13:20", "2023-11-14T22:13:20.75Z", "1700000000"}) {
        EXPECT_TRUE(kxt::parse_utc_time(text, &t)) << text;
        EXPECT_EQ(t, 1700000000u) << text;
    }
    EXPECT_TRUE(kxt::parse_utc_time("2106-02-07T06:28:15Z", &t));
    EXPECT_EQ(t, 0xFFFFFFFFu);
    for (const char *bad : {"2106-02-07T06:28:16Z", "1969-12-31T23:59:59Z", "2023-13-01T00:00:00Z",
                            "2023-11-14T22:13:20+01:00", "yesterday", "", "4294967296", "2023-02-29T00:00:00Z",
                            "2024-04-31T00:00:00Z", "2023-11-14T22:13:60Z"}) {
        EXPECT_FALSE(kxt::parse_utc_time(bad, &t)) << bad;
    }
    Bytes b;
    EXPECT_TRUE(kxt::parse_hex("0a1B ff:00", &b));
    EXPECT_EQ(b, Bytes({0x0A, 0x1B, 0xFF, 0x00}));
    EXPECT_FALSE(kxt::parse_hex("0a1", &b) || kxt::parse_hex("0 a", &b) || kxt::parse_hex("zz", &b));
    long long n = 0;
    EXPECT_TRUE(kxt::parse_int("0xFEE2", 0, 0xFFFF, &n));
    EXPECT_EQ(n, 0xFEE2);
    EXPECT_FALSE(kxt::parse_int("0x10000", 0, 0xFFFF, &n) || kxt::parse_int("12abc", 0, 100, &n));
    EXPECT_EQ(kxt::printable_text((const uint8_t *)"a\\b\x01\0c", 6), "a\\x5cb\\x01");
}

TEST(ToolCommon, DeviceTextIsUtf8OrGb18030) {
    auto text = [](const char *bytes, bool raw = false) {
        return kxt::device_text(reinterpret_cast<const uint8_t *>(bytes), strlen(bytes) + 1, raw);
    };
    EXPECT_EQ(text("\xe4\xba\xac" "A12345"), "\xe4\xba\xac" "A12345");  // UTF-8 as it is
    EXPECT_EQ(text("\xbe\xa9" "A12345"), "\xe4\xba\xac" "A12345");       // GB18030 of the same plate
    EXPECT_EQ(text("\xbe\xa9" "A", true), "\\xbe\\xa9A");
    EXPECT_EQ(text("a\tb\\"), "a\\x09b\\");                          // one line, backslash kept
    EXPECT_EQ(text("\xff\xff"), "\\xff\\xff");                          // neither: escapes
    EXPECT_EQ(text("\xed\xa0\x80"), "\\xed\\xa0\\x80");              // a surrogate is no UTF-8
    // C1 controls (U+0085 NEL, U+009B CSI), in UTF-8 or from GB18030's four-byte codes, are escaped
    // too; U+00A0 behind them is text.
    EXPECT_EQ(text("a\xc2\x85" "b\xc2\x9b" "c\xc2\xa0"), "a\\xc2\\x85b\\xc2\\x9bc\xc2\xa0");
    EXPECT_EQ(text("\x81\x30\x81\x30" "A\xbe\xa9"), "\\xc2\\x80" "A\xe4\xba\xac");
}

}  // namespace

#endif
