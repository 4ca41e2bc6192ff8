// TCP server: pool rules, address rules, listening on both families, polled accept.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "net/net_internal.h"
#include "runtime/runtime_internal.h"
#include "support/stderr_capture.h"

namespace {

// The port the system chose for a listening server.
uint16_t bound_port(_NetTcpServer *s) {
    struct sockaddr_storage ss;
    socklen_t len = sizeof(ss);
    EXPECT_EQ(0, getsockname(s->socketfd, reinterpret_cast<struct sockaddr *>(&ss), &len));
    if (ss.ss_family == AF_INET6) return ntohs(reinterpret_cast<struct sockaddr_in6 *>(&ss)->sin6_port);
    return ntohs(reinterpret_cast<struct sockaddr_in *>(&ss)->sin_port);
}

int connect_v4(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, connect(fd, reinterpret_cast<struct sockaddr *>(&a), sizeof(a)));
    return fd;
}

// Polls accept for up to two seconds.
int accept_one(_NetTcpServer *s, int *fd) {
    for (int i = 0; i < 2000; i++) {
        int r = net_tcp_server_accept(s, fd);
        if (r != 0) return r;
        usleep(1000);
    }
    return 0;
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
    EXPECT_EQ(1, net_tcp_server_get_local(s, ip, &port));
    EXPECT_STREQ("0.0.0.0", ip);
    EXPECT_EQ(0, port);
    EXPECT_EQ(0, net_tcp_server_get_status(s));

    StderrCapture cap;
    cap.start();
    EXPECT_EQ(1, net_tcp_server_set_local(s, nullptr, 5000));  // port alone
    EXPECT_EQ(0, net_tcp_server_set_local(s, "not-an-ip", 5001));
    EXPECT_EQ(0, net_tcp_server_set_local(s, "0000000000127.0.0.1", 5002));  // doesn't fit the field
    EXPECT_EQ(1, net_tcp_server_close(s));                                  // not listening
    EXPECT_EQ(-1, net_tcp_server_get_status(nullptr));
    EXPECT_EQ(0, net_tcp_server_open(nullptr));
    std::string out = cap.stop();
    EXPECT_NE(out.find("ip is fail\n"), std::string::npos);
    EXPECT_NE(out.find("ip length out\n"), std::string::npos);
    EXPECT_NE(out.find("server is dislisten\n"), std::string::npos);
    EXPECT_NE(out.find("server is NULL\n"), std::string::npos);
    net_tcp_server_get_local(s, ip, &port);
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
    EXPECT_EQ(-1, s->socketfd);
    EXPECT_EQ(1, net_tcp_server_open(s));
    EXPECT_EQ(1, net_tcp_server_destroy(s));
    EXPECT_EQ(-1, s->index);
    EXPECT_EQ(0u, pool_server_used());
}

TEST(TcpServer, AcceptIsPolledAndNonBlocking) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    _NetTcpServer *s = net_tcp_server_create();
    ASSERT_EQ(1, net_tcp_server_set_local(s, "127.0.0.1", 0));
    ASSERT_EQ(1, net_tcp_server_open(s));
    int fd = -1;
    EXPECT_EQ(0, net_tcp_server_accept(s, &fd));  // none pending
    int peer = connect_v4(bound_port(s));
    ASSERT_EQ(1, accept_one(s, &fd));
    ASSERT_GE(fd, 0);
    char c;
    EXPECT_EQ(-1, recv(fd, &c, 1, 0));  // non-blocking: nothing there yet
    EXPECT_EQ(1, send(peer, "x", 1, 0));
    close(peer);
    close(fd);
    net_tcp_server_close(s);
    EXPECT_EQ(-1, net_tcp_server_accept(s, &fd));
    EXPECT_EQ(-1, net_tcp_server_accept(nullptr, &fd));
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
    _NetTcpServer *s = net_tcp_server_create();
    net_tcp_server_set_local(s, "127.0.0.1", 0);
    ASSERT_EQ(1, net_tcp_server_open(s));
    int fd = s->socketfd;
    sdk_os_cleanup();
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));  // closed, while the record still reads as before
    EXPECT_EQ(1, s->status);
}

TEST(NetCommon, Ipv4TextChecks) {
    StderrCapture cap;
    cap.start();
    EXPECT_EQ(0, check_ipv4("192.168.1.255"));
    EXPECT_EQ(0, check_ipv4("0.0.0.0"));
    EXPECT_EQ(-1, check_ipv4("256.1.1.1"));
    EXPECT_EQ(-1, check_ipv4("1.2.3"));
    EXPECT_EQ(-1, check_ipv4("1.2.3.4.5"));
    EXPECT_EQ(-1, check_ipv4("1..2.3"));
    EXPECT_EQ(-1, check_ipv4("a.b.c.d"));
    EXPECT_EQ(-1, check_ipv4("::1"));
    EXPECT_EQ(-1, check_ipv4("1.2.3.4444444444444444444444"));
    EXPECT_EQ(-1, check_v4(nullptr));
    EXPECT_EQ(0, check_v4(""));
    std::string out = cap.stop();
    EXPECT_NE(out.find("count != 3 || flag != 4\n"), std::string::npos);
    EXPECT_NE(out.find("!(*ip <= '9' && *ip++ >= '0')\n"), std::string::npos);
    EXPECT_NE(out.find("NULL == ip\n"), std::string::npos);
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
int read_some(_NetTcpClient *c, char *buf, uint32_t room) {
    for (int i = 0; i < 2000; i++) {
        int r = net_tcp_client_read(c, buf, room);
        if (r != 0) return r;
        usleep(1000);
    }
    return 0;
}
}  // namespace

// The whole road of taking a connection: a client served by the event thread connects, the owner
// accepts it and adopts the descriptor, and bytes go both ways.
TEST(TcpServer, AcceptedDescriptorIsAdoptedAndUsedBothWays) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    _NetTcpServer *s = net_tcp_server_create();
    ASSERT_EQ(1, net_tcp_server_set_local(s, "127.0.0.1", 0));
    ASSERT_EQ(1, net_tcp_server_open(s));

    _NetTcpClient *client = net_tcp_client_create();
    net_tcp_client_bind_read(client, keep_bytes, nullptr);
    ASSERT_EQ(1, net_tcp_client_set_remote(client, "127.0.0.1", bound_port(s)));
    ASSERT_EQ(1, net_tcp_client_open(client, -1));
    int fd = -1;
    ASSERT_EQ(1, accept_one(s, &fd));
    _NetTcpClient *peer = net_tcp_client_create();
    ASSERT_EQ(1, net_tcp_client_open(peer, fd));
    EXPECT_EQ(2, net_tcp_client_get_status(peer));
    char ip[16];
    uint16_t port = 0;
    ASSERT_EQ(1, net_tcp_client_get_remote(peer, ip, &port));
    EXPECT_NE(0, port);

    for (int i = 0; i < 2000 && net_tcp_client_get_status(client) != 2; i++) usleep(1000);
    ASSERT_EQ(2, net_tcp_client_get_status(client));
    // Nothing there yet: the adopted descriptor doesn't block.
    char buf[16];
    EXPECT_EQ(0, net_tcp_client_read(peer, buf, sizeof(buf)));
    EXPECT_EQ(4, net_tcp_client_send(client, "ping", 4));
    ASSERT_EQ(4, read_some(peer, buf, sizeof(buf)));
    EXPECT_EQ(0, memcmp(buf, "ping", 4));
    EXPECT_EQ(4, net_tcp_client_send(peer, "pong", 4));
    for (int i = 0; i < 2000 && g_client_got_len.load() < 4; i++) usleep(1000);
    ASSERT_EQ(4, g_client_got_len.load());
    EXPECT_EQ(0, memcmp(g_client_got, "pong", 4));
    EXPECT_EQ(1, net_tcp_client_destroy(peer));
    EXPECT_EQ(1, net_tcp_client_destroy(client));
    EXPECT_EQ(1, net_tcp_server_destroy(s));
}
