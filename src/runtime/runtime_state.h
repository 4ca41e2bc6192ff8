// The runtime's process-wide state: one record, one instance (s_rt, in lifecycle.cpp). Each field
// names what guards it.
#pragma once

#include <pthread.h>

#include <atomic>

#include "platform/lock_check.h"
#include "platform/poller.h"
#include "runtime/runtime_internal.h"

struct RuntimeState {
    // -1 until the engine has started, then 1 for the rest of the process. Atomic: read anywhere.
    std::atomic<int> engine;
    // The main lock (recursive) and, in debug builds, its holder.
    sdk_mutex_t main_mutex;
    KxLockOwner main_owner;  // written by the holder of main_mutex
    // The readiness backend: set once by the engine start, before the event thread exists; its own
    // calls are thread-safe.
    KxPoller *poller;
    // Bumped by every watcher start; a pass drops events of watchers started after its wait began.
    // Written under the main lock, read by the event thread without it.
    std::atomic<uint64_t> watch_epoch;
    int watch_count;                  // main lock
    std::atomic<uint64_t> passes;     // written by the event thread only
    int64_t pass_ms;                  // kx_loop_pass_ms; the event thread's own
    std::atomic<int> pumps;           // always-on write pumps registered (kx_loop_pumps_add)
    // The tick pipe and the post pipe (read end, write end) and their watchers: set by the engine
    // start, then read-only; the watchers as KxWatcher says.
    int tick_pipe[2];
    int post_pipe[2];
    KxWatcher tick_watch;
    KxWatcher post_watch;
    // The timers and the posted functions: pointers set by the engine start, then read-only; the
    // lists by their own locks.
    _OS_DList *timer_ls;
    _OS_DList *posted_ls;
    // The two threads: set by the engine start, then read-only.
    sdk_thread_t event_thread;
    sdk_thread_t timer_thread;
    // Set only by the undo of a failed engine start: the event thread ends at its next wake.
    std::atomic<bool> quit;
    // Test seam of the tick: while paused the timer thread writes nothing. tick_mutex.
    pthread_mutex_t tick_mutex;
    bool tick_paused;  // tick_mutex
};

extern RuntimeState s_rt;
