// TCP client: a pooled, non-blocking connection served by the event thread.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log/log_internal.h"
#include "net/net_internal.h"
#include "platform/platform.h"
#include "runtime/runtime_internal.h"

namespace {

constexpr size_t kIpRoom = 16;  // address texts: 15 characters and the terminator

inline bool would_block(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == EINTR; }

inline void call(NetTcpClientCallback cb, _NetTcpClient *client, void *arg) {
    if (cb != nullptr) cb(client, arg);
}

// Holds a client's watch_mtx for one scope.
struct WatchLock {
    explicit WatchLock(NetClientSlot *s) : slot(s) { pthread_mutex_lock(&slot->watch_mtx); }
    ~WatchLock() { pthread_mutex_unlock(&slot->watch_mtx); }
    WatchLock(const WatchLock &) = delete;
    WatchLock &operator=(const WatchLock &) = delete;
    NetClientSlot *slot;
};

// Holds a client's io_mtx for one scope. A record outside the pool has no lock: its owner
// serialises its I/O with its close.
struct IoLock {
    explicit IoLock(NetClientSlot *s) : slot(s) {
        if (slot != nullptr) pthread_mutex_lock(&slot->io_mtx);
    }
    ~IoLock() {
        if (slot != nullptr) pthread_mutex_unlock(&slot->io_mtx);
    }
    IoLock(const IoLock &) = delete;
    IoLock &operator=(const IoLock &) = delete;
    NetClientSlot *slot;
};

// What the client's watcher asks for now: read always; write while connecting, and once connected
// while a bare client has on_write bound or an on-demand client has bytes waiting. watch_mtx held.
unsigned wanted_interest(NetClientSlot *s) {
    if (client_status(&s->client) == 1) return KX_WATCH_READ | KX_WATCH_WRITE;
    bool wr = s->on_demand.load() ? s->want_write.load() != 0 : s->client.on_write != nullptr;
    return wr ? (unsigned)(KX_WATCH_READ | KX_WATCH_WRITE) : (unsigned)KX_WATCH_READ;
}

void update_interest(NetClientSlot *s) {
    if (s == nullptr) return;
    WatchLock lock(s);
    if (s->watch.active.load()) kx_watch_set_interest(&s->watch, wanted_interest(s));
}

int on_client_event(KxWatcher *w, unsigned events);

// Closes the socket of a client and fires on_disconnect when it was connecting or connected. The
// watcher stops before the descriptor is closed, so its number cannot come back through another
// open while the old registration still stands. The status drops and the descriptor closes under
// io_mtx: a send or read of another thread either ends before the close or finds the client
// disconnected, and never reaches whatever socket takes the number next. Main lock held.
void close_connection(_NetTcpClient *client) {
    KX_ASSERT_MAIN_LOCK();
    NetClientSlot *s = client_slot(client);
    int fd = client_fd(client);
    if (fd != -1 && s != nullptr) {
        WatchLock lock(s);
        kx_watch_stop(&s->watch);
    }
    int was;
    {
        IoLock io(s);
        was = client_status(client);
        client_set_status(client, 0);
        if (fd != -1) {
            close(fd);
            client_set_fd(client, -1);
        }
    }
    if (was != 0) call(client->on_disconnect, client, client->disconnect_arg);
}

// Family of a client, from the form of remote_ip alone.
inline bool is_v4(const _NetTcpClient *client) { return check_ipv4(client->remote_ip) == 0; }

socklen_t client_addr(bool v4, const char *ip, uint16_t port, sockaddr_storage *ss) {
    socklen_t len;
    if (!net_make_addr(v4, ip, port, ss, &len)) sdk_log_msg("inet_pton error");
    return len;
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

// A new socket, connected without waiting. The whole open runs under the main lock, and the
// watcher starts after connect has run: the event thread never sees a socket that has not begun to
// connect (such a socket reads as writable and would be taken for connected).
int open_new(_NetTcpClient *client) {
    NetClientSlot *s = client_slot(client);
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
        socklen_t len = client_addr(v4, client->local_ip, client->local_port, &ss);
        if (bind(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0) {
            sdk_log_msg("bind fail");
            close(fd);
            client_set_fd(client, -1);
            return 0;
        }
    }
    socklen_t len = client_addr(v4, client->remote_ip, client->remote_port, &ss);
    client_set_status(client, 1);
    int rc = connect(fd, reinterpret_cast<sockaddr *>(&ss), len);
    int err = errno;
    if (rc == 0) client_set_status(client, 2);
    bool entered = false;
    if (s != nullptr) {
        WatchLock lock(s);
        entered = kx_watch_start(&s->watch, fd, wanted_interest(s), on_client_event, s) != 0;
    }
    if (!entered) sdk_log_msg("select_add_clientfd(client,client->connectfd) repeat");
    if (rc == 0) {
        // Still under the lock, so on_connect comes before the event thread's first on_write.
        call(client->on_connect, client, client->connect_arg);
    } else if (err != EINPROGRESS) {
        // The event thread reports the failure: the socket reads as hung up.
        sdk_log_msg("connect fail %s %d", client->remote_ip, client->remote_port);
    }
    return 1;
}

// One recv within the share of the current read event: a read event takes at most KX_READ_SLICE
// bytes, so one busy peer cannot hold the event thread; data left behind brings the client back in
// the next pass. Outside a read event there is no share. The byte
// count, 0 for would-block or a used share, -1 for a closed or failed stream.
int share_recv(NetClientSlot *s, int fd, char *buf, uint32_t len) {
    int32_t left = s != nullptr ? s->read_left.load(std::memory_order_relaxed) : -1;
    if (left == 0) return 0;
    size_t want = len;
    if (left > 0 && want > (size_t)left) want = (size_t)left;
    ssize_t n = recv(fd, buf, want, 0);
    if (n > 0) {
        if (left > 0) {
            left -= (int32_t)n;
            if (left == 0) s->read_yielded = true;
            s->read_left.store(left, std::memory_order_relaxed);
        }
        return (int)n;
    }
    if (n < 0 && would_block(errno)) {
        if (left > 0) s->read_left.store(0, std::memory_order_relaxed);
        return 0;
    }
    return -1;
}

// Reads and discards the share of this read event. True when the stream ended or failed.
bool drain(NetClientSlot *s, int fd) {
    char buf[65535];
    for (;;) {
        int n = share_recv(s, fd, buf, sizeof(buf));
        if (n > 0) continue;
        return n < 0;
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

// A connect has ended, one way or the other. A failed one (a pending socket error, or a socket that
// reads as hung up) goes straight to the closing path: on_disconnect, never on_connect. True when
// the client is connected now.
bool finish_connect(NetClientSlot *s, int fd, unsigned events) {
    _NetTcpClient *client = &s->client;
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
    if (err != 0 || (events & KX_WATCH_ERROR) != 0) {
        sdk_log_msg("connect fail %s %d", client->remote_ip, client->remote_port);
        close_connection(client);
        return false;
    }
    if (!(events & KX_WATCH_WRITE)) return false;
    client_set_status(client, 2);
    update_interest(s);
    call(client->on_connect, client, client->connect_arg);
    return true;
}

// Serves one client for the events of one pass, on the event thread with the main lock held: the
// connect, then write, then read, then the socket error probe. 1 when the read share was used up
// with data left.
int on_client_event(KxWatcher *w, unsigned events) {
    KX_ASSERT_MAIN_LOCK();
    NetClientSlot *s = static_cast<NetClientSlot *>(w->context);
    _NetTcpClient *client = &s->client;
    if (client->index == -1) {
        sdk_log_msg("client index == -1 fail");
        return 0;
    }
    const int fd = client_fd(client);
    // A callback may close, re-open or destroy the client: the rest of the pass belongs to the
    // connection it was given for.
    auto same = [&] { return client->index != -1 && client_fd(client) == fd; };
    if (client_status(client) == 1 && (!finish_connect(s, fd, events) || !same())) return 0;
    if (events & KX_WATCH_WRITE) {
        call(client->on_write, client, client->write_arg);
        if (same() && s->on_demand.load() && !s->want_write.load()) update_interest(s);
    }
    if (!same()) return 0;
    int yielded = 0;
    if (events & (KX_WATCH_READ | KX_WATCH_ERROR)) {
        s->read_left.store(KX_READ_SLICE, std::memory_order_relaxed);
        s->read_yielded = false;
        bool close_it;
        if (client->on_read != nullptr)
            close_it = client->on_read(client, client->read_arg) == -1;
        else
            close_it = drain(s, fd);
        yielded = s->read_yielded ? 1 : 0;
        s->read_left.store(-1, std::memory_order_relaxed);
        if (close_it && same()) {
            close_connection(client);
            return 0;
        }
    }
    if (same()) probe(client);
    return yielded;
}

}  // namespace

void net_tcp_client_want_write(_NetTcpClient *client, int want) {
    if (client == nullptr) return;
    NetClientSlot *s = client_slot(client);
    if (s == nullptr) return;
    want = want ? 1 : 0;
    if (s->on_demand.load(std::memory_order_relaxed) && s->want_write.load(std::memory_order_relaxed) == want) return;
    WatchLock lock(s);
    bool first = s->on_demand.exchange(1) == 0;
    s->want_write = want;
    // Bytes to send turn write events on at once. An empty queue turns them off lazily, at the next
    // write event that finds nothing to send (or here, on the first call): a queue that fills and
    // empties in quick turns costs no change of interest each time.
    if (s->watch.active.load() && (want || first)) kx_watch_set_interest(&s->watch, wanted_interest(s));
}

int net_tcp_client_break(_NetTcpClient *client) {
    if (client == nullptr) return 0;
    IoLock io(client_slot(client));
    int fd = client_fd(client);
    if (client_status(client) == 0 || fd == -1) return 0;
    return shutdown(fd, SHUT_RDWR) == 0 ? 1 : 0;
}

bool net_tcp_client_watched(_NetTcpClient *client) {
    NetClientSlot *s = client_slot(client);
    return s != nullptr && s->watch.active.load();
}

unsigned net_tcp_client_interest(_NetTcpClient *client) {
    NetClientSlot *s = client_slot(client);
    if (s == nullptr) return 0;
    WatchLock lock(s);
    return s->watch.active.load() ? s->watch.interest.load() : 0u;
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
    MainLock lock;
    if (client_status(client) != 0) {
        sdk_log_msg("client is not disconnect");
        return 0;
    }
    return fd == -1 ? open_new(client) : open_adopted(client, fd);
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
    IoLock io(client_slot(client));
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
    NetClientSlot *s = client_slot(client);
    IoLock io(s);
    if (client_status(client) != 2) return -1;
    return share_recv(s, client_fd(client), buf, len);
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

// A bare client's write events follow its binding: on while on_write is bound.
KX_API int net_tcp_client_bind_write(_NetTcpClient *client, NetTcpClientCallback cb, void *arg) {
    if (!bind_cb(client, &_NetTcpClient::on_write, &_NetTcpClient::write_arg, cb, arg)) return 0;
    NetClientSlot *s = client_slot(client);
    if (s != nullptr && !s->on_demand.load()) update_interest(s);
    return 1;
}

KX_API int net_tcp_client_set_rcvbuf_len(_NetTcpClient *client, uint32_t len) {
    if (client == nullptr) {
        sdk_log_msg("client == NULL");
        return 0;
    }
    int value = (int)len;
    IoLock io(client_slot(client));
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
