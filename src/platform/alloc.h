// The library's own heap memory. Every allocation of the runtime, the log, the socket engine, the
// link, the command engine and the INI layer goes through these (streams and directory handles
// through kx_alloc_refused first), so that a test can make one chosen allocation fail and check
// that its caller gives the call's failure result.
#pragma once

#include <stddef.h>
#include <stdlib.h>

// True when the current allocation point is to fail: only ever on a thread that armed the seam.
bool kx_alloc_refused(void);

inline void *kx_malloc(size_t n) { return kx_alloc_refused() ? nullptr : malloc(n); }
inline void *kx_calloc(size_t n, size_t size) { return kx_alloc_refused() ? nullptr : calloc(n, size); }
inline void *kx_realloc(void *p, size_t n) { return kx_alloc_refused() ? nullptr : realloc(p, n); }

// Test seam, per thread: from this call on, the n-th allocation point reached by the calling thread
// fails (n >= 1), and only that one; n 0 disarms. Other threads are never touched.
void kx_alloc_fail_at(long n);
// Allocation points the calling thread has reached since it last armed the seam.
long kx_alloc_points(void);
