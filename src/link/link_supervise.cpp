// The supervisor of a link and its counters. The supervisor keeps one deadline per link on the
// event thread's heap, whose meaning follows the link's state: while connecting, the end of the
// connect; while up, the idle check; while down, the next reopen. Every event costs the link O(1)
// work plus one heap step; a received byte only stores the time, and the idle deadline, when it
// falls due, moves itself to the last byte's time plus idle_ms instead of being moved per byte.
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <new>

#include "link/link_internal.h"
#include "log/log_internal.h"
#include "net/net_internal.h"
#include "runtime/runtime_internal.h"

enum { kDeadlineNone = 0, kDeadlineConnect, kDeadlineIdle, kDeadlineReopen };
enum { kDefaultConnectMs = 10000 };

struct NetLinkSupervisor {
    _NetLink *link;
    // What to watch, and whether the supervisor runs: main lock.
    NetLinkSupervision cfg;
    bool on;
    std::atomic<NetLinkStateCallback> state_cb;
    std::atomic<int> state;
    int failed;     // reopens in a row that failed; main lock
    int last_reason;  // main lock
    int64_t up_at;  // when the connection came up (monotonic ms); main lock
    KxDeadline deadline;  // main lock
    int deadline_kind;    // main lock
    uint64_t rng;         // main lock
    std::atomic<int64_t> last_rx;  // monotonic ms of the last byte received; -1 before any
    std::atomic<uint64_t> bytes_in, bytes_out, packets_in, packets_out;
    std::atomic<uint32_t> connects, disconnects, attempts, packets_dropped;
};

namespace {

// The link whose state callback runs on this thread: it must not be destroyed inside it.
thread_local _NetLink *s_link_in_state = nullptr;

bool valid(const NetLinkSupervision *s) {
    if (s->idle_ms < 0 || s->keepalive_s < 0 || s->reconnect_min_ms < 0 || s->reconnect_max_ms < 0 ||
        s->max_attempts < 0)
        return false;
    return s->reconnect_max_ms == 0 || s->reconnect_min_ms <= s->reconnect_max_ms;
}

bool any(const NetLinkSupervision *s) {
    return s->idle_ms != 0 || s->keepalive_s != 0 || s->reconnect_min_ms != 0 || s->reconnect_max_ms != 0 ||
           s->max_attempts != 0;
}

// xorshift64*: the jitter needs spread, not secrecy.
uint64_t next_random(NetLinkSupervisor *sup) {
    uint64_t x = sup->rng;
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    sup->rng = x;
    return x * 0x2545F4914F6CDD1Dull;
}

void report(NetLinkSupervisor *sup, int state, int reason) {
    sup->state.store(state);
    NetLinkStateCallback cb = sup->state_cb.load();
    if (cb == nullptr) return;
    _NetLink *prev = s_link_in_state;
    s_link_in_state = sup->link;
    cb(sup->link, sup->link->udata, state, reason);
    s_link_in_state = prev;
}

void arm(NetLinkSupervisor *sup, int kind, int64_t at) {
    sup->deadline_kind = kind;
    if (!kx_deadline_arm(&sup->deadline, at)) sup->deadline_kind = kDeadlineNone;
}

void disarm(NetLinkSupervisor *sup) {
    kx_deadline_cancel(&sup->deadline);
    sup->deadline_kind = kDeadlineNone;
}

int connect_bound_ms(const NetLinkSupervisor *sup) {
    return sup->cfg.reconnect_max_ms > 0 ? sup->cfg.reconnect_max_ms : kDefaultConnectMs;
}

int64_t idle_base(const NetLinkSupervisor *sup) {
    int64_t rx = sup->last_rx.load(std::memory_order_relaxed);
    return rx > sup->up_at ? rx : sup->up_at;
}

void arm_idle(NetLinkSupervisor *sup) {
    if (sup->on && sup->cfg.idle_ms > 0) arm(sup, kDeadlineIdle, idle_base(sup) + sup->cfg.idle_ms);
}

// A failed reopen, or a connection that ended: the next reopen, or the end of trying.
void after_down(NetLinkSupervisor *sup, int reason, bool attempt_failed) {
    disarm(sup);
    if (!sup->on || reason == NET_LINK_LOCAL || sup->cfg.reconnect_min_ms == 0) return;
    if (attempt_failed) sup->failed++;
    if (sup->cfg.max_attempts > 0 && sup->failed >= sup->cfg.max_attempts) {
        report(sup, NET_LINK_GAVE_UP, reason);
        return;
    }
    int64_t delay = link_backoff_ms(sup->cfg.reconnect_min_ms, sup->cfg.reconnect_max_ms, sup->failed,
                                    next_random(sup));
    arm(sup, kDeadlineReopen, kx_now_ms() + delay);
}

// The deadline of a link has fallen due: event thread, main lock held.
void on_deadline(KxDeadline *d) {
    NetLinkSupervisor *sup = static_cast<NetLinkSupervisor *>(d->context);
    _NetTcpClient *client = sup->link->client;
    int kind = sup->deadline_kind;
    sup->deadline_kind = kDeadlineNone;
    if (!sup->on || client == nullptr) return;
    switch (kind) {
    case kDeadlineConnect:
        if (sup->state.load() != NET_LINK_CONNECTING || client_status(client) != 1) break;
        // A connect that has settled but waits for a busy event thread is not hanging: the event
        // thread serves it in this pass.
        if (net_tcp_client_connect_settled(client))
            arm(sup, kDeadlineConnect, kx_now_ms() + connect_bound_ms(sup));
        else
            net_tcp_client_end(client, NET_LINK_UNREACHABLE);
        break;
    case kDeadlineIdle: {
        if (sup->state.load() != NET_LINK_UP || client_status(client) != 2) break;
        int64_t due = idle_base(sup) + sup->cfg.idle_ms;
        if (kx_now_ms() >= due)
            net_tcp_client_end(client, NET_LINK_IDLE);
        else
            arm(sup, kDeadlineIdle, due);
        break;
    }
    case kDeadlineReopen:
        if (client_status(client) != 0) break;  // the caller opened it meanwhile
        if (net_tcp_client_open(client, -1) != 1) {
            // No socket to be had (descriptors or memory): counts as a failed reopen.
            sup->attempts.fetch_add(1, std::memory_order_relaxed);
            sup->last_reason = NET_LINK_UNREACHABLE;
            report(sup, NET_LINK_DOWN, NET_LINK_UNREACHABLE);
            after_down(sup, NET_LINK_UNREACHABLE, true);
        }
        break;
    default:
        break;
    }
}

// The client's connection hook: main lock held.
void on_client(_NetTcpClient *client, int event) {
    _NetLink *link = static_cast<_NetLink *>(client_udata(client));
    if (link == nullptr || link->client != client || link->sup == nullptr) return;
    NetLinkSupervisor *sup = link->sup;
    if (event == KX_CLIENT_CONNECTING) {
        sup->attempts.fetch_add(1, std::memory_order_relaxed);
        if (sup->on) arm(sup, kDeadlineConnect, kx_now_ms() + connect_bound_ms(sup));
        report(sup, NET_LINK_CONNECTING, 0);
    } else {
        sup->connects.fetch_add(1, std::memory_order_relaxed);
        sup->failed = 0;
        sup->up_at = kx_now_ms();
        disarm(sup);
        if (sup->on && sup->cfg.keepalive_s > 0) net_tcp_client_set_keepalive(client, sup->cfg.keepalive_s);
        arm_idle(sup);
        report(sup, NET_LINK_UP, 0);
    }
}

}  // namespace

int64_t link_backoff_ms(int min_ms, int max_ms, int failed, uint64_t random) {
    int64_t ceiling = min_ms;
    for (int i = 0; i < failed && ceiling < (int64_t)max_ms; i++) ceiling *= 2;
    if (ceiling > max_ms) ceiling = max_ms;
    if (ceiling <= min_ms) return min_ms;
    return min_ms + (int64_t)(random % (uint64_t)(ceiling - min_ms + 1));
}

NetLinkSupervisor *link_sup_create(_NetLink *link) {
    // malloc and placement new: the library links no C++ runtime beyond the headers.
    void *mem = calloc(1, sizeof(NetLinkSupervisor));
    if (mem == nullptr) return nullptr;
    NetLinkSupervisor *sup = new (mem) NetLinkSupervisor();
    sup->link = link;
    sup->state = NET_LINK_DOWN;
    sup->last_rx = -1;
    sup->deadline.heap_index = -1;
    sup->deadline.callback = on_deadline;
    sup->deadline.context = sup;
    sup->rng = ((uint64_t)(uintptr_t)link * 0x9E3779B97F4A7C15ull) ^ (uint64_t)kx_now_ms() ^ 0x5DEECE66Dull;
    if (sup->rng == 0) sup->rng = 1;
    return sup;
}

void link_sup_destroy(NetLinkSupervisor *sup) {
    if (sup == nullptr) return;
    {
        MainLock lock;
        disarm(sup);
        sup->on = false;
    }
    sup->~NetLinkSupervisor();
    free(sup);
}

bool link_sup_in_state_callback(_NetLink *link) { return s_link_in_state == link; }

void link_sup_attach(_NetLink *link, _NetTcpClient *client, bool attach) {
    net_tcp_client_set_hook(client, attach ? on_client : nullptr);
    (void)link;
}

void link_sup_received(NetLinkSupervisor *sup, int bytes) {
    sup->bytes_in.fetch_add((uint64_t)bytes, std::memory_order_relaxed);
    sup->last_rx.store(kx_loop_pass_ms(), std::memory_order_relaxed);
}
void link_sup_packet_in(NetLinkSupervisor *sup) { sup->packets_in.fetch_add(1, std::memory_order_relaxed); }
void link_sup_sent(NetLinkSupervisor *sup, int bytes) {
    if (bytes > 0) sup->bytes_out.fetch_add((uint64_t)bytes, std::memory_order_relaxed);
}
void link_sup_packet_out(NetLinkSupervisor *sup, uint32_t packets) {
    sup->packets_out.fetch_add(packets, std::memory_order_relaxed);
}
void link_sup_dropped(NetLinkSupervisor *sup, uint32_t packets) {
    if (packets > 0) sup->packets_dropped.fetch_add(packets, std::memory_order_relaxed);
}

void link_sup_down(_NetLink *link, int reason) {
    NetLinkSupervisor *sup = link->sup;
    if (sup == nullptr) return;
    const bool was_connecting = sup->state.load() == NET_LINK_CONNECTING;
    sup->disconnects.fetch_add(1, std::memory_order_relaxed);
    sup->last_reason = reason;
    if (reason == NET_LINK_LOCAL) sup->on = false;  // the caller's close stops the supervisor
    disarm(sup);
    report(sup, NET_LINK_DOWN, reason);
    after_down(sup, reason, was_connecting);
}

extern "C" {

KX_API int net_link_supervise(_NetLink *link, const NetLinkSupervision *s) {
    if (link == nullptr || s == nullptr || link->sup == nullptr) {
        sdk_log_msg("net_link_supervise: null link or record");
        return -1;
    }
    if (!valid(s)) {
        sdk_log_msg("net_link_supervise: bad values idle_ms %d keepalive_s %d reconnect_min_ms %d "
                    "reconnect_max_ms %d max_attempts %d",
                    s->idle_ms, s->keepalive_s, s->reconnect_min_ms, s->reconnect_max_ms, s->max_attempts);
        return -1;
    }
    NetLinkSupervisor *sup = link->sup;
    MainLock lock;
    const int old_keepalive = sup->on ? sup->cfg.keepalive_s : 0;
    sup->cfg = *s;
    sup->on = any(s);
    sup->failed = 0;
    disarm(sup);
    _NetTcpClient *client = link->client;
    if (client == nullptr) return 0;
    const int status = client_status(client);
    const int keepalive = sup->on ? s->keepalive_s : 0;
    if (status == 2 && keepalive != old_keepalive) net_tcp_client_set_keepalive(client, keepalive);
    if (!sup->on) return 0;
    if (status == 2 && sup->state.load() == NET_LINK_UP)
        arm_idle(sup);
    else if (status == 1 && sup->state.load() == NET_LINK_CONNECTING)
        arm(sup, kDeadlineConnect, kx_now_ms() + connect_bound_ms(sup));
    else if (status == 0 && sup->state.load() == NET_LINK_DOWN && sup->disconnects.load() > 0 &&
             sup->last_reason != NET_LINK_LOCAL)
        after_down(sup, sup->last_reason, false);
    return 0;
}

KX_API int net_link_bind_state(_NetLink *link, NetLinkStateCallback cb) {
    if (link == nullptr || link->sup == nullptr) {
        sdk_log_msg("net_link_bind_state: null link");
        return -1;
    }
    link->sup->state_cb.store(cb);
    return 0;
}

KX_API int net_link_get_stats(_NetLink *link, NetLinkStats *out) {
    if (link == nullptr || out == nullptr || link->sup == nullptr) {
        sdk_log_msg("net_link_get_stats: null argument");
        return -1;
    }
    NetLinkSupervisor *sup = link->sup;
    memset(out, 0, sizeof(*out));
    out->bytes_in = sup->bytes_in.load(std::memory_order_relaxed);
    out->bytes_out = sup->bytes_out.load(std::memory_order_relaxed);
    out->packets_in = sup->packets_in.load(std::memory_order_relaxed);
    out->packets_out = sup->packets_out.load(std::memory_order_relaxed);
    out->connects = sup->connects.load(std::memory_order_relaxed);
    out->disconnects = sup->disconnects.load(std::memory_order_relaxed);
    out->attempts = sup->attempts.load(std::memory_order_relaxed);
    out->packets_dropped = sup->packets_dropped.load(std::memory_order_relaxed);
    {
        sdk_mutex_lock(link->mtx_send);
        out->queue_blocks = adt_dlist_size(link->send_buf_ls);
        sdk_mutex_unlock(link->mtx_send);
    }
    int64_t rx = sup->last_rx.load(std::memory_order_relaxed);
    out->last_rx_ms = rx < 0 ? -1 : kx_now_ms() - rx;
    out->state = sup->state.load();
    return 0;
}

}  // extern "C"
