// Deadlines of the event thread, finer than the one-second tick: a binary heap ordered by the time
// each one falls due. Arming, moving and cancelling a deadline cost O(log n) in the deadlines armed;
// the event thread looks only at the earliest one to choose how long it waits, so deadlines that
// are far off cost nothing while nothing falls due.
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>

#include "log/log_internal.h"
#include "runtime/runtime_internal.h"

namespace {

// The heap: main lock. s_next_at mirrors the earliest deadline for the event thread, which reads it
// without the lock before it waits.
KxDeadline **s_heap = nullptr;
int32_t s_count = 0;
int32_t s_room = 0;
std::atomic<int64_t> s_next_at{INT64_MAX};

bool earlier(const KxDeadline *a, const KxDeadline *b) { return a->at < b->at; }

void place(int32_t i, KxDeadline *d) {
    s_heap[i] = d;
    d->heap_index = i;
}

void sift_up(int32_t i) {
    KxDeadline *d = s_heap[i];
    while (i > 0) {
        int32_t parent = (i - 1) / 2;
        if (!earlier(d, s_heap[parent])) break;
        place(i, s_heap[parent]);
        i = parent;
    }
    place(i, d);
}

void sift_down(int32_t i) {
    KxDeadline *d = s_heap[i];
    for (;;) {
        int32_t child = 2 * i + 1;
        if (child >= s_count) break;
        if (child + 1 < s_count && earlier(s_heap[child + 1], s_heap[child])) child++;
        if (!earlier(s_heap[child], d)) break;
        place(i, s_heap[child]);
        i = child;
    }
    place(i, d);
}

void remove_at(int32_t i) {
    KxDeadline *last = s_heap[--s_count];
    s_heap[i]->heap_index = -1;
    if (i < s_count) {
        place(i, last);
        sift_down(i);
        sift_up(last->heap_index);
    }
}

void publish_next(void) { s_next_at.store(s_count > 0 ? s_heap[0]->at : INT64_MAX, std::memory_order_release); }

}  // namespace

int64_t kx_now_ms(void) {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

int kx_deadline_arm(KxDeadline *d, int64_t at) {
    KX_ASSERT_MAIN_LOCK();
    const int64_t before = s_next_at.load(std::memory_order_relaxed);
    if (d->heap_index >= 0) {
        d->at = at;
        sift_down(d->heap_index);
        sift_up(d->heap_index);
    } else {
        if (s_count == s_room) {
            int32_t room = s_room > 0 ? s_room * 2 : 256;
            KxDeadline **heap = static_cast<KxDeadline **>(realloc(s_heap, sizeof(KxDeadline *) * (size_t)room));
            if (heap == nullptr) {
                KX_LOG_ERR("kx_deadline_arm: no memory for %d deadlines", (int)room);
                return 0;
            }
            s_heap = heap;
            s_room = room;
        }
        d->at = at;
        place(s_count++, d);
        sift_up(s_count - 1);
    }
    publish_next();
    // An earlier deadline than the one the event thread waits for wakes it, so that it waits anew.
    if (at < before && !pthread_equal(pthread_self(), runtime_event_thread())) kx_loop_wake();
    return 1;
}

void kx_deadline_cancel(KxDeadline *d) {
    KX_ASSERT_MAIN_LOCK();
    if (d->heap_index < 0) return;
    remove_at(d->heap_index);
    publish_next();
}

int kx_deadline_wait_ms(int max_ms) {
    int64_t next = s_next_at.load(std::memory_order_acquire);
    if (next == INT64_MAX) return max_ms;
    int64_t left = next - kx_now_ms();
    if (left <= 0) return 0;
    return left < max_ms ? (int)left : max_ms;
}

void kx_deadline_run(void) {
    if (s_next_at.load(std::memory_order_acquire) == INT64_MAX) return;
    MainLock lock;
    const int64_t now = kx_now_ms();
    // A callback may arm, move or cancel any deadline, its own included: the heap is read afresh
    // after every call. One that it arms for now or earlier waits for the next pass.
    int budget = s_count;
    while (s_count > 0 && s_heap[0]->at <= now && budget-- > 0) {
        KxDeadline *d = s_heap[0];
        remove_at(0);
        publish_next();
        if (d->callback != nullptr) d->callback(d);
    }
    publish_next();
}
