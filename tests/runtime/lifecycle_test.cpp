// Start and stop, the pools, the descriptor table, timers and the event thread.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "net/tcp_peer.h"
#include "core/startup_internal.h"
#include "runtime/runtime_internal.h"
#include <sys/resource.h>
#include "support/proc_entries.h"
#include "support/stderr_capture.h"

namespace {

struct Fired {
    std::vector<int> order;
    int counts[8] = {};
};
Fired g_fired;

int count_cb(void *udata) {
    int id = (int)(intptr_t)udata;
    g_fired.counts[id]++;
    g_fired.order.push_back(id);
    return 0;
}

_SdkTimer *g_self_timer;
int destroy_self_cb(void *) {
    g_fired.counts[7]++;
    EXPECT_EQ(1, sdk_timer_destroy(g_self_timer));
    return 0;
}

int create_in_cb(void *) {
    static bool done = false;
    if (!done) {
        done = true;
        EXPECT_NE(nullptr, sdk_timer_create(count_cb, 0, (void *)6));
    }
    return 0;
}

}  // namespace

TEST(Lifecycle, StartCountThreadsAndLastStop) {
    proc_warm_thread();  // a sanitizer runtime starts its helper threads before the count
    int before = proc_entries("/proc/self/task");
    EXPECT_FALSE(sdk_is_startup());
    StderrCapture cap;
    cap.start();
    EXPECT_EQ(1, sdk_os_cleanup());  // a stop without a start
    EXPECT_EQ(0, kx_start_count());
    ASSERT_EQ(1, sdk_os_startup(5, 3));
    EXPECT_TRUE(sdk_is_startup());
    EXPECT_EQ(before + 2, proc_entries("/proc/self/task"));
    EXPECT_NE(nullptr, kx_log_check_timer());
    EXPECT_EQ(1, sdk_os_startup(5, 3));  // nested: nothing else happens
    EXPECT_EQ(2, kx_start_count());
    EXPECT_EQ(before + 2, proc_entries("/proc/self/task"));
    EXPECT_EQ(1, sdk_os_cleanup());  // not the last
    EXPECT_EQ(1, kx_start_count());
    EXPECT_NE(nullptr, kx_log_check_timer());
    EXPECT_EQ(1, sdk_os_cleanup());  // the last
    EXPECT_EQ(0, kx_start_count());
    EXPECT_EQ(nullptr, kx_log_check_timer());
    EXPECT_TRUE(sdk_is_startup());        // the engine stays
    EXPECT_EQ(before + 2, proc_entries("/proc/self/task"));  // and its threads run on
    ASSERT_EQ(1, sdk_os_startup(0, 0));   // no second engine, the log check comes back
    EXPECT_EQ(before + 2, proc_entries("/proc/self/task"));
    EXPECT_NE(nullptr, kx_log_check_timer());
    std::string out = cap.stop();
    EXPECT_NE(out.find("[Cleanup]KORVEX Cleanup!\n"), std::string::npos);
    EXPECT_NE(out.find("]out s_ilInitialOsCore 1 clientnum 5 servernum 3\n"), std::string::npos) << out;
}

namespace {
struct PipeSeen {
    std::atomic<int> calls{0};
    std::atomic<unsigned> events{0};
    std::atomic<bool> on_event_thread{true};
};
int on_pipe(KxWatcher *w, unsigned events) {
    PipeSeen *seen = static_cast<PipeSeen *>(w->context);
    if (!pthread_equal(pthread_self(), runtime_event_thread()) || !runtime_main_lock_held())
        seen->on_event_thread = false;
    char buf[64];
    if (read(w->fd, buf, sizeof(buf)) > 0) seen->calls++;
    seen->events |= events;
    return 0;
}
}  // namespace

// A watcher is served on the event thread under the main lock while it is active, and never after
// its stop; the same record can be started again on another descriptor.
TEST(Watchers, ServeStopAndRestart) {
    ASSERT_EQ(1, sdk_os_startup(0, 0));
    EXPECT_EQ(2, kx_watch_count());  // the tick and post pipes
    int p[2], q[2];
    ASSERT_EQ(0, pipe(p));
    ASSERT_EQ(0, pipe(q));
    static KxWatcher w;
    PipeSeen seen;
    sdk_main_lock();
    EXPECT_EQ(0, kx_watch_start(&w, -1, KX_WATCH_READ, on_pipe, &seen));
    ASSERT_EQ(1, kx_watch_start(&w, p[0], KX_WATCH_READ, on_pipe, &seen));
    EXPECT_EQ(0, kx_watch_start(&w, p[0], KX_WATCH_READ, on_pipe, &seen));  // already active
    sdk_main_unlock();
    EXPECT_EQ(3, kx_watch_count());
    ASSERT_EQ(1, write(p[1], "x", 1));
    EXPECT_TRUE(wait_for([&] { return seen.calls.load() == 1; }));
    EXPECT_EQ(unsigned(KX_WATCH_READ), seen.events.load());
    // No read interest: the byte waits; with it back, it is read.
    EXPECT_EQ(1, kx_watch_set_interest(&w, 0));
    ASSERT_EQ(1, write(p[1], "y", 1));
    EXPECT_FALSE(wait_for([&] { return seen.calls.load() == 2; }, 100));
    EXPECT_EQ(1, kx_watch_set_interest(&w, KX_WATCH_READ));
    EXPECT_TRUE(wait_for([&] { return seen.calls.load() == 2; }));

    sdk_main_lock();
    EXPECT_EQ(1, kx_watch_stop(&w));
    EXPECT_EQ(0, kx_watch_stop(&w));
    sdk_main_unlock();
    ASSERT_EQ(1, write(p[1], "z", 1));
    EXPECT_FALSE(wait_for([&] { return seen.calls.load() == 3; }, 100));
    sdk_main_lock();
    ASSERT_EQ(1, kx_watch_start(&w, q[0], KX_WATCH_READ, on_pipe, &seen));
    sdk_main_unlock();
    ASSERT_EQ(1, write(q[1], "q", 1));
    EXPECT_TRUE(wait_for([&] { return seen.calls.load() == 3; }));
    EXPECT_TRUE(seen.on_event_thread.load());
    sdk_main_lock();
    kx_watch_stop(&w);
    sdk_main_unlock();
    EXPECT_EQ(2, kx_watch_count());
}

TEST(Timers, WholeTickPeriodsOrderAndSelfDestroy) {
    ASSERT_EQ(1, sdk_os_startup(0, 0));
    os_timer_pause_ticks(1);  // from here on this test drives the ticks itself
    _SdkTimer *t[6];
    t[0] = sdk_timer_create(count_cb, 3000, (void *)0);
    t[1] = sdk_timer_create(count_cb, 2500, (void *)1);
    t[2] = sdk_timer_create(count_cb, 0, (void *)2);
    t[3] = sdk_timer_create(count_cb, 1000, (void *)3);
    t[4] = sdk_timer_create(nullptr, 0, nullptr);  // counts, calls nothing
    t[5] = sdk_timer_create(count_cb, 2001, (void *)5);
    g_self_timer = sdk_timer_create(destroy_self_cb, 0, nullptr);
    for (auto *x : t) ASSERT_NE(nullptr, x);
    for (int tick = 0; tick < 6; tick++) os_timer_walk();
    EXPECT_EQ(2, g_fired.counts[0]);  // every third tick
    EXPECT_EQ(2, g_fired.counts[1]);
    EXPECT_EQ(2, g_fired.counts[5]);
    EXPECT_EQ(6, g_fired.counts[2]);  // every tick
    EXPECT_EQ(6, g_fired.counts[3]);
    EXPECT_EQ(1, g_fired.counts[7]);  // destroyed itself at the first tick
    // Newest first within a tick.
    ASSERT_GE(g_fired.order.size(), 2u);
    EXPECT_EQ(3, g_fired.order[0]);
    EXPECT_EQ(2, g_fired.order[1]);

    // A timer made in a callback is counted from the next tick on.
    g_fired = Fired();
    sdk_timer_create(create_in_cb, 0, nullptr);
    os_timer_walk();
    EXPECT_EQ(0, g_fired.counts[6]);
    os_timer_walk();
    EXPECT_EQ(1, g_fired.counts[6]);

    for (auto *x : t) EXPECT_EQ(1, sdk_timer_destroy(x));
    EXPECT_EQ(0, sdk_timer_destroy(nullptr));
}

TEST(Timers, CreateBeforeStartFails) {
    EXPECT_EQ(nullptr, sdk_timer_create(count_cb, 1000, nullptr));
}

namespace {
std::atomic<int> g_ticks{0};
std::atomic<bool> g_on_event_thread{true};
int tick_cb(void *) {
    if (!pthread_equal(pthread_self(), runtime_event_thread())) g_on_event_thread = false;
    g_ticks++;
    return 0;
}
std::atomic<int> g_posted{0};
int posted_cb(void *arg) {
    if (pthread_equal(pthread_self(), runtime_event_thread())) g_posted += (int)(intptr_t)arg;
    return 0;
}
}  // namespace

// The one test that waits for real ticks: timers fire on the event thread about once a second,
// also after the last stop, and posted functions run there too.
TEST(Timers, RealTicksOnTheEventThread) {
    ASSERT_EQ(1, sdk_os_startup(0, 0));
    ASSERT_EQ(1, sdk_os_cleanup());
    _SdkTimer *t = sdk_timer_create(tick_cb, 1000, nullptr);
    ASSERT_NE(nullptr, t);
    EXPECT_TRUE(wait_for([] { return g_ticks.load() >= 2; }, 4000));
    EXPECT_TRUE(g_on_event_thread.load());
    EXPECT_EQ(1, os_post_main_thread_func(posted_cb, (void *)5));
    EXPECT_EQ(1, os_post_main_thread_func(posted_cb, (void *)7));
    EXPECT_TRUE(wait_for([] { return g_posted.load() == 12; }));
    EXPECT_EQ(1, sdk_timer_destroy(t));
}

// Descriptor numbers have no limit: started after 1100 open files, the engine's own pipes lie above
// 1024 and the timers still fire.
TEST(Timers, FireWhenStartedAfter1100OpenFiles) {
    rlimit rl;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &rl));
    if (rl.rlim_cur < 1200) {
        rl.rlim_cur = rl.rlim_max < 1200 ? rl.rlim_max : 1200;
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &rl));
    }
    if (rl.rlim_cur < 1200) GTEST_SKIP() << "descriptor limit " << rl.rlim_cur;
    int fill = dup(0);
    while (fill >= 0 && fill < 1100) fill = dup(0);
    ASSERT_GE(fill, 1100);
    ASSERT_EQ(1, sdk_os_startup(0, 0));
    _SdkTimer *t = sdk_timer_create(tick_cb, 1000, nullptr);
    ASSERT_NE(nullptr, t);
    EXPECT_TRUE(wait_for([] { return g_ticks.load() >= 1; }, 4000));
    EXPECT_EQ(1, sdk_timer_destroy(t));
}
