// Soak and load run over loopback, outside the unit suite (`make soak`). Four phases, each printing its
// figures and failing the run when a check does not hold:
//   load    - 200 links (the whole client pool) exchange command packets with an echoing peer; every
//             packet comes back once, in order, intact.
//   cycles  - connect/close cycles through bare clients and links; descriptors and threads end as
//             they began.
//   dead    - a peer that never reads while a link sends: the send queue, and with it the memory,
//             stays bounded by g_iMaxPackageBufNum.
//   timers  - threads create and destroy timers while the event thread fires them.
// Durations: SOAK_LOAD_SECONDS (60), SOAK_CYCLES (10000), SOAK_TIMER_SECONDS (10).
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "korvex/korvex.h"
#include "net/tcp_peer.h"
#include "soak_util.h"

namespace {

using namespace soak_util;

int g_failures = 0;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
const bool kSanitized = true;
#else
const bool kSanitized = false;
#endif
#else
const bool kSanitized = false;
#endif

void check(bool ok, const char *what) {
    if (!ok) {
        printf("FAILED: %s\n", what);
        g_failures++;
    }
}

int open_fds() { return count_entries("/proc/self/fd"); }
int threads() { return count_entries("/proc/self/task"); }

long rss_kb() {
    long pages = 0, resident = 0;
    FILE *f = fopen("/proc/self/statm", "r");
    if (f == nullptr) return -1;
    if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = -1;
    fclose(f);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// ---------------------------------------------------------------------------------------------
// load: one thread echoes every byte of every connection back.

struct EchoPeer {
    int lfd = -1;
    uint16_t port = 0;
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> bytes{0};
    std::thread th;

    void start(int expected) {
        lfd = listen_on("127.0.0.1", &port);
        listen(lfd, 512);
        th = std::thread([this, expected] { run(expected); });
    }
    void run(int expected) {
        std::vector<pollfd> fds;
        fds.push_back({lfd, POLLIN, 0});
        std::vector<char> buf(65536);
        while (!stop) {
            if (poll(fds.data(), fds.size(), 20) <= 0) continue;
            if ((fds[0].revents & POLLIN) && (int)fds.size() <= expected) {
                int fd = accept(lfd, nullptr, nullptr);
                if (fd >= 0) fds.push_back({fd, POLLIN, 0});
            }
            for (size_t i = 1; i < fds.size(); i++) {
                if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                ssize_t n = read(fds[i].fd, buf.data(), buf.size());
                if (n <= 0) {
                    close(fds[i].fd);
                    fds[i].fd = -1;
                    continue;
                }
                bytes += (uint64_t)n;
                // Blocking write: the library reads every connection, so the echo always drains.
                send_all(fds[i].fd, std::string(buf.data(), (size_t)n));
            }
        }
        for (auto &p : fds)
            if (p.fd >= 0) close(p.fd);
    }
    void finish() {
        stop = true;
        th.join();
    }
};

struct LoadClient {
    uint32_t id;
    _NetLink *link;
    std::atomic<uint32_t> sent{0};
    std::atomic<uint32_t> received{0};  // also the next sequence expected back
    std::atomic<uint32_t> reordered{0}, corrupt{0}, disconnects{0};
};

const int kHead = 20;

uint16_t pad_len(uint32_t seq) { return (uint16_t)((seq * 37u) % 600u); }

int load_parse(_NetLink *, void *u, int type, char *data, int len) {
    LoadClient *c = static_cast<LoadClient *>(u);
    uint32_t id, seq;
    uint16_t pad;
    if (type != LINK_HEAD_COMMAND || len < kHead + 10) {
        c->corrupt++;
        return 0;
    }
    memcpy(&id, data + kHead, 4);
    memcpy(&seq, data + kHead + 4, 4);
    memcpy(&pad, data + kHead + 8, 2);
    bool ok = id == c->id && pad == pad_len(seq) && len == kHead + 10 + pad;
    for (int i = 0; ok && i < pad; i++) ok = (uint8_t)data[kHead + 10 + i] == (uint8_t)(seq * 31 + i);
    if (!ok) c->corrupt++;
    if (seq != c->received) c->reordered++;  // a lost, duplicated or reordered packet breaks the run
    c->received = seq + 1;
    return 0;
}

int load_gone(_NetLink *, void *u) {
    static_cast<LoadClient *>(u)->disconnects++;
    return 0;
}

void phase_load() {
    const int kClients = 200, kWindow = 8;
    const int seconds = env_int("SOAK_LOAD_SECONDS", 60);
    EchoPeer peer;
    peer.start(kClients);
    std::vector<LoadClient> clients(kClients);
    int connected = 0;
    for (int i = 0; i < kClients; i++) {
        LoadClient &c = clients[i];
        c.id = (uint32_t)i;
        c.link = net_link_create();
        _NetTcpClient *tcp = net_tcp_client_create();
        if (c.link == nullptr || tcp == nullptr) break;
        net_link_set_udata(c.link, &c);
        net_link_bind_parase_protocol(c.link, load_parse);
        net_link_bind_disconnect_protocol(c.link, load_gone);
        net_tcp_client_set_remote(tcp, "127.0.0.1", peer.port);
        net_link_set_core(c.link, tcp);
        net_tcp_client_open(tcp, -1);
    }
    for (auto &c : clients)
        if (c.link != nullptr && wait_for([&] { return net_tcp_client_get_status(c.link->client) == 2; }, 10000))
            connected++;
    check(connected == kClients, "every load client connects");

    // One sender keeps up to kWindow packets of each link in flight.
    char body[10 + 600];
    uint64_t bytes = 0;
    auto t0 = std::chrono::steady_clock::now();
    while (seconds_since(t0) < seconds) {
        bool any = false;
        for (auto &c : clients) {
            if (c.link == nullptr || c.sent - c.received >= (uint32_t)kWindow) continue;
            uint32_t seq = c.sent;
            uint16_t pad = pad_len(seq);
            memcpy(body, &c.id, 4);
            memcpy(body + 4, &seq, 4);
            memcpy(body + 8, &pad, 2);
            for (int i = 0; i < pad; i++) body[10 + i] = (char)(seq * 31 + i);
            if (net_link_send_command(c.link, body, 10 + pad) < 0) {
                c.corrupt++;
                continue;
            }
            bytes += (uint64_t)(kHead + 10 + pad);
            c.sent++;
            any = true;
        }
        if (!any) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    double elapsed = seconds_since(t0);
    wait_for([&] {
        for (auto &c : clients)
            if (c.received != c.sent) return false;
        return true;
    }, 10000);
    uint64_t sent = 0, received = 0, reordered = 0, corrupt = 0, gone = 0;
    for (auto &c : clients) {
        sent += c.sent;
        received += c.received;
        reordered += c.reordered;
        corrupt += c.corrupt;
        gone += c.disconnects;
        if (c.link != nullptr) net_link_destroy(c.link);
    }
    peer.finish();
    close(peer.lfd);
    printf("load: %d clients, %.1f s, %llu packets sent, %llu echoed back (%.0f/s), %llu bytes each way; "
           "lost %llu, out of order or duplicated %llu, corrupt %llu, dropped connections %llu\n",
           connected, elapsed, (unsigned long long)sent, (unsigned long long)received, received / elapsed,
           (unsigned long long)bytes, (unsigned long long)(sent - received), (unsigned long long)reordered,
           (unsigned long long)corrupt, (unsigned long long)gone);
    check(sent > 0 && sent == received && reordered == 0 && corrupt == 0 && gone == 0,
          "every packet comes back once, in order, intact");
}

// ---------------------------------------------------------------------------------------------
// cycles: a peer that accepts and closes; clients and links come and go.

std::atomic<uint32_t> g_connects{0};
int on_connect(_NetTcpClient *, void *) {
    g_connects++;
    return 0;
}

void phase_cycles() {
    const int cycles = env_int("SOAK_CYCLES", 10000);
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    listen(lfd, 512);
    std::atomic<bool> stop{false};
    std::thread acceptor([&] {
        while (!stop) {
            int fd = accept_within(lfd, 20);
            if (fd >= 0) close(fd);
        }
    });
    int fds0 = open_fds(), thr0 = threads();
    int ok = 0;
    _NetTcpClient *reused = net_tcp_client_create();
    net_tcp_client_set_remote(reused, "127.0.0.1", port);
    net_tcp_client_bind_connect(reused, on_connect, nullptr);
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < cycles; i++) {
        uint32_t before = g_connects;
        _NetLink *link = nullptr;
        _NetTcpClient *c = reused;
        if (i % 3 != 2) {  // a new client, bare or under a link; every third cycle reopens one client
            c = net_tcp_client_create();
            net_tcp_client_set_remote(c, "127.0.0.1", port);
            net_tcp_client_bind_connect(c, on_connect, nullptr);
            if (i % 3 == 1) {
                link = net_link_create();
                net_link_set_core(link, c);
            }
        }
        net_tcp_client_open(c, -1);
        if (wait_for([&] { return g_connects != before; }, 5000)) ok++;
        if (link != nullptr)
            net_link_destroy(link);
        else if (c != reused)
            net_tcp_client_destroy(c);
        else
            net_tcp_client_close(c);
    }
    net_tcp_client_destroy(reused);
    double elapsed = seconds_since(t0);
    // The event thread drops a closed descriptor from its table on its next pass.
    wait_for([&] { return open_fds() <= fds0; }, 5000);
    int fds1 = open_fds(), thr1 = threads();
    stop = true;
    acceptor.join();
    close(lfd);
    printf("cycles: %d connect/close cycles (%d connected) in %.1f s; descriptors %d -> %d, threads %d -> %d\n",
           cycles, ok, elapsed, fds0, fds1, thr0, thr1);
    check(ok == cycles, "every cycle connects");
    check(fds1 == fds0 && thr1 == thr0, "descriptors and threads end as they began");
}

// ---------------------------------------------------------------------------------------------
// dead: the peer accepts and never reads.

void dead_peer_run(int limit) {
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port, 4096);
    _NetLink *link = net_link_create();
    _NetTcpClient *tcp = net_tcp_client_create();
    net_tcp_client_set_remote(tcp, "127.0.0.1", port);
    net_link_set_core(link, tcp);
    net_tcp_client_open(tcp, -1);
    int peer = accept_within(lfd);
    wait_for([&] { return net_tcp_client_get_status(tcp) == 2; });
    sdk_os_set_max_package_buf(limit);
    const int kPackets = 5 * limit + 1000, kBody = 1000;
    std::vector<char> body(kBody, 'd');
    long rss0 = rss_kb(), peak = rss0;
    uint32_t longest = 0, drops = 0, prev = 0;
    int failed = 0;
    for (int i = 0; i < kPackets; i++) {
        if (net_link_send_command(link, body.data(), kBody) < 0) failed++;
        sdk_mutex_lock(link->mtx_send);
        uint32_t n = adt_dlist_size(link->send_buf_ls);
        sdk_mutex_unlock(link->mtx_send);
        if (n < prev) drops++;
        prev = n;
        if (n > longest) longest = n;
        if (i % 256 == 0) peak = std::max(peak, rss_kb());
    }
    peak = std::max(peak, rss_kb());
    net_link_destroy(link);
    close(peer);
    close(lfd);
    sdk_os_set_max_package_buf(20000);
    printf("dead peer: limit %d blocks, %d packets of %d bytes sent, %d refused; longest queue %u blocks, "
           "queue dropped %u times; resident memory %ld kB -> peak %ld kB (+%ld kB, %.0f bytes per block "
           "allowed), %ld kB after the link is gone\n",
           limit, kPackets, kBody + kHead, failed, longest, drops, rss0, peak, peak - rss0,
           (peak - rss0) * 1024.0 / limit, rss_kb());
    check(failed == 0 && longest <= (uint32_t)limit && drops > 0, "the queue never passes the limit");
    // Sanitizer runtimes add shadow memory to every allocation; the bound holds for plain builds.
    if (!kSanitized)
        check((peak - rss0) * 1024 < (long)limit * 2 * (kBody + kHead) + (8 << 20), "memory stays bounded");
}

void phase_dead_peer() {
    dead_peer_run(2000);
    dead_peer_run(20000);
}

// ---------------------------------------------------------------------------------------------
// timers: created and destroyed from several threads while the event thread fires them.

struct TimerToken {
    std::atomic<_SdkTimer *> timer{nullptr};
    std::atomic<bool> dead{false};
    std::atomic<uint32_t> fired{0};
};
std::atomic<uint32_t> g_late_fires{0}, g_self_destroyed{0};

int timer_fire(void *u) {
    TimerToken *t = static_cast<TimerToken *>(u);
    if (t->dead) g_late_fires++;
    if (t->fired++ == 1) {  // a timer may end itself from its own callback
        _SdkTimer *mine = t->timer.exchange(nullptr);
        if (mine != nullptr && sdk_timer_destroy(mine) == 1) {
            t->dead = true;
            g_self_destroyed++;
        }
    }
    return 0;
}

void phase_timers() {
    const int seconds = env_int("SOAK_TIMER_SECONDS", 10), kThreads = 4;
    std::mutex m;
    std::vector<TimerToken *> all;
    std::atomic<uint32_t> created{0}, destroyed{0};
    auto t0 = std::chrono::steady_clock::now();
    std::vector<std::thread> ths;
    for (int k = 0; k < kThreads; k++)
        ths.emplace_back([&, k] {
            unsigned r = 12345u + (unsigned)k;
            std::vector<TimerToken *> mine;
            while (seconds_since(t0) < seconds) {
                r = r * 1103515245u + 12345u;
                if (mine.size() < 200 || (r >> 16) % 2 == 0) {
                    TimerToken *t = new TimerToken;
                    _SdkTimer *h = sdk_timer_create(timer_fire, (r >> 8) % 2000, t);
                    t->timer = h;
                    if (h != nullptr) created++;
                    mine.push_back(t);
                } else {
                    size_t at = (r >> 16) % mine.size();
                    _SdkTimer *h = mine[at]->timer.exchange(nullptr);
                    if (h != nullptr && sdk_timer_destroy(h) == 1) {
                        mine[at]->dead = true;
                        destroyed++;
                    }
                    std::lock_guard<std::mutex> g(m);
                    all.push_back(mine[at]);
                    mine.erase(mine.begin() + (long)at);
                }
                std::this_thread::sleep_for(std::chrono::microseconds(2000 + (r >> 20) % 8000));
            }
            for (TimerToken *t : mine) {
                _SdkTimer *h = t->timer.exchange(nullptr);
                if (h != nullptr && sdk_timer_destroy(h) == 1) {
                    t->dead = true;
                    destroyed++;
                }
                std::lock_guard<std::mutex> g(m);
                all.push_back(t);
            }
        });
    for (auto &t : ths) t.join();
    // Two more ticks: nothing destroyed may fire.
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    uint64_t fired = 0;
    for (TimerToken *t : all) {
        fired += t->fired;
        delete t;
    }
    printf("timers: %d threads, %u created, %u destroyed by their threads and %u by their own callback, "
           "%llu callbacks run, %u after destruction\n",
           kThreads, created.load(), destroyed.load(), g_self_destroyed.load(), (unsigned long long)fired,
           g_late_fires.load());
    check(created == destroyed + g_self_destroyed && fired > 0 && g_late_fires == 0,
          "every timer ends once and fires only while it lives");
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int fds_start = open_fds(), thr_start = threads();
    if (sdk_os_startup(0, 1) != 1) {
        printf("FAILED: startup\n");
        return 1;
    }
    int fds0 = open_fds(), thr0 = threads();
    printf("process: %d descriptors and %d threads before startup, %d and %d after\n", fds_start, thr_start,
           fds0, thr0);
    phase_load();
    phase_cycles();
    phase_dead_peer();
    phase_timers();
    wait_for([&] { return open_fds() <= fds0; }, 5000);
    printf("process: %d descriptors and %d threads at the end (%d and %d after startup)\n", open_fds(), threads(),
           fds0, thr0);
    check(open_fds() == fds0 && threads() == thr0, "the soak ends on the descriptors and threads it began with");
    printf("%s\n", g_failures == 0 ? "soak: all checks held" : "soak: FAILED");
    return g_failures == 0 ? 0 : 1;
}
