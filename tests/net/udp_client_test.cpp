// UDP client: datagrams both ways on loopback, empty and cut datagrams, broadcast, multicast, no leak.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "net/net_internal.h"
#include "net/tcp_peer.h"
#include "support/proc_entries.h"
#include "support/stderr_capture.h"

namespace {

int read_one(_NetUdpClient *c, char *buf, uint32_t room, char *ip, uint16_t *port) {
    int r = 0;
    wait_for([&] { return (r = net_udp_client_read(c, buf, room, ip, port)) != 0; }, 2000);
    return r;
}

_NetUdpClient *open_on_loopback(uint16_t *port) {
    _NetUdpClient *c = net_udp_client_create();
    EXPECT_NE(nullptr, c);
    EXPECT_EQ(1, net_udp_client_set_local(c, "127.0.0.1", 0));
    EXPECT_EQ(1, net_udp_client_open(c));
    char ip[16];
    EXPECT_EQ(1, net_udp_client_get_local(c, ip, port));
    EXPECT_NE(0, *port);  // the port the system chose
    return c;
}

}  // namespace

TEST(UdpClient, DatagramsBothWaysEmptyAndCut) {
    ASSERT_EQ(1, sdk_os_startup(0, 4));
    uint16_t pa, pb;
    _NetUdpClient *a = open_on_loopback(&pa);
    _NetUdpClient *b = open_on_loopback(&pb);
    char buf[64], ip[16];
    uint16_t port = 0;
    EXPECT_EQ(0, net_udp_client_read(a, buf, sizeof(buf), ip, &port));  // nothing waiting

    EXPECT_EQ(5, net_udp_client_send(a, "hello", 5, "127.0.0.1", pb));
    ASSERT_EQ(5, read_one(b, buf, sizeof(buf), ip, &port));
    EXPECT_EQ(0, memcmp(buf, "hello", 5));
    EXPECT_STREQ("127.0.0.1", ip);
    EXPECT_EQ(pa, port);
    EXPECT_EQ(3, net_udp_client_send(b, "abc", 3, ip, port));
    ASSERT_EQ(3, read_one(a, buf, sizeof(buf), ip, &port));

    // Cut to the room; the rest is lost.
    EXPECT_EQ(10, net_udp_client_send(a, "0123456789", 10, "127.0.0.1", pb));
    EXPECT_EQ(4, read_one(b, buf, 4, ip, &port));
    EXPECT_EQ(0, net_udp_client_read(b, buf, sizeof(buf), ip, &port));

    // An empty datagram counts as a failure; a closed client still reads.
    EXPECT_EQ(1, net_udp_client_close(b));
    EXPECT_EQ(0, net_udp_client_get_status(b));
    EXPECT_EQ(0, net_udp_client_send(a, "", 0, "127.0.0.1", pb));
    StderrCapture cap;
    cap.start();
    EXPECT_EQ(-1, read_one(b, buf, sizeof(buf), ip, &port));
    EXPECT_EQ(0, net_udp_client_open(b));  // bound already
    EXPECT_EQ(-1, net_udp_client_send(b, nullptr, 1, ip, 1));
    EXPECT_EQ(0, net_udp_client_set_local(b, "1234567890123456", 1));
    EXPECT_NE(cap.stop().find("recv fail\n"), std::string::npos);
    EXPECT_EQ(1, net_udp_client_set_local(b, "123.123.123.123", 1));  // 15 characters fit
    EXPECT_EQ(1, net_udp_client_destroy(a));
    EXPECT_EQ(1, net_udp_client_destroy(b));
}

TEST(UdpClient, BroadcastNeedsTheOption) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    uint16_t p;
    _NetUdpClient *a = open_on_loopback(&p);
    EXPECT_EQ(-1, net_udp_client_send(a, "x", 1, "255.255.255.255", p));
    EXPECT_EQ(1, net_udp_client_set_broadcast(a));
    // Allowed now; whether a broadcast route exists depends on the host, but EACCES is gone.
    errno = 0;
    net_udp_client_send(a, "x", 1, "255.255.255.255", p);
    EXPECT_NE(EACCES, errno);
    net_udp_client_destroy(a);
}

TEST(UdpClient, MulticastJoinAndLeave) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    uint16_t p;
    _NetUdpClient *a = open_on_loopback(&p);
    EXPECT_EQ(0, net_udp_client_add_multicase(a, nullptr));
    int joined = net_udp_client_add_multicase(a, "239.1.2.3");
    if (!joined) GTEST_SKIP() << "this kernel refuses a multicast join on any interface (no multicast route)";
    EXPECT_EQ(1, net_udp_client_drop_multicase(a, "239.1.2.3"));
    EXPECT_EQ(0, net_udp_client_drop_multicase(a, "239.1.2.3"));  // not a member any more
    net_udp_client_destroy(a);
}

TEST(UdpClient, CreateOpenDestroyCyclesLeaveNoDescriptor) {
    ASSERT_EQ(1, sdk_os_startup(0, 3));
    int before = proc_entries("/proc/self/fd");
    for (int i = 0; i < 300; i++) {
        _NetUdpClient *c = net_udp_client_create();
        ASSERT_NE(nullptr, c);
        ASSERT_EQ(1, net_udp_client_open(c));
        ASSERT_EQ(1, net_udp_client_destroy(c));
        _NetTcpServer *s = net_tcp_server_create();
        net_tcp_server_set_local(s, "127.0.0.1", 0);
        ASSERT_EQ(1, net_tcp_server_open(s));
        ASSERT_EQ(1, net_tcp_server_destroy(s));
    }
    EXPECT_EQ(before, proc_entries("/proc/self/fd"));
    EXPECT_EQ(0u, pool_udp_used());
}
