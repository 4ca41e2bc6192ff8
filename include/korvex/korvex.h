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
/* @section link */

/* ======================================================================================
 * Command engine
 * ====================================================================================== */
/* @section pap */

/* ======================================================================================
 * Function maps and common helpers
 * ====================================================================================== */
/* @section function_map */
/* @section os_helpers */

/* ======================================================================================
 * INI files
 * ====================================================================================== */
/* @section ini */

/* ======================================================================================
 * Ciphers and digests
 * ====================================================================================== */
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

/* @section stream_frame */
/* @section stream_crypt */
/* @section stream_iframe */
/* @section stream_userdata */

#ifdef __cplusplus
} /* extern "C" */

/* Declarations whose signatures take C++ references. */
/* @section cplusplus */
#endif

#endif /* KORVEX_KORVEX_H */
