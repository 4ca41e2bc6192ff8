// Library start and stop and the main lock. The engine start itself (the pools, then the event
// engine) is inner_sdk_os_startup, with the pools in the socket engine.
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
    /*start_count*/ 0,
    /*engine*/ {-1},
    /*main_mutex*/ KX_MAIN_MUTEX_INIT,
    /*main_owner*/ {},
    /*poller*/ nullptr,
    /*watch_epoch*/ {0},
    /*watch_count*/ 0,
    /*passes*/ {0},
    /*pumps*/ {0},
    /*tick_pipe*/ {-1, -1},
    /*post_pipe*/ {-1, -1},
    /*tick_watch*/ {},
    /*post_watch*/ {},
    /*timer_ls*/ nullptr,
    /*posted_ls*/ nullptr,
    /*event_thread*/ {},
    /*timer_thread*/ {},
    /*log_checktimer*/ nullptr,
    /*tick_mutex*/ PTHREAD_MUTEX_INITIALIZER,
    /*tick_paused*/ false,
};

int runtime_start_count(void) { return s_rt.start_count; }
_SdkTimer *runtime_log_check_timer(void) { return s_rt.log_checktimer; }
bool runtime_main_lock_held(void) { return s_rt.main_owner.held(); }
void runtime_engine_started(void) { s_rt.engine = 1; }

// The main lock needs run-time initialisation where the system has no static recursive initialiser.
int runtime_main_lock_init(void) { return s_main_mutex_static || sdk_mutex_init(&s_rt.main_mutex, 1); }

extern "C" {

KX_API int sdk_os_startup(uint32_t clientnum, uint32_t servernum) {
    sdk_log_msg("[%s %d][build %s %s]in s_ilInitialOsCore %d clientnum %d servernum %d", __func__, __LINE__,
                __DATE__, __TIME__, s_rt.start_count, (int)clientnum, (int)servernum);
    if (++s_rt.start_count > 1) return 1;
    log_create_mutexes();
    int ret = inner_sdk_os_startup(clientnum, servernum);
    if (ret != 0 && s_rt.log_checktimer == nullptr) {
        update_log_config();
        s_rt.log_checktimer = sdk_timer_create(on_check_log_timer, 3000, nullptr);
        if (s_rt.log_checktimer == nullptr) KX_LOG_ERR("NULL == s_log_checktimer");
    }
    update_log_path();
    s_rt.start_count = 1;
    sdk_log_msg("[%s %d][build %s %s]out s_ilInitialOsCore %d clientnum %d servernum %d", __func__, __LINE__,
                __DATE__, __TIME__, s_rt.start_count, (int)clientnum, (int)servernum);
    return ret;
}

// The last stop gives 1 like every other: the library holds no thread-specific key whose release
// could fail.
KX_API int sdk_os_cleanup(void) {
    if (s_rt.start_count != 1) {
        if (--s_rt.start_count < 0) s_rt.start_count = 0;
        sdk_log_msg("[Cleanup]KORVEX Cleanup!");
        return 1;
    }
    if (s_rt.log_checktimer != nullptr) {
        sdk_timer_destroy(s_rt.log_checktimer);
        s_rt.log_checktimer = nullptr;
    }
    inner_sdk_os_cleanup();
    log_release_mutexes();
    s_rt.start_count = 0;
    return 1;
}

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
