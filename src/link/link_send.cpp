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

// One queued block: the unsent bytes follow the fields in the same allocation. A block holds whole
// packets (a data head and its body go into one block), or the rest of a packet whose first bytes
// already left; such a block is marked, so that overflow and disconnect never cut a packet in two.
struct SendBlock {
    uint32_t remain_len;
    char *cursor;
    uint32_t continues;
};

inline char *block_data(SendBlock *b) { return reinterpret_cast<char *>(b + 1); }

inline SendBlock *block_at(_OS_DListNode *node) { return *static_cast<SendBlock **>(adt_dlist_getdata(node)); }

// The addresses a head carries, as inet_addr gives them: 0.0.0.0 with ip_ver 1, otherwise the
// client's texts (a text that is no dotted quad gives all bits set). The client keeps them worked
// out while its texts stay the same, so they are parsed once per connection.
void head_addresses(_NetLink *link, uint32_t *remote, uint32_t *local) {
    if (link->ip_ver == 1) {
        *remote = *local = inet_addr("0.0.0.0");
        return;
    }
    if (link->client != nullptr) {  // mtx_send held: it guards the client's copy
        net_tcp_client_head_addrs(link->client, remote, local);
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

// Queues the bytes of parts[0, n) from offset `skip` of their concatenation on, as one block. Marked
// as the rest of a begun packet when skip is above 0.
int queue_parts(_NetLink *link, const LinkRun *parts, int n, uint32_t skip) {
    uint32_t total = 0;
    for (int i = 0; i < n; i++) total += (uint32_t)parts[i].size;
    if (total <= skip) return 0;  // an empty block would stand at the head for good
    uint32_t len = total - skip;
    SendBlock *b = static_cast<SendBlock *>(kx_malloc(sizeof(SendBlock) + len));
    if (b == nullptr) {
        KX_LOG_ERR("net_link_put_in_send_ls malloc %u fail", len);
        return -1;
    }
    char *to = block_data(b);
    for (int i = 0; i < n; i++) {
        uint32_t size = (uint32_t)parts[i].size;
        if (skip >= size) {
            skip -= size;
            continue;
        }
        memcpy(to, parts[i].data + skip, size - skip);
        to += size - skip;
        skip = 0;
    }
    b->cursor = block_data(b);
    b->remain_len = len;
    b->continues = len < total ? 1 : 0;
    if (adt_dlist_add(link->send_buf_ls, nullptr, &b) == nullptr) {
        KX_LOG_ERR("net_link_put_in_send_ls queue fail");
        free(b);
        return -1;
    }
    net_tcp_client_want_write(link->client, 1);  // the pump has bytes to send
    return 0;
}

// A queue at its limit: a peer that reads nothing costs at most this many blocks. A packet already
// begun on the wire is kept to its end, so the peer never reads two packets spliced into one; every
// whole packet behind it goes. mtx_send held.
void overflow_check(_NetLink *link) {
    uint32_t blocks = adt_dlist_size(link->send_buf_ls);
    if (blocks < (uint32_t)(g_iMaxPackageBufNum > 0 ? g_iMaxPackageBufNum : 1)) return;
    LinkDropCount dropped = link_drop_send_ls(link, true);
    char ip[16] = "";
    uint16_t port = 0;
    net_link_get_remote(link, ip, &port);
    ip[15] = '\0';
    KX_LOG_ERR("net_link_send_package buffer overflow %d, this 0x%08x, ip = %s, port = %d, dropped %u packets "
               "%llu bytes",
               (int)blocks, (unsigned)(uintptr_t)link, ip, port, dropped.packets, (unsigned long long)dropped.bytes);
}

inline uint32_t packet_size(const LinkPacket &p) {
    uint32_t n = 0;
    for (int i = 0; i < p.n; i++) n += (uint32_t)p.parts[i].size;
    return n;
}

// Bytes one flush hands to a single system call beyond its first block: the socket takes no more at
// once, and the count stays far from the limit of an int.
constexpr uint32_t kFlushBytes = 4u << 20;

}  // namespace

// Packets onto the stream, mtx_send held. Each packet meets the overflow rule before it, is queued
// behind blocks that wait, and otherwise goes to the socket at once; the packets that go at once go
// together, heads and bodies, in one system call. What the socket refuses is copied into one block
// per packet (the rest of a packet it took in part is marked as such). A packet whose first bytes
// left but whose rest cannot be kept (no memory) would reach the peer spliced with the next one: the
// connection is ended instead, and the peer finds its next head on a new connection.
static int send_packets(_NetLink *link, const LinkPacket *packets, int count, int *done) {
    struct iovec iov[KX_SEND_IOV_MAX];
    bool refused = false;  // the socket refused bytes in this call: the write event flushes
    int i = 0;
    while (i < count) {
        overflow_check(link);
        if (!adt_dlist_empty(link->send_buf_ls)) {
            if (queue_parts(link, packets[i].parts, packets[i].n, 0) < 0) {
                *done = i;
                return -1;
            }
            i++;
            continue;
        }
        // Nothing waits: this packet and the ones behind it go in one call.
        int end = i, cnt = 0;
        for (; end < count && cnt + packets[end].n <= KX_SEND_IOV_MAX; end++)
            for (int k = 0; k < packets[end].n; k++)
                if (packets[end].parts[k].size > 0) {
                    iov[cnt].iov_base = const_cast<char *>(packets[end].parts[k].data);
                    iov[cnt].iov_len = (size_t)packets[end].parts[k].size;
                    cnt++;
                }
        int r = cnt > 0 ? net_tcp_client_sendv(link->client, iov, cnt) : 0;
        if (link->sup != nullptr) link_sup_sent(link->sup, r);
        if (r < 0) {
            *done = i;  // nothing of this call went out: every packet before it went whole
            return -1;
        }
        uint32_t left = (uint32_t)r;
        int k = i;
        while (k < end && left >= packet_size(packets[k])) left -= packet_size(packets[k++]);
        if (k < end && cnt > 0) {
            // Packet k went in part (or not at all): its rest waits, and so will those behind it.
            if (queue_parts(link, packets[k].parts, packets[k].n, left) < 0) {
                if (left > 0 && net_tcp_client_break(link->client))
                    KX_LOG_ERR("net_link_send_package: packet cut short, connection ended, this 0x%08x",
                               (unsigned)(uintptr_t)link);
                *done = k;
                return -1;
            }
            refused = true;
            k++;
        }
        i = k < end ? k : end;
    }
    *done = count;
    return refused ? 0 : net_link_send_buffer_data(link);
}

// Counts the packets that went out or wait in the queue.
int link_send_packets(_NetLink *link, const LinkPacket *packets, int count, int *done) {
    int r = send_packets(link, packets, count, done);
    if (link->sup != nullptr && *done > 0) link_sup_packet_out(link->sup, (uint32_t)*done);
    return r;
}

int link_send_parts(_NetLink *link, const LinkRun *parts, int n) {
    LinkPacket p = {};
    for (int i = 0; i < n && i < 2; i++) p.parts[i] = parts[i];
    p.n = n < 2 ? n : 2;
    int done = 0;
    return link_send_packets(link, &p, 1, &done);
}

int net_link_put_in_send_ls(_NetLink *link, const char *data, int size, int sent) {
    if (link == nullptr || data == nullptr) {
        KX_LOG_ERR("param NULL");
        return -1;
    }
    if (sent < 0 || size - sent <= 0) return 0;
    LinkRun run = {data, size};
    return queue_parts(link, &run, 1, (uint32_t)sent);
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
    if (link->sup != nullptr) link_sup_dropped(link->sup, dropped.packets);
    return dropped;
}

int net_link_send_buffer_data(_NetLink *link) {
    if (link == nullptr) {
        KX_LOG_ERR("NULL == link");
        return -1;
    }
    // The waiting blocks, as many as one call takes, go to the socket in one system call.
    struct iovec iov[KX_SEND_IOV_MAX];
    int ret = 0;
    while (!adt_dlist_empty(link->send_buf_ls)) {
        int cnt = 0;
        uint32_t total = 0;
        for (_OS_DListNode *node = adt_dlist_head(link->send_buf_ls); node != nullptr && cnt < KX_SEND_IOV_MAX;
             node = adt_dlist_next(node)) {
            SendBlock *b = block_at(node);
            if (cnt > 0 && total + b->remain_len > kFlushBytes) break;
            iov[cnt].iov_base = b->cursor;
            iov[cnt].iov_len = b->remain_len;
            total += b->remain_len;
            cnt++;
        }
        ret = net_tcp_client_sendv(link->client, iov, cnt);
        if (link->sup != nullptr) link_sup_sent(link->sup, ret);
        if (ret < 1) return ret;
        uint32_t left = (uint32_t)ret;
        _OS_DListNode *node;
        while (left > 0 && (node = adt_dlist_head(link->send_buf_ls)) != nullptr) {
            SendBlock *b = block_at(node);
            if (left < b->remain_len) {
                b->cursor += left;
                b->remain_len -= left;
                break;
            }
            left -= b->remain_len;
            free(b);
            adt_dlist_delete(link->send_buf_ls, node);
        }
        if ((uint32_t)ret < total) return ret;  // the socket is full: the rest waits for a write event
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
    // One hold of the send lock from the number to the body: numbers go out in the order they are
    // taken, and no other packet stands between this head and its body.
    SendLock lock(link);
    uint32_t remote, local;
    head_addresses(link, &remote, &local);
    uint8_t head[LINK_HEAD_SIZE];
    link_write_data_head(head, link->seq++, size, local);
    const LinkRun parts[2] = {{reinterpret_cast<const char *>(head), LINK_HEAD_SIZE}, {data, size}};
    int ret = link_send_parts(link, parts, 2);
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
    const LinkRun run = {data, size};
    return link_send_parts(link, &run, 1);
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
    // The number is taken under the send lock that also covers the send: numbers in wire order.
    SendLock lock(link);
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
    // The chunks of one call follow each other on the wire, as one message: their numbers are taken
    // under one hold of the send lock, and the chunks leave in batches, each batch with its heads in
    // one system call.
    SendLock lock(link);
    enum { kBatch = KX_SEND_IOV_MAX / 2 };
    uint8_t heads[kBatch][LINK_HEAD_SIZE];
    LinkPacket packets[kBatch];
    uint32_t remote, local;
    head_addresses(link, &remote, &local);
    int ret = -1;
    int off = 0;
    while (size - off > 0) {
        const uint32_t first = link->seq;
        int n = 0;
        for (; n < kBatch && size - off > 0; n++) {
            const int len = size - off < LINK_MAX_BODY ? size - off : LINK_MAX_BODY;
            link_write_data_head(heads[n], link->seq++, len, local);
            packets[n].parts[0] = {reinterpret_cast<const char *>(heads[n]), LINK_HEAD_SIZE};
            packets[n].parts[1] = {data + off, len};
            packets[n].n = 2;
            off += len;
        }
        int done = 0;
        ret = link_send_packets(link, packets, n, &done);
        if (ret < 0) {
            link->seq = first + (uint32_t)done + 1;  // the chunk that failed took its number, no later one
            KX_LOG_ERR("net_link_send_package failed");
            KX_LOG_ERR("net_link_package_send_data failed");
            return ret;
        }
    }
    return ret;
}

}  // extern "C"
