// TCP client: a pooled, non-blocking connection served by the event thread.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "log/log_internal.h"
#include "net/net_internal.h"
#include "platform/platform.h"
#include "runtime/runtime_internal.h"

namespace {

constexpr size_t kIpRoom = 16;  // address texts: 15 characters and the terminator

// Holds the main lock for one scope.
struct MainLock {
    MainLock() { sdk_main_lock(); }
    ~MainLock() { sdk_main_unlock(); }
    MainLock(const MainLock &) = delete;
    MainLock &operator=(const MainLock &) = delete;
};

inline bool would_block(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == EINTR; }

inline void call(NetTcpClientCallback cb, _NetTcpClient *client, void *arg) {
    if (cb != nullptr) cb(client, arg);
}

// Closes the socket of a client and fires on_disconnect when it was connecting or connected. The
// entry leaves the table before the descriptor is closed, so its number cannot come back through
// another open while the old entry still stands. Main lock held.
void close_connection(_NetTcpClient *client) {
    int fd = client_fd(client);
    if (fd != -1) {
        select_clear_fd(fd);
        select_Del_clientfd(fd);
        close(fd);
        client_set_fd(client, -1);
    }
    int was = client_status(client);
    client_set_status(client, 0);
    if (was != 0) call(client->on_disconnect, client, client->disconnect_arg);
}

// Family of a client, from the form of remote_ip alone.
inline bool is_v4(const _NetTcpClient *client) { return check_ipv4(client->remote_ip) == 0; }

// Fills an address for a text and a port; an empty text is the any-address.
socklen_t make_addr(bool v4, const char *ip, uint16_t port, sockaddr_storage *ss) {
    memset(ss, 0, sizeof(*ss));
    if (v4) {
        sockaddr_in *a = reinterpret_cast<sockaddr_in *>(ss);
        a->sin_family = AF_INET;
        a->sin_port = htons(port);
        a->sin_addr.s_addr = ip[0] != '\0' ? inet_addr(ip) : htonl(INADDR_ANY);
        return sizeof(sockaddr_in);
    }
    sockaddr_in6 *a = reinterpret_cast<sockaddr_in6 *>(ss);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(port);
    if (ip[0] == '\0') {
        a->sin6_addr = in6addr_any;
    } else if (inet_pton(AF_INET6, ip, &a->sin6_addr) < 0) {
        sdk_log_msg("inet_pton error");
    }
    return sizeof(sockaddr_in6);
}

// Text and port of an address that getpeername or getsockname filled. The family branch is the
// client's, not the descriptor's: an IPv4 peer read in the IPv6 branch gives the all-zero address,
// since the buffer was zeroed and sockaddr_in ends where sin6_addr begins.
void addr_text(bool v4, const sockaddr_storage *ss, char *ip, uint16_t *port) {
    char text[kIpRoom] = "";
    if (v4) {
        const sockaddr_in *a = reinterpret_cast<const sockaddr_in *>(ss);
        *port = ntohs(a->sin_port);
        snprintf(text, sizeof(text), "%s", inet_ntoa(a->sin_addr));
    } else {
        const sockaddr_in6 *a = reinterpret_cast<const sockaddr_in6 *>(ss);
        *port = ntohs(a->sin6_port);
        if (inet_ntop(AF_INET6, &a->sin6_addr, text, sizeof(text)) == nullptr) text[0] = '\0';
    }
    memcpy(ip, text, kIpRoom);
}

int open_adopted(_NetTcpClient *client, int fd) {
    if (client_fd(client) != -1) {
        sdk_log_msg("connectfd is not -1");
        return 0;
    }
    client_set_fd(client, fd);
    client_set_status(client, 2);
    kx_platform_nosigpipe(fd);
    bool v4 = is_v4(client);
    sockaddr_storage ss;
    socklen_t len = sizeof(ss);
    memset(&ss, 0, sizeof(ss));
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&ss), &len) == 0)
        addr_text(v4, &ss, client->remote_ip, &client->remote_port);
    else
        sdk_log_msg("getpeername fail");
    len = sizeof(ss);
    memset(&ss, 0, sizeof(ss));
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len) == 0)
        addr_text(v4, &ss, client->local_ip, &client->local_port);
    else
        sdk_log_msg("getsockname fail");
    return 1;
}

// A new entry wakes the event thread from its select, which waits up to a second when nothing else
// is ready, so the next pass takes the descriptor in. At most one wake is under way at a time, none
// is posted from the event thread itself (its next pass comes anyway), and none under the main
// lock: a full post pipe then only waits for the event thread to read it.
std::atomic<bool> s_wake_pending{false};

int wake_done(void *) {
    s_wake_pending = false;
    return 0;
}

void wake_event_thread(void) {
    if (pthread_equal(pthread_self(), runtime_event_thread())) return;
    if (s_wake_pending.exchange(true)) return;
    if (!os_post_main_thread_func(wake_done, nullptr)) s_wake_pending = false;
}

int open_new(_NetTcpClient *client, bool *entered) {
    bool v4 = is_v4(client);
    int fd = socket(v4 ? AF_INET : AF_INET6, SOCK_STREAM, 0);
    if (fd < 0) {
        sdk_log_msg("socket fail");
        return 0;
    }
    client_set_fd(client, fd);
    net_set_nonblocking(fd);
    // Where the system has the socket option it guards both families; elsewhere every send carries
    // the no-signal flag (net_tcp_client_send).
    kx_platform_nosigpipe(fd);
    sockaddr_storage ss;
    if (client->local_port != 0 || client->local_ip[0] != '\0') {
        socklen_t len = make_addr(v4, client->local_ip, client->local_port, &ss);
        if (bind(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0) {
            sdk_log_msg("bind fail");
            close(fd);
            client_set_fd(client, -1);
            return 0;
        }
    }
    socklen_t len = make_addr(v4, client->remote_ip, client->remote_port, &ss);
    client_set_status(client, 1);
    *entered = select_add_clientfd(client, fd) != 0;
    if (!*entered) sdk_log_msg("select_add_clientfd(client,client->connectfd) repeat");
    if (connect(fd, reinterpret_cast<sockaddr *>(&ss), len) == 0) {
        // Still under the lock, so on_connect comes before the event thread's first on_write.
        client_set_status(client, 2);
        call(client->on_connect, client, client->connect_arg);
        return 1;
    }
    if (errno != EINPROGRESS) sdk_log_msg("connect fail %s %d", client->remote_ip, client->remote_port);
    return 1;
}

// True when fd reports now, without waiting. A connecting client is promoted only on a report that
// is current: the sets of a pass can hold a bit for an earlier descriptor of the same number.
bool reports_now(int fd) {
    pollfd p = {fd, POLLOUT, 0};
    return poll(&p, 1, 0) > 0 && p.revents != 0;
}

// Reads and discards everything the socket holds. True when the stream ended or failed.
bool drain(int fd) {
    char buf[65535];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n > 0) continue;
        return n == 0 || !would_block(errno);
    }
}

void probe(_NetTcpClient *client) {
    int value = 0;
    socklen_t len = sizeof(value);
    int ret = getsockopt(client_fd(client), SOL_SOCKET, SO_ERROR, &value, &len);
    if (ret != 0)
        KX_LOG_ERR("select_dispath_client : Socket getsockopt failed,ret=%d,ip=%s,port=%d", ret, client->remote_ip,
                   client->remote_port);
    else if (value != 0)
        KX_LOG_ERR("select_dispath_client : Socket getsockopt iOptval=%d,ip=%s,port=%d", value, client->remote_ip,
                   client->remote_port);
}

}  // namespace

int select_dispath_client(_NetTcpClient *client) {
    if (client == nullptr) {
        sdk_log_msg("NetTcpClient* client == NULL fail");
        return 0;
    }
    if (client->index == -1) {
        sdk_log_msg("client index == -1 fail");
        return 0;
    }
    const int fd = client_fd(client);
    const bool rd = select_fd_is_set(fd, KX_SET_READ) != 0;
    bool wr = select_fd_is_set(fd, KX_SET_WRITE) != 0;
    if (select_fd_is_set(fd, KX_SET_EXCEPT)) {
        // Urgent data: no service in this pass. The urgent byte is taken off and dropped, since it
        // would otherwise hold the condition, and with it the client, unserved for good.
        char urgent;
        recv(fd, &urgent, 1, MSG_OOB | MSG_DONTWAIT);
        return 0;
    }
    if (!rd && !wr) return 0;
    if (client_status(client) == 1) {
        // A connecting client is served only on a current report, and one that reports has ended
        // its connect either way: it is served as writable.
        if (!reports_now(fd)) return 0;
        wr = true;
    }

    if (wr) {
        if (client_status(client) == 1) {
            client_set_status(client, 2);
            call(client->on_connect, client, client->connect_arg);
        }
        call(client->on_write, client, client->write_arg);
    }
    // A callback may have closed, re-opened or destroyed the client: the rest of the pass belongs to
    // the connection it was given for.
    if (client->index == -1 || client_fd(client) != fd) return 0;
    if (rd) {
        bool close_it;
        if (client->on_read != nullptr)
            close_it = client->on_read(client, client->read_arg) == -1;
        else
            close_it = drain(fd);
        if (close_it && client->index != -1 && client_fd(client) == fd) close_connection(client);
    }
    if (client->index != -1 && client_fd(client) != -1) probe(client);
    return 0;
}

extern "C" {

KX_API _NetTcpClient *net_tcp_client_create(void) {
    _NetTcpClient *client = pool_take_client();
    if (client != nullptr) client_set_fd(client, -1);
    return client;
}

KX_API int net_tcp_client_destroy(_NetTcpClient *client) {
    if (client == nullptr) {
        sdk_log_msg("client is null");
        return 0;
    }
    MainLock lock;
    // A free slot holds the stale fields of its last owner: closing it could close a descriptor that
    // belongs to someone else by now, so the test comes first.
    if (client->index == -1) {
        sdk_log_msg("client: %x destroy err", (unsigned)(uintptr_t)client);
        exit(0);
    }
    close_connection(client);
    pool_give_client(client);
    return 1;
}

KX_API int net_tcp_client_close(_NetTcpClient *client) {
    if (client == nullptr) {
        sdk_log_msg("client is null");
        return 0;
    }
    MainLock lock;
    if (client_status(client) != 0) close_connection(client);
    return 1;
}

}  // extern "C"

namespace {

int set_addr(_NetTcpClient *client, const char *ip, uint16_t port, bool remote) {
    if (client == nullptr || ip == nullptr) {
        sdk_log_msg("client is null or ip is null");
        return 0;
    }
    if (strnlen(ip, kIpRoom) >= kIpRoom) {
        sdk_log_msg("ip length out");
        return 0;
    }
    if (client_status(client) != 0) {
        sdk_log_msg("client is not disconnect");
        return 0;
    }
    char *dst = remote ? client->remote_ip : client->local_ip;
    memset(dst, 0, kIpRoom);
    memcpy(dst, ip, strlen(ip));
    (remote ? client->remote_port : client->local_port) = port;
    return 1;
}

int get_addr(_NetTcpClient *client, char *ip, uint16_t *port, bool remote) {
    if (client == nullptr || ip == nullptr || port == nullptr) {
        sdk_log_msg("client is null or ip is null or port is NULL");
        return 0;
    }
    memcpy(ip, remote ? client->remote_ip : client->local_ip, kIpRoom);
    *port = remote ? client->remote_port : client->local_port;
    return 1;
}

int bind_cb(_NetTcpClient *client, NetTcpClientCallback _NetTcpClient::*cb_field, void *_NetTcpClient::*arg_field,
            NetTcpClientCallback cb, void *arg) {
    if (client == nullptr) {
        sdk_log_msg("client is null");
        return 0;
    }
    client->*cb_field = cb;
    client->*arg_field = arg;
    return 1;
}

}  // namespace

extern "C" {

KX_API int net_tcp_client_set_remote(_NetTcpClient *client, const char *ip, uint16_t port) {
    return set_addr(client, ip, port, true);
}

KX_API int net_tcp_client_set_local(_NetTcpClient *client, const char *ip, uint16_t port) {
    return set_addr(client, ip, port, false);
}

KX_API int net_tcp_client_get_remote(_NetTcpClient *client, char *ip, uint16_t *port) {
    return get_addr(client, ip, port, true);
}

KX_API int net_tcp_client_get_local(_NetTcpClient *client, char *ip, uint16_t *port) {
    return get_addr(client, ip, port, false);
}

KX_API int net_tcp_client_get_status(_NetTcpClient *client) {
    if (client == nullptr) {
        sdk_log_msg("client is null");
        return -1;
    }
    return client_status(client);
}

KX_API int net_tcp_client_open(_NetTcpClient *client, int fd) {
    if (client == nullptr) {
        sdk_log_msg("client is null");
        return 0;
    }
    // The whole open happens under one hold of the main lock: the event thread serves no entry
    // meanwhile, so it never sees the new socket before connect has run (a socket that has not begun
    // to connect reads as writable and would be taken for connected).
    bool entered = false;
    int ret;
    {
        MainLock lock;
        if (client_status(client) != 0) {
            sdk_log_msg("client is not disconnect");
            return 0;
        }
        ret = fd == -1 ? open_new(client, &entered) : open_adopted(client, fd);
    }
    if (entered) wake_event_thread();
    return ret;
}

KX_API int net_tcp_client_send(_NetTcpClient *client, const char *data, uint32_t len) {
    if (client == nullptr) {
        sdk_log_msg("client is null");
        return -1;
    }
    if (data == nullptr) {
        sdk_log_msg("data is null");
        return -1;
    }
    int status = client_status(client);
    if (status == 1) return 0;
    if (status != 2) return -1;
    // The no-signal flag: a peer that has gone raises no SIGPIPE, whatever the family.
    ssize_t n = send(client_fd(client), data, len, kx_platform_send_flags());
    if (n >= 0) return (int)n;
    return would_block(errno) ? 0 : -1;
}

KX_API int net_tcp_client_read(_NetTcpClient *client, char *buf, uint32_t len) {
    if (client == nullptr) {
        sdk_log_msg("client is null");
        return -1;
    }
    if (buf == nullptr) {
        sdk_log_msg("data is null");
        return -1;
    }
    if (client_status(client) != 2) return -1;
    ssize_t n = recv(client_fd(client), buf, len, 0);
    if (n > 0) return (int)n;
    if (n < 0 && would_block(errno)) return 0;
    return -1;
}

KX_API int net_tcp_client_set_udata(_NetTcpClient *client, void *udata) {
    if (client == nullptr) {
        sdk_log_msg("client is null");
        return 0;
    }
    client_set_udata(client, udata);
    return 1;
}

KX_API void *net_tcp_client_get_udata(_NetTcpClient *client) {
    if (client == nullptr) {
        sdk_log_msg("client is null");
        return nullptr;
    }
    return client_udata(client);
}

KX_API int net_tcp_client_bind_connect(_NetTcpClient *client, NetTcpClientCallback cb, void *arg) {
    return bind_cb(client, &_NetTcpClient::on_connect, &_NetTcpClient::connect_arg, cb, arg);
}

KX_API int net_tcp_client_bind_disconnect(_NetTcpClient *client, NetTcpClientCallback cb, void *arg) {
    return bind_cb(client, &_NetTcpClient::on_disconnect, &_NetTcpClient::disconnect_arg, cb, arg);
}

KX_API int net_tcp_client_bind_read(_NetTcpClient *client, NetTcpClientCallback cb, void *arg) {
    return bind_cb(client, &_NetTcpClient::on_read, &_NetTcpClient::read_arg, cb, arg);
}

KX_API int net_tcp_client_bind_write(_NetTcpClient *client, NetTcpClientCallback cb, void *arg) {
    return bind_cb(client, &_NetTcpClient::on_write, &_NetTcpClient::write_arg, cb, arg);
}

KX_API int net_tcp_client_set_rcvbuf_len(_NetTcpClient *client, uint32_t len) {
    if (client == nullptr) {
        sdk_log_msg("client == NULL");
        return 0;
    }
    int value = (int)len;
    if (setsockopt(client_fd(client), SOL_SOCKET, SO_RCVBUF, &value, sizeof(value)) != 0) {
        KX_LOG_ERR("%s", "");
        return 0;
    }
    return 1;
}

KX_API int net_tcp_client_set_ip_ver(_NetTcpClient *client, uint8_t ver) {
    (void)ver;
    if (client == nullptr) {
        KX_LOG_ERR("net_tcp_server_get_ip_version:NULL == server!");
        return 0;
    }
    return 1;
}

}  // extern "C"
