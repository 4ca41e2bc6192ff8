// Fleet soak and benchmark (`make fleet`), outside the unit suite: links over pooled TCP clients
// against loopback peers, through the public header alone. Four shapes, each in a process of its own
// (the library's state is process-wide and its threads never end):
//   scale    - FLEET_LINKS links (10000; clientnum the same, the descriptor limit raised) against an
//              echoing peer in a child process, each exchanging 10 packets: none lost, connect and
//              echo times, descriptors back to the starting count after the links are destroyed.
//   idle     - FLEET_IDLE_LINKS (1000) connected links at rest: process CPU over FLEET_IDLE_SECONDS
//              (10); target below 1% of one core. Afterwards every link still echoes.
//   fair     - a peer streams random bytes at full speed into one link while a healthy link is
//              pinged every 10 ms for FLEET_FAIR_SECONDS (10): round trip p50, p99, max; targets p99
//              below 20 ms, max below 100 ms.
//   overflow - a peer stops reading while the link overflows its queue again and again, then reads
//              everything: every packet it receives is whole (sequence number and checksum in each
//              body), 0 spliced, and the bytes received plus the bytes the log reports dropped are
//              the bytes sent.
// The video-server shapes (cameras, control, send) live in fleet_video.cpp: korvex_fleet SHAPE N [SECONDS].
// Usage: korvex_fleet [scale|idle|fair|overflow]... (all four by default). One RESULT line per shape;
// the exit code is 1 when a check of any shape failed.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <arpa/inet.h>
#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "korvex/korvex.h"

#include "fleet_supervise.h"
#include "fleet_video.h"
#include "soak_util.h"

namespace {

using namespace soak_util;

// ---------------------------------------------------------------- helpers

double secs_since(uint64_t t0) { return (double)(now_ns() - t0) / 1e9; }
int accept_within(int ls, int ms) {
    pollfd p = {ls, POLLIN, 0};
    if (poll(&p, 1, ms) <= 0) return -1;
    int c = accept4(ls, nullptr, nullptr, SOCK_CLOEXEC);
    int one = 1;
    if (c >= 0) setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return c;
}
double pctl(const std::vector<uint64_t> &v, int p) {
    if (v.empty()) return 0;
    size_t i = std::min(v.size() - 1, v.size() * (size_t)p / 100);
    return (double)v[i] / 1e6;
}

// Little-endian fields and self-proving bodies: a sequence number, filler, and an FNV-1a checksum.
std::string numbered_body(uint32_t seq, size_t size) {
    std::string b(std::max<size_t>(size, 8), '\0');
    put_u32(&b[0], seq);
    for (size_t i = 4; i + 4 < b.size(); i++) b[i] = (char)('a' + (seq + i) % 26);
    put_u32(&b[b.size() - 4], fnv(b.data(), b.size() - 4));
    return b;
}
bool body_whole(const char *p, size_t n) { return n >= 8 && get_u32(p + n - 4) == fnv(p, n - 4); }
std::string command_packet(const std::string &body, uint16_t seq) {
    std::string h(20, '\0');
    h[0] = (char)0xF1, h[1] = (char)0xF5, h[2] = (char)0xEA, h[3] = (char)0xF5;
    h[4] = (char)seq, h[5] = (char)(seq >> 8);
    h[6] = (char)(body.size() + 20), h[7] = (char)((body.size() + 20) >> 8);
    h[18] = (char)body.size(), h[19] = (char)(body.size() >> 8);
    return h + body;
}

int count_lines(const std::string &text) { return (int)std::count(text.begin(), text.end(), '\n'); }
void show_tail(const std::string &text, int lines) {
    size_t at = text.size();
    for (int i = 0; i <= lines && at != std::string::npos && at > 0; i++) at = text.rfind('\n', at - 1);
    fprintf(stderr, "-- last library log lines:\n%s", text.substr(at == std::string::npos ? 0 : at + 1).c_str());
}

struct Checks {
    std::string failed;
    void need(bool ok, const char *what) {
        if (!ok) failed += failed.empty() ? what : std::string(", ") + what;
    }
    const char *verdict() const { return failed.empty() ? "PASS" : "FAIL"; }
};
int finish(const Checks &c, const std::string &log) {
    if (!c.failed.empty()) {
        printf("  failed: %s\n", c.failed.c_str());
        show_tail(log, 8);
    }
    fflush(stdout);
    return c.failed.empty() ? 0 : 1;
}

// ---------------------------------------------------------------- an echoing peer in a child process

// Counters shared with the child through an anonymous shared mapping.
struct PeerShared {
    int open;
    int accepted;
    int stop;
};

void echo_child(int ls, PeerShared *sh) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(170);
    int ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.fd = ls;
    epoll_ctl(ep, EPOLL_CTL_ADD, ls, &ev);
    static char buf[65536];
    epoll_event evs[256];
    while (!__atomic_load_n(&sh->stop, __ATOMIC_ACQUIRE)) {
        int k = epoll_wait(ep, evs, 256, 50);
        for (int i = 0; i < k; i++) {
            int fd = evs[i].data.fd;
            if (fd == ls) {
                int c;
                while ((c = accept4(ls, nullptr, nullptr, SOCK_NONBLOCK)) >= 0) {
                    int one = 1;
                    setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
                    epoll_event e = {};
                    e.events = EPOLLIN;
                    e.data.fd = c;
                    epoll_ctl(ep, EPOLL_CTL_ADD, c, &e);
                    __atomic_add_fetch(&sh->open, 1, __ATOMIC_ACQ_REL);
                    __atomic_add_fetch(&sh->accepted, 1, __ATOMIC_ACQ_REL);
                }
                continue;
            }
            ssize_t r = recv(fd, buf, sizeof(buf), 0);
            if (r > 0 && write_all(fd, buf, (size_t)r)) continue;
            if (r < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr);
            close(fd);
            __atomic_sub_fetch(&sh->open, 1, __ATOMIC_ACQ_REL);
        }
    }
    _exit(0);
}

struct EchoPeer {
    PeerShared *sh = nullptr;
    pid_t pid = -1;
    uint16_t port = 0;
    bool start() {
        sh = static_cast<PeerShared *>(
            mmap(nullptr, sizeof(PeerShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        if (sh == MAP_FAILED) return false;
        int ls = raw_listen(&port);
        if (ls < 0) return false;
        fcntl(ls, F_SETFL, fcntl(ls, F_GETFL) | O_NONBLOCK);
        fflush(stdout);
        fflush(stderr);
        pid = fork();
        if (pid == 0) echo_child(ls, sh);
        close(ls);
        return pid > 0;
    }
    int open() const { return __atomic_load_n(&sh->open, __ATOMIC_ACQUIRE); }
    void stop() {
        if (pid <= 0) return;
        __atomic_store_n(&sh->stop, 1, __ATOMIC_RELEASE);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
};

// ---------------------------------------------------------------- links

struct Slot {
    _NetLink *link = nullptr;
    _NetTcpClient *client = nullptr;
    uint32_t id = 0;
    uint32_t next = 0;  // next sequence number expected back (event thread)
};

std::atomic<int> g_connected{0}, g_ended{0}, g_got{0}, g_bad{0};

int on_connect(_NetTcpClient *, void *) {
    g_connected++;
    return 0;
}
int on_ended(_NetLink *, void *) {
    g_ended++;
    return 0;
}
// Echoed packets of the scale and idle shapes: a 16-byte body {link id, sequence, mix, magic}.
constexpr uint32_t kEchoMagic = 0x4B564632u;
int on_echo(_NetLink *, void *udata, int type, char *data, int len) {
    Slot *s = static_cast<Slot *>(udata);
    if (type != 0 || len != 36) {
        g_bad++;
        return 0;
    }
    uint32_t id = get_u32(data + 20), seq = get_u32(data + 24), mix = get_u32(data + 28), magic = get_u32(data + 32);
    if (id != s->id || seq != s->next || mix != ((id * 2654435761u) ^ seq) || magic != kEchoMagic) {
        g_bad++;
        return 0;
    }
    s->next++;
    g_got++;
    return 0;
}
int send_echo(Slot *s, uint32_t seq) {
    char body[16];
    put_u32(body, s->id);
    put_u32(body + 4, seq);
    put_u32(body + 8, (s->id * 2654435761u) ^ seq);
    put_u32(body + 12, kEchoMagic);
    return net_link_send_command(s->link, body, 16);
}

// Creates and opens up to n links to port; stops at the first create that fails. Gives the count.
int open_links(std::vector<Slot> &slots, int n, uint16_t port, NetLinkParaseCallback parser) {
    slots.resize((size_t)n);
    for (int i = 0; i < n; i++) {
        Slot &s = slots[(size_t)i];
        s.id = (uint32_t)i;
        s.link = net_link_create();
        if (s.link == nullptr) return i;
        s.client = net_tcp_client_create();
        if (s.client == nullptr) {
            net_link_destroy(s.link);
            s.link = nullptr;
            return i;
        }
        net_link_set_udata(s.link, &s);
        net_link_bind_parase_protocol(s.link, parser);
        net_link_bind_disconnect_protocol(s.link, on_ended);
        net_tcp_client_set_remote(s.client, "127.0.0.1", port);
        net_link_set_core(s.link, s.client);
        net_tcp_client_bind_connect(s.client, on_connect, &s);
        if (net_tcp_client_open(s.client, -1) != 1) {
            net_link_destroy(s.link);
            s.link = nullptr;
            return i;
        }
    }
    return n;
}
void destroy_links(std::vector<Slot> &slots) {
    for (Slot &s : slots)
        if (s.link != nullptr) net_link_destroy(s.link), s.link = nullptr;
}

// ---------------------------------------------------------------- scale

int shape_scale() {
    const int n = env_int("FLEET_LINKS", 10000), k = 10;
    long lim = raise_nofile((rlim_t)n + 512);
    EchoPeer peer;
    if (!peer.start()) {
        printf("RESULT korvex scale: the peer did not start\n");
        return 1;
    }
    LogCapture log;
    log.start();
    sdk_os_startup((uint32_t)n, 1);
    const int fd0 = count_fds();
    std::vector<Slot> slots;
    uint64_t t0 = now_ns();
    const int made = open_links(slots, n, peer.port, on_echo);
    wait_until([&] { return g_connected + g_ended >= made; }, 30000);
    const double t_conn = secs_since(t0);
    const int connected = g_connected, fd_mid = count_fds();
    int send_fail = 0;
    t0 = now_ns();
    const double c0 = cpu_s();
    for (int seq = 0; seq < k; seq++)
        for (int i = 0; i < made; i++)
            if (send_echo(&slots[(size_t)i], (uint32_t)seq) < 0) send_fail++;
    wait_until([&] { return g_got + g_bad >= made * k; }, 30000);
    const double t_echo = secs_since(t0), c_echo = cpu_s() - c0;
    const int got = g_got, bad = g_bad;
    t0 = now_ns();
    destroy_links(slots);
    wait_until([&] { return peer.open() == 0 && count_fds() == fd0; }, 10000, 20);
    const double t_close = secs_since(t0);
    const int fd1 = count_fds(), peer_open = peer.open();
    peer.stop();
    std::string text = log.stop();
    Checks c;
    c.need(made == n, "links created");
    c.need(connected == n, "links connected");
    c.need(got == n * k && bad == 0 && send_fail == 0, "packets echoed");
    c.need(fd1 == fd0 && peer_open == 0, "descriptors back");
    printf("RESULT korvex scale %s | nofile %ld, peers in a child process | links %d: created %d, connected %d "
           "(%d ended) in %.2fs | packets echoed %d/%d (%d bad, %d send failures) in %.3fs, process CPU %.3fs | "
           "closed in %.2fs | descriptors %d -> %d with links open -> %d after close, peer sockets open %d | "
           "library log lines %d\n",
           c.verdict(), lim, n, made, connected, (int)g_ended, t_conn, got, n * k, bad, send_fail, t_echo, c_echo,
           t_close, fd0, fd_mid, fd1, peer_open, count_lines(text));
    return finish(c, text);
}

// ---------------------------------------------------------------- idle

int shape_idle() {
    const int n = env_int("FLEET_IDLE_LINKS", 1000), seconds = env_int("FLEET_IDLE_SECONDS", 10);
    raise_nofile((rlim_t)n + 512);
    EchoPeer peer;
    if (!peer.start()) {
        printf("RESULT korvex idle: the peer did not start\n");
        return 1;
    }
    LogCapture log;
    log.start();
    sdk_os_startup((uint32_t)n, 1);
    std::vector<Slot> slots;
    const int made = open_links(slots, n, peer.port, on_echo);
    wait_until([&] { return g_connected + g_ended >= made; }, 20000);
    const int connected = g_connected;
    sleep_ms(1000);  // let the connects settle before the window
    const uint64_t w0 = now_ns();
    const double c0 = cpu_s();
    sleep_ms((uint64_t)seconds * 1000);
    const double c1 = cpu_s(), wall = secs_since(w0);
    const double pct = 100.0 * (c1 - c0) / wall;
    // Still alive: one echoed packet per link.
    int send_fail = 0;
    for (int i = 0; i < made; i++)
        if (send_echo(&slots[(size_t)i], 0) < 0) send_fail++;
    wait_until([&] { return g_got + g_bad >= made; }, 10000);
    const int got = g_got;
    destroy_links(slots);
    peer.stop();
    std::string text = log.stop();
    Checks c;
    c.need(made == n && connected == n, "links connected");
    c.need(pct < 1.0, "CPU under 1% of one core");
    c.need(got == n && g_bad == 0 && send_fail == 0, "links echo afterwards");
    printf("RESULT korvex idle %s | links %d: created %d, connected %d | process CPU %.3f%% of one core over %.1fs "
           "(%.3fs) | afterwards %d/%d echoed | library log lines %d\n",
           c.verdict(), n, made, connected, pct, wall, c1 - c0, got, n, count_lines(text));
    return finish(c, text);
}

// ---------------------------------------------------------------- fair

constexpr int kMaxPings = 8192;
uint64_t g_ping_sent[kMaxPings];
std::atomic<uint64_t> g_ping_back[kMaxPings];
std::atomic<long> g_flood_bytes{0};
std::atomic<long> g_flood_packets{0};
std::atomic<bool> g_stop{false};

int on_pong(_NetLink *, void *, int type, char *data, int len) {
    if (type != 0 || len != 32) return 0;
    uint32_t seq = get_u32(data + 20);
    if (seq < kMaxPings && g_ping_back[seq].load() == 0) g_ping_back[seq] = now_ns();
    return 0;
}
int on_flood(_NetLink *, void *, int, char *, int) {
    g_flood_packets++;
    return 0;
}

// Echoes one connection until told to stop.
void echo_thread(int ls) {
    int c = -1;
    while (!g_stop && c < 0) c = accept_within(ls, 100);
    char buf[8192];
    while (c >= 0 && !g_stop) {
        pollfd p = {c, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        ssize_t r = recv(c, buf, sizeof(buf), 0);
        if (r <= 0 || !write_all(c, buf, (size_t)r)) break;
    }
    if (c >= 0) close(c);
}

// Streams random bytes as fast as the connection takes them. Byte runs that would open a head are
// broken up, so everything the link reads is noise to be passed over.
void flood_thread(int ls) {
    int c = accept_within(ls, 3000);
    if (c < 0) return;
    std::vector<uint8_t> buf(1u << 20);
    uint64_t x = 88172645463325252ull;
    for (auto &b : buf) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        b = (uint8_t)(x >> 24);
    }
    const size_t n = buf.size();
    for (size_t i = 0; i < n; i++) {
        uint8_t b0 = buf[i], b1 = buf[(i + 1) % n], b2 = buf[(i + 2) % n], b3 = buf[(i + 3) % n];
        if ((b0 == 0xF1 && b1 == 0xF5 && b2 == 0xEA) || (b0 == 0xE1 && b1 == 0 && b2 == 0 && b3 == 0) || b0 == 'M')
            buf[(i + 1) % n] ^= 0x55;
    }
    size_t off = 0;
    while (!g_stop) {
        ssize_t w = send(c, buf.data() + off, std::min<size_t>(n - off, 65536), MSG_NOSIGNAL);
        if (w <= 0) {
            if (w < 0 && errno == EINTR) continue;
            break;
        }
        g_flood_bytes += w;
        off = (off + (size_t)w) % n;
    }
    close(c);
}

int shape_fair() {
    const int seconds = env_int("FLEET_FAIR_SECONDS", 10);
    LogCapture log;
    log.start();
    sdk_os_startup(0, 1);
    uint16_t hport = 0, fport = 0;
    int hls = raw_listen(&hport), fls = raw_listen(&fport);
    std::thread echo(echo_thread, hls);
    std::vector<Slot> h(1), f(1);
    open_links(h, 1, hport, on_pong);
    Checks c;
    if (!wait_until([&] { return g_connected == 1; }, 3000)) c.need(false, "healthy link connected");
    // The pinger stamps and sends a ping every 10 ms from its own thread.
    std::atomic<uint32_t> nsent{0};
    std::thread pinger([&] {
        uint64_t next = now_ns();
        for (uint32_t seq = 0; !g_stop && seq < kMaxPings; seq++) {
            char body[12];
            uint64_t t = now_ns();
            g_ping_sent[seq] = t;
            put_u32(body, seq);
            put_u32(body + 4, (uint32_t)t);
            put_u32(body + 8, (uint32_t)(t >> 32));
            nsent = seq + 1;
            net_link_send_command(h[0].link, body, 12);
            next += 10000000ull;
            sleep_until(next);
        }
    });
    sleep_ms(500);
    std::thread flood(flood_thread, fls);
    open_links(f, 1, fport, on_flood);
    wait_until([&] { return g_connected == 2 && g_flood_bytes > 0; }, 3000, 1);
    const uint32_t first = nsent;
    const long b0 = g_flood_bytes;
    const uint64_t w0 = now_ns(), w1 = w0 + (uint64_t)seconds * 1000000000ull;
    sleep_until(w1);
    const uint32_t last = nsent;
    const long b1 = g_flood_bytes;
    const int flood_ended = g_ended;
    // Pings of the window that are still out get 300 ms more, then count with the time they waited.
    sleep_ms(300);
    const uint64_t te = now_ns();
    std::vector<uint64_t> rtt;
    int unanswered = 0;
    for (uint32_t s = first; s < last; s++) {
        uint64_t st = g_ping_sent[s], rt = g_ping_back[s];
        if (st > w1) continue;
        if (rt == 0) unanswered++;
        rtt.push_back((rt != 0 ? rt : te) - st);
    }
    g_stop = true;
    pinger.join();
    flood.join();
    echo.join();
    destroy_links(h);
    destroy_links(f);
    close(hls);
    close(fls);
    std::string text = log.stop();
    std::sort(rtt.begin(), rtt.end());
    const double wall = (double)(w1 - w0) / 1e9, p99 = pctl(rtt, 99), mx = rtt.empty() ? 0 : (double)rtt.back() / 1e6;
    c.need(!rtt.empty() && unanswered == 0, "every ping answered");
    c.need(p99 < 20.0, "p99 under 20 ms");
    c.need(mx < 100.0, "max under 100 ms");
    printf("RESULT korvex fair %s | %zu pings over %.1fs: p50 %.2f ms, p99 %.2f ms, max %.2f ms, %d unanswered | "
           "flood %.1f MB/s into the other link (%s, %ld packets found in the noise) | library log lines %d\n",
           c.verdict(), rtt.size(), wall, pctl(rtt, 50), p99, mx, unanswered, (double)(b1 - b0) / 1e6 / wall,
           flood_ended == 0 ? "connected throughout" : "ended", (long)g_flood_packets, count_lines(text));
    return finish(c, text);
}

// ---------------------------------------------------------------- overflow

int shape_overflow() {
    const uint32_t packets = (uint32_t)env_int("FLEET_OVERFLOW_PACKETS", 30000);
    const int limit = 1000;
    LogCapture log;
    log.start();
    sdk_os_startup(0, 1);
    sdk_os_set_max_package_buf(limit);
    uint16_t port = 0;
    int ls = raw_listen(&port, 16384);
    std::atomic<bool> go{false};
    std::atomic<bool> marker_seen{false};
    std::string stream;
    const std::string marker = numbered_body(packets, 16);
    // The peer accepts, reads nothing until told, then reads until the marker packet arrives.
    std::thread reader([&] {
        int c = accept_within(ls, 3000);
        if (c < 0) return;
        while (!go) sleep_ms(1);
        char buf[65536];
        uint64_t end = now_ns() + 60000000000ull;
        while (now_ns() < end) {
            pollfd p = {c, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            ssize_t r = recv(c, buf, sizeof(buf), 0);
            if (r <= 0) break;
            stream.append(buf, (size_t)r);
            if (stream.size() >= marker.size() &&
                stream.compare(stream.size() - marker.size(), marker.size(), marker) == 0) {
                marker_seen = true;
                break;
            }
        }
        close(c);
    });
    std::vector<Slot> one(1);
    open_links(one, 1, port, on_flood);
    Checks c;
    if (!wait_until([&] { return g_connected == 1; }, 3000)) c.need(false, "link connected");
    _NetLink *link = one[0].link;
    // Command packets, data packets (a head and a body: two queue blocks), and runs of 20 packets in
    // one send, which the socket takes in part. Sizes are odd so the socket's fill level falls inside
    // a packet.
    uint64_t bytes_sent = 0;
    int send_fail = 0;
    const uint64_t t0 = now_ns();
    for (uint32_t seq = 0; seq < packets; seq++) {
        std::string body = numbered_body(seq, 200 + seq % 17 * 71);
        int r;
        if (seq % 40 == 0 && seq + 20 < packets) {
            std::string run;
            for (uint32_t end = seq + 20; seq < end; seq++) run += command_packet(numbered_body(seq, 300 + seq % 11 * 89), 0);
            seq--;
            r = net_link_send_package(link, run.data(), (int)run.size());
            bytes_sent += run.size();
        } else if (seq % 3 == 0) {
            r = net_link_send_data(link, body.data(), (int)body.size());
            bytes_sent += body.size() + 20;
        } else {
            r = net_link_send_command(link, body.data(), (int)body.size());
            bytes_sent += body.size() + 20;
        }
        if (r < 0) send_fail++;
    }
    const double t_send = secs_since(t0);
    go = true;
    net_link_send_command(link, marker.data(), (int)marker.size());
    bytes_sent += marker.size() + 20;
    reader.join();
    const double t_all = secs_since(t0);
    destroy_links(one);
    close(ls);
    std::string text = log.stop();

    // The peer's view: a run of packets, each opened by a command or data head, each body whole.
    uint32_t whole = 0, spliced = 0, out_of_order = 0, gaps = 0;
    uint64_t noise = 0;
    int64_t prev = -1;
    size_t off = 0;
    while (off + 20 <= stream.size()) {
        const char *p = stream.data() + off;
        bool cmd = memcmp(p, "\xF1\xF5\xEA\xF5", 4) == 0, dat = memcmp(p, "\xF1\xF5\xEA\xF9", 4) == 0;
        size_t len = 0;
        if (cmd || dat) len = (uint8_t)p[cmd ? 6 : 14] | (size_t)(uint8_t)p[cmd ? 7 : 15] << 8;
        if (len >= 28 && off + len <= stream.size() && body_whole(p + 20, len - 20)) {
            uint32_t seq = get_u32(p + 20);
            if ((int64_t)seq <= prev) out_of_order++;
            if ((int64_t)seq > prev + 1) gaps++;
            prev = seq;
            whole++;
            off += len;
            continue;
        }
        // Not a whole packet here: count it once, then pass over bytes up to the next head.
        if (cmd || dat) spliced++;
        size_t next = off + 1;
        while (next + 4 <= stream.size() && memcmp(stream.data() + next, "\xF1\xF5\xEA", 3) != 0) next++;
        noise += next - off;
        off = next;
    }
    noise += stream.size() - off;
    // The overflow lines count the packets and bytes they dropped.
    uint64_t dropped_bytes = 0, dropped_packets = 0;
    for (size_t at = text.find("buffer overflow"); at != std::string::npos; at = text.find("buffer overflow", at + 1)) {
        unsigned long long dp = 0, db = 0;
        size_t d = text.find("dropped ", at);
        if (d != std::string::npos && sscanf(text.c_str() + d, "dropped %llu packets %llu bytes", &dp, &db) == 2)
            dropped_packets += dp, dropped_bytes += db;
    }
    const int overflows = count_of(text, "buffer overflow");
    c.need(marker_seen, "every byte read");
    c.need(overflows > 0, "queue overflowed");
    c.need(spliced == 0 && noise == 0 && out_of_order == 0, "0 spliced");
    c.need(send_fail == 0, "sends accepted");
    c.need(stream.size() + dropped_bytes == bytes_sent, "bytes received + dropped = bytes sent");
    printf("RESULT korvex overflow %s | %u packets (%.1f MB) sent in %.2fs with the peer not reading, queue limit %d "
           "blocks: %d overflows, %llu packets and %.1f MB dropped by the log | peer read %.1f MB in %.2fs in all: "
           "%u whole packets, %u spliced, %llu bytes outside packets, %u gaps, %u out of order | received + dropped "
           "%s bytes sent\n",
           c.verdict(), packets + 1, (double)bytes_sent / 1e6, t_send, limit, overflows,
           (unsigned long long)dropped_packets, (double)dropped_bytes / 1e6, (double)stream.size() / 1e6, t_all,
           whole, spliced, (unsigned long long)noise, gaps, out_of_order,
           stream.size() + dropped_bytes == bytes_sent ? "=" : "!=");
    return finish(c, text);
}

// ---------------------------------------------------------------- main

struct Shape {
    const char *name;
    int (*run)();
};
const Shape kShapes[] = {{"scale", shape_scale}, {"idle", shape_idle}, {"fair", shape_fair}, {"overflow", shape_overflow}};

}  // namespace

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // The supervised-session shapes run one at a time: korvex_fleet vanish|flap|idle-supervised.
    if (argc > 1 && fleet_supervise_shape(argv[1])) return fleet_supervise_main(argc - 1, argv + 1);
    // The video-server shapes take arguments of their own: korvex_fleet cameras|control|send N [SECONDS].
    if (argc > 1 && fleet_video_shape(argv[1])) return fleet_video_main(argc - 1, argv + 1);
    std::vector<const Shape *> run;
    for (int i = 1; i < argc; i++) {
        const Shape *s = nullptr;
        for (const Shape &k : kShapes)
            if (strcmp(argv[i], k.name) == 0) s = &k;
        if (s == nullptr) {
            fprintf(stderr, "usage: %s [scale|idle|fair|overflow]...\n", argv[0]);
            return 2;
        }
        run.push_back(s);
    }
    if (run.empty())
        for (const Shape &k : kShapes) run.push_back(&k);
    int failed = 0;
    const uint64_t t0 = now_ns();
    for (const Shape *s : run) {
        const uint64_t ts = now_ns();
        fflush(stdout);
        fflush(stderr);
        pid_t pid = fork();
        if (pid == 0) {
            alarm(180);  // a shape that hangs ends as a failure
            _exit(s->run());
        }
        int status = 0;
        waitpid(pid, &status, 0);
        bool ok = pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        if (!(WIFEXITED(status))) printf("RESULT korvex %s FAIL | ended by signal %d\n", s->name, WTERMSIG(status));
        printf("  korvex %s: %s in %.1fs\n", s->name, ok ? "passed" : "failed", secs_since(ts));
        failed += ok ? 0 : 1;
    }
    if (run.size() > 1) printf("FLEET %zu shapes, %d failed, %.1fs\n", run.size(), failed, secs_since(t0));
    return failed == 0 ? 0 : 1;
}
