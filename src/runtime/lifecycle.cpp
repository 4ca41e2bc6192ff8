// Library start and stop, the main lock and the three pools of network records.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "log/log_internal.h"
#include "runtime/runtime_event.h"
#include "runtime/runtime_internal.h"

namespace {

int s_ilInitialOsCore = 0;
// Engine flag: -1 until the engine has started, then 1 for the rest of the process.
std::atomic<int> s_epoll_fd{-1};

#if defined(PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP)
sdk_mutex_t s_os_main_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
const bool s_main_mutex_static = true;
#else
sdk_mutex_t s_os_main_mutex;
const bool s_main_mutex_static = false;
#endif

// One pool of records: slot search, counters and session numbers are guarded by its mutex.
template <typename T>
struct Pool {
    sdk_mutex_t mutex;
    T *slots;
    uint32_t max;
    uint32_t num;
    uint32_t session;
};

Pool<_NetTcpClient> s_net_clients = {PTHREAD_MUTEX_INITIALIZER, nullptr, 0, 0, 0};
Pool<_NetTcpServer> s_net_servers = {PTHREAD_MUTEX_INITIALIZER, nullptr, 0, 0, 0};
Pool<_NetUdpClient> s_net_udps = {PTHREAD_MUTEX_INITIALIZER, nullptr, 0, 0, 0};

template <typename T>
T *pool_take(Pool<T> &pool, uint8_t type, const char *full_msg) {
    T *rec = nullptr;
    sdk_mutex_lock(&pool.mutex);
    if (pool.slots != nullptr && pool.num < pool.max) {
        for (uint32_t i = 0; i < pool.max; i++) {
            if (pool.slots[i].index == -1) {
                rec = &pool.slots[i];
                memset(rec, 0, sizeof(T));
                rec->index = (int32_t)i;
                rec->type = type;
                rec->session = ++pool.session;
                pool.num++;
                break;
            }
        }
    }
    sdk_mutex_unlock(&pool.mutex);
    if (rec == nullptr) sdk_log_msg("%s", full_msg);
    return rec;
}

template <typename T>
int pool_give(Pool<T> &pool, T *rec) {
    int ok = 0;
    sdk_main_lock();
    sdk_mutex_lock(&pool.mutex);
    if (rec->index != -1) {
        rec->index = -1;
        pool.num--;
        ok = 1;
    }
    sdk_mutex_unlock(&pool.mutex);
    sdk_main_unlock();
    return ok;
}

// Builds one pool: its mutex, its slots, every slot marked free. Logs and gives 0 on failure.
template <typename T>
int pool_build(Pool<T> &pool, uint32_t max, const char *mutex_msg, const char *malloc_msg) {
    if (!sdk_mutex_init(&pool.mutex, 0)) {
        sdk_log_msg("%s", mutex_msg);
        return 0;
    }
    pool.max = max;
    // At least one record of storage, so that a pool of 0 slots still has a valid address.
    pool.slots = static_cast<T *>(malloc(sizeof(T) * (max ? max : 1)));
    if (pool.slots == nullptr) {
        KX_LOG_ERR("%s", malloc_msg);
        return 0;
    }
    for (uint32_t i = 0; i < max; i++) pool.slots[i].index = -1;
    return 1;
}

_SdkTimer *s_log_checktimer = nullptr;

}  // namespace

_NetTcpClient *pool_take_client(void) { return pool_take(s_net_clients, 1, "client num out"); }
_NetTcpServer *pool_take_server(void) { return pool_take(s_net_servers, 0, "server num out"); }
_NetUdpClient *pool_take_udp(void) { return pool_take(s_net_udps, 4, "udp num out"); }
int pool_give_client(_NetTcpClient *client) { return pool_give(s_net_clients, client); }
int pool_give_server(_NetTcpServer *server) { return pool_give(s_net_servers, server); }
int pool_give_udp(_NetUdpClient *client) { return pool_give(s_net_udps, client); }
uint32_t pool_client_max(void) { return s_net_clients.max; }
uint32_t pool_client_used(void) { return s_net_clients.num; }
uint32_t pool_server_max(void) { return s_net_servers.max; }
uint32_t pool_server_used(void) { return s_net_servers.num; }
uint32_t pool_udp_max(void) { return s_net_udps.max; }
uint32_t pool_udp_used(void) { return s_net_udps.num; }
_NetTcpClient *pool_client_at(uint32_t i) { return i < s_net_clients.max ? &s_net_clients.slots[i] : nullptr; }
_NetTcpServer *pool_server_at(uint32_t i) { return i < s_net_servers.max ? &s_net_servers.slots[i] : nullptr; }
_NetUdpClient *pool_udp_at(uint32_t i) { return i < s_net_udps.max ? &s_net_udps.slots[i] : nullptr; }

int runtime_start_count(void) { return s_ilInitialOsCore; }
_SdkTimer *runtime_log_check_timer(void) { return s_log_checktimer; }

extern "C" {

KX_API int sdk_os_startup(uint32_t clientnum, uint32_t servernum) {
    sdk_log_msg("[%s %d][build %s %s]in s_ilInitialOsCore %d clientnum %d servernum %d", __func__, __LINE__,
                __DATE__, __TIME__, s_ilInitialOsCore, (int)clientnum, (int)servernum);
    if (++s_ilInitialOsCore > 1) return 1;
    log_create_mutexes();
    int ret = inner_sdk_os_startup(clientnum, servernum);
    if (ret != 0 && s_log_checktimer == nullptr) {
        update_log_config();
        s_log_checktimer = sdk_timer_create(on_check_log_timer, 3000, nullptr);
        if (s_log_checktimer == nullptr) KX_LOG_ERR("NULL == s_log_checktimer");
    }
    update_log_path();
    s_ilInitialOsCore = 1;
    sdk_log_msg("[%s %d][build %s %s]out s_ilInitialOsCore %d clientnum %d servernum %d", __func__, __LINE__,
                __DATE__, __TIME__, s_ilInitialOsCore, (int)clientnum, (int)servernum);
    return ret;
}

// The last stop gives 1 like every other: the library holds no thread-specific key whose release
// could fail.
KX_API int sdk_os_cleanup(void) {
    if (s_ilInitialOsCore != 1) {
        if (--s_ilInitialOsCore < 0) s_ilInitialOsCore = 0;
        sdk_log_msg("[Cleanup]KORVEX Cleanup!");
        return 1;
    }
    if (s_log_checktimer != nullptr) {
        sdk_timer_destroy(s_log_checktimer);
        s_log_checktimer = nullptr;
    }
    inner_sdk_os_cleanup();
    log_release_mutexes();
    s_ilInitialOsCore = 0;
    return 1;
}

KX_API int inner_sdk_os_startup(uint32_t clientnum, uint32_t servernum) {
    (void)clientnum;  // the client pool always has 200 slots
    if (sdk_is_startup()) return 1;
    if (!pool_build(s_net_clients, KX_CLIENT_POOL_SIZE, "sdk_mutex_init s_net_clients_mutex fail",
                    "malloc NetTcpClient fail"))
        return 0;
    select_table_reset(KX_CLIENT_POOL_SIZE);
    if (!pool_build(s_net_servers, servernum, "sdk_mutex_init s_net_servers_mutex fail", "malloc NetTcpServer fail"))
        return 0;
    if (!pool_build(s_net_udps, servernum, "sdk_mutex_init s_net_udps_mutex fail", "malloc NetUdpClient fail"))
        return 0;
    if (!s_main_mutex_static && !sdk_mutex_init(&s_os_main_mutex, 1)) {
        sdk_log_msg("sdk_mutex_init s_os_main_mutex fail");
        return 0;
    }
    if (!event_engine_start()) return 0;
    s_epoll_fd = 1;
    return 1;
}

// Closes the sockets of the server and UDP pools; the records keep their fields.
KX_API int inner_sdk_os_cleanup(void) {
    for (uint32_t i = 0; i < s_net_servers.max; i++)
        if (s_net_servers.slots[i].index != -1) close(s_net_servers.slots[i].socketfd);
    for (uint32_t i = 0; i < s_net_udps.max; i++)
        if (s_net_udps.slots[i].index != -1) close(s_net_udps.slots[i].socketfd);
    return 1;
}

KX_API bool sdk_is_startup(void) { return s_epoll_fd.load() == 1; }

KX_API void sdk_main_lock(void) { pthread_mutex_lock(&s_os_main_mutex); }

KX_API void sdk_main_unlock(void) { pthread_mutex_unlock(&s_os_main_mutex); }

// Sleeps through the whole span, also for spans that don't fit usleep's argument.
KX_API void sdk_os_sleep(uint32_t ms) {
    struct timespec ts = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

KX_API int sdk_os_set_usr_flag(int flag) {
    (void)flag;
    return 0;
}

KX_API void sdk_os_set_cur_path(void *path) { (void)path; }

}  // extern "C"
