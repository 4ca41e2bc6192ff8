#include "platform/alloc.h"

namespace {

// Per thread, so that the event thread and other callers never meet an armed failure.
thread_local long t_fail_at = 0;  // 0: disarmed
thread_local long t_points = 0;

}  // namespace

bool kx_alloc_refused(void) {
    if (t_fail_at == 0) return false;
    return ++t_points == t_fail_at;
}

void kx_alloc_fail_at(long n) {
    t_fail_at = n < 0 ? 0 : n;
    t_points = 0;
}

long kx_alloc_points(void) { return t_points; }
