// Encryption and decryption of whole frames: round trips in both modes, the flag words, the bytes
// each mode touches, and the refusals that leave a frame as it was.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "platform/bytes.h"
#include "stream/frame_crypt.h"
#include "stream/frame_header.h"

namespace {

const unsigned char kKey[] = "camera-key-0042";  // 15 characters, 16 readable bytes

// A clear video frame: header, start code, then payload bytes that vary.
std::vector<uint8_t> make_frame(uint32_t payload_len, uint16_t flags = 0xFFFF, uint32_t frame_no = 1234) {
    std::vector<uint8_t> f(32 + payload_len);
    kx_wr32le(&f[KX_FH_FRAME_LEN], 32 + payload_len);
    kx_wr32le(&f[KX_FH_FRAME_NO], frame_no);
    kx_wr32le(&f[KX_FH_PAYLOAD_LEN], payload_len);
    fh_set_flags(f.data(), flags);
    for (uint32_t i = 0; i < payload_len; ++i) f[32 + i] = (uint8_t)(i * 31 + 17);
    if (payload_len >= 4) memcpy(&f[32], "\x00\x00\x00\x01", 4);
    return f;
}

int len(const std::vector<uint8_t> &f) { return (int)f.size(); }

}  // namespace

TEST(FrameCrypt, PlainRoundTripAndFlags) {
    for (uint32_t payload : {64u, 65u, 224u, 256u, 262144u}) {
        std::vector<uint8_t> f = make_frame(payload), orig = f;
        ASSERT_EQ(SA_EncryptOneFrame(f.data(), len(f), kKey, 15), 0);
        EXPECT_EQ(fh_flags(f.data()), 0xFFF2);
        EXPECT_NE(0, memcmp(&f[32], &orig[32], 64));
        EXPECT_EQ(0, memcmp(&f[96], &orig[96], f.size() - 96)) << "only payload bytes 0-63 change";
        ASSERT_EQ(SA_DecryptOneFrame(f.data(), len(f), kKey, 15), 0);
        EXPECT_EQ(fh_flags(f.data()), 0xFFF0);
        f[30] = orig[30], f[31] = orig[31];
        EXPECT_EQ(f, orig) << payload;
        EXPECT_EQ(SA_DecryptOneFrame(f.data(), len(f), kKey, 15), -3);  // now clear
    }
}

TEST(FrameCrypt, EnhancedRoundTripTouchesOnlyUnitHeads) {
    for (uint32_t payload : {4u, 96u, 256u, 300u, 262144u, 262144u + 300u}) {
        std::vector<uint8_t> f = make_frame(payload), orig = f;
        ASSERT_EQ(SA_EncryptOneFrameEx(f.data(), len(f), kKey, 15), 0) << payload;
        EXPECT_EQ(fh_flags(f.data()), 0xFF82);
        for (uint32_t i = 0; i < payload; ++i) {
            bool touched = i < 0x40000 && (i % 256) < 64;
            if (!touched) {
                ASSERT_EQ(f[32 + i], orig[32 + i]) << "payload byte " << i;
            }
        }
        ASSERT_EQ(SA_DecryptOneFrame(f.data(), len(f), kKey, 15), 0) << payload;
        EXPECT_EQ(fh_flags(f.data()), 0xFF80);
        f[30] = orig[30], f[31] = orig[31];
        EXPECT_EQ(f, orig) << payload;
    }
}

TEST(FrameCrypt, WrongKeyLeavesFrameUnchangedAndLogsKey) {
    for (bool enhanced : {false, true}) {
        std::vector<uint8_t> f = make_frame(500);
        if (enhanced) ASSERT_EQ(SA_EncryptOneFrameEx(f.data(), len(f), kKey, 15), 0);
        else ASSERT_EQ(SA_EncryptOneFrame(f.data(), len(f), kKey, 15), 0);
        std::vector<uint8_t> enc = f;
        const unsigned char wrong[] = "camera-key-0043";
        testing::internal::CaptureStderr();
        EXPECT_EQ(SA_DecryptOneFrame(f.data(), len(f), wrong, 15), -4);
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find(std::string("video_AES_CTR fail! IsEncryptEnhanced = ") + (enhanced ? "1" : "0") +
                           " key = camera-key-0043"),
                  std::string::npos)
            << log;
        EXPECT_EQ(f, enc);
    }
}

TEST(FrameCrypt, LengthsAndRefusals) {
    // Plain mode needs 64 payload bytes in the buffer: 96 works, 95 is refused with the log line.
    std::vector<uint8_t> f = make_frame(64);
    ASSERT_EQ(SA_EncryptOneFrame(f.data(), 96, kKey, 15), 0);
    kx_wr32le(&f[KX_FH_FRAME_LEN], 95);
    kx_wr32le(&f[KX_FH_PAYLOAD_LEN], 63);
    std::vector<uint8_t> enc = f;
    testing::internal::CaptureStderr();
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), 95, kKey, 15), -104);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("_iFrameLen(95)<= 64+32"), std::string::npos);
    EXPECT_EQ(f, enc);

    // uiFrameLen 95: encryption leaves the frame clear, flags included.
    f = make_frame(63), enc = f;
    EXPECT_EQ(SA_EncryptOneFrame(f.data(), len(f), kKey, 15), 0);
    EXPECT_EQ(f, enc);

    // A header claiming more than the buffer holds never lets the plain cipher past the buffer.
    f = make_frame(100);
    enc = f;
    EXPECT_EQ(SA_EncryptOneFrame(f.data(), 80, kKey, 15), -104);
    EXPECT_EQ(f, enc);

    // An enhanced frame of fewer than 36 bytes cannot pass the start-code test.
    f = make_frame(3, 0x0082);
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), len(f), kKey, 15), -4);

    f = make_frame(100, 0x0002);
    enc = f;
    testing::internal::CaptureStderr();
    EXPECT_EQ(SA_DecryptOneFrame(nullptr, 100, kKey, 15), -101);
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), 0, kKey, 15), -104);
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), 31, kKey, 15), -102);  // too short for a header
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), len(f), nullptr, 15), -2);
    std::string log = testing::internal::GetCapturedStderr();
    for (const char *line : {"_pucFrameBuf == NULL", "_iFrameLen <= 0", "!IsValidFrameHeader", "_pucDecryptKey == NULL"})
        EXPECT_NE(log.find(line), std::string::npos) << line;
    testing::internal::CaptureStderr();
    EXPECT_EQ(SA_DecryptOneFrame(f.data(), len(f), (const unsigned char *)"", 1), -2);
    EXPECT_EQ(SA_EncryptOneFrameEx(f.data(), len(f), kKey, 0), -2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "empty keys are refused without a line";
    kx_wr32le(&f[KX_FH_PAYLOAD_LEN], 99);
    EXPECT_EQ(SA_EncryptOneFrame(f.data(), len(f), kKey, 15), -102);
    EXPECT_EQ(f[0x1F], 0);  // flags untouched by the refusals

    // A header-only frame has nothing the enhanced cipher could take.
    f = make_frame(0);
    EXPECT_EQ(SA_EncryptOneFrameEx(f.data(), 32, kKey, 15), -3);
}

TEST(FrameCrypt, DecryptAesAndFlagHelpers) {
    std::vector<uint8_t> buf(50, 9), orig = buf;
    EXPECT_EQ(SA_DecryptAES(buf.data(), 50, 3, kKey, 15), 0);
    EXPECT_NE(buf, orig);
    EXPECT_EQ(SA_DecryptAES(buf.data(), 50, 3, kKey, 15), 0);
    EXPECT_EQ(buf, orig);
    EXPECT_EQ(SA_DecryptAES(buf.data(), 0, 3, kKey, 15), -104);
    EXPECT_EQ(SA_DecryptAES(buf.data(), 50, 3, kKey, 0), -2);

    __S_FrameHeader h;
    memset(&h, 0, sizeof(h));
    h.usFrameFlags = 0x00B3;  // bits 0-1 = 3, bits 6-7 = 2
    EXPECT_FALSE(IsEncryptFrameHeader(&h));
    EXPECT_TRUE(IsEncryptEnhanced(&h));
    h.usFrameFlags = 0x00F2;
    EXPECT_TRUE(IsEncryptFrameHeader(&h));
    EXPECT_FALSE(IsEncryptEnhanced(&h));
    ResetEncryptFrmHeader(&h);
    EXPECT_EQ(h.usFrameFlags, 0x00F0);
    ResetEncryptFrmHeader(nullptr);
}
