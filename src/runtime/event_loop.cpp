// The event thread and its watchers, the timer thread, timers and posted functions.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/alloc.h"
#include "log/log_internal.h"
#include "runtime/runtime_internal.h"
#include "runtime/runtime_state.h"

namespace {

enum { kEventsPerPass = 256, kWaitMs = 6000 };

// Maps each bit of `from` to the bit at the same place in `to`.
unsigned map_bits(unsigned v, const unsigned (&from)[3], const unsigned (&to)[3]) {
    unsigned out = 0;
    for (int i = 0; i < 3; i++)
        if (v & from[i]) out |= to[i];
    return out;
}
const unsigned kWatchBits[3] = {KX_WATCH_READ, KX_WATCH_WRITE, KX_WATCH_ERROR};
const unsigned kPollBits[3] = {KX_POLL_IN, KX_POLL_OUT, KX_POLL_ERR};

unsigned poll_interest(unsigned interest) { return map_bits(interest, kWatchBits, kPollBits); }
unsigned watch_events(unsigned poll_events) { return map_bits(poll_events, kPollBits, kWatchBits); }

// Timer walks under way and timers destroyed during them, under the timer list's lock. A timer
// destroyed while a walk may still reach it stays in the list, marked dead and never called, until
// the outermost walk ends and sweeps it out: no walk ever steps onto a freed node, whatever a
// callback destroys.
struct TimerWalks {
    int depth;      // walks under way (a callback may walk again on the same thread)
    uint32_t dead;  // dead timers still in the list
};
TimerWalks s_timer_walks = {0, 0};

// The node of a timer, found by its pointer, so that a pointer that is no timer (one destroyed
// before) is refused without reading what it points to. List lock held.
_OS_DListNode *find_timer(const _SdkTimer *timer) {
    for (_OS_DListNode *node = adt_dlist_head(s_rt.timer_ls); node != nullptr; node = adt_dlist_next(node))
        if (*static_cast<_SdkTimer **>(adt_dlist_getdata(node)) == timer) return node;
    return nullptr;
}

// Frees the dead timers; list lock held, no walk under way.
void sweep_dead_timers(void) {
    _OS_DListNode *node = adt_dlist_head(s_rt.timer_ls);
    while (node != nullptr && s_timer_walks.dead > 0) {
        _OS_DListNode *next = adt_dlist_next(node);
        _SdkTimer *timer = *static_cast<_SdkTimer **>(adt_dlist_getdata(node));
        if (timer->dead) {
            adt_dlist_delete(s_rt.timer_ls, node);
            free(timer);
            s_timer_walks.dead--;
        }
        node = next;
    }
}

// Serving a pipe: one read of at most 32 bytes, all of which count as one event.
void drain_pipe(int fd) {
    char buf[32];
    ssize_t r = read(fd, buf, sizeof(buf));
    (void)r;
}

void run_posted_functions(void) {
    adt_dlist_lock(s_rt.posted_ls);
    _OS_DListNode *node;
    while ((node = adt_dlist_head(s_rt.posted_ls)) != nullptr) {
        _MainThreadFunc *f = *static_cast<_MainThreadFunc **>(adt_dlist_getdata(node));
        if (f != nullptr) {
            if (f->func != nullptr) f->func(f->arg);
            free(f);
        }
        adt_dlist_delete(s_rt.posted_ls, node);
    }
    adt_dlist_unlock(s_rt.posted_ls);
}

int on_tick(KxWatcher *w, unsigned) {
    drain_pipe(w->fd);
    os_timer_walk();
    return 0;
}

int on_post(KxWatcher *w, unsigned) {
    drain_pipe(w->fd);
    run_posted_functions();
    return 0;
}

// One pass: wait until a watched descriptor is ready (the tick comes once a second), then serve
// what the wait reported, one watcher at a time under the main lock. The cost of a pass follows the
// ready descriptors, not the registered ones. Write interest follows demand, so a descriptor that is
// only writable wakes nobody and the next wait follows at once. Only while an always-on write pump is
// registered does a pass end with a rest of 1 ms (unless a reader yielded with data left: its next
// share is read at once, after the others'): such a descriptor is ready in every wait.
void *select_thread(void *) {
    KxPollEvent ev[kEventsPerPass];
    for (;;) {
        kx_deadline_run();
        const uint64_t epoch = s_rt.watch_epoch.load();
        int n = kx_poller_wait(s_rt.poller, ev, kEventsPerPass, kx_deadline_wait_ms(kWaitMs));
        if (s_rt.quit.load()) return nullptr;  // a failed start takes the engine back
        s_rt.pass_ms = kx_now_ms();
        if (n < 0) {
            if (errno != EINTR) KX_LOG_ERR("os_tcp_client_open :select errno=%d,", errno);
            continue;
        }
        if (n == 0) {
            // A wait cut short for a deadline is no silent loop.
            if (kx_deadline_wait_ms(kWaitMs) < kWaitMs) continue;
            sdk_log_msg(" select return 0 ");
            continue;
        }
        bool more = false;
        for (int i = 0; i < n; i++) {
            KxWatcher *w = static_cast<KxWatcher *>(ev[i].tag);
            sdk_main_lock();
            // A watcher stopped since the wait, or started again after it began, would be served on
            // readiness that belongs to its earlier descriptor: level-triggered waiting reports the
            // current one in the next pass.
            if (w->active.load() && w->epoch <= epoch && w->callback(w, watch_events(ev[i].events)) != 0) more = true;
            sdk_main_unlock();
        }
        s_rt.passes.fetch_add(1);
        if (!more && s_rt.pumps.load(std::memory_order_relaxed) > 0) sdk_os_sleep(1);
    }
    return nullptr;
}

void *os_timer_thread(void *) {
    for (;;) {
        sdk_os_sleep(1000);
        pthread_mutex_lock(&s_rt.tick_mutex);
        if (!s_rt.tick_paused) {
            ssize_t r = write(s_rt.tick_pipe[1], "t", 1);
            (void)r;
        }
        pthread_mutex_unlock(&s_rt.tick_mutex);
    }
    return nullptr;
}

// The pipes are internal: no descriptor of theirs leaks into a child process.
void cloexec(int fds[2]) {
    for (int i = 0; i < 2; i++) fcntl(fds[i], F_SETFD, FD_CLOEXEC);
}

}  // namespace

int kx_watch_start(KxWatcher *w, int fd, unsigned interest, KxWatchCallback callback, void *context) {
    KX_ASSERT_MAIN_LOCK();
    if (fd < 0 || w->active.load() || s_rt.poller == nullptr) return 0;
    w->fd = fd;
    w->callback = callback;
    w->context = context;
    w->interest = interest;
    w->epoch = s_rt.watch_epoch.fetch_add(1) + 1;
    if (!kx_poller_add(s_rt.poller, fd, poll_interest(interest), w)) return 0;
    w->active = true;
    s_rt.watch_count++;
    return 1;
}

int kx_watch_set_interest(KxWatcher *w, unsigned interest) {
    if (w->interest.load(std::memory_order_relaxed) == interest) return 1;
    w->interest = interest;
    return kx_poller_modify(s_rt.poller, w->fd, poll_interest(interest), w);
}

int kx_watch_stop(KxWatcher *w) {
    KX_ASSERT_MAIN_LOCK();
    if (!w->active.load()) return 0;
    kx_poller_remove(s_rt.poller, w->fd);
    w->active = false;
    s_rt.watch_count--;
    return 1;
}

int kx_watch_count(void) {
    MainLock lock;
    return s_rt.watch_count;
}

uint64_t kx_loop_passes(void) { return s_rt.passes.load(); }

int64_t kx_loop_pass_ms(void) {
    if (!pthread_equal(pthread_self(), s_rt.event_thread) || s_rt.pass_ms == 0) return kx_now_ms();
    return s_rt.pass_ms;
}

void kx_loop_wake(void) {
    if (s_rt.post_pipe[1] < 0) return;
    ssize_t r = write(s_rt.post_pipe[1], "w", 1);
    (void)r;
}

void kx_loop_pumps_add(int delta) { s_rt.pumps.fetch_add(delta, std::memory_order_relaxed); }

int kx_loop_pumps(void) { return s_rt.pumps.load(std::memory_order_relaxed); }

namespace {

// What a failed engine start had made, undone in reverse order. Only the start calls this, from the
// one thread that starts the library, before anything outside the engine could use what it made.
struct EngineBuilt {
    bool event_thread = false;
};

void close_pipe(int fds[2]) {
    for (int i = 0; i < 2; i++) {
        if (fds[i] >= 0) close(fds[i]);
        fds[i] = -1;
    }
}

void engine_undo(const EngineBuilt &built) {
    if (built.event_thread) {
        // The post pipe wakes the event thread at once; it sees the flag and ends.
        s_rt.quit = true;
        ssize_t r = write(s_rt.post_pipe[1], "q", 1);
        (void)r;
        sdk_thread_join(&s_rt.event_thread);
        s_rt.quit = false;
    }
    {
        MainLock lock;
        kx_watch_stop(&s_rt.post_watch);
        kx_watch_stop(&s_rt.tick_watch);
    }
    close_pipe(s_rt.post_pipe);
    close_pipe(s_rt.tick_pipe);
    kx_poller_destroy(s_rt.poller);
    s_rt.poller = nullptr;
    if (s_rt.posted_ls != nullptr) adt_dlist_destroy(s_rt.posted_ls);
    s_rt.posted_ls = nullptr;
    if (s_rt.timer_ls != nullptr) adt_dlist_destroy(s_rt.timer_ls);
    s_rt.timer_ls = nullptr;
}

// The steps of the engine start; 0 at the first that fails, with its record logged.
int engine_build(EngineBuilt *built) {
    if (!runtime_main_lock_init()) {
        sdk_log_msg("sdk_mutex_init s_os_main_mutex fail");
        return 0;
    }
    s_rt.timer_ls = adt_dlist_create(sizeof(void *));
    if (s_rt.timer_ls == nullptr) {
        sdk_log_msg("ios_adt_dlist_create s_os_timer_ls fail");
        return 0;
    }
    s_rt.posted_ls = adt_dlist_create(sizeof(void *));
    if (s_rt.posted_ls == nullptr) {
        sdk_log_msg("ios_adt_dlist_create s_os_ls_main_thread_func fail");
        return 0;
    }
    s_rt.poller = kx_poller_create();
    if (s_rt.poller == nullptr) {
        KX_LOG_ERRNO("kx_poller_create fail");
        return 0;
    }
    {
        MainLock lock;
        if (pipe(s_rt.tick_pipe) != 0) {
            s_rt.tick_pipe[0] = s_rt.tick_pipe[1] = -1;
            KX_LOG_ERR("pipe s_os_pipe_fd fail");
            return 0;
        }
        cloexec(s_rt.tick_pipe);
        if (!kx_watch_start(&s_rt.tick_watch, s_rt.tick_pipe[0], KX_WATCH_READ, on_tick, nullptr)) {
            KX_LOG_ERR("select_add_clientfd(NULL,s_os_pipe_fd[0]) fail");
            return 0;
        }
        if (pipe(s_rt.post_pipe) != 0) {
            s_rt.post_pipe[0] = s_rt.post_pipe[1] = -1;
            KX_LOG_ERR("pipe s_os_pipe_fd_post fail");
            return 0;
        }
        cloexec(s_rt.post_pipe);
        // A wake-up never blocks its writer (who may hold the main lock): a full pipe already wakes.
        fcntl(s_rt.post_pipe[1], F_SETFL, fcntl(s_rt.post_pipe[1], F_GETFL) | O_NONBLOCK);
        if (!kx_watch_start(&s_rt.post_watch, s_rt.post_pipe[0], KX_WATCH_READ, on_post, nullptr)) {
            KX_LOG_ERR("select_add_clientfd(NULL,s_os_pipe_fd_post[0]) fail");
            return 0;
        }
    }
    if (!sdk_thread_create(&s_rt.event_thread, KX_STACK_EVENT_THREAD, select_thread, nullptr)) {
        sdk_log_msg("sdk_thread_create s_os_main_thread fail");
        return 0;
    }
    built->event_thread = true;
    if (!sdk_thread_create(&s_rt.timer_thread, 0, os_timer_thread, nullptr)) {
        sdk_log_msg("sdk_thread_create s_os_timer_thread fail");
        return 0;
    }
    return 1;
}

}  // namespace

int runtime_engine_start(void) {
    EngineBuilt built;
    if (engine_build(&built)) return 1;
    engine_undo(built);
    return 0;
}

sdk_thread_t runtime_event_thread(void) { return s_rt.event_thread; }

uint32_t os_timer_count(void) {
    if (s_rt.timer_ls == nullptr) return 0;
    uint32_t n = 0;
    adt_dlist_lock(s_rt.timer_ls);
    for (_OS_DListNode *node = adt_dlist_head(s_rt.timer_ls); node != nullptr; node = adt_dlist_next(node))
        if (!(*static_cast<_SdkTimer **>(adt_dlist_getdata(node)))->dead) n++;
    adt_dlist_unlock(s_rt.timer_ls);
    return n;
}

// No node leaves the list while a walk is under way (sdk_timer_destroy only marks a timer dead
// then), so the next node is read after the callback, whatever it destroyed. A timer a callback
// creates goes to the head, behind the walk, and is first counted at the next tick.
void os_timer_walk(void) {
    adt_dlist_lock(s_rt.timer_ls);
    s_timer_walks.depth++;
    for (_OS_DListNode *node = adt_dlist_head(s_rt.timer_ls); node != nullptr; node = adt_dlist_next(node)) {
        _SdkTimer *timer = *static_cast<_SdkTimer **>(adt_dlist_getdata(node));
        if (timer->dead) continue;
        timer->elapsed += 1000;
        if (timer->elapsed >= timer->period) {
            timer->elapsed = 0;
            if (timer->callback != nullptr) timer->callback(timer->udata);
        }
    }
    if (--s_timer_walks.depth == 0 && s_timer_walks.dead > 0) sweep_dead_timers();
    adt_dlist_unlock(s_rt.timer_ls);
}

int os_post_main_thread_func(MainThreadFuncCallback func, void *arg) {
    if (func == nullptr || s_rt.posted_ls == nullptr) return 0;
    _MainThreadFunc *f = static_cast<_MainThreadFunc *>(kx_malloc(sizeof(_MainThreadFunc)));
    if (f == nullptr) return 0;
    f->func = func;
    f->arg = arg;
    adt_dlist_lock(s_rt.posted_ls);
    _OS_DListNode *node = adt_dlist_add(s_rt.posted_ls, nullptr, &f);
    adt_dlist_unlock(s_rt.posted_ls);
    if (node == nullptr) {
        free(f);
        return 0;
    }
    ssize_t r = write(s_rt.post_pipe[1], "p", 1);
    (void)r;
    return 1;
}

void os_timer_pause_ticks(int paused) {
    pthread_mutex_lock(&s_rt.tick_mutex);
    s_rt.tick_paused = paused != 0;
    pthread_mutex_unlock(&s_rt.tick_mutex);
    if (!paused || s_rt.tick_pipe[0] < 0) return;
    // Wait (bounded) until the event thread has taken every pending tick byte; it reads them under
    // the main lock and walks the timers in the same hold, so taking the lock afterwards waits out
    // that walk.
    for (int i = 0; i < 5000; i++) {
        int pending = 0;
        if (ioctl(s_rt.tick_pipe[0], FIONREAD, &pending) != 0 || pending == 0) break;
        sdk_os_sleep(1);
    }
    sdk_main_lock();
    sdk_main_unlock();
}

extern "C" {

KX_API _SdkTimer *sdk_timer_create(SdkTimerCallback callback, uint32_t period, void *udata) {
    _SdkTimer *timer = static_cast<_SdkTimer *>(kx_malloc(sizeof(_SdkTimer)));
    if (timer == nullptr) {
        sdk_log_msg("malloc fail");
        return nullptr;
    }
    timer->callback = callback;
    timer->period = period;
    timer->udata = udata;
    timer->elapsed = 0;
    timer->dead = false;
    // Once the lock is released the timer is the event thread's too: nothing of it is read after.
    bool listed = false;
    if (s_rt.timer_ls != nullptr) {
        adt_dlist_lock(s_rt.timer_ls);
        listed = adt_dlist_insert(s_rt.timer_ls, nullptr, &timer) != nullptr;
        adt_dlist_unlock(s_rt.timer_ls);
    }
    if (!listed) {
        KX_LOG_ERR("%s", "");
        free(timer);
        return nullptr;
    }
    return timer;
}

KX_API int sdk_timer_destroy(_SdkTimer *timer) {
    if (timer == nullptr) {
        sdk_log_msg("timer is null");
        return 0;
    }
    if (s_rt.timer_ls == nullptr) return 0;
    adt_dlist_lock(s_rt.timer_ls);
    _OS_DListNode *node = find_timer(timer);
    int ok = 0;
    if (node == nullptr || timer->dead) {
        sdk_log_msg("sdk_timer_destroy: 0x%08x is no timer (destroyed already?)", (unsigned)(uintptr_t)timer);
    } else if (s_timer_walks.depth > 0) {
        // A walk may still reach it (this is a callback, or a walk this one runs inside): the
        // walk's end frees it.
        timer->dead = true;
        s_timer_walks.dead++;
        ok = 1;
    } else {
        ok = adt_dlist_delete(s_rt.timer_ls, node);
        if (ok) free(timer);
    }
    adt_dlist_unlock(s_rt.timer_ls);
    return ok;
}

}  // extern "C"
