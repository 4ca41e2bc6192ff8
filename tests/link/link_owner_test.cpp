// One owner per client: a link that takes a new client lets go of the old one, a destroyed link
// leaves no client that leads to it, and a link destroyed from its own callbacks is safe.
#include <gtest/gtest.h>

#include <atomic>

#include "link/link_internal.h"
#include "net/net_internal.h"
#include "net/tcp_peer.h"
#include "support/stderr_capture.h"

namespace {

std::string command_packet(const std::string &body) {
    std::string pkt(LINK_HEAD_SIZE, '\0');
    link_write_command_head(reinterpret_cast<uint8_t *>(&pkt[0]), 0, (int)body.size(), 0, 0);
    return pkt + body;
}

std::atomic<int> g_packets{0};
std::atomic<int> g_destroy_result{1};
int count_packet(_NetLink *, void *, int, char *, int) { return ++g_packets; }
int destroy_in_parser(_NetLink *link, void *, int, char *, int) {
    g_destroy_result = net_link_destroy(link);
    return ++g_packets;
}
int destroy_on_disconnect(_NetLink *link, void *) { return net_link_destroy(link); }

// A client towards the loopback port.
_NetTcpClient *client_to(uint16_t port) {
    _NetTcpClient *c = net_tcp_client_create();
    net_tcp_client_set_remote(c, "127.0.0.1", port);
    return c;
}

// Opens the client and gives the accepted side.
int connect_client(_NetTcpClient *c, int lfd) {
    EXPECT_EQ(net_tcp_client_open(c, -1), 1);
    int peer = accept_within(lfd);
    EXPECT_TRUE(wait_for([&] { return net_tcp_client_get_status(c) == 2; }));
    return peer;
}

// The link takes a second client after the first one's peer went; the first is a bare client again.
// With the link destroyed, the first client opens, is served and closes without reaching the freed
// link (ASan), and the link's second client went back to the pool.
TEST(LinkOwner, NewClientDetachesTheOldAndDestroyLeavesNoWayBack) {
    ASSERT_EQ(sdk_os_startup(0, 1), 1);
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    _NetLink *link = net_link_create();
    net_link_bind_parase_protocol(link, count_packet);
    _NetTcpClient *c1 = client_to(port), *c2 = nullptr;
    ASSERT_EQ(net_link_set_core(link, c1), 0);
    close(connect_client(c1, lfd));
    ASSERT_TRUE(wait_for([&] { return net_tcp_client_get_status(c1) == 0; }));

    ASSERT_EQ(net_link_set_core(link, c2 = client_to(port)), 0);
    EXPECT_EQ(net_tcp_client_get_udata(c1), nullptr);
    EXPECT_TRUE(c1->on_read == nullptr && c1->on_write == nullptr && c1->on_disconnect == nullptr);
    int p2 = connect_client(c2, lfd);
    send_all(p2, command_packet("to the link"));
    ASSERT_TRUE(wait_for([&] { return g_packets == 1; }));
    ASSERT_GE(net_link_send_command(link, "back", 4), 0);
    EXPECT_EQ(read_n(p2, 24).substr(20), "back");

    // Another link may not take a client that this one holds; the holder may set it again.
    _NetLink *other = net_link_create();
    StderrCapture log;
    log.start();
    EXPECT_EQ(net_link_set_core(other, c2), -1);
    EXPECT_NE(log.stop().find("belongs to link"), std::string::npos);
    EXPECT_EQ(net_link_set_core(link, c2), 0);
    net_link_destroy(other);

    uint32_t used = pool_client_used();
    net_link_destroy(link);
    EXPECT_EQ(pool_client_used(), used - 1);
    close(p2);

    int p3 = connect_client(c1, lfd);
    send_all(p3, command_packet("nobody listens"));
    close(p3);
    ASSERT_TRUE(wait_for([&] { return net_tcp_client_get_status(c1) == 0; }));
    EXPECT_EQ(g_packets, 1);
    EXPECT_EQ(net_tcp_client_destroy(c1), 1);
    close(lfd);
}

std::string g_last_body;
int keep_body(_NetLink *, void *, int, char *data, int len) {
    g_last_body.assign(data + LINK_HEAD_SIZE, (size_t)(len - LINK_HEAD_SIZE));
    return ++g_packets;
}

// A link given a new client while the old one is connected drops the half packet that came on the
// old connection: the new peer's first packet arrives whole, not spliced behind it.
TEST(LinkOwner, ReattachWhileConnectedSplicesNothing) {
    ASSERT_EQ(sdk_os_startup(0, 1), 1);
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    _NetLink *link = net_link_create();
    net_link_bind_parase_protocol(link, keep_body);
    _NetTcpClient *c1 = client_to(port), *c2 = nullptr;
    ASSERT_EQ(net_link_set_core(link, c1), 0);
    int p1 = connect_client(c1, lfd);
    send_all(p1, command_packet("old connection").substr(0, 12));
    ASSERT_TRUE(wait_for([&] {
        sdk_main_lock();
        int n = link->buf_len;
        sdk_main_unlock();
        return n == 12;
    }));
    ASSERT_EQ(net_link_set_core(link, c2 = client_to(port)), 0);
    int p2 = connect_client(c2, lfd);
    send_all(p2, command_packet("fresh"));
    ASSERT_TRUE(wait_for([&] { return g_packets == 1; }));
    EXPECT_EQ(g_last_body, "fresh");
    net_link_destroy(link);
    net_tcp_client_destroy(c1);
    close(p1);
    close(p2);
    close(lfd);
}

// Destroying a link inside its own parser is refused with a log line and the link goes on; from
// its disconnect callback it is safe, and the client goes back to the pool.
TEST(LinkOwner, DestroyFromTheLinksOwnCallbacks) {
    ASSERT_EQ(sdk_os_startup(0, 1), 1);
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    _NetLink *link = net_link_create();
    net_link_bind_parase_protocol(link, destroy_in_parser);
    net_link_bind_disconnect_protocol(link, destroy_on_disconnect);
    _NetTcpClient *c = client_to(port);
    ASSERT_EQ(net_link_set_core(link, c), 0);
    int peer = connect_client(c, lfd);
    StderrCapture log;
    log.start();
    send_all(peer, command_packet("one") + command_packet("two"));
    ASSERT_TRUE(wait_for([&] { return g_packets == 2; }));
    EXPECT_NE(log.stop().find("inside the link's own read event"), std::string::npos);
    EXPECT_EQ(g_destroy_result, -1);
    ASSERT_GE(net_link_send_command(link, "alive", 5), 0);
    EXPECT_EQ(read_n(peer, 25).substr(20), "alive");

    uint32_t used = pool_client_used();
    close(peer);  // the disconnect callback destroys the link
    ASSERT_TRUE(wait_for([&] { return pool_client_used() == used - 1; }));
    close(lfd);
}

}  // namespace
