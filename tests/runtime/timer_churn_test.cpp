// Timers that callbacks and other threads create and destroy while the walk runs. The ticks are
// paused and the tests drive the walk themselves.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "runtime/runtime_internal.h"
#include "support/stderr_capture.h"

namespace {

struct Tick {
    int fired[4] = {};
    _SdkTimer *victims[2] = {};
    _SdkTimer *self = nullptr;
    _SdkTimer *made = nullptr;
    int second_destroy = -1;
};
Tick g_tick;

int count_cb(void *udata) { return ++g_tick.fired[(intptr_t)udata]; }

// Walked first: destroys the two timers the walk comes to next, one of them twice, and itself,
// and makes a new one.
int destroyer_cb(void *) {
    g_tick.fired[3]++;
    EXPECT_EQ(1, sdk_timer_destroy(g_tick.victims[0]));
    g_tick.second_destroy = sdk_timer_destroy(g_tick.victims[0]);
    EXPECT_EQ(1, sdk_timer_destroy(g_tick.victims[1]));
    EXPECT_EQ(1, sdk_timer_destroy(g_tick.self));
    g_tick.made = sdk_timer_create(count_cb, 0, (void *)2);
    return 0;
}

TEST(TimerChurn, ACallbackDestroysOtherTimersOfItsTick) {
    ASSERT_EQ(1, sdk_os_startup(0, 0));
    os_timer_pause_ticks(1);
    // Newest first: the destroyer, then victims[0], then victims[1].
    g_tick.victims[1] = sdk_timer_create(count_cb, 0, (void *)1);
    g_tick.victims[0] = sdk_timer_create(count_cb, 0, (void *)0);
    g_tick.self = sdk_timer_create(destroyer_cb, 0, nullptr);
    StderrCapture log;
    log.start();
    os_timer_walk();
    EXPECT_EQ(0, sdk_timer_destroy(g_tick.victims[1]));  // freed with the walk's end
    std::string logged = log.stop();
    EXPECT_EQ(0, g_tick.second_destroy);
    EXPECT_NE(logged.find("is no timer"), std::string::npos);
    EXPECT_EQ(1, g_tick.fired[3]);
    EXPECT_EQ(0, g_tick.fired[0]);  // destroyed before the walk came to them: never called
    EXPECT_EQ(0, g_tick.fired[1]);
    EXPECT_EQ(0, g_tick.fired[2]);  // made in the tick: counted from the next one
    os_timer_walk();
    EXPECT_EQ(1, g_tick.fired[3]);
    EXPECT_EQ(1, g_tick.fired[2]);
    EXPECT_EQ(1, sdk_timer_destroy(g_tick.made));
}

// One timer's callback replaces another timer at every tick; four threads create and destroy
// timers of their own; the walk runs all the while. Every timer is destroyed once and freed (ASan),
// and nothing races (TSan).
std::atomic<int> g_calls{0};
_SdkTimer *g_chained = nullptr;  // touched only inside callbacks, which the walk serialises
int noop_cb(void *) { return ++g_calls; }
int chain_cb(void *) {
    if (g_chained != nullptr) {
        EXPECT_EQ(1, sdk_timer_destroy(g_chained));
    }
    g_chained = sdk_timer_create(noop_cb, 0, nullptr);
    return 0;
}

TEST(TimerChurn, ThreadsAndCallbacksChurnWhileTheWalkRuns) {
    ASSERT_EQ(1, sdk_os_startup(0, 0));
    os_timer_pause_ticks(1);
    _SdkTimer *chain = sdk_timer_create(chain_cb, 0, nullptr);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&] {
            while (!stop) {
                _SdkTimer *mine = sdk_timer_create(noop_cb, 0, nullptr);
                ASSERT_NE(mine, nullptr);
                std::this_thread::yield();
                ASSERT_EQ(1, sdk_timer_destroy(mine));
            }
        });
    for (int i = 0; i < 2000; i++) os_timer_walk();
    stop = true;
    for (auto &t : threads) t.join();
    EXPECT_EQ(1, sdk_timer_destroy(chain));
    EXPECT_EQ(1, sdk_timer_destroy(g_chained));
    EXPECT_GE(g_calls.load(), 1999);
}

}  // namespace
