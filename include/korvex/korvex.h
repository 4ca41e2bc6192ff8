/*
 * korvex.h - the one public header of libkorvex.
 *
 * libkorvex is the portable core of a client toolkit for network video devices: an event thread
 * serving pooled TCP clients with second-granular timers, TCP servers and UDP clients, a framed link
 * layer, a text command engine, work on single media frames (stream information, encryption, I-frame
 * indexes, embedded user data) and a levelled log with rotation.
 *
 * Usable from C11 and C++17. Every function has C linkage; the two functions whose signatures take
 * C++ references are only declared for C++.
 *
 * Conventions of results: runtime and socket calls give 1 on success and 0 on failure; send and read
 * calls give a byte count, 0 for would-block and -1 for failure; link and function-map calls give 0 or
 * a handle, -1 or null on failure; the SA_ calls give 0 or a negative code.
 */
#ifndef KORVEX_KORVEX_H
#define KORVEX_KORVEX_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/time.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#if defined(__GNUC__) || defined(__clang__)
#define KX_API __attribute__((visibility("default")))
#else
#define KX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================================
 * Mutexes and threads
 * ====================================================================================== */

/* A mutex is a platform mutex in memory that the caller owns (sdk_mutex_init) or that
 * sdk_mutex_create allocated. All mutex calls take its address. */
typedef pthread_mutex_t sdk_mutex_t;
typedef pthread_t sdk_thread_t;
typedef void *(*sdk_thread_func)(void *arg);

/* 1 on success, 0 on failure; a null mutex logs "mutex is null" and gives 0. */
KX_API int sdk_mutex_init(sdk_mutex_t *mutex, int recursive);
/* Allocates and initialises a mutex; null on failure. Free it with sdk_mutex_free. */
KX_API sdk_mutex_t *sdk_mutex_create(int recursive);
KX_API int sdk_mutex_destroy(sdk_mutex_t *mutex);
/* Destroys and frees a mutex of sdk_mutex_create; always 1. */
KX_API int sdk_mutex_free(sdk_mutex_t *mutex);
KX_API int sdk_mutex_lock(sdk_mutex_t *mutex);
/* 0 when another thread holds the mutex. */
KX_API int sdk_mutex_try_lock(sdk_mutex_t *mutex);
KX_API int sdk_mutex_unlock(sdk_mutex_t *mutex);

/* Creates a joinable thread; stack size 0 means 1 MiB. 1 or 0. */
KX_API int sdk_thread_create(sdk_thread_t *thr, uint32_t stack_size, sdk_thread_func func, void *arg);
KX_API int sdk_thread_join(sdk_thread_t *thr);
KX_API int sdk_thread_detach(sdk_thread_t *thr);
KX_API sdk_thread_t sdk_thread_self(void);

/* ======================================================================================
 * The locked list: a doubly linked list that copies its elements by value and carries its own
 * recursive mutex. Its operations take no lock: users bracket accesses with adt_dlist_lock and
 * adt_dlist_unlock. adt_dlist_* forwards unchanged to adt_os_dlist_*.
 * ====================================================================================== */

typedef struct _OS_DListNode {
    struct _OS_DListNode *next;
    struct _OS_DListNode *prev;
    /* elem_size bytes of element data follow the two links, inline in the same allocation */
} _OS_DListNode;

typedef struct _OS_DList {
    _OS_DListNode *head;
    _OS_DListNode *tail;
    uint32_t elem_size;
    uint32_t count;
    sdk_mutex_t mutex;
} _OS_DList;

KX_API _OS_DList *adt_os_dlist_create(uint32_t elem_size);
KX_API int adt_os_dlist_destroy(_OS_DList *dlist);
KX_API _OS_DListNode *adt_os_dlist_insert(_OS_DList *dlist, _OS_DListNode *ref, const void *elem);
KX_API _OS_DListNode *adt_os_dlist_add(_OS_DList *dlist, _OS_DListNode *ref, const void *elem);
KX_API _OS_DListNode *adt_os_dlist_next(_OS_DListNode *node);
KX_API _OS_DListNode *adt_os_dlist_prev(_OS_DListNode *node);
KX_API _OS_DListNode *adt_os_dlist_head(_OS_DList *dlist);
KX_API _OS_DListNode *adt_os_dlist_end(_OS_DList *dlist);
KX_API uint32_t adt_os_dlist_size(_OS_DList *dlist);
KX_API int adt_os_dlist_empty(_OS_DList *dlist);
KX_API int adt_os_dlist_delete(_OS_DList *dlist, _OS_DListNode *node);
KX_API _OS_DListNode *adt_os_dlist_delete_ex(_OS_DList *dlist, _OS_DListNode *node);
KX_API void *adt_os_dlist_getdata(_OS_DListNode *node);
KX_API int adt_os_dlist_lock(_OS_DList *dlist);
KX_API int adt_os_dlist_unlock(_OS_DList *dlist);

KX_API _OS_DList *adt_dlist_create(uint32_t elem_size);
KX_API int adt_dlist_destroy(_OS_DList *dlist);
KX_API _OS_DListNode *adt_dlist_insert(_OS_DList *dlist, _OS_DListNode *ref, const void *elem);
KX_API _OS_DListNode *adt_dlist_add(_OS_DList *dlist, _OS_DListNode *ref, const void *elem);
KX_API _OS_DListNode *adt_dlist_next(_OS_DListNode *node);
KX_API _OS_DListNode *adt_dlist_prev(_OS_DListNode *node);
KX_API _OS_DListNode *adt_dlist_head(_OS_DList *dlist);
KX_API _OS_DListNode *adt_dlist_end(_OS_DList *dlist);
KX_API uint32_t adt_dlist_size(_OS_DList *dlist);
KX_API int adt_dlist_empty(_OS_DList *dlist);
KX_API int adt_dlist_delete(_OS_DList *dlist, _OS_DListNode *node);
KX_API _OS_DListNode *adt_dlist_delete_ex(_OS_DList *dlist, _OS_DListNode *node);
KX_API void *adt_dlist_getdata(_OS_DListNode *node);
KX_API int adt_dlist_lock(_OS_DList *dlist);
KX_API int adt_dlist_unlock(_OS_DList *dlist);

/* ======================================================================================
 * Log. Levels: 100 error, 200 message, 300 debug; a sink takes a record whose level is at most its
 * threshold. Lines go to standard error and, while switched on, to the log file.
 * ====================================================================================== */

#define SDK_LOG_LEVEL_ERR 100
#define SDK_LOG_LEVEL_MSG 200
#define SDK_LOG_LEVEL_DBG 300

#if defined(__GNUC__) || defined(__clang__)
#define KX_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define KX_PRINTF(f, a)
#endif

KX_API void sdk_log_msg(const char *fmt, ...) KX_PRINTF(1, 2);
KX_API void sdk_log_debug(const char *fmt, ...) KX_PRINTF(1, 2);
/* The error record group: lock, date, message head, then one of the _unlock closers. */
KX_API void sdk_log_buf_lock(void);
KX_API int sdk_log_buf_date(void);
KX_API int sdk_log_buf_msg(const char *fmt, ...) KX_PRINTF(1, 2);
KX_API void sdk_err_buf_msg_unlock(const char *fmt, ...) KX_PRINTF(1, 2);
KX_API void sdk_log_buf_msg_unlock(const char *fmt, ...) KX_PRINTF(1, 2);
KX_API void sdk_log_buf_quit_unlock(const char *fmt, ...) KX_PRINTF(1, 2);
/* Appends ": " and the text of errno; the process goes on. */
KX_API void sdk_err_buf_quit_unlock(const char *fmt, ...) KX_PRINTF(1, 2);
KX_API void sdk_log_get_level(int *level, int *file_level);
/* Takes over the levels and the file switch for good: the configuration file no longer sets them. */
KX_API void sdk_log_set_level(int level, int file_level, int write_file);
KX_API void my_abort(void);
KX_API int os_gettimeofday(struct timeval *tv, void *tz);

/* ======================================================================================
 * Sockets: pooled records. Each starts with a one-byte type (1 TCP client, 0 TCP server, 4 UDP
 * client) and holds index (-1 while the slot is free) and session.
 * ====================================================================================== */

struct _NetTcpClient;
struct _NetTcpServer;
struct _NetUdpClient;

/* All client callbacks take the record and the value bound with them. Only on_read's result is
 * looked at: -1 asks the event thread to close the client. */
typedef int (*NetTcpClientCallback)(struct _NetTcpClient *client, void *arg);
typedef int (*NetTcpServerCallback)(struct _NetTcpServer *server, void *arg);
typedef int (*NetUdpClientCallback)(struct _NetUdpClient *client, void *arg);

typedef struct _NetTcpClient {
    uint8_t type;
    char remote_ip[16];
    uint16_t remote_port;
    char local_ip[16];
    uint16_t local_port;
    int32_t status; /* 0 disconnected, 1 connecting, 2 connected */
    void *udata;
    NetTcpClientCallback on_connect;
    void *connect_arg;
    NetTcpClientCallback on_disconnect;
    void *disconnect_arg;
    NetTcpClientCallback on_read;
    void *read_arg;
    NetTcpClientCallback on_write;
    void *write_arg;
    int32_t connectfd;
    int32_t index;
    uint32_t session;
} _NetTcpClient;

typedef struct _NetTcpServer {
    uint8_t type;
    char local_ip[16];
    uint16_t local_port;
    int32_t status; /* 0 not listening, 1 listening */
    NetTcpServerCallback on_accept;
    void *accept_arg;
    int32_t socketfd;
    int32_t index;
    uint32_t session;
} _NetTcpServer;

typedef struct _NetUdpClient {
    uint8_t type;
    char local_ip[16];
    uint16_t local_port;
    int32_t status; /* 0 closed, 1 open */
    void *udata;
    NetUdpClientCallback on_read;
    void *read_arg;
    NetUdpClientCallback on_write;
    void *write_arg;
    int32_t socketfd;
    int32_t index;
    uint32_t session;
} _NetUdpClient;

/* ======================================================================================
 * Library lifecycle, main lock and timers
 * ====================================================================================== */

typedef struct _SdkTimer _SdkTimer;
typedef int (*SdkTimerCallback)(void *udata);

/* Counts nested starts; the first start builds the pools and starts the event and timer threads,
 * which run for the rest of the process. The client pool always has 200 slots; servernum sizes the
 * server pool and the UDP pool. 1 started or already started, 0 the engine start failed. */
KX_API int sdk_os_startup(uint32_t clientnum, uint32_t servernum);
/* 1 for a stop that was not the last. The last stop closes the server and UDP sockets and stops the
 * log check; TCP clients and caller timers keep running. */
KX_API int sdk_os_cleanup(void);
KX_API int inner_sdk_os_startup(uint32_t clientnum, uint32_t servernum);
KX_API int inner_sdk_os_cleanup(void);
KX_API bool sdk_is_startup(void);
/* While a caller holds the main lock the event thread serves no client and runs no callback. */
KX_API void sdk_main_lock(void);
KX_API void sdk_main_unlock(void);
KX_API void sdk_os_sleep(uint32_t ms);
/* Timers tick once a second on the event thread; a timer fires every ceil(period/1000) ticks, at
 * least every tick. The callback runs with the main lock and the timer list lock held and may create
 * timers or destroy its own timer. */
KX_API _SdkTimer *sdk_timer_create(SdkTimerCallback callback, uint32_t period, void *udata);
KX_API int sdk_timer_destroy(_SdkTimer *timer);
KX_API int sdk_os_set_usr_flag(int flag);
KX_API void sdk_os_set_cur_path(void *path);

/* ======================================================================================
 * TCP client
 * ====================================================================================== */
/* A client is a slot of the pool of 200. Addresses are texts of at most 15 characters; a text that
 * is no dotted IPv4 address takes the IPv6 road. Callbacks run on the event thread with the main lock
 * held, in the order on_connect, on_write, on_read, on_disconnect within one pass; on_disconnect also
 * runs on the thread of net_tcp_client_close and net_tcp_client_destroy. */
KX_API _NetTcpClient *net_tcp_client_create(void);
/* Closes the client and gives its slot back; 1, or 0 for null. Destroying a free slot ends the process. */
KX_API int net_tcp_client_destroy(_NetTcpClient *client);
/* Closes the socket; the addresses and callbacks stay, and the client can be opened again. 1, 0 for null. */
KX_API int net_tcp_client_close(_NetTcpClient *client);
/* Only while disconnected. 1 or 0. */
KX_API int net_tcp_client_set_remote(_NetTcpClient *client, const char *ip, uint16_t port);
KX_API int net_tcp_client_set_local(_NetTcpClient *client, const char *ip, uint16_t port);
/* ip has room for 16 bytes. 1 or 0. */
KX_API int net_tcp_client_get_remote(_NetTcpClient *client, char *ip, uint16_t *port);
KX_API int net_tcp_client_get_local(_NetTcpClient *client, char *ip, uint16_t *port);
/* 0 disconnected, 1 connecting, 2 connected; -1 for null. */
KX_API int net_tcp_client_get_status(_NetTcpClient *client);
/* fd -1: makes a non-blocking socket, enters it in the event thread's table and starts connect.
 * Any other fd: adopts that connected descriptor as it is; the event thread does not serve it and its
 * owner reads and sends directly. 1 or 0. */
KX_API int net_tcp_client_open(_NetTcpClient *client, int fd);
/* One send: bytes taken (maybe fewer than len), 0 would block or still connecting, -1 failure. */
KX_API int net_tcp_client_send(_NetTcpClient *client, const char *data, uint32_t len);
/* One recv: bytes read, 0 would block, -1 peer closed, failure or not connected. */
KX_API int net_tcp_client_read(_NetTcpClient *client, char *buf, uint32_t len);
KX_API int net_tcp_client_set_udata(_NetTcpClient *client, void *udata);
KX_API void *net_tcp_client_get_udata(_NetTcpClient *client);
/* A null callback unbinds. 1, 0 for a null client. */
KX_API int net_tcp_client_bind_connect(_NetTcpClient *client, NetTcpClientCallback cb, void *arg);
KX_API int net_tcp_client_bind_disconnect(_NetTcpClient *client, NetTcpClientCallback cb, void *arg);
KX_API int net_tcp_client_bind_read(_NetTcpClient *client, NetTcpClientCallback cb, void *arg);
KX_API int net_tcp_client_bind_write(_NetTcpClient *client, NetTcpClientCallback cb, void *arg);
/* SO_RCVBUF of the open socket. 1 or 0. */
KX_API int net_tcp_client_set_rcvbuf_len(_NetTcpClient *client, uint32_t len);
/* Accepted for compatibility; the version has no effect. 1, 0 for null. */
KX_API int net_tcp_client_set_ip_ver(_NetTcpClient *client, uint8_t ver);
/* @section tcp_client */

/* ======================================================================================
 * TCP server
 * ====================================================================================== */
/* A server is a bound, listening, non-blocking socket from the server pool (servernum slots). The event
 * thread doesn't serve it. Taking connections is polled:
 *
 *     int fd;
 *     if (net_tcp_server_accept(server, &fd) == 1) {     // 0: none pending, -1: failure
 *         _NetTcpClient *peer = net_tcp_client_create();
 *         net_tcp_client_open(peer, fd);                 // adopts the connected descriptor
 *         ... net_tcp_client_send / net_tcp_client_read on peer ...
 *     }
 *
 * An adopted client is not served by the event thread: its owner sends and reads directly. */
KX_API _NetTcpServer *net_tcp_server_create(void);
/* Closes if listening, then gives the slot back. 1; 0 on null or a free slot. */
KX_API int net_tcp_server_destroy(_NetTcpServer *server);
/* Stops listening; the server can be opened again. Always 1 for a server. */
KX_API int net_tcp_server_close(_NetTcpServer *server);
/* Stores the port, then the address if ip is not null; 0 for a text that is no IPv4 address. */
KX_API int net_tcp_server_set_local(_NetTcpServer *server, const char *ip, uint16_t port);
/* Copies 16 bytes of the address and the port as set (port 0 stays 0 after an open on port 0). */
KX_API int net_tcp_server_get_local(_NetTcpServer *server, char *ip, uint16_t *port);
KX_API int net_tcp_server_get_status(_NetTcpServer *server);
/* Binds and listens: a dotted IPv4 address takes IPv4, any other text IPv6. 1 or 0. */
KX_API int net_tcp_server_open(_NetTcpServer *server);
/* Stores a callback and its value; the library never calls it (connections are polled). */
KX_API int net_tcp_server_bind_accept(_NetTcpServer *server, NetTcpServerCallback callback, void *arg);
/* Accepts one pending connection without blocking. 1 and *fd set to a connected, non-blocking,
 * close-on-exec descriptor ready for net_tcp_client_open; 0 when none is pending; -1 on failure or
 * a server that isn't listening. Caller's thread; the descriptor is the caller's until adopted. */
KX_API int net_tcp_server_accept(_NetTcpServer *server, int *fd);

/* @section tcp_server */

/* ======================================================================================
 * UDP client
 * ====================================================================================== */
/* A UDP client owns a non-blocking IPv4 datagram socket from create to destroy; its owner polls it. */
KX_API _NetUdpClient *net_udp_client_create(void);
/* Closes the socket and gives the slot back. A free slot is a fatal misuse. */
KX_API int net_udp_client_destroy(_NetUdpClient *client);
/* Marks the client closed; the socket stays bound and receiving until destroy. */
KX_API int net_udp_client_close(_NetUdpClient *client);
/* Address (at most 15 characters, empty for any) and port (0: the system picks) of the next bind. */
KX_API int net_udp_client_set_local(_NetUdpClient *client, const char *ip, uint16_t port);
KX_API int net_udp_client_get_local(_NetUdpClient *client, char *ip, uint16_t *port);
KX_API int net_udp_client_get_status(_NetUdpClient *client);
/* Binds the socket; a socket is bound once, so a second open gives 0. */
KX_API int net_udp_client_open(_NetUdpClient *client);
/* One datagram to ip:port. Bytes sent; 0 would block; -1 on failure. */
KX_API int net_udp_client_send(_NetUdpClient *client, const void *data, uint32_t len, const char *ip,
                               uint16_t port);
/* One datagram, cut to len. Bytes read with the sender's address (16 bytes) and port; 0 when nothing
 * waits; -1 on failure, also for an empty datagram. */
KX_API int net_udp_client_read(_NetUdpClient *client, void *data, uint32_t len, char *ip, uint16_t *port);
KX_API int net_udp_client_set_udata(_NetUdpClient *client, void *udata);
KX_API void *net_udp_client_get_udata(_NetUdpClient *client);
/* Stored only; the library never calls them. */
KX_API int net_udp_client_bind_read(_NetUdpClient *client, NetUdpClientCallback callback, void *arg);
KX_API int net_udp_client_bind_write(_NetUdpClient *client, NetUdpClientCallback callback, void *arg);
/* Allows sends to broadcast addresses and sets a multicast TTL of 64. */
KX_API int net_udp_client_set_broadcast(_NetUdpClient *client);
/* Joins or leaves a multicast group on all interfaces. */
KX_API int net_udp_client_add_multicase(_NetUdpClient *client, const char *ip);
KX_API int net_udp_client_drop_multicase(_NetUdpClient *client, const char *ip);

/* @section udp_client */

/* ======================================================================================
 * Link layer
 * ====================================================================================== */
/* A link frames device protocols over one TCP client: it gathers the stream in a 2048-byte buffer,
 * cuts packets at their heads and hands each to the bound parser, and it sends through a queue that
 * keeps what the socket refuses. Heads and body are little-endian. */
#define LINK_BUF_SIZE 2048
/* Head types handed to the parser. */
#define LINK_HEAD_COMMAND 0 /* F1 F5 EA F5, u16 length at offset 6 */
#define LINK_HEAD_DATA 1    /* F1 F5 EA F9, u16 length at offset 14 */
#define LINK_HEAD_ODNS 2    /* ODNS_DATAPACKHEAD: word 225, i32 length at offset 4 */
#define LINK_HEAD_MOBILE 3  /* "MOBILEDEVICEIRRIHEAD": everything buffered behind it */

struct _NetLink;
/* Called for each packet on the event thread, under the main lock and the link's process lock. data
 * points at the packet's head inside the link's buffer and is valid only during the call; len counts
 * head and body. Returning 999 hands the same packet to the parser bound at that moment once more. */
typedef int (*NetLinkParaseCallback)(struct _NetLink *link, void *udata, int head_type, char *data, int len);
/* Called once when the connection ends without net_link_destroy. */
typedef int (*NetLinkDisconnectCallback)(struct _NetLink *link, void *udata);

typedef struct _NetLink {
    struct _NetTcpClient *client; /* owned from net_link_set_core to net_link_destroy */
    _OS_DList *send_buf_ls;       /* queue of unsent blocks, oldest first */
    char buf[LINK_BUF_SIZE];      /* receive buffer */
    int32_t buf_len;
    NetLinkParaseCallback parase_protocol;
    NetLinkDisconnectCallback disconnect_protocol;
    void *udata;
    sdk_mutex_t *mtx_send;    /* recursive; guards the send queue */
    int32_t time_count;       /* time-out counter of the owner */
    int32_t type;             /* 0, or a type whose read events clear time_count */
    uint32_t seq;             /* sequence of the heads this link writes */
    sdk_mutex_t *mtx_process; /* recursive; held around every parser call */
    int32_t ip_ver;           /* 1: heads carry the address 0.0.0.0 */
} _NetLink;

/* Link calls give 0 (or a handle) and -1 (or null) on failure. Order of use: create, bind, then
 * net_link_set_core, then net_tcp_client_open on the client. */
KX_API _NetLink *net_link_create(void);
/* Closes and gives back the client, drops the queue and frees the link. Not from its own callbacks. */
KX_API int net_link_destroy(_NetLink *link);
/* Hands the client to the link: the client's user data becomes the link and its read, write and
 * disconnect callbacks are the link's. */
KX_API int net_link_set_core(_NetLink *link, struct _NetTcpClient *client);
KX_API int net_link_set_udata(_NetLink *link, void *udata);
KX_API int net_link_get_udata(_NetLink *link, void **udata);
KX_API int net_link_bind_parase_protocol(_NetLink *link, NetLinkParaseCallback cb);
KX_API int net_link_bind_disconnect_protocol(_NetLink *link, NetLinkDisconnectCallback cb);
KX_API int net_link_set_ip_ver(_NetLink *link, int ver);
KX_API int net_link_get_ip_ver(_NetLink *link);
KX_API int net_link_set_type(_NetLink *link, int type);
KX_API int net_link_get_type(_NetLink *link);
/* Shuts the parser out while the owner changes what it reads. Do not close or destroy while held. */
KX_API int net_link_lock(_NetLink *link);
KX_API int net_link_unlock(_NetLink *link);
KX_API int net_link_time_add(_NetLink *link);
KX_API int net_link_time_add_ex(_NetLink *link, int count);
/* 1 once time_count reached 60. */
KX_API int net_link_check_timeout(_NetLink *link);
/* ip has room for 16 bytes. 1 or 0 as net_tcp_client_get_remote, -1 for a null argument. */
KX_API int net_link_get_remote(_NetLink *link, char *ip, uint16_t *port);
/* Send calls copy what the socket cannot take at once, so the bytes are the caller's again on return.
 * A result of 0 or more is success (queued bytes count as sent), -1 failure. */
KX_API int net_link_send_package(_NetLink *link, const char *data, int size);
/* One command head and a body of at most 1440 bytes. */
KX_API int net_link_send_command(_NetLink *link, const char *data, int size);
/* Any length, in chunks of 1440 bytes each behind a data head. Serialise it with other sends on the
 * same link: another thread's bytes could fall between a head and its body. */
KX_API int net_link_send_data(_NetLink *link, const char *data, int size);
/* Queued blocks at which a link's queue is dropped as overflowed; 20000 by default, for all links. */
KX_API extern int g_iMaxPackageBufNum;
/* 1 to 20000: 1; anything else: 0 and the limit stays. */
KX_API int sdk_os_set_max_package_buf(int count);
/* @section link */

/* ======================================================================================
 * Command engine
 * ====================================================================================== */
/* The text command engine. A _TProtFrame holds a tree of command keys registered by the caller;
 * command texts run through it and reach the analyze callback of the node they name. A command is
 * words separated by single tabs: upper-case keys first (at most 16), parameters behind them (at
 * most 360), 376 words of at most 256 characters. A package is commands that each start with a
 * section word ("INNER", "USER", "CMD" or "PARASET") and end with "\n\n\n". The engine takes no
 * lock and logs nothing: every refusal gives -1. A frame belongs to one thread at a time. */
enum {
    PAP_MAX_KEYS = 16,
    PAP_MAX_PARAMS = 360,
    PAP_MAX_WORDS = 376,
    PAP_MAX_WORD_LEN = 256,
    PAP_REMAIN_WORDS = 32,
    PAP_RESULT_WORDS = 8,
    PAP_SLOT_LEN = 32,          /* a remain or result word holds at most 31 characters */
    PAP_MAX_PACKAGE_LEN = 1999  /* longest package that pap_run_cmd_package takes */
};

struct tagAnalyzeParam;
struct TProtNode;

/* Handed to the analyze callback; the engine never calls it. Its arguments mean what the
 * application's analyze callback makes of them. */
typedef int (*pap_deal_cbk)(void *in, int len, void *out);
/* The entry of a command. Its result is the result of the run; 0 counts as success. */
typedef int (*pap_analyze_cbk)(struct tagAnalyzeParam *param);
/* Stored with pap_regist_cbk_get_param and handed to each analyze callback; never called here. */
typedef int (*pap_get_param_cbk)(void *ctx, int id, void *out);
/* Own check of a parameter word: 0 for a bad value, anything else for a good one. */
typedef int (*pap_param_check_cbk)(const char *param);

/* Check of one parameter: type 0 none, 1 base-10 integer in [min, max], 2 length in [min, max],
 * 3 check(word) != 0; any other type fails. */
typedef struct TParamDef {
    int type;
    int64_t min;
    int64_t max;
    pap_param_check_cbk check;
} TParamDef;

/* The callbacks of a node. param_num is the number of parameters this leaf accepts (-1: any);
 * params holds one definition for each. The registration calls make leaves with -1. */
typedef struct TProtLeaf {
    struct TProtNode *node;
    int param_num;
    TParamDef *params;
    pap_deal_cbk deal;
    pap_analyze_cbk analyze;
} TProtLeaf;

/* One key of a command path. The first leaf is the one that runs for any number of parameters. */
typedef struct TProtNode {
    struct TProtNode *next;   /* next sibling, in order of creation */
    struct TProtNode *child;  /* first node of the level below */
    struct TProtNode *parent; /* null on the top level */
    char *key;
    int leaf_num;
    TProtLeaf *leaves;
} TProtNode;

/* One engine instance. The counters are written by each run and read by nobody here. */
typedef struct _TProtFrame {
    TProtNode *root;
    uint64_t node_num;
    uint64_t run_total;
    uint64_t run_ok;
    uint64_t run_fail;
    char remain_words[PAP_REMAIN_WORDS][PAP_SLOT_LEN];
    int remain_num;
    char result_words[PAP_RESULT_WORDS][PAP_SLOT_LEN];
    int result_num;
    pap_get_param_cbk get_param;
} _TProtFrame;

/* What an analyze callback gets: words[0 .. key_num-1] are the keys, words[key_num ..
 * key_num+param_num-1] the parameters. Valid only during the call. */
typedef struct tagAnalyzeParam {
    uint8_t reserved[8];
    char **words;
    int key_num;
    int param_num;
    pap_deal_cbk deal;
    pap_get_param_cbk get_param;
    void *user_data;
} tagAnalyzeParam;

/* One command split into words, kept on the stack of a single run. */
typedef struct _TProtCmdTxt {
    int len;
    char *text;
    char *words[PAP_MAX_WORDS];
    int key_num;
    int param_num;
} _TProtCmdTxt;

/* A new empty frame, null if allocation fails. */
KX_API _TProtFrame *pap_init(void);
/* Frees the frame with its whole tree. Always -1. */
KX_API int pap_uninit(_TProtFrame *frame);
/* Registration. path: keys separated by single tabs, made of A-Z, 0-9 and "_" (at most 16 keys
 * count). A path that exists gets its callbacks replaced in place (a null callback leaves the old
 * one); missing keys are created, the inner ones with the same callbacks. The _spe forms also make
 * the last key a remain word: in a command text everything behind it is a parameter. A remain word
 * holds at most 31 characters: a _spe call that would create a longer one gives -1 and registers
 * nothing. 0 on success, -1 on failure. */
KX_API int pap_regist_cbk_cmd_analyze(_TProtFrame *frame, const char *path, pap_analyze_cbk analyze);
KX_API int pap_regist_cbk_cmd_analyze_spe(_TProtFrame *frame, const char *path, pap_analyze_cbk analyze);
KX_API int pap_regist_cbk_cmd_deal(_TProtFrame *frame, const char *path, pap_deal_cbk deal);
KX_API int pap_regist_cbk_cmd_deal_spe(_TProtFrame *frame, const char *path, pap_deal_cbk deal);
/* Always 0; a null frame is ignored. */
KX_API int pap_regist_cbk_get_param(_TProtFrame *frame, pap_get_param_cbk get_param);
/* The common road of the four calls above; spe is 1 for the _spe forms. */
KX_API int Inner_RegCallBack(_TProtFrame *frame, const char *path, pap_analyze_cbk analyze, pap_deal_cbk deal,
                             int spe);
/* 1 if word is A-Z followed by A-Z, 0-9 or "_"; 0 otherwise (also for null or ""). */
KX_API int isupperstr(const char *word);
/* Runs one zero-terminated command (length is not read). The result of the analyze callback, or -1
 * if none ran. user_data reaches the callback. An analyze callback may run commands on the same
 * frame again. */
KX_API int pap_run_cmd(_TProtFrame *frame, const char *text, int length, void *user_data);
KX_API int Inner_RunCmd(_TProtFrame *frame, const char *text, int length, void *user_data);
/* Runs each command of a package of length bytes (0 to 1999, no terminating zero needed). The
 * result of the last command run, or -1 if none ran or length is out of range. */
KX_API int pap_run_cmd_package(_TProtFrame *frame, const char *text, int length, void *user_data);

/* @section pap */

/* ======================================================================================
 * Function maps and common helpers
 * ====================================================================================== */
/* A function map binds function pointers to names (key map, searched from the front, first binding
 * wins) or to numbers (index map, an array of max_index slots). The map never calls the functions:
 * the caller casts func, or the slot, to the function's real type. No lock is taken; the caller
 * serialises binding against lookup. */
#define MAP_TYPE_KEY 0
#define MAP_TYPE_INDEX 1

typedef void (*FunctionMapFunc)(void);

typedef struct FunctionMap {
    int32_t type;      /* MAP_TYPE_KEY or MAP_TYPE_INDEX */
    int32_t max_index; /* index map: number of slots */
    _OS_DList *key_map; /* key map: list of FunctionMapItem pointers, in order of binding */
    FunctionMapFunc *index_map; /* index map: max_index slots, null where nothing is bound */
} FunctionMap;

typedef struct FunctionMapItem {
    char key[32]; /* zero-terminated, cut to 31 characters */
    FunctionMapFunc func;
} FunctionMapItem;

/* A new empty key map for MAP_TYPE_KEY; null for every other type (an index map comes from
 * function_map_create_index). A key map lives for the whole process: destroy refuses it. */
KX_API FunctionMap *function_map_create(int type);
/* Always null: a key map comes from function_map_create(MAP_TYPE_KEY). */
KX_API FunctionMap *function_map_create_key(void);
/* A new index map with max_index null slots; null when max_index <= 0 or on failure. */
KX_API FunctionMap *function_map_create_index(int max_index);
/* 0 for an index map (released); -1 for a null map and for a key map, which is not released. */
KX_API int function_map_destroy(FunctionMap *map);
/* 0, or -1 on failure. A key bound twice stands twice; lookups find the first binding. */
KX_API int function_map_bind_key(FunctionMap *map, const char *key, FunctionMapFunc func);
/* 0, or -1 for a wrong map, a null function or an index outside 0 .. max_index - 1. */
KX_API int function_map_bind_index(FunctionMap *map, int index, FunctionMapFunc func);
/* The item of the first binding of key, or null. */
KX_API FunctionMapItem *function_map_get_key_map(FunctionMap *map, const char *key);
/* The address of the slot (which may hold null), or null for a wrong map or index. */
KX_API FunctionMapFunc *function_map_get_index_map(FunctionMap *map, int index);
/* Copies at most size - 1 characters and always terminates the copy. 0, also when the text was cut;
 * -1 for a null pointer or a size below 1 (nothing written). */
KX_API int strcpy_safe(char *_cDest, const char *_cSrc, int size);
/* @section function_map */
/* Common helpers. They keep no state, write no log line and may be called from any thread. */

#define OS_STR_ARRAY_MAX 512

/* Result of os_split_str_to_arr: the pieces point into the split text; entries behind the last piece
 * point to a constant empty string, never null. */
typedef struct tagOsStrArray {
    char *apcItem[OS_STR_ARRAY_MAX];
    int32_t iItemNum;
} tagOsStrArray;

/* Copies the smaller of count and room bytes. 0, or 22 (EINVAL) for a null pointer. */
KX_API int os_memcpy(void *dest, size_t room, const void *src, size_t count);
/* With room >= 1 copies at most room - 1 characters and terminates; with room <= 0 copies the whole
 * text. 0, or -1 for a null pointer. */
KX_API int os_strcpy(char *dest, const char *src, int room);
/* dlopen (lazy binding) of dir "/" name, or of name alone when dir is null or empty. path, reserved
 * and flags are ignored. Null on failure, also when dir and name don't fit in 260 characters. */
KX_API void *os_load_library(const char *path, const char *name, void *reserved, char *dir, int flags);
KX_API void *os_dlsym_address(void *handle, const char *symbol);
/* dlclose: 0 on success, non-zero on failure (also for a null handle). */
KX_API int os_free_library(void *handle);
/* Wall clock in milliseconds since the epoch; follows changes of the system time. */
KX_API int64_t os_get_tick_count(void);
/* usleep; -1 for a negative time. */
KX_API int os_usleep(int us);
/* Cuts text in place at each separator into at most OS_STR_ARRAY_MAX pieces. A trailing separator
 * adds no piece, two in a row give an empty one, the empty text gives one empty piece. 0, or -1 for
 * a null pointer or too many pieces (iItemNum then stays 0). */
KX_API int os_split_str_to_arr(char *text, char sep, tagOsStrArray *arr);
/* Lowers each byte in place; null is ignored. */
KX_API void os_to_lower(char *text);
/* Coded picture size to display size (1088 -> 1080, 368 -> 360, ...); other values unchanged. */
KX_API int os_convert_video_size(int size);
/* Prints the version text to standard output and returns it. */
KX_API const char *os_get_sdk_version(void);
KX_API uintptr_t os_get_cur_thread_id(void);
/* A stream is a FILE* as void*. os_fopen gives null for a null path or mode; the last three
 * arguments are ignored. The other calls forward to stdio; on a null stream they read and write
 * nothing, os_fseek, os_ftell and os_fclose give -1 and os_feof gives 1. */
KX_API void *os_fopen(const char *path, const char *mode, int share, unsigned char a, unsigned char b);
KX_API size_t os_fread(void *buf, unsigned size, unsigned count, void *stream);
KX_API size_t os_fwrite(const void *buf, unsigned size, unsigned count, void *stream);
KX_API int os_fseek(void *stream, int64_t offset, int origin);
KX_API int64_t os_ftell(void *stream);
KX_API int os_feof(void *stream);
KX_API int os_fclose(void *stream);
/* 1 when the bytes are well-formed UTF-8 (sequences of up to six bytes, none cut off) and hold at
 * least one multi-byte sequence; else 0. The other two give the same answer. */
KX_API int os_is_utf8_encoding(const char *bytes, int len);
KX_API int os_get_charset_code(const char *bytes, int len);
KX_API int os_is_wide_char(const char *bytes, int len);
/* @section os_helpers */

/* ======================================================================================
 * INI files
 * ====================================================================================== */
/* Single values in a text file of "[Section]" lines and "key=value" lines. Lines are read in parts of
 * at most 255 characters. A section starts at a line that begins with its "[name]" and ends at the
 * next line that begins with "[". A key matches every line of the section that begins with its
 * letters (so no key of a section may begin another); the value runs from behind the first "=" to
 * the line's end, untrimmed. Lines that begin with ";", CR or LF are comments or blank. No call keeps
 * state, takes a lock or logs. The value buffer has room for 256 characters; a value that is not
 * found leaves it as it was. */
/* section is the header with its brackets, e.g. "[File]". */
KX_API void IniReadValue(const char *section, const char *key, char *val, const char *path);
/* section is the plain name. 0 when all arguments are given (found or not), -1 for a null one. */
KX_API int readStringValue(const char *section, const char *key, char *val, const char *path);
/* The value as an int (leading blanks skipped, digits up to the first other character, clamped to
 * the int range); def for a missing file, section or key, an empty value or a null argument. */
KX_API int readIntValue(const char *section, const char *key, int def, const char *path);
/* Replaces every line of the section that begins with key by "key=val\n"; never adds a key, a section
 * or a file. A new line of the old length is written in place. Otherwise the file is rewritten
 * whole through a temporary file in its directory that replaces it by rename, so no byte around the
 * line is lost. Refused without change: a new line over 255 characters, and a section where a line
 * beginning with key holds a longer key (e.g. "LevelMax" for the key "Level"). */
KX_API void IniWriteValue(const char *section, const char *key, const char *val, const char *path);
/* section is the plain name. 0 when all arguments are given (written or not), -1 for a null one. */
KX_API int writeStringVlaue(const char *section, const char *key, const char *val, const char *path);
/* Writes the value as "%-4d" (at least four characters, blanks behind); always 0. */
KX_API int writeIntValue(const char *section, const char *key, int val, const char *path);
/* @section ini */

/* ======================================================================================
 * Ciphers and digests
 * ====================================================================================== */
/* Byte-wise AES-128 (10 rounds, 16-byte key). All buffers are processed in place; the context is the
 * caller's, usually on the stack. */
typedef struct AES_ctx {
    uint8_t RoundKey[176]; /* the 11 round keys */
    uint8_t Iv[16];        /* CBC chaining value, or the CTR counter (big-endian) */
} AES_ctx;

/* Expands the key; Iv keeps its value. */
KX_API void AES_init_ctx(AES_ctx *ctx, const uint8_t *key);
KX_API void AES_init_ctx_iv(AES_ctx *ctx, const uint8_t *key, const uint8_t *iv);
KX_API void AES_ctx_set_iv(AES_ctx *ctx, const uint8_t *iv);
/* One 16-byte block. */
KX_API void AES_ECB_encrypt(const AES_ctx *ctx, uint8_t *buf);
KX_API void AES_ECB_decrypt(const AES_ctx *ctx, uint8_t *buf);
/* CBC without padding over whole 16-byte blocks; a trailing partial block is left as it is. Iv then
 * holds the last ciphertext block, so a further call continues the chain. */
KX_API void AES_CBC_encrypt_buffer(AES_ctx *ctx, uint8_t *buf, unsigned long length);
KX_API void AES_CBC_decrypt_buffer(AES_ctx *ctx, uint8_t *buf, unsigned long length);
/* CTR over any length; encrypts and decrypts alike. Iv is the counter, increased by 1 after each key
 * stream block; each call starts with a fresh key stream block. */
KX_API void AES_CTR_xcrypt_buffer(AES_ctx *ctx, uint8_t *buf, unsigned long length);

/* Table-driven AES for 128, 192 and 256-bit keys, single blocks. Clear the record before set_key. */
typedef struct STR_AES {
    uint32_t uiKeyWords;          /* key length in 32-bit words: 4, 6 or 8 */
    uint32_t auiEncSchedule[64];  /* encryption round keys, least significant byte first */
    uint32_t auiDecSchedule[64];  /* decryption round keys, in the order of use */
} STR_AES;

/* Builds the shared tables once per process; set_key calls it on first use. Safe to call from
 * several threads at once. */
KX_API void gen_tabs(void);
/* key_bits 128, 192 or 256. Any other length leaves the record unusable: encrypt and decrypt then
 * write 16 zero bytes. */
KX_API void set_key(STR_AES *aes, const unsigned char *key, unsigned long key_bits);
KX_API void encrypt(const STR_AES *aes, const unsigned char *in, unsigned char *out);
KX_API void decrypt(const STR_AES *aes, const unsigned char *in, unsigned char *out);
/* Fits a key of up to 16 bytes to 16: the bytes, then 0xFF up to 16, then a 0 as 17th byte. 0, or -1
 * (output untouched) for a length over 16, a negative length or a null pointer. */
KX_API int expand_key(const unsigned char *key, int len, unsigned char *out);

/* MD5 of _iInLen bytes. On entry *_piOutLen is the capacity of _pcOut. 0 with the 16 raw digest bytes
 * at _pcOut and *_piOutLen = 16; -1 with nothing changed for null pointers, a length of 0 or less, or
 * a capacity below 16. */
KX_API int MD5_Encrypt(char *_pcOut, int *_piOutLen, const char *_pcIn, int _iInLen);

/* Frame cipher modes: scramble the first bytes of a frame's payload in place, the frame number as
 * counter. aes_crypt and AES_CTR (the same operation) XOR the buffer with one AES block of the counter
 * under the key padded with 0xFF to 16 bytes (a key over 16 bytes counts as 16 zero bytes); 0, or -1
 * for a null pointer. video_AES_CTR does the same only when the first four bytes decipher to the start
 * code 00 00 00 01; else, and for a buffer below four bytes, -1 with the buffer unchanged.
 * video_AES_CTR_EX is the enhanced form: a 64-byte key stream from the MD5 of the counter under four
 * rotations of the key, XORed over the first 64 bytes of every 256 within the first 262,144 bytes,
 * behind the same start-code check; it reads exactly 16 bytes at _pucKey whatever _iKeyLen says. */
KX_API int aes_crypt(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter, const unsigned char *_pucKey,
                     int _iKeyLen);
KX_API int AES_CTR(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter, const unsigned char *_pucKey,
                   int _iKeyLen);
KX_API int video_AES_CTR(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter, const unsigned char *_pucKey,
                         int _iKeyLen);
KX_API int video_AES_CTR_EX(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter,
                            const unsigned char *_pucKey, int _iKeyLen);
/* One AES-128 CBC run with a zero IV through the byte-wise AES: _iSrcLen (0 to 16) bytes of _pcSrc under
 * the 16 bytes at _pucKey into _pucOut, which must have room for 16 bytes; a short source is padded
 * with zeros to a whole block. _iKeyLen is not read. 0, or -1 for a null pointer or a length outside
 * 0 to 16. */
KX_API int AES_ENC_STR(const char *_pcSrc, int _iSrcLen, const unsigned char *_pucKey, int _iKeyLen,
                       unsigned char *_pucOut);
/* 0 when the first four bytes of the buffer, XORed with the key repeated, give the start code. -1 for
 * null pointers, or a buffer or key below four bytes. The buffer is not changed. */
KX_API int CheckDecrypt(const unsigned char *_pucBuf, int _iBufLen, const unsigned char *_pucKey, int _iKeyLen);
/* Rotates the first _iBufLen bytes (1 to 16) left by _iShift (1 to _iBufLen - 1); else does nothing. */
KX_API void str_leftshift(unsigned char *_pucBuf, int _iBufLen, int _iShift);
/* @section crypto */

/* ======================================================================================
 * Stream analysis: frames, encryption, I-frame index, user data
 * ====================================================================================== */
/* The 32-byte header in front of every media frame; little-endian, read in place. The payload
 * (uiPayloadLen bytes, an Annex B stream for video) and usExtCount x usExtSize bytes of extension
 * units follow it. usFrameFlags: bits 0-1 encryption state, bits 6-7 enhancement state, where only
 * the value 2 means yes. */
typedef struct __S_FrameHeader {
    uint8_t aucHeadReserved[4];
    uint32_t uiFrameLen; /* the whole frame, these 32 bytes included */
    uint8_t ucFrameAttr;
    uint8_t aucAttrReserved[3];
    uint32_t uiFrameNo; /* counter of the frame ciphers; consecutive for split user data */
    uint32_t uiFrameInfo;
    uint32_t uiPayloadLen;
    uint16_t usExtCount;
    uint16_t usExtSize;
    uint8_t aucFlagsReserved[2];
    uint16_t usFrameFlags;
} __S_FrameHeader;

/* What SA_GetStreamInfo reports of a frame and of the stream head block that goes with it. */
typedef struct TStreamInfo {
    int32_t iHeadWord2;      /* unsigned 16-bit word at offset 2 of the stream head block */
    int32_t iHeadWord4;      /* word at offset 4 */
    int32_t iFrameInfo;      /* uiFrameInfo of the header */
    int32_t iFrameAttr;      /* ucFrameAttr of the header */
    int32_t iStreamKind;     /* always 1 */
    int32_t iHeadWord0;      /* word at offset 0 */
    int32_t iStreamReserved; /* always 0 */
} TStreamInfo;

/* Reports what a frame header and a stream head block (at least 88 bytes) say: builds a TStreamInfo and
 * copies its first _iOutSize bytes (28 at most) to _pvOutBuf. _iFrameLen is not read. Results, tested in
 * this order: -1 null output, -2 null frame, -3 invalid frame header, -4 null stream head block, -5 stream
 * head block shorter than 88 bytes, 0 written. Logs nothing. */
KX_API int SA_GetStreamInfo(const unsigned char *_pucStreamHead, int _iStreamHeadLen,
                            const unsigned char *_pucFrameBuf, int _iFrameLen, void *_pvOutBuf,
                            int _iOutSize);
/* Counts NAL units of a buffer: 1 when it looks like an H.264 Annex B byte stream (SPS, PPS, an IDR slice or
 * more than three slices, no forbidden header), 0 when not, -1 for a null buffer. */
KX_API int H264_Probe(const unsigned char *_pucBuf, int _iLen);
/* 1 when the buffer looks like an H.265 Annex B byte stream (VPS, SPS, PPS and an IRAP picture, no forbidden
 * header), 0 when not, -1 for a null buffer. */
KX_API int H265_Probe(const unsigned char *_pucBuf, int _iLen);

/* @section stream_frame */
/* Frame encryption, in place. The key is a zero-terminated text of at least one character; for
 * enhanced frames 16 bytes must be readable at it. SA_DecryptOneFrame deciphers a frame that its flags
 * mark as encrypted, in either mode: 0; -101 null frame; -104 a length below 1, or a plain frame below
 * 96 bytes; -102 an invalid header (or a buffer shorter than a header); -3 a clear frame; -2 a null or
 * empty key; -4 a wrong key or no frame (frame unchanged). SA_EncryptOneFrame enciphers payload bytes 0
 * to 63 (a frame whose uiFrameLen is below 96 stays clear, result 0); SA_EncryptOneFrameEx the first 64
 * bytes of every 256 within the first 262,144 bytes of what follows the header. Their codes: -101,
 * -104, -102, -2 as above (-104 also when a plain frame's buffer is below 96 bytes while its header
 * claims more), -3 when the cipher refuses. SA_DecryptAES runs AES_CTR over a bare buffer: 0, -101,
 * -104, -2, -4. */
KX_API int SA_DecryptOneFrame(unsigned char *_pucFrameBuf, int _iFrameLen, const unsigned char *_pucDecryptKey,
                              int _iDecryptKeyLen);
KX_API int SA_DecryptAES(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter,
                         const unsigned char *_pucDecryptKey, int _iDecryptKeyLen);
KX_API int SA_EncryptOneFrame(unsigned char *_pucFrameBuf, int _iFrameLen, const unsigned char *_pucDecryptKey,
                              int _iDecryptKeyLen);
KX_API int SA_EncryptOneFrameEx(unsigned char *_pucFrameBuf, int _iFrameLen, const unsigned char *_pucDecryptKey,
                                int _iDecryptKeyLen);
/* @section stream_crypt */
/* I-frame index block: a 44-byte head, then uiIndexCount items of uiIndexItemSize bytes each,
 * little-endian. Of an item only the first 12 bytes carry meaning (a shorter item reads as if padded
 * with zeros): a word handed back unchanged, iItemStamp (grows from item to item; a step that does
 * not grow is a restart) and uiSignMask (bit n-1 for sign type n). */
typedef struct TIFrameIndexHead {
    uint8_t aucReserved[32];
    uint32_t uiIndexCount;
    uint32_t uiIndexItemSize;
    uint8_t aucTailReserved[4];
} TIFrameIndexHead;

typedef struct TIFrameIndexItem {
    uint32_t uiItemWord;
    int32_t iItemStamp;
    uint32_t uiSignMask;
} TIFrameIndexItem;

/* In and out record of SA_GetIFrameInfo. */
typedef struct TIFrameInfoQuery {
    int32_t iMatchCount;    /* out, count mode: number of matching items */
    int32_t iWantedOrdinal; /* in, find mode: the wanted match, from 1; -1 selects count mode */
    int32_t iRestartCount;  /* out, find mode: restarts up to and including the found item */
    TIFrameIndexItem tItem; /* out, find mode: the first 12 bytes of the found item */
} TIFrameInfoQuery;

/* _iSignType 0 matches every item, 1..5 items with bit 0..4 of uiSignMask; 100..105 select the same
 * in count mode. *_piOutLen is the room at _pvOutBuf: find mode copies room - 12 bytes of the item
 * (at most 12) and the restart count when the room is above 12; a room above 24 is stored back as 24.
 * 0 (also when nothing was found), -101 null pointer, -104 block too short for its head or its items,
 * -100 bad sign type. */
KX_API int SA_GetIFrameInfo(int _iSignType, const void *_pvInBuf, int _iInBufSize, void *_pvOutBuf,
                            int *_piOutLen);
/* @section stream_iframe */

/* --- User data embedded in frames ---------------------------------------------------------------------
 * Devices put a user-data unit into the coded stream of a frame, as an SEI NAL unit of a private payload
 * type: a start pattern (00 00 00 01 06 F0/F1 for H.264, 00 00 00 01 4E 01 F0/F1 for H.265), size bytes
 * (each adds to the size, 255 continues the run), the container with emulation-prevention bytes, and one
 * trailing byte. The container is a TUserDataHeader and blocks, each a TUserDataBlockHead and its payload.
 * Everything is little-endian and runs on the caller's thread without allocating. */

/* The range of information types that a user-data query accepts; 255 asks for all types. */
#define GET_USERDATA_INFO_MIN 0
#define GET_USERDATA_INFO_MAX 46

/* Head of a container: tag "QZST" complete, "QZSS" first, "QZSC" further, "QZSE" last fragment of a
 * container split over consecutive frames. */
typedef struct TUserDataHeader {
    uint8_t aucTag[4];
    uint16_t usBlockCount; /* blocks behind the header; in a further fragment its index */
    uint16_t uiDataLen;    /* bytes behind the header */
} TUserDataHeader;

/* Head of one block; the next block starts 4 + usLen bytes behind it. */
typedef struct TUserDataBlockHead {
    uint16_t usType;
    uint16_t usLen;
} TUserDataBlockHead;

/* Frame fields handed to the user-data callback; valid only during the call. */
typedef struct TUserDataFrameInfo {
    int32_t iSize;        /* 16 */
    uint32_t uiFrameNo;   /* of the frame header; 0 without one */
    uint32_t uiFrameAttr; /* ucFrameAttr, widened */
    uint32_t uiFrameInfo;
} TUserDataFrameInfo;

/* The caller's user-data callback. iType is a decoder's type number (0 to 44), the block type of a block
 * passed on raw, or 0xFFFFFF when the walk over a container has ended (no data, length 0). It runs on the
 * calling thread inside the analysis; pvData is valid only during the call. The result is not read. */
typedef int (*UserDataCallback)(int iCbHandle, int iType, const void *pvData, int iLen,
                                TUserDataFrameInfo *ptFrameInfo, void *pvCbUser);

/* One frame's parameters, carried through every analysis and decoder; nobody changes it. */
typedef struct _tagInnerFramePara {
    int32_t iSize;                 /* 72; not read */
    int32_t iEncode;               /* 21 or 22 H.264, 23 H.265: selects the start patterns */
    int32_t iFlag;                 /* block type asked for; 0xFFFF for all */
    int32_t iCbHandle;             /* first argument of the callback */
    const __S_FrameHeader *ptFrmHeader;
    UserDataCallback pfnUserDataCb; /* may be null */
    void *pvCbUser;                /* last argument of the callback */
    int32_t iSplitStateSize;
    void *pvSplitState;            /* the caller's split-container state, may be null */
    const unsigned char *pucData;  /* first byte behind the frame header */
    int32_t iDataLen;              /* bytes behind the frame header */
    int32_t iTypeMask;             /* block-type bits wanted by the two-layout analysis */
} _tagInnerFramePara;

/* Reports one block to the callback of _ptPara with a TUserDataFrameInfo built from its frame header.
 * A null _ptPara logs an error; a null callback does nothing. */
KX_API void DevCallbackFunc(int iType, const _tagInnerFramePara *_ptPara, const void *pvData, int iLen);
/* Position of the first occurrence of the pattern in the buffer, -1 for none (or a null or empty one). */
KX_API int FindPosByFlag(const unsigned char *_pucBuf, int _iLen, const void *_pvFlag, int _iFlagLen);

/* --- Decoded records --- */

/* A time block, in UTC calendar fields (no zone, no daylight saving) and as it came. */
typedef struct __S_AbsoluteTime {
    uint16_t usYear;
    uint16_t usMonth;  /* 1 to 12 */
    uint16_t usDay;    /* 1 to 31 */
    uint16_t usHour;
    uint16_t usMinute;
    uint16_t usSecond;
    uint32_t uiSeconds; /* seconds since 1970-01-01 00:00:00 UTC */
} __S_AbsoluteTime;

typedef struct tagUserDefineData {
    int32_t iSize; /* set to 72 */
    uint8_t aucData[64];
    int32_t iDataSize; /* bytes stored */
} tagUserDefineData;

/* Licence plates. The caller sets iEntrySize (bytes taken of each plate, at most 120) before the call; at
 * most 10 plates are stored, and iCount says how many. */
typedef struct tagLprInfo {
    int32_t iCount;
    int32_t iEntrySize;
    uint8_t atEntry[10][120];
} tagLprInfo;

/* Output of a query for all types: every decoder writes its own field and sets its valid flag. The
 * caller clears the record before each frame and sets tLpr.iEntrySize. */
typedef struct tagUserDataAll {
    __S_AbsoluteTime tAbsTime;
    tagUserDefineData tUserDefine;
    uint8_t aucVitalSign[552];
    uint8_t aucDemographics[536];
    tagLprInfo tLpr;
    uint8_t bTimeValid;
    uint8_t bUserDefineValid;
    uint8_t bDemographicsValid;
    uint8_t bLprValid;
    uint8_t bVitalSignValid;
    uint8_t aucReserved1[515];
    uint8_t aucOsd1[544];
    uint8_t aucOsd2[544];
    uint8_t aucLdc[136];
    uint8_t aucOsd4[544];
    uint8_t aucOsd7[544];
    uint8_t ucReserved2;
    uint8_t bOsd1Valid;
    uint8_t bOsd2Valid;
    uint8_t bLdcValid;
    uint8_t bOsd4Valid;
    uint8_t bOsd7Valid;
    uint8_t aucZfMark[12];
    uint8_t bZfMarkValid;
} tagUserDataAll;

/* Output of the two-layout analysis: slots that the caller fills in before the call. A null pointer turns
 * the storing of that kind off. Where a size is "in and out" it comes in as the capacity of the buffer and
 * goes out as the bytes stored, so set it anew before each frame. Sizes of 0 or below store nothing. The
 * sizes marked "not read" are not looked at: those buffers must hold the size given beside them. */
typedef struct tagUserDataOut {
    int32_t iOsdSize;          /* not read */
    void *pOsd;                /* 544 bytes */
    int32_t iVcaSize;          /* size of the record at pVca */
    void *pVca;                /* tagVcaTargetGet */
    int32_t iTimeSize;         /* not read */
    void *pTime;               /* __S_AbsoluteTime */
    int32_t iLprSize;          /* not read */
    void *pLpr;                /* tagLprInfo, iEntrySize set */
    int32_t iDemographicsSize; /* not read */
    void *pDemographics;       /* 536 bytes */
    int32_t iVitalSignSize;    /* not read */
    void *pVitalSign;          /* 552 bytes */
    int32_t iLdcSize;          /* not read */
    void *pLdc;                /* 136 bytes */
    int32_t iZfMarkSize;       /* not read */
    void *pZfMark;             /* 12 bytes */
    int32_t iVcaStampSize;     /* capacity at pVcaStamp */
    void *pVcaStamp;           /* VCA time stamp of an old container, up to 4 bytes */
    int32_t iUserDefineSize;   /* not read */
    void *pUserDefine;         /* tagUserDefineData */
    int32_t iVcaAttrSize;      /* in and out */
    void *pVcaAttr;            /* VCA attributes of an old container */
    int32_t iVcaStampNewSize;  /* capacity at pVcaStampNew */
    void *pVcaStampNew;        /* VCA time stamp of a new container */
    int32_t iVcaAttrNewSize;   /* in and out */
    void *pVcaAttrNew;         /* VCA attributes of a new container */
    int32_t iWaterMarkVideoSize; /* in and out */
    void *pWaterMarkVideo;
    int32_t iWaterMarkUserSize; /* in and out */
    void *pWaterMarkUser;
    const unsigned char *pucFrameRest; /* out: first byte behind the new user-data unit in the frame */
    int32_t iFrameRestLen;             /* out: bytes from there to the end of the frame's data */
    int32_t iPoliceClothSize;  /* in and out */
    void *pPoliceCloth;
    int32_t iVestClothSize;    /* in and out */
    void *pVestCloth;
    int32_t iHmacSize;         /* in and out */
    void *pHmac;
    int32_t iCheckHmacSize;    /* in and out */
    void *pCheckHmac;
    int32_t iPtzPosSize;       /* in and out */
    void *pPtzPos;
    int32_t iTrackStyleSize;   /* in and out */
    void *pTrackStyle;
    int32_t iReservedSize;     /* not read */
    void *pReserved;           /* not read */
    int32_t iWatermarkAddSize; /* in: capacity, the buffer holds 4 more; out: bytes stored, head included */
    void *pWatermarkAdd;
} tagUserDataOut;

/* One VCA target: four coordinates (x, y, x, y) and four words passed on as they are. */
typedef struct TVcaTarget {
    uint16_t ausWord[8];
} TVcaTarget;

typedef struct TVcaTargetRaw {
    uint16_t ausWord[8];
    int32_t iValid; /* 1 once the entry is written */
} TVcaTargetRaw;

/* Output of the VCA decoders. The caller clears it before each frame: the counts grow from what they
 * hold. Scaled targets are in a 176 x 144 grid; entry n of a raw table belongs to entry n of its scaled
 * table. */
typedef struct tagVcaTargetGet {
    uint16_t usTargetCount;
    TVcaTarget atTarget[32];
    uint16_t usTargetNewCount;
    TVcaTarget atTargetNew[128];
    int32_t iRawLen;
    uint8_t aucRaw[1024];
    TVcaTargetRaw atSrcVideo[32];
    int32_t iSrcVideoWidth;
    int32_t iSrcVideoHeight;
    int32_t iSrcVideoSizeValid;
    TVcaTargetRaw atTargetRaw[32];
    TVcaTargetRaw atTargetNewRaw[128];
    int32_t iSrcVideoSizeEnable;
} tagVcaTargetGet;

/* --- Decoders ---
 * Each takes one block's payload (valid only during the call), stores what it holds in the caller's
 * output and reports the block through DevCallbackFunc with its type number. None returns a result; a
 * fault costs that block alone. _ptPara is only handed on to DevCallbackFunc.
 * With _bAll false _pvOutBuf is the record of the decoder's own kind; with _bAll true it is a
 * tagUserDataAll, and the decoder writes its field there and sets its valid flag. A null _pvOutBuf stores
 * nothing, and the callback then gets the block's whole length; with an output it gets the stored one. */

/* 0xFED3, type 0: seconds since 1970 (up to 4 bytes; a shorter block counts as zero-padded). */
KX_API void GetFrameAbsoluteTime(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                                 const _tagInnerFramePara *_ptPara);
/* 0x0001, type 4: the first 64 bytes into tagUserDefineData. */
KX_API void GetUserDefineData(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                              const _tagInnerFramePara *_ptPara);
/* 0xFEDA, type 5: the first 552 bytes. */
KX_API void GetVitalSignData(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                             const _tagInnerFramePara *_ptPara);
/* 0xFED9, type 6: the first 536 bytes. */
KX_API void GetDemographicsInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                                const _tagInnerFramePara *_ptPara);
/* 0xFED5, type 7 once for each plate: a signed 32-bit count, then the plates, each _iLen / count bytes
 * long. An entry length above iEntrySize is cut to it. */
KX_API void GetLPRInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                       const _tagInnerFramePara *_ptPara);
/* 0xFEDC, type 8: an OSD record of up to 544 bytes; with _bAll its sub-type (1, 2, 4, 7) picks the field. */
KX_API void GetOsdExInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                         const _tagInnerFramePara *_ptPara);
/* 0xFEDD, type 9: the first 136 bytes. */
KX_API void GetLdcInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                       const _tagInnerFramePara *_ptPara);
/* 0xFEDE, type 10: the first 12 bytes. */
KX_API void GetZFMarkInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                          const _tagInnerFramePara *_ptPara);
/* Copies a time block of exactly 4 bytes to *_puiOut unconverted. -1 for a null payload or output, else 0
 * (also when the length isn't 4 and nothing was copied). */
KX_API int GetFrameTimeInfo(const unsigned char *_pucData, int _iLen, unsigned long _ulReserved,
                            unsigned int *_puiOut);

/* The slot decoders: each copies the payload into its slot of tagUserDataOut (the smaller of _iLen and the
 * slot's size, which then says the bytes stored) and reports the block whole. Block type, callback type: */
KX_API void GetLawCaseData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                           const _tagInnerFramePara *_ptPara); /* 0xFEF1, 28; has no slot */
KX_API void GetWaterMarkVideoData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                  const _tagInnerFramePara *_ptPara); /* 0xFEF2, 29 */
KX_API void GetWaterMarkUserData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                 const _tagInnerFramePara *_ptPara); /* 0xFEF3, 30 */
KX_API void GetPoliceClothInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                               const _tagInnerFramePara *_ptPara); /* 0xFEF4, 31 */
KX_API void GetVestClothInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                             const _tagInnerFramePara *_ptPara); /* 0xFEF5, 32 */
KX_API void GetHmacInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                        const _tagInnerFramePara *_ptPara); /* 0xFEF7, 34 */
KX_API void GetCheckHmacInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                             const _tagInnerFramePara *_ptPara); /* 0xFEFA, 37 */
KX_API void GetTargetTrackStyle(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                const _tagInnerFramePara *_ptPara); /* 0xFEFC, 40 */
/* 0xFEFE, 42: given the block from its 4-byte head on. The slot's buffer holds iWatermarkAddSize + 4
 * bytes; up to that many are stored, and the size goes out as the bytes stored, head included. The
 * analysis offers every such block of a frame the size that the caller gave. */
KX_API void GetWatermarkAddData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                const _tagInnerFramePara *_ptPara);

/* VCA decoders. _pvOutBuf is a tagVcaTargetGet of iOutSize bytes; nothing is written past iOutSize, and
 * with _bAll true (an all-types record has no VCA area) nothing is stored and only the callback runs. */
/* 0xFED2, type 3: a 16-bit count and up to 16 targets of 16 bytes, stored unscaled; the payload as it came
 * goes to aucRaw when iOutSize reaches it. */
KX_API void GetVcaTargetnfo(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                            const _tagInnerFramePara *_ptPara);
/* 0xFEE3 in an old container, type 43: 18-byte target records, appended to atTarget (scaled to 176 x 144)
 * and atTargetRaw, at most 16 from one block and 32 in all. A null payload or output stops it silently. */
KX_API void GetVcaTargetnfoEx(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                              const _tagInnerFramePara *_ptPara);
/* 0xFEE3 in a new container, type 44: as GetVcaTargetnfoEx into atTargetNew and atTargetNewRaw, at most
 * 128. */
KX_API void GetVcaTargetnfoNew(const void *_pUDData, int _iLen, tagVcaTargetGet *_pvOutBuf, int iOutSize,
                               const _tagInnerFramePara *_ptPara);
/* 0xFED7, type 38: source video width and height (two signed 32-bit values), stored when both are above 0. */
KX_API void GetVcaSrcVideoSize(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                               const _tagInnerFramePara *_ptPara);
/* 0xFEFB, type 39: sets iSrcVideoSizeEnable. */
KX_API void GetVcaSrcVideoSizeEnable(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf,
                                     int iOutSize, const _tagInnerFramePara *_ptPara);

/* --- User-data calls ---
 * Result codes: 0 done; -100 iType outside 0..46 (and not 255); -101 a required pointer is null, or a
 * position lies beyond the frame's data; -102 no frame, or an invalid header (also a buffer shorter than
 * a header); -104 iFrameLen 0 or below; -105 malformed user data; -106 a fragment of a split container
 * was stored and the container isn't complete yet (no decoder ran). */

/* The caller's record for containers that a device splits over consecutive frames (tags QZSS, QZSC,
 * QZSE). One for each stream, zeroed before the first frame and handed in with every frame. Slot n holds
 * the fragment of frame uiFirstFrameNo + n: slot 0 the first fragment whole, with its header, the others
 * the data behind their own header. A joined container must fit 10240 bytes; a fragment that would not
 * fit, or that claims more data than it carries, is refused with -105 and nothing is stored. */
typedef struct TUserDataSplitState {
    uint32_t uiFirstFrameNo; /* frame of the first fragment */
    uint32_t uiLastFrameNo;  /* frame of the latest fragment stored */
    int32_t iFragCount;      /* fragments collected */
    int32_t aiFragLen[10];   /* bytes in each slot */
    uint8_t aucFrag[10][1024];
} TUserDataSplitState;

/* Input of SA_GetUserDataInfoEx. A shorter record (by _iInParamSize) counts as zeros behind its end. */
typedef struct tagUserDataInfoPara {
    int32_t iSize;                    /* size of the record; not tested */
    int32_t iType;                    /* information type 0..46, or 255 for all */
    const unsigned char *pucFrameBuf; /* the frame, at its 32-byte header */
    int32_t iFrameLen;                /* bytes that the caller holds of the frame */
    int32_t iEncode;                  /* 21 or 22 H.264, 23 H.265; 41 no user data */
    int32_t iCbHandle;                /* first argument of the callback */
    UserDataCallback pfnUserDataCb;   /* may be null */
    void *pvCbUser;                   /* last argument of the callback */
    int32_t iSplitStateSize;          /* size of the buffer at pvSplitState */
    void *pvSplitState;               /* TUserDataSplitState of this stream, may be null */
    int32_t iTypeMask;                /* above 0: the two-layout analysis with this mask of block-type bits */
} tagUserDataInfoPara;

/* Finds and decodes the user data of one frame.
 * iTypeMask 0 or below, the single-frame analysis: an old container (F0) whose pattern stands within the
 * first 64 bytes behind the header; only blocks of iType are decoded, into _pvOutBuf as the record of
 * that type (a tagUserDataAll for 255; when _iOutBufSize is below the size of that record, it is left
 * alone and the blocks only reach the callback). A frame without the pattern gives 0.
 * iTypeMask above 0, the two-layout analysis: the frame's data must begin with an old or a new container
 * (else -105), an old one may have a new one behind it, blocks whose bit is set in the mask (all for type
 * 255) go to the slots of the tagUserDataOut at _pvOutBuf, and the frame's rest behind a new container is
 * reported in pucFrameRest and iFrameRestLen. iEncode 41 gives 0 at once.
 * Every walk over a container ends with a callback of type 0xFFFFFF. iFrameLen above uiFrameLen counts as
 * uiFrameLen. */
KX_API int SA_GetUserDataInfoEx(const tagUserDataInfoPara *pInParam, int _iInParamSize, void *_pvOutBuf,
                                int _iOutBufSize);
/* The single-frame analysis of an H.264 frame, without callback, split state or mask. */
KX_API int SA_GetUserDataInfo(int _iType, const unsigned char *_pucFrameBuf, int _iFrameLen, void *_pvOutBuf,
                              int _iOutBufSize);

/* The analyses behind SA_GetUserDataInfoEx, on a filled _tagInnerFramePara. The two-layout analysis: */
KX_API int InnerAnalyzeUserData(const _tagInnerFramePara *_pInParam, tagUserDataOut *_pOut, int _iOutSize);
/* The new container whose pattern may stand at _iOldUDLen of pucData; 0 when it doesn't stand there. */
KX_API int InnerAnalyzeNewUserData(const _tagInnerFramePara *_pInParam, int _iOldUDLen, tagUserDataOut *_pOut,
                                   int _iOutSize);
/* The single-frame analysis over _iDataLen bytes of data; _pOut may be null (then only the callback). */
KX_API int AnalyzeUserDataInOneFrame(const _tagInnerFramePara *_ptPara, const unsigned char *_pucData,
                                     int _iDataLen, void *_pOut, int _iOutSize);

/* @section stream_userdata */

#ifdef __cplusplus
} /* extern "C" */

/* Declarations whose signatures take C++ references. */
extern "C" {
/* Removes emulation-prevention bytes (the 03 of every 00 00 03) from a container of _iSize stated bytes:
 * the target (_iLimit bytes; nothing is written beyond it) receives the stated number of bytes, and
 * _iSize goes out as the bytes consumed from the source, the stated size plus one for each 03 removed.
 * The source must hold that many bytes. Always 0. */
KX_API int RevertUserData(const unsigned char *_pucSrc, unsigned char *_pucDst, int &_iSize, int _iLimit);
/* Copies the first 8 bytes of a container into the header and gives its tag: 0 QZST, 1 QZSS, 2 QZSC,
 * 3 QZSE, -1 another tag (the header is copied all the same) or a null buffer (the header is left alone). */
KX_API int GetUserdataFlagType(const unsigned char *_pucData, TUserDataHeader &_tHeader);
/* The old container behind the size bytes at _iOffset of pucData, of _iUserDataSize stated bytes (9 to
 * 1024), with the split state of _pInParam. _iUserDataSize goes out as the bytes that the container takes
 * in the stream (stated size plus the emulation-prevention bytes), where a new container may follow
 * behind one trailing byte. 0, -101, -105 or -106. */
KX_API int InnerAnalyzeOldUserData(const _tagInnerFramePara *_pInParam, int _iOffset, int &_iUserDataSize,
                                   tagUserDataOut *_pOut, int _iOutSize);
}
/* @section cplusplus */
#endif

#endif /* KORVEX_KORVEX_H */
