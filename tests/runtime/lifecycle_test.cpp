// Start and stop, the pools, the descriptor table, timers and the event thread.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "net/tcp_peer.h"
#include "runtime/runtime_internal.h"
#include "support/stderr_capture.h"

namespace {

int thread_count() {
    int n = 0;
    DIR *d = opendir("/proc/self/task");
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.') n++;
    closedir(d);
    return n;
}

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
    // A first thread of our own lets a sanitizer runtime start its helper threads before counting.
    pthread_t warm;
    pthread_create(&warm, nullptr, [](void *) -> void * { return nullptr; }, nullptr);
    pthread_join(warm, nullptr);
    int before = thread_count();
    EXPECT_FALSE(sdk_is_startup());
    StderrCapture cap;
    cap.start();
    EXPECT_EQ(1, sdk_os_cleanup());  // a stop without a start
    EXPECT_EQ(0, runtime_start_count());
    ASSERT_EQ(1, sdk_os_startup(5, 3));
    EXPECT_TRUE(sdk_is_startup());
    EXPECT_EQ(before + 2, thread_count());
    EXPECT_NE(nullptr, runtime_log_check_timer());
    EXPECT_EQ(1, sdk_os_startup(5, 3));  // nested: nothing else happens
    EXPECT_EQ(2, runtime_start_count());
    EXPECT_EQ(before + 2, thread_count());
    EXPECT_EQ(1, sdk_os_cleanup());  // not the last
    EXPECT_EQ(1, runtime_start_count());
    EXPECT_NE(nullptr, runtime_log_check_timer());
    EXPECT_EQ(1, sdk_os_cleanup());  // the last
    EXPECT_EQ(0, runtime_start_count());
    EXPECT_EQ(nullptr, runtime_log_check_timer());
    EXPECT_TRUE(sdk_is_startup());        // the engine stays
    EXPECT_EQ(before + 2, thread_count());  // and its threads run on
    ASSERT_EQ(1, sdk_os_startup(0, 0));   // no second engine, the log check comes back
    EXPECT_EQ(before + 2, thread_count());
    EXPECT_NE(nullptr, runtime_log_check_timer());
    std::string out = cap.stop();
    EXPECT_NE(out.find("[Cleanup]KORVEX Cleanup!\n"), std::string::npos);
    EXPECT_NE(out.find("]out s_ilInitialOsCore 1 clientnum 5 servernum 3\n"), std::string::npos) << out;
}

TEST(Lifecycle, PoolSizesAndSlotRules) {
    ASSERT_EQ(1, sdk_os_startup(5, 3));
    EXPECT_EQ(200u, pool_client_max());
    EXPECT_EQ(3u, pool_server_max());
    EXPECT_EQ(3u, pool_udp_max());

    _NetTcpClient *a = pool_take_client();
    _NetTcpClient *b = pool_take_client();
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(a->index == 0 && b->index == 1 && a->type == 1);
    EXPECT_LT(a->session, b->session);
    uint32_t old_session = a->session;
    a->status = 2;
    EXPECT_EQ(1, pool_give_client(a));
    EXPECT_EQ(0, pool_give_client(a));  // already free
    _NetTcpClient *c = pool_take_client();
    EXPECT_EQ(a, c);  // lowest free slot first, zeroed, fresh session
    EXPECT_EQ(0, c->status);
    EXPECT_GT(c->session, old_session);
    EXPECT_EQ(2u, pool_client_used());

    StderrCapture cap;
    cap.start();
    _NetUdpClient *u[4];
    for (auto &x : u) x = pool_take_udp();
    EXPECT_TRUE(u[0] && u[1] && u[2] && u[3] == nullptr);
    EXPECT_EQ(4, u[0]->type);
    EXPECT_NE(cap.stop().find("udp num out\n"), std::string::npos);
}

TEST(Lifecycle, DescriptorTableInvariants) {
    ASSERT_EQ(1, sdk_os_startup(0, 0));
    ASSERT_EQ(2, select_table_total());
    EXPECT_TRUE(select_table_entry(0)->fd >= 0 && select_table_entry(1)->fd >= 0);

    // Pipes stand in for client descriptors here: the event thread serves only type-1 clients and
    // the two tick/post pipes, and these entries have null clients.
    int p[2], q[2];
    ASSERT_EQ(0, pipe(p));
    ASSERT_EQ(0, pipe(q));
    EXPECT_EQ(1, select_add_clientfd(nullptr, p[0]));
    EXPECT_EQ(3, select_table_total());
    EXPECT_EQ(p[0], select_table_entry(2)->fd);
    EXPECT_EQ(0, select_add_clientfd(nullptr, p[0]));  // already there
    EXPECT_EQ(3, select_table_total());
    EXPECT_GE(get_maxfd_socketfd(), p[0]);

    EXPECT_EQ(1, select_Del_clientfd(p[0]));
    EXPECT_EQ(0, select_Del_clientfd(p[0]));  // not there any more
    EXPECT_EQ(3, select_table_total());       // never falls
    EXPECT_EQ(-1, select_table_entry(2)->fd);
    EXPECT_EQ(1, select_add_clientfd(nullptr, q[0]));
    EXPECT_EQ(q[0], select_table_entry(2)->fd);  // the hole is reused
    EXPECT_EQ(3, select_table_total());

    EXPECT_EQ(0, select_add_clientfd(nullptr, -1));
    select_Del_clientfd(q[0]);
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
