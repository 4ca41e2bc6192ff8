// UDP client: a pooled, non-blocking IPv4 datagram socket that its owner polls. It owns its socket
// from create to destroy and never enters the event thread's table.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log/log_internal.h"
#include "net/net_internal.h"
#include "runtime/runtime_internal.h"

namespace {

bool null_client(_NetUdpClient *client) {
    if (client != nullptr) return false;
    sdk_log_msg("client is null");
    return true;
}

// Sets an option that takes a group address for all interfaces (join or leave).
int membership(_NetUdpClient *client, const char *ip, int option) {
    if (null_client(client)) return 0;
    if (ip == nullptr) {
        sdk_log_msg("ip is null");
        return 0;
    }
    struct ip_mreq req;
    req.imr_multiaddr.s_addr = inet_addr(ip);
    req.imr_interface.s_addr = htonl(INADDR_ANY);
    if (setsockopt(client->socketfd, IPPROTO_IP, option, &req, sizeof(req)) == -1) {
        sdk_log_msg("ret == -1");
        return 0;
    }
    return 1;
}

}  // namespace

extern "C" {

KX_API _NetUdpClient *net_udp_client_create(void) {
    if (pool_udp_used() >= pool_udp_max()) {
        sdk_log_msg("udp num out");
        return nullptr;
    }
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        sdk_log_msg("socket fail");
        return nullptr;
    }
    net_set_nonblocking(fd);
    _NetUdpClient *client = pool_take_udp();
    if (client == nullptr) {  // another thread took the last slot in between
        close(fd);
        return nullptr;
    }
    client->type = 4;
    client->socketfd = fd;
    return client;
}

// The socket stays open and bound, and goes on receiving; only destroy closes it. A UDP socket is
// never watched by the event thread, so there is no registration to remove.
KX_API int net_udp_client_close(_NetUdpClient *client) {
    if (null_client(client)) return 0;
    sdk_main_lock();
    client->status = 0;
    sdk_main_unlock();
    return 1;
}

KX_API int net_udp_client_destroy(_NetUdpClient *client) {
    if (null_client(client)) return 0;
    sdk_main_lock();
    if (client->index == -1) {
        sdk_main_unlock();
        sdk_log_msg("client: %x destroy err", (unsigned)(uintptr_t)client);
        exit(0);
    }
    net_udp_client_close(client);
    int fd = client->socketfd;
    if (pool_give_udp(client)) close(fd);
    sdk_main_unlock();
    return 1;
}

KX_API int net_udp_client_set_local(_NetUdpClient *client, const char *ip, uint16_t port) {
    if (client == nullptr || ip == nullptr) {
        sdk_log_msg("client is null or ip is null");
        return 0;
    }
    if (strlen(ip) >= sizeof(client->local_ip)) {
        sdk_log_msg("ip length out");
        return 0;
    }
    strcpy(client->local_ip, ip);
    client->local_port = port;
    return 1;
}

// A port of 0 in the record gives the port that the system chose at the bind.
KX_API int net_udp_client_get_local(_NetUdpClient *client, char *ip, uint16_t *port) {
    if (client == nullptr || ip == nullptr || port == nullptr) {
        sdk_log_msg("client is null or ip is null or port is null");
        return 0;
    }
    memcpy(ip, client->local_ip, sizeof(client->local_ip));
    *port = client->local_port;
    if (client->local_port == 0) {
        struct sockaddr_in a;
        socklen_t len = sizeof(a);
        if (getsockname(client->socketfd, reinterpret_cast<struct sockaddr *>(&a), &len) == 0)
            *port = ntohs(a.sin_port);
    }
    return 1;
}

KX_API int net_udp_client_get_status(_NetUdpClient *client) {
    if (null_client(client)) return -1;
    return client->status;
}

KX_API int net_udp_client_open(_NetUdpClient *client) {
    if (null_client(client)) return 0;
    struct sockaddr_in a;
    memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(client->local_port);
    a.sin_addr.s_addr = client->local_ip[0] ? inet_addr(client->local_ip) : htonl(INADDR_ANY);
    int on = 1;
    setsockopt(client->socketfd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(client->socketfd, reinterpret_cast<struct sockaddr *>(&a), sizeof(a)) != 0) {
        KX_LOG_ERR("bind fail");
        return 0;
    }
    client->status = 1;
    return 1;
}

KX_API int net_udp_client_send(_NetUdpClient *client, const void *data, uint32_t len, const char *ip,
                               uint16_t port) {
    if (null_client(client)) return -1;
    if (data == nullptr) {
        sdk_log_msg("data is null");
        return -1;
    }
    if (ip == nullptr) {
        sdk_log_msg("ip is null");
        return -1;
    }
    struct sockaddr_in a;
    memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = inet_addr(ip);
    ssize_t n = sendto(client->socketfd, data, len, 0, reinterpret_cast<struct sockaddr *>(&a), sizeof(a));
    if (n < 0) return (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : -1;
    return (int)n;
}

KX_API int net_udp_client_read(_NetUdpClient *client, void *data, uint32_t len, char *ip, uint16_t *port) {
    if (client == nullptr || data == nullptr || ip == nullptr || port == nullptr) {
        sdk_log_msg("client is null or data is null or ip is null or port is null");
        return -1;
    }
    struct sockaddr_in a;
    socklen_t alen = sizeof(a);
    memset(&a, 0, sizeof(a));
    ssize_t n = recvfrom(client->socketfd, data, len, 0, reinterpret_cast<struct sockaddr *>(&a), &alen);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
    if (n <= 0) {
        sdk_log_msg("recv fail");
        return -1;
    }
    *port = ntohs(a.sin_port);
    // The address text always fits the 16-byte room: at most 15 characters for IPv4.
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &a.sin_addr, text, sizeof(text));
    memcpy(ip, text, sizeof(text) < 16 ? sizeof(text) : 16);
    return (int)n;
}

KX_API int net_udp_client_set_udata(_NetUdpClient *client, void *udata) {
    if (null_client(client)) return 0;
    client->udata = udata;
    return 1;
}

KX_API void *net_udp_client_get_udata(_NetUdpClient *client) {
    if (null_client(client)) return nullptr;
    return client->udata;
}

KX_API int net_udp_client_bind_read(_NetUdpClient *client, NetUdpClientCallback callback, void *arg) {
    if (null_client(client)) return 0;
    client->on_read = callback;
    client->read_arg = arg;
    return 1;
}

KX_API int net_udp_client_bind_write(_NetUdpClient *client, NetUdpClientCallback callback, void *arg) {
    if (null_client(client)) return 0;
    client->on_write = callback;
    client->write_arg = arg;
    return 1;
}

KX_API int net_udp_client_set_broadcast(_NetUdpClient *client) {
    if (null_client(client)) return 0;
    int on = 1;
    if (setsockopt(client->socketfd, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on)) == -1) {
        sdk_log_msg("ret == -1");
        return 0;
    }
    int ttl = 64;
    if (setsockopt(client->socketfd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl)) == -1) {
        sdk_log_msg("ret == -1");
        return 0;
    }
    return 1;
}

KX_API int net_udp_client_add_multicase(_NetUdpClient *client, const char *ip) {
    return membership(client, ip, IP_ADD_MEMBERSHIP);
}

KX_API int net_udp_client_drop_multicase(_NetUdpClient *client, const char *ip) {
    return membership(client, ip, IP_DROP_MEMBERSHIP);
}

}  // extern "C"
