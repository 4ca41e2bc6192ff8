// Encryption and decryption of whole frames: round trips in both modes, the flag words, the bytes
// each mode touches, and the refusals that leave a frame as it was.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "stream/frame_header.h"
#include "support/frame_builder.h"

namespace {

typedef std::vector<uint8_t> Frame;
const unsigned char kKey[] = "camera-key-0042";  // 15 characters, 16 readable bytes

// A clear video frame: header, start code, then payload bytes that vary.
Frame make_frame(uint32_t payload_len, uint16_t flags = 0xFFFF) {
    Frame p(payload_len);
    for (uint32_t i = 0; i < payload_len; ++i) p[i] = (uint8_t)(i * 31 + 17);
    if (payload_len >= 4) memcpy(&p[0], "\x00\x00\x00\x01", 4);
    return fb::frame(p, {.frame_no = 1234, .flags = flags});
}

int len(const Frame &f) { return (int)f.size(); }

// Encrypts, checks the flag word and that no byte outside the mode's ranges changed, decrypts.
void round_trip(uint32_t payload, bool enhanced) {
    Frame f = make_frame(payload), orig = f;
    ASSERT_EQ(enhanced ? SA_EncryptOneFrameEx(f.data(), len(f), kKey, 15) : SA_EncryptOneFrame(f.data(), len(f), kKey, 15), 0);
    EXPECT_EQ(fh_flags(f.data()), enhanced ? 0xFF82 : 0xFFF2);
    EXPECT_NE(0, memcmp(&f[32], &orig[32], 4));
    for (uint32_t i = 0; i < payload; ++i) {
        bool touched = enhanced ? i < 0x40000 && i % 256 < 64 : i < 64;
        if (!touched) {
            ASSERT_EQ(f[32 + i], orig[32 + i]) << "payload " << payload << " byte " << i;
        }
    }
    ASSERT_EQ(SA_DecryptOneFrame(f.data(), len(f), kKey, 15), 0) << payload;
    EXPECT_EQ(fh_flags(f.data()), enhanced ? 0xFF80 : 0xFFF0);
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), len(f), kKey, 15), -3);  // now marked clear
    fh_set_flags(f.data(), 0xFFFF);
    EXPECT_EQ(f, orig) << payload;
}

}  // namespace

TEST(FrameCrypt, RoundTripsInBothModes) {
    for (uint32_t payload : {64u, 65u, 224u, 256u, 300u, 262144u, 262144u + 300u}) {
        round_trip(payload, false);
        round_trip(payload, true);
    }
    round_trip(4, true);
}

TEST(FrameCrypt, WrongKeyLeavesFrameUnchangedAndLogsOnlyKeyLength) {
    for (bool enhanced : {false, true}) {
        Frame f = make_frame(500);
        ASSERT_EQ(enhanced ? SA_EncryptOneFrameEx(f.data(), len(f), kKey, 15) : SA_EncryptOneFrame(f.data(), len(f), kKey, 15), 0);
        Frame enc = f;
        testing::internal::CaptureStderr();
        EXPECT_EQ(SA_DecryptOneFrame(f.data(), len(f), (const unsigned char *)"camera-key-0043", 15), -4);
        std::string log = testing::internal::GetCapturedStderr();
        std::string want = std::string("video_AES_CTR fail! IsEncryptEnhanced = ") + (enhanced ? "1" : "0");
        EXPECT_NE(log.find(want + " key = (15 bytes)"), std::string::npos) << log;
        EXPECT_EQ(log.find("camera-key"), std::string::npos) << log;
        EXPECT_EQ(f, enc);
    }
}

TEST(FrameCrypt, LengthsAndRefusals) {
    // Plain mode needs 64 payload bytes in the buffer: 96 works, 95 is refused with the log line.
    Frame f = make_frame(64), enc;
    ASSERT_EQ(SA_EncryptOneFrame(f.data(), 96, kKey, 15), 0);
    kx_wr32le(&f[KX_FH_FRAME_LEN], 95);
    kx_wr32le(&f[KX_FH_PAYLOAD_LEN], 63);
    enc = f;
    testing::internal::CaptureStderr();
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), 95, kKey, 15), -104);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("_iFrameLen(95)<= 64+32"), std::string::npos);
    EXPECT_EQ(f, enc);

    f = make_frame(63), enc = f;  // uiFrameLen 95: left clear, flags included
    EXPECT_EQ(SA_EncryptOneFrame(f.data(), len(f), kKey, 15), 0);
    EXPECT_EQ(SA_EncryptOneFrame(f.data(), 80, kKey, 15), 0);
    EXPECT_EQ(f, enc);
    f = make_frame(100), enc = f;  // the header claims more than the buffer holds
    EXPECT_EQ(SA_EncryptOneFrame(f.data(), 80, kKey, 15), -104);
    EXPECT_EQ(f, enc);
    f = make_frame(3, 0x0082);  // enhanced, too short for the start-code test
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), len(f), kKey, 15), -4);
    f = make_frame(0);  // nothing for the enhanced cipher to take
    EXPECT_EQ(SA_EncryptOneFrameEx(f.data(), 32, kKey, 15), -3);

    f = make_frame(100, 0x0002), enc = f;
    testing::internal::CaptureStderr();
    EXPECT_EQ(SA_DecryptOneFrame(nullptr, 100, kKey, 15), -101);
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), 31, kKey, 15), -102);  // too short for a header
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), len(f), nullptr, 15), -2);
    testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), len(f), (const unsigned char *)"", 1), -2);
    EXPECT_EQ(SA_EncryptOneFrameEx(f.data(), len(f), kKey, 0), -2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "empty keys are refused without a line";
    EXPECT_EQ(f, enc);
}

TEST(FrameCrypt, DecryptAesOnBareBuffer) {
    Frame buf(50, 9), orig = buf;
    EXPECT_EQ(SA_DecryptAES(buf.data(), 50, 3, kKey, 15), 0);
    EXPECT_NE(buf, orig);
    EXPECT_EQ(SA_DecryptAES(buf.data(), 50, 3, kKey, 15), 0);
    EXPECT_EQ(buf, orig);
    EXPECT_EQ(SA_DecryptAES(buf.data(), 0, 3, kKey, 15), -104);
    EXPECT_EQ(SA_DecryptAES(buf.data(), 50, 3, kKey, 0), -2);
}
