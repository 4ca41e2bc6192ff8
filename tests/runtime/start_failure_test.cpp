// A start that fails for lack of descriptors leaves the library as it was: no count, no descriptor
// and no thread of the attempt; once descriptors are free again a start works in full.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "core/startup_internal.h"
#include "net/tcp_peer.h"
#include "runtime/runtime_internal.h"
#include "support/proc_entries.h"

namespace {

int highest_fd(void) {
    int high = -1;
    DIR *d = opendir("/proc/self/fd");
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.' && atoi(e->d_name) != dirfd(d) && atoi(e->d_name) > high) high = atoi(e->d_name);
    closedir(d);
    return high;
}

std::atomic<int> g_fired{0};
int on_timer(void *) {
    g_fired++;
    return 0;
}

}  // namespace

TEST(StartFailure, NoDescriptorsLeavesNothingAndALaterStartWorks) {
    proc_warm_thread();  // a sanitizer runtime starts its helper threads before the count
    rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    // Holes below the highest descriptor would be free room: fill them.
    std::vector<int> fill;
    for (int high = highest_fd(), f = dup(0); f >= 0; f = dup(0)) {
        if (f > high) {
            close(f);
            break;
        }
        fill.push_back(f);
    }
    const int fds = proc_entries("/proc/self/fd"), threads = proc_entries("/proc/self/task");
    // Every room from no free descriptor up to the first that suffices: each failure changes nothing.
    int failures = 0;
    bool started = false;
    for (int room = 0; room < 16 && !started; room++) {
        rlimit low = saved;
        low.rlim_cur = (rlim_t)(highest_fd() + 1 + room);
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
        int ret = sdk_os_startup(0, 0);
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
        if (ret == 1) {
            started = true;
            break;
        }
        failures++;
        EXPECT_EQ(0, kx_start_count()) << "room " << room;
        EXPECT_FALSE(sdk_is_startup());
        EXPECT_EQ(fds, proc_entries("/proc/self/fd")) << "room " << room;
        EXPECT_EQ(threads, proc_entries_settle("/proc/self/task", threads)) << "room " << room;
        EXPECT_EQ(nullptr, sdk_timer_create(on_timer, 0, nullptr));  // no engine, no timer list
    }
    EXPECT_GE(failures, 3);
    if (!started) {
        ASSERT_EQ(1, sdk_os_startup(0, 0));
    }
    for (int f : fill) close(f);
    EXPECT_EQ(1, kx_start_count());
    EXPECT_TRUE(sdk_is_startup());
    EXPECT_EQ(threads + 2, proc_entries("/proc/self/task"));

    // The engine serves: a client connects and a timer fires.
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port);
    ASSERT_GE(lfd, 0);
    _NetTcpClient *c = net_tcp_client_create();
    ASSERT_NE(nullptr, c);
    ASSERT_EQ(1, net_tcp_client_set_remote(c, "127.0.0.1", port));
    ASSERT_EQ(1, net_tcp_client_open(c, -1));
    EXPECT_TRUE(wait_for([&] { return net_tcp_client_get_status(c) == 2; }));
    int peer = accept_within(lfd);
    EXPECT_GE(peer, 0);
    _SdkTimer *t = sdk_timer_create(on_timer, 0, nullptr);
    ASSERT_NE(nullptr, t);
    EXPECT_TRUE(wait_for([] { return g_fired.load() >= 1; }, 4000));
    EXPECT_EQ(1, sdk_timer_destroy(t));
    EXPECT_EQ(1, net_tcp_client_destroy(c));
    close(peer);
    close(lfd);
}
