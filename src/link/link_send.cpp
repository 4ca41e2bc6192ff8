// The send side of a link: bytes go to the socket at once while nothing waits, and whatever the
// socket refuses is copied into a queue of blocks that the write events flush in order.
#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include "platform/alloc.h"
#include "link/link_internal.h"
#include "log/log_internal.h"
#include "net/net_internal.h"

namespace {

// One queued block: the unsent bytes follow the fields in the same allocation. A block that
// continues a packet whose first bytes already left (the rest of a partly sent run, or the body
// behind its data head) is marked, so that overflow and disconnect never cut a packet in two.
struct SendBlock {
    uint32_t remain_len;
    char *cursor;
    uint32_t continues;
};

inline char *block_data(SendBlock *b) { return reinterpret_cast<char *>(b + 1); }

inline SendBlock *block_at(_OS_DListNode *node) { return *static_cast<SendBlock **>(adt_dlist_getdata(node)); }

// Holds a link's mtx_send for one scope.
struct SendLock {
    explicit SendLock(_NetLink *l) : link(l) { sdk_mutex_lock(link->mtx_send); }
    ~SendLock() { sdk_mutex_unlock(link->mtx_send); }
    SendLock(const SendLock &) = delete;
    SendLock &operator=(const SendLock &) = delete;
    _NetLink *link;
};

// The addresses a head carries, as inet_addr gives them: 0.0.0.0 with ip_ver 1, otherwise the
// client's texts (a text that is no dotted quad gives all bits set).
void head_addresses(_NetLink *link, uint32_t *remote, uint32_t *local) {
    if (link->ip_ver == 1) {
        *remote = *local = inet_addr("0.0.0.0");
        return;
    }
    char rip[16] = "", lip[16] = "";
    uint16_t port = 0;
    net_tcp_client_get_local(link->client, lip, &port);
    net_tcp_client_get_remote(link->client, rip, &port);
    rip[15] = lip[15] = '\0';
    *remote = inet_addr(rip);
    *local = inet_addr(lip);
}

// A block of which some bytes went out already.
inline bool block_started(SendBlock *b) { return b->continues != 0 || b->cursor != block_data(b); }

// Queues data[sent, size); the block continues a packet when some of it went out or when the run is
// the rest of a packet begun before it.
int queue_run(_NetLink *link, const char *data, int size, int sent, bool continues) {
    if (size - sent <= 0) return 0;
    if (net_link_put_in_send_ls(link, data, size, sent) < 0) return -1;
    _OS_DListNode *tail = adt_dlist_end(link->send_buf_ls);
    if (tail != nullptr && (continues || sent > 0)) block_at(tail)->continues = 1;
    return 0;
}

// One run of bytes onto the stream, mtx_send held. A run that continues a packet (the body behind
// its data head) never triggers the overflow: the packet's head may be waiting in the queue.
int send_run(_NetLink *link, const char *data, int size, bool continues) {
    int ret = 0;
    uint32_t n = adt_dlist_size(link->send_buf_ls);
    if (!continues && n >= (uint32_t)(g_iMaxPackageBufNum > 0 ? g_iMaxPackageBufNum : 1)) {
        // A peer that reads nothing costs at most this many blocks. A packet already begun on the
        // wire is kept to its end, so the peer never reads two packets spliced into one; every whole
        // packet behind it goes.
        LinkDropCount dropped = link_drop_send_ls(link, true);
        char ip[16] = "";
        uint16_t port = 0;
        net_link_get_remote(link, ip, &port);
        ip[15] = '\0';
        KX_LOG_ERR("net_link_send_package buffer overflow %d, this 0x%08x, ip = %s, port = %d, dropped %u packets "
                   "%llu bytes",
                   (int)n, (unsigned)(uintptr_t)link, ip, port, dropped.packets, (unsigned long long)dropped.bytes);
    }
    if (adt_dlist_empty(link->send_buf_ls)) {
        int sent = net_tcp_client_send(link->client, data, (uint32_t)size);
        if (sent < 0)
            ret = -1;
        else if (sent < size && queue_run(link, data, size, sent, continues) < 0)
            ret = -1;
    } else if (queue_run(link, data, size, 0, continues) < 0) {
        ret = -1;
    }
    if (ret >= 0) ret = net_link_send_buffer_data(link);
    return ret;
}

}  // namespace

int net_link_put_in_send_ls(_NetLink *link, const char *data, int size, int sent) {
    if (link == nullptr || data == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    // An empty block would stand at the head for good: a send of 0 bytes reads as a full socket.
    if (sent < 0 || size - sent <= 0) return 0;
    uint32_t n = (uint32_t)(size - sent);
    SendBlock *b = static_cast<SendBlock *>(kx_malloc(sizeof(SendBlock) + n));
    if (b == nullptr) {
        KX_LOG_ERR("net_link_put_in_send_ls malloc %u fail", n);
        return -1;
    }
    memcpy(block_data(b), data + sent, n);
    b->cursor = block_data(b);
    b->remain_len = n;
    b->continues = 0;
    if (adt_dlist_add(link->send_buf_ls, nullptr, &b) == nullptr) {
        KX_LOG_ERR("net_link_put_in_send_ls queue fail");
        free(b);
        return -1;
    }
    net_tcp_client_want_write(link->client, 1);  // the pump has bytes to send
    return 0;
}

void link_clear_send_ls(_NetLink *link) {
    _OS_DListNode *node;
    while ((node = adt_dlist_head(link->send_buf_ls)) != nullptr) {
        free(block_at(node));
        adt_dlist_delete(link->send_buf_ls, node);
    }
}

LinkDropCount link_drop_send_ls(_NetLink *link, bool keep_started) {
    LinkDropCount dropped = {0, 0};
    // The begun packet: the head block when some of it left, and the blocks that continue it.
    _OS_DListNode *node = adt_dlist_head(link->send_buf_ls);
    _OS_DListNode *rest = node;
    if (node != nullptr && block_started(block_at(node))) {
        do rest = adt_dlist_next(rest);
        while (rest != nullptr && block_at(rest)->continues != 0);
    }
    _OS_DListNode *from = keep_started ? rest : node;
    _OS_DListNode *to = keep_started ? nullptr : rest;
    while (from != to) {
        _OS_DListNode *next = adt_dlist_next(from);
        SendBlock *b = block_at(from);
        if (b->continues == 0 || from == node) dropped.packets++;
        dropped.bytes += b->remain_len;
        free(b);
        adt_dlist_delete(link->send_buf_ls, from);
        from = next;
    }
    return dropped;
}

int net_link_send_buffer_data(_NetLink *link) {
    if (link == nullptr) {
        KX_LOG_ERR("NULL == link");
        return -1;
    }
    int ret = 0;
    _OS_DListNode *node;
    while ((node = adt_dlist_head(link->send_buf_ls)) != nullptr) {
        SendBlock *b = block_at(node);
        ret = net_tcp_client_send(link->client, b->cursor, b->remain_len);
        if (ret < 1) return ret;
        if ((uint32_t)ret < b->remain_len) {
            b->cursor += ret;
            b->remain_len -= (uint32_t)ret;
            return ret;
        }
        free(b);
        adt_dlist_delete(link->send_buf_ls, node);
    }
    net_tcp_client_want_write(link->client, 0);  // the queue is empty: no write events needed
    return ret;
}

int net_client_write(_NetTcpClient *client, void *arg) {
    (void)arg;
    if (client == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    _NetLink *link = static_cast<_NetLink *>(client_udata(client));
    if (link == nullptr) {
        KX_LOG_ERR("NULL == link");
        return -1;
    }
    SendLock lock(link);
    net_link_send_buffer_data(link);
    return 0;
}

int net_link_package_send_data(_NetLink *link, const char *data, int size) {
    if (link == nullptr || data == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    if (size < 0 || size > LINK_MAX_BODY) {
        KX_LOG_ERR("net_link_package_send_data invalid size %d", size);
        return -1;
    }
    uint32_t remote, local;
    head_addresses(link, &remote, &local);
    // Head and body go as one run: one queued block at most, so a block that cannot be had never
    // leaves a head waiting without its body.
    char packet[LINK_HEAD_SIZE + LINK_MAX_BODY];
    memcpy(packet + LINK_HEAD_SIZE, data, (size_t)size);
    SendLock lock(link);
    link_write_data_head(reinterpret_cast<uint8_t *>(packet), link->seq++, size, local);
    int ret = send_run(link, packet, LINK_HEAD_SIZE + size, false);
    if (ret < 0) KX_LOG_ERR("net_link_send_package failed");
    return ret;
}

extern "C" {

KX_API int g_iMaxPackageBufNum = LINK_MAX_PACKAGE_BUF;

KX_API int sdk_os_set_max_package_buf(int count) {
    if (count < 1 || count > LINK_MAX_PACKAGE_BUF) {
        sdk_log_msg("sdk_os_set_max_package_buf Illegal num = %d", count);
        return 0;
    }
    g_iMaxPackageBufNum = count;
    return 1;
}

KX_API int net_link_send_package(_NetLink *link, const char *data, int size) {
    if (link == nullptr || data == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    if (size < 0) {
        KX_LOG_ERR("net_link_send_package invalid size %d", size);
        return -1;
    }
    SendLock lock(link);
    return send_run(link, data, size, false);
}

KX_API int net_link_send_command(_NetLink *link, const char *data, int size) {
    if (link == nullptr || data == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    if (size < 0 || size > LINK_MAX_BODY) {
        KX_LOG_ERR("net_link_send_command invalid size %d", size);
        return -1;
    }
    uint32_t remote, local;
    head_addresses(link, &remote, &local);
    char packet[LINK_MAX_PACKAGE_LEN];
    link_write_command_head(reinterpret_cast<uint8_t *>(packet), (uint16_t)link->seq++, size, remote, local);
    memcpy(packet + LINK_HEAD_SIZE, data, (size_t)size);
    int ret = net_link_send_package(link, packet, size + LINK_HEAD_SIZE);
    if (ret < 0) KX_LOG_ERR("net_link_send_package failed");
    return ret;
}

KX_API int net_link_send_data(_NetLink *link, const char *data, int size) {
    if (link == nullptr || data == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    int ret = -1;
    int off = 0;
    for (; size - off >= LINK_MAX_BODY; off += LINK_MAX_BODY) {
        ret = net_link_package_send_data(link, data + off, LINK_MAX_BODY);
        if (ret < 0) {
            KX_LOG_ERR("net_link_package_send_data failed");
            return ret;
        }
    }
    if (size - off > 0) {
        ret = net_link_package_send_data(link, data + off, size - off);
        if (ret < 0) KX_LOG_ERR("net_link_package_send_data failed");
    }
    return ret;
}

}  // extern "C"
