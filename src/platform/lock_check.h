// Lock-held assertions. A KxLockOwner beside a mutex records which thread holds it; the guarded code
// asserts that it runs under that mutex. Debug and sanitizer builds check; with NDEBUG (the
// optimised benchmark build) the record is empty and every call compiles away.
#pragma once

#include <assert.h>
#include <pthread.h>

#include <atomic>

#ifndef NDEBUG
struct KxLockOwner {
    std::atomic<pthread_t> owner{};  // the holding thread; meaningful while depth > 0
    std::atomic<int> depth{0};       // nesting of a recursive mutex; written by the holder only
    // Call right after the lock was taken, and right before it is released.
    void acquired() {
        if (depth.load(std::memory_order_relaxed) == 0 || !pthread_equal(owner.load(), pthread_self())) {
            owner.store(pthread_self());
            depth.store(1);
        } else {
            depth.fetch_add(1);
        }
    }
    void releasing() { depth.fetch_sub(1); }
    bool held() const { return depth.load() > 0 && pthread_equal(owner.load(), pthread_self()); }
};
#define KX_ASSERT_HELD(lock_owner) assert((lock_owner).held())
#else
struct KxLockOwner {
    void acquired() {}
    void releasing() {}
    bool held() const { return true; }
};
#define KX_ASSERT_HELD(lock_owner) ((void)0)
#endif
