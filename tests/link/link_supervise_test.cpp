// The link's supervisor: the state sequences of each way a connection ends, the reopen back-off,
// give-up, and the counters against what a loopback peer saw.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <mutex>
#include <set>
#include <vector>

#include "link/link_internal.h"
#include "net/net_internal.h"
#include "net/tcp_peer.h"
#include "support/stderr_capture.h"

namespace {

typedef std::pair<int, int> Change;  // state, reason

struct Record {
    std::mutex m;
    std::vector<Change> changes;
    std::vector<int64_t> at;  // monotonic ms of each change
    std::vector<Change> get() {
        std::lock_guard<std::mutex> g(m);
        return changes;
    }
    size_t size() {
        std::lock_guard<std::mutex> g(m);
        return changes.size();
    }
};

int on_state(_NetLink *, void *udata, int state, int reason) {
    Record *r = static_cast<Record *>(udata);
    std::lock_guard<std::mutex> g(r->m);
    r->changes.push_back({state, reason});
    r->at.push_back(kx_now_ms());
    return 0;
}

// A command head with no body: package_len 20.
std::string bare_head() {
    std::string h = std::string("\xF1\xF5\xEA\xF5", 4) + std::string(16, '\0');
    h[6] = 20;
    return h;
}

const Change kConnecting = {NET_LINK_CONNECTING, 0}, kUp = {NET_LINK_UP, 0};
Change down(int reason) { return {NET_LINK_DOWN, reason}; }

// A port with nothing listening on it.
uint16_t closed_port() {
    uint16_t port = 0;
    int fd = listen_on("127.0.0.1", &port);
    close(fd);
    return port;
}

class LinkSupervise : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(sdk_os_startup(0, 1), 1);
        link = net_link_create();
        client = net_tcp_client_create();
        ASSERT_NE(link, nullptr);
        ASSERT_NE(client, nullptr);
        net_link_set_udata(link, &rec);
        net_link_bind_state(link, on_state);
        ASSERT_EQ(net_link_set_core(link, client), 0);
    }
    void TearDown() override {
        if (link != nullptr) net_link_destroy(link);
        if (lfd >= 0) close(lfd);
    }
    void open_to(uint16_t to, const NetLinkSupervision &s) {
        ASSERT_EQ(net_link_supervise(link, &s), 0);
        net_tcp_client_set_remote(client, "127.0.0.1", to);
        ASSERT_EQ(net_tcp_client_open(client, -1), 1);
    }
    // Accepts a connection of the link and waits until the link reports it up.
    int accept_up() {
        int fd = accept_within(lfd);
        EXPECT_TRUE(wait_for([&] { return !rec.get().empty() && rec.get().back() == kUp; }));
        return fd;
    }
    NetLinkStats stats() {
        NetLinkStats st;
        EXPECT_EQ(net_link_get_stats(link, &st), 0);
        return st;
    }
    Record rec;
    _NetLink *link = nullptr;
    _NetTcpClient *client = nullptr;
    int lfd = -1;
    uint16_t port = 0;
};

TEST_F(LinkSupervise, RefusedConnectsEndInGiveUpAfterMaxAttempts) {
    NetLinkSupervision s = {0, 0, 10, 40, 3};
    open_to(closed_port(), s);
    ASSERT_TRUE(wait_for([&] { return rec.size() >= 7; }));
    std::vector<Change> want = {kConnecting, down(NET_LINK_REFUSED), kConnecting, down(NET_LINK_REFUSED),
                                kConnecting, down(NET_LINK_REFUSED), {NET_LINK_GAVE_UP, NET_LINK_REFUSED}};
    EXPECT_EQ(rec.get(), want);
    NetLinkStats st = stats();
    EXPECT_EQ(st.state, NET_LINK_GAVE_UP);
    EXPECT_EQ(st.attempts, 3u);
    EXPECT_EQ(st.disconnects, 3u);
    EXPECT_EQ(st.connects, 0u);
    // The reopens waited at least the back-off floor.
    EXPECT_GE(rec.at[2] - rec.at[1], 10);
}

TEST_F(LinkSupervise, ResetIsReportedAndTheLinkReopens) {
    lfd = listen_on("127.0.0.1", &port);
    open_to(port, NetLinkSupervision{0, 0, 20, 100, 0});
    int fd = accept_up();
    linger lg = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    close(fd);  // a reset
    ASSERT_TRUE(wait_for([&] { return rec.size() >= 3; }));
    EXPECT_EQ(rec.get()[2], down(NET_LINK_RESET));
    fd = accept_up();
    ASSERT_GE(net_link_send_command(link, "after", 5), 0);
    EXPECT_EQ(read_n(fd, 25).substr(20), "after");
    std::vector<Change> want = {kConnecting, kUp, down(NET_LINK_RESET), kConnecting, kUp};
    EXPECT_EQ(rec.get(), want);
    EXPECT_EQ(stats().connects, 2u);
    close(fd);
}

TEST_F(LinkSupervise, PeerCloseWithoutReopenStaysDown) {
    lfd = listen_on("127.0.0.1", &port);
    open_to(port, NetLinkSupervision{0, 5, 0, 0, 0});
    close(accept_up());
    ASSERT_TRUE(wait_for([&] { return rec.size() >= 3; }));
    std::vector<Change> want = {kConnecting, kUp, down(NET_LINK_PEER_CLOSED)};
    EXPECT_EQ(rec.get(), want);
    EXPECT_EQ(net_tcp_client_get_status(client), 0);
}

// Timing tests, grouped: idle time-out, hanging connect.
TEST_F(LinkSupervise, IdleTimeOutClosesASilentLinkAndSparesATalkingOne) {
    lfd = listen_on("127.0.0.1", &port);
    open_to(port, NetLinkSupervision{300, 0, 0, 0, 0});
    int fd = accept_up();
    // Talking: a byte every 50 ms keeps the link up well past idle_ms.
    const std::string pkt = bare_head();
    int64_t quiet = 0;
    for (int i = 0; i < 16; i++) {
        send_all(fd, pkt);
        quiet = kx_now_ms();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(rec.size(), 2u);
    EXPECT_EQ(stats().packets_in, 16u);
    EXPECT_LT(stats().last_rx_ms, 300);
    // Silent: closed idle_ms after the last byte, not much later.
    ASSERT_TRUE(wait_for([&] { return rec.size() >= 3; }));
    EXPECT_EQ(rec.get()[2], down(NET_LINK_IDLE));
    EXPECT_GE(rec.at[2] - quiet, 295);
    EXPECT_LT(rec.at[2] - quiet, 800);
    EXPECT_EQ(read_n(fd, 1, 2000), "");  // the peer sees the close
    close(fd);
}

// Keepalive on the connected socket: set when the link comes up, changed and taken off by a new
// supervision while it is up.
TEST_F(LinkSupervise, KeepaliveFollowsTheSupervisionWhileUp) {
    auto opt = [&](int level, int name) {
        int v = -1;
        socklen_t len = sizeof(v);
        EXPECT_EQ(0, getsockopt(client_fd(client), level, name, &v, &len));
        return v;
    };
    lfd = listen_on("127.0.0.1", &port);
    open_to(port, NetLinkSupervision{0, 9, 0, 0, 0});
    int fd = accept_up();
    EXPECT_EQ(1, opt(SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(9, opt(IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(3, opt(IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(3, opt(IPPROTO_TCP, TCP_KEEPCNT));
    EXPECT_EQ(18000, opt(IPPROTO_TCP, TCP_USER_TIMEOUT));  // unacknowledged sends end it too
    NetLinkSupervision s = {0, 30, 0, 0, 0};
    ASSERT_EQ(net_link_supervise(link, &s), 0);
    EXPECT_EQ(30, opt(IPPROTO_TCP, TCP_KEEPIDLE));
    s.keepalive_s = 0;
    ASSERT_EQ(net_link_supervise(link, &s), 0);
    EXPECT_EQ(0, opt(SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(0, opt(IPPROTO_TCP, TCP_USER_TIMEOUT));
    EXPECT_EQ(rec.size(), 2u);  // connecting, up: the changes close nothing
    close(fd);
}

TEST_F(LinkSupervise, HangingConnectEndsUnreachableAfterReconnectMax) {
    // A listener whose backlog is full drops further SYNs: the connect hangs.
    lfd = listen_on("127.0.0.1", &port);
    listen(lfd, 0);
    std::vector<int> fill;
    for (int i = 0; i < 4; i++) {
        sockaddr_storage ss;
        socklen_t len = make_addr("127.0.0.1", port, &ss);
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        connect(fd, reinterpret_cast<sockaddr *>(&ss), len);
        fill.push_back(fd);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    open_to(port, NetLinkSupervision{0, 0, 0, 300, 0});
    ASSERT_TRUE(wait_for([&] { return rec.size() >= 2; }, 3000));
    std::vector<Change> want = {kConnecting, down(NET_LINK_UNREACHABLE)};
    EXPECT_EQ(rec.get(), want);
    EXPECT_GE(rec.at[1] - rec.at[0], 280);
    EXPECT_LT(rec.at[1] - rec.at[0], 1500);
    for (int fd : fill) close(fd);
}

TEST_F(LinkSupervise, LocalCloseAndDestroyStopTheSupervisor) {
    lfd = listen_on("127.0.0.1", &port);
    open_to(port, NetLinkSupervision{0, 0, 10, 20, 0});
    int fd = accept_up();
    net_tcp_client_close(client);
    std::vector<Change> want = {kConnecting, kUp, down(NET_LINK_LOCAL)};
    EXPECT_EQ(rec.get(), want);
    // Several back-off periods later nothing more has happened.
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(rec.get(), want);
    EXPECT_EQ(net_tcp_client_get_status(client), 0);
    close(fd);
}

TEST_F(LinkSupervise, DestroyDuringBackOffFiresNothingAfter) {
    open_to(closed_port(), NetLinkSupervision{0, 0, 100, 200, 0});
    ASSERT_TRUE(wait_for([&] { return rec.size() >= 2; }));
    net_link_destroy(link);
    link = nullptr;
    size_t n = rec.size();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(rec.size(), n);
}

TEST_F(LinkSupervise, BadValuesAreRefusedAndChangeNothing) {
    StderrCapture cap;
    cap.start();
    const NetLinkSupervision bad[] = {{-1, 0, 0, 0, 0}, {0, -1, 0, 0, 0}, {0, 0, -5, 10, 0},
                                      {0, 0, 50, 10, 0}, {0, 0, 10, 50, -1}};
    for (const NetLinkSupervision &s : bad) EXPECT_EQ(net_link_supervise(link, &s), -1);
    EXPECT_EQ(net_link_supervise(link, nullptr), -1);
    EXPECT_EQ(net_link_supervise(nullptr, &bad[0]), -1);
    EXPECT_EQ(net_link_get_stats(link, nullptr), -1);
    EXPECT_EQ(net_link_bind_state(nullptr, on_state), -1);
    EXPECT_NE(cap.stop().find("net_link_supervise: bad values"), std::string::npos);
    // Nothing was switched on: a refused connect is reported once and not reopened.
    net_tcp_client_set_remote(client, "127.0.0.1", closed_port());
    net_tcp_client_open(client, -1);
    ASSERT_TRUE(wait_for([&] { return rec.size() >= 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(rec.size(), 2u);
}

TEST(LinkBackoff, DoublesWithinItsBoundsWithFullJitter) {
    EXPECT_EQ(link_backoff_ms(100, 5000, 0, 12345), 100);
    EXPECT_EQ(link_backoff_ms(100, 0, 7, 12345), 100);  // no ceiling above the floor
    uint64_t x = 88172645463325252ull;
    for (int failed = 1; failed < 12; failed++) {
        int64_t ceiling = std::min<int64_t>(5000, 100ll << failed);
        std::set<int64_t> seen;
        for (int i = 0; i < 200; i++) {
            x ^= x << 13, x ^= x >> 7, x ^= x << 17;
            int64_t d = link_backoff_ms(100, 5000, failed, x);
            ASSERT_GE(d, 100);
            ASSERT_LE(d, ceiling);
            seen.insert(d);
        }
        EXPECT_GT(seen.size(), 20u) << "failed " << failed;  // spread over the whole range
    }
    EXPECT_LE(link_backoff_ms(100, 5000, 1000, ~0ull), 5000);  // no overflow however many failures
}

TEST_F(LinkSupervise, CountersMatchWhatThePeerSaw) {
    lfd = listen_on("127.0.0.1", &port);
    open_to(port, NetLinkSupervision{});
    int fd = accept_up();
    for (int i = 0; i < 50; i++) ASSERT_GE(net_link_send_command(link, "0123456789", 10), 0);
    ASSERT_GE(net_link_send_data(link, std::string(3000, 'x').data(), 3000), 0);  // 3 packets
    std::string seen = read_n(fd, 50 * 30 + 3000 + 3 * 20);
    const std::string pkt = bare_head();
    for (int i = 0; i < 7; i++) send_all(fd, pkt);
    ASSERT_TRUE(wait_for([&] { return stats().packets_in == 7; }));
    NetLinkStats st = stats();
    EXPECT_EQ(st.bytes_out, seen.size());
    EXPECT_EQ(st.packets_out, 53u);
    EXPECT_EQ(st.bytes_in, 7u * 20);
    EXPECT_EQ(st.packets_dropped, 0u);
    EXPECT_EQ(st.queue_blocks, 0u);
    EXPECT_GE(st.last_rx_ms, 0);
    EXPECT_EQ(st.state, NET_LINK_UP);
    EXPECT_EQ(st.connects, 1u);
    EXPECT_EQ(st.attempts, 1u);
    close(fd);
}

}  // namespace
