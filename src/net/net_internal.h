// Internal side of the socket engine: the pools, the client's registration with the event thread,
// and what the TCP client, the TCP server and the UDP client share.
#pragma once

#include <pthread.h>
#include <sys/socket.h>

#include <atomic>

#include "korvex/korvex.h"
#include "platform/lock_check.h"
#include "runtime/runtime_internal.h"

enum {
    KX_CLIENT_POOL_MIN = 200,  // the client pool has max(clientnum, this) slots
    KX_READ_SLICE = 65536,     // bytes one read event takes from a client before it yields
};

// A slot of the client pool: the public record first, so that a _NetTcpClient pointer is a pointer
// to its slot, then what the socket engine keeps beside it. Zeroing a record on create touches only
// the public part; the rest is reset field by field.
struct NetClientSlot {
    _NetTcpClient client;
    // The client's registration with the event thread: started by open, stopped by the close under
    // the main lock; its interest is changed under watch_mtx.
    KxWatcher watch;
    // Leaf lock, taken under the main lock or under a link's mtx_send and nothing taken inside: it
    // orders the interest changes of any thread with the stop of the watcher.
    pthread_mutex_t watch_mtx;
    // Leaf lock of the descriptor's I/O: every send and read of another thread, and the close, run
    // under it, so no byte goes out through (or comes in from) a descriptor number after the close
    // has begun, when the system may already have handed that number to another socket. Held only
    // for one non-blocking system call; nothing is taken inside.
    pthread_mutex_t io_mtx;
    // Write events: 0 for a bare client (on whenever on_write is bound), 1 on demand (on while
    // want_write is 1). watch_mtx for writes; read anywhere.
    std::atomic<int> on_demand;
    std::atomic<int> want_write;
    // The current read event: bytes left to read (-1 outside a read event) and whether the client
    // used up its share with data left. Event thread only (atomic for readers on other threads).
    std::atomic<int32_t> read_left;
    bool read_yielded;  // event thread only
};

// The slot of a pool client; null for a record that is not a slot of the pool (a caller's own
// record), which then has no registration, no write interest of its own and no read share.
NetClientSlot *client_slot(_NetTcpClient *c);

// --- pools: slots are taken by create calls and given back by destroy calls ---
// Builds the three pools at the engine start: max(clientnum, 200) client slots, servernum server
// and UDP slots. Logs the failing step and gives 0.
int net_pools_build(uint32_t clientnum, uint32_t servernum);
// Frees the pools of a start that failed, so that the next start builds them afresh.
void net_pools_release(void);
// Closes the descriptors of the server and UDP slots in use; the records keep their fields.
void net_pools_close_sockets(void);
// Takes the lowest free slot, zeroed, with index, type and a fresh session set; null and the pool's
// "... num out" line when the pool is full.
_NetTcpClient *pool_take_client(void);
_NetTcpServer *pool_take_server(void);
_NetUdpClient *pool_take_udp(void);
// Gives a slot back under the main lock, then the pool's mutex. 0 when the slot was already free.
int pool_give_client(_NetTcpClient *client);
int pool_give_server(_NetTcpServer *server);
int pool_give_udp(_NetUdpClient *client);
// Slot counts, slots in use.
uint32_t pool_client_max(void);
uint32_t pool_client_used(void);
uint32_t pool_server_max(void);
uint32_t pool_server_used(void);
uint32_t pool_udp_max(void);
uint32_t pool_udp_used(void);
// Slot i of a pool (i below its maximum), for walks over a whole pool.
_NetTcpClient *pool_client_at(uint32_t i);
_NetTcpServer *pool_server_at(uint32_t i);
_NetUdpClient *pool_udp_at(uint32_t i);

// --- the TCP client and the event thread ---
// Write interest of a client whose on_write pumps a queue (the link's send queue). The first call
// puts the client's write events on demand for as long as it holds its slot: once connected, the
// client gets write events only while want is 1 (while connecting it always gets them). Call with 1
// when bytes wait to be written, with 0 when none wait any more (write events stop after the next
// one, which finds nothing to send). Any thread, without the main lock (a link calls it with its
// mtx_send held); cheap when nothing changes.
void net_tcp_client_want_write(_NetTcpClient *client, int want);
// Ends the client's connection from any thread, without the main lock (a link calls it with its
// mtx_send held): shuts the socket down under io_mtx, so nothing more goes out on it; the event
// thread then sees the end and closes the client as for a peer that closed. For a stream that can
// no longer stay whole (a packet begun on the wire whose rest cannot be kept). 1 when shut down, 0
// for a client without a connection.
int net_tcp_client_break(_NetTcpClient *client);
// True while the event thread watches the client's descriptor; its current interest (KX_WATCH_*).
bool net_tcp_client_watched(_NetTcpClient *client);
unsigned net_tcp_client_interest(_NetTcpClient *client);

// 0 when ip is a dotted IPv4 address (four decimal fields of 0 to 255), -1 if not. Logs why not.
int check_ipv4(const char *ip);
// 0 when the text consists of decimal digits only (the empty text included), -1 if not.
int check_v4(const char *field);
// Makes fd non-blocking; 1. A failing fcntl is logged and ends the process.
int net_set_nonblocking(int fd);
// The socket address of an address text and a port (host order) in the IPv4 or the IPv6 family; an
// empty text is the any-address. *len gets the address length. 0 when inet_pton failed (the caller
// logs it; the address stays all zero), else 1.
int net_make_addr(bool v4, const char *ip, uint16_t port, sockaddr_storage *ss, socklen_t *len);

// status, connectfd and udata of a client are written under the main lock (udata also by its
// owner; the close writes status and connectfd under io_mtx as well) and read without it by the
// query calls and by the link, and under io_mtx by the send and read calls: all accesses go
// through these.
inline int32_t client_status(const _NetTcpClient *c) { return __atomic_load_n(&c->status, __ATOMIC_ACQUIRE); }
inline void client_set_status(_NetTcpClient *c, int32_t v) { __atomic_store_n(&c->status, v, __ATOMIC_RELEASE); }
inline int32_t client_fd(const _NetTcpClient *c) { return __atomic_load_n(&c->connectfd, __ATOMIC_ACQUIRE); }
inline void client_set_fd(_NetTcpClient *c, int32_t fd) { __atomic_store_n(&c->connectfd, fd, __ATOMIC_RELEASE); }
inline void *client_udata(const _NetTcpClient *c) { return __atomic_load_n(&c->udata, __ATOMIC_ACQUIRE); }
inline void client_set_udata(_NetTcpClient *c, void *u) { __atomic_store_n(&c->udata, u, __ATOMIC_RELEASE); }
