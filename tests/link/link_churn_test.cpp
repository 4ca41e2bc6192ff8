// A link under churn: other threads send while its connection is closed and opened again, many
// threads send at once, and the link changes clients. Loopback peers written with plain sockets.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "link/link_internal.h"
#include "net/net_internal.h"
#include "net/tcp_peer.h"
#include "support/stderr_capture.h"

namespace {

uint32_t fnv(const char *p, size_t n) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < n; i++) h = (h ^ (uint8_t)p[i]) * 16777619u;
    return h;
}
// A body that proves itself whole: sender, its count, filler, and a checksum over all of it.
std::string body_of(uint32_t sender, uint32_t count, size_t size) {
    std::string b(size - 4, '\0');
    memcpy(&b[0], &sender, 4);
    memcpy(&b[4], &count, 4);
    for (size_t i = 8; i < b.size(); i++) b[i] = (char)('a' + (sender + count + i) % 26);
    uint32_t h = fnv(b.data(), b.size());
    return b + std::string(reinterpret_cast<char *>(&h), 4);
}

// Accepts every connection on a listener and counts every byte that arrives on any of them.
struct Sink {
    explicit Sink(int lfd) : lfd(lfd), thread([this] { run(); }) {}
    ~Sink() {
        stop = true;
        thread.join();
    }
    void run() {
        std::vector<pollfd> fds = {{lfd, POLLIN, 0}};
        char buf[65536];
        while (!stop) {
            if (poll(fds.data(), fds.size(), 5) <= 0) continue;
            for (size_t i = 1; i < fds.size(); i++) {
                if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                ssize_t r = recv(fds[i].fd, buf, sizeof(buf), MSG_DONTWAIT);
                if (r > 0) bytes += (size_t)r;
                if (r == 0) fds[i].events = 0;
            }
            if (fds[0].revents & POLLIN) fds.push_back({accept(lfd, nullptr, nullptr), POLLIN, 0});
        }
        for (size_t i = 1; i < fds.size(); i++) close(fds[i].fd);
    }
    int lfd;
    std::atomic<bool> stop{false};
    std::atomic<size_t> bytes{0};
    std::thread thread;
};

// Opens a connection to an unrelated peer at the moment the link's connection has just closed, so
// that the descriptor number just given up goes to it.
struct Churn {
    uint16_t foreign_port = 0;
    std::mutex m;
    std::vector<int> foreign;
    std::atomic<int> disconnects{0};
};
int open_foreign(_NetLink *, void *u) {
    Churn *c = static_cast<Churn *>(u);
    uint16_t local = 0;
    int fd = connect_to("127.0.0.1", c->foreign_port, &local);
    std::lock_guard<std::mutex> g(c->m);
    c->foreign.push_back(fd);
    c->disconnects++;
    return 0;
}

// Four threads send on a link while its connection is closed 200 times, by the peer (a reset seen
// by the event thread) and by the caller; each close hands the descriptor number to a connection to
// an unrelated peer. Not one byte of the link reaches that peer, and a closed client refuses sends.
TEST(LinkChurn, SendsNeverReachTheConnectionThatTakesTheirDescriptor) {
    ASSERT_EQ(sdk_os_startup(0, 1), 1);
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    Churn churn;
    int foreign_lfd = listen_on("127.0.0.1", &churn.foreign_port);
    ASSERT_GE(foreign_lfd, 0);
    Sink foreign(foreign_lfd);
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
            linger lg = {1, 0};  // a reset: the event thread closes
            setsockopt(peer, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
            close(peer);
        } else {
            net_tcp_client_close(client);
            close(peer);
        }
        ASSERT_TRUE(wait_for([&] { return churn.disconnects == round + 1; }));
        EXPECT_EQ(net_tcp_client_send(client, "x", 1), -1);
    }
    stop = true;
    for (auto &t : senders) t.join();
    net_link_destroy(link);
    // Whatever reached the unrelated peer has arrived by the time it is read to its end.
    std::lock_guard<std::mutex> g(churn.m);
    for (int fd : churn.foreign) {
        shutdown(fd, SHUT_WR);
        close(fd);
    }
    EXPECT_EQ(churn.foreign.size(), (size_t)kRounds);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(foreign.bytes.load(), 0u);
    close(lfd);
}

}  // namespace
