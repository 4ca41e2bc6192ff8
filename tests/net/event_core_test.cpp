// The event core as a fleet of devices meets it: descriptors above 1024, write interest only while
// bytes wait, and reads that share the event thread fairly.
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/resource.h>

#include <atomic>
#include <mutex>
#include <string>

#include "link/link_internal.h"
#include "net/net_internal.h"
#include "net/tcp_peer.h"

namespace {

// Raises the descriptor limit and takes descriptors until the next one is above 1100.
bool fill_descriptors() {
    rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0) return false;
    if (rl.rlim_cur < 1400) {
        rl.rlim_cur = rl.rlim_max < 1400 ? rl.rlim_max : 1400;
        if (setrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur < 1400) return false;
    }
    int fd = dup(0);
    while (fd >= 0 && fd < 1100) fd = dup(0);
    return fd >= 1100;
}

struct Packets {
    std::mutex m;
    std::string last;
    std::atomic<int> count{0};
};

int on_packet(_NetLink *, void *u, int, char *data, int len) {
    Packets *p = static_cast<Packets *>(u);
    std::lock_guard<std::mutex> g(p->m);
    p->last.assign(data + LINK_HEAD_SIZE, (size_t)(len - LINK_HEAD_SIZE));
    p->count++;
    return 0;
}

_NetLink *make_link(Packets *p, const char *ip, uint16_t port, _NetTcpClient **client) {
    _NetLink *link = net_link_create();
    net_link_set_udata(link, p);
    net_link_bind_parase_protocol(link, on_packet);
    *client = net_tcp_client_create();
    net_tcp_client_set_remote(*client, ip, port);
    net_link_set_core(link, *client);
    return link;
}

// Blocks in a link's send queue, read under its send lock.
uint32_t queued(_NetLink *link) {
    sdk_mutex_lock(link->mtx_send);
    uint32_t n = adt_dlist_size(link->send_buf_ls);
    sdk_mutex_unlock(link->mtx_send);
    return n;
}

std::string command_packet(const std::string &body) {
    std::string pkt(LINK_HEAD_SIZE, '\0');
    link_write_command_head(reinterpret_cast<uint8_t *>(&pkt[0]), 0, (int)body.size(), 0, 0);
    return pkt + body;
}

}  // namespace

// A link and a pooled server, both on descriptors above 1024: the server accepts, the adopted
// client and the link exchange packets.
TEST(EventCore, LinkAndPooledServerAbove1024) {
    if (!fill_descriptors()) GTEST_SKIP() << "descriptor limit below 1400";
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    _NetTcpServer *server = net_tcp_server_create();
    ASSERT_EQ(1, net_tcp_server_set_local(server, "127.0.0.1", 0));
    ASSERT_EQ(1, net_tcp_server_open(server));
    EXPECT_GT(server->socketfd, 1024);
    sockaddr_storage ss;
    socklen_t len = sizeof(ss);
    getsockname(server->socketfd, reinterpret_cast<sockaddr *>(&ss), &len);

    Packets got;
    _NetTcpClient *client;
    _NetLink *link = make_link(&got, "127.0.0.1", port_of(ss), &client);
    ASSERT_EQ(1, net_tcp_client_open(client, -1));
    EXPECT_GT(client->connectfd, 1024);
    int fd = -1;
    ASSERT_TRUE(wait_for([&] { return net_tcp_server_accept(server, &fd) == 1; }));
    EXPECT_GT(fd, 1024);
    _NetTcpClient *peer = net_tcp_client_create();
    ASSERT_EQ(1, net_tcp_client_open(peer, fd));
    ASSERT_TRUE(wait_for([&] { return net_tcp_client_get_status(client) == 2; }));

    ASSERT_EQ(0, net_link_send_command(link, "PING", 4));
    std::string in;
    ASSERT_TRUE(wait_for([&] {
        char buf[64];
        int n = net_tcp_client_read(peer, buf, sizeof(buf));
        if (n > 0) in.append(buf, (size_t)n);
        return in.size() >= LINK_HEAD_SIZE + 4;
    }));
    EXPECT_EQ("PING", in.substr(LINK_HEAD_SIZE));
    std::string pong = command_packet("PONG");
    ASSERT_EQ((int)pong.size(), net_tcp_client_send(peer, pong.data(), (uint32_t)pong.size()));
    ASSERT_TRUE(wait_for([&] { return got.count.load() == 1; }));
    EXPECT_EQ("PONG", got.last);
    net_link_destroy(link);
    net_tcp_client_destroy(peer);
    net_tcp_server_destroy(server);
}

// A connected link at rest asks for read events only and the event thread waits (a pass a second,
// for the tick); bytes the socket refuses turn write interest on until the queue is empty again.
TEST(EventCore, WriteInterestOnlyWhileBytesWait) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port, 4096);
    Packets got;
    _NetTcpClient *client;
    _NetLink *link = make_link(&got, "127.0.0.1", port, &client);
    ASSERT_EQ(1, net_tcp_client_open(client, -1));
    int peer = accept_within(lfd);
    ASSERT_GE(peer, 0);
    ASSERT_TRUE(wait_for([&] { return net_tcp_client_interest(client) == KX_WATCH_READ; }));
    uint64_t passes = kx_loop_passes();
    usleep(500 * 1000);
    EXPECT_LE(kx_loop_passes() - passes, 3u);  // today's always-on pump made about 500
    // A link is no always-on pump (its passes need no rest), and its packets leave without Nagle's wait.
    EXPECT_EQ(0, kx_loop_pumps());
    int nodelay = 0;
    socklen_t len = sizeof(nodelay);
    ASSERT_EQ(0, getsockopt(client->connectfd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &len));
    EXPECT_NE(0, nodelay);

    // The peer reads nothing until the socket refuses: the rest waits in the queue.
    std::string body(1440, 'q');
    int sent = 0;
    while (queued(link) == 0 && sent < 100000) {
        ASSERT_EQ(0, net_link_send_command(link, body.data(), (int)body.size()) < 0);
        sent++;
    }
    ASSERT_GT(queued(link), 0u);
    EXPECT_EQ(unsigned(KX_WATCH_READ | KX_WATCH_WRITE), net_tcp_client_interest(client));
    // The peer takes everything: the queue empties through write events, then they stop.
    size_t want = (size_t)sent * (LINK_HEAD_SIZE + body.size());
    EXPECT_EQ(want, read_n(peer, want, 10000).size());
    EXPECT_TRUE(wait_for([&] { return net_tcp_client_interest(client) == KX_WATCH_READ; }));
    EXPECT_EQ(0u, queued(link));
    net_link_destroy(link);
    close(peer);
    close(lfd);
}

namespace {
std::atomic<int> g_writes{0};
int count_write(_NetTcpClient *, void *) { return g_writes++, 0; }
}  // namespace

// A bare client that bound on_write keeps its pump: write events while the socket has room.
TEST(EventCore, BareClientKeepsItsWritePump) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    _NetTcpClient *c = net_tcp_client_create();
    net_tcp_client_set_remote(c, "127.0.0.1", port);
    net_tcp_client_bind_write(c, count_write, nullptr);
    ASSERT_EQ(1, net_tcp_client_open(c, -1));
    int peer = accept_within(lfd);
    EXPECT_TRUE(wait_for([] { return g_writes.load() >= 20; }));
    EXPECT_EQ(unsigned(KX_WATCH_READ | KX_WATCH_WRITE), net_tcp_client_interest(c));
    EXPECT_EQ(1, kx_loop_pumps());  // its passes end with the rest, so the loop does not spin
    sdk_main_lock();  // keeps the event thread out of on_write while it is unbound
    net_tcp_client_bind_write(c, nullptr, nullptr);  // unbound: no write events any more
    sdk_main_unlock();
    EXPECT_EQ(unsigned(KX_WATCH_READ), net_tcp_client_interest(c));
    EXPECT_EQ(0, kx_loop_pumps());
    net_tcp_client_bind_write(c, count_write, nullptr);
    EXPECT_EQ(1, kx_loop_pumps());
    net_tcp_client_close(c);  // the pump ends with its connection
    EXPECT_EQ(0, kx_loop_pumps());
    net_tcp_client_destroy(c);
    close(peer);
    close(lfd);
}

namespace {
struct Reads {
    std::mutex m;
    std::string data;
    int calls = 0;
    size_t most = 0;  // most bytes taken in one read event
};
int read_all(_NetTcpClient *c, void *arg) {
    Reads *r = static_cast<Reads *>(arg);
    char buf[4096];
    size_t here = 0;
    int n;
    while ((n = net_tcp_client_read(c, buf, sizeof(buf))) > 0) {
        std::lock_guard<std::mutex> g(r->m);
        r->data.append(buf, (size_t)n);
        here += (size_t)n;
    }
    std::lock_guard<std::mutex> g(r->m);
    r->calls++;
    if (here > r->most) r->most = here;
    return n;
}
}  // namespace

// One read event takes a bounded share of a stream, however much waits and however the callback
// loops; the rest comes in later events, in order.
TEST(EventCore, ReadEventsTakeABoundedShare) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    Reads r;
    _NetTcpClient *c = net_tcp_client_create();
    net_tcp_client_set_remote(c, "127.0.0.1", port);
    net_tcp_client_bind_read(c, read_all, &r);
    int peer = -1;
    std::string stream(4 << 20, '\0');
    for (size_t i = 0; i < stream.size(); i++) stream[i] = (char)(i * 7 + (i >> 12));
    sdk_main_lock();  // the whole stream waits before the first read event
    ASSERT_EQ(1, net_tcp_client_open(c, -1));
    peer = accept_within(lfd);
    std::thread writer([&] { send_all(peer, stream); });
    usleep(200 * 1000);
    sdk_main_unlock();
    writer.join();
    EXPECT_TRUE(wait_for([&] {
        std::lock_guard<std::mutex> g(r.m);
        return r.data.size() == stream.size();
    }));
    net_tcp_client_destroy(c);
    std::lock_guard<std::mutex> g(r.m);
    EXPECT_TRUE(r.data == stream);
    EXPECT_LE(r.most, (size_t)KX_READ_SLICE);
    EXPECT_GE(r.calls, (int)(stream.size() / KX_READ_SLICE));
    close(peer);
    close(lfd);
}
