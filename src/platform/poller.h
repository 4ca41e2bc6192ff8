// Readiness backend of the event thread: level-triggered, no limit on descriptor numbers, and a
// wait whose cost grows with the ready descriptors. epoll on Linux; poll(2) elsewhere (macOS).
#pragma once

#include <stddef.h>

enum {
    KX_POLL_IN = 1,   // readable
    KX_POLL_OUT = 2,  // writable
    KX_POLL_ERR = 4,  // error or hang-up; reported whatever the interest
};

typedef struct KxPoller KxPoller;

// One ready descriptor: the tag given at kx_poller_add and what it is ready for.
typedef struct KxPollEvent {
    void *tag;
    unsigned events;
} KxPollEvent;

// Null when the system refuses (the reason is in errno).
KxPoller *kx_poller_create(void);
// Frees the backend and closes its descriptors; no thread may use it any more.
void kx_poller_destroy(KxPoller *p);
// Interest is a mask of KX_POLL_IN and KX_POLL_OUT. add, modify and remove may be called from any
// thread, also during a wait (a wait in progress sees the change); calls for one descriptor are
// serialised by the caller. 1 on success, 0 on failure.
int kx_poller_add(KxPoller *p, int fd, unsigned interest, void *tag);
int kx_poller_modify(KxPoller *p, int fd, unsigned interest, void *tag);
int kx_poller_remove(KxPoller *p, int fd);
// Waits up to timeout_ms (-1: no limit) and fills at most max events. The count, 0 on time-out, -1
// on failure (errno set; EINTR included). One thread waits at a time.
int kx_poller_wait(KxPoller *p, KxPollEvent *events, int max, int timeout_ms);
