// Internal side of the socket engine: the pools, the client's registration with the event thread,
// and what the TCP client, the TCP server and the UDP client share.
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <atomic>

#include "korvex/korvex.h"
#include "platform/lock_check.h"
#include "runtime/runtime_internal.h"

enum {
    KX_CLIENT_POOL_MIN = 200,  // the client pool has max(clientnum, this) slots
    KX_READ_SLICE = 65536,     // bytes one read event takes from a client before it yields
    KX_SEND_IOV_MAX = 128,     // runs one net_tcp_client_sendv takes (well below any system's IOV_MAX)
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
    // Why the current connection ends (a NET_LINK_ reason; 0 not known yet): set where the end is
    // seen (a failed connect or read, a close), read by the disconnect callback. Reset by open.
    std::atomic<int> end_reason;
    // The owner's hook for the starts of a connection (a link's supervisor): called with the main
    // lock held, with KX_CLIENT_CONNECTING once a new socket has begun to connect and with
    // KX_CLIENT_UP once it is connected, before on_connect. Main lock.
    void (*hook)(_NetTcpClient *client, int event);
    // Link sockets: TCP_NODELAY set at every open, so that a packet leaves when it is written and never
    // waits for the acknowledgement of the one before it. Written by the link, read by open.
    std::atomic<int> nodelay;
    // Counted among the event thread's always-on write pumps (a connected bare client with on_write
    // bound, whose descriptor is writable nearly always). watch_mtx.
    bool pumping;
    // The address values that link heads carry (inet_addr of remote_ip and local_ip) and the texts
    // they were worked out from: worked out again only when a text changes, so once per connection.
    // Guarded by the send lock of the link that owns the client.
    char head_texts[32];
    uint32_t head_remote, head_local;
    bool head_cached;
};
enum { KX_CLIENT_CONNECTING = 1, KX_CLIENT_UP = 2 };

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
// net_tcp_client_send of the runs iov[0, n) as one stream of bytes, in one system call: the count
// taken (which may end inside any run), 0 for would-block or a client still connecting, -1 on
// failure or for a client that is not connected. n is at most KX_SEND_IOV_MAX.
int net_tcp_client_sendv(_NetTcpClient *client, const struct iovec *iov, int n);
// Sets TCP_NODELAY on the client's socket now (if it has one) and at every later open. Any thread.
void net_tcp_client_set_nodelay(_NetTcpClient *client);
// The inet_addr values of remote_ip and local_ip (all bits set for a text that is no dotted quad),
// worked out again only when a text has changed since the last call. The caller serialises the calls
// for one client (a link holds its send lock).
void net_tcp_client_head_addrs(_NetTcpClient *client, uint32_t *remote, uint32_t *local);
// Ends the client's connection from any thread, without the main lock (a link calls it with its
// mtx_send held): shuts the socket down under io_mtx, so nothing more goes out on it; the event
// thread then sees the end and closes the client as for a peer that closed. For a stream that can
// no longer stay whole (a packet begun on the wire whose rest cannot be kept). 1 when shut down, 0
// for a client without a connection.
int net_tcp_client_break(_NetTcpClient *client);
// Ends the client's connection for the reason given (a NET_LINK_ reason), as net_tcp_client_close
// does; on_disconnect sees the reason through net_tcp_client_end_reason. Main lock held.
void net_tcp_client_end(_NetTcpClient *client, int reason);
// True when the client's connect has settled (connected or failed) and only waits for the event
// thread to serve it.
bool net_tcp_client_connect_settled(_NetTcpClient *client);
// Why the connection that is ending ended: a NET_LINK_ reason, NET_LINK_RESET when not known.
int net_tcp_client_end_reason(_NetTcpClient *client);
// Sets the hook of the client (null clears it). Main lock held.
void net_tcp_client_set_hook(_NetTcpClient *client, void (*hook)(_NetTcpClient *client, int event));
// Keepalive after `seconds` idle seconds (probes every seconds/3, at least 1 s, three of them) and
// a bound of 2 * seconds on unacknowledged sends, so that a peer that vanished ends the connection
// after about 2 * seconds; 0 switches keepalive off and lifts the bound. 1, or 0 without a socket
// or when the system refuses.
int net_tcp_client_set_keepalive(_NetTcpClient *client, int seconds);
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
