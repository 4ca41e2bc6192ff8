// Video-server shapes of the fleet (`make fleet`): korvex links on traffic shaped like a video
// management server's, measured the same way as the libuv anchor of the same shapes (uvvideo), so the
// two can be run beside each other and compared line by line. The wire, the peers and the per-packet
// accounting follow the anchor's: peers run in a forked child, so getrusage(RUSAGE_SELF) holds the
// library's threads (and the sender thread of the send shape) alone.
//
//   cameras N   N links, each a 25 fps stream of 1420-byte data packets (20-byte head, 1400-byte body
//               {u32 peer link id, u32 packet seq, u64 send stamp, u32 frame, filler}), 4.016 Mbit/s,
//               a 99 KB key frame every 2 s: CPU per delivered Gbit/s, delivery lag p50/p99/max.
//   control N   cameras N plus one more link that sends a command every 10 ms (net_link_send_command)
//               to a peer that echoes it: round trip p50/p99/max.
//   send N      N links, a 64 KiB message per link per second through net_link_send_data; the peer
//               reads and checks every chunk (head seq, message and chunk numbers): CPU per delivered
//               Gbit/s, message lag (stamp to the last chunk read) p50/p99/max.
// Each prints one "RESULT impl=korvex mode=... key=value ..." line with the anchor's keys; every
// packet is checked (lost, ooo and bad count packets missing, out of order and malformed). The exit
// code is 1 when a link did not connect or a packet check failed.
#include <arpa/inet.h>
#include <errno.h>
#include <math.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
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
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "korvex/korvex.h"

#include "fleet_video.h"
#include "soak_util.h"

namespace {

using namespace soak_util;

// ---------------------------------------------------------------- helpers

void loadavg(char *out, size_t n) {
    out[0] = 0;
    FILE *f = fopen("/proc/loadavg", "r");
    if (f == nullptr) return;
    double a, b, c;
    if (fscanf(f, "%lf %lf %lf", &a, &b, &c) == 3) snprintf(out, n, "%.2f/%.2f/%.2f", a, b, c);
    fclose(f);
}
// Busy and total jiffies of all CPUs: the machine's load during the window.
struct CpuStat {
    unsigned long long busy = 0, total = 0;
};
CpuStat machine_stat() {
    CpuStat r;
    unsigned long long v[8] = {0};
    FILE *f = fopen("/proc/stat", "r");
    if (f == nullptr) return r;
    if (fscanf(f, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6],
               &v[7]) == 8) {
        for (int i = 0; i < 8; i++) r.total += v[i];
        r.busy = r.total - v[3] - v[4];
    }
    fclose(f);
    return r;
}
double machine_cores(CpuStat a, CpuStat b) {
    long ncpu = sysconf(_SC_NPROCESSORS_ONLN);
    return b.total > a.total ? (double)(b.busy - a.busy) / (double)(b.total - a.total) * (double)ncpu : 0;
}
void *shared_map(size_t n) {
    void *p = mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

// Little-endian fields.
inline void wr16(uint8_t *p, uint16_t v) { p[0] = (uint8_t)v, p[1] = (uint8_t)(v >> 8); }
inline void wr32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; i++) p[i] = (uint8_t)(v >> (8 * i));
}
inline void wr64(uint8_t *p, uint64_t v) {
    for (int i = 0; i < 8; i++) p[i] = (uint8_t)(v >> (8 * i));
}
inline uint16_t rd16(const uint8_t *p) { return (uint16_t)(p[0] | p[1] << 8); }
inline uint32_t rd32(const uint8_t *p) {
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}
inline uint64_t rd64(const uint8_t *p) { return (uint64_t)rd32(p) | (uint64_t)rd32(p + 4) << 32; }

// ---------------------------------------------------------------- wire

enum { HEAD = 20, BODY = 1400, PKT = HEAD + BODY, MAXBODY = 1440, MAXPKT = 1460 };
const uint8_t kDataMagic[4] = {0xF1, 0xF5, 0xEA, 0xF9};

void data_head(uint8_t *h, uint32_t seq, int body_len, uint32_t addr) {
    memset(h, 0, HEAD);
    memcpy(h, kDataMagic, 4);
    wr32(h + 4, seq);
    memcpy(h + 8, &addr, 4);
    wr16(h + 14, (uint16_t)(body_len + HEAD));
    wr32(h + 16, 1);
}

// ---------------------------------------------------------------- latency histogram
// 1 us buckets up to 2 s (the last takes everything above); count, sum and max exact. Shared, so
// that the peer child can fill it too.
constexpr uint32_t kHistN = 2000000;
struct Hist {
    uint64_t n, sum_ns, max_ns;
    uint32_t b[kHistN];
};
Hist *hist_new() { return static_cast<Hist *>(shared_map(sizeof(Hist))); }
inline void hist_add(Hist *h, uint64_t ns) {
    uint64_t us = ns / 1000;
    h->b[us < kHistN ? us : kHistN - 1]++;
    h->n++;
    h->sum_ns += ns;
    if (ns > h->max_ns) h->max_ns = ns;
}
double hist_pct(const Hist *h, double p) {  // ms, bucket midpoint
    if (h->n == 0) return 0;
    uint64_t want = (uint64_t)ceil(p / 100.0 * (double)h->n), acc = 0;
    if (want < 1) want = 1;
    for (uint32_t i = 0; i < kHistN; i++) {
        acc += h->b[i];
        if (acc >= want) return ((double)i + 0.5) / 1000.0;
    }
    return (double)h->max_ns / 1e6;
}

// ---------------------------------------------------------------- receiver accounting (event thread)
struct RxLink {
    std::atomic<uint64_t> bytes{0};  // delivered, head included
    uint64_t pkts = 0, lost = 0, ooo = 0, bad = 0;
    uint32_t peer_id = 0, next_seq = 0;
    bool id_set = false;
};
Hist *g_lag;                       // delivery lag of packets received inside the window
std::atomic<bool> g_window{false};

void rx_packet(RxLink *l, bool is_data, const uint8_t *pkt, int len) {
    if (!is_data || len < HEAD + 16) {
        l->bad++;
        return;
    }
    const uint8_t *b = pkt + HEAD;
    uint32_t id = rd32(b), seq = rd32(b + 4);
    uint64_t ts = rd64(b + 8);
    if (!l->id_set) {
        l->peer_id = id;
        l->id_set = true;
    } else if (id != l->peer_id) {
        l->bad++;
    }
    if (seq != l->next_seq) {
        if (seq > l->next_seq) l->lost += seq - l->next_seq;
        else l->ooo++;
    }
    l->next_seq = seq + 1;
    l->bytes.store(l->bytes.load(std::memory_order_relaxed) + (uint64_t)len, std::memory_order_relaxed);
    l->pkts++;
    if (g_window.load(std::memory_order_relaxed)) {
        uint64_t t = now_ns();
        hist_add(g_lag, t > ts ? t - ts : 0);
    }
}

// ---------------------------------------------------------------- the peer child
enum { PEER_CAMERAS = 1, PEER_READER = 3 };
constexpr uint64_t kFrameNs = 40000000ull;  // 25 frames a second
constexpr uint32_t kGop = 50;               // a key frame every 2 s
constexpr int kIframePkts = 70;             // 70 x 1420 = 99,400 bytes at once
constexpr int kPframePkts = 13;             // 707 packets per 2 s = 4.016 Mbit/s
constexpr size_t kPendCap = 4u << 20;       // a camera lagging by more skips frames
constexpr int kMsgBytes = 65536;            // send shape: one message per link per second
constexpr int kMsgChunks = (kMsgBytes + MAXBODY - 1) / MAXBODY;

struct Shared {
    int n;
    int accepted, go, stop, done, window;
    uint64_t sent_bytes, built_bytes, built_frames;
    uint64_t skipped_frames, blocked, max_pending, late_max_ns;
    uint64_t rx_bytes, rx_chunks, rx_msgs, rx_lost, rx_ooo, rx_bad;
    uint64_t echo_n;
    double peer_cpu0, peer_cpu1;
    int peer_cpu_done;
};
#define SH_ADD(f, v) __atomic_add_fetch(&(f), (v), __ATOMIC_RELAXED)
#define SH_GET(f) __atomic_load_n(&(f), __ATOMIC_ACQUIRE)
#define SH_SET(f, v) __atomic_store_n(&(f), (v), __ATOMIC_RELEASE)

// Samples the peer's own CPU when the window opens and when it closes.
void peer_window_watch(Shared *sh, int *state) {
    if (*state == 0 && SH_GET(sh->window)) {
        sh->peer_cpu0 = cpu_s();
        *state = 1;
    } else if (*state == 1 && !SH_GET(sh->window)) {
        sh->peer_cpu1 = cpu_s();
        *state = 2;
        SH_SET(sh->peer_cpu_done, 1);
    }
}

int peer_accept_all(int ls, int n, Shared *sh, int *fds) {
    uint64_t dl = now_ns() + 30000000000ull;
    int k = 0;
    while (k < n && now_ns() < dl && !SH_GET(sh->stop)) {
        pollfd p = {ls, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        int c = accept4(ls, nullptr, nullptr, SOCK_NONBLOCK);
        if (c < 0) continue;
        int one = 1;
        setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        fds[k++] = c;
        SH_SET(sh->accepted, k);
    }
    return k;
}

// Echo of the control link: one connection, every byte straight back.
void peer_echo(int ls, Shared *sh) {
    int c = -1;
    while (!SH_GET(sh->stop) && c < 0) {
        pollfd p = {ls, POLLIN, 0};
        if (poll(&p, 1, 100) > 0) c = accept(ls, nullptr, nullptr);
    }
    if (c < 0) return;
    int one = 1;
    setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    char buf[8192];
    while (!SH_GET(sh->stop)) {
        pollfd q = {c, POLLIN, 0};
        if (poll(&q, 1, 100) <= 0) continue;
        ssize_t r = recv(c, buf, sizeof(buf), 0);
        if (r <= 0 || !write_all(c, buf, (size_t)r)) break;
        SH_ADD(sh->echo_n, 1);
    }
    close(c);
}

// Cameras: frames cut into 1420-byte packets and written at once, frame clocks and key-frame phases
// spread over the links; frames are made on a 1 ms tick, and a socket that refuses bytes keeps them
// and is flushed as soon as it is writable. The stamp is the time the frame is made.
struct Cam {
    int fd;
    uint32_t id, seq, frame;
    uint64_t due;
    uint8_t *buf;
    size_t cap, off, len;
    bool armed;
};
void cam_build(Cam *c, int pkts, uint64_t stamp) {
    if (c->off > 0) {
        memmove(c->buf, c->buf + c->off, c->len - c->off);
        c->len -= c->off;
        c->off = 0;
    }
    size_t need = c->len + (size_t)pkts * PKT;
    if (need > c->cap) {
        size_t nc = c->cap ? c->cap : 131072;
        while (nc < need) nc *= 2;
        uint8_t *nb = static_cast<uint8_t *>(realloc(c->buf, nc));
        if (nb == nullptr) abort();
        c->buf = nb;
        memset(c->buf + c->cap, 0x5A, nc - c->cap);
        c->cap = nc;
    }
    for (int k = 0; k < pkts; k++) {
        uint8_t *p = c->buf + c->len;
        data_head(p, c->seq, BODY, htonl(INADDR_LOOPBACK));
        wr32(p + HEAD, c->id);
        wr32(p + HEAD + 4, c->seq);
        wr64(p + HEAD + 8, stamp);
        wr32(p + HEAD + 16, c->frame);
        c->seq++;
        c->len += PKT;
    }
}
void cam_flush(Cam *c, int ep, Shared *sh) {
    if (c->len == c->off) return;
    ssize_t w = send(c->fd, c->buf + c->off, c->len - c->off, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (w > 0) {
        c->off += (size_t)w;
        SH_ADD(sh->sent_bytes, (uint64_t)w);
    }
    if (c->off == c->len) {
        c->off = c->len = 0;
    } else if (!c->armed) {
        epoll_event ev = {};
        ev.events = EPOLLOUT | EPOLLONESHOT;
        ev.data.u32 = c->id;
        epoll_ctl(ep, EPOLL_CTL_MOD, c->fd, &ev);
        c->armed = true;
        SH_ADD(sh->blocked, 1);
    }
}
void peer_cameras(int n, int *fds, Shared *sh) {
    Cam *cams = static_cast<Cam *>(calloc((size_t)n, sizeof(Cam)));
    int ep = epoll_create1(0);
    int tfd = timerfd_create(CLOCK_MONOTONIC, 0);
    itimerspec its = {{0, 1000000}, {0, 1000000}};
    timerfd_settime(tfd, 0, &its, nullptr);
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.u32 = 0xFFFFFFFFu;
    epoll_ctl(ep, EPOLL_CTL_ADD, tfd, &ev);
    const uint64_t t0 = now_ns();
    for (int i = 0; i < n; i++) {
        Cam *c = &cams[i];
        c->fd = fds[i];
        c->id = (uint32_t)i;
        c->due = t0 + (uint64_t)i * kFrameNs / (uint64_t)n;
        c->frame = (uint32_t)((uint64_t)i * kGop / (uint64_t)n);
        epoll_event e = {};
        e.data.u32 = (uint32_t)i;
        epoll_ctl(ep, EPOLL_CTL_ADD, c->fd, &e);
    }
    epoll_event evs[256];
    int wstate = 0;
    while (!SH_GET(sh->stop)) {
        int k = epoll_wait(ep, evs, 256, 100);
        peer_window_watch(sh, &wstate);
        for (int j = 0; j < k; j++) {
            uint32_t id = evs[j].data.u32;
            if (id == 0xFFFFFFFFu) {
                uint64_t ticks;
                if (read(tfd, &ticks, sizeof(ticks)) < 0) {
                }
                uint64_t now = now_ns(), pend_max = 0;
                for (int i = 0; i < n; i++) {
                    Cam *c = &cams[i];
                    while (c->due <= now) {
                        uint64_t late = now - c->due;
                        if (SH_GET(sh->window) && late > sh->late_max_ns) sh->late_max_ns = late;
                        if (c->len - c->off > kPendCap) {
                            SH_ADD(sh->skipped_frames, 1);
                        } else {
                            int pk = c->frame % kGop == 0 ? kIframePkts : kPframePkts;
                            cam_build(c, pk, now);
                            SH_ADD(sh->built_bytes, (uint64_t)pk * PKT);
                            SH_ADD(sh->built_frames, 1);
                        }
                        c->frame++;
                        c->due += kFrameNs;
                    }
                    if (!c->armed) cam_flush(c, ep, sh);
                    if (c->len - c->off > pend_max) pend_max = c->len - c->off;
                }
                if (pend_max > sh->max_pending) sh->max_pending = pend_max;
            } else if (id < (uint32_t)n) {
                Cam *c = &cams[id];
                c->armed = false;
                cam_flush(c, ep, sh);
            }
        }
    }
}

// Reader of the send shape: reads every link with a 64 KiB buffer and checks each data chunk: the
// head's sequence number, and the record at the start of each body {u32 link tag, u32 message seq,
// u32 chunk index, u32 chunk count, u64 send stamp}; a message's lag is taken at its last chunk.
struct RdConn {
    uint8_t carry[MAXPKT];
    int carry_len;
    uint32_t head_seq, msg, chunk, tag;
    bool started;
};
void reader_chunk(RdConn *c, const uint8_t *p, int len, Shared *sh, Hist *lag) {
    const uint8_t *b = p + HEAD;
    uint32_t hseq = rd32(p + 4), tag = rd32(b), msg = rd32(b + 4), chunk = rd32(b + 8), nch = rd32(b + 12);
    uint64_t ts = rd64(b + 16);
    if (!c->started) {
        c->started = true;
        c->tag = tag;
        c->head_seq = hseq;
        c->msg = msg;
        c->chunk = 0;
    }
    if (tag != c->tag || len < HEAD + 24) SH_ADD(sh->rx_bad, 1);
    if (hseq != c->head_seq) SH_ADD(sh->rx_lost, 1);
    c->head_seq = hseq + 1;
    if (msg != c->msg || chunk != c->chunk) {
        if (msg < c->msg || (msg == c->msg && chunk < c->chunk)) SH_ADD(sh->rx_ooo, 1);
        else SH_ADD(sh->rx_lost, 1);
    }
    c->msg = msg;
    c->chunk = chunk + 1;
    SH_ADD(sh->rx_chunks, 1);
    if (chunk + 1 == nch) {
        c->msg = msg + 1;
        c->chunk = 0;
        SH_ADD(sh->rx_msgs, 1);
        if (SH_GET(sh->window)) {
            uint64_t t = now_ns();
            hist_add(lag, t > ts ? t - ts : 0);
        }
    }
}
void peer_reader(int n, int *fds, Shared *sh, Hist *lag) {
    RdConn *cs = static_cast<RdConn *>(calloc((size_t)n, sizeof(RdConn)));
    int ep = epoll_create1(0);
    for (int i = 0; i < n; i++) {
        epoll_event e = {};
        e.events = EPOLLIN;
        e.data.u32 = (uint32_t)i;
        epoll_ctl(ep, EPOLL_CTL_ADD, fds[i], &e);
    }
    static uint8_t buf[MAXPKT + 65536];
    epoll_event evs[256];
    int wstate = 0;
    while (!SH_GET(sh->stop)) {
        int k = epoll_wait(ep, evs, 256, 100);
        peer_window_watch(sh, &wstate);
        for (int j = 0; j < k; j++) {
            int i = (int)evs[j].data.u32;
            RdConn *c = &cs[i];
            memcpy(buf, c->carry, (size_t)c->carry_len);
            ssize_t r = recv(fds[i], buf + c->carry_len, 65536, MSG_DONTWAIT);
            if (r <= 0) {
                if (r == 0 || (errno != EAGAIN && errno != EINTR)) epoll_ctl(ep, EPOLL_CTL_DEL, fds[i], nullptr);
                continue;
            }
            SH_ADD(sh->rx_bytes, (uint64_t)r);
            int have = c->carry_len + (int)r, at = 0;
            while (have - at >= HEAD) {
                const uint8_t *p = buf + at;
                int tot = memcmp(p, kDataMagic, 4) == 0 ? rd16(p + 14) : 0;
                if (tot < HEAD || tot > MAXPKT) {  // not a head: count, pass over one byte
                    SH_ADD(sh->rx_bad, 1);
                    at++;
                    continue;
                }
                if (have - at < tot) break;
                reader_chunk(c, p, tot, sh, lag);
                at += tot;
            }
            c->carry_len = have - at;
            memcpy(c->carry, buf + at, (size_t)c->carry_len);
        }
    }
}

// Forks the peer: it accepts n connections on ls (and the control link on echo_ls when not -1),
// waits for go, serves until stop, sets done and ends. Called before the library starts, so the
// child holds no library thread.
pid_t peer_start(int mode, int n, int ls, int echo_ls, Shared *sh, Hist *lag) {
    sh->n = n;
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(150);
    std::thread echo;
    if (echo_ls >= 0) echo = std::thread(peer_echo, echo_ls, sh);
    int *fds = static_cast<int *>(calloc((size_t)n, sizeof(int)));
    int k = peer_accept_all(ls, n, sh, fds);
    while (!SH_GET(sh->go) && !SH_GET(sh->stop)) sleep_ms(1);
    if (mode == PEER_CAMERAS) peer_cameras(k, fds, sh);
    else peer_reader(k, fds, sh, lag);
    if (echo.joinable()) echo.join();
    SH_SET(sh->done, 1);
    _exit(0);
}
void peer_stop(pid_t pid, Shared *sh) {
    if (pid <= 0) return;
    SH_SET(sh->stop, 1);
    wait_until([&] { return SH_GET(sh->done) != 0; }, 3000);
    kill(pid, SIGKILL);  // our own child, by its pid
    waitpid(pid, nullptr, 0);
}
// " peer_cores=.. machine_cores=.." of the window.
void window_context(Shared *sh, CpuStat m0, CpuStat m1, double wall, char *out, size_t n) {
    wait_until([&] { return SH_GET(sh->peer_cpu_done) != 0; }, 1000);
    double pc = SH_GET(sh->peer_cpu_done) ? (sh->peer_cpu1 - sh->peer_cpu0) / wall : -1;
    snprintf(out, n, " peer_cores=%.3f machine_cores=%.3f", pc, machine_cores(m0, m1));
}
// Fairness over the links: min and max of the bytes each delivered, over the median; the median in
// Mbit/s. d is sorted in place.
void fairness(std::vector<uint64_t> &d, double wall, double *fmin, double *fmed, double *fmax) {
    std::sort(d.begin(), d.end());
    double med = (double)d[d.size() / 2];
    *fmin = med > 0 ? (double)d[0] / med : 0;
    *fmed = med * 8 / wall / 1e6;
    *fmax = med > 0 ? (double)d.back() / med : 0;
}

// ---------------------------------------------------------------- korvex links

struct Conn {
    _NetLink *link = nullptr;
    _NetTcpClient *client = nullptr;
    RxLink rx;
    uint32_t msg = 0;  // send shape: next message number
};
std::atomic<int> g_connected{0}, g_ended{0};

int on_connect(_NetTcpClient *, void *) {
    g_connected++;
    return 0;
}
int on_ended(_NetLink *, void *) {
    g_ended++;
    return 0;
}
int on_video(_NetLink *, void *udata, int type, char *data, int len) {
    rx_packet(&static_cast<Conn *>(udata)->rx, type == 1, reinterpret_cast<const uint8_t *>(data), len);
    return 0;
}
int on_nothing(_NetLink *, void *, int, char *, int) { return 0; }

// Opens a link to 127.0.0.1:port with the given parser; false when any step fails.
bool open_link(Conn *c, uint16_t port, NetLinkParaseCallback parser) {
    c->link = net_link_create();
    c->client = net_tcp_client_create();
    if (c->link == nullptr || c->client == nullptr) return false;
    net_link_set_udata(c->link, c);
    net_link_bind_parase_protocol(c->link, parser);
    net_link_bind_disconnect_protocol(c->link, on_ended);
    net_tcp_client_set_remote(c->client, "127.0.0.1", port);
    if (net_link_set_core(c->link, c->client) != 0) return false;
    net_tcp_client_bind_connect(c->client, on_connect, nullptr);
    return net_tcp_client_open(c->client, -1) == 1;
}

// Control link: pings stamped and sent every 10 ms from their own thread, echoed by the peer.
constexpr uint32_t kMaxPings = 8192;
uint64_t g_ping_sent[kMaxPings];
std::atomic<uint64_t> g_ping_back[kMaxPings];
std::atomic<uint32_t> g_pings{0};
std::atomic<bool> g_ping_stop{false};

int on_pong(_NetLink *, void *, int type, char *data, int len) {
    if (type != 0 || len != HEAD + 12) return 0;
    uint32_t seq = rd32(reinterpret_cast<const uint8_t *>(data) + HEAD);
    if (seq < kMaxPings && g_ping_back[seq].load() == 0) g_ping_back[seq] = now_ns();
    return 0;
}
void pinger(_NetLink *link) {
    uint64_t next = now_ns();
    for (uint32_t seq = 0; !g_ping_stop && seq < kMaxPings; seq++) {
        uint64_t t = now_ns();
        g_ping_sent[seq] = t;
        uint8_t body[12];
        wr32(body, seq);
        wr64(body + 4, t);
        g_pings.store(seq + 1, std::memory_order_release);
        net_link_send_command(link, reinterpret_cast<char *>(body), 12);
        next += 10000000ull;
        sleep_until(next);
    }
}
// " pings=.. unanswered=.. rtt_p50_ms=.. rtt_p99_ms=.. rtt_max_ms=.." for the pings of the window.
void rtt_stats(uint32_t first, uint32_t last, uint64_t w1, char *out, size_t outn, int *unanswered_out) {
    sleep_ms(300);
    uint64_t te = now_ns();
    std::vector<uint64_t> v;
    int unanswered = 0;
    for (uint32_t s = first; s < last; s++) {
        uint64_t st = g_ping_sent[s], rt = g_ping_back[s].load();
        if (st == 0 || st > w1) continue;
        if (rt == 0) unanswered++;
        v.push_back((rt ? rt : te) - st);
    }
    std::sort(v.begin(), v.end());
    auto pct = [&](size_t p) { return v.empty() ? 0 : (double)v[std::min(v.size() - 1, v.size() * p / 100)] / 1e6; };
    snprintf(out, outn, " pings=%zu unanswered=%d rtt_p50_ms=%.3f rtt_p99_ms=%.3f rtt_max_ms=%.3f", v.size(),
             unanswered, pct(50), pct(99), v.empty() ? 0 : (double)v.back() / 1e6);
    *unanswered_out = v.empty() ? 1 : unanswered;
}

void destroy_conns(std::vector<Conn> &conns) {
    for (Conn &c : conns) {
        if (c.link != nullptr) net_link_destroy(c.link);
        else if (c.client != nullptr) net_tcp_client_destroy(c.client);
        c.link = nullptr;
        c.client = nullptr;
    }
}

// ---------------------------------------------------------------- receive shapes

int run_rx(bool control, int n, int secs) {
    const long lim = raise_nofile((rlim_t)(2 * n + 512));
    uint16_t port = 0, eport = 0;
    int ls = raw_listen(&port), els = control ? raw_listen(&eport) : -1;
    Shared *sh = static_cast<Shared *>(shared_map(sizeof(Shared)));
    g_lag = hist_new();
    if (ls < 0 || (control && els < 0) || sh == nullptr || g_lag == nullptr) {
        printf("RESULT impl=korvex mode=setup-failed\n");
        return 1;
    }
    pid_t pid = peer_start(PEER_CAMERAS, n, ls, els, sh, nullptr);
    close(ls);
    if (els >= 0) close(els);
    sdk_os_startup((uint32_t)n + 1, 1);
    std::vector<Conn> conns((size_t)n);
    int made = 0;
    for (int i = 0; i < n && open_link(&conns[(size_t)i], port, on_video); i++) made++;
    wait_until([&] { return g_connected.load() >= n && SH_GET(sh->accepted) >= n; }, 30000);
    const int connected = g_connected;
    std::vector<Conn> ping(control ? 1 : 0);
    std::thread pth;
    if (control) {
        if (open_link(&ping[0], eport, on_pong)) made++;
        wait_until([&] { return g_connected.load() >= n + 1; }, 5000);
        pth = std::thread(pinger, ping[0].link);
    }
    SH_SET(sh->go, 1);
    sleep_ms(2000);
    std::vector<uint64_t> per((size_t)n);
    uint64_t b0 = 0, o0 = SH_GET(sh->built_bytes);
    for (int i = 0; i < n; i++) b0 += (per[(size_t)i] = conns[(size_t)i].rx.bytes.load(std::memory_order_relaxed));
    const uint32_t pfirst = g_pings.load(std::memory_order_acquire);
    const CpuStat m0 = machine_stat();
    const double c0 = cpu_s();
    const uint64_t t0 = now_ns(), t1 = t0 + (uint64_t)secs * 1000000000ull;
    g_window = true;
    SH_SET(sh->window, 1);
    sleep_until(t1);
    g_window = false;
    SH_SET(sh->window, 0);
    const double c1 = cpu_s();
    const uint64_t te = now_ns();
    const CpuStat m1 = machine_stat();
    const uint32_t plast = g_pings.load(std::memory_order_acquire);
    uint64_t b1 = 0;
    for (int i = 0; i < n; i++) {
        uint64_t v = conns[(size_t)i].rx.bytes.load(std::memory_order_relaxed);
        b1 += v;
        per[(size_t)i] = v - per[(size_t)i];
    }
    const uint64_t o1 = SH_GET(sh->built_bytes);
    char load[64];
    loadavg(load, sizeof(load));
    const double wall = (double)(te - t0) / 1e9;
    double fmin, fmed, fmax;
    fairness(per, wall, &fmin, &fmed, &fmax);
    char ctx[128];
    window_context(sh, m0, m1, wall, ctx, sizeof(ctx));
    char rtt[256] = "";
    int unanswered = 0;
    if (control) {
        rtt_stats(pfirst, plast, t1, rtt, sizeof(rtt), &unanswered);
        g_ping_stop = true;
        pth.join();
    }
    const int ended = g_ended;
    peer_stop(pid, sh);
    // The counters are read after the links are destroyed, which waits out a read event under way.
    destroy_conns(conns);
    destroy_conns(ping);
    uint64_t lost = 0, ooo = 0, bad = 0;
    for (const Conn &c : conns) lost += c.rx.lost, ooo += c.rx.ooo, bad += c.rx.bad;
    const double gbps = (double)(b1 - b0) * 8 / wall / 1e9, cores = (c1 - c0) / wall;
    printf("RESULT impl=korvex mode=%s n=%d secs=%.2f nofile=%ld made=%d connected=%d ended=%d gbps=%.4f "
           "offered_gbps=%.4f cores=%.4f cpu_per_gbps=%.4f lag_p50_ms=%.3f lag_p99_ms=%.3f lag_max_ms=%.3f "
           "lag_mean_ms=%.3f lag_n=%llu lost=%llu ooo=%llu bad=%llu peer_skipped_frames=%llu peer_blocked=%llu "
           "peer_max_pending=%llu peer_late_max_ms=%.2f fair_min=%.3f fair_med_mbps=%.2f fair_max=%.3f%s%s load=%s\n",
           control ? "control" : "cameras", n, wall, lim, made, connected, ended, gbps,
           (double)(o1 - o0) * 8 / wall / 1e9, cores, gbps > 0 ? cores / gbps : 0, hist_pct(g_lag, 50),
           hist_pct(g_lag, 99), (double)g_lag->max_ns / 1e6, g_lag->n ? (double)g_lag->sum_ns / 1e6 / (double)g_lag->n : 0,
           (unsigned long long)g_lag->n, (unsigned long long)lost, (unsigned long long)ooo, (unsigned long long)bad,
           (unsigned long long)SH_GET(sh->skipped_frames), (unsigned long long)SH_GET(sh->blocked),
           (unsigned long long)SH_GET(sh->max_pending), (double)SH_GET(sh->late_max_ns) / 1e6, fmin, fmed, fmax, rtt,
           ctx, load);
    fflush(stdout);
    const bool ok = connected >= n && lost == 0 && ooo == 0 && bad == 0 && g_lag->n > 0 && unanswered == 0;
    return ok ? 0 : 1;
}

// ---------------------------------------------------------------- send shape

void stamp_message(uint8_t *msg, uint32_t tag, uint32_t m, uint64_t t) {
    for (int k = 0; k < kMsgChunks; k++) {
        uint8_t *b = msg + (size_t)k * MAXBODY;
        wr32(b, tag);
        wr32(b + 4, m);
        wr32(b + 8, (uint32_t)k);
        wr32(b + 12, kMsgChunks);
        wr64(b + 16, t);
    }
}

int run_send(int n, int secs) {
    const long lim = raise_nofile((rlim_t)(2 * n + 512));
    uint16_t port = 0;
    int ls = raw_listen(&port);
    Shared *sh = static_cast<Shared *>(shared_map(sizeof(Shared)));
    Hist *lag = hist_new();
    if (ls < 0 || sh == nullptr || lag == nullptr) {
        printf("RESULT impl=korvex mode=setup-failed\n");
        return 1;
    }
    pid_t pid = peer_start(PEER_READER, n, ls, -1, sh, lag);
    close(ls);
    sdk_os_startup((uint32_t)n, 1);
    std::vector<Conn> conns((size_t)n);
    int made = 0;
    for (int i = 0; i < n && open_link(&conns[(size_t)i], port, on_nothing); i++) made++;
    wait_until([&] { return g_connected.load() >= n && SH_GET(sh->accepted) >= n; }, 30000);
    const int connected = g_connected;
    SH_SET(sh->go, 1);
    // The sender: every link gets one message a second, the links' turns spread over the second.
    std::atomic<bool> stop{false};
    std::atomic<long> sent{0}, failures{0};
    const uint64_t s_t0 = now_ns() + 10000000ull;
    std::thread sender([&] {
        static uint8_t msg[kMsgBytes];
        memset(msg, 0x33, sizeof(msg));
        for (uint64_t s = 0; !stop && s < 120; s++) {
            for (int i = 0; i < n && !stop; i++) {
                uint64_t due = s_t0 + s * 1000000000ull + (uint64_t)i * 1000000000ull / (uint64_t)n;
                if (due > now_ns() + 200000) sleep_until(due);
                Conn &c = conns[(size_t)i];
                stamp_message(msg, (uint32_t)i, c.msg++, now_ns());
                if (net_link_send_data(c.link, reinterpret_cast<char *>(msg), kMsgBytes) < 0) failures++;
                sent++;
            }
        }
    });
    sleep_ms(2000);
    const uint64_t r0 = SH_GET(sh->rx_bytes);
    const CpuStat m0 = machine_stat();
    const double c0 = cpu_s();
    const uint64_t t0 = now_ns(), t1 = t0 + (uint64_t)secs * 1000000000ull;
    SH_SET(sh->window, 1);
    sleep_until(t1);
    SH_SET(sh->window, 0);
    const double c1 = cpu_s();
    const uint64_t te = now_ns();
    const CpuStat m1 = machine_stat();
    const uint64_t r1 = SH_GET(sh->rx_bytes);
    char load[64];
    loadavg(load, sizeof(load));
    stop = true;
    sender.join();
    sleep_ms(300);
    const int ended = g_ended;
    const uint64_t msgs = SH_GET(sh->rx_msgs);
    const double wall = (double)(te - t0) / 1e9;
    char ctx[128];
    window_context(sh, m0, m1, wall, ctx, sizeof(ctx));
    peer_stop(pid, sh);
    destroy_conns(conns);
    const double gbps = (double)(r1 - r0) * 8 / wall / 1e9, cores = (c1 - c0) / wall;
    const uint64_t lost = SH_GET(sh->rx_lost), ooo = SH_GET(sh->rx_ooo), bad = SH_GET(sh->rx_bad);
    printf("RESULT impl=korvex mode=send n=%d secs=%.2f nofile=%ld made=%d connected=%d ended=%d gbps=%.4f "
           "cores=%.4f cpu_per_gbps=%.4f lag_p50_ms=%.3f lag_p99_ms=%.3f lag_max_ms=%.3f lag_mean_ms=%.3f lag_n=%llu "
           "messages_sent=%ld messages_read=%llu send_failures=%ld lost=%llu ooo=%llu bad=%llu%s load=%s\n",
           n, wall, lim, made, connected, ended, gbps, cores, gbps > 0 ? cores / gbps : 0, hist_pct(lag, 50),
           hist_pct(lag, 99), (double)lag->max_ns / 1e6, lag->n ? (double)lag->sum_ns / 1e6 / (double)lag->n : 0,
           (unsigned long long)lag->n, sent.load(), (unsigned long long)msgs, failures.load(),
           (unsigned long long)lost, (unsigned long long)ooo, (unsigned long long)bad, ctx, load);
    fflush(stdout);
    const bool ok = connected >= n && lost == 0 && ooo == 0 && bad == 0 && failures == 0 && lag->n > 0;
    return ok ? 0 : 1;
}

}  // namespace

bool fleet_video_shape(const char *name) {
    return strcmp(name, "cameras") == 0 || strcmp(name, "control") == 0 || strcmp(name, "send") == 0;
}

int fleet_video_main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: korvex_fleet cameras|control|send N [SECONDS]\n");
        return 2;
    }
    const int n = atoi(argv[1]), secs = argc > 2 ? atoi(argv[2]) : 10;
    if (n < 1 || secs < 1 || secs > 60) return 2;
    alarm((unsigned)secs + 90);
    int rc;
    if (strcmp(argv[0], "send") == 0) rc = run_send(n, secs);
    else rc = run_rx(strcmp(argv[0], "control") == 0, n, secs);
    fflush(stdout);
    fflush(stderr);
    _exit(rc);  // the library's threads run to the end of the process
}
