// Mutexes and threads: types, try-lock across threads, stack sizes, null arguments.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <pthread.h>

#include "korvex/korvex.h"
#include "support/stderr_capture.h"

namespace {

void *try_lock_from_other_thread(void *m) {
    int got = sdk_mutex_try_lock(static_cast<sdk_mutex_t *>(m));
    if (got) sdk_mutex_unlock(static_cast<sdk_mutex_t *>(m));
    return reinterpret_cast<void *>(static_cast<intptr_t>(got));
}

void *report_stack_size(void *out) {
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    size_t size = 0;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    *static_cast<size_t *>(out) = size;
    return nullptr;
}

}  // namespace

TEST(Mutex, RecursiveAndPlainTryLock) {
    sdk_mutex_t *rec = sdk_mutex_create(1);
    ASSERT_NE(nullptr, rec);
    ASSERT_EQ(1, sdk_mutex_lock(rec));
    EXPECT_EQ(1, sdk_mutex_try_lock(rec));  // same thread, recursive
    sdk_thread_t th;
    ASSERT_EQ(1, sdk_thread_create(&th, 0, try_lock_from_other_thread, rec));
    void *res = nullptr;
    pthread_join(th, &res);
    EXPECT_EQ(0, (intptr_t)res);  // held by this thread
    EXPECT_EQ(1, sdk_mutex_unlock(rec));
    EXPECT_EQ(1, sdk_mutex_unlock(rec));
    ASSERT_EQ(1, sdk_thread_create(&th, 0, try_lock_from_other_thread, rec));
    pthread_join(th, &res);
    EXPECT_EQ(1, (intptr_t)res);  // free again
    EXPECT_EQ(1, sdk_mutex_free(rec));

    sdk_mutex_t plain;
    ASSERT_EQ(1, sdk_mutex_init(&plain, 0));
    ASSERT_EQ(1, sdk_mutex_lock(&plain));
    EXPECT_EQ(0, sdk_mutex_try_lock(&plain));  // not recursive
    EXPECT_EQ(1, sdk_mutex_unlock(&plain));
    EXPECT_EQ(1, sdk_mutex_destroy(&plain));
}

TEST(Mutex, NullArgumentsLogAndFail) {
    StderrCapture cap;
    cap.start();
    EXPECT_EQ(0, sdk_mutex_lock(nullptr));
    EXPECT_EQ(0, sdk_thread_create(nullptr, 0, report_stack_size, nullptr));
    std::string out = cap.stop();
    EXPECT_NE(out.find("mutex is null\n"), std::string::npos);
    EXPECT_NE(out.find("thr is null\n"), std::string::npos);
}

TEST(Thread, StackSizesAndJoin) {
    size_t size = 0;
    sdk_thread_t th;
    ASSERT_EQ(1, sdk_thread_create(&th, 0, report_stack_size, &size));
    ASSERT_EQ(1, sdk_thread_join(&th));
    EXPECT_EQ(1048576u, size);
    ASSERT_EQ(1, sdk_thread_create(&th, 10485760, report_stack_size, &size));
    ASSERT_EQ(1, sdk_thread_join(&th));
    EXPECT_EQ(10485760u, size);
    // A detached thread outlives nothing it writes to: it reports into a static the test waits for.
    static std::atomic<bool> ran{false};
    ASSERT_EQ(1, sdk_thread_create(&th, 0, [](void *) -> void * { ran = true; return nullptr; }, nullptr));
    EXPECT_EQ(1, sdk_thread_detach(&th));
    for (int ms = 0; !ran.load() && ms < 5000; ms++) usleep(1000);
    EXPECT_TRUE(ran.load());
    EXPECT_TRUE(pthread_equal(pthread_self(), sdk_thread_self()));
}
