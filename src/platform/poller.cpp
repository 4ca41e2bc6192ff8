#include "platform/alloc.h"
#include "platform/poller.h"

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#if defined(__linux__) && !defined(KX_POLLER_POLL)
#include <sys/epoll.h>

// epoll, level-triggered: a descriptor that still has data is reported again by the next wait.
struct KxPoller {
    int epfd;
};

namespace {

uint32_t epoll_mask(unsigned interest) {
    uint32_t m = 0;
    if (interest & KX_POLL_IN) m |= EPOLLIN | EPOLLRDHUP;
    if (interest & KX_POLL_OUT) m |= EPOLLOUT;
    return m;
}

int ctl(KxPoller *p, int op, int fd, unsigned interest, void *tag) {
    epoll_event ev = {};
    ev.events = epoll_mask(interest);
    ev.data.ptr = tag;
    return epoll_ctl(p->epfd, op, fd, &ev) == 0 ? 1 : 0;
}

}  // namespace

KxPoller *kx_poller_create(void) {
    int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) return nullptr;
    KxPoller *p = static_cast<KxPoller *>(kx_malloc(sizeof(KxPoller)));
    if (p == nullptr) {
        close(fd);
        return nullptr;
    }
    p->epfd = fd;
    return p;
}

void kx_poller_destroy(KxPoller *p) {
    if (p == nullptr) return;
    close(p->epfd);
    free(p);
}

int kx_poller_add(KxPoller *p, int fd, unsigned interest, void *tag) { return ctl(p, EPOLL_CTL_ADD, fd, interest, tag); }

int kx_poller_modify(KxPoller *p, int fd, unsigned interest, void *tag) {
    return ctl(p, EPOLL_CTL_MOD, fd, interest, tag);
}

int kx_poller_remove(KxPoller *p, int fd) {
    epoll_event ev = {};  // a non-null event for kernels before 2.6.9
    return epoll_ctl(p->epfd, EPOLL_CTL_DEL, fd, &ev) == 0 ? 1 : 0;
}

int kx_poller_wait(KxPoller *p, KxPollEvent *events, int max, int timeout_ms) {
    enum { kBatch = 256 };
    epoll_event ev[kBatch];
    int n = epoll_wait(p->epfd, ev, max < kBatch ? max : kBatch, timeout_ms);
    for (int i = 0; i < n; i++) {
        unsigned e = 0;
        if (ev[i].events & (EPOLLIN | EPOLLRDHUP | EPOLLPRI)) e |= KX_POLL_IN;
        if (ev[i].events & EPOLLOUT) e |= KX_POLL_OUT;
        if (ev[i].events & (EPOLLERR | EPOLLHUP)) e |= KX_POLL_ERR;
        events[i].tag = ev[i].data.ptr;
        events[i].events = e;
    }
    return n;
}

#else
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>

// poll(2): the registered set lives in arrays under a mutex; a wait polls a private copy of it plus
// a wake pipe, which any change made during the wait pokes so that the change takes effect at once.
struct KxPoller {
    pthread_mutex_t mutex;
    struct pollfd *fds;  // registered descriptors, packed
    void **tags;         // tag of fds[i]
    int count, room;
    int *pos;            // descriptor number -> index in fds, -1 when absent
    int pos_room;
    int wake[2];
    int waiting;         // a wait is in progress
    struct pollfd *copy; // the waiting thread's copy
    void **copy_tags;
    int copy_room;
};

namespace {

short poll_mask(unsigned interest) {
    short m = 0;
    if (interest & KX_POLL_IN) m |= POLLIN;
    if (interest & KX_POLL_OUT) m |= POLLOUT;
    return m;
}

void poke(KxPoller *p) {
    if (!p->waiting) return;
    ssize_t r = write(p->wake[1], "w", 1);
    (void)r;
}

template <typename T>
bool grow(T **arr, int *room, int need, T fill) {
    if (need <= *room) return true;
    int n = *room ? *room : 64;
    while (n < need) n *= 2;
    T *a = static_cast<T *>(kx_realloc(*arr, sizeof(T) * (size_t)n));
    if (a == nullptr) return false;
    for (int i = *room; i < n; i++) a[i] = fill;
    *arr = a;
    *room = n;
    return true;
}

}  // namespace

KxPoller *kx_poller_create(void) {
    KxPoller *p = static_cast<KxPoller *>(kx_calloc(1, sizeof(KxPoller)));
    if (p == nullptr) return nullptr;
    if (pipe(p->wake) != 0) {
        free(p);
        return nullptr;
    }
    for (int i = 0; i < 2; i++) {
        fcntl(p->wake[i], F_SETFL, fcntl(p->wake[i], F_GETFL) | O_NONBLOCK);
        fcntl(p->wake[i], F_SETFD, FD_CLOEXEC);
    }
    pthread_mutex_init(&p->mutex, nullptr);
    return p;
}

void kx_poller_destroy(KxPoller *p) {
    if (p == nullptr) return;
    close(p->wake[0]);
    close(p->wake[1]);
    pthread_mutex_destroy(&p->mutex);
    free(p->fds);
    free(p->tags);
    free(p->pos);
    free(p->copy);
    free(p->copy_tags);
    free(p);
}

int kx_poller_add(KxPoller *p, int fd, unsigned interest, void *tag) {
    if (fd < 0) return 0;
    int ok = 0;
    pthread_mutex_lock(&p->mutex);
    if (grow(&p->pos, &p->pos_room, fd + 1, -1) && p->pos[fd] == -1 &&
        grow(&p->fds, &p->room, p->count + 1, pollfd{-1, 0, 0})) {
        int room = p->room;  // tags follow fds in size
        void **t = static_cast<void **>(kx_realloc(p->tags, sizeof(void *) * (size_t)room));
        if (t != nullptr) {
            p->tags = t;
            p->fds[p->count] = pollfd{fd, poll_mask(interest), 0};
            p->tags[p->count] = tag;
            p->pos[fd] = p->count++;
            ok = 1;
            poke(p);
        }
    } else if (fd < p->pos_room && p->pos[fd] != -1) {
        errno = EEXIST;
    }
    pthread_mutex_unlock(&p->mutex);
    return ok;
}

int kx_poller_modify(KxPoller *p, int fd, unsigned interest, void *tag) {
    int ok = 0;
    pthread_mutex_lock(&p->mutex);
    if (fd >= 0 && fd < p->pos_room && p->pos[fd] != -1) {
        p->fds[p->pos[fd]].events = poll_mask(interest);
        p->tags[p->pos[fd]] = tag;
        ok = 1;
        poke(p);
    }
    pthread_mutex_unlock(&p->mutex);
    return ok;
}

int kx_poller_remove(KxPoller *p, int fd) {
    int ok = 0;
    pthread_mutex_lock(&p->mutex);
    if (fd >= 0 && fd < p->pos_room && p->pos[fd] != -1) {
        int i = p->pos[fd], last = --p->count;
        p->fds[i] = p->fds[last];
        p->tags[i] = p->tags[last];
        if (i != last) p->pos[p->fds[i].fd] = i;
        p->pos[fd] = -1;
        ok = 1;
        poke(p);
    }
    pthread_mutex_unlock(&p->mutex);
    return ok;
}

int kx_poller_wait(KxPoller *p, KxPollEvent *events, int max, int timeout_ms) {
    pthread_mutex_lock(&p->mutex);
    int n = p->count;
    if (!grow(&p->copy, &p->copy_room, n + 1, pollfd{-1, 0, 0})) {
        pthread_mutex_unlock(&p->mutex);
        errno = ENOMEM;
        return -1;
    }
    void **t = static_cast<void **>(kx_realloc(p->copy_tags, sizeof(void *) * (size_t)p->copy_room));
    if (t == nullptr) {
        pthread_mutex_unlock(&p->mutex);
        errno = ENOMEM;
        return -1;
    }
    p->copy_tags = t;
    memcpy(p->copy, p->fds, sizeof(pollfd) * (size_t)n);
    memcpy(p->copy_tags, p->tags, sizeof(void *) * (size_t)n);
    p->copy[n] = pollfd{p->wake[0], POLLIN, 0};
    p->waiting = 1;
    pthread_mutex_unlock(&p->mutex);

    int r = poll(p->copy, (nfds_t)n + 1, timeout_ms);
    int err = errno;
    pthread_mutex_lock(&p->mutex);
    p->waiting = 0;
    if (r > 0) {
        // The wait ran on a copy: an interest withdrawn or a descriptor removed while it waited (the
        // wake-up only cuts the wait short, the kernel still reports what became ready meanwhile) must
        // not be reported. Only what the descriptor's present interest asks for, and its errors, count.
        for (int i = 0; i < n; i++) {
            if (p->copy[i].revents == 0) continue;
            const int fd = p->copy[i].fd;
            const int at = fd < p->pos_room ? p->pos[fd] : -1;
            if (at == -1 || p->tags[at] != p->copy_tags[i])
                p->copy[i].revents = 0;
            else
                p->copy[i].revents &= short(p->fds[at].events | POLLERR | POLLHUP | POLLNVAL);
        }
    }
    pthread_mutex_unlock(&p->mutex);
    if (r < 0) {
        errno = err;
        return -1;
    }
    char drain[64];
    if (p->copy[n].revents != 0)
        while (read(p->wake[0], drain, sizeof(drain)) > 0) {
        }
    int out = 0;
    for (int i = 0; i < n && out < max; i++) {
        short re = p->copy[i].revents;
        if (re == 0) continue;
        unsigned e = 0;
        if (re & (POLLIN | POLLPRI)) e |= KX_POLL_IN;
        if (re & POLLOUT) e |= KX_POLL_OUT;
        if (re & (POLLERR | POLLHUP | POLLNVAL)) e |= KX_POLL_ERR;
        events[out].tag = p->copy_tags[i];
        events[out].events = e;
        out++;
    }
    if (out == 0 && r > 0) {
        errno = EINTR;  // only the wake pipe: a change was made, the caller waits again
        return -1;
    }
    return out;
}

#endif
