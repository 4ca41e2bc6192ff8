// Helpers the soak and fleet programs share: clocks and bounded waits, process figures
// (/proc/self), the descriptor limit, loopback listeners, whole writes and little-endian fields.
#pragma once

#include <dirent.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <arpa/inet.h>

#include <algorithm>
#include <string>

namespace soak_util {

inline uint64_t now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint64_t)ts.tv_sec * 1000000000ull + (uint64_t)ts.tv_nsec;
}
inline uint64_t now_ms() { return now_ns() / 1000000ull; }
// Sleeps until t on the monotonic clock (now_ns's).
inline void sleep_until(uint64_t t) {
    timespec ts = {(time_t)(t / 1000000000ull), (long)(t % 1000000000ull)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}
inline void sleep_us(uint64_t us) {
    timespec ts = {(time_t)(us / 1000000u), (long)(us % 1000000u) * 1000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}
inline void sleep_ms(uint64_t ms) { sleep_us(ms * 1000u); }
// Polls cond every step_ms until it holds or ms have passed; whether it held.
template <typename F>
bool wait_until(F cond, uint64_t ms, uint64_t step_ms = 5) {
    uint64_t end = now_ns() + ms * 1000000ull;
    while (!cond()) {
        if (now_ns() >= end) return cond();
        sleep_ms(step_ms);
    }
    return true;
}
// CPU seconds of this process, user and system.
inline double cpu_s() {
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return (double)ru.ru_utime.tv_sec + ru.ru_utime.tv_usec / 1e6 + (double)ru.ru_stime.tv_sec + ru.ru_stime.tv_usec / 1e6;
}
// Entries of a /proc directory (/proc/self/fd less the directory's own descriptor).
inline int count_entries(const char *dir) {
    DIR *d = opendir(dir);
    if (d == nullptr) return -1;
    int n = 0;
    while (dirent *e = readdir(d))
        if (e->d_name[0] != '.') n++;
    closedir(d);
    return n - (strcmp(dir, "/proc/self/fd") == 0 ? 1 : 0);
}
inline int count_fds() { return count_entries("/proc/self/fd"); }
inline int env_int(const char *name, int def) {
    const char *v = getenv(name);
    return (v != nullptr && atoi(v) > 0) ? atoi(v) : def;
}
// Raises the soft descriptor limit to n (the hard one too where allowed); gives the soft limit.
inline long raise_nofile(rlim_t n) {
    rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur < n) {
        if (rl.rlim_max < n) {
            rlimit r2 = {n, n};
            if (setrlimit(RLIMIT_NOFILE, &r2) == 0) return (long)n;
        }
        rl.rlim_cur = std::min(rl.rlim_max, n);
        setrlimit(RLIMIT_NOFILE, &rl);
        getrlimit(RLIMIT_NOFILE, &rl);
    }
    return (long)rl.rlim_cur;
}
// A listening TCP socket on 127.0.0.1, port chosen by the kernel (*port).
inline int raw_listen(uint16_t *port, int rcvbuf = 0) {
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) return -1;
    int on = 1;
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (rcvbuf > 0) setsockopt(s, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(s, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0 || listen(s, 4096) != 0) {
        close(s);
        return -1;
    }
    socklen_t l = sizeof(a);
    getsockname(s, reinterpret_cast<sockaddr *>(&a), &l);
    *port = ntohs(a.sin_port);
    return s;
}
// Sends all n bytes, waiting out a full socket buffer; false on an error.
inline bool write_all(int fd, const void *data, size_t n) {
    const char *p = static_cast<const char *>(data);
    while (n > 0) {
        ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
        if (w < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN) {
                pollfd pf = {fd, POLLOUT, 0};
                poll(&pf, 1, 100);
                continue;
            }
            return false;
        }
        p += w;
        n -= (size_t)w;
    }
    return true;
}

// Little-endian fields and the FNV-1a checksum that self-proving bodies carry.
inline void put_u32(char *p, uint32_t v) {
    for (int i = 0; i < 4; i++) p[i] = (char)(v >> (8 * i));
}
inline uint32_t get_u32(const char *p) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; i--) v = v << 8 | (uint8_t)p[i];
    return v;
}
inline uint32_t fnv(const char *p, size_t n) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < n; i++) h = (h ^ (uint8_t)p[i]) * 16777619u;
    return h;
}

// What the library logs (standard error) goes to a file between start() and stop(), which gives it
// back, so that result lines stay readable and the log can be counted and shown when a check fails.
struct LogCapture {
    FILE *file = nullptr;
    int saved = -1;
    void start() {
        fflush(stderr);
        file = tmpfile();
        saved = dup(2);
        if (file != nullptr) dup2(fileno(file), 2);
    }
    std::string stop() {
        fflush(stderr);
        std::string text;
        if (saved >= 0) dup2(saved, 2), close(saved);
        saved = -1;
        if (file == nullptr) return text;
        rewind(file);
        char buf[65536];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), file)) > 0) text.append(buf, n);
        fclose(file);
        file = nullptr;
        return text;
    }
};
inline int count_of(const std::string &text, const char *what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) n++;
    return n;
}

}  // namespace soak_util
