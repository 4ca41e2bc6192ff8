// Frame header validity, stream information and the H.264/H.265 probes, on real and hand-made streams.
#include <gtest/gtest.h>
#include <string.h>

#include "stream/frame_header.h"
#include "support/frame_builder.h"

using fb::Bytes;

namespace {

bool valid(const Bytes &h) {
    return IsValidFrameHeader(reinterpret_cast<const __S_FrameHeader *>(h.data()));
}

int probe264(const Bytes &b) {
    return H264_Probe(b.data(), int(b.size()));
}
int probe265(const Bytes &b) {
    return H265_Probe(b.data(), int(b.size()));
}

// An Annex B NAL unit: start code, the given bytes and two filler bytes, since the scan stops two bytes
// before the end.
Bytes nal(std::initializer_list<uint8_t> bytes) {
    return fb::cat({{0, 0, 0, 1}, Bytes(bytes), {0x55, 0x55}});
}

}  // namespace

TEST(FrameHeader, LengthsMustAddUpWithinTheLimit) {
    EXPECT_TRUE(valid(fb::header(32, 0)));
    EXPECT_TRUE(valid(fb::header(162, 100, 3, 10)));
    EXPECT_FALSE(valid(fb::header(132, 100, 3, 10)));
    EXPECT_TRUE(valid(fb::header(0x300000, 0x300000 - 32)));
    EXPECT_FALSE(valid(fb::header(0x300001, 0x300001 - 32)));
    EXPECT_FALSE(valid(fb::header(0x100, 0x300001)));
    // The sum is taken modulo 2^32: 0xFFFF x 0xFFFF extension bytes come round to a small length.
    EXPECT_TRUE(valid(fb::header(0x2E0021, 0x300000, 0xFFFF, 0xFFFF)));
}

TEST(StreamInfo, ReportsHeaderAndHeadWordsWithCodesInOrder) {
    Bytes f = fb::frame({1, 2, 3}, {.frame_no = 9, .attr = 0xA5, .info = 0xDEADBEEF});
    Bytes head = fb::cat({{0x34, 0x12, 0xFF, 0xFF, 7}, Bytes(83, 0)});
    int32_t out[8] = {-9, -9, -9, -9, -9, -9, -9, -9};
    EXPECT_EQ(-1, SA_GetStreamInfo(nullptr, 0, nullptr, 0, nullptr, 28));
    EXPECT_EQ(-2, SA_GetStreamInfo(head.data(), 88, nullptr, 0, out, 28));
    EXPECT_EQ(-3, SA_GetStreamInfo(head.data(), 88, fb::header(40, 0).data(), 0, out, 28));
    EXPECT_EQ(-4, SA_GetStreamInfo(nullptr, 88, f.data(), 0, out, 28));
    EXPECT_EQ(-5, SA_GetStreamInfo(head.data(), 87, f.data(), 0, out, 28));
    ASSERT_EQ(0, SA_GetStreamInfo(head.data(), 88, f.data(), 0, out, 8));  // the size bounds the copy
    EXPECT_EQ((std::vector<int32_t>{0xFFFF, 7, -9}), std::vector<int32_t>(out, out + 3));
    ASSERT_EQ(0, SA_GetStreamInfo(head.data(), 88, f.data(), 0, out, 1000));  // 28 at most
    EXPECT_EQ((std::vector<int32_t>{0xFFFF, 7, int32_t(0xDEADBEEF), 0xA5, 1, 0x1234, 0, -9}),
              std::vector<int32_t>(out, out + 8));
}

TEST(Probe, TellsRealH264FromH265Streams) {
    for (const char *name : {"testsrc_high.h264", "testsrc_baseline.h264", "testsrc_main.h265", "testsrc_slices.h265"}) {
        Bytes s = fb::read_data_file(name);
        const bool h264 = name[strlen(name) - 1] == '4';
        ASSERT_GT(s.size(), 500u) << name;
        EXPECT_EQ(h264 ? 1 : 0, probe264(s)) << name;
        EXPECT_EQ(h264 ? 0 : 1, probe265(s)) << name;
    }
}

TEST(Probe, H264CountingRules) {
    Bytes sps = nal({0x67, 0x42, 0x00, 0x1E}), pps = nal({0x68, 0xCE}), idr = nal({0x65, 0x88});
    Bytes slice = nal({0x41, 0x9A});
    EXPECT_EQ(1, probe264(fb::cat({sps, pps, idr})));
    EXPECT_EQ(0, probe264(fb::cat({sps, pps, slice, slice, slice})));         // three slices, no IDR
    EXPECT_EQ(1, probe264(fb::cat({sps, pps, slice, slice, slice, slice})));  // four slices
    EXPECT_EQ(0, probe264(fb::cat({pps, idr})));                              // no SPS
    EXPECT_EQ(0, probe264(fb::cat({sps, pps, idr, nal({0x80})})));            // forbidden bit, anywhere
    EXPECT_EQ(0, probe264(fb::cat({sps, pps, nal({0x05, 0x88})})));           // IDR without reference value
    EXPECT_EQ(0, probe264(fb::cat({sps, pps, idr, nal({0x26, 0})})));         // SEI with reference value
    EXPECT_EQ(0, probe264(fb::cat({nal({0x67, 0x42, 0x01}), pps, idr})));     // SPS reserved bits set
    // Reserved types must stay fewer than SPS + PPS + IDR; a start code followed by zeros doesn't count.
    Bytes reserved = nal({0x18, 0x11});
    EXPECT_EQ(0, probe264(fb::cat({sps, pps, idr, reserved, reserved, reserved})));
    EXPECT_EQ(1, probe264(fb::cat({sps, pps, idr, reserved, reserved, nal({0, 0, 0})})));
    EXPECT_EQ(0, probe264({0, 0, 1}));
    EXPECT_EQ(-1, H264_Probe(nullptr, 100));
}

TEST(Probe, H265CountingRules) {
    Bytes vps = nal({0x40, 0x01}), sps = nal({0x42, 0x01}), pps = nal({0x44, 0x01});
    Bytes cra = nal({0x2A, 0x01});  // type 21, the last IRAP type
    EXPECT_EQ(1, probe265(fb::cat({vps, sps, pps, cra})));
    EXPECT_EQ(0, probe265(fb::cat({vps, sps, pps, nal({0x2C, 0x01})})));  // type 22 is no IRAP
    EXPECT_EQ(0, probe265(fb::cat({sps, pps, cra})));
    EXPECT_EQ(0,
              probe265(fb::cat({vps, sps, pps, cra, nal({0x41, 0x01})})));  // layer id bit in the first byte
    EXPECT_EQ(0, probe265(fb::cat({vps, sps, pps, cra, nal({0x02, 0x09})})));  // layer id in the second byte
    EXPECT_EQ(0, probe265({0, 0}));
    EXPECT_EQ(-1, H265_Probe(nullptr, 100));
}
