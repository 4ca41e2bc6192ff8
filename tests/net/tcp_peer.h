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

// The address of a numeric IPv4 or IPv6 text and a port.
inline socklen_t make_addr(const char *ip, uint16_t port, sockaddr_storage *ss) {
    *ss = {};
    auto *a6 = reinterpret_cast<sockaddr_in6 *>(ss);
    auto *a4 = reinterpret_cast<sockaddr_in *>(ss);
    if (inet_pton(AF_INET6, ip, &a6->sin6_addr) == 1) {
        a6->sin6_family = AF_INET6;
        a6->sin6_port = htons(port);
        return sizeof(*a6);
    }
    a4->sin_family = AF_INET;
    a4->sin_port = htons(port);
    a4->sin_addr.s_addr = inet_addr(ip);
    return sizeof(*a4);
}

inline uint16_t port_of(const sockaddr_storage &ss) {
    return ntohs(ss.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6 *>(&ss)->sin6_port
                                          : reinterpret_cast<const sockaddr_in *>(&ss)->sin_port);
}

// A listening socket on ip at a free port; rcvbuf > 0 sets SO_RCVBUF, which accepted sockets inherit.
inline int listen_on(const char *ip, uint16_t *port, int rcvbuf = 0) {
    sockaddr_storage ss;
    socklen_t len = make_addr(ip, 0, &ss);
    int fd = socket(ss.ss_family, SOCK_STREAM, 0);
    if (rcvbuf > 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    if (bind(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0 || listen(fd, 8) != 0) return -1;
    getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len);
    *port = port_of(ss);
    return fd;
}

// A blocking connection to ip and port; *local_port gets its own port.
inline int connect_to(const char *ip, uint16_t port, uint16_t *local_port) {
    sockaddr_storage ss;
    socklen_t len = make_addr(ip, port, &ss);
    int fd = socket(ss.ss_family, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0) return -1;
    getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len);
    *local_port = port_of(ss);
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
