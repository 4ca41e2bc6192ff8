// Test peers written with plain POSIX calls: a loopback listener, bounded waits and reads.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

// Polls cond every millisecond for up to ms milliseconds.
template <typename F>
bool wait_for(F cond, int ms = 5000) {
    for (int i = 0; i < ms; i++) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return cond();
}

// A listening socket on 127.0.0.1 or ::1 at a free port; rcvbuf > 0 sets SO_RCVBUF, which the
// accepted socket inherits.
inline int listen_on(const char *ip, uint16_t *port, int rcvbuf = 0) {
    bool v6 = strchr(ip, ':') != nullptr;
    int fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
    if (rcvbuf > 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    sockaddr_storage ss = {};
    socklen_t len;
    if (v6) {
        auto *a = reinterpret_cast<sockaddr_in6 *>(&ss);
        a->sin6_family = AF_INET6;
        inet_pton(AF_INET6, ip, &a->sin6_addr);
        len = sizeof(*a);
    } else {
        auto *a = reinterpret_cast<sockaddr_in *>(&ss);
        a->sin_family = AF_INET;
        a->sin_addr.s_addr = inet_addr(ip);
        len = sizeof(*a);
    }
    if (bind(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0 || listen(fd, 8) != 0) return -1;
    getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len);
    *port = ntohs(v6 ? reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port : reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
    return fd;
}

inline int accept_within(int lfd, int ms = 5000) {
    pollfd p = {lfd, POLLIN, 0};
    if (poll(&p, 1, ms) != 1) return -1;
    int fd = accept(lfd, nullptr, nullptr);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return fd;
}

// Reads exactly n bytes, or what came within ms milliseconds.
inline std::string read_n(int fd, size_t n, int ms = 5000) {
    std::string out;
    char buf[4096];
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (out.size() < n && std::chrono::steady_clock::now() < end) {
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 10) != 1) continue;
        ssize_t r = recv(fd, buf, std::min(sizeof(buf), n - out.size()), 0);
        if (r <= 0) break;
        out.append(buf, (size_t)r);
    }
    return out;
}

inline void send_all(int fd, const std::string &s) {
    for (size_t off = 0; off < s.size();) {
        ssize_t r = send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
        if (r <= 0) return;
        off += (size_t)r;
    }
}
