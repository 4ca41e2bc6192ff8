// TCP server: a pooled, bound, listening, non-blocking socket. The event thread doesn't serve it;
// its owner takes connections with net_tcp_server_accept and adopts them into TCP clients.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log/log_internal.h"
#include "net/net_internal.h"

namespace {

bool null_server(_NetTcpServer *server) {
    if (server != nullptr) return false;
    sdk_log_msg("server is NULL");
    return true;
}

}  // namespace

extern "C" {

KX_API _NetTcpServer *net_tcp_server_create(void) {
    _NetTcpServer *server = pool_take_server();
    if (server == nullptr) return nullptr;
    server->type = 0;
    strcpy(server->local_ip, "0.0.0.0");
    server->local_port = 0;
    server->status = 0;
    server->socketfd = -1;
    return server;
}

KX_API int net_tcp_server_close(_NetTcpServer *server) {
    if (null_server(server)) return 0;
    sdk_main_lock();
    if (server->status == 0) {
        sdk_log_msg("server is dislisten");
    } else {
        server->status = 0;
        close(server->socketfd);
        server->socketfd = -1;
    }
    sdk_main_unlock();
    return 1;
}

// A free slot is refused with a log line instead of corrupting the pool's count.
KX_API int net_tcp_server_destroy(_NetTcpServer *server) {
    if (null_server(server)) return 0;
    sdk_main_lock();
    if (server->index == -1) {
        sdk_main_unlock();
        sdk_log_msg("server: %x destroy err", (unsigned)(uintptr_t)server);
        return 0;
    }
    net_tcp_server_close(server);
    pool_give_server(server);
    sdk_main_unlock();
    return 1;
}

// The port is stored first; a null text keeps the address. A text that inet_addr refuses, or that
// doesn't fit the 15-character field, gives 0 and leaves the address as it was.
KX_API int net_tcp_server_set_local(_NetTcpServer *server, const char *ip, uint16_t port) {
    if (null_server(server)) return 0;
    server->local_port = port;
    if (ip == nullptr) return 1;
    if (strlen(ip) >= sizeof(server->local_ip)) {
        sdk_log_msg("ip length out");
        return 0;
    }
    if (inet_addr(ip) == INADDR_NONE) {
        sdk_log_msg("ip is fail");
        return 0;
    }
    strcpy(server->local_ip, ip);
    return 1;
}

KX_API int net_tcp_server_get_local(_NetTcpServer *server, char *ip, uint16_t *port) {
    if (null_server(server)) return 0;
    if (ip != nullptr) memcpy(ip, server->local_ip, sizeof(server->local_ip));
    if (port != nullptr) *port = server->local_port;
    return 1;
}

KX_API int net_tcp_server_get_status(_NetTcpServer *server) {
    if (null_server(server)) return -1;
    return server->status;
}

KX_API int net_tcp_server_open(_NetTcpServer *server) {
    if (null_server(server)) return 0;
    if (server->status != 0) {
        sdk_log_msg("server is not dislisten");
        return 0;
    }
    bool v4 = check_ipv4(server->local_ip) == 0;
    server->socketfd = socket(v4 ? AF_INET : AF_INET6, SOCK_STREAM, 0);
    if (server->socketfd < 0) {
        server->socketfd = -1;
        KX_LOG_ERR("socket fail");
        return 0;
    }
    int on = 1;
    setsockopt(server->socketfd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    net_set_nonblocking(server->socketfd);

    struct sockaddr_storage ss;
    socklen_t len;
    if (!net_make_addr(v4, server->local_ip, server->local_port, &ss, &len)) KX_LOG_ERR("inet_pton error");
    if (bind(server->socketfd, reinterpret_cast<struct sockaddr *>(&ss), len) != 0) {
        close(server->socketfd);
        server->socketfd = -1;
        KX_LOG_ERR("bind fail");
        return 0;
    }
    if (listen(server->socketfd, 2147483647) != 0) {
        close(server->socketfd);
        server->socketfd = -1;
        KX_LOG_ERR("listen fail");
        return 0;
    }
    server->status = 1;
    return 1;
}

KX_API int net_tcp_server_bind_accept(_NetTcpServer *server, NetTcpServerCallback callback, void *arg) {
    if (null_server(server)) return 0;
    server->on_accept = callback;
    server->accept_arg = arg;
    return 1;
}

KX_API int net_tcp_server_accept(_NetTcpServer *server, int *fd) {
    if (null_server(server)) return -1;
    if (fd == nullptr) {
        sdk_log_msg("fd is null");
        return -1;
    }
    if (server->status != 1 || server->socketfd < 0) {
        sdk_log_msg("server is dislisten");
        return -1;
    }
    int c;
    do {
        c = accept(server->socketfd, nullptr, nullptr);
    } while (c < 0 && errno == EINTR);
    if (c < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED) return 0;
        return -1;
    }
    // The owner polls the adopted client with net_tcp_client_read, so the descriptor must not block.
    int flags = fcntl(c, F_GETFL);
    if (flags < 0 || fcntl(c, F_SETFL, flags | O_NONBLOCK) < 0 || fcntl(c, F_SETFD, FD_CLOEXEC) < 0) {
        KX_LOG_ERR("fcntl accepted socket fail");
        close(c);
        return -1;
    }
    *fd = c;
    return 1;
}

}  // extern "C"
