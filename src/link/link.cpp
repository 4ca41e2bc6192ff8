// The link object and its receive path: the stream of one TCP client is gathered in the link's
// buffer, cut into packets at their heads and handed to the bound parser.
#include <stdlib.h>
#include <string.h>

#include "platform/alloc.h"
#include "link/link_internal.h"
#include "log/log_internal.h"
#include "net/net_internal.h"

namespace {

// The link whose read event runs on this thread, if any: the link's parser runs inside it, and the
// link must outlive it. Thread-local, so reading it costs other threads nothing.
thread_local _NetLink *s_link_in_read = nullptr;

struct InRead {
    explicit InRead(_NetLink *link) : prev(s_link_in_read) { s_link_in_read = link; }
    ~InRead() { s_link_in_read = prev; }
    InRead(const InRead &) = delete;
    InRead &operator=(const InRead &) = delete;
    _NetLink *prev;
};

// The link a client serves: its user data, while the link's read callback is bound to it.
_NetLink *owning_link(_NetTcpClient *client) {
    if (client->on_read != net_client_read) return nullptr;
    return static_cast<_NetLink *>(client_udata(client));
}

// Gives a client back to its caller as a bare client: its user data no longer leads to the link,
// the link's callbacks are unbound and its write events no longer follow the link's queue. Main
// lock held, so no event of the client is under way.
void detach_client(_NetLink *link, _NetTcpClient *client) {
    KX_ASSERT_MAIN_LOCK();
    if (client_udata(client) == link) net_tcp_client_set_udata(client, nullptr);
    if (client->on_read == net_client_read) net_tcp_client_bind_read(client, nullptr, nullptr);
    if (client->on_disconnect == net_client_server_disconnect) net_tcp_client_bind_disconnect(client, nullptr, nullptr);
    if (client->on_write == net_client_write) net_tcp_client_bind_write(client, nullptr, nullptr);
    net_tcp_client_want_write(client, 0);
    link_sup_attach(link, client, false);
}

// Hands one packet to the parser under mtx_process. A parser that answers 999 passes the packet on
// to whatever parser is bound by then (itself again, if it bound nothing else).
void deliver(_NetLink *link, char *packet, int package_len) {
    int type = link_head_type(packet, package_len);
    if (link->sup != nullptr) link_sup_packet_in(link->sup);
    sdk_mutex_lock(link->mtx_process);
    NetLinkParaseCallback parser = link->parase_protocol;
    if (parser != nullptr && parser(link, link->udata, type, packet, package_len) == LINK_PARSE_AGAIN) {
        parser = link->parase_protocol;
        if (parser != nullptr) parser(link, link->udata, type, packet, package_len);
    }
    sdk_mutex_unlock(link->mtx_process);
}

// Cuts every whole packet out of buf and gives the count of bytes consumed (dropped noise
// included). The parser only ever sees bytes inside buf[0, buf_len).
int cut_packets(_NetLink *link) {
    int i = 0;
    while (i < link->buf_len) {
        int package_len = 0;
        int parase_len = link->buf_len - i;
        if (parase_len < 1 || parase_len > LINK_BUF_SIZE - i) {
            KX_LOG_ERR("invalid parase_len(%d)", parase_len);
            break;
        }
        int skip = protocol_parase_net_data(link->buf + i, parase_len, &package_len);
        if (skip < 0) break;
        i += skip;
        if (package_len < 1 || package_len > link->buf_len - i) break;
        if (i + package_len > LINK_BUF_SIZE) {
            KX_LOG_ERR("i(%d) + package_len(%d) > LINK_BUF_SIZE(%d)", i, package_len, LINK_BUF_SIZE);
            break;
        }
        deliver(link, link->buf + i, package_len);
        i += package_len;
    }
    return i;
}

}  // namespace

int net_client_read(_NetTcpClient *client, void *arg) {
    (void)arg;
    if (client == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    _NetLink *link = static_cast<_NetLink *>(client_udata(client));
    if (link == nullptr) return -1;
    InRead in_read(link);
    if (link->type != 0) link->time_count = 0;
    for (;;) {
        // A full buffer without a whole packet in it cannot make progress: a head that the scan
        // cannot pass stands first. That is the one case in which the framing ends a connection.
        int room = LINK_BUF_SIZE - link->buf_len;
        if (room <= 0) return -1;
        int n = net_tcp_client_read(client, link->buf + link->buf_len, (uint32_t)room);
        if (n <= 0) return n;
        if (link->sup != nullptr) link_sup_received(link->sup, n);
        link->buf_len += n;
        int i = cut_packets(link);
        if (i == 0) continue;
        int rest = link->buf_len - i;
        if (rest > 0) {
            memmove(link->buf, link->buf + i, (size_t)rest);
            link->buf_len = rest;
        } else {
            if (rest < 0) KX_LOG_ERR("%s", "");
            link->buf_len = 0;
        }
    }
}

int net_client_server_disconnect(_NetTcpClient *client, void *arg) {
    (void)arg;
    if (client == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    _NetLink *link = static_cast<_NetLink *>(client_udata(client));
    if (link == nullptr) return 0;
    // The link stays the client's user data, so a client opened again serves the link again. What
    // belonged to the connection that ended goes with it: the unfinished packet in the receive
    // buffer, and the rest of a packet begun on the wire, which a new peer could only read spliced.
    // Whole queued packets stay and go out on the next connection.
    link->buf_len = 0;
    {
        SendLock lock(link);
        link_drop_send_ls(link, false);
    }
    // The state callback first: the disconnect callback may destroy the link.
    link_sup_down(link, net_tcp_client_end_reason(client));
    if (link->disconnect_protocol != nullptr) link->disconnect_protocol(link, link->udata);
    return 0;
}

extern "C" {

KX_API _NetLink *net_link_create(void) {
    _NetLink *link = static_cast<_NetLink *>(kx_calloc(1, sizeof(_NetLink)));
    if (link == nullptr) {
        KX_LOG_ERR("malloc faild");
        return nullptr;
    }
    link->send_buf_ls = adt_dlist_create(sizeof(void *));
    if (link->send_buf_ls == nullptr) {
        KX_LOG_ERR("link->send_buf_ls == NULL");
        net_link_destroy(link);
        return nullptr;
    }
    link->mtx_send = sdk_mutex_create(1);
    if (link->mtx_send == nullptr) {
        KX_LOG_ERR("link->mtx_send == NULL");
        net_link_destroy(link);
        return nullptr;
    }
    link->mtx_process = sdk_mutex_create(1);
    if (link->mtx_process == nullptr) {
        KX_LOG_ERR("link->mtx_process == NULL");
        net_link_destroy(link);
        return nullptr;
    }
    link->sup = link_sup_create(link);
    if (link->sup == nullptr) {
        KX_LOG_ERR("link->sup == NULL");
        net_link_destroy(link);
        return nullptr;
    }
    return link;
}

// The client goes under the main lock, which waits for a dispatch under way: its user data is
// cleared before the close, so the close reports no disconnect to the link and no later event
// finds it. Only then is the link freed. Clients the link held before were detached when it took
// the next one, so no client leads to the freed link.
KX_API int net_link_destroy(_NetLink *link) {
    if (link == nullptr) return 0;
    if (s_link_in_read == link) {
        // The read event goes on with the link's buffer once the parser returns.
        KX_LOG_ERR("net_link_destroy 0x%08x refused: called inside the link's own read event",
                   (unsigned)(uintptr_t)link);
        return -1;
    }
    if (link_sup_in_state_callback(link)) {
        KX_LOG_ERR("net_link_destroy 0x%08x refused: called inside the link's own state callback",
                   (unsigned)(uintptr_t)link);
        return -1;
    }
    if (link->client != nullptr) {
        MainLock main;
        link_sup_attach(link, link->client, false);
        net_tcp_client_set_udata(link->client, nullptr);
        net_tcp_client_close(link->client);
        net_tcp_client_destroy(link->client);
        link->client = nullptr;
    }
    // After the client: no event leads to the link any more, and the supervisor's deadline goes
    // under the main lock, so nothing fires for the link from here on.
    link_sup_destroy(link->sup);
    link->sup = nullptr;
    if (link->send_buf_ls != nullptr) {
        link_clear_send_ls(link);
        adt_dlist_destroy(link->send_buf_ls);
    }
    if (link->mtx_send != nullptr) sdk_mutex_free(link->mtx_send);
    if (link->mtx_process != nullptr) sdk_mutex_free(link->mtx_process);
    free(link);
    return 0;
}

KX_API int net_link_set_core(_NetLink *link, _NetTcpClient *client) {
    if (link == nullptr || client == nullptr) {
        KX_LOG_ERR("NULL == link || NULL == client");
        return -1;
    }
    // Under the main lock no event of either client is under way while the callbacks change hands.
    MainLock main;
    _NetLink *owner = owning_link(client);
    if (owner != nullptr && owner != link) {
        KX_LOG_ERR("net_link_set_core: client 0x%08x belongs to link 0x%08x", (unsigned)(uintptr_t)client,
                   (unsigned)(uintptr_t)owner);
        return -1;
    }
    _NetTcpClient *old = link->client;
    if (old != nullptr && old != client) detach_client(link, old);
    {
        SendLock lock(link);
        // The rest of a packet begun on the earlier connection could only reach the new peer
        // spliced; whole packets wait for the new connection.
        if (old != nullptr && old != client) link_drop_send_ls(link, false);
        link->client = client;
    }
    // Likewise the head of a packet received on the earlier connection: the new connection's bytes
    // start a stream of their own and never complete it.
    if (old != nullptr && old != client) link->buf_len = 0;
    if (!net_tcp_client_set_udata(client, link)) {
        KX_LOG_ERR("net_tcp_client_set_udata faild");
        return -1;
    }
    if (!net_tcp_client_bind_disconnect(client, net_client_server_disconnect, nullptr)) {
        KX_LOG_ERR("net_tcp_client_bind_disconnect faild");
        return -1;
    }
    if (!net_tcp_client_bind_read(client, net_client_read, nullptr)) {
        KX_LOG_ERR("net_tcp_client_bind_read faild");
        return -1;
    }
    if (!net_tcp_client_bind_write(client, net_client_write, nullptr)) {
        KX_LOG_ERR("net_tcp_client_bind_write faild");
        return -1;
    }
    link_sup_attach(link, client, true);
    // A packet leaves when it is written: no wait for the acknowledgement of the one before it.
    net_tcp_client_set_nodelay(client);
    // The write pump runs on demand: write events only while the send queue holds bytes.
    SendLock lock(link);
    net_tcp_client_want_write(client, !adt_dlist_empty(link->send_buf_ls));
    return 0;
}

KX_API int net_link_set_udata(_NetLink *link, void *udata) {
    if (link == nullptr) {
        KX_LOG_ERR("link == NULL || udata == NULL");
        return -1;
    }
    link->udata = udata;
    return 0;
}

KX_API int net_link_get_udata(_NetLink *link, void **udata) {
    if (link == nullptr || udata == nullptr) {
        KX_LOG_ERR("NULL == link");
        return 0;
    }
    *udata = link->udata;
    return 0;
}

KX_API int net_link_bind_parase_protocol(_NetLink *link, NetLinkParaseCallback cb) {
    if (link == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    link->parase_protocol = cb;
    return 0;
}

KX_API int net_link_bind_disconnect_protocol(_NetLink *link, NetLinkDisconnectCallback cb) {
    if (link == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    link->disconnect_protocol = cb;
    return 0;
}

KX_API int net_link_set_ip_ver(_NetLink *link, int ver) {
    if (link == nullptr) {
        KX_LOG_ERR("net_link_set_ip_ver:NULL == link");
        return -1;
    }
    link->ip_ver = ver;
    return 0;
}

KX_API int net_link_get_ip_ver(_NetLink *link) {
    if (link == nullptr) {
        KX_LOG_ERR("net_link_get_ip_ver:NULL == link");
        return -1;
    }
    return link->ip_ver;
}

KX_API int net_link_set_type(_NetLink *link, int type) {
    if (link == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    link->type = type;
    return 0;
}

KX_API int net_link_get_type(_NetLink *link) {
    if (link == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    return link->type;
}

KX_API int net_link_lock(_NetLink *link) {
    if (link == nullptr) {
        KX_LOG_ERR("NULL == link");
        return -1;
    }
    return sdk_mutex_lock(link->mtx_process);
}

KX_API int net_link_unlock(_NetLink *link) {
    if (link == nullptr) {
        KX_LOG_ERR("NULL == link");
        return -1;
    }
    return sdk_mutex_unlock(link->mtx_process);
}

KX_API int net_link_time_add(_NetLink *link) { return net_link_time_add_ex(link, 1); }

KX_API int net_link_time_add_ex(_NetLink *link, int count) {
    if (link == nullptr) {
        KX_LOG_ERR("NULL == link");
        return -1;
    }
    // Wraps instead of overflowing, whatever the owner adds.
    link->time_count = (int32_t)((uint32_t)link->time_count + (uint32_t)count);
    return 0;
}

KX_API int net_link_check_timeout(_NetLink *link) {
    if (link == nullptr) {
        KX_LOG_ERR("NULL == link");
        return 0;
    }
    return link->time_count >= LINK_TIMEOUT_COUNT ? 1 : 0;
}

KX_API int net_link_get_remote(_NetLink *link, char *ip, uint16_t *port) {
    if (link == nullptr || ip == nullptr || port == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    return net_tcp_client_get_remote(link->client, ip, port);
}

}  // extern "C"
