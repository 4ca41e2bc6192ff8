// Library start and stop. The start builds, in this order, the log mutexes, the socket engine's
// pools and the runtime's engine, then the log check; a start that fails takes back everything it
// made and leaves the start count as it was, so that a later start begins afresh.
#include "core/startup_internal.h"

#include "log/log_internal.h"
#include "net/net_internal.h"
#include "runtime/runtime_internal.h"

namespace {

// The library's process-wide start state. No lock: start and stop come from one thread at a time.
struct StartState {
    int count;                // nested starts
    _SdkTimer *log_checktimer;  // the log check of the current start
};

StartState s_start = {0, nullptr};

}  // namespace

int kx_start_count(void) { return s_start.count; }
_SdkTimer *kx_log_check_timer(void) { return s_start.log_checktimer; }

extern "C" {

KX_API int inner_sdk_os_startup(uint32_t clientnum, uint32_t servernum) {
    if (sdk_is_startup()) return 1;
    if (!net_pools_build(clientnum, servernum)) return 0;
    if (!runtime_engine_start()) {
        net_pools_release();
        return 0;
    }
    runtime_engine_started();
    return 1;
}

KX_API int inner_sdk_os_cleanup(void) {
    net_pools_close_sockets();
    return 1;
}

KX_API int sdk_os_startup(uint32_t clientnum, uint32_t servernum) {
    sdk_log_msg("[%s %d][build %s %s]in s_ilInitialOsCore %d clientnum %d servernum %d", __func__, __LINE__,
                __DATE__, __TIME__, s_start.count, (int)clientnum, (int)servernum);
    if (s_start.count > 0) {
        s_start.count++;
        return 1;
    }
    log_create_mutexes();
    int ret = inner_sdk_os_startup(clientnum, servernum);
    if (ret != 0 && s_start.log_checktimer == nullptr) {
        update_log_config();
        s_start.log_checktimer = sdk_timer_create(on_check_log_timer, 3000, nullptr);
        if (s_start.log_checktimer == nullptr) KX_LOG_ERR("NULL == s_log_checktimer");
    }
    update_log_path();
    if (ret != 0) {
        s_start.count = 1;
    } else {
        log_release_mutexes();  // as before the call: the next log call or start takes them up
    }
    sdk_log_msg("[%s %d][build %s %s]out s_ilInitialOsCore %d clientnum %d servernum %d", __func__, __LINE__,
                __DATE__, __TIME__, s_start.count, (int)clientnum, (int)servernum);
    return ret;
}

// The last stop gives 1 like every other: the library holds no thread-specific key whose release
// could fail.
KX_API int sdk_os_cleanup(void) {
    if (s_start.count != 1) {
        if (--s_start.count < 0) s_start.count = 0;
        sdk_log_msg("[Cleanup]KORVEX Cleanup!");
        return 1;
    }
    if (s_start.log_checktimer != nullptr) {
        sdk_timer_destroy(s_start.log_checktimer);
        s_start.log_checktimer = nullptr;
    }
    inner_sdk_os_cleanup();
    log_release_mutexes();
    s_start.count = 0;
    return 1;
}

}  // extern "C"
