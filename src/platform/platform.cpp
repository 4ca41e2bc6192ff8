#include "platform/platform.h"

#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#if defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

int kx_platform_exe_path(char *buf, size_t size) {
    if (buf == nullptr || size == 0) return 0;
#if defined(__APPLE__)
    uint32_t n = (uint32_t)size;
    if (_NSGetExecutablePath(buf, &n) != 0) return 0;
    return 1;
#else
    ssize_t n = readlink("/proc/self/exe", buf, size - 1);
    if (n <= 0 || (size_t)n >= size - 1) return 0;  // failed, or possibly cut
    buf[n] = '\0';
    return 1;
#endif
}

int64_t kx_platform_wall_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

int kx_platform_send_flags(void) {
#if defined(MSG_NOSIGNAL)
    return MSG_NOSIGNAL;
#else
    return 0;
#endif
}

int kx_platform_nosigpipe(int fd) {
#if defined(SO_NOSIGPIPE)
    int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof(on)) == 0 ? 1 : 0;
#else
    (void)fd;
    return 1;
#endif
}
