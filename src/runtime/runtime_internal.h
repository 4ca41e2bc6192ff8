// Internal side of the runtime: the event thread and its watchers, the timers, the main lock.
#pragma once

#include <stdint.h>

#include <atomic>

#include "korvex/korvex.h"
#include "platform/lock_check.h"

enum {
    KX_STACK_EVENT_THREAD = 10485760,
};

// Readiness bits of a watcher's interest and of the events handed to its callback.
enum {
    KX_WATCH_READ = 1,   // readable, or the peer has closed
    KX_WATCH_WRITE = 2,  // writable
    KX_WATCH_ERROR = 4,  // error or hang-up: reported whatever the interest
};

// One descriptor that the event thread serves. Its storage belongs to whoever registers it and must
// stay valid for the life of the process (pool records and static records do).
struct KxWatcher;
// Runs on the event thread with the main lock held. 1 when the watcher yielded with work left (it
// read its share of a stream that still has data): the next pass follows without the rest.
typedef int (*KxWatchCallback)(KxWatcher *w, unsigned events);
struct KxWatcher {
    int fd;                          // main lock
    std::atomic<unsigned> interest;  // KX_WATCH_READ | KX_WATCH_WRITE; see kx_watch_set_interest
    KxWatchCallback callback;        // main lock
    void *context;                   // main lock; the registrant's, never read by the loop
    uint64_t epoch;                  // main lock; the loop's: when it was last started
    std::atomic<bool> active;        // written under the main lock
};

// Registers fd. Main lock held. 1, or 0 with nothing registered (fd negative, already watched, or
// refused by the system).
int kx_watch_start(KxWatcher *w, int fd, unsigned interest, KxWatchCallback callback, void *context);
// Changes the interest of an active watcher, from any thread and without the main lock; the event
// thread sees it at once, also in a wait in progress. The caller serialises the calls for one
// watcher with each other and with kx_watch_stop. 1, or 0 when the system refuses.
int kx_watch_set_interest(KxWatcher *w, unsigned interest);
// Unregisters; call before the descriptor is closed. Main lock held. Events of this watcher that a
// pass has already collected are dropped. 1, or 0 when it was not active.
int kx_watch_stop(KxWatcher *w);
// Number of active watchers (the two pipes included).
int kx_watch_count(void);
// Always-on write pumps registered (bare clients whose on_write runs whenever the socket has room):
// while there is one, a pass that served something ends with a rest of 1 ms, so that the loop does not
// spin on a descriptor that is always writable. Any thread; the caller keeps its own count straight.
void kx_loop_pumps_add(int delta);
int kx_loop_pumps(void);
// Passes the event thread has completed (a pass: one wait and the service of what it reported).
uint64_t kx_loop_passes(void);

// --- deadlines finer than the tick ---
// A deadline of the event thread: once the monotonic clock reaches `at`, the event thread takes it
// off and calls `callback` with the main lock held. The storage is the registrant's and must stay
// valid while the deadline is armed.
struct KxDeadline;
typedef void (*KxDeadlineCallback)(KxDeadline *d);
struct KxDeadline {
    int64_t at;                   // monotonic milliseconds; main lock
    int32_t heap_index;           // -1 while not armed; main lock. Set to -1 before first use
    KxDeadlineCallback callback;  // main lock
    void *context;                // the registrant's
};
// Milliseconds of the monotonic clock.
int64_t kx_now_ms(void);
// On the event thread, the monotonic milliseconds at which the current pass's wait returned: bytes it
// reads in this pass had arrived by then. One clock read per pass instead of one per read. On any other
// thread, kx_now_ms().
int64_t kx_loop_pass_ms(void);
// Arms d for `at`, or moves it there when it is armed already. Main lock held. 1, or 0 (logged)
// when there is no memory for one more deadline.
int kx_deadline_arm(KxDeadline *d, int64_t at);
// Takes d off when it is armed. Main lock held. The callback is not called afterwards.
void kx_deadline_cancel(KxDeadline *d);
// Event thread: how long the next wait may last, at most max_ms, so that the earliest deadline is
// not missed.
int kx_deadline_wait_ms(int max_ms);
// Event thread: calls every deadline that has fallen due. Takes the main lock only when one has.
void kx_deadline_run(void);
// Wakes the event thread from its wait (a byte on the post pipe). Any thread.
void kx_loop_wake(void);

// --- the engine ---
// Creates the main lock (where it needs run-time initialisation), the timer and posted-function
// lists, the readiness backend, the tick and post pipes with their watchers, and starts the event
// thread and the timer thread. Logs the failing step and gives 0 after undoing what it made: the
// descriptors closed, the event thread ended and joined, the lists and the backend freed, so that a
// later start begins afresh.
int runtime_engine_start(void);
// Marks the engine started: sdk_is_startup() is true from here on.
void runtime_engine_started(void);
// Initialises the main lock where the system needs that at run time. 1, or 0 on failure.
int runtime_main_lock_init(void);

// True when the calling thread holds the main lock (always true with NDEBUG).
bool runtime_main_lock_held(void);
#define KX_ASSERT_MAIN_LOCK() assert(runtime_main_lock_held())

// Holds the main lock for one scope.
struct MainLock {
    MainLock() { sdk_main_lock(); }
    ~MainLock() { sdk_main_unlock(); }
    MainLock(const MainLock &) = delete;
    MainLock &operator=(const MainLock &) = delete;
};

struct _SdkTimer {
    SdkTimerCallback callback;  // null: counts, calls nothing
    uint32_t period;            // milliseconds
    void *udata;
    uint32_t elapsed;  // grows by 1000 per tick
    bool dead;         // destroyed during a walk; freed when the walk ends (timer list lock)
};

// A function posted to run on the event thread; freed there after the call.
typedef int (*MainThreadFuncCallback)(void *arg);
typedef struct _MainThreadFunc {
    MainThreadFuncCallback func;
    void *arg;
} _MainThreadFunc;

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
// Live timers in the timer list (0 before the engine start).
uint32_t os_timer_count(void);
sdk_thread_t runtime_event_thread(void);

