// Chaos soak (`make chaos`), outside the unit suite: device sessions under churn, through the public
// header and the shared library alone.
//
//   links   - CHAOS_LINKS (1000) links, each against its own loopback peer address (127.1.x.y, one
//             port) served by a forked child process. The child talks to every connection and, at
//             random, resets it (SO_LINGER 0), closes it, stalls it (stops reading, and holds half a
//             packet), or refuses (closes the peer's listener, resets its connections) and comes back.
//   senders - 8 threads send on random links (half of the sends on 8 hot links, so that threads meet
//             on one link): net_link_send_command, net_link_send_data (1 to 3 chunks) and
//             net_link_send_package (runs of 1 to 3 whole packets).
//   app     - one thread reconnects dropped links (net_tcp_client_open(client, -1)), closes links,
//             reattaches links to new clients (net_link_set_core), reopens and destroys the old
//             clients, and destroys and re-creates links while their peers still talk.
//   timers  - one thread creates and destroys timers; timer callbacks create timers and destroy their
//             own and other timers.
//
// Every body carries the link's identity (slot and generation), the connection epoch the sender saw,
// a sequence number and an FNV-1a checksum. The child checks each stream: a packet of another link
// is foreign, a head whose body fails the checksum is spliced, bytes outside packets are noise, and
// the heads' sequence numbers must rise on each connection. The links check what the peers send
// them the same way (slot, checksum, no gap within a peer connection).
//
// Loss: a connection epoch starts with the client's on_connect. A send that reported success (>= 0)
// after the link's epoch E began is counted for E. At each checkpoint (every CHAOS_ROUND_SECONDS,
// and at the end) senders and chaos pause; for every link whose epoch E is still up (never dropped
// by anyone), the peer must have received every packet counted for E. The load is sized so that no
// send queue overflows (each overflow would be logged; the count is shown and must be 0).
//
// At the end every link, client and timer is destroyed: descriptors (/proc/self/fd), threads
// (/proc/self/task) and heap bytes in use are back to their count after the start (the library's
// event and timer threads stay by design), and the child sees every connection closed.
//
// Environment: CHAOS_SECONDS (600), CHAOS_LINKS (1000), CHAOS_SENDERS (8), CHAOS_SEND_PAUSE_US
// (1000, per sender between two sends), CHAOS_ROUND_SECONDS (30), CHAOS_MEAN_LIFE_MS (6000, mean
// time between two peer actions on a connection), CHAOS_SEED, CHAOS_TIMERS (0 leaves timers out),
// CHAOS_REATTACH (0 leaves reattaches and old clients out), CHAOS_PEERS (thread: the peers on a thread
// of this process). One RESULT line; exit code 1 when a check failed.
#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
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
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <string>
#include <vector>

#include "korvex/korvex.h"
#include "soak_util.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CHAOS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CHAOS_SANITIZED 1
#endif
#endif
#ifdef CHAOS_SANITIZED
// From the sanitizer runtimes' interface (GCC installs no header for them).
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
extern "C" void __sanitizer_set_report_fd(void *fd);
#if defined(__SANITIZE_ADDRESS__)
extern "C" void __sanitizer_print_memory_profile(size_t top_percent, size_t max_number_of_contexts);
#endif
#else
// Without a sanitizer this program counts the heap itself: its malloc family stands in front of
// glibc's for the whole process (the library's calls too) and keeps the usable bytes in use. glibc's
// own figures count the chunks that wait in the threads' caches as used.
#include <malloc.h>
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
void __libc_free(void *);
}
static std::atomic<long long> g_heap_bytes{0};
static inline void *heap_took(void *p) {
    if (p != nullptr) g_heap_bytes.fetch_add((long long)malloc_usable_size(p), std::memory_order_relaxed);
    return p;
}
extern "C" {
void *malloc(size_t n) { return heap_took(__libc_malloc(n)); }
void *calloc(size_t a, size_t b) { return heap_took(__libc_calloc(a, b)); }
void free(void *p) {
    if (p == nullptr) return;
    g_heap_bytes.fetch_sub((long long)malloc_usable_size(p), std::memory_order_relaxed);
    __libc_free(p);
}
void *realloc(void *p, size_t n) {
    size_t old = p != nullptr ? malloc_usable_size(p) : 0;
    void *q = __libc_realloc(p, n);
    if (q == nullptr) return n == 0 && p != nullptr ? (g_heap_bytes.fetch_sub((long long)old), nullptr) : nullptr;
    g_heap_bytes.fetch_add((long long)malloc_usable_size(q) - (long long)old, std::memory_order_relaxed);
    return q;
}
void *memalign(size_t a, size_t n) { return heap_took(__libc_memalign(a, n)); }
void *aligned_alloc(size_t a, size_t n) { return heap_took(__libc_memalign(a, n)); }
int posix_memalign(void **out, size_t a, size_t n) {
    void *p = heap_took(__libc_memalign(a, n));
    if (p == nullptr) return ENOMEM;
    *out = p;
    return 0;
}
}
#endif

namespace {

using namespace soak_util;

// ---------------------------------------------------------------- helpers

// Heap bytes in use: the sanitizer's allocator's count, or this program's own.
size_t heap_in_use() {
#ifdef CHAOS_SANITIZED
    return __sanitizer_get_current_allocated_bytes();
#else
    return (size_t)g_heap_bytes.load();
#endif
}

// xorshift, one state per thread.
struct Rng {
    uint64_t s;
    explicit Rng(uint64_t seed) : s(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint32_t next() {
        s ^= s << 13, s ^= s >> 7, s ^= s << 17;
        return (uint32_t)(s >> 16);
    }
    uint32_t below(uint32_t n) { return n == 0 ? 0 : next() % n; }
};

void put_u16(char *p, uint32_t v) { p[0] = (char)v, p[1] = (char)(v >> 8); }
uint32_t get_u16(const char *p) { return (uint32_t)(uint8_t)p[0] | (uint32_t)(uint8_t)p[1] << 8; }

const char kCmdMagic[4] = {(char)0xF1, (char)0xF5, (char)0xEA, (char)0xF5};
const char kDataMagic[4] = {(char)0xF1, (char)0xF5, (char)0xEA, (char)0xF9};
constexpr int kHead = 20, kMaxBody = 1440, kMinBody = 20;

// A body: u32 identity, u32 epoch (or connection nonce), u32 sequence, u8 kind, filler, u32 FNV-1a
// of everything before it. Kinds: 0 command, 1 data chunk, 2 packet of a package run, 3 peer talk.
void make_body(char *b, int n, uint32_t ident, uint32_t epoch, uint32_t seq, int kind) {
    put_u32(b, ident);
    put_u32(b + 4, epoch);
    put_u32(b + 8, seq);
    b[12] = (char)kind;
    for (int i = 13; i < n - 4; i++) b[i] = (char)('a' + (seq + (uint32_t)i) % 26);
    put_u32(b + n - 4, fnv(b, (size_t)n - 4));
}
bool body_ok(const char *b, int n) { return n >= kMinBody && get_u32(b + n - 4) == fnv(b, (size_t)n - 4); }
// A command packet written by hand (package runs and peer talk): head sequence 0.
void make_command(char *p, int body) {
    memset(p, 0, kHead);
    memcpy(p, kCmdMagic, 4);
    put_u16(p + 6, (uint32_t)(body + kHead));
    put_u16(p + 18, (uint32_t)body);
}

constexpr int kMaxLinks = 4096;
constexpr uint32_t kSlotBits = 12;  // identity = generation << 12 | slot
inline uint32_t slot_of(uint32_t ident) { return ident & ((1u << kSlotBits) - 1); }

// Address of slot i's peer: 127.1.x.y.
void slot_addr(int i, char *ip) { snprintf(ip, 16, "127.1.%u.%u", (unsigned)(uint8_t)(i / 250), (unsigned)(uint8_t)(i % 250 + 1)); }

// ---------------------------------------------------------------- shared with the peer child

struct RxKey {
    uint64_t key;    // identity << 32 | epoch of the newest epoch seen on this slot
    uint64_t count;  // whole packets of that epoch received
};
struct Shared {
    int ready, quiet, stop, port, links;
    uint64_t mean_life_ms, seed;
    uint64_t accepted, open_conns, resets, closes, stalls, refusals, comebacks, talk_packets;
    uint64_t rx_packets, rx_bytes, foreign_bytes, foreign_packets, spliced, noise_bytes, seq_disorder, tails;
    RxKey rx[kMaxLinks];
};
Shared *g_sh = nullptr;

inline uint64_t ld(const uint64_t *p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
inline void add(uint64_t *p, uint64_t v) { __atomic_add_fetch(p, v, __ATOMIC_ACQ_REL); }
inline int ldi(const int *p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }

// ---------------------------------------------------------------- the peer child

struct PConn {
    int fd = -1, slot = -1;
    uint32_t nonce = 0, tx_seq = 0;
    std::string in, out;
    size_t hold = std::string::npos;  // bytes of out that may go while a half packet is held
    uint64_t next_talk = 0, next_chaos = 0, stall_until = 0;
    bool stalled = false, have_seq = false;
    uint32_t last_seq = 0;
    unsigned events = 0;
};

struct Peer {
    int ep = -1;
    std::vector<int> listeners;         // per slot, -1 while refused
    std::vector<uint64_t> reopen_at;    // per slot
    std::vector<PConn *> by_fd;
    std::vector<std::vector<int>> conns_of;  // per slot, open descriptors
    uint32_t nonces = 0;
    Rng rng{1};

    uint64_t life() {  // exponential, mean_life_ms
        double u = (rng.next() % 1000000 + 1) / 1000001.0;
        return (uint64_t)(-std::log(u) * (double)g_sh->mean_life_ms) + 50;
    }
    bool listen_slot(int slot) {
        int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (s < 0) return false;
        int on = 1;
        setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in a = {};
        a.sin_family = AF_INET;
        char ip[16];
        slot_addr(slot, ip);
        inet_pton(AF_INET, ip, &a.sin_addr);
        a.sin_port = htons((uint16_t)g_sh->port);
        if (bind(s, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0 || listen(s, 64) != 0) {
            close(s);
            return false;
        }
        epoll_event ev = {};
        ev.events = EPOLLIN;
        ev.data.u64 = (1ull << 32) | (uint64_t)slot;
        epoll_ctl(ep, EPOLL_CTL_ADD, s, &ev);
        listeners[(size_t)slot] = s;
        return true;
    }
    void set_events(PConn *c) {
        const size_t writable = c->hold == std::string::npos ? c->out.size() : c->hold;
        const unsigned want = (c->stalled ? 0u : (unsigned)EPOLLIN) | (writable > 0 ? (unsigned)EPOLLOUT : 0u);
        if (want == c->events) return;
        epoll_event ev = {};
        ev.events = want;
        ev.data.u64 = (uint64_t)c->fd;
        epoll_ctl(ep, EPOLL_CTL_MOD, c->fd, &ev);
        c->events = want;
    }
    void end_conn(PConn *c, bool reset) {
        if (reset) {
            linger lg = {1, 0};
            setsockopt(c->fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
        }
        if (!c->in.empty()) add(&g_sh->tails, 1);
        epoll_ctl(ep, EPOLL_CTL_DEL, c->fd, nullptr);
        close(c->fd);
        auto &v = conns_of[(size_t)c->slot];
        for (size_t i = 0; i < v.size(); i++)
            if (v[i] == c->fd) {
                v[i] = v.back();
                v.pop_back();
                break;
            }
        by_fd[(size_t)c->fd] = nullptr;
        delete c;
        __atomic_sub_fetch(&g_sh->open_conns, 1, __ATOMIC_ACQ_REL);
    }
    void flush(PConn *c) {
        size_t limit = c->hold == std::string::npos ? c->out.size() : c->hold;
        while (limit > 0) {
            ssize_t w = send(c->fd, c->out.data(), limit, MSG_NOSIGNAL);
            if (w <= 0) break;
            c->out.erase(0, (size_t)w);
            limit -= (size_t)w;
            if (c->hold != std::string::npos) c->hold -= (size_t)w;
        }
        set_events(c);
    }
    void talk(PConn *c) {
        char p[kHead + 200];
        int body = kMinBody + (int)rng.below(180);
        make_command(p, body);
        make_body(p + kHead, body, (uint32_t)c->slot, c->nonce, c->tx_seq++, 3);
        c->out.append(p, (size_t)(kHead + body));
        add(&g_sh->talk_packets, 1);
    }
    // Checks the stream of one connection: whole packets of this slot, in head order.
    void parse(PConn *c) {
        size_t off = 0;
        const std::string &s = c->in;
        while (s.size() - off >= 4) {
            const char *p = s.data() + off;
            bool cmd = memcmp(p, kCmdMagic, 4) == 0, dat = memcmp(p, kDataMagic, 4) == 0;
            if (!cmd && !dat) {  // noise: pass over to the next magic
                size_t next = off + 1;
                while (next + 3 <= s.size() && memcmp(s.data() + next, kCmdMagic, 3) != 0) next++;
                if (next + 3 > s.size()) next = s.size() - 2;  // a magic may be cut at the end
                if (next <= off) break;
                add(&g_sh->noise_bytes, next - off);
                off = next;
                continue;
            }
            if (s.size() - off < (size_t)kHead) break;
            int len = (int)get_u16(p + (cmd ? 6 : 14));
            if (len < kHead + kMinBody || len > kHead + kMaxBody) {  // no packet of this soak
                add(&g_sh->spliced, 1);
                off += 1;
                continue;
            }
            if (s.size() - off < (size_t)len) break;
            const char *b = p + kHead;
            int bl = len - kHead, kind = (uint8_t)b[12];
            if (!body_ok(b, bl) || (dat && kind != 1) || (cmd && kind != 0 && kind != 2)) {
                add(&g_sh->spliced, 1);
                off += 1;
                continue;
            }
            uint32_t ident = get_u32(b), epoch = get_u32(b + 4);
            if ((int)slot_of(ident) != c->slot) {
                add(&g_sh->foreign_bytes, (uint64_t)len);
                add(&g_sh->foreign_packets, 1);
                off += (size_t)len;
                continue;
            }
            if (kind != 2) {  // heads the link wrote: numbers rise on a connection
                uint32_t seq;
                if (dat) {
                    seq = get_u32(p + 4);
                    if (c->have_seq && (int32_t)(seq - c->last_seq) <= 0) add(&g_sh->seq_disorder, 1);
                } else {
                    int16_t d = (int16_t)(uint16_t)(get_u16(p + 4) - (c->last_seq & 0xFFFF));
                    if (c->have_seq && d <= 0) add(&g_sh->seq_disorder, 1);
                    seq = c->last_seq + (uint32_t)(int32_t)d;
                }
                c->last_seq = seq;
                c->have_seq = true;
            }
            RxKey &rk = g_sh->rx[c->slot];
            uint64_t key = (uint64_t)ident << 32 | epoch, cur = ld(&rk.key);
            if (key > cur) {
                __atomic_store_n(&rk.count, 0, __ATOMIC_RELEASE);
                __atomic_store_n(&rk.key, key, __ATOMIC_RELEASE);
                cur = key;
            }
            if (key == cur) add(&rk.count, 1);
            add(&g_sh->rx_packets, 1);
            add(&g_sh->rx_bytes, (uint64_t)len);
            off += (size_t)len;
        }
        c->in.erase(0, off);
    }
    void accept_on(int slot, uint64_t t) {
        int ls = listeners[(size_t)slot];
        for (;;) {
            int fd = accept4(ls, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) return;
            int one = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
            if ((size_t)fd >= by_fd.size()) by_fd.resize((size_t)fd + 1024, nullptr);
            PConn *c = new PConn;
            c->fd = fd;
            c->slot = slot;
            c->nonce = ++nonces;
            c->next_talk = t + rng.below(500);
            c->next_chaos = t + life();
            by_fd[(size_t)fd] = c;
            conns_of[(size_t)slot].push_back(fd);
            epoll_event ev = {};
            ev.events = EPOLLIN;
            ev.data.u64 = (uint64_t)fd;
            epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
            c->events = EPOLLIN;
            add(&g_sh->accepted, 1);
            add(&g_sh->open_conns, 1);
        }
    }
    void on_conn(PConn *c, unsigned events) {
        if (events & EPOLLOUT) flush(c);
        if (!(events & (EPOLLIN | EPOLLHUP | EPOLLERR)) || c->stalled) return;
        char buf[65536];
        for (int rounds = 0; rounds < 4; rounds++) {
            ssize_t r = recv(c->fd, buf, sizeof(buf), 0);
            if (r > 0) {
                c->in.append(buf, (size_t)r);
                parse(c);
                continue;
            }
            if (r < 0 && (errno == EAGAIN || errno == EINTR)) return;
            end_conn(c, false);
            return;
        }
    }
    // One action of the peer on a connection whose time has come.
    void chaos(PConn *c, uint64_t t) {
        uint32_t r = rng.below(100);
        if (r < 30) {
            add(&g_sh->resets, 1);
            end_conn(c, true);
        } else if (r < 55) {
            add(&g_sh->closes, 1);
            end_conn(c, false);
        } else if (r < 80) {
            add(&g_sh->stalls, 1);
            c->stalled = true;
            c->stall_until = t + 300 + rng.below(2700);
            const size_t before = c->out.size();
            talk(c);  // the new packet goes out up to a point inside it, the rest after the stall
            c->hold = before + 1 + rng.below((uint32_t)(c->out.size() - before - 1));
            flush(c);
        } else {
            add(&g_sh->refusals, 1);
            int slot = c->slot;
            int ls = listeners[(size_t)slot];
            if (ls >= 0) {
                epoll_ctl(ep, EPOLL_CTL_DEL, ls, nullptr);
                close(ls);
                listeners[(size_t)slot] = -1;
            }
            reopen_at[(size_t)slot] = t + 300 + rng.below(1700);
            auto v = conns_of[(size_t)slot];
            for (int fd : v) end_conn(by_fd[(size_t)fd], true);
        }
    }
    void end_stall(PConn *c) {
        c->stalled = false;
        c->hold = std::string::npos;
        c->next_chaos = now_ms() + life();
        flush(c);
    }
    void run() {
        rng = Rng(g_sh->seed ^ 0xC0FFEEu);
        const int n = g_sh->links;
        ep = epoll_create1(EPOLL_CLOEXEC);
        listeners.assign((size_t)n, -1);
        reopen_at.assign((size_t)n, 0);
        conns_of.resize((size_t)n);
        by_fd.resize(8192, nullptr);
        for (int i = 0; i < n; i++)
            if (!listen_slot(i)) {
                __atomic_store_n(&g_sh->ready, -1, __ATOMIC_RELEASE);
                return;
            }
        __atomic_store_n(&g_sh->ready, 1, __ATOMIC_RELEASE);
        std::vector<epoll_event> evs(1024);
        uint64_t last_scan = 0;
        while (!ldi(&g_sh->stop)) {
            int k = epoll_wait(ep, evs.data(), (int)evs.size(), 5);
            const uint64_t t = now_ms();
            for (int i = 0; i < k; i++) {
                uint64_t d = evs[(size_t)i].data.u64;
                if (d >> 32) {
                    if (listeners[(size_t)(uint32_t)d] >= 0) accept_on((int)(uint32_t)d, t);
                    continue;
                }
                PConn *c = by_fd[(size_t)d];
                if (c != nullptr) on_conn(c, evs[(size_t)i].events);
            }
            if (t - last_scan < 5) continue;
            last_scan = t;
            const bool quiet = ldi(&g_sh->quiet) != 0;
            for (int s = 0; s < n; s++) {
                if (listeners[(size_t)s] < 0 && (quiet || t >= reopen_at[(size_t)s])) {
                    if (listen_slot(s)) add(&g_sh->comebacks, 1);
                }
                auto v = conns_of[(size_t)s];
                for (int fd : v) {
                    PConn *c = by_fd[(size_t)fd];
                    if (c == nullptr) continue;
                    if (c->stalled) {
                        if (quiet || t >= c->stall_until) end_stall(c);
                        continue;
                    }
                    if (quiet) continue;
                    if (t >= c->next_chaos) {
                        chaos(c, t);
                        continue;
                    }
                    if (t >= c->next_talk) {
                        talk(c);
                        c->next_talk = t + 100 + rng.below(900);
                        flush(c);
                    }
                }
            }
        }
        // In the process's own thread (CHAOS_PEERS=thread) everything goes back.
        for (PConn *c : by_fd)
            if (c != nullptr) end_conn(c, false);
        for (int ls : listeners)
            if (ls >= 0) close(ls);
        close(ep);
    }
};
void *peer_thread(void *) {
    static Peer peer;
    peer.run();
    return nullptr;
}

// ---------------------------------------------------------------- the library side

struct Slot {
    pthread_rwlock_t rw;                 // shared: sends; exclusive: destroy, reattach, spare work
    _NetLink *link = nullptr;
    std::atomic<_NetTcpClient *> client{nullptr};
    _NetTcpClient *spare = nullptr;      // an old client given back by a reattach
    std::atomic<uint32_t> ident{0};
    uint32_t gen = 0;
    std::atomic<uint32_t> epoch{0};
    std::atomic<bool> up{false};
    std::atomic<uint64_t> down_at{0};
    std::atomic<uint32_t> body_seq{0};
    std::mutex cnt_mtx;                  // sent_epoch, sent_n
    uint32_t sent_epoch = 0;
    uint64_t sent_n = 0;
    // What the link received from its peer (event thread).
    uint32_t rx_nonce = 0, rx_next = 0;
    bool rx_have = false;
    // A tolerance for splices right after a reattach of a connected link; the link drops the old
    // connection's half packet, so it stays off and every such packet counts as a fault.
    std::atomic<bool> rx_tolerant{false};
    int index = 0;
};

Slot *g_slots = nullptr;
int g_links = 0;
std::atomic<bool> g_pause{false}, g_done{false};
std::atomic<int> g_parked{0};

struct Figures {
    std::atomic<uint64_t> sends_ok[3], sends_fail[3], packets_ok{0}, replies{0};
    std::atomic<uint64_t> connects{0}, disconnects{0}, reconnects{0}, app_closes{0}, reattaches{0};
    std::atomic<uint64_t> spare_reopens{0}, spare_destroys{0}, link_destroys{0};
    std::atomic<uint64_t> link_rx{0}, link_rx_foreign{0}, link_rx_spliced{0}, link_rx_gaps{0}, link_rx_type{0};
    std::atomic<uint64_t> link_rx_tolerated{0};
    std::atomic<uint64_t> timers_made_thread{0}, timers_made_cb{0}, timers_killed_thread{0}, timers_killed_cb{0};
    std::atomic<uint64_t> timers_self_killed{0}, timer_fires{0}, timer_late_fires{0}, timer_refusals{0};
    std::atomic<uint64_t> checked_epochs{0}, checked_packets{0}, lost{0}, excess{0}, failures{0};
} g_fig;

void count_sent(Slot *s, uint32_t epoch, uint64_t packets) {
    std::lock_guard<std::mutex> lock(s->cnt_mtx);
    if (epoch == s->sent_epoch) s->sent_n += packets;
    else if ((int32_t)(epoch - s->sent_epoch) > 0) s->sent_epoch = epoch, s->sent_n = packets;
}

int on_connect(_NetTcpClient *client, void *arg) {
    Slot *s = static_cast<Slot *>(arg);
    if (client != s->client.load()) return 0;
    s->epoch.fetch_add(1);
    s->up = true;
    g_fig.connects++;
    return 0;
}

int on_link_down(_NetLink *, void *udata) {
    Slot *s = static_cast<Slot *>(udata);
    s->up = false;
    s->down_at = now_ms();
    s->rx_have = false;
    g_fig.disconnects++;
    return 0;
}

// A packet from the peer: this slot's, whole, and next in its peer connection's numbering.
int on_packet(_NetLink *link, void *udata, int type, char *data, int len) {
    Slot *s = static_cast<Slot *>(udata);
    g_fig.link_rx++;
    const bool tolerant = s->rx_tolerant.load();
    if (type != LINK_HEAD_COMMAND || len < kHead + kMinBody) {
        (tolerant ? g_fig.link_rx_tolerated : g_fig.link_rx_type)++;
        return 0;
    }
    const char *b = data + kHead;
    if (!body_ok(b, len - kHead) || b[12] != 3) {
        (tolerant ? g_fig.link_rx_tolerated : g_fig.link_rx_spliced)++;
        return 0;
    }
    if (get_u32(b) != (uint32_t)s->index) {
        g_fig.link_rx_foreign++;
        return 0;
    }
    uint32_t nonce = get_u32(b + 4), seq = get_u32(b + 8);
    if (!s->rx_have || nonce != s->rx_nonce) {
        if (seq != 0) (tolerant ? g_fig.link_rx_tolerated : g_fig.link_rx_gaps)++;
        s->rx_tolerant = false;
    } else if (seq != s->rx_next) {
        g_fig.link_rx_gaps++;
    }
    s->rx_have = true;
    s->rx_nonce = nonce;
    s->rx_next = seq + 1;
    // Now and then the parser answers on its own link, as a device protocol would.
    if ((seq & 7) == 5 && !g_pause.load()) {
        char body[64];
        uint32_t e = s->epoch.load();
        make_body(body, 64, s->ident.load(), e, s->body_seq.fetch_add(1), 0);
        if (net_link_send_command(link, body, 64) >= 0) count_sent(s, e, 1);
        g_fig.replies++;
    }
    return 0;
}

uint16_t g_port = 0;

_NetTcpClient *new_client(Slot *s) {
    _NetTcpClient *c = net_tcp_client_create();
    if (c == nullptr) return nullptr;
    char ip[16];
    slot_addr(s->index, ip);
    net_tcp_client_set_remote(c, ip, g_port);
    net_tcp_client_bind_connect(c, on_connect, s);
    return c;
}

// A new link instance on the slot, opened. Slot held exclusively (or not yet shared).
bool make_link(Slot *s) {
    s->gen++;
    s->ident = s->gen << kSlotBits | (uint32_t)s->index;
    s->rx_have = false;
    _NetLink *link = net_link_create();
    if (link == nullptr) return false;
    net_link_set_udata(link, s);
    net_link_bind_parase_protocol(link, on_packet);
    net_link_bind_disconnect_protocol(link, on_link_down);
    _NetTcpClient *c = new_client(s);
    if (c == nullptr) {
        net_link_destroy(link);
        return false;
    }
    s->client = c;
    s->link = link;
    net_link_set_core(link, c);
    net_tcp_client_open(c, -1);
    return true;
}

// Parks the calling thread while a checkpoint runs.
void park_if_paused() {
    if (!g_pause.load()) return;
    g_parked++;
    while (g_pause.load() && !g_done.load()) sleep_us(1000);
    g_parked--;
}

void sender(int id, int pause_us) {
    Rng rng((uint64_t)id * 7919 + (uint64_t)env_int("CHAOS_SEED", 1));
    static thread_local char buf[3 * (kHead + kMaxBody)];
    while (!g_done.load()) {
        park_if_paused();
        // Half the sends go to a few hot links, so that threads often send on the same link at once.
        const uint32_t hot = (uint32_t)std::min(g_links, 8);
        Slot *s = &g_slots[rng.below(2) == 0 ? rng.below(hot) : rng.below((uint32_t)g_links)];
        if (pthread_rwlock_rdlock(&s->rw) != 0) continue;
        _NetLink *link = s->link;
        const uint32_t e = s->epoch.load(), ident = s->ident.load();
        const int kind = (int)rng.below(3);
        int r = -1, packets = 0;
        if (link != nullptr) {
            if (kind == 0) {
                int body = rng.below(8) == 0 ? kMinBody + (int)rng.below(kMaxBody - kMinBody + 1) : kMinBody + (int)rng.below(200);
                make_body(buf, body, ident, e, s->body_seq.fetch_add(1), 0);
                r = net_link_send_command(link, buf, body);
                packets = 1;
            } else if (kind == 1) {
                // 1 to 3 chunks; the last at least kMinBody bytes, so each chunk is one body.
                int chunks = 1 + (int)rng.below(3), total = 0;
                for (int i = 0; i < chunks; i++) {
                    int body = i + 1 < chunks ? kMaxBody : kMinBody + (int)rng.below(kMaxBody - kMinBody);
                    make_body(buf + total, body, ident, e, s->body_seq.fetch_add(1), 1);
                    total += body;
                }
                r = net_link_send_data(link, buf, total);
                packets = chunks;
            } else {
                int n = 1 + (int)rng.below(3), total = 0;
                for (int i = 0; i < n; i++) {
                    int body = kMinBody + (int)rng.below(300);
                    make_command(buf + total, body);
                    make_body(buf + total + kHead, body, ident, e, s->body_seq.fetch_add(1), 2);
                    total += kHead + body;
                }
                r = net_link_send_package(link, buf, total);
                packets = n;
            }
            if (r >= 0) {
                count_sent(s, e, (uint64_t)packets);
                g_fig.sends_ok[kind]++;
                g_fig.packets_ok += (uint64_t)packets;
            } else {
                g_fig.sends_fail[kind]++;
            }
        }
        pthread_rwlock_unlock(&s->rw);
        if (pause_us > 0) sleep_us((uint64_t)rng.below((uint32_t)pause_us * 2));
    }
}

// The application: reconnects what dropped, and closes, reattaches and destroys at random.
void application(int pause_us) {
    Rng rng((uint64_t)env_int("CHAOS_SEED", 1) * 31 + 5);
    uint64_t last_scan = 0;
    // CHAOS_REATTACH=0 leaves reattaches and old clients out (to look at the other paths alone).
    const bool reattach = getenv("CHAOS_REATTACH") == nullptr || atoi(getenv("CHAOS_REATTACH")) != 0;
    while (!g_done.load()) {
        park_if_paused();
        const uint64_t t = now_ms();
        if (t - last_scan >= 20) {  // reconnect links that have been down a while
            last_scan = t;
            for (int i = 0; i < g_links && !g_pause.load(); i++) {
                Slot *s = &g_slots[i];
                if (pthread_rwlock_tryrdlock(&s->rw) != 0) continue;
                _NetTcpClient *c = s->client.load();
                if (c != nullptr && !s->up.load() && net_tcp_client_get_status(c) == 0 &&
                    t - s->down_at.load() >= 50 + (uint64_t)(i * 37 % 400)) {
                    if (net_tcp_client_open(c, -1) == 1) g_fig.reconnects++;
                }
                pthread_rwlock_unlock(&s->rw);
            }
        }
        Slot *s = &g_slots[rng.below((uint32_t)g_links)];
        uint32_t r = rng.below(100);
        if (!reattach && r >= 25 && r < 75) r = rng.below(25);  // closes instead
        if (r < 25) {  // the application closes a link's connection while others send
            pthread_rwlock_rdlock(&s->rw);
            _NetTcpClient *c = s->client.load();
            s->up = false;
            s->down_at = t;
            if (c != nullptr) net_tcp_client_close(c);
            g_fig.app_closes++;
            pthread_rwlock_unlock(&s->rw);
        } else if (r < 55) {  // reattach the link to a new client; the old one becomes a spare
            pthread_rwlock_wrlock(&s->rw);
            _NetTcpClient *old = s->client.load();
            s->up = false;
            // Else it goes on as a bare client; the link drops the half packet of its connection, so
            // nothing is tolerated after the reattach.
            if (rng.below(2) == 0) net_tcp_client_close(old);
            if (s->spare != nullptr) {
                net_tcp_client_destroy(s->spare);
                s->spare = nullptr;
                g_fig.spare_destroys++;
            }
            _NetTcpClient *c = new_client(s);
            if (c != nullptr) {
                s->up = false;
                s->down_at = t;
                s->client = c;
                net_link_set_core(s->link, c);
                net_tcp_client_bind_connect(old, nullptr, nullptr);
                s->spare = old;
                net_tcp_client_open(c, -1);
                g_fig.reattaches++;
            }
            pthread_rwlock_unlock(&s->rw);
        } else if (r < 75) {  // reopen an old client, or give it back
            pthread_rwlock_wrlock(&s->rw);
            if (s->spare != nullptr) {
                if (net_tcp_client_get_status(s->spare) == 0 && rng.below(3) != 0) {
                    net_tcp_client_open(s->spare, -1);
                    g_fig.spare_reopens++;
                } else {
                    net_tcp_client_destroy(s->spare);
                    s->spare = nullptr;
                    g_fig.spare_destroys++;
                }
            }
            pthread_rwlock_unlock(&s->rw);
        } else {  // destroy the link while its peer talks, and make a new one
            pthread_rwlock_wrlock(&s->rw);
            s->up = false;
            s->down_at = t;
            net_link_destroy(s->link);
            s->link = nullptr;
            s->client = nullptr;
            g_fig.link_destroys++;
            if (!make_link(s)) g_fig.failures++;
            pthread_rwlock_unlock(&s->rw);
        }
        sleep_us((uint64_t)pause_us);
    }
}

// ---------------------------------------------------------------- timers

constexpr int kTimerRecs = 4096, kMaxLiveTimers = 200;
struct TimerRec {
    int state = 0;  // 0 free, 1 live, 2 being destroyed
    uint32_t gen = 0;
    _SdkTimer *t = nullptr;
};
TimerRec g_timers[kTimerRecs];
std::mutex g_timer_mtx;  // never held while calling into the library
int g_timer_next = 0, g_timer_live = 0;

inline void *timer_udata(int idx, uint32_t gen) { return reinterpret_cast<void *>((uintptr_t)gen << 12 | (uintptr_t)idx); }
int on_timer(void *udata);

// Creates a timer when fewer than the limit live. The caller holds no lock of its own.
bool timer_make(Rng &rng) {
    int idx = -1;
    uint32_t gen = 0;
    {
        std::lock_guard<std::mutex> lock(g_timer_mtx);
        if (g_timer_live >= kMaxLiveTimers) return false;
        for (int k = 0; k < kTimerRecs && idx < 0; k++) {
            int i = (g_timer_next + k) % kTimerRecs;
            if (g_timers[i].state == 0) idx = i;
        }
        if (idx < 0) return false;
        g_timer_next = (idx + 1) % kTimerRecs;
        g_timers[idx].state = 2;  // reserved until the handle is in
        gen = ++g_timers[idx].gen;
        g_timer_live++;
    }
    _SdkTimer *t = sdk_timer_create(on_timer, rng.below(3001), timer_udata(idx, gen));
    std::lock_guard<std::mutex> lock(g_timer_mtx);
    if (t == nullptr) {
        g_timers[idx].state = 0;
        g_timer_live--;
        return false;
    }
    g_timers[idx].t = t;
    g_timers[idx].state = 1;
    return true;
}

// Destroys timer idx (-1: a random live one). Gives true when one was destroyed.
bool timer_kill(Rng &rng, int idx) {
    _SdkTimer *t = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_timer_mtx);
        if (idx < 0) {
            if (g_timer_live == 0) return false;
            int start = (int)rng.below(kTimerRecs);
            for (int k = 0; k < kTimerRecs && idx < 0; k++)
                if (g_timers[(start + k) % kTimerRecs].state == 1) idx = (start + k) % kTimerRecs;
            if (idx < 0) return false;
        } else if (g_timers[idx].state != 1) {
            return false;
        }
        g_timers[idx].state = 2;
        t = g_timers[idx].t;
    }
    if (sdk_timer_destroy(t) != 1) g_fig.timer_refusals++;
    std::lock_guard<std::mutex> lock(g_timer_mtx);
    g_timers[idx].t = nullptr;
    g_timers[idx].state = 0;
    g_timer_live--;
    return true;
}

thread_local Rng t_timer_rng(77);

int on_timer(void *udata) {
    const int idx = (int)((uintptr_t)udata & 0xFFF);
    const uint32_t gen = (uint32_t)((uintptr_t)udata >> 12);
    {
        std::lock_guard<std::mutex> lock(g_timer_mtx);
        if (g_timers[idx].gen != gen || g_timers[idx].state == 0) {  // called after its destroy returned
            g_fig.timer_late_fires++;
            return 0;
        }
    }
    g_fig.timer_fires++;
    Rng &rng = t_timer_rng;
    uint32_t r = rng.below(100);
    if (r < 25) {
        if (timer_make(rng)) g_fig.timers_made_cb++;
    } else if (r < 45) {
        if (timer_kill(rng, idx)) g_fig.timers_self_killed++;
    } else if (r < 70) {
        if (timer_kill(rng, -1)) g_fig.timers_killed_cb++;
    }
    return 0;
}

void timer_thread() {
    Rng rng((uint64_t)env_int("CHAOS_SEED", 1) * 131 + 3);
    while (!g_done.load()) {
        if (rng.below(2) == 0) {
            if (timer_make(rng)) g_fig.timers_made_thread++;
        } else if (timer_kill(rng, -1)) {
            g_fig.timers_killed_thread++;
        }
        sleep_us(2000 + rng.below(4000));
    }
}

// ---------------------------------------------------------------- worker threads

// Senders, the application and the timer thread, on 1 MiB stacks (all of them fit the C library's
// stack cache, so a second set reuses the first set's stacks).
constexpr int kMaxWorkers = 64;
pthread_t g_workers[kMaxWorkers];
int g_nworkers = 0;
struct WorkerArg {
    int kind, id, pause_us;
} g_worker_args[kMaxWorkers];

void *worker_main(void *p) {
    const WorkerArg *a = static_cast<const WorkerArg *>(p);
    if (a->kind == 0) sender(a->id, a->pause_us);
    else if (a->kind == 1) application(a->pause_us);
    else timer_thread();
    return nullptr;
}

void start_workers(int senders, int send_pause) {
    // CHAOS_TIMERS=0 leaves the timers out (to look at the links alone).
    const bool with_timers = getenv("CHAOS_TIMERS") == nullptr || atoi(getenv("CHAOS_TIMERS")) != 0;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 1u << 20);
    g_nworkers = 0;
    for (int i = 0; i < senders + 2 && i < kMaxWorkers; i++) {
        WorkerArg &a = g_worker_args[i];
        a = i < senders ? WorkerArg{0, i, send_pause} : i == senders ? WorkerArg{1, 0, 2000} : WorkerArg{2, 0, 0};
        if (a.kind == 2 && !with_timers) break;
        if (pthread_create(&g_workers[g_nworkers], &attr, worker_main, &a) == 0) g_nworkers++;
    }
    pthread_attr_destroy(&attr);
}

void join_workers() {
    for (int i = 0; i < g_nworkers; i++) pthread_join(g_workers[i], nullptr);
    g_nworkers = 0;
}

// ---------------------------------------------------------------- checkpoints

// Pauses senders and chaos, quiets the peer, and checks that every link whose connection epoch is
// still up has had every packet counted for that epoch arrive. Gives the packets missing.
uint64_t checkpoint(int workers, bool final_round) {
    g_pause = true;
    __atomic_store_n(&g_sh->quiet, 1, __ATOMIC_RELEASE);
    for (int i = 0; i < 5000 && g_parked.load() < workers; i++) sleep_us(1000);
    sleep_us(800000);  // drops already under way reach their disconnect callbacks
    struct Want {
        int slot;
        uint64_t key, n;
    };
    std::vector<Want> want;
    for (int i = 0; i < g_links; i++) {
        Slot *s = &g_slots[i];
        if (!s->up.load()) continue;
        std::lock_guard<std::mutex> lock(s->cnt_mtx);
        const uint32_t e = s->epoch.load();
        if (s->sent_epoch != e) continue;  // nothing sent in this epoch yet
        want.push_back({i, (uint64_t)s->ident.load() << 32 | e, s->sent_n});
    }
    auto missing_of = [&](const Want &w) -> uint64_t {
        RxKey &rk = g_sh->rx[w.slot];
        uint64_t key = ld(&rk.key), n = key == w.key ? ld(&rk.count) : 0;
        return n >= w.n ? 0 : w.n - n;
    };
    uint64_t missing = 0;
    for (int tries = 0; tries < 150; tries++) {  // up to 15 s for queues to drain
        missing = 0;
        for (const Want &w : want) missing += missing_of(w);
        if (missing == 0) break;
        sleep_us(100000);
    }
    uint64_t lost = 0, checked = 0, epochs = 0;
    for (const Want &w : want) {
        Slot *s = &g_slots[w.slot];
        // A connection that dropped while the check waited did not stay up.
        if (!s->up.load() || ((uint64_t)s->ident.load() << 32 | s->epoch.load()) != w.key) continue;
        RxKey &rk = g_sh->rx[w.slot];
        uint64_t got = ld(&rk.key) == w.key ? ld(&rk.count) : 0;
        lost += missing_of(w);
        if (got > w.n) g_fig.excess += got - w.n;
        checked += w.n;
        epochs++;
    }
    g_fig.lost += lost;
    g_fig.checked_packets += checked;
    g_fig.checked_epochs += epochs;
    if (!final_round) {
        __atomic_store_n(&g_sh->quiet, 0, __ATOMIC_RELEASE);
        g_pause = false;
    }
    return lost;
}

// ---------------------------------------------------------------- main

// A sanitizer's reports go to the terminal's standard error while the log is captured.
void sanitizer_reports_to(int fd) {
#ifdef CHAOS_SANITIZED
    __sanitizer_set_report_fd(reinterpret_cast<void *>((intptr_t)fd));
#else
    (void)fd;
#endif
}

}  // namespace

int main() {
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int seconds = env_int("CHAOS_SECONDS", 600), links = env_int("CHAOS_LINKS", 1000);
    const int senders = env_int("CHAOS_SENDERS", 8), send_pause = env_int("CHAOS_SEND_PAUSE_US", 1000);
    const int round_s = env_int("CHAOS_ROUND_SECONDS", 30);
    if (links > kMaxLinks - 1) {
        fprintf(stderr, "CHAOS_LINKS above %d\n", kMaxLinks - 1);
        return 2;
    }
    g_links = links;
    rlimit rl = {16384, 16384};
    if (setrlimit(RLIMIT_NOFILE, &rl) != 0) {
        getrlimit(RLIMIT_NOFILE, &rl);
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }

    // The peers, in a child process forked before the library starts any thread.
    g_sh = static_cast<Shared *>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (g_sh == MAP_FAILED) return 2;
    g_sh->links = links;
    g_sh->mean_life_ms = (uint64_t)env_int("CHAOS_MEAN_LIFE_MS", 6000);
    g_sh->seed = (uint64_t)env_int("CHAOS_SEED", 1);
    {  // one port for every peer address
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = {};
        a.sin_family = AF_INET;
        inet_pton(AF_INET, "127.1.0.1", &a.sin_addr);
        socklen_t l = sizeof(a);
        if (bind(s, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0) return 2;
        getsockname(s, reinterpret_cast<sockaddr *>(&a), &l);
        g_sh->port = ntohs(a.sin_port);
        close(s);
    }
    g_port = (uint16_t)g_sh->port;
    fflush(stdout);
    // CHAOS_PEERS=thread runs the peers on a thread of this process instead: their accepted sockets
    // then take descriptor numbers that the library just closed, which is where a send that races a
    // close lands in a foreign connection. Descriptors and heap are then the peers' too, so that mode
    // leaves out the checks of descriptors and heap.
    const bool peers_in_thread = getenv("CHAOS_PEERS") != nullptr && strcmp(getenv("CHAOS_PEERS"), "thread") == 0;
    pid_t child = -1;
    pthread_t peer_th;
    if (peers_in_thread) {
        pthread_create(&peer_th, nullptr, peer_thread, nullptr);
    } else {
        child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            peer_thread(nullptr);
            _exit(ldi(&g_sh->ready) == 1 ? 0 : 3);
        }
    }
    for (int i = 0; i < 10000 && ldi(&g_sh->ready) == 0; i++) sleep_us(1000);
    if (ldi(&g_sh->ready) != 1) {
        printf("RESULT chaos FAIL | the peer process did not start (port %d)\n", g_sh->port);
        if (child > 0) kill(child, SIGKILL);
        return 1;
    }

    LogCapture log;  // the library's log lines go to a file; counted, and shown when a check fails
    log.start();
    sanitizer_reports_to(log.saved);
    sdk_log_set_level(SDK_LOG_LEVEL_ERR, SDK_LOG_LEVEL_ERR, 0);  // errors only: churn makes many messages
    if (!sdk_os_startup((uint32_t)(2 * links + 16), 1)) {
        log.stop();
        sanitizer_reports_to(2);
        printf("RESULT chaos FAIL | sdk_os_startup failed\n");
        if (child > 0) kill(child, SIGKILL);
        return 1;
    }
    static Slot slots[kMaxLinks];
    g_slots = slots;
    for (int i = 0; i < links; i++) {
        pthread_rwlock_init(&slots[i].rw, nullptr);
        slots[i].index = i;
    }
    {  // warm the paths that allocate once (the log line, a timer), then take the baseline
        _SdkTimer *t = sdk_timer_create(nullptr, 1000, nullptr);
        sdk_timer_destroy(t);
        net_link_destroy(nullptr);
        _NetLink *l = net_link_create();
        net_link_send_command(l, "x", 1);  // no client: fails and logs
        net_link_destroy(l);
    }
    {  // every client of the pool connected at once, then given back: the library's watcher tables
       // reach the size that the pool bounds, so what the heap holds after this is the baseline
        std::vector<_NetTcpClient *> all;
        for (_NetTcpClient *c; (c = net_tcp_client_create()) != nullptr;) {
            char ip[16];
            slot_addr((int)all.size() % links, ip);
            net_tcp_client_set_remote(c, ip, g_port);
            net_tcp_client_open(c, -1);
            all.push_back(c);
        }
        for (int i = 0; i < 200; i++) {
            size_t n = 0;
            for (_NetTcpClient *c : all) n += net_tcp_client_get_status(c) == 2 ? 1 : 0;
            if (n == all.size()) break;
            sleep_us(50000);
        }
        for (_NetTcpClient *c : all) net_tcp_client_destroy(c);
        printf("  warm-up: %zu clients (the whole pool) connected and given back\n", all.size());
    }
    // The worker threads once, ended at once: the C library keeps their stacks and thread blocks
    // for the next threads, so the run's threads leave the heap as they found it.
    g_done = true;
    start_workers(senders, send_pause);
    join_workers();
    const int fd0 = count_entries("/proc/self/fd"), th0 = count_entries("/proc/self/task");
    const size_t heap0 = heap_in_use();
    const uint64_t t0 = now_ms();

    int made = 0;
    for (int i = 0; i < links; i++) made += make_link(&slots[i]) ? 1 : 0;
    g_done = false;
    start_workers(senders, send_pause);

    const uint64_t end = t0 + (uint64_t)seconds * 1000u;
    int rounds = 0;
    uint64_t next_round = t0 + (uint64_t)round_s * 1000u;
    while (now_ms() < end) {
        sleep_us(100000);
        if (now_ms() >= next_round && now_ms() + 5000 < end) {
            uint64_t lost = checkpoint(senders + 1, false);
            rounds++;
            printf("  checkpoint %d at %.0fs: %llu packets missing; so far %llu packets checked on %llu epochs that "
                   "stayed up; peers: %llu packets, %llu foreign bytes, %llu spliced, %llu noise bytes, %llu out of "
                   "order; links: %llu foreign, %llu spliced, %llu gaps\n",
                   rounds, (double)(now_ms() - t0) / 1000.0, (unsigned long long)lost,
                   (unsigned long long)g_fig.checked_packets.load(), (unsigned long long)g_fig.checked_epochs.load(),
                   (unsigned long long)ld(&g_sh->rx_packets), (unsigned long long)ld(&g_sh->foreign_bytes),
                   (unsigned long long)ld(&g_sh->spliced), (unsigned long long)ld(&g_sh->noise_bytes),
                   (unsigned long long)ld(&g_sh->seq_disorder), (unsigned long long)g_fig.link_rx_foreign.load(),
                   (unsigned long long)g_fig.link_rx_spliced.load(), (unsigned long long)g_fig.link_rx_gaps.load());
            next_round = now_ms() + (uint64_t)round_s * 1000u;
        }
    }
    checkpoint(senders + 1, true);
    rounds++;
    const double run_s = (double)(now_ms() - t0) / 1000.0;
    g_done = true;
    join_workers();

    // Everything goes: links (with their clients), spare clients, timers.
    for (int i = 0; i < links; i++) {
        Slot *s = &slots[i];
        net_link_destroy(s->link);
        s->link = nullptr;
        if (s->spare != nullptr) net_tcp_client_destroy(s->spare);
        s->spare = nullptr;
    }
    for (int i = 0; i < kTimerRecs; i++)
        if (g_timers[i].state == 1) {
            sdk_timer_destroy(g_timers[i].t);
            g_timers[i].state = 0;
        }
    for (int i = 0; i < 100 && ld(&g_sh->open_conns) != 0; i++) sleep_us(100000);
    sleep_us(300000);
    const int fd1 = count_entries("/proc/self/fd"), th1 = count_entries("/proc/self/task");
    const size_t heap1 = heap_in_use();
    const uint64_t peer_open = ld(&g_sh->open_conns);
    __atomic_store_n(&g_sh->stop, 1, __ATOMIC_RELEASE);
    int status = 0;
    if (peers_in_thread) pthread_join(peer_th, nullptr);
    else waitpid(child, &status, 0);
    std::string text = log.stop();
    sanitizer_reports_to(2);
    for (int i = 0; i < links; i++) pthread_rwlock_destroy(&slots[i].rw);

    const int overflows = count_of(text, "buffer overflow");
    std::string failed;
    auto need = [&](bool ok, const char *what) {
        if (!ok) failed += failed.empty() ? what : std::string(", ") + what;
    };
    const uint64_t foreign = ld(&g_sh->foreign_bytes), spliced = ld(&g_sh->spliced), noise = ld(&g_sh->noise_bytes);
    const uint64_t disorder = ld(&g_sh->seq_disorder);
    need(made == links && g_fig.failures == 0, "links made");
    need(foreign == 0 && g_fig.link_rx_foreign == 0, "0 foreign bytes");
    need(spliced == 0 && noise == 0 && g_fig.link_rx_spliced == 0 && g_fig.link_rx_type == 0, "0 spliced packets");
    need(disorder == 0, "head sequence numbers in order");
    need(g_fig.lost == 0 && g_fig.link_rx_gaps == 0, "0 lost on connections that stayed up");
    need(g_fig.checked_packets > 0, "packets checked");
    need(overflows == 0, "no queue overflow");
    need(g_fig.timer_late_fires == 0 && g_fig.timer_refusals == 0, "timers");
    need((peers_in_thread || fd1 == fd0) && peer_open == 0, "descriptors back");
    need(th1 == th0, "threads back");
    need(peers_in_thread || heap1 == heap0, "memory back");
    need(WIFEXITED(status) && WEXITSTATUS(status) == 0, "peer process ended cleanly");

    const int lines = (int)std::count(text.begin(), text.end(), '\n');
    printf("RESULT chaos %s | %.0fs, %d links, %d senders, load %s",
           failed.empty() ? "PASS" : "FAIL", run_s, links, senders, "");
    {
        FILE *f = fopen("/proc/loadavg", "r");
        char la[64] = "";
        if (f != nullptr) {
            if (fgets(la, sizeof(la), f) == nullptr) la[0] = '\0';
            fclose(f);
        }
        la[strcspn(la, " ")] = '\0';
        printf("%s\n", la);
    }
    printf("  peer: %llu connections accepted; %llu resets, %llu closes, %llu stalls mid-packet, %llu refusals, "
           "%llu listeners back; %llu packets talked to the links\n",
           (unsigned long long)ld(&g_sh->accepted), (unsigned long long)ld(&g_sh->resets),
           (unsigned long long)ld(&g_sh->closes), (unsigned long long)ld(&g_sh->stalls),
           (unsigned long long)ld(&g_sh->refusals), (unsigned long long)ld(&g_sh->comebacks),
           (unsigned long long)ld(&g_sh->talk_packets));
    printf("  application: %llu connects, %llu disconnect callbacks, %llu reconnects of a link's client, %llu "
           "closes, %llu reattaches to a new client, %llu old clients reopened, %llu old clients destroyed, %llu "
           "links destroyed and made anew\n",
           (unsigned long long)g_fig.connects.load(), (unsigned long long)g_fig.disconnects.load(),
           (unsigned long long)g_fig.reconnects.load(), (unsigned long long)g_fig.app_closes.load(),
           (unsigned long long)g_fig.reattaches.load(), (unsigned long long)g_fig.spare_reopens.load(),
           (unsigned long long)g_fig.spare_destroys.load(), (unsigned long long)g_fig.link_destroys.load());
    printf("  sends: command %llu ok / %llu failed, data %llu / %llu, package %llu / %llu, parser answers %llu; "
           "%llu packets reported sent\n",
           (unsigned long long)g_fig.sends_ok[0].load(), (unsigned long long)g_fig.sends_fail[0].load(),
           (unsigned long long)g_fig.sends_ok[1].load(), (unsigned long long)g_fig.sends_fail[1].load(),
           (unsigned long long)g_fig.sends_ok[2].load(), (unsigned long long)g_fig.sends_fail[2].load(),
           (unsigned long long)g_fig.replies.load(), (unsigned long long)g_fig.packets_ok.load());
    printf("  peer checks: %llu packets (%.1f MB) checked; %llu foreign bytes (%llu packets), %llu spliced, %llu "
           "noise bytes, %llu head numbers out of order, %llu connections ended inside a packet\n",
           (unsigned long long)ld(&g_sh->rx_packets), (double)ld(&g_sh->rx_bytes) / 1e6, (unsigned long long)foreign,
           (unsigned long long)ld(&g_sh->foreign_packets), (unsigned long long)spliced, (unsigned long long)noise,
           (unsigned long long)disorder, (unsigned long long)ld(&g_sh->tails));
    printf("  link checks: %llu packets from the peers; %llu foreign, %llu spliced, %llu of another kind, %llu "
           "gaps; %llu tolerated after a reattach of a connected link\n",
           (unsigned long long)g_fig.link_rx.load(), (unsigned long long)g_fig.link_rx_foreign.load(),
           (unsigned long long)g_fig.link_rx_spliced.load(), (unsigned long long)g_fig.link_rx_type.load(),
           (unsigned long long)g_fig.link_rx_gaps.load(), (unsigned long long)g_fig.link_rx_tolerated.load());
    printf("  loss: %d checkpoints, %llu packets checked on %llu connection epochs that stayed up, %llu lost "
           "(%llu more than counted: sends that failed yet went); %d queue overflows\n",
           rounds, (unsigned long long)g_fig.checked_packets.load(), (unsigned long long)g_fig.checked_epochs.load(),
           (unsigned long long)g_fig.lost.load(), (unsigned long long)g_fig.excess.load(), overflows);
    printf("  timers: %llu made by a thread, %llu by callbacks; %llu destroyed by a thread, %llu by other timers' "
           "callbacks, %llu by their own; %llu fires, %llu after their destroy, %llu refused destroys\n",
           (unsigned long long)g_fig.timers_made_thread.load(), (unsigned long long)g_fig.timers_made_cb.load(),
           (unsigned long long)g_fig.timers_killed_thread.load(), (unsigned long long)g_fig.timers_killed_cb.load(),
           (unsigned long long)g_fig.timers_self_killed.load(), (unsigned long long)g_fig.timer_fires.load(),
           (unsigned long long)g_fig.timer_late_fires.load(), (unsigned long long)g_fig.timer_refusals.load());
    printf("  at the end: descriptors %d -> %d, threads %d -> %d, heap %zu -> %zu bytes, peer connections open "
           "%llu; library log lines %d\n",
           fd0, fd1, th0, th1, heap0, heap1, (unsigned long long)peer_open, lines);
    if (!failed.empty()) {
        printf("  failed: %s\n", failed.c_str());
        size_t at = text.size();
        for (int i = 0; i <= 10 && at != std::string::npos && at > 0; i++) at = text.rfind('\n', at - 1);
        printf("-- last library log lines:\n%s", text.substr(at == std::string::npos ? 0 : at + 1).c_str());
#if defined(__SANITIZE_ADDRESS__)
        if (heap1 != heap0 && getenv("CHAOS_HEAP_PROFILE") != nullptr) __sanitizer_print_memory_profile(100, 20);
#endif
    }
    sdk_os_cleanup();
    return failed.empty() ? 0 : 1;
}
