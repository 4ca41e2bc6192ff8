// Internal side of the link layer: the wire heads, the scan that finds them, the three callbacks a
// link gives its client, and the steps of the send queue.
#pragma once

#include <stdint.h>

#include "korvex/korvex.h"

enum {
    LINK_HEAD_SIZE = 20,         // command head, data head, and the mobile literal
    LINK_MAX_PACKAGE_LEN = 1460, // largest length of a magic head, head included
    LINK_MAX_BODY = 1440,        // largest body behind one head on the send path
    LINK_ODNS_MAX_LEN = 2048,    // largest length of an ODNS_DATAPACKHEAD packet
    LINK_SCAN_TAIL = 4,          // bytes a fruitless scan leaves for the next one
    LINK_MAX_PACKAGE_BUF = 20000,
    LINK_TIMEOUT_COUNT = 60,
    LINK_PARSE_AGAIN = 999,      // parser result: hand this packet to the parser bound now
};

extern const uint8_t kLinkCommandMagic[4];  // F1 F5 EA F5
extern const uint8_t kLinkDataMagic[4];     // F1 F5 EA F9
extern const uint8_t kLinkOdnsMagic[4];     // E1 00 00 00, the word 225
extern const char kLinkMobileHead[LINK_HEAD_SIZE + 1];

// Scans a run of buffered bytes for the next head. Gives the offset of the head found (the bytes
// before it may be dropped) with *package_len set when the whole packet stands there; len - 4 when
// no head was found; 0 for a run of 4 bytes or fewer; -1 for a null argument. Never reads outside
// data[0, len), and *package_len, when set, never reaches past the run.
int protocol_parase_net_data(const char *data, int len, int *package_len);
// Head type of a packet that the scan found at p, with n bytes buffered from p on.
int link_head_type(const char *p, int n);

// Writes the 20-byte heads. Addresses are inet_addr values (network order in memory).
void link_write_command_head(uint8_t *head, uint16_t seq, int body_len, uint32_t remote_addr,
                             uint32_t local_addr);
void link_write_data_head(uint8_t *head, uint32_t seq, int body_len, uint32_t local_addr);

// The client's callbacks. The client's user data leads back to the link.
int net_client_read(_NetTcpClient *client, void *arg);
int net_client_write(_NetTcpClient *client, void *arg);
int net_client_server_disconnect(_NetTcpClient *client, void *arg);

// Send queue steps, called with mtx_send held where noted.
// One run of bytes of a packet.
struct LinkRun {
    const char *data;
    int size;  // 0 or more
};
// Puts one packet, made of n runs, onto the stream; mtx_send held. The runs go out back to back:
// at once while the queue is empty, and whatever the socket refuses is copied into one block
// behind the queue. The result of the flush that follows (0 or more), or -1 when the send failed or
// the rest could not be queued; a packet begun on the wire whose rest cannot be queued ends the
// connection (net_tcp_client_break) rather than reaching the peer cut short.
int link_send_parts(_NetLink *link, const LinkRun *parts, int n);
// One packet: a run, or a head and its body.
struct LinkPacket {
    LinkRun parts[2];
    int n;  // 1 or 2
};
// link_send_parts of packets[0, count) in turn, mtx_send held, in as few system calls as the socket
// allows: the packets that go to the socket at once go together. *done is the count of packets
// sent or queued whole; on -1 the packet at *done failed and nothing behind it was touched.
int link_send_packets(_NetLink *link, const LinkPacket *packets, int count, int *done);
// Copies data[sent, size) into a new block at the tail of the queue; mtx_send held. 0, or -1 when
// the block cannot be had (logged); nothing to copy queues nothing.
int net_link_put_in_send_ls(_NetLink *link, const char *data, int size, int sent);
// Sends from the head of the queue until the socket takes no more; mtx_send held. The count of the
// last send, 0 for an empty queue, -1 on failure.
int net_link_send_buffer_data(_NetLink *link);
// One data head and a body of at most 1440 bytes.
int net_link_package_send_data(_NetLink *link, const char *data, int size);
// Drops every queued block; mtx_send held.
void link_clear_send_ls(_NetLink *link);
struct LinkDropCount {
    uint32_t packets;  // packets whose blocks were dropped
    uint64_t bytes;    // unsent bytes dropped
};
// Drops blocks by whole packets, mtx_send held. keep_started: every packet but the one at the head
// whose first bytes left already (the overflow). Otherwise only that begun packet (a disconnect: the
// rest of it could only reach a new connection spliced, whole packets may go there).
LinkDropCount link_drop_send_ls(_NetLink *link, bool keep_started);

// --- the supervisor and the counters of a link (link_supervise.cpp) ---
// Made with the link, freed with it; null when there was no memory. Destroy cancels its deadline.
NetLinkSupervisor *link_sup_create(_NetLink *link);
void link_sup_destroy(NetLinkSupervisor *sup);
// True while the link's state callback runs on this thread.
bool link_sup_in_state_callback(_NetLink *link);
// Hooks the supervisor into a client's connection starts, or unhooks it. Main lock held.
void link_sup_attach(_NetLink *link, _NetTcpClient *client, bool attach);
// The connection of the link ended (the link's disconnect path, main lock held): counts it, reports
// NET_LINK_DOWN with the reason, and arms the next reopen or gives up.
void link_sup_down(_NetLink *link, int reason);
// Counters; any thread.
void link_sup_received(NetLinkSupervisor *sup, int bytes);
void link_sup_packet_in(NetLinkSupervisor *sup);
void link_sup_sent(NetLinkSupervisor *sup, int bytes);
void link_sup_packet_out(NetLinkSupervisor *sup, uint32_t packets);
void link_sup_dropped(NetLinkSupervisor *sup, uint32_t packets);
// Wait before a reopen after `failed` failed reopens in a row: uniform from min_ms to the ceiling
// min(max_ms, min_ms * 2^failed), drawn from `random`; max_ms 0 keeps the wait at min_ms.
int64_t link_backoff_ms(int min_ms, int max_ms, int failed, uint64_t random);

// Holds a link's mtx_send for one scope.
struct SendLock {
    explicit SendLock(_NetLink *l) : link(l) { sdk_mutex_lock(link->mtx_send); }
    ~SendLock() { sdk_mutex_unlock(link->mtx_send); }
    SendLock(const SendLock &) = delete;
    SendLock &operator=(const SendLock &) = delete;
    _NetLink *link;
};
