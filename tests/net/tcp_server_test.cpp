// TCP server: pool rules, address rules, listening on both families, polled accept.
#include <gtest/gtest.h>
#include <fcntl.h>

#include <atomic>

#include "net/net_internal.h"
#include "net/tcp_peer.h"
#include "support/stderr_capture.h"

namespace {

// The port the system chose for a listening server.
uint16_t bound_port(_NetTcpServer *s) {
    sockaddr_storage ss;
    socklen_t len = sizeof(ss);
    EXPECT_EQ(0, getsockname(s->socketfd, reinterpret_cast<sockaddr *>(&ss), &len));
    return port_of(ss);
}

_NetTcpServer *listening(uint16_t *port = nullptr) {
    _NetTcpServer *s = net_tcp_server_create();
    EXPECT_EQ(1, net_tcp_server_set_local(s, "127.0.0.1", 0));
    EXPECT_EQ(1, net_tcp_server_open(s));
    if (port != nullptr) *port = bound_port(s);
    return s;
}

}  // namespace

TEST(TcpServer, PoolAndNoSlotsWithServernumZero) {
    ASSERT_EQ(1, sdk_os_startup(0, 0));
    StderrCapture cap;
    cap.start();
    EXPECT_EQ(nullptr, net_tcp_server_create());
    EXPECT_NE(cap.stop().find("server num out\n"), std::string::npos);
}

TEST(TcpServer, AddressRulesAndStates) {
    ASSERT_EQ(1, sdk_os_startup(0, 2));
    _NetTcpServer *s = net_tcp_server_create();
    ASSERT_NE(nullptr, s);
    char ip[16];
    uint16_t port = 1;
    StderrCapture cap;
    cap.start();
    EXPECT_EQ(1, net_tcp_server_set_local(s, nullptr, 5000));  // port alone
    EXPECT_EQ(0, net_tcp_server_set_local(s, "not-an-ip", 5001));
    EXPECT_EQ(0, net_tcp_server_set_local(s, "0000000000127.0.0.1", 5002));  // doesn't fit the field
    EXPECT_EQ(1, net_tcp_server_close(s));                                  // not listening
    EXPECT_EQ(0, net_tcp_server_open(nullptr));
    EXPECT_NE(cap.stop().find("ip length out\n"), std::string::npos);
    EXPECT_EQ(1, net_tcp_server_get_local(s, ip, &port));
    EXPECT_STREQ("0.0.0.0", ip);
    EXPECT_EQ(5002, port);  // stored before the text was looked at

    // Open on port 0, twice, close, open again.
    ASSERT_EQ(1, net_tcp_server_set_local(s, "127.0.0.1", 0));
    ASSERT_EQ(1, net_tcp_server_open(s));
    EXPECT_EQ(1, net_tcp_server_get_status(s));
    EXPECT_NE(0, bound_port(s));
    net_tcp_server_get_local(s, ip, &port);
    EXPECT_EQ(0, port);  // the record keeps what was set
    cap.start();
    EXPECT_EQ(0, net_tcp_server_open(s));
    EXPECT_NE(cap.stop().find("server is not dislisten\n"), std::string::npos);
    EXPECT_EQ(1, net_tcp_server_close(s));
    EXPECT_EQ(1, net_tcp_server_open(s));
    EXPECT_EQ(1, net_tcp_server_destroy(s));
    EXPECT_EQ(0u, pool_server_used());
}

TEST(TcpServer, ShortFormTakesTheIpv6BranchOnTheZeroAddress) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    _NetTcpServer *s = net_tcp_server_create();
    ASSERT_EQ(1, net_tcp_server_set_local(s, "127.1", 0));  // inet_addr takes it
    EXPECT_EQ(-1, check_ipv4("127.1"));
    ASSERT_EQ(1, net_tcp_server_open(s));
    struct sockaddr_in6 a = {};
    socklen_t len = sizeof(a);
    ASSERT_EQ(0, getsockname(s->socketfd, reinterpret_cast<struct sockaddr *>(&a), &len));
    EXPECT_EQ(AF_INET6, a.sin6_family);
    EXPECT_TRUE(IN6_IS_ADDR_UNSPECIFIED(&a.sin6_addr));
    net_tcp_server_destroy(s);
}

TEST(TcpServer, LastStopClosesListeningSockets) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    _NetTcpServer *s = listening();
    int fd = s->socketfd;
    sdk_os_cleanup();
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));  // closed, while the record still reads as before
    EXPECT_EQ(1, s->status);
}

namespace {
char g_client_got[16];
std::atomic<int> g_client_got_len{0};
// The client's reads happen on the event thread; what arrives is kept for the test.
int keep_bytes(_NetTcpClient *c, void *) {
    int n = g_client_got_len.load();
    int r = net_tcp_client_read(c, g_client_got + n, (uint32_t)(sizeof(g_client_got) - n));
    if (r > 0) g_client_got_len += r;
    return r;
}
}  // namespace

// The whole road of taking a connection: accept is polled, a client served by the event thread
// connects, the owner accepts it and adopts the descriptor (non-blocking), and bytes go both ways.
TEST(TcpServer, AcceptedDescriptorIsAdoptedAndUsedBothWays) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    uint16_t port = 0;
    _NetTcpServer *s = listening(&port);
    int fd = -1;
    EXPECT_EQ(0, net_tcp_server_accept(s, &fd));  // none pending
    _NetTcpClient *client = net_tcp_client_create();
    net_tcp_client_bind_read(client, keep_bytes, nullptr);
    ASSERT_EQ(1, net_tcp_client_set_remote(client, "127.0.0.1", port));
    ASSERT_EQ(1, net_tcp_client_open(client, -1));
    int r = 0;
    ASSERT_TRUE(wait_for([&] { return (r = net_tcp_server_accept(s, &fd)) != 0; }));
    ASSERT_EQ(1, r);
    _NetTcpClient *peer = net_tcp_client_create();
    ASSERT_EQ(1, net_tcp_client_open(peer, fd));
    EXPECT_EQ(2, net_tcp_client_get_status(peer));
    char buf[16];
    ASSERT_EQ(1, net_tcp_client_get_remote(peer, buf, &port));
    EXPECT_NE(0, port);
    ASSERT_TRUE(wait_for([&] { return net_tcp_client_get_status(client) == 2; }));
    EXPECT_EQ(0, net_tcp_client_read(peer, buf, sizeof(buf)));  // nothing there yet: no blocking
    EXPECT_EQ(4, net_tcp_client_send(client, "ping", 4));
    ASSERT_TRUE(wait_for([&] { return (r = net_tcp_client_read(peer, buf, sizeof(buf))) != 0; }));
    EXPECT_EQ("ping", std::string(buf, r));
    EXPECT_EQ(4, net_tcp_client_send(peer, "pong", 4));
    ASSERT_TRUE(wait_for([&] { return g_client_got_len.load() >= 4; }));
    EXPECT_EQ(0, memcmp(g_client_got, "pong", 4));
    EXPECT_EQ(1, net_tcp_client_destroy(peer));
    EXPECT_EQ(1, net_tcp_client_destroy(client));
    net_tcp_server_close(s);
    EXPECT_EQ(-1, net_tcp_server_accept(s, &fd));
    EXPECT_EQ(1, net_tcp_server_destroy(s));
}
