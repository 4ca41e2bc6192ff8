// Supervised-session shapes of korvex_fleet, each in a network namespace of its own (so the shape
// touches no address outside it; it needs CAP_SYS_ADMIN, as root has):
//   vanish          - FLEET_VANISH_LINKS (1000) supervised links (idle_ms 3000, keepalive_s 2) to
//                     devices that send a heartbeat every 500 ms; 100 of the devices stand in a
//                     second namespace whose loopback is then taken down, so their packets are
//                     dropped without FIN or RST. Every one of the 100 must be reported down within
//                     its bound (idle_ms) + 1 s, and the other 900 must stay up.
//   flap            - FLEET_FLAP_LINKS (1000) supervised links (reconnect 10..100 ms) whose devices
//                     close (FIN or RST) and stop listening for a while, then come back, at random
//                     for FLEET_FLAP_SECONDS (60): every link must be up again within
//                     reconnect_max_ms + 1 s of its device's return, FLEET_FLAP_CYCLES (100000)
//                     cycles in all, and descriptors, threads and memory must not grow.
//   idle-supervised - FLEET_SUPIDLE_LINKS (10000) supervised links at rest: process CPU over
//                     FLEET_SUPIDLE_SECONDS (10) below 0.1% of one core.
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
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
#include <vector>

#include "fleet_supervise.h"
#include "korvex/korvex.h"
#include "soak_util.h"

namespace {

using namespace soak_util;

// A field of /proc/self/status ("Threads:", "VmRSS:").
long status_field(const char *name) {
    FILE *f = fopen("/proc/self/status", "r");
    if (f == nullptr) return -1;
    char line[256];
    long v = -1;
    size_t n = strlen(name);
    while (fgets(line, sizeof(line), f) != nullptr)
        if (strncmp(line, name, n) == 0) v = atol(line + n);
    fclose(f);
    return v;
}
std::string loadavg() {
    char buf[64] = "";
    FILE *f = fopen("/proc/loadavg", "r");
    if (f != nullptr) {
        if (fgets(buf, sizeof(buf), f) == nullptr) buf[0] = '\0';
        fclose(f);
    }
    std::string s(buf);
    size_t sp = s.find(' ');
    sp = sp == std::string::npos ? sp : s.find(' ', sp + 1);
    sp = sp == std::string::npos ? sp : s.find(' ', sp + 1);
    return s.substr(0, sp);
}
// ---------------------------------------------------------------- namespaces

// Sets the loopback of the calling thread's network namespace up or down.
bool loopback(bool up) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) return false;
    ifreq ifr = {};
    snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "lo");
    bool ok = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags = (short)(up ? (ifr.ifr_flags | IFF_UP) : (ifr.ifr_flags & ~IFF_UP));
        ok = ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    }
    close(s);
    return ok;
}
// A new network namespace for the calling thread, its loopback up; its descriptor, or -1.
int new_netns() {
    if (unshare(CLONE_NEWNET) != 0 || !loopback(true)) return -1;
    return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
}
void write_file(const char *path, const char *text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return;
    ssize_t r = write(fd, text, strlen(text));
    (void)r;
    close(fd);
}

int listen_at(uint16_t port, uint16_t *got, int backlog = 4096) {
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (s < 0) return -1;
    int on = 1;
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    if (bind(s, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0 || listen(s, backlog) != 0) {
        close(s);
        return -1;
    }
    socklen_t l = sizeof(a);
    getsockname(s, reinterpret_cast<sockaddr *>(&a), &l);
    if (got != nullptr) *got = ntohs(a.sin_port);
    return s;
}

// A bare command head: a heartbeat the link's parser is handed.
const char kHeartbeat[20] = {(char)0xF1, (char)0xF5, (char)0xEA, (char)0xF5, 0, 0, 20};

// ---------------------------------------------------------------- the library's side

struct LinkRec {
    _NetLink *link = nullptr;
    _NetTcpClient *client = nullptr;
    int index = 0;
    std::atomic<int> state{NET_LINK_DOWN};
    std::atomic<int64_t> down_at{0};
    std::atomic<int> down_reason{0};
};
std::atomic<int> g_up{0}, g_changes{0};
std::atomic<long> g_reasons[8];  // downs by reason

int on_state(_NetLink *, void *udata, int state, int reason) {
    LinkRec *r = static_cast<LinkRec *>(udata);
    int was = r->state.exchange(state);
    if (state == NET_LINK_UP && was != NET_LINK_UP) g_up++;
    if (state != NET_LINK_UP && was == NET_LINK_UP) g_up--;
    if (state == NET_LINK_DOWN) g_reasons[reason & 7]++;
    if (state == NET_LINK_DOWN && r->down_at.load() == 0) {
        r->down_reason = reason;
        r->down_at = now_ms();
    }
    g_changes++;
    return 0;
}
int on_packet(_NetLink *, void *, int, char *, int) { return 0; }

// The links go before their records: a link left running would report the peer's end into freed records.
void destroy_links(std::vector<LinkRec> &links) {
    for (LinkRec &r : links)
        if (r.link != nullptr) net_link_destroy(r.link), r.link = nullptr;
}

bool make_link(LinkRec &r, int index, uint16_t port, const NetLinkSupervision &sup) {
    r.index = index;
    r.link = net_link_create();
    r.client = net_tcp_client_create();
    if (r.link == nullptr || r.client == nullptr) return false;
    net_link_set_udata(r.link, &r);
    net_link_bind_parase_protocol(r.link, on_packet);
    net_link_bind_state(r.link, on_state);
    net_tcp_client_set_remote(r.client, "127.0.0.1", port);
    net_link_set_core(r.link, r.client);
    return net_link_supervise(r.link, &sup) == 0 && net_tcp_client_open(r.client, -1) == 1;
}

// ---------------------------------------------------------------- device peers (child processes)

struct PeerShared {
    std::atomic<int> stop;
    std::atomic<int> accepted;
    std::atomic<int> ready;
    std::atomic<long> cycles;
    std::atomic<long> lag_over;      // returns not followed by a connection within the bound
    std::atomic<long> bind_fail;
    std::atomic<long> lag_hist[64];  // reconnect lag after a return, in 25 ms steps (last: beyond)
    std::atomic<int64_t> lag_max;
};
PeerShared *shared_block() {
    void *p = mmap(nullptr, sizeof(PeerShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : new (p) PeerShared();
}

// Accepts on every listener, keeps the connections, discards what arrives, and sends a heartbeat
// on every connection each heartbeat_ms (0: never).
[[noreturn]] void devices_child(std::vector<int> listeners, PeerShared *sh, int heartbeat_ms) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int ep = epoll_create1(EPOLL_CLOEXEC);
    for (int ls : listeners) {
        epoll_event ev = {};
        ev.events = EPOLLIN;
        ev.data.u64 = (uint64_t)ls | (1ull << 32);
        epoll_ctl(ep, EPOLL_CTL_ADD, ls, &ev);
    }
    std::vector<int> conns;
    static char buf[65536];
    epoll_event evs[512];
    int64_t next_beat = now_ms() + heartbeat_ms;
    while (!sh->stop.load()) {
        int k = epoll_wait(ep, evs, 512, 20);
        for (int i = 0; i < k; i++) {
            int fd = (int)(uint32_t)evs[i].data.u64;
            if (evs[i].data.u64 >> 32) {
                int c;
                while ((c = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0) {
                    epoll_event e = {};
                    e.events = EPOLLIN;
                    e.data.u64 = (uint64_t)c;
                    epoll_ctl(ep, EPOLL_CTL_ADD, c, &e);
                    conns.push_back(c);
                    sh->accepted++;
                }
                continue;
            }
            ssize_t r = recv(fd, buf, sizeof(buf), 0);
            if (r == 0 || (r < 0 && errno != EAGAIN && errno != EINTR)) epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr);
        }
        if (heartbeat_ms > 0 && (int64_t)now_ms() >= next_beat) {
            next_beat += heartbeat_ms;
            for (int c : conns) {
                ssize_t r = send(c, kHeartbeat, sizeof(kHeartbeat), MSG_NOSIGNAL | MSG_DONTWAIT);
                (void)r;
            }
        }
    }
    _exit(0);
}

pid_t start_child(PeerShared *sh, const std::vector<int> &listeners, int heartbeat_ms) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) devices_child(listeners, sh, heartbeat_ms);
    return pid;
}
void stop_child(PeerShared *sh, pid_t pid) {
    if (pid <= 0) return;
    sh->stop = 1;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// ---------------------------------------------------------------- vanish

int shape_vanish() {
    const int n = env_int("FLEET_VANISH_LINKS", 1000), gone = n / 10;
    // FLEET_VANISH_IDLE_MS=0 leaves keepalive and the send bound alone to find the vanished devices.
    const char *idle_env = getenv("FLEET_VANISH_IDLE_MS");
    const NetLinkSupervision sup = {idle_env != nullptr ? atoi(idle_env) : 3000, 2, 0, 0, 0};
    // The idle time-out comes first (the devices send every 500 ms); without it the kernel's
    // keepalive ends the connection 2 * keepalive_s after the last acknowledged byte, at the next
    // probe (every keepalive_s / 3 s, at least 1).
    const int probe_s = sup.keepalive_s / 3 > 0 ? sup.keepalive_s / 3 : 1;
    const int bound_ms = sup.idle_ms > 0 ? sup.idle_ms : (2 * sup.keepalive_s + probe_s) * 1000;
    raise_nofile((rlim_t)(2 * n + 512));
    int ns_main = new_netns(), ns_gone = ns_main >= 0 ? new_netns() : -1;
    if (ns_main < 0 || ns_gone < 0) {
        printf("RESULT korvex vanish FAIL | no network namespace (needs CAP_SYS_ADMIN): %s\n", strerror(errno));
        return 1;
    }
    uint16_t port_gone = 0, port_main = 0;
    int ls_gone = listen_at(0, &port_gone);  // in the namespace that vanishes
    setns(ns_main, CLONE_NEWNET);
    int ls_main = listen_at(0, &port_main);
    PeerShared *sh = shared_block();
    pid_t child = start_child(sh, {ls_main, ls_gone}, 500);
    close(ls_main), close(ls_gone);
    LogCapture log;
    log.start();
    sdk_os_startup((uint32_t)n, 1);
    std::vector<LinkRec> links((size_t)n);
    int made = 0;
    setns(ns_gone, CLONE_NEWNET);  // a socket belongs to the namespace of the thread that makes it
    for (int i = 0; i < gone; i++) made += make_link(links[(size_t)i], i, port_gone, sup);
    setns(ns_main, CLONE_NEWNET);
    for (int i = gone; i < n; i++) made += make_link(links[(size_t)i], i, port_main, sup);
    bool all_up = wait_until([&] { return g_up.load() == n; }, 30000);
    sleep_ms(1500);  // heartbeats flowing
    setns(ns_gone, CLONE_NEWNET);
    bool cut = loopback(false);
    setns(ns_main, CLONE_NEWNET);
    const int64_t t0 = now_ms();
    auto gone_down = [&] {
        int k = 0;
        for (int i = 0; i < gone; i++) k += links[(size_t)i].down_at.load() != 0;
        return k;
    };
    wait_until([&] { return gone_down() == gone; }, bound_ms + 3000);
    sleep_ms(1000);  // the others keep going a while longer
    std::vector<int64_t> after;
    int reasons[8] = {0};
    for (int i = 0; i < gone; i++) {
        const LinkRec &r = links[(size_t)i];
        if (r.down_at.load() == 0) continue;
        after.push_back(r.down_at.load() - t0);
        reasons[r.down_reason.load() & 7]++;
    }
    std::sort(after.begin(), after.end());
    int others_down = 0;
    for (int i = gone; i < n; i++) others_down += links[(size_t)i].state.load() != NET_LINK_UP;
    const int64_t worst = after.empty() ? -1 : after.back();
    destroy_links(links);
    log.stop();
    stop_child(sh, child);
    bool ok = made == n && all_up && cut && (int)after.size() == gone && worst <= bound_ms + 1000 && others_down == 0;
    printf("RESULT korvex vanish %s | links %d (idle_ms %d, keepalive_s %d), all up %s | %d devices vanished "
           "(loopback of their namespace down): %zu reported down after %lld ms median, %lld ms max (bound %d "
           "+ 1000 ms); reasons idle %d, keepalive %d, other %d | the other %d: %d down | load %s\n",
           ok ? "PASS" : "FAIL", n, sup.idle_ms, sup.keepalive_s, all_up ? "yes" : "no", gone, after.size(),
           after.empty() ? -1LL : (long long)after[after.size() / 2], (long long)worst, bound_ms,
           reasons[NET_LINK_IDLE], reasons[NET_LINK_KEEPALIVE],
           (int)after.size() - reasons[NET_LINK_IDLE] - reasons[NET_LINK_KEEPALIVE], n - gone, others_down,
           loadavg().c_str());
    fflush(stdout);
    return ok ? 0 : 1;
}

// ---------------------------------------------------------------- flap

// The devices of the flap shape, in a child process: each is a listener on a port of its own that
// keeps one connection for up_ms, then closes it (a FIN, or every other time a reset) and stops
// listening for away_ms, and then listens again. A cycle is a return followed by the link's
// connection; its lag is the time from the return to the accept.
struct Device {
    int ls = -1, conn = -1;
    int64_t next = 0, back_at = 0;
    int phase = 0;  // 0 away, 1 listening, 2 connected
    unsigned resets = 0;
};
[[noreturn]] void flap_child(PeerShared *sh, int n, uint16_t port0, int seconds, int bound_ms) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<Device> dev((size_t)n);
    int ep = epoll_create1(EPOLL_CLOEXEC);
    uint64_t rng = 0x9E3779B97F4A7C15ull ^ (uint64_t)getpid();
    auto rnd = [&](int lo, int hi) {
        rng ^= rng << 13, rng ^= rng >> 7, rng ^= rng << 17;
        return lo + (int)(rng % (uint64_t)(hi - lo + 1));
    };
    auto listen_dev = [&](int i, int64_t t) {
        Device &d = dev[(size_t)i];
        d.ls = listen_at((uint16_t)(port0 + i), nullptr, 8);
        if (d.ls < 0) {
            sh->bind_fail++;
            d.next = t + 10;
            return;
        }
        epoll_event e = {};
        e.events = EPOLLIN;
        e.data.u64 = (uint64_t)i;
        epoll_ctl(ep, EPOLL_CTL_ADD, d.ls, &e);
        d.phase = 1;
        d.back_at = t;
        d.next = INT64_MAX;
    };
    const int64_t t_start = now_ms();
    for (int i = 0; i < n; i++) listen_dev(i, t_start);
    sh->ready = 1;
    epoll_event evs[512];
    int64_t end = INT64_MAX;
    while (!sh->stop.load()) {
        int k = epoll_wait(ep, evs, 512, 5);
        const int64_t t = now_ms();
        if (end == INT64_MAX && sh->ready.load() == 2) {  // the window begins: the devices start to flap
            end = t + (int64_t)seconds * 1000;
            for (Device &d : dev)
                if (d.phase == 2) d.next = t + rnd(0, 400);
        }
        for (int j = 0; j < k; j++) {
            Device &d = dev[(size_t)evs[j].data.u64];
            if (d.phase != 1) continue;
            int c = accept4(d.ls, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (c < 0) continue;
            d.conn = c;
            d.phase = 2;
            epoll_ctl(ep, EPOLL_CTL_DEL, d.ls, nullptr);
            int64_t lag = t - d.back_at;
            if (end != INT64_MAX && t < end) {  // the window: cycles count
                sh->cycles++;
                sh->lag_hist[std::min<int64_t>(63, lag / 25)]++;
                if (lag > sh->lag_max.load()) sh->lag_max = lag;
                if (lag > bound_ms) sh->lag_over++;
            }
            d.next = end != INT64_MAX ? t + rnd(100, 400) : INT64_MAX;
        }
        if (end != INT64_MAX && t >= end) {
            // After the window every device comes back and stays: the links end up.
            for (int i = 0; i < n; i++)
                if (dev[(size_t)i].phase == 0) listen_dev(i, t);
            sh->ready = 3;
            continue;
        }
        for (int i = 0; i < n; i++) {
            Device &d = dev[(size_t)i];
            if (t < d.next) continue;
            if (d.phase == 2) {  // goes away
                if (d.resets++ % 2 == 0) {
                    linger lg = {1, 0};
                    setsockopt(d.conn, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
                }
                close(d.conn);
                close(d.ls);
                d.conn = d.ls = -1;
                d.phase = 0;
                d.next = t + rnd(20, 200);
            } else if (d.phase == 0) {
                listen_dev(i, t);
            }
        }
    }
    _exit(0);
}

int shape_flap() {
    const int n = env_int("FLEET_FLAP_LINKS", 1000), seconds = env_int("FLEET_FLAP_SECONDS", 60);
    const long want_cycles = env_int("FLEET_FLAP_CYCLES", 100000);
    const NetLinkSupervision sup = {5000, 0, 10, 100, 0};
    const int bound_ms = sup.reconnect_max_ms + 1000;
    raise_nofile((rlim_t)(2 * n + 512));
    if (new_netns() < 0) {
        printf("RESULT korvex flap FAIL | no network namespace (needs CAP_SYS_ADMIN): %s\n", strerror(errno));
        return 1;
    }
    // The links' own ports stay clear of the devices' ports.
    write_file("/proc/sys/net/ipv4/ip_local_port_range", "20000 60999");
    const uint16_t port0 = 10000;
    PeerShared *sh = shared_block();
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) flap_child(sh, n, port0, seconds, bound_ms);
    wait_until([&] { return sh->ready.load() >= 1; }, 10000);
    LogCapture log;
    log.start();
    sdk_os_startup((uint32_t)n, 1);
    const int fd0 = count_fds();
    const long th0 = status_field("Threads:");
    std::vector<LinkRec> links((size_t)n);
    int made = 0;
    for (int i = 0; i < n; i++) made += make_link(links[(size_t)i], i, (uint16_t)(port0 + i), sup);
    bool all_up = wait_until([&] { return g_up.load() == n; }, 30000);
    sh->ready = 2;  // the window begins
    const double c0 = cpu_s();
    const int64_t t0 = now_ms();
    long rss_early = -1, th_mid = -1;
    while (sh->ready.load() != 3 && (int64_t)now_ms() - t0 < (int64_t)seconds * 1000 + 30000) {
        sleep_ms(200);
        if (rss_early < 0 && (int64_t)now_ms() - t0 >= std::min(10, seconds / 2) * 1000) rss_early = status_field("VmRSS:");
    }
    const double window_s = (double)(now_ms() - t0) / 1000.0, cpu = cpu_s() - c0;
    const long rss_late = status_field("VmRSS:");
    th_mid = status_field("Threads:");
    const bool all_back = wait_until([&] { return g_up.load() == n; }, 10000);
    uint32_t attempts = 0, connects = 0, disconnects = 0;
    for (LinkRec &r : links) {
        NetLinkStats st;
        if (r.link != nullptr && net_link_get_stats(r.link, &st) == 0)
            attempts += st.attempts, connects += st.connects, disconnects += st.disconnects;
    }
    destroy_links(links);
    const bool fds_back = wait_until([&] { return count_fds() == fd0; }, 5000);
    const int fd1 = count_fds();
    const long th1 = status_field("Threads:");
    log.stop();
    const long cycles = sh->cycles.load(), over = sh->lag_over.load();
    long p50 = -1, p99 = -1, seen = 0;
    for (int b = 0; b < 64; b++) {
        seen += sh->lag_hist[b].load();
        if (p50 < 0 && seen * 2 >= cycles) p50 = (b + 1) * 25;
        if (p99 < 0 && seen * 100 >= cycles * 99) p99 = (b + 1) * 25;
    }
    stop_child(sh, child);
    rusage ru;
    getrusage(RUSAGE_CHILDREN, &ru);  // the device process, reaped by stop_child
    const double peer_cpu = (double)ru.ru_utime.tv_sec + ru.ru_utime.tv_usec / 1e6 + (double)ru.ru_stime.tv_sec +
                            ru.ru_stime.tv_usec / 1e6;
    const long rss_growth = rss_late - rss_early;
    bool ok = made == n && all_up && all_back && cycles >= want_cycles && over == 0 && fds_back && th1 == th0 &&
              th_mid == th0 && rss_growth < 8192;
    printf("RESULT korvex flap %s | links %d (reconnect %d..%d ms), %.0f s | cycles %ld (%.0f/s, want %ld) | "
           "up again after a return: p50 <= %ld ms, p99 <= %ld ms, max %lld ms, %ld over %d ms | link "
           "connects %u, disconnects %u (reset %ld, peer closed %ld, refused %ld, connect timed out %ld, other %ld), attempts %u | all up at the end %s | descriptors %d -> %d, threads "
           "%ld -> %ld -> %ld, RSS %ld -> %ld KB | process CPU %.1f s, device process CPU %.1f s | device bind retries %ld | load %s\n",
           ok ? "PASS" : "FAIL", n, sup.reconnect_min_ms, sup.reconnect_max_ms, window_s, cycles,
           (double)cycles / window_s, want_cycles, p50, p99, (long long)sh->lag_max.load(), over, bound_ms,
           connects, disconnects, g_reasons[NET_LINK_RESET].load(), g_reasons[NET_LINK_PEER_CLOSED].load(),
           g_reasons[NET_LINK_REFUSED].load(), g_reasons[NET_LINK_UNREACHABLE].load(),
           (long)disconnects - g_reasons[NET_LINK_RESET].load() - g_reasons[NET_LINK_PEER_CLOSED].load() -
               g_reasons[NET_LINK_REFUSED].load() - g_reasons[NET_LINK_UNREACHABLE].load(),
           attempts, all_back ? "yes" : "no", fd0, fd1, th0, th_mid, th1, rss_early,
           rss_late, cpu, peer_cpu, sh->bind_fail.load(), loadavg().c_str());
    fflush(stdout);
    return ok ? 0 : 1;
}

// ---------------------------------------------------------------- idle-supervised

int shape_idle_supervised() {
    const int n = env_int("FLEET_SUPIDLE_LINKS", 10000), seconds = env_int("FLEET_SUPIDLE_SECONDS", 10);
    const NetLinkSupervision sup = {60000, 30, 1000, 30000, 0};
    raise_nofile((rlim_t)(2 * n + 512));
    if (new_netns() < 0) {
        printf("RESULT korvex idle-supervised FAIL | no network namespace (needs CAP_SYS_ADMIN): %s\n",
               strerror(errno));
        return 1;
    }
    uint16_t port = 0;
    int ls = listen_at(0, &port);
    PeerShared *sh = shared_block();
    pid_t child = start_child(sh, {ls}, 0);
    close(ls);
    LogCapture log;
    log.start();
    sdk_os_startup((uint32_t)n, 1);
    std::vector<LinkRec> links((size_t)n);
    int made = 0;
    for (int i = 0; i < n; i++) made += make_link(links[(size_t)i], i, port, sup);
    const bool all_up = wait_until([&] { return g_up.load() == n; }, 60000);
    sleep_ms(1000);
    const int changes0 = g_changes.load();
    const double c0 = cpu_s();
    const int64_t t0 = now_ms();
    sleep_ms((int64_t)seconds * 1000);
    const double cpu = cpu_s() - c0, wall = (double)(now_ms() - t0) / 1000.0;
    const int changes = g_changes.load() - changes0;
    const bool still_up = g_up.load() == n;
    destroy_links(links);
    log.stop();
    stop_child(sh, child);
    const double share = cpu / wall * 100.0;
    bool ok = made == n && all_up && still_up && changes == 0 && share < 0.1;
    printf("RESULT korvex idle-supervised %s | links %d supervised (idle_ms %d, keepalive_s %d, reconnect %d..%d "
           "ms), all up %s | at rest %.1f s: process CPU %.4f s = %.4f%% of one core (target < 0.1%%), state "
           "changes %d, still up %s | load %s\n",
           ok ? "PASS" : "FAIL", n, sup.idle_ms, sup.keepalive_s, sup.reconnect_min_ms, sup.reconnect_max_ms,
           all_up ? "yes" : "no", wall, cpu, share, changes, still_up ? "yes" : "no", loadavg().c_str());
    fflush(stdout);
    return ok ? 0 : 1;
}

struct Shape {
    const char *name;
    int (*run)();
};
const Shape kShapes[] = {{"vanish", shape_vanish}, {"flap", shape_flap}, {"idle-supervised", shape_idle_supervised}};

}  // namespace

bool fleet_supervise_shape(const char *name) {
    for (const Shape &s : kShapes)
        if (strcmp(s.name, name) == 0) return true;
    return false;
}

int fleet_supervise_main(int argc, char **argv) {
    (void)argc;
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    alarm(300);  // a shape that hangs ends as a failure
    for (const Shape &s : kShapes)
        if (strcmp(s.name, argv[0]) == 0) return s.run();
    return 2;
}
