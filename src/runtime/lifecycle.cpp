// The runtime's process-wide state and the main lock. The library's start and stop, which compose
// the log, the socket engine's pools and this engine, stand in core/startup.cpp.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "log/log_internal.h"
#include "runtime/runtime_internal.h"
#include "runtime/runtime_state.h"

#if defined(PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP)
#define KX_MAIN_MUTEX_INIT PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP
static const bool s_main_mutex_static = true;
#else
#define KX_MAIN_MUTEX_INIT PTHREAD_MUTEX_INITIALIZER
static const bool s_main_mutex_static = false;
#endif

RuntimeState s_rt = {
    /*engine*/ {-1},
    /*main_mutex*/ KX_MAIN_MUTEX_INIT,
    /*main_owner*/ {},
    /*poller*/ nullptr,
    /*watch_epoch*/ {0},
    /*watch_count*/ 0,
    /*passes*/ {0},
    /*pass_ms*/ 0,
    /*pumps*/ {0},
    /*tick_pipe*/ {-1, -1},
    /*post_pipe*/ {-1, -1},
    /*tick_watch*/ {},
    /*post_watch*/ {},
    /*timer_ls*/ nullptr,
    /*posted_ls*/ nullptr,
    /*event_thread*/ {},
    /*timer_thread*/ {},
    /*quit*/ {false},
    /*tick_mutex*/ PTHREAD_MUTEX_INITIALIZER,
    /*tick_paused*/ false,
};

bool runtime_main_lock_held(void) { return s_rt.main_owner.held(); }
void runtime_engine_started(void) { s_rt.engine = 1; }

// The main lock needs run-time initialisation where the system has no static recursive initialiser.
int runtime_main_lock_init(void) { return s_main_mutex_static || sdk_mutex_init(&s_rt.main_mutex, 1); }

extern "C" {

KX_API bool sdk_is_startup(void) { return s_rt.engine.load() == 1; }

KX_API void sdk_main_lock(void) {
    pthread_mutex_lock(&s_rt.main_mutex);
    s_rt.main_owner.acquired();
}

KX_API void sdk_main_unlock(void) {
    s_rt.main_owner.releasing();
    pthread_mutex_unlock(&s_rt.main_mutex);
}

// Sleeps through the whole span, also for spans that don't fit usleep's argument.
KX_API void sdk_os_sleep(uint32_t ms) {
    struct timespec ts = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

KX_API int sdk_os_set_usr_flag(int flag) {
    (void)flag;
    return 0;
}

KX_API void sdk_os_set_cur_path(void *path) { (void)path; }

}  // extern "C"
