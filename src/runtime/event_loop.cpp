// The event thread, the timer thread, the descriptor table, timers and posted functions.
#include <errno.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>

#include "log/log_internal.h"
#include "net/net_internal.h"
#include "runtime/runtime_event.h"
#include "runtime/runtime_internal.h"

namespace {

_SelectClient s_select_clients[KX_SELECT_TABLE_SIZE];
// Entries in use or once used; never falls. Read without the lock as a loop bound.
std::atomic<int> s_iSelectTotalConn{0};

// The sets of the current pass. select() works on private copies that are taken over under the
// main lock, so the closing paths (which clear bits under the main lock) never race with it.
fd_set fd_read, fd_write, fd_except;

int s_os_pipe_fd[2] = {-1, -1};
int s_os_pipe_fd_post[2] = {-1, -1};

_OS_DList *s_os_timer_ls = nullptr;
_OS_DList *s_os_ls_main_thread_func = nullptr;

sdk_thread_t s_os_main_thread;
sdk_thread_t s_os_timer_thread;

// Test seam of the tick: while paused, the timer thread writes nothing.
pthread_mutex_t s_tick_mutex = PTHREAD_MUTEX_INITIALIZER;
bool s_tick_paused = false;

inline bool fd_fits(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

// Serving a pipe: one read of at most 32 bytes, all of which count as one event.
void drain_pipe(int fd) {
    char buf[32];
    ssize_t r = read(fd, buf, sizeof(buf));
    (void)r;
}

void run_posted_functions(void) {
    adt_dlist_lock(s_os_ls_main_thread_func);
    _OS_DListNode *node;
    while ((node = adt_dlist_head(s_os_ls_main_thread_func)) != nullptr) {
        _MainThreadFunc *f = *static_cast<_MainThreadFunc **>(adt_dlist_getdata(node));
        if (f != nullptr) {
            if (f->func != nullptr) f->func(f->arg);
            free(f);
        }
        adt_dlist_delete(s_os_ls_main_thread_func, node);
    }
    adt_dlist_unlock(s_os_ls_main_thread_func);
}

void *select_thread(void *) {
    for (;;) {
        // The closing paths clear bits under the main lock: the sets are only touched under it.
        sdk_main_lock();
        FD_ZERO(&fd_read);
        FD_ZERO(&fd_write);
        FD_ZERO(&fd_except);
        sdk_main_unlock();
        for (int i = 0; i < s_iSelectTotalConn.load(); i++) {
            sdk_main_lock();
            int fd = s_select_clients[i].fd;
            if (fd != -1 && fd_fits(fd)) {
                FD_SET(fd, &fd_read);
                if (s_select_clients[i].client != nullptr) {
                    FD_SET(fd, &fd_write);
                    FD_SET(fd, &fd_except);
                }
            }
            sdk_main_unlock();
        }
        fd_set rd, wr, ex;
        sdk_main_lock();
        rd = fd_read;
        wr = fd_write;
        ex = fd_except;
        sdk_main_unlock();
        struct timeval tv = {6, 0};
        int maxfd = get_maxfd_socketfd();
        if (maxfd >= FD_SETSIZE) maxfd = FD_SETSIZE - 1;  // descriptors beyond the set are never served
        int ret = select(maxfd + 1, &rd, &wr, &ex, &tv);
        if (ret < 0) {
            KX_LOG_ERR("os_tcp_client_open :select errno=%d,", errno);
            continue;
        }
        if (ret == 0) {
            sdk_log_msg(" select return 0 ");
            continue;
        }
        sdk_main_lock();
        fd_read = rd;
        fd_write = wr;
        fd_except = ex;
        sdk_main_unlock();
        for (int i = 0; i < s_iSelectTotalConn.load(); i++) {
            sdk_main_lock();
            _SelectClient *e = &s_select_clients[i];
            if (e->fd != -1) {
                if (e->client != nullptr) {
                    if (e->client->type == 1) select_dispath_client(e->client);
                } else if (fd_fits(e->fd) && FD_ISSET(e->fd, &fd_read)) {
                    if (e->fd == s_os_pipe_fd[0]) {
                        drain_pipe(e->fd);
                        os_timer_walk();
                    } else if (e->fd == s_os_pipe_fd_post[0]) {
                        drain_pipe(e->fd);
                        run_posted_functions();
                    }
                }
            }
            sdk_main_unlock();
        }
        sdk_os_sleep(1);
    }
    return nullptr;
}

void *os_timer_thread(void *) {
    for (;;) {
        sdk_os_sleep(1000);
        pthread_mutex_lock(&s_tick_mutex);
        if (!s_tick_paused) {
            ssize_t r = write(s_os_pipe_fd[1], "t", 1);
            (void)r;
        }
        pthread_mutex_unlock(&s_tick_mutex);
    }
    return nullptr;
}

}  // namespace

void select_table_reset(int n) {
    for (int i = 0; i < n && i < KX_SELECT_TABLE_SIZE; i++) {
        s_select_clients[i].client = nullptr;
        s_select_clients[i].fd = -1;
    }
}

int event_engine_start(void) {
    s_os_timer_ls = adt_dlist_create(sizeof(void *));
    if (s_os_timer_ls == nullptr) {
        sdk_log_msg("ios_adt_dlist_create s_os_timer_ls fail");
        return 0;
    }
    s_os_ls_main_thread_func = adt_dlist_create(sizeof(void *));
    if (s_os_ls_main_thread_func == nullptr) {
        sdk_log_msg("ios_adt_dlist_create s_os_ls_main_thread_func fail");
        return 0;
    }
    if (pipe(s_os_pipe_fd) != 0) {
        KX_LOG_ERR("pipe s_os_pipe_fd fail");
        return 0;
    }
    if (!select_add_clientfd(nullptr, s_os_pipe_fd[0])) {
        KX_LOG_ERR("select_add_clientfd(NULL,s_os_pipe_fd[0]) fail");
        return 0;
    }
    if (pipe(s_os_pipe_fd_post) != 0) {
        KX_LOG_ERR("pipe s_os_pipe_fd_post fail");
        return 0;
    }
    if (!select_add_clientfd(nullptr, s_os_pipe_fd_post[0])) {
        KX_LOG_ERR("select_add_clientfd(NULL,s_os_pipe_fd_post[0]) fail");
        return 0;
    }
    if (!sdk_thread_create(&s_os_main_thread, KX_STACK_EVENT_THREAD, select_thread, nullptr)) {
        sdk_log_msg("sdk_thread_create s_os_main_thread fail");
        return 0;
    }
    if (!sdk_thread_create(&s_os_timer_thread, 0, os_timer_thread, nullptr)) {
        sdk_log_msg("sdk_thread_create s_os_timer_thread fail");
        return 0;
    }
    return 1;
}

int select_add_clientfd(_NetTcpClient *client, int fd) {
    if (fd < 0) {
        sdk_log_msg("NetTcpClient  socketfd < 0 fail");
        return 0;
    }
    int ret = 0;
    sdk_main_lock();
    int total = s_iSelectTotalConn.load();
    int free_at = -1;
    bool present = false;
    for (int i = 0; i < total; i++) {
        if (s_select_clients[i].fd == fd) {
            present = true;
            break;
        }
        if (free_at < 0 && s_select_clients[i].fd == -1) free_at = i;
    }
    if (!present) {
        if (free_at >= 0) {
            s_select_clients[free_at].client = client;
            s_select_clients[free_at].fd = fd;
            ret = 1;
        } else if (total < KX_SELECT_TABLE_SIZE) {
            s_select_clients[total].client = client;
            s_select_clients[total].fd = fd;
            s_iSelectTotalConn.store(total + 1);
            ret = 1;
        }
    }
    sdk_main_unlock();
    return ret;
}

int select_Del_clientfd(int fd) {
    if (fd < 0) {
        sdk_log_msg("NetTcpClient  socketfd < 0 fail");
        return 0;
    }
    int ret = 0;
    sdk_main_lock();
    int total = s_iSelectTotalConn.load();
    for (int i = 0; i < total; i++) {
        if (s_select_clients[i].fd == fd) {
            s_select_clients[i].client = nullptr;
            s_select_clients[i].fd = -1;
            ret = 1;
            break;
        }
    }
    sdk_main_unlock();
    return ret;
}

int get_maxfd_socketfd(void) {
    int maxfd = -1;
    sdk_main_lock();
    int total = s_iSelectTotalConn.load();
    for (int i = 0; i < total; i++)
        if (s_select_clients[i].fd > maxfd) maxfd = s_select_clients[i].fd;
    sdk_main_unlock();
    return maxfd;
}

void select_clear_fd(int fd) {
    if (!fd_fits(fd)) return;
    FD_CLR(fd, &fd_read);
    FD_CLR(fd, &fd_write);
    FD_CLR(fd, &fd_except);
}

int select_fd_is_set(int fd, int which) {
    if (!fd_fits(fd)) return 0;
    const fd_set *set = which == KX_SET_READ ? &fd_read : which == KX_SET_WRITE ? &fd_write : &fd_except;
    return FD_ISSET(fd, set) ? 1 : 0;
}

const _SelectClient *select_table_entry(int i) {
    return (i >= 0 && i < s_iSelectTotalConn.load()) ? &s_select_clients[i] : nullptr;
}

int select_table_total(void) { return s_iSelectTotalConn.load(); }

sdk_thread_t runtime_event_thread(void) { return s_os_main_thread; }

void os_timer_walk(void) {
    adt_dlist_lock(s_os_timer_ls);
    _OS_DListNode *node = adt_dlist_head(s_os_timer_ls);
    while (node != nullptr) {
        _SdkTimer *timer = *static_cast<_SdkTimer **>(adt_dlist_getdata(node));
        node = adt_dlist_next(node);  // taken first: the callback may destroy its own timer
        timer->elapsed += 1000;
        if (timer->elapsed >= timer->period) {
            timer->elapsed = 0;
            if (timer->callback != nullptr) timer->callback(timer->udata);
        }
    }
    adt_dlist_unlock(s_os_timer_ls);
}

int os_post_main_thread_func(MainThreadFuncCallback func, void *arg) {
    if (func == nullptr || s_os_ls_main_thread_func == nullptr) return 0;
    _MainThreadFunc *f = static_cast<_MainThreadFunc *>(malloc(sizeof(_MainThreadFunc)));
    if (f == nullptr) return 0;
    f->func = func;
    f->arg = arg;
    adt_dlist_lock(s_os_ls_main_thread_func);
    _OS_DListNode *node = adt_dlist_add(s_os_ls_main_thread_func, nullptr, &f);
    adt_dlist_unlock(s_os_ls_main_thread_func);
    if (node == nullptr) {
        free(f);
        return 0;
    }
    ssize_t r = write(s_os_pipe_fd_post[1], "p", 1);
    (void)r;
    return 1;
}

void os_timer_pause_ticks(int paused) {
    pthread_mutex_lock(&s_tick_mutex);
    s_tick_paused = paused != 0;
    pthread_mutex_unlock(&s_tick_mutex);
    if (!paused || s_os_pipe_fd[0] < 0) return;
    // Wait (bounded) until the event thread has taken every pending tick byte; it reads them under
    // the main lock and walks the timers in the same hold, so taking the lock afterwards waits out
    // that walk.
    for (int i = 0; i < 5000; i++) {
        int pending = 0;
        if (ioctl(s_os_pipe_fd[0], FIONREAD, &pending) != 0 || pending == 0) break;
        sdk_os_sleep(1);
    }
    sdk_main_lock();
    sdk_main_unlock();
}

extern "C" {

KX_API _SdkTimer *sdk_timer_create(SdkTimerCallback callback, uint32_t period, void *udata) {
    _SdkTimer *timer = static_cast<_SdkTimer *>(malloc(sizeof(_SdkTimer)));
    if (timer == nullptr) {
        sdk_log_msg("malloc fail");
        return nullptr;
    }
    timer->callback = callback;
    timer->period = period;
    timer->udata = udata;
    timer->elapsed = 0;
    timer->node = nullptr;
    if (s_os_timer_ls != nullptr) {
        adt_dlist_lock(s_os_timer_ls);
        timer->node = adt_dlist_insert(s_os_timer_ls, nullptr, &timer);
        adt_dlist_unlock(s_os_timer_ls);
    }
    if (timer->node == nullptr) {
        KX_LOG_ERR("%s", "");
        free(timer);
        return nullptr;
    }
    return timer;
}

KX_API int sdk_timer_destroy(_SdkTimer *timer) {
    if (timer == nullptr) {
        sdk_log_msg("timer is null");
        return 0;
    }
    if (s_os_timer_ls == nullptr) return 0;
    adt_dlist_lock(s_os_timer_ls);
    int ok = adt_dlist_delete(s_os_timer_ls, timer->node);
    adt_dlist_unlock(s_os_timer_ls);
    if (!ok) return 0;
    free(timer);
    return 1;
}

}  // extern "C"
