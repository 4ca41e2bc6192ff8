// TCP client against peers on 127.0.0.1 and ::1: callback order and threads, closing by either side,
// re-open, the adopting road, and writes to a peer that has gone.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "net/net_internal.h"
#include "net/tcp_peer.h"

namespace {

// What a client's callbacks saw: events as one line ("connect write read ..."; on_write once in a
// row), the bytes read, and the thread of the last on_disconnect.
struct Seen {
    std::mutex m;
    std::string ev, data;
    std::thread::id disconnect_thread;
    std::atomic<bool> keep_open{false};  // on_read leaves the socket alone and never asks for a close

    void add(const std::string &e) {
        std::lock_guard<std::mutex> g(m);
        if (e == "write" && ev.size() >= 6 && ev.compare(ev.size() - 6, 6, "write ") == 0) return;
        ev += e + " ";
        if (e == "disconnect") disconnect_thread = std::this_thread::get_id();
    }
    std::string events() {
        std::lock_guard<std::mutex> g(m);
        return ev;
    }
    bool has(const char *e) { return events().find(e) != std::string::npos; }
    void reset() {
        std::lock_guard<std::mutex> g(m);
        ev.clear();
    }
};

Seen *of(void *arg) { return static_cast<Seen *>(arg); }
int on_connect(_NetTcpClient *, void *a) { return of(a)->add("connect"), 0; }
int on_write(_NetTcpClient *, void *a) { return of(a)->add("write"), 0; }
int on_disconnect(_NetTcpClient *, void *a) { return of(a)->add("disconnect"), 0; }
int on_read(_NetTcpClient *c, void *a) {
    Seen *s = of(a);
    if (s->keep_open) return 0;
    s->add("read");
    char buf[256];
    int n;
    while ((n = net_tcp_client_read(c, buf, sizeof(buf))) > 0) {
        std::lock_guard<std::mutex> g(s->m);
        s->data.append(buf, (size_t)n);
    }
    return n;
}

_NetTcpClient *make_client(Seen *s, const char *ip, uint16_t port) {
    _NetTcpClient *c = net_tcp_client_create();
    EXPECT_NE(c, nullptr);
    EXPECT_EQ(net_tcp_client_set_remote(c, ip, port), 1);
    net_tcp_client_bind_connect(c, on_connect, s);
    net_tcp_client_bind_write(c, on_write, s);
    net_tcp_client_bind_read(c, on_read, s);
    net_tcp_client_bind_disconnect(c, on_disconnect, s);
    return c;
}

class TcpClient : public ::testing::TestWithParam<const char *> {
protected:
    void SetUp() override { ASSERT_EQ(sdk_os_startup(0, 1), 1); }
};

TEST_P(TcpClient, ServesAConnectionUntilEitherSideCloses) {
    uint16_t port = 0;
    int lfd = listen_on(GetParam(), &port);
    ASSERT_GE(lfd, 0);
    Seen s;
    _NetTcpClient *c = make_client(&s, GetParam(), port);
    ASSERT_EQ(net_tcp_client_open(c, -1), 1);
    EXPECT_EQ(net_tcp_client_open(c, -1), 0);  // not disconnected
    int peer = accept_within(lfd);
    ASSERT_GE(peer, 0);
    ASSERT_TRUE(wait_for([&] { return net_tcp_client_get_status(c) == 2 && s.has("write"); }));
    EXPECT_EQ(net_tcp_client_set_remote(c, "127.0.0.1", 1), 0);

    // Both ways, then the peer closes. An urgent byte costs the client one pass, nothing more.
    ASSERT_EQ(send(peer, "U", 1, MSG_OOB), 1);
    send_all(peer, "hello");
    ASSERT_TRUE(wait_for([&] { std::lock_guard<std::mutex> g(s.m); return s.data == "hello"; }));
    EXPECT_EQ(net_tcp_client_send(c, "back", 4), 4);
    EXPECT_EQ(read_n(peer, 4), "back");
    close(peer);
    ASSERT_TRUE(wait_for([&] { return s.has("disconnect"); }));
    std::string ev = s.events();
    EXPECT_EQ(ev.rfind("connect write read ", 0), 0u) << ev;
    EXPECT_EQ(ev.substr(ev.size() - 11), "disconnect ") << ev;
    EXPECT_EQ(c->connectfd, -1);
    EXPECT_EQ(net_tcp_client_get_status(c), 0);
    EXPECT_EQ(net_tcp_client_send(c, "x", 1), -1);

    // Re-open with the same address and callbacks; the caller's close reports on its own thread.
    s.reset();
    ASSERT_EQ(net_tcp_client_open(c, -1), 1);
    peer = accept_within(lfd);
    ASSERT_TRUE(wait_for([&] { return s.has("write"); }));
    EXPECT_EQ(net_tcp_client_close(c), 1);
    EXPECT_EQ(net_tcp_client_close(c), 1);  // already closed: no second report
    EXPECT_EQ(s.events(), "connect write disconnect ");
    EXPECT_EQ(s.disconnect_thread, std::this_thread::get_id());
    close(peer);

    // A peer that has gone: sends fail, and no SIGPIPE ends the process. Destroy reports on the
    // caller's thread and gives the slot back.
    s.keep_open = true;
    ASSERT_EQ(net_tcp_client_open(c, -1), 1);
    peer = accept_within(lfd);
    ASSERT_TRUE(wait_for([&] { return net_tcp_client_get_status(c) == 2; }));
    close(peer);
    EXPECT_TRUE(wait_for([&] { return net_tcp_client_send(c, "ping", 4) < 0; }));
    uint32_t used = pool_client_used();
    s.reset();
    EXPECT_EQ(net_tcp_client_destroy(c), 1);
    EXPECT_EQ(s.events().substr(s.events().size() - 11), "disconnect ");
    EXPECT_EQ(s.disconnect_thread, std::this_thread::get_id());
    EXPECT_EQ(pool_client_used(), used - 1);
    close(lfd);
}

// A refused connect goes straight to the closing path: on_disconnect alone, never on_connect; and
// the client opens again.
TEST_P(TcpClient, RefusedConnectIsDisconnectAlone) {
    uint16_t port = 0;
    close(listen_on(GetParam(), &port));
    Seen s;
    _NetTcpClient *c = make_client(&s, GetParam(), port);
    for (int round = 0; round < 2; round++) {
        s.reset();
        ASSERT_EQ(net_tcp_client_open(c, -1), 1);
        ASSERT_TRUE(wait_for([&] { return s.has("disconnect"); }));
        EXPECT_EQ(s.events(), "disconnect ");
        EXPECT_EQ(net_tcp_client_get_status(c), 0);
        EXPECT_FALSE(net_tcp_client_watched(c));
    }
    net_tcp_client_destroy(c);
}

TEST_P(TcpClient, UnreadStreamIsDrainedUntilThePeerCloses) {
    uint16_t port = 0;
    int lfd = listen_on(GetParam(), &port);
    Seen s;
    _NetTcpClient *c = make_client(&s, GetParam(), port);
    net_tcp_client_bind_read(c, nullptr, nullptr);
    ASSERT_EQ(net_tcp_client_open(c, -1), 1);
    int peer = accept_within(lfd);
    send_all(peer, std::string(200000, 'z'));
    close(peer);
    ASSERT_TRUE(wait_for([&] { return s.has("disconnect"); }));
    net_tcp_client_destroy(c);
    close(lfd);
}

INSTANTIATE_TEST_SUITE_P(Loopback, TcpClient, ::testing::Values("127.0.0.1", "::1"));

TEST(TcpClientAdopt, TakesAConnectedDescriptorAsItIs) {
    ASSERT_EQ(sdk_os_startup(0, 1), 1);
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    for (const char *remote : {"", "127.0.0.1"}) {
        uint16_t mine;
        int out = connect_to("127.0.0.1", port, &mine);
        int in = accept_within(lfd);

        _NetTcpClient *c = net_tcp_client_create();
        if (remote[0] != '\0') net_tcp_client_set_remote(c, remote, 0);
        ASSERT_EQ(net_tcp_client_open(c, in), 1);
        EXPECT_EQ(net_tcp_client_get_status(c), 2);
        char ip[16];
        uint16_t p;
        net_tcp_client_get_remote(c, ip, &p);
        // Without a remote text the family is IPv6, which reads an IPv4 peer as the zero address.
        EXPECT_STREQ(ip, remote[0] ? "127.0.0.1" : "::");
        EXPECT_EQ(p, mine);
        net_tcp_client_get_local(c, ip, &p);
        EXPECT_EQ(p, port);
        EXPECT_FALSE(net_tcp_client_watched(c));  // its owner polls it
        EXPECT_EQ(net_tcp_client_destroy(c), 1);
        close(out);
    }
    close(lfd);
}

TEST(TcpClientRules, AddressesStatesAndChecks) {
    ASSERT_EQ(sdk_os_startup(0, 1), 1);
    _NetTcpClient *c = net_tcp_client_create();
    EXPECT_EQ(net_tcp_client_set_remote(c, "123456789012345", 1), 1);
    EXPECT_EQ(net_tcp_client_set_remote(c, "1234567890123456", 1), 0);
    EXPECT_EQ(net_tcp_client_set_rcvbuf_len(c, 4096), 0);  // no socket yet
    EXPECT_EQ(net_tcp_client_read(c, nullptr, 1), -1);
    c->status = 1;  // connecting: no system call either way
    EXPECT_EQ(net_tcp_client_send(c, "x", 1), 0);
    EXPECT_EQ(net_tcp_client_read(c, (char *)"x", 1), -1);
    c->status = 0;
    EXPECT_EQ(net_tcp_client_destroy(c), 1);

    for (const char *ok : {"0.0.0.0", "255.255.255.255", "10.0.0.1"}) EXPECT_EQ(check_ipv4(ok), 0) << ok;
    EXPECT_EQ(check_v4(nullptr), -1);
    for (const char *bad : {"", "::1", "1.2.3", "1.2.3.4.5", "1..2.3", "256.1.1.1", "1.2.3.x", "a.b.c.d",
                            "1.2.3.99999999999999999999", " 1.2.3.4"})
        EXPECT_EQ(check_ipv4(bad), -1) << bad;
}

TEST(TcpClientRules, DestroyingAFreeSlotEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_EQ(sdk_os_startup(0, 1), 1);
    _NetTcpClient *c = net_tcp_client_create();
    net_tcp_client_destroy(c);
    EXPECT_EXIT(net_tcp_client_destroy(c), ::testing::ExitedWithCode(0), "destroy err");
}

}  // namespace
