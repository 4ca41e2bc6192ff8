// The scan for heads in a run of buffered bytes.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "link/link_internal.h"

namespace {

std::string le(uint64_t v, int n) {
    std::string s;
    for (int i = 0; i < n; i++) s += (char)(v >> (8 * i));
    return s;
}
// A magic head whose length field says len, padded with 'b' to have bytes buffered from its start.
std::string cmd(int len, size_t have) {
    std::string s = "\xF1\xF5\xEA\xF5" + le(0, 2) + le(len, 2);
    s.resize(have, 'b');
    return s;
}
std::string dat(int len, size_t have) {
    std::string s = "\xF1\xF5\xEA\xF9" + le(0, 4) + le(0, 4) + le(0, 2) + le(len, 2);
    s.resize(have, 'b');
    return s;
}
std::string odns(int32_t len, size_t have) {
    std::string s = le(225, 4) + le((uint32_t)len, 4);
    s.resize(have, 'b');
    return s;
}
const std::string kMobile = "MOBILEDEVICEIRRIHEAD";

struct Case {
    const char *name;
    std::string run;
    int offset;
    int package_len;
};

TEST(LinkScan, FindsHeadsAndTheirLengths) {
    const Case cases[] = {
        {"4 bytes", "abcd", 0, 0},
        {"5 bytes noise", "abcde", 1, 0},
        {"100 bytes noise", std::string(100, 'n'), 96, 0},
        {"head waits for its rest", "xyz" + cmd(20, 19), 3, 0},
        {"whole command", "xyz" + cmd(20, 20), 3, 20},
        {"packet waits for its body", cmd(40, 39), 0, 0},
        {"command 1460", cmd(1460, 1460), 0, 1460},
        {"command 1461 is noise", cmd(1461, 1500), 1496, 0},
        {"data 1460", dat(1460, 1460), 0, 1460},
        {"data 1461 is noise", dat(1461, 1500), 1496, 0},
        {"data head", "ab" + dat(23, 30), 2, 23},
        {"length shorter than the head", cmd(5, 20), 0, 5},
        {"length 0 holds", cmd(0, 30), 0, 0},
        {"odns 2048", odns(2048, 2048), 0, 2048},
        {"odns 2049 holds", odns(2049, 2100), 0, 0},
        {"odns 0 holds", "q" + odns(0, 50), 1, 0},
        {"odns waits for its rest", odns(100, 99), 0, 0},
        {"odns length field cut", "noise" + odns(100, 6), 5, 0},
        {"mobile takes all", "zz" + kMobile + cmd(20, 20), 2, 40},
        {"mobile cut is noise", "zzzz" + kMobile.substr(0, 19), 19, 0},
        {"first of two heads", cmd(20, 20) + dat(20, 20), 0, 20},
    };
    for (const Case &c : cases) {
        int plen = 0;
        EXPECT_EQ(protocol_parase_net_data(c.run.data(), (int)c.run.size(), &plen), c.offset) << c.name;
        EXPECT_EQ(plen, c.package_len) << c.name;
    }
    int plen = 0;
    EXPECT_EQ(protocol_parase_net_data(nullptr, 10, &plen), -1);
    EXPECT_EQ(protocol_parase_net_data("abcdef", 6, nullptr), -1);
}

// Heads at every offset, in noise with and without bytes that begin a head, up to the last offset
// the scan looks at.
TEST(LinkScan, FindsAHeadAtAnyOffset) {
    const std::string fills[] = {std::string(64, 'n'), std::string("\xF1\xE1M\xF1\xF5\xEA\x00M") + std::string(56, 'M')};
    for (const std::string &fill : fills) {
        for (int at = 0; at < 40; at++) {
            std::string run = fill.substr(0, (size_t)at) + cmd(20, 20);
            int plen = 0;
            EXPECT_EQ(protocol_parase_net_data(run.data(), (int)run.size(), &plen), at) << at;
            EXPECT_EQ(plen, 20) << at;
            run = fill.substr(0, (size_t)at) + "\xF1\xF5\xEA\xF9" "b";  // a data magic at the last offset
            plen = 0;
            EXPECT_EQ(protocol_parase_net_data(run.data(), (int)run.size(), &plen), at) << at;
            EXPECT_EQ(plen, 0) << at;
            EXPECT_EQ(protocol_parase_net_data(fill.data(), at + 5, &plen), at + 1) << at;
        }
    }
}

// Random runs rich in magic bytes: the scan stops where the first offset that stops a scan starting
// there lies, with the same length, so passing bytes in bulk never skips a head.
TEST(LinkScan, BulkPassingSkipsNoHead) {
    const std::string pieces[] = {std::string("\xF1\xF5\xEA\xF5", 4), std::string("\xF1\xF5\xEA\xF9", 4),
                                  std::string("\xE1\0\0\0", 4), "\xF1", "\xE1", "M", std::string(1, '\0'), "\x14", "x"};
    sdk_log_set_level(0, 0, 0);  // the many bad lengths would each log a line
    std::mt19937 rng(7);
    for (int round = 0; round < 5000; round++) {
        std::string run;
        for (int n = (int)(rng() % 24); n > 0; n--) run += pieces[rng() % 9];
        const int len = (int)run.size();
        int want = len <= 4 ? 0 : len - 4, want_len = 0;
        for (int p = 0; p < len - 4; p++) {
            int plen = 0;
            if (protocol_parase_net_data(run.data() + p, len - p, &plen) == 0) {
                want = p, want_len = plen;
                break;
            }
        }
        int plen = 0;
        ASSERT_EQ(protocol_parase_net_data(run.data(), len, &plen), want) << round;
        ASSERT_EQ(plen, want_len) << round;
    }
}

TEST(LinkScan, HeadTypes) {
    EXPECT_EQ(link_head_type(cmd(20, 20).data(), 20), LINK_HEAD_COMMAND);
    EXPECT_EQ(link_head_type(dat(20, 20).data(), 20), LINK_HEAD_DATA);
    EXPECT_EQ(link_head_type(odns(8, 8).data(), 8), LINK_HEAD_ODNS);
    EXPECT_EQ(link_head_type(kMobile.data(), 20), LINK_HEAD_MOBILE);
}

}  // namespace
