// Dynamic loading for library callers: a thin layer over dlopen, dlsym and dlclose.
#include <dlfcn.h>
#include <stdio.h>

#include "korvex/korvex.h"

namespace {

// Room for directory, "/" and name together, terminator included.
constexpr int kLibPathRoom = 260;

}  // namespace

extern "C" {

KX_API void *os_load_library(const char *path, const char *name, void *reserved, char *dir, int flags) {
    (void)path;
    (void)reserved;
    (void)flags;
    // Without a directory the name goes to dlopen unchanged and the system's search applies.
    if (dir == nullptr || dir[0] == '\0') return dlopen(name, RTLD_LAZY);
    if (name == nullptr) return nullptr;
    char full[kLibPathRoom];
    int n = snprintf(full, sizeof(full), "%s/%s", dir, name);
    if (n < 0 || n >= kLibPathRoom) return nullptr;  // a cut path would name another file
    return dlopen(full, RTLD_LAZY);
}

KX_API void *os_dlsym_address(void *handle, const char *symbol) {
    if (symbol == nullptr) return nullptr;
    return dlsym(handle, symbol);
}

KX_API int os_free_library(void *handle) {
    if (handle == nullptr) return -1;
    return dlclose(handle);
}

}  // extern "C"
