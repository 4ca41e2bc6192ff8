// Internal side of the runtime: the pools, the descriptor table, the timers and the event thread.
#pragma once

#include <sys/select.h>

#include "korvex/korvex.h"

enum {
    KX_CLIENT_POOL_SIZE = 200,
    KX_SELECT_TABLE_SIZE = 1024,
    KX_STACK_EVENT_THREAD = 10485760,
};

// One entry of the descriptor table.
typedef struct _SelectClient {
    _NetTcpClient *client;  // null for a pipe and for a free entry
    int fd;                 // -1 in a free entry
} _SelectClient;

struct _SdkTimer {
    SdkTimerCallback callback;  // null: counts, calls nothing
    uint32_t period;            // milliseconds
    void *udata;
    uint32_t elapsed;  // grows by 1000 per tick
    _OS_DListNode *node;
};

// A function posted to run on the event thread; freed there after the call.
typedef int (*MainThreadFuncCallback)(void *arg);
typedef struct _MainThreadFunc {
    MainThreadFuncCallback func;
    void *arg;
} _MainThreadFunc;

// --- descriptor table ---
int select_add_clientfd(_NetTcpClient *client, int fd);
int select_Del_clientfd(int fd);
int get_maxfd_socketfd(void);
// Clears the bits of fd in the three sets of the current pass, so that a descriptor closed (and
// possibly reused) during a walk is not served on the old readiness. Call with the main lock held.
void select_clear_fd(int fd);
// Readiness of fd in the sets of the current pass: which is one of KX_SET_READ, KX_SET_WRITE,
// KX_SET_EXCEPT. 1 when the bit is set. Read with the main lock held, as the event thread does.
enum { KX_SET_READ = 0, KX_SET_WRITE = 1, KX_SET_EXCEPT = 2 };
int select_fd_is_set(int fd, int which);
// Read-only views for inspection: the entry at i (below the total) and the total.
const _SelectClient *select_table_entry(int i);
int select_table_total(void);

// --- pools: slots are taken by create calls and given back by destroy calls ---
// Takes the lowest free slot, zeroed, with index, type and a fresh session set; null and the pool's
// "... num out" line when the pool is full.
_NetTcpClient *pool_take_client(void);
_NetTcpServer *pool_take_server(void);
_NetUdpClient *pool_take_udp(void);
// Gives a slot back under the main lock, then the pool's mutex. 0 when the slot was already free.
int pool_give_client(_NetTcpClient *client);
int pool_give_server(_NetTcpServer *server);
int pool_give_udp(_NetUdpClient *client);
// Slot counts, slots in use.
uint32_t pool_client_max(void);
uint32_t pool_client_used(void);
uint32_t pool_server_max(void);
uint32_t pool_server_used(void);
uint32_t pool_udp_max(void);
uint32_t pool_udp_used(void);
// Slot i of a pool (i below its maximum), for walks over a whole pool.
_NetTcpClient *pool_client_at(uint32_t i);
_NetTcpServer *pool_server_at(uint32_t i);
_NetUdpClient *pool_udp_at(uint32_t i);

// --- timers and posted functions ---
// The timer walk of one tick: advances every timer by 1000 ms and fires those that are due.
void os_timer_walk(void);
// Runs on the event thread: allocates a _MainThreadFunc, queues it and wakes the event thread.
// 1 queued, 0 on failure (engine not started, no memory).
int os_post_main_thread_func(MainThreadFuncCallback func, void *arg);
// Test seam: while paused the timer thread writes no tick. Returns once no tick is pending and
// any walk in progress has ended, so a caller may then drive os_timer_walk itself.
void os_timer_pause_ticks(int paused);

// --- current state, for inspection ---
int runtime_start_count(void);
sdk_thread_t runtime_event_thread(void);
_SdkTimer *runtime_log_check_timer(void);
