// A link under churn: other threads send while its connection is closed and opened again, many
// threads send at once, and the link changes clients. Loopback peers written with plain sockets.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "link/link_internal.h"
#include "net/net_internal.h"
#include "net/tcp_peer.h"

namespace {

uint32_t le_at(const std::string &s, size_t off, int n) {
    uint32_t v = 0;
    for (int i = n - 1; i >= 0; i--) v = v << 8 | (uint8_t)s[off + i];
    return v;
}
uint32_t fnv(const char *p, size_t n) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < n; i++) h = (h ^ (uint8_t)p[i]) * 16777619u;
    return h;
}
// A body that proves itself whole: sender, its count, filler, and a checksum over all of it.
std::string body_of(uint32_t sender, uint32_t count, size_t size) {
    std::string b(size - 4, '\0');
    for (int i = 0; i < 4; i++) {  // little-endian, as le_at reads them, on any processor
        b[size_t(i)] = char(sender >> (8 * i));
        b[size_t(4 + i)] = char(count >> (8 * i));
    }
    for (size_t i = 8; i < b.size(); i++) b[i] = (char)('a' + (sender + count + i) % 26);
    uint32_t h = fnv(b.data(), b.size());
    return b + std::string(reinterpret_cast<char *>(&h), 4);
}

// At the moment the link's connection has just closed, a socket pair takes the descriptor number
// it gave up; the pair's other end shows whatever was sent into that number.
struct Churn {
    std::mutex m;
    std::vector<int> pairs;  // both ends of each pair
    std::atomic<int> disconnects{0};
};
int open_foreign(_NetLink *, void *u) {
    Churn *c = static_cast<Churn *>(u);
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    std::lock_guard<std::mutex> g(c->m);
    c->pairs.insert(c->pairs.end(), sv, sv + 2);
    c->disconnects++;
    return 0;
}

// Four threads send on a link and on its client while the connection is closed 200 times, by the
// peer (a reset, seen by the event thread) and by the caller. Not one byte reaches the sockets that
// take the descriptor numbers, and a closed client refuses sends.
TEST(LinkChurn, SendsNeverReachTheSocketThatTakesTheirDescriptor) {
    ASSERT_EQ(sdk_os_startup(0, 1), 1);
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    Churn churn;
    _NetLink *link = net_link_create();
    _NetTcpClient *client = net_tcp_client_create();
    net_tcp_client_set_remote(client, "127.0.0.1", port);
    net_link_set_udata(link, &churn);
    net_link_bind_disconnect_protocol(link, open_foreign);
    ASSERT_EQ(net_link_set_core(link, client), 0);

    std::atomic<bool> stop{false};
    std::vector<std::thread> senders;
    for (uint32_t t = 0; t < 4; t++)
        senders.emplace_back([&, t] {
            for (uint32_t n = 0; !stop; n++) {
                std::string body = body_of(t, n, 64);
                if (t % 2 == 0)
                    net_link_send_command(link, body.data(), (int)body.size());
                else
                    net_tcp_client_send(client, body.data(), (uint32_t)body.size());
                if (n % 64 == 0) std::this_thread::yield();
            }
        });
    const int kRounds = 200;
    for (int round = 0; round < kRounds; round++) {
        ASSERT_EQ(net_tcp_client_open(client, -1), 1);
        int peer = accept_within(lfd);
        ASSERT_GE(peer, 0);
        ASSERT_TRUE(wait_for([&] { return net_tcp_client_get_status(client) == 2; }));
        ASSERT_FALSE(read_n(peer, 1024).empty());
        if (round % 2 == 0) {
            linger lg = {1, 0};
            setsockopt(peer, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
        } else {
            net_tcp_client_close(client);
        }
        close(peer);
        ASSERT_TRUE(wait_for([&] { return churn.disconnects == round + 1; }));
        EXPECT_EQ(net_tcp_client_send(client, "x", 1), -1);
    }
    stop = true;
    for (auto &t : senders) t.join();
    net_link_destroy(link);
    char buf[4096];
    std::lock_guard<std::mutex> g(churn.m);
    for (size_t i = 0; i < churn.pairs.size(); i += 2) {
        EXPECT_EQ(recv(churn.pairs[i + 1], buf, sizeof(buf), MSG_DONTWAIT), -1) << "foreign bytes";
        close(churn.pairs[i]);
        close(churn.pairs[i + 1]);
    }
    close(lfd);
}

// 16 threads send commands and data (one chunk and two) on one link. On the wire the sequence
// numbers follow each other without a gap, every body stands right behind its head, and each
// thread's packets keep the order of its calls.
TEST(LinkChurn, SixteenSendersKeepSequenceOrderAndHeadsWithTheirBodies) {
    ASSERT_EQ(sdk_os_startup(0, 1), 1);
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    _NetLink *link = net_link_create();
    _NetTcpClient *client = net_tcp_client_create();
    net_tcp_client_set_remote(client, "127.0.0.1", port);
    ASSERT_EQ(net_link_set_core(link, client), 0);
    ASSERT_EQ(net_tcp_client_open(client, -1), 1);
    int peer = accept_within(lfd);
    ASSERT_GE(peer, 0);

    const uint32_t kThreads = 16, kCalls = 300;
    size_t total = 0;  // bytes on the wire
    for (uint32_t n = 0; n < kCalls; n++) {
        size_t size = 40 + n % 7 * 211;
        total += (n % 3 == 2 ? size + 1500 + 2 * LINK_HEAD_SIZE : size + LINK_HEAD_SIZE) * kThreads;
    }
    std::string stream;
    std::thread reader([&] { stream = read_n(peer, total, 30000); });
    std::vector<std::thread> senders;
    for (uint32_t t = 0; t < kThreads; t++)
        senders.emplace_back([&, t] {
            for (uint32_t n = 0; n < kCalls; n++) {
                std::string body = body_of(t, n, 40 + n % 7 * 211);
                if (n % 3 == 0) net_link_send_command(link, body.data(), (int)body.size());
                if (n % 3 == 1) net_link_send_data(link, body.data(), (int)body.size());
                if (n % 3 == 2) {
                    // Two chunks: a full one, then the body of this count.
                    std::string two = body_of(t, n, LINK_MAX_BODY) + body_of(t, n, body.size() + 60);
                    net_link_send_data(link, two.data(), (int)two.size());
                }
            }
        });
    for (auto &t : senders) t.join();
    reader.join();
    ASSERT_EQ(stream.size(), total);

    std::map<uint32_t, uint32_t> next_count;  // per sender: the count its next packet carries
    uint32_t seq = 0;
    size_t off = 0;
    while (off < stream.size()) {
        ASSERT_LE(off + LINK_HEAD_SIZE, stream.size());
        bool command = stream.compare(off, 4, "\xF1\xF5\xEA\xF5") == 0;
        ASSERT_TRUE(command || stream.compare(off, 4, "\xF1\xF5\xEA\xF9") == 0) << "no head at " << off;
        EXPECT_EQ(le_at(stream, off + 4, command ? 2 : 4), command ? seq % 65536 : seq) << "at " << off;
        seq++;
        size_t len = le_at(stream, off + (command ? 6 : 14), 2);
        ASSERT_LE(off + len, stream.size());
        const char *body = stream.data() + off + LINK_HEAD_SIZE;
        size_t body_len = len - LINK_HEAD_SIZE;
        uint32_t sum;
        memcpy(&sum, body + body_len - 4, 4);
        ASSERT_EQ(sum, fnv(body, body_len - 4)) << "a body cut or spliced at " << off;
        uint32_t sender = le_at(stream, off + LINK_HEAD_SIZE, 4), count = le_at(stream, off + LINK_HEAD_SIZE + 4, 4);
        // The first chunk of a two-chunk call carries the same count as the second.
        bool first_of_two = body_len == LINK_MAX_BODY && count % 3 == 2;
        EXPECT_EQ(count, next_count[sender]) << "sender " << sender;
        if (!first_of_two) next_count[sender] = count + 1;
        off += len;
    }
    EXPECT_EQ(seq, kThreads * (kCalls + kCalls / 3));
    for (uint32_t t = 0; t < kThreads; t++) EXPECT_EQ(next_count[t], kCalls);
    net_link_destroy(link);
    close(peer);
    close(lfd);
}

}  // namespace
