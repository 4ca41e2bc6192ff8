// Mutexes and threads: thin layers over the platform's, with null tests and failure records.
#include <pthread.h>
#include <stdlib.h>

#include "platform/alloc.h"
#include "log/log_internal.h"

extern "C" {

KX_API int sdk_mutex_init(sdk_mutex_t *mutex, int recursive) {
    if (mutex == nullptr) {
        KX_LOG_ERR("mutex is null");
        return 0;
    }
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) return 0;
    int ok = pthread_mutexattr_settype(&attr, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_DEFAULT) == 0 &&
             pthread_mutex_init(mutex, &attr) == 0;
    pthread_mutexattr_destroy(&attr);
    return ok ? 1 : 0;
}

KX_API sdk_mutex_t *sdk_mutex_create(int recursive) {
    sdk_mutex_t *mutex = static_cast<sdk_mutex_t *>(kx_malloc(sizeof(sdk_mutex_t)));
    if (mutex == nullptr) {
        KX_LOG_ERR("mutex is null");
        return nullptr;
    }
    if (!sdk_mutex_init(mutex, recursive)) {
        KX_LOG_ERR("!sdk_os_mutex_init(mutex, recursive)");
        free(mutex);
        return nullptr;
    }
    return mutex;
}

KX_API int sdk_mutex_destroy(sdk_mutex_t *mutex) {
    if (mutex == nullptr) {
        KX_LOG_ERR("mutex is null");
        return 0;
    }
    return pthread_mutex_destroy(mutex) == 0 ? 1 : 0;
}

KX_API int sdk_mutex_free(sdk_mutex_t *mutex) {
    sdk_mutex_destroy(mutex);
    free(mutex);
    return 1;
}

KX_API int sdk_mutex_lock(sdk_mutex_t *mutex) {
    if (mutex == nullptr) {
        KX_LOG_ERR("mutex is null");
        return 0;
    }
    return pthread_mutex_lock(mutex) == 0 ? 1 : 0;
}

KX_API int sdk_mutex_try_lock(sdk_mutex_t *mutex) {
    if (mutex == nullptr) {
        KX_LOG_ERR("mutex is null");
        return 0;
    }
    return pthread_mutex_trylock(mutex) == 0 ? 1 : 0;
}

KX_API int sdk_mutex_unlock(sdk_mutex_t *mutex) {
    if (mutex == nullptr) {
        KX_LOG_ERR("mutex is null");
        return 0;
    }
    return pthread_mutex_unlock(mutex) == 0 ? 1 : 0;
}

KX_API int sdk_thread_create(sdk_thread_t *thr, uint32_t stack_size, sdk_thread_func func, void *arg) {
    if (thr == nullptr) {
        KX_LOG_ERR("thr is null");
        return 0;
    }
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        KX_LOG_ERR("pthread_create fail");
        return 0;
    }
    int ok = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE) == 0 &&
             pthread_attr_setstacksize(&attr, stack_size == 0 ? 1048576u : stack_size) == 0 &&
             func != nullptr && !kx_alloc_refused() /* the stack is an allocation too */ &&
             pthread_create(thr, &attr, func, arg) == 0;
    pthread_attr_destroy(&attr);
    if (!ok) {
        KX_LOG_ERR("pthread_create fail");
        return 0;
    }
    return 1;
}

KX_API int sdk_thread_join(sdk_thread_t *thr) {
    if (thr == nullptr) {
        KX_LOG_ERR("thr is null");
        return 0;
    }
    return pthread_join(*thr, nullptr) == 0 ? 1 : 0;
}

KX_API int sdk_thread_detach(sdk_thread_t *thr) {
    if (thr == nullptr) {
        KX_LOG_ERR("thr is null");
        return 0;
    }
    return pthread_detach(*thr) == 0 ? 1 : 0;
}

KX_API sdk_thread_t sdk_thread_self(void) { return pthread_self(); }

}  // extern "C"
