// A link over loopback, the device side written with plain sockets: heads on the wire, packets cut
// out of the stream, the 999 re-dispatch, the framing close, and the send queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <vector>

#include "link/link_internal.h"
#include "net/tcp_peer.h"
#include "support/stderr_capture.h"

namespace {

std::string le(uint64_t v, int n) {
    std::string s;
    for (int i = 0; i < n; i++) s += (char)(v >> (8 * i));
    return s;
}
std::string command_packet(const std::string &body, uint16_t seq = 7) {
    return "\xF1\xF5\xEA\xF5" + le(seq, 2) + le(body.size() + 20, 2) + le(0, 8) + le(0, 2) + le(body.size(), 2) + body;
}

struct Packet {
    int type;
    std::string bytes;
};

// Records every packet; parsers share it through the link's udata.
struct Device {
    std::mutex m;
    std::vector<Packet> got;
    std::vector<std::string> by;  // which parser saw each packet
    int disconnects = 0;
    std::vector<Packet> packets() {
        std::lock_guard<std::mutex> g(m);
        return got;
    }
};

int record(_NetLink *, void *u, int type, char *data, int len, const char *who) {
    Device *d = static_cast<Device *>(u);
    std::lock_guard<std::mutex> g(d->m);
    d->got.push_back({type, std::string(data, (size_t)len)});
    d->by.push_back(who);
    return 0;
}
int parser(_NetLink *l, void *u, int t, char *p, int n) { return record(l, u, t, p, n, "main"); }
int other(_NetLink *l, void *u, int t, char *p, int n) { return record(l, u, t, p, n, "other"); }
int handing_over(_NetLink *l, void *u, int t, char *p, int n) {
    record(l, u, t, p, n, "handing");
    net_link_bind_parase_protocol(l, other);
    return 999;
}
int twice(_NetLink *l, void *u, int t, char *p, int n) { return record(l, u, t, p, n, "twice"), 999; }
int on_gone(_NetLink *, void *u) {
    std::lock_guard<std::mutex> g(static_cast<Device *>(u)->m);
    return ++static_cast<Device *>(u)->disconnects;
}

class Link : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(sdk_os_startup(0, 1), 1);
        lfd = listen_on("127.0.0.1", &port, rcvbuf);
        link = net_link_create();
        ASSERT_NE(link, nullptr);
        net_link_set_udata(link, &dev);
        net_link_bind_parase_protocol(link, parser);
        net_link_bind_disconnect_protocol(link, on_gone);
        client = net_tcp_client_create();
        net_tcp_client_set_remote(client, "127.0.0.1", port);
        ASSERT_EQ(net_link_set_core(link, client), 0);
        ASSERT_EQ(net_tcp_client_open(client, -1), 1);
        peer = accept_within(lfd);
        ASSERT_GE(peer, 0);
        ASSERT_TRUE(wait_for([&] { return net_tcp_client_get_status(client) == 2; }));
    }
    void TearDown() override {
        net_link_destroy(link);
        close(peer);
        close(lfd);
    }
    bool wait_packets(size_t n) {
        return wait_for([&] { return dev.packets().size() >= n; });
    }
    int rcvbuf = 0;
    uint16_t port = 0;
    int lfd = -1, peer = -1;
    Device dev;
    _NetLink *link = nullptr;
    _NetTcpClient *client = nullptr;
};

TEST_F(Link, WritesHeadsByteForByte) {
    // The link writes the addresses its client holds.
    strcpy(client->local_ip, "10.0.0.2");
    strcpy(client->remote_ip, "10.0.0.1");
    ASSERT_GE(net_link_send_command(link, "abc", 3), 0);
    EXPECT_EQ(read_n(peer, 23), std::string("\xF1\xF5\xEA\xF5\x00\x00\x17\x00\x01\x00\x00\x0A\x02\x00\x00\x0A\x00\x00\x03\x00"
                                            "abc", 23));
    // The data head takes the next number of the same counter.
    ASSERT_GE(net_link_send_data(link, "abc", 3), 0);
    EXPECT_EQ(read_n(peer, 23), std::string("\xF1\xF5\xEA\xF9\x01\x00\x00\x00\x0A\x00\x00\x02\x00\x00\x17\x00\x01\x00\x00\x00"
                                            "abc", 23));
    // The command head keeps the low 16 bits, the data head the whole counter; ip_ver 1 zeroes the addresses.
    link->seq = 0xFFFF;
    net_link_set_ip_ver(link, 1);
    net_link_send_command(link, "", 0);
    net_link_send_command(link, "", 0);
    net_link_send_data(link, "z", 1);
    std::string w = read_n(peer, 61);
    ASSERT_EQ(w.size(), 61u);
    EXPECT_EQ(w.substr(4, 4), le(0xFFFF, 2) + le(20, 2));
    EXPECT_EQ(w.substr(24, 4), le(0, 2) + le(20, 2));
    EXPECT_EQ(w.substr(8, 8), le(0, 8));
    EXPECT_EQ(w.substr(44, 8), le(0x10001, 4) + le(0, 4));
    // Body limits and chunking.
    EXPECT_EQ(net_link_send_command(link, std::string(1441, 'x').data(), 1441), -1);
    EXPECT_GE(net_link_send_data(link, std::string(1441, 'x').data(), 1441), 0);
    std::string two = read_n(peer, 1441 + 40);
    EXPECT_EQ(two.substr(14, 2), le(1460, 2));
    EXPECT_EQ(two.substr(1460 + 14, 2), le(21, 2));
    EXPECT_EQ(net_link_send_data(link, "x", 0), -1);
}

TEST_F(Link, CutsPacketsOutOfTheStream) {
    std::string a = command_packet("first"), c = le(225, 4) + le(12, 4) + "odns", e = command_packet("slowly");
    std::string b = "\xF1\xF5\xEA\xF9" + le(9, 4) + le(0, 6) + le(23, 2) + le(1, 4) + "dat";
    send_all(peer, "noise" + a + "\x01\x02" + b + c + "xx" + a);
    ASSERT_TRUE(wait_packets(4));
    // Byte by byte: delivered once, when the last byte is in.
    for (char ch : e) {
        send_all(peer, std::string(1, ch));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(wait_packets(5));
    send_all(peer, "MOBILEDEVICEIRRIHEADtail");
    ASSERT_TRUE(wait_packets(6));
    auto got = dev.packets();
    ASSERT_EQ(got.size(), 6u);
    const Packet want[] = {{0, a}, {1, b}, {2, c}, {0, a}, {0, e}, {3, "MOBILEDEVICEIRRIHEADtail"}};
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(got[i].type, want[i].type) << i;
        EXPECT_EQ(got[i].bytes, want[i].bytes) << i;
    }
}

TEST_F(Link, ParserAnswering999HandsThePacketOn) {
    net_link_bind_parase_protocol(link, handing_over);
    send_all(peer, command_packet("one") + command_packet("two"));
    ASSERT_TRUE(wait_packets(3));
    net_link_bind_parase_protocol(link, twice);
    send_all(peer, command_packet("three"));
    ASSERT_TRUE(wait_packets(5));
    std::lock_guard<std::mutex> g(dev.m);
    EXPECT_EQ(dev.by, (std::vector<std::string>{"handing", "other", "other", "twice", "twice"}));
    EXPECT_EQ(dev.got[0].bytes, dev.got[1].bytes);
    EXPECT_EQ(dev.got[3].bytes, dev.got[4].bytes);
}

TEST_F(Link, HeadThatCannotBePassedFillsTheBufferAndCloses) {
    send_all(peer, le(225, 4) + le(5000, 4) + std::string(3000, 'f'));
    ASSERT_TRUE(wait_for([&] { std::lock_guard<std::mutex> g(dev.m); return dev.disconnects == 1; }));
    EXPECT_EQ(net_tcp_client_get_status(client), 0);
    EXPECT_TRUE(dev.packets().empty());
    EXPECT_EQ(net_link_send_command(link, "x", 1), -1);  // detached: the socket is gone
    // A message that fails at its first chunk takes that chunk's number and no more.
    const uint32_t seq = link->seq;
    EXPECT_EQ(net_link_send_data(link, std::string(3000, 'm').data(), 3000), -1);
    EXPECT_EQ(link->seq, seq + 1);
}

class LinkSlowPeer : public Link {
protected:
    void SetUp() override {
        rcvbuf = 4096;
        Link::SetUp();
    }
};

TEST_F(LinkSlowPeer, QueuesWhatTheSocketRefusesAndFlushesInOrder) {
    int small = 4096;
    setsockopt(client->connectfd, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    const int kPackets = 400;
    std::string want;
    bool queued = false;
    for (int i = 0; i < kPackets; i++) {
        std::string body = std::to_string(i) + std::string(1000, (char)('a' + i % 26));
        ASSERT_GE(net_link_send_command(link, body.data(), (int)body.size()), 0);
        // Remote 127.0.0.1; no local text after a connect, which inet_addr reads as all bits set.
        want += "\xF1\xF5\xEA\xF5" + le(i, 2) + le(body.size() + 20, 2) + le(0x7F000001, 4) + le(0xFFFFFFFF, 4) +
                le(0, 2) + le(body.size(), 2) + body;
        sdk_mutex_lock(link->mtx_send);
        queued = queued || adt_dlist_size(link->send_buf_ls) > 0;
        sdk_mutex_unlock(link->mtx_send);
    }
    EXPECT_TRUE(queued);
    EXPECT_EQ(read_n(peer, want.size()), want);
    ASSERT_TRUE(wait_for([&] {
        sdk_mutex_lock(link->mtx_send);
        bool empty = adt_dlist_empty(link->send_buf_ls) == 1;
        sdk_mutex_unlock(link->mtx_send);
        return empty;
    }));
}

// Messages cut into chunks leave their heads and bodies together, many packets to a system call, and
// what the socket refuses (in the middle of any packet) waits and follows: byte for byte the stream
// that one head and one body at a time would give.
TEST_F(LinkSlowPeer, DataMessagesByteForByteThroughTheQueue) {
    int small = 4096;
    setsockopt(client->connectfd, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    std::string want;
    uint32_t seq = 0;
    bool queued = false;
    const int edge[] = {1440, 2880, 1441, 1};
    for (int m = 0; m < 60; m++) {
        // Whole chunks only, a short last chunk, one byte, more chunks than one system call takes.
        const int size = m < 4 ? edge[m] : 1 + (m * 7919) % 120000;
        std::string msg(size, '\0');
        for (int i = 0; i < size; i++) msg[i] = (char)(m + i * 31);
        if (m % 5 == 0) {
            ASSERT_GE(net_link_send_command(link, "cmd", 3), 0);
            want += "\xF1\xF5\xEA\xF5" + le(seq++, 2) + le(23, 2) + le(0x7F000001, 4) + le(0xFFFFFFFF, 4) + le(0, 2) +
                    le(3, 2) + "cmd";
        }
        ASSERT_GE(net_link_send_data(link, msg.data(), size), 0);
        for (int off = 0; off < size; off += LINK_MAX_BODY) {
            const int len = std::min(size - off, (int)LINK_MAX_BODY);
            uint8_t head[LINK_HEAD_SIZE];
            link_write_data_head(head, seq++, len, INADDR_NONE);
            want += std::string(reinterpret_cast<char *>(head), LINK_HEAD_SIZE) + msg.substr((size_t)off, (size_t)len);
        }
        sdk_mutex_lock(link->mtx_send);
        queued = queued || adt_dlist_size(link->send_buf_ls) > 0;
        sdk_mutex_unlock(link->mtx_send);
    }
    EXPECT_TRUE(queued);
    EXPECT_EQ(link->seq, seq);
    std::string got = read_n(peer, want.size(), 20000);
    ASSERT_EQ(got.size(), want.size());
    EXPECT_TRUE(got == want);
}

// Bodies that prove themselves whole: a sequence number, filler, and a checksum over both.
uint32_t fnv(const std::string &s) {
    uint32_t h = 2166136261u;
    for (unsigned char c : s) h = (h ^ c) * 16777619u;
    return h;
}
std::string numbered_body(uint32_t seq, size_t size) {
    std::string b = le(seq, 4);
    while (b.size() + 4 < size) b += (char)('a' + (seq + b.size()) % 26);
    return b + le(fnv(b), 4);
}
uint32_t u32_at(const std::string &s, size_t off) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; i--) v = v << 8 | (uint8_t)s[off + i];
    return v;
}

size_t queued_blocks(_NetLink *link) {
    sdk_mutex_lock(link->mtx_send);
    size_t n = adt_dlist_size(link->send_buf_ls);
    sdk_mutex_unlock(link->mtx_send);
    return n;
}

// The peer stops reading, the link overflows its queue many times over, then the peer reads it all:
// the stream is a run of whole packets, command and data heads alike, without a byte between them.
TEST_F(LinkSlowPeer, OverflowDropsWholePacketsOnlyAsThePeerSeesIt) {
    int small = 4096;
    setsockopt(client->connectfd, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    ASSERT_EQ(sdk_os_set_max_package_buf(16), 1);
    StderrCapture log;
    log.start();
    const uint32_t kPackets = 900;
    for (uint32_t seq = 0; seq < kPackets; seq++) {
        // Odd sizes; a data head and its body are two queue blocks; a long run of packets in one
        // send is what the socket takes in part, leaving a begun block at the head of the queue.
        std::string body = numbered_body(seq, 700 + seq % 13 * 53);
        int r;
        if (seq % 30 == 0) {
            std::string run;
            for (uint32_t end = seq + 20; seq < end; seq++) run += command_packet(numbered_body(seq, 900 + seq % 7));
            seq--;
            r = net_link_send_package(link, run.data(), (int)run.size());
        } else if (seq % 3 == 0) {
            r = net_link_send_data(link, body.data(), (int)body.size());
        } else {
            r = net_link_send_command(link, body.data(), (int)body.size());
        }
        ASSERT_GE(r, 0) << seq;
    }
    std::string logged = log.stop();
    ASSERT_NE(logged.find("buffer overflow 16"), std::string::npos);
    EXPECT_NE(logged.find(" packets "), std::string::npos);
    EXPECT_EQ(logged.find("dropped 0 packets"), std::string::npos);
    sdk_os_set_max_package_buf(20000);
    // Once the queue is empty a last packet marks the end of the stream.
    std::string stream;
    auto read_some = [&] {
        char buf[65536];
        ssize_t r = recv(peer, buf, sizeof(buf), MSG_DONTWAIT);
        if (r > 0) stream.append(buf, (size_t)r);
        return r;
    };
    ASSERT_TRUE(wait_for([&] { return read_some(), queued_blocks(link) == 0; }));
    std::string last = numbered_body(kPackets, 16);
    ASSERT_GE(net_link_send_command(link, last.data(), (int)last.size()), 0);
    ASSERT_TRUE(wait_for([&] { return read_some(), stream.size() >= last.size() + 20 &&
                                                       stream.compare(stream.size() - last.size(), last.size(), last) == 0; }));

    std::vector<uint32_t> seqs;
    size_t off = 0;
    while (off + 20 <= stream.size()) {
        std::string magic = stream.substr(off, 4);
        ASSERT_TRUE(magic == "\xF1\xF5\xEA\xF5" || magic == "\xF1\xF5\xEA\xF9") << "no head at " << off;
        size_t len = (uint8_t)stream[off + (magic[3] == '\xF5' ? 6 : 14)] |
                     (size_t)(uint8_t)stream[off + (magic[3] == '\xF5' ? 7 : 15)] << 8;
        ASSERT_GE(len, 28u);
        ASSERT_LE(off + len, stream.size());
        std::string body = stream.substr(off + 20, len - 20);
        ASSERT_EQ(u32_at(body, body.size() - 4), fnv(body.substr(0, body.size() - 4))) << "spliced at " << off;
        seqs.push_back(u32_at(body, 0));
        off += len;
    }
    EXPECT_EQ(off, stream.size());
    ASSERT_FALSE(seqs.empty());
    EXPECT_EQ(seqs.back(), kPackets);
    EXPECT_LT(seqs.size(), (size_t)kPackets);  // packets were dropped, whole ones
    EXPECT_TRUE(std::is_sorted(seqs.begin(), seqs.end()));
    EXPECT_EQ(std::adjacent_find(seqs.begin(), seqs.end()), seqs.end());
}

// After the peer closes, the same client opened again serves the link again: packets arrive, the
// half packet left by the old connection is not glued to the new stream, and nothing floods the log.
TEST_F(Link, ReopenedClientServesTheLinkAgain) {
    std::string half = command_packet("left behind by the first connection").substr(0, 30);
    send_all(peer, half);
    ASSERT_TRUE(wait_for([&] {
        sdk_main_lock();  // the event thread fills the buffer under the main lock
        int n = link->buf_len;
        sdk_main_unlock();
        return n == 30;
    }));
    close(peer);
    ASSERT_TRUE(wait_for([&] { std::lock_guard<std::mutex> g(dev.m); return dev.disconnects == 1; }));
    StderrCapture log;
    log.start();
    ASSERT_EQ(net_tcp_client_open(client, -1), 1);
    peer = accept_within(lfd);
    ASSERT_GE(peer, 0);
    ASSERT_TRUE(wait_for([&] { return net_tcp_client_get_status(client) == 2; }));
    std::string a = command_packet("after the reopen");
    send_all(peer, a);
    ASSERT_TRUE(wait_packets(1));
    ASSERT_GE(net_link_send_command(link, "answer", 6), 0);
    EXPECT_EQ(read_n(peer, 26).substr(20), "answer");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // room for a flood, if there were one
    EXPECT_EQ(log.stop().find("NULL == link"), std::string::npos);
    auto got = dev.packets();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].bytes, a);
    // The second connection ends like the first: one more disconnect report.
    close(peer);
    peer = -1;
    EXPECT_TRUE(wait_for([&] { std::lock_guard<std::mutex> g(dev.m); return dev.disconnects == 2; }));
}

TEST(LinkQueue, OverflowDropsTheQueue) {
    ASSERT_EQ(sdk_os_startup(0, 1), 1);
    _NetLink *link = net_link_create();
    _NetTcpClient *client = net_tcp_client_create();
    net_link_set_core(link, client);
    client->status = 1;  // still connecting: every send is queued
    EXPECT_EQ(sdk_os_set_max_package_buf(0), 0);
    EXPECT_EQ(sdk_os_set_max_package_buf(20001), 0);
    EXPECT_EQ(sdk_os_set_max_package_buf(-5), 0);
    EXPECT_EQ(sdk_os_set_max_package_buf(20000), 1);
    EXPECT_EQ(sdk_os_set_max_package_buf(3), 1);
    EXPECT_EQ(g_iMaxPackageBufNum, 3);
    for (int i = 0; i < 3; i++) EXPECT_EQ(net_link_send_package(link, "abc", 3), 0);
    EXPECT_EQ(adt_dlist_size(link->send_buf_ls), 3u);
    StderrCapture log;
    log.start();
    EXPECT_EQ(net_link_send_package(link, "defg", 4), 0);
    EXPECT_NE(log.stop().find("net_link_send_package buffer overflow 3"), std::string::npos);
    ASSERT_EQ(adt_dlist_size(link->send_buf_ls), 1u);
    EXPECT_EQ(net_link_send_package(link, "", 0), 0);  // nothing to keep: no empty block
    EXPECT_EQ(adt_dlist_size(link->send_buf_ls), 1u);
    EXPECT_EQ(net_link_send_package(link, "x", -1), -1);
    net_link_destroy(link);
    sdk_os_set_max_package_buf(20000);
}

}  // namespace
