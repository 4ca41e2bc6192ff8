// The three pools of network records: built by the library's start, never released once it has
// succeeded.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/alloc.h"
#include "log/log_internal.h"
#include "net/net_internal.h"

namespace {

// One pool of records. The mutex guards the slot search, num and session; slots and max are set
// by the engine start, before any create call, and never change after.
template <typename Slot>
struct NetPool {
    sdk_mutex_t mutex;
    KxLockOwner owner;  // holder of mutex (debug builds)
    Slot *slots;        // set at start
    uint32_t max;       // set at start
    uint32_t num;       // mutex
    uint32_t session;   // mutex; only grows
};

// The socket engine's process-wide state: one record, one instance.
struct NetState {
    NetPool<NetClientSlot> clients;
    NetPool<_NetTcpServer> servers;
    NetPool<_NetUdpClient> udps;
};

NetState s_net = {
    {PTHREAD_MUTEX_INITIALIZER, {}, nullptr, 0, 0, 0},
    {PTHREAD_MUTEX_INITIALIZER, {}, nullptr, 0, 0, 0},
    {PTHREAD_MUTEX_INITIALIZER, {}, nullptr, 0, 0, 0},
};

// The public record of a slot.
inline _NetTcpClient *record(NetClientSlot &s) { return &s.client; }
inline _NetTcpServer *record(_NetTcpServer &s) { return &s; }
inline _NetUdpClient *record(_NetUdpClient &s) { return &s; }

// What a client slot keeps beside its record starts afresh with every allotment.
inline void reset_side(NetClientSlot &s) {
    s.on_demand = 0;
    s.want_write = 0;
    s.read_left = -1;
    s.read_yielded = false;
    s.end_reason = 0;
    s.hook = nullptr;
    s.nodelay = 0;
    s.pumping = false;
    s.head_cached = false;
}
inline void reset_side(_NetTcpServer &) {}
inline void reset_side(_NetUdpClient &) {}

template <typename Slot>
struct PoolLock {
    explicit PoolLock(NetPool<Slot> &p) : pool(p) {
        sdk_mutex_lock(&pool.mutex);
        pool.owner.acquired();
    }
    ~PoolLock() {
        pool.owner.releasing();
        sdk_mutex_unlock(&pool.mutex);
    }
    PoolLock(const PoolLock &) = delete;
    PoolLock &operator=(const PoolLock &) = delete;
    NetPool<Slot> &pool;
};

template <typename Slot>
auto pool_take(NetPool<Slot> &pool, uint8_t type, const char *full_msg) -> decltype(record(*pool.slots)) {
    decltype(record(*pool.slots)) rec = nullptr;
    {
        PoolLock<Slot> lock(pool);
        KX_ASSERT_HELD(pool.owner);
        if (pool.slots != nullptr && pool.num < pool.max) {
            for (uint32_t i = 0; i < pool.max; i++) {
                if (record(pool.slots[i])->index == -1) {
                    rec = record(pool.slots[i]);
                    memset(rec, 0, sizeof(*rec));
                    reset_side(pool.slots[i]);
                    rec->index = (int32_t)i;
                    rec->type = type;
                    rec->session = ++pool.session;
                    pool.num++;
                    break;
                }
            }
        }
    }
    if (rec == nullptr) sdk_log_msg("%s", full_msg);
    return rec;
}

template <typename Slot, typename Rec>
int pool_give(NetPool<Slot> &pool, Rec *rec) {
    MainLock main;
    PoolLock<Slot> lock(pool);
    KX_ASSERT_MAIN_LOCK();  // the order: the main lock, then the pool's mutex
    KX_ASSERT_HELD(pool.owner);
    if (rec->index == -1) return 0;
    rec->index = -1;
    pool.num--;
    return 1;
}

// Builds one pool: its mutex, its slots, every slot marked free. Logs and gives 0 on failure.
template <typename Slot>
int pool_build(NetPool<Slot> &pool, uint32_t max, const char *mutex_msg, const char *malloc_msg) {
    if (!sdk_mutex_init(&pool.mutex, 0)) {
        sdk_log_msg("%s", mutex_msg);
        return 0;
    }
    // At least one record of storage, so that a pool of 0 slots still has a valid address. Zeroed,
    // which is the starting state of a watcher.
    Slot *slots = static_cast<Slot *>(kx_calloc(max ? max : 1, sizeof(Slot)));
    if (slots == nullptr) {
        KX_LOG_ERR("%s", malloc_msg);
        return 0;
    }
    for (uint32_t i = 0; i < max; i++) record(slots[i])->index = -1;
    pool.slots = slots;
    pool.max = max;
    return 1;
}

// Takes back what pool_build made; the pool is as before the start.
template <typename Slot>
void pool_release(NetPool<Slot> &pool) {
    if (pool.slots == nullptr) return;
    free(pool.slots);
    pool.slots = nullptr;
    pool.max = 0;
    pool.num = 0;
}

}  // namespace

void net_pools_release(void) {
    if (s_net.clients.slots != nullptr)
        for (uint32_t i = 0; i < s_net.clients.max; i++) pthread_mutex_destroy(&s_net.clients.slots[i].watch_mtx);
    pool_release(s_net.clients);
    pool_release(s_net.servers);
    pool_release(s_net.udps);
}

int net_pools_build(uint32_t clientnum, uint32_t servernum) {
    uint32_t clients = clientnum > (uint32_t)KX_CLIENT_POOL_MIN ? clientnum : (uint32_t)KX_CLIENT_POOL_MIN;
    if (!pool_build(s_net.clients, clients, "sdk_mutex_init s_net_clients_mutex fail", "malloc NetTcpClient fail"))
        return 0;
    for (uint32_t i = 0; i < clients; i++) {
        NetClientSlot &s = s_net.clients.slots[i];
        pthread_mutex_init(&s.watch_mtx, nullptr);
        pthread_mutex_init(&s.io_mtx, nullptr);
        s.read_left = -1;
    }
    if (!pool_build(s_net.servers, servernum, "sdk_mutex_init s_net_servers_mutex fail", "malloc NetTcpServer fail") ||
        !pool_build(s_net.udps, servernum, "sdk_mutex_init s_net_udps_mutex fail", "malloc NetUdpClient fail")) {
        net_pools_release();
        return 0;
    }
    return 1;
}

NetClientSlot *client_slot(_NetTcpClient *c) {
    const uintptr_t at = reinterpret_cast<uintptr_t>(c);
    const uintptr_t first = reinterpret_cast<uintptr_t>(s_net.clients.slots);
    if (first == 0 || at < first) return nullptr;
    const uintptr_t off = at - first;
    if (off % sizeof(NetClientSlot) != 0 || off / sizeof(NetClientSlot) >= s_net.clients.max) return nullptr;
    return &s_net.clients.slots[off / sizeof(NetClientSlot)];
}

_NetTcpClient *pool_take_client(void) { return pool_take(s_net.clients, 1, "client num out"); }
_NetTcpServer *pool_take_server(void) { return pool_take(s_net.servers, 0, "server num out"); }
_NetUdpClient *pool_take_udp(void) { return pool_take(s_net.udps, 4, "udp num out"); }
int pool_give_client(_NetTcpClient *client) { return pool_give(s_net.clients, client); }
int pool_give_server(_NetTcpServer *server) { return pool_give(s_net.servers, server); }
int pool_give_udp(_NetUdpClient *client) { return pool_give(s_net.udps, client); }
uint32_t pool_client_max(void) { return s_net.clients.max; }
uint32_t pool_client_used(void) {
    PoolLock<NetClientSlot> lock(s_net.clients);
    return s_net.clients.num;
}
uint32_t pool_server_max(void) { return s_net.servers.max; }
uint32_t pool_server_used(void) {
    PoolLock<_NetTcpServer> lock(s_net.servers);
    return s_net.servers.num;
}
uint32_t pool_udp_max(void) { return s_net.udps.max; }
uint32_t pool_udp_used(void) {
    PoolLock<_NetUdpClient> lock(s_net.udps);
    return s_net.udps.num;
}
_NetTcpClient *pool_client_at(uint32_t i) { return i < s_net.clients.max ? &s_net.clients.slots[i].client : nullptr; }
_NetTcpServer *pool_server_at(uint32_t i) { return i < s_net.servers.max ? &s_net.servers.slots[i] : nullptr; }
_NetUdpClient *pool_udp_at(uint32_t i) { return i < s_net.udps.max ? &s_net.udps.slots[i] : nullptr; }

void net_pools_close_sockets(void) {
    for (uint32_t i = 0; i < s_net.servers.max; i++)
        if (s_net.servers.slots[i].index != -1) close(s_net.servers.slots[i].socketfd);
    for (uint32_t i = 0; i < s_net.udps.max; i++)
        if (s_net.udps.slots[i].index != -1) close(s_net.udps.slots[i].socketfd);
}
