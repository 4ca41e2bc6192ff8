/**
 * @file korvex.h
 * @brief The one public header of libkorvex.
 *
 * libkorvex is the portable core of a client toolkit for network video devices: an event thread
 * serving pooled TCP clients with second-granular timers, TCP servers and UDP clients, a framed link
 * layer, a text command engine, work on single media frames (stream information, encryption, I-frame
 * indexes, embedded user data) and a levelled log with rotation.
 *
 * Usable from C11 and C++17. Every function has C linkage; the three functions whose signatures take
 * C++ references are only declared for C++.
 *
 * Conventions of results: runtime and socket calls give 1 on success and 0 on failure; send and read
 * calls give a byte count, 0 for would-block and -1 for failure; link and function-map calls give 0 or
 * a handle, -1 or null on failure; the SA_ calls give 0 or a negative code.
 *
 * Threads: "event thread" is the library's thread that serves TCP clients and timers; "any thread"
 * means the call may come from any thread, the event thread's callbacks included. The locks named
 * here and their order are on the page @ref threading. "Logs" names the log line that a failure writes
 * through sdk_log_msg(), "logs the error" a level-100 record of the error group (see @ref log).
 */

/** @defgroup startup Start and stop
 *  @brief Library start and stop, the main lock and the event thread. */
/** @defgroup timers Timers
 *  @brief Second-granular timers served by the event thread.
 *  Any thread may create and destroy timers once sdk_os_startup() has run; both calls take the timer
 *  list lock. Callbacks run on the event thread with the main lock and the timer list lock held. */
/** @defgroup threads Mutexes and threads
 *  @brief Thin wrappers of POSIX mutexes and threads. */
/** @defgroup list List
 *  @brief A doubly linked list that copies its elements and carries its own recursive mutex. */
/** @defgroup maps Function maps
 *  @brief Function pointers bound to names or numbers, and a bounded string copy. */
/** @defgroup helpers Helpers
 *  @brief Stateless os_ helpers: copies, libraries, clocks, strings, files, text encodings. */
/** @defgroup log Log
 *  @brief Levelled log lines to standard error and to a rotated log file. */
/** @defgroup tcp_client TCP client
 *  @brief Pooled non-blocking TCP clients served by the event thread. */
/** @defgroup tcp_server TCP server
 *  @brief Pooled listening TCP sockets; connections are taken by polling. */
/** @defgroup udp_client UDP client
 *  @brief Pooled non-blocking UDP sockets polled by their owner. */
/** @defgroup link Link
 *  @brief Framed device protocols over one TCP client: receive buffer, parser, send queue. */
/** @defgroup pap Command engine
 *  @brief Text commands dispatched through a tree of registered keys. */
/** @defgroup ini INI files
 *  @brief Reading and writing single values of an INI file. */
/** @defgroup ciphers Ciphers
 *  @brief AES-128 (byte-wise), table AES, MD5 and the frame cipher modes. */
/** @defgroup frames Frames
 *  @brief The media frame header, stream information, codec probes, frame encryption, I-frame index. */
/** @defgroup userdata User data
 *  @brief Finding and walking the user data that devices embed in H.264/H.265 frames. */
/** @defgroup decoders Decoders
 *  @brief One decoder per kind of user-data block, storing into the caller's records. */

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
/** @addtogroup threads
 *  Every call here may come from any thread. A null mutex or thread pointer logs the error "mutex is
 *  null" or "thr is null" and gives 0.
 *  @{ */

/** A mutex: a platform mutex in memory that the caller owns (sdk_mutex_init()) or that
 *  sdk_mutex_create() allocated. All mutex calls take its address. */
typedef pthread_mutex_t sdk_mutex_t;
/** A thread id, as sdk_thread_create() stores it. */
typedef pthread_t sdk_thread_t;
/** Start function of a thread made by sdk_thread_create().
 *  @param arg the value given to sdk_thread_create().
 *  @return the thread's result, which sdk_thread_join() drops. */
typedef void *(*sdk_thread_func)(void *arg);

/** Initialises a mutex in the caller's storage.
 *  @param mutex storage for the mutex.
 *  @param recursive non-zero for a recursive mutex, 0 for the platform's default kind.
 *  @return 1 on success, 0 on failure; a null mutex logs "mutex is null" and gives 0. */
KX_API int sdk_mutex_init(sdk_mutex_t *mutex, int recursive);
/** Allocates and initialises a mutex. Free it with sdk_mutex_free().
 *  @param recursive non-zero for a recursive mutex.
 *  @return the mutex, or null on failure (logs the error "mutex is null" or
 *          "!sdk_os_mutex_init(mutex, recursive)"). */
KX_API sdk_mutex_t *sdk_mutex_create(int recursive);
/** Destroys the platform mutex; the storage stays the caller's.
 *  @param mutex the mutex, unlocked.
 *  @return 1, or 0 for a null mutex or a refused destroy. */
KX_API int sdk_mutex_destroy(sdk_mutex_t *mutex);
/** Destroys and frees a mutex of sdk_mutex_create().
 *  @param mutex the mutex, unlocked (null logs "mutex is null").
 *  @return always 1. */
KX_API int sdk_mutex_free(sdk_mutex_t *mutex);
/** Blocks until the calling thread holds the mutex.
 *  @param mutex the mutex.
 *  @return 1, or 0 for a null mutex or a failed lock. */
KX_API int sdk_mutex_lock(sdk_mutex_t *mutex);
/** Takes the mutex without blocking.
 *  @param mutex the mutex.
 *  @return 1 when taken, 0 when another thread holds it (or for a null mutex). */
KX_API int sdk_mutex_try_lock(sdk_mutex_t *mutex);
/** Releases the mutex.
 *  @param mutex the mutex, held by the calling thread.
 *  @return 1, or 0 for a null mutex or a failed unlock. */
KX_API int sdk_mutex_unlock(sdk_mutex_t *mutex);

/** Creates a joinable thread.
 *  @param thr where the thread id goes.
 *  @param stack_size stack size in bytes; 0 means 1 MiB.
 *  @param func the start function.
 *  @param arg its argument.
 *  @return 1, or 0 on failure (logs the error "pthread_create fail"). */
KX_API int sdk_thread_create(sdk_thread_t *thr, uint32_t stack_size, sdk_thread_func func, void *arg);
/** Waits for a thread to end; its result is dropped.
 *  @param thr the thread id.
 *  @return 1 on success, 0 on failure. */
KX_API int sdk_thread_join(sdk_thread_t *thr);
/** Detaches a thread.
 *  @param thr the thread id.
 *  @return 1 on success, 0 on failure. */
KX_API int sdk_thread_detach(sdk_thread_t *thr);
/** The calling thread.
 *  @return the calling thread's id. */
KX_API sdk_thread_t sdk_thread_self(void);
/** @} */

/* ======================================================================================
 * The locked list: a doubly linked list that copies its elements by value and carries its own
 * recursive mutex. Its operations take no lock: users bracket accesses with adt_dlist_lock and
 * adt_dlist_unlock. adt_dlist_* forwards unchanged to adt_os_dlist_*.
 * ====================================================================================== */
/** @addtogroup list
 *  The list copies each element by value into its node (one allocation for both) and owns those
 *  copies, never what a pointer element points to. Its operations take no lock: a user that shares a
 *  list between threads brackets every access and every walk with adt_dlist_lock() and
 *  adt_dlist_unlock(). The adt_dlist_ family forwards each call unchanged to its adt_os_dlist_
 *  namesake. Failures log the error with an empty text unless a function says otherwise. Any thread.
 *  @{ */

/** A node: two links, then the element's bytes inline in the same allocation. */
typedef struct _OS_DListNode {
    struct _OS_DListNode *next; /**< following node, null at the tail */
    struct _OS_DListNode *prev; /**< preceding node, null at the head */
    /* elem_size bytes of element data follow the two links, inline in the same allocation */
} _OS_DListNode;

/** A list and its recursive mutex. */
typedef struct _OS_DList {
    _OS_DListNode *head; /**< first node, null when empty */
    _OS_DListNode *tail; /**< last node, null when empty */
    uint32_t elem_size;  /**< bytes copied for each element */
    uint32_t count;      /**< number of nodes */
    sdk_mutex_t mutex;   /**< recursive; taken by adt_dlist_lock() */
} _OS_DList;

/** Creates an empty list.
 *  @param elem_size bytes of each element.
 *  @return the list, or null on a failed allocation. */
KX_API _OS_DList *adt_os_dlist_create(uint32_t elem_size);
/** Frees every node, destroys the mutex and frees the list. No thread may use or wait on it.
 *  @param dlist the list.
 *  @return 1, or 0 for a null list. */
KX_API int adt_os_dlist_destroy(_OS_DList *dlist);
/** Copies an element into a new node before ref: a null ref pushes at the front.
 *  @param dlist the list.
 *  @param ref a node of this list, or null.
 *  @param elem elem_size bytes to copy.
 *  @return the new node, or null for a null list or a failed allocation. */
KX_API _OS_DListNode *adt_os_dlist_insert(_OS_DList *dlist, _OS_DListNode *ref, const void *elem);
/** Copies an element into a new node after ref: a null ref appends at the back.
 *  @param dlist the list.
 *  @param ref a node of this list, or null.
 *  @param elem elem_size bytes to copy.
 *  @return the new node, or null for a null list or a failed allocation. */
KX_API _OS_DListNode *adt_os_dlist_add(_OS_DList *dlist, _OS_DListNode *ref, const void *elem);
/** The node after a node.
 *  @param node a node, or null.
 *  @return the following node; null at the tail or for a null node. */
KX_API _OS_DListNode *adt_os_dlist_next(_OS_DListNode *node);
/** The node before a node.
 *  @param node a node, or null.
 *  @return the preceding node; null at the head or for a null node. */
KX_API _OS_DListNode *adt_os_dlist_prev(_OS_DListNode *node);
/** The first node.
 *  @param dlist the list, or null.
 *  @return the first node, null when empty or for a null list. */
KX_API _OS_DListNode *adt_os_dlist_head(_OS_DList *dlist);
/** The last node.
 *  @param dlist the list.
 *  @return the last node, null when empty or for a null list. */
KX_API _OS_DListNode *adt_os_dlist_end(_OS_DList *dlist);
/** The number of nodes.
 *  @param dlist the list.
 *  @return the number of nodes, 0 for a null list. */
KX_API uint32_t adt_os_dlist_size(_OS_DList *dlist);
/** Tests for an empty list.
 *  @param dlist the list, not null.
 *  @return 1 when the list has no node, else 0. */
KX_API int adt_os_dlist_empty(_OS_DList *dlist);
/** Unlinks and frees a node.
 *  @param dlist the list.
 *  @param node a node of this list.
 *  @return 1, or 0 for a null list or node. */
KX_API int adt_os_dlist_delete(_OS_DList *dlist, _OS_DListNode *node);
/** Deletes a node and gives the one that followed it, for deleting while walking.
 *  @param dlist the list.
 *  @param node a node of this list.
 *  @return the next node; null after the last one and on failure ("dlist == NULL", "node == NULL"),
 *          so null ends a walk. */
KX_API _OS_DListNode *adt_os_dlist_delete_ex(_OS_DList *dlist, _OS_DListNode *node);
/** A node's element.
 *  @param node a node, not null.
 *  @return the address of the node's element copy. */
KX_API void *adt_os_dlist_getdata(_OS_DListNode *node);
/** Takes the list's recursive mutex.
 *  @param dlist the list.
 *  @return the result of sdk_mutex_lock(), 0 for a null list. */
KX_API int adt_os_dlist_lock(_OS_DList *dlist);
/** Releases the list's mutex.
 *  @param dlist the list.
 *  @return the result of sdk_mutex_unlock(), 0 for a null list. */
KX_API int adt_os_dlist_unlock(_OS_DList *dlist);

/** @copydoc adt_os_dlist_create */
KX_API _OS_DList *adt_dlist_create(uint32_t elem_size);
/** @copydoc adt_os_dlist_destroy */
KX_API int adt_dlist_destroy(_OS_DList *dlist);
/** @copydoc adt_os_dlist_insert */
KX_API _OS_DListNode *adt_dlist_insert(_OS_DList *dlist, _OS_DListNode *ref, const void *elem);
/** @copydoc adt_os_dlist_add */
KX_API _OS_DListNode *adt_dlist_add(_OS_DList *dlist, _OS_DListNode *ref, const void *elem);
/** @copydoc adt_os_dlist_next */
KX_API _OS_DListNode *adt_dlist_next(_OS_DListNode *node);
/** @copydoc adt_os_dlist_prev */
KX_API _OS_DListNode *adt_dlist_prev(_OS_DListNode *node);
/** @copydoc adt_os_dlist_head */
KX_API _OS_DListNode *adt_dlist_head(_OS_DList *dlist);
/** @copydoc adt_os_dlist_end */
KX_API _OS_DListNode *adt_dlist_end(_OS_DList *dlist);
/** @copydoc adt_os_dlist_size */
KX_API uint32_t adt_dlist_size(_OS_DList *dlist);
/** @copydoc adt_os_dlist_empty */
KX_API int adt_dlist_empty(_OS_DList *dlist);
/** @copydoc adt_os_dlist_delete */
KX_API int adt_dlist_delete(_OS_DList *dlist, _OS_DListNode *node);
/** @copydoc adt_os_dlist_delete_ex */
KX_API _OS_DListNode *adt_dlist_delete_ex(_OS_DList *dlist, _OS_DListNode *node);
/** @copydoc adt_os_dlist_getdata */
KX_API void *adt_dlist_getdata(_OS_DListNode *node);
/** @copydoc adt_os_dlist_lock */
KX_API int adt_dlist_lock(_OS_DList *dlist);
/** @copydoc adt_os_dlist_unlock */
KX_API int adt_dlist_unlock(_OS_DList *dlist);
/** @} */

/* ======================================================================================
 * Log. Levels: 100 error, 200 message, 300 debug; a sink takes a record whose level is at most its
 * threshold. Lines go to standard error and, while switched on, to the log file.
 * ====================================================================================== */
/** @addtogroup log
 *  A line reads "YYYY-MM-DD hh:mm:ss.mmm [MSG] text" (local time; errors in red on the terminal). The
 *  terminal sink is standard error. The file sink writes "log_sdk_YYYY-MM-DD_PID" in the directory of
 *  the running executable while an entry named "sdk" exists there; "sdk_log_config.ini" in that
 *  directory sets the two levels, the file size ("Size", MiB, then the file is rotated to a name ending
 *  in "old"), the retention ("SavaTime", days) and the free-disk guard ("FreePercent"), and is read
 *  again every three seconds by the event thread. Every call may come from any thread; each line is
 *  flushed before the call returns. An error record is written in four steps under the log buffer
 *  lock: sdk_log_buf_lock(), sdk_log_buf_date(), sdk_log_buf_msg() with the source position, then one
 *  of the _unlock calls with the message.
 *  @{ */

#define SDK_LOG_LEVEL_ERR 100 /**< error records ("[ERR] ", red on the terminal) */
#define SDK_LOG_LEVEL_MSG 200 /**< sdk_log_msg() records ("[MSG] ") */
#define SDK_LOG_LEVEL_DBG 300 /**< sdk_log_debug() records ("[DBG] ") */

#if defined(__GNUC__) || defined(__clang__)
#define KX_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define KX_PRINTF(f, a)
#endif

/** Writes a level-200 line.
 *  @param fmt printf format.
 *  @param ... its arguments. */
KX_API void sdk_log_msg(const char *fmt, ...) KX_PRINTF(1, 2);
/** Writes a level-300 line.
 *  @param fmt printf format.
 *  @param ... its arguments. */
KX_API void sdk_log_debug(const char *fmt, ...) KX_PRINTF(1, 2);
/** Opens an error record: takes the log buffer lock. Close it with one of the _unlock calls on the
 *  same thread. */
KX_API void sdk_log_buf_lock(void);
/** Appends the time and "[ERR] " to the open record.
 *  @return the characters added. */
KX_API int sdk_log_buf_date(void);
/** Appends formatted text to the open record (4093 bytes in all).
 *  @param fmt printf format.
 *  @param ... its arguments.
 *  @return the count that vsnprintf gives. */
KX_API int sdk_log_buf_msg(const char *fmt, ...) KX_PRINTF(1, 2);
/** Closes the record with the message, writes it at level 100 and releases the log buffer lock.
 *  @param fmt printf format.
 *  @param ... its arguments. */
KX_API void sdk_err_buf_msg_unlock(const char *fmt, ...) KX_PRINTF(1, 2);
/** Same as sdk_err_buf_msg_unlock().
 *  @param fmt printf format.
 *  @param ... its arguments. */
KX_API void sdk_log_buf_msg_unlock(const char *fmt, ...) KX_PRINTF(1, 2);
/** Same as sdk_err_buf_msg_unlock(); the process goes on.
 *  @param fmt printf format.
 *  @param ... its arguments. */
KX_API void sdk_log_buf_quit_unlock(const char *fmt, ...) KX_PRINTF(1, 2);
/** Closes the record like sdk_err_buf_msg_unlock() and appends ": " and the text of the calling
 *  thread's errno; the process goes on.
 *  @param fmt printf format.
 *  @param ... its arguments. */
KX_API void sdk_err_buf_quit_unlock(const char *fmt, ...) KX_PRINTF(1, 2);
/** Reads the two thresholds.
 *  @param level where the terminal threshold goes, or null.
 *  @param file_level where the file threshold goes, or null. */
KX_API void sdk_log_get_level(int *level, int *file_level);
/** Takes over the levels and the file switch for good: the configuration file no longer sets them
 *  (its size, retention and free-disk values still apply).
 *  @param level terminal threshold (100, 200 or 300).
 *  @param file_level file threshold.
 *  @param write_file 1 writes the log file, 0 not, whether or not the entry "sdk" exists. */
KX_API void sdk_log_set_level(int level, int file_level, int write_file);
/** Does nothing and returns; the library never calls it. */
KX_API void my_abort(void);
/** gettimeofday with a null time zone: the clock of the log lines.
 *  @param tv where the time goes.
 *  @param tz ignored.
 *  @return the result of gettimeofday. */
KX_API int os_gettimeofday(struct timeval *tv, void *tz);
/** @} */

/* ======================================================================================
 * Sockets: pooled records. Each starts with a one-byte type (1 TCP client, 0 TCP server, 4 UDP
 * client) and holds index (-1 while the slot is free) and session.
 * ====================================================================================== */

struct _NetTcpClient;
struct _NetTcpServer;
struct _NetUdpClient;

/** @ingroup tcp_client
 *  A TCP client callback (connect, disconnect, read, write). Runs on the event thread with the main
 *  lock held; on_disconnect also runs on the thread of net_tcp_client_close() or
 *  net_tcp_client_destroy(). It may call back into the library, close or destroy its own client
 *  included.
 *  @param client the client.
 *  @param arg the value bound with the callback.
 *  @return looked at for on_read only: -1 asks the event thread to close the client. */
typedef int (*NetTcpClientCallback)(struct _NetTcpClient *client, void *arg);
/** @ingroup tcp_server
 *  A server callback; stored by net_tcp_server_bind_accept() and never called.
 *  @param server the server.
 *  @param arg the value bound with it.
 *  @return not read. */
typedef int (*NetTcpServerCallback)(struct _NetTcpServer *server, void *arg);
/** @ingroup udp_client
 *  A UDP client callback; stored by the bind calls and never called.
 *  @param client the UDP client.
 *  @param arg the value bound with it.
 *  @return not read. */
typedef int (*NetUdpClientCallback)(struct _NetUdpClient *client, void *arg);

/** @ingroup tcp_client
 *  A TCP client: one slot of the client pool, from net_tcp_client_create() to
 *  net_tcp_client_destroy(). Read it through the get calls; the fields are the library's. */
typedef struct _NetTcpClient {
    uint8_t type;            /**< 1 */
    char remote_ip[16];      /**< peer address text */
    uint16_t remote_port;    /**< peer port, host order */
    char local_ip[16];       /**< local address text */
    uint16_t local_port;     /**< local port, host order */
    int32_t status; /**< 0 disconnected, 1 connecting, 2 connected */
    void *udata;             /**< net_tcp_client_set_udata() */
    NetTcpClientCallback on_connect; /**< after a connect completes */
    void *connect_arg;       /**< value of on_connect */
    NetTcpClientCallback on_disconnect; /**< once the connection is closed */
    void *disconnect_arg;    /**< value of on_disconnect */
    NetTcpClientCallback on_read; /**< when the socket is readable */
    void *read_arg;          /**< value of on_read */
    NetTcpClientCallback on_write; /**< in every pass in which the socket has room */
    void *write_arg;         /**< value of on_write */
    int32_t connectfd;       /**< the socket, -1 while closed */
    int32_t index;           /**< slot number, -1 while the slot is free */
    uint32_t session;        /**< counts the uses of the slot */
} _NetTcpClient;

/** @ingroup tcp_server
 *  A TCP server: one slot of the server pool, from net_tcp_server_create() to net_tcp_server_destroy(). */
typedef struct _NetTcpServer {
    uint8_t type;            /**< 0 */
    char local_ip[16];       /**< local address text */
    uint16_t local_port;     /**< local port, host order */
    int32_t status; /**< 0 not listening, 1 listening */
    NetTcpServerCallback on_accept; /**< stored only */
    void *accept_arg;        /**< value of on_accept */
    int32_t socketfd;        /**< the listening socket, -1 while closed */
    int32_t index;           /**< slot number, -1 while the slot is free */
    uint32_t session;        /**< counts the uses of the slot */
} _NetTcpServer;

/** @ingroup udp_client
 *  A UDP client: one slot of the UDP pool, from net_udp_client_create() to net_udp_client_destroy(). */
typedef struct _NetUdpClient {
    uint8_t type;            /**< 4 */
    char local_ip[16];       /**< local address text of the bind */
    uint16_t local_port;     /**< local port, host order */
    int32_t status; /**< 0 closed, 1 open */
    void *udata;             /**< net_udp_client_set_udata() */
    NetUdpClientCallback on_read; /**< stored only */
    void *read_arg;          /**< value of on_read */
    NetUdpClientCallback on_write; /**< stored only */
    void *write_arg;         /**< value of on_write */
    int32_t socketfd;        /**< the datagram socket */
    int32_t index;           /**< slot number, -1 while the slot is free */
    uint32_t session;        /**< counts the uses of the slot */
} _NetUdpClient;

/* ======================================================================================
 * Library lifecycle, main lock and timers
 * ====================================================================================== */

/** @ingroup timers
 *  A timer, made by sdk_timer_create(); opaque. */
typedef struct _SdkTimer _SdkTimer;
/** @ingroup timers
 *  A timer callback. Runs on the event thread with the main lock and the timer list lock held; it may
 *  create timers and destroy any timer, its own included. A timer destroyed during a tick is not
 *  called again, also later in the same tick.
 *  @param udata the value given to sdk_timer_create().
 *  @return not read. */
typedef int (*SdkTimerCallback)(void *udata);

/** @addtogroup startup
 *  The first start makes the event thread (watchers: TCP clients, timers, the log check) and the
 *  timer thread (one tick a second); both run to the end of the process. sdk_os_startup() and sdk_os_cleanup() and
 *  their inner_ forms are called from one thread at a time (the start count has no lock); the other
 *  calls here from any thread.
 *  @{ */
/** Starts the library. Counts nested starts; the first start builds the pools, the watcher table
 *  and the timer list and starts the event and timer threads, which run for the rest of the process;
 *  each start reads the log configuration and starts the log check timer.
 *  The client pool has max(clientnum, 200) slots; servernum sizes the server pool and the UDP pool.
 *  @param clientnum slots of the client pool; below 200 (0 too) gives 200.
 *  @param servernum slots of the server pool and of the UDP pool.
 *  A start that fails leaves the library as it was: the start count unchanged, and every descriptor,
 *  thread and pool of the attempt released, so a later start (once the cause is gone) runs afresh.
 *  @return 1 started or already started, 0 the engine start failed (the failing step logs, e.g.
 *          "sdk_thread_create s_os_main_thread fail"). */
KX_API int sdk_os_startup(uint32_t clientnum, uint32_t servernum);
/** Stops once. A stop that is not the last logs "[Cleanup]KORVEX Cleanup!". The last stop closes the
 *  server and UDP sockets and stops the log check; TCP clients and caller timers keep running.
 *  @return 1. */
KX_API int sdk_os_cleanup(void);
/** The engine start alone (pools, table, threads), without the start count and the log.
 *  @param clientnum slots of the client pool, as for sdk_os_startup().
 *  @param servernum slots of the server pool and of the UDP pool.
 *  @return 1, also when the engine runs already; 0 when a step failed, with all it made released. */
KX_API int inner_sdk_os_startup(uint32_t clientnum, uint32_t servernum);
/** Closes the sockets of the server and UDP pools.
 *  @return 1. */
KX_API int inner_sdk_os_cleanup(void);
/** Tells whether the engine was ever started.
 *  @return true from the end of the first successful engine start for the rest of the process, also
 *          after sdk_os_cleanup(). */
KX_API bool sdk_is_startup(void);
/** Takes the main lock (recursive; a thread may nest it). While a caller holds it the event thread
 *  serves no client and runs no callback; it waits at most for the callback that is running. */
KX_API void sdk_main_lock(void);
/** Releases the main lock. */
KX_API void sdk_main_unlock(void);
/** Sleeps.
 *  @param ms milliseconds. */
KX_API void sdk_os_sleep(uint32_t ms);
/** @} */
/** @ingroup timers
 *  Creates a timer. The timer thread ticks once a second; the event thread then advances every timer
 *  by 1000 ms, and a timer fires every ceil(period / 1000) ticks, at least every tick.
 *  Any thread, after sdk_os_startup(); takes the timer list lock.
 *  @param callback runs on the event thread under the main lock and the timer list lock.
 *  @param period milliseconds.
 *  @param udata handed to the callback.
 *  @return the timer, or null (logs "malloc fail", or the error before the engine start). */
KX_API _SdkTimer *sdk_timer_create(SdkTimerCallback callback, uint32_t period, void *udata);
/** @ingroup timers
 *  Removes and frees a timer. From another thread it waits for a running timer walk to end, so the
 *  callback has finished and will not run again. A callback may destroy any timer; one destroyed
 *  during the walk is freed when the walk ends.
 *  @param timer the timer.
 *  @return 1, or 0 for a null timer (logs "timer is null"), a timer destroyed already (logs
 *          "sdk_timer_destroy: ... is no timer (destroyed already?)") or a refused removal. */
KX_API int sdk_timer_destroy(_SdkTimer *timer);
/** @ingroup startup
 *  Accepted for compatibility; no effect.
 *  @param flag ignored.
 *  @return 0. */
KX_API int sdk_os_set_usr_flag(int flag);
/** @ingroup startup
 *  Accepted for compatibility; no effect.
 *  @param path ignored. */
KX_API void sdk_os_set_cur_path(void *path);

/* ======================================================================================
 * TCP client
 * ====================================================================================== */
/** @addtogroup tcp_client
 *  A client is a slot of the pool of 200. Addresses are texts of at most 15 characters; a text that
 *  is no dotted IPv4 address takes the IPv6 road. Every call may come from any thread, the client's
 *  own callbacks included. Callbacks run on the event thread with the main lock held, in the order
 *  on_connect, on_write, on_read, on_disconnect within one pass; on_disconnect also runs on the thread
 *  of net_tcp_client_close() and net_tcp_client_destroy(), and on_connect on the thread of
 *  net_tcp_client_open() when the connect succeeds at once. A null client logs "client is null".
 *  @{ */
/** Takes a free slot of the pool (zeroed, disconnected). Takes the pool lock.
 *  @return the client, or null when the pool is full (logs "client num out"). */
KX_API _NetTcpClient *net_tcp_client_create(void);
/** Closes the client and gives its slot back. Takes the main lock.
 *  @param client the client; destroying a free slot logs "client: %x destroy err" and ends the process.
 *  @return 1, or 0 for null. */
KX_API int net_tcp_client_destroy(_NetTcpClient *client);
/** Closes the socket and calls on_disconnect if it was connecting or connected; the addresses and
 *  callbacks stay, and the client can be opened again. Takes the main lock.
 *  @param client the client.
 *  @return 1, 0 for null. */
KX_API int net_tcp_client_close(_NetTcpClient *client);
/** Sets the peer, only while disconnected.
 *  @param client the client.
 *  @param ip address text, at most 15 characters.
 *  @param port port in host order.
 *  @return 1, or 0 with nothing stored ("client is null or ip is null", "ip length out",
 *          "client is not disconnect"). */
KX_API int net_tcp_client_set_remote(_NetTcpClient *client, const char *ip, uint16_t port);
/** Sets the local address of the next open, only while disconnected; empty and 0 mean any.
 *  @param client the client.
 *  @param ip address text, at most 15 characters.
 *  @param port port in host order.
 *  @return 1, or 0 as net_tcp_client_set_remote(). */
KX_API int net_tcp_client_set_local(_NetTcpClient *client, const char *ip, uint16_t port);
/** Copies the peer's address and port.
 *  @param client the client.
 *  @param ip room for 16 bytes.
 *  @param port where the port goes.
 *  @return 1, or 0 for a null argument (logs "client is null or ip is null or port is NULL"). */
KX_API int net_tcp_client_get_remote(_NetTcpClient *client, char *ip, uint16_t *port);
/** Copies the local address and port (known after the connection is made).
 *  @param client the client.
 *  @param ip room for 16 bytes.
 *  @param port where the port goes.
 *  @return 1, or 0 for a null argument. */
KX_API int net_tcp_client_get_local(_NetTcpClient *client, char *ip, uint16_t *port);
/** The connection state.
 *  @param client the client.
 *  @return 0 disconnected, 1 connecting, 2 connected; -1 for null. */
KX_API int net_tcp_client_get_status(_NetTcpClient *client);
/** Opens the client, only while disconnected (else logs "client is not disconnect" and gives 0).
 *  fd -1: makes a non-blocking socket, enters it in the event thread's table and starts connect,
 *  which returns at once; the event thread reports the outcome through on_connect or on_disconnect.
 *  Any other fd: adopts that connected descriptor as it is; the event thread does not serve it and its
 *  owner reads and sends directly.
 *  @param client the client.
 *  @param fd -1, or a connected descriptor (e.g. from net_tcp_server_accept()).
 *  @return 1 or 0 (e.g. "socket fail"). */
KX_API int net_tcp_client_open(_NetTcpClient *client, int fd);
/** One non-blocking send. It may race a close on another thread: it either ends before the close
 *  or finds the client closed and gives -1, so its bytes never reach a socket that took the
 *  descriptor number after the close.
 *  @param client the client.
 *  @param data the bytes.
 *  @param len their number.
 *  @return bytes taken (maybe fewer than len), 0 would block or still connecting, -1 failure or a null
 *          argument ("client is null", "data is null"). */
KX_API int net_tcp_client_send(_NetTcpClient *client, const char *data, uint32_t len);
/** One non-blocking recv.
 *  @param client the client.
 *  @param buf where the bytes go.
 *  @param len room at buf.
 *  @return bytes read, 0 would block, -1 peer closed, failure, not connected or a null argument. */
KX_API int net_tcp_client_read(_NetTcpClient *client, char *buf, uint32_t len);
/** Stores a value for the owner; the library never interprets it.
 *  @param client the client.
 *  @param udata the value.
 *  @return 1, 0 for null. */
KX_API int net_tcp_client_set_udata(_NetTcpClient *client, void *udata);
/** The owner's value.
 *  @param client the client.
 *  @return the value of net_tcp_client_set_udata(), null for a null client. */
KX_API void *net_tcp_client_get_udata(_NetTcpClient *client);
/** Binds on_connect.
 *  @param client the client.
 *  @param cb the callback; null unbinds.
 *  @param arg its value.
 *  @return 1, 0 for a null client. */
KX_API int net_tcp_client_bind_connect(_NetTcpClient *client, NetTcpClientCallback cb, void *arg);
/** Binds on_disconnect.
 *  @param client the client.
 *  @param cb the callback; null unbinds.
 *  @param arg its value.
 *  @return 1, 0 for a null client. */
KX_API int net_tcp_client_bind_disconnect(_NetTcpClient *client, NetTcpClientCallback cb, void *arg);
/** Binds on_read. Without one the event thread drains and drops the stream.
 *  @param client the client.
 *  @param cb the callback; null unbinds.
 *  @param arg its value.
 *  @return 1, 0 for a null client. */
KX_API int net_tcp_client_bind_read(_NetTcpClient *client, NetTcpClientCallback cb, void *arg);
/** Binds on_write.
 *  @param client the client.
 *  @param cb the callback; null unbinds.
 *  @param arg its value.
 *  @return 1, 0 for a null client. */
KX_API int net_tcp_client_bind_write(_NetTcpClient *client, NetTcpClientCallback cb, void *arg);
/** Sets SO_RCVBUF of the open socket.
 *  @param client the client.
 *  @param len bytes.
 *  @return 1, or 0 for null ("client == NULL") or a refused option. */
KX_API int net_tcp_client_set_rcvbuf_len(_NetTcpClient *client, uint32_t len);
/** Accepted for compatibility; the version has no effect.
 *  @param client the client.
 *  @param ver ignored.
 *  @return 1, 0 for null. */
KX_API int net_tcp_client_set_ip_ver(_NetTcpClient *client, uint8_t ver);
/** @} */
/* @section tcp_client */

/* ======================================================================================
 * TCP server
 * ====================================================================================== */
/** @addtogroup tcp_server
 * A server is a bound, listening, non-blocking socket from the server pool (servernum slots). The event
 * thread doesn't serve it. Taking connections is polled:
 *
 *     int fd;
 *     if (net_tcp_server_accept(server, &fd) == 1) {     // 0: none pending, -1: failure
 *         _NetTcpClient *peer = net_tcp_client_create();
 *         net_tcp_client_open(peer, fd);                 // adopts the connected descriptor
 *         ... net_tcp_client_send / net_tcp_client_read on peer ...
 *     }
 *
 * An adopted client is not served by the event thread: its owner sends and reads directly.
 * Every call may come from any thread; close and destroy take the main lock.
 * @{ */
/** Takes a free slot of the server pool.
 *  @return the server, or null when the pool is full (logs "server num out"). */
KX_API _NetTcpServer *net_tcp_server_create(void);
/** Closes if listening (else logs "server is dislisten"), then gives the slot back.
 *  @param server the server.
 *  @return 1; 0 on null or a free slot. */
KX_API int net_tcp_server_destroy(_NetTcpServer *server);
/** Stops listening; the server can be opened again.
 *  @param server the server.
 *  @return 1 (a server that wasn't listening logs "server is dislisten"), 0 for null. */
KX_API int net_tcp_server_close(_NetTcpServer *server);
/** Stores the port, then the address if ip is not null; takes effect at the next open.
 *  @param server the server.
 *  @param ip IPv4 address text, or null to keep the address.
 *  @param port port in host order; 0 lets the system pick.
 *  @return 1, or 0 for a text that is no IPv4 address (logs "ip is fail"; the port stays stored). */
KX_API int net_tcp_server_set_local(_NetTcpServer *server, const char *ip, uint16_t port);
/** Copies 16 bytes of the address and the port as set (port 0 stays 0 after an open on port 0).
 *  @param server the server.
 *  @param ip room for 16 bytes.
 *  @param port where the port goes.
 *  @return 1, 0 for a null server. */
KX_API int net_tcp_server_get_local(_NetTcpServer *server, char *ip, uint16_t *port);
/** The listening state.
 *  @param server the server.
 *  @return 0 not listening, 1 listening; -1 for null. */
KX_API int net_tcp_server_get_status(_NetTcpServer *server);
/** Binds and listens: a dotted IPv4 address takes IPv4, any other text IPv6.
 *  @param server the server, not listening (else logs "server is not dislisten").
 *  @return 1 or 0 (logs the error "socket fail", "bind fail" or "listen fail"). */
KX_API int net_tcp_server_open(_NetTcpServer *server);
/** Stores a callback and its value; the library never calls it (connections are polled).
 *  @param server the server.
 *  @param callback the callback.
 *  @param arg its value.
 *  @return 1, 0 for null. */
KX_API int net_tcp_server_bind_accept(_NetTcpServer *server, NetTcpServerCallback callback, void *arg);
/** Accepts one pending connection without blocking. Caller's thread; the descriptor is the caller's
 *  until adopted.
 *  @param server a listening server.
 *  @param fd where the descriptor goes: connected, non-blocking, close-on-exec, ready for
 *            net_tcp_client_open().
 *  @return 1 accepted; 0 when none is pending; -1 on failure or a server that isn't listening. */
KX_API int net_tcp_server_accept(_NetTcpServer *server, int *fd);
/** @} */

/* @section tcp_server */

/* ======================================================================================
 * UDP client
 * ====================================================================================== */
/** @addtogroup udp_client
 *  A UDP client owns a non-blocking IPv4 datagram socket from create to destroy; its owner polls it
 *  (the event thread does not serve it). Every call may come from any thread; destroy takes the main
 *  lock. A null client logs "client is null" and gives 0 (-1 for send and read).
 *  @{ */
/** Takes a free slot of the UDP pool and makes its socket.
 *  @return the client, or null ("udp num out", "socket fail"). */
KX_API _NetUdpClient *net_udp_client_create(void);
/** Closes the socket and gives the slot back.
 *  @param client the client; a free slot logs "client: %x destroy err" and ends the process.
 *  @return 1, 0 for null. */
KX_API int net_udp_client_destroy(_NetUdpClient *client);
/** Marks the client closed; the socket stays bound and receiving until destroy.
 *  @param client the client.
 *  @return 1, 0 for null. */
KX_API int net_udp_client_close(_NetUdpClient *client);
/** Sets the address and port of the next bind.
 *  @param client the client.
 *  @param ip address text, at most 15 characters; empty for any.
 *  @param port port in host order; 0 lets the system pick.
 *  @return 1, or 0 with nothing stored ("client is null or ip is null", "ip length out"). */
KX_API int net_udp_client_set_local(_NetUdpClient *client, const char *ip, uint16_t port);
/** Copies the local address and port.
 *  @param client the client.
 *  @param ip room for 16 bytes.
 *  @param port where the port goes.
 *  @return 1, or 0 for a null argument. */
KX_API int net_udp_client_get_local(_NetUdpClient *client, char *ip, uint16_t *port);
/** The open state.
 *  @param client the client.
 *  @return 0 closed, 1 open; -1 for null. */
KX_API int net_udp_client_get_status(_NetUdpClient *client);
/** Binds the socket; a socket is bound once, so a second open gives 0.
 *  @param client the client.
 *  @return 1, or 0 (logs the error "bind fail"). */
KX_API int net_udp_client_open(_NetUdpClient *client);
/** Sends one datagram.
 *  @param client the client.
 *  @param data the bytes.
 *  @param len their number.
 *  @param ip destination address text.
 *  @param port destination port, host order.
 *  @return bytes sent; 0 would block; -1 on failure or a null argument ("data is null", "ip is null"). */
KX_API int net_udp_client_send(_NetUdpClient *client, const void *data, uint32_t len, const char *ip,
                               uint16_t port);
/** Reads one datagram, cut to len.
 *  @param client the client.
 *  @param data where the bytes go.
 *  @param len room at data.
 *  @param ip room for 16 bytes: the sender's address.
 *  @param port where the sender's port goes.
 *  @return bytes read; 0 when nothing waits; -1 on failure, for an empty datagram or a null argument. */
KX_API int net_udp_client_read(_NetUdpClient *client, void *data, uint32_t len, char *ip, uint16_t *port);
/** Stores a value for the owner.
 *  @param client the client.
 *  @param udata the value.
 *  @return 1, 0 for null. */
KX_API int net_udp_client_set_udata(_NetUdpClient *client, void *udata);
/** The owner's value.
 *  @param client the client.
 *  @return the value of net_udp_client_set_udata(), null for a null client. */
KX_API void *net_udp_client_get_udata(_NetUdpClient *client);
/** Stores a read callback; the library never calls it.
 *  @param client the client.
 *  @param callback the callback.
 *  @param arg its value.
 *  @return 1, 0 for null. */
KX_API int net_udp_client_bind_read(_NetUdpClient *client, NetUdpClientCallback callback, void *arg);
/** Stores a write callback; the library never calls it.
 *  @param client the client.
 *  @param callback the callback.
 *  @param arg its value.
 *  @return 1, 0 for null. */
KX_API int net_udp_client_bind_write(_NetUdpClient *client, NetUdpClientCallback callback, void *arg);
/** Allows sends to broadcast addresses and sets a multicast TTL of 64.
 *  @param client the client.
 *  @return 1, or 0 for a refused option (logs "ret == -1"). */
KX_API int net_udp_client_set_broadcast(_NetUdpClient *client);
/** Joins a multicast group on all interfaces.
 *  @param client the client.
 *  @param ip group address text.
 *  @return 1, or 0 ("ip is null", "ret == -1"). */
KX_API int net_udp_client_add_multicase(_NetUdpClient *client, const char *ip);
/** Leaves a multicast group.
 *  @param client the client.
 *  @param ip group address text.
 *  @return 1, or 0 as net_udp_client_add_multicase(). */
KX_API int net_udp_client_drop_multicase(_NetUdpClient *client, const char *ip);
/** @} */

/* @section udp_client */

/* ======================================================================================
 * Link layer
 * ====================================================================================== */
/** @addtogroup link
 *  A link frames device protocols over one TCP client: it gathers the stream in a 2048-byte buffer,
 *  cuts packets at their heads and hands each to the bound parser, and it sends through a queue that
 *  keeps what the socket refuses. Heads and body are little-endian.
 *
 *  Threads and locks: the parser runs on the event thread under the main lock and the link's process
 *  lock; a caller thread shuts it out with net_link_lock(). The send calls may come from any thread,
 *  the parser included; they take the link's send lock, which covers a packet's sequence number, its
 *  head and its body, so numbers go out in order and packets never interleave; the event thread
 *  flushes the queue when the socket has room. Null arguments log "param NULL" or "NULL == link" (error group).
 *  @{ */
#define LINK_BUF_SIZE 2048 /**< bytes of a link's receive buffer */
/* Head types handed to the parser. */
#define LINK_HEAD_COMMAND 0 /**< F1 F5 EA F5, u16 length at offset 6 (20-byte head) */
#define LINK_HEAD_DATA 1    /**< F1 F5 EA F9, u16 length at offset 14 */
#define LINK_HEAD_ODNS 2    /**< ODNS_DATAPACKHEAD: word 225, i32 length at offset 4 */
#define LINK_HEAD_MOBILE 3  /**< "MOBILEDEVICEIRRIHEAD": everything buffered behind it */

struct _NetLink;
struct NetLinkSupervisor;
/** The link's parser, called for each packet on the event thread, under the main lock and the link's
 *  process lock.
 *  @param link the link.
 *  @param udata the link's value (net_link_set_udata()).
 *  @param head_type LINK_HEAD_COMMAND, LINK_HEAD_DATA, LINK_HEAD_ODNS or LINK_HEAD_MOBILE.
 *  @param data the packet's head inside the link's buffer; valid only during the call.
 *  @param len head and body.
 *  @return 999 hands the same packet to the parser bound at that moment once more (so a parser may
 *          rebind and pass the packet on); any other value is ignored. */
typedef int (*NetLinkParaseCallback)(struct _NetLink *link, void *udata, int head_type, char *data, int len);
/** Called once for each connection that ends without net_link_destroy(), on the event thread under the
 *  main lock. The client can then be opened again, and the link is served again.
 *  @param link the link.
 *  @param udata the link's value.
 *  @return ignored. */
typedef int (*NetLinkDisconnectCallback)(struct _NetLink *link, void *udata);

/** A link. Use it through the calls below; the fields are the library's. */
typedef struct _NetLink {
    struct _NetTcpClient *client; /**< owned from net_link_set_core to net_link_destroy */
    _OS_DList *send_buf_ls;       /**< queue of unsent blocks, oldest first */
    char buf[LINK_BUF_SIZE];      /**< receive buffer */
    int32_t buf_len;              /**< bytes waiting in buf */
    NetLinkParaseCallback parase_protocol;      /**< the parser */
    NetLinkDisconnectCallback disconnect_protocol; /**< the disconnect callback */
    void *udata;                  /**< the owner's value */
    sdk_mutex_t *mtx_send;    /**< recursive; guards the send queue */
    int32_t time_count;       /**< time-out counter of the owner */
    int32_t type;             /**< 0, or a type whose read events clear time_count */
    uint32_t seq;             /**< sequence of the heads this link writes */
    sdk_mutex_t *mtx_process; /**< recursive; held around every parser call */
    int32_t ip_ver;           /**< 1: heads carry the address 0.0.0.0 */
    struct NetLinkSupervisor *sup; /**< the supervisor and the counters of net_link_get_stats() */
} _NetLink;

/** Creates a link with an empty queue. Order of use: create, bind the parser, net_link_set_core(),
 *  then net_tcp_client_open() on the client.
 *  @return the link, or null (logs "malloc faild" and the like). */
KX_API _NetLink *net_link_create(void);
/** Closes and gives back the client, drops the queue and frees the link; no client leads to the link
 *  afterwards. Takes the main lock, so it waits for an event of the link under way; do not call it
 *  while holding net_link_lock(). From the link's disconnect callback it is safe; inside the link's
 *  parser it is refused.
 *  @param link the link; null is no error.
 *  @return 0; -1 when called inside the link's own parser (logs the error "net_link_destroy ...
 *          refused: called inside the link's own read event"; the link stays). */
KX_API int net_link_destroy(_NetLink *link);
/** Hands the client to the link: the client's user data becomes the link and its read, write and
 *  disconnect callbacks are the link's. A client the link held before is detached and is the
 *  caller's again, to close and destroy: its user data is cleared and the link's callbacks are
 *  unbound; the rest of a packet begun on it is dropped from the queue, whole packets wait for the
 *  new client. Takes the main lock; do not call it while holding net_link_lock().
 *  @param link the link.
 *  @param client a disconnected client; the link owns it from now on.
 *  @return 0, or -1 (logs "NULL == link || NULL == client", "net_link_set_core: client ... belongs to
 *          link ..." for a client another link holds, or which bind failed). */
KX_API int net_link_set_core(_NetLink *link, struct _NetTcpClient *client);
/** Stores the owner's value, handed to the parser and the disconnect callback.
 *  @param link the link.
 *  @param udata the value (null is stored like any other).
 *  @return 0, -1 for a null link. */
KX_API int net_link_set_udata(_NetLink *link, void *udata);
/** The owner's value.
 *  @param link the link.
 *  @param udata where the value goes.
 *  @return 0, also for a null argument (logs "NULL == link", nothing stored). */
KX_API int net_link_get_udata(_NetLink *link, void **udata);
/** Binds the parser; it takes effect from the next packet.
 *  @param link the link.
 *  @param cb the parser; null unbinds.
 *  @return 0, -1 for a null link. */
KX_API int net_link_bind_parase_protocol(_NetLink *link, NetLinkParaseCallback cb);
/** Binds the disconnect callback.
 *  @param link the link.
 *  @param cb the callback; null unbinds.
 *  @return 0, -1 for a null link. */
KX_API int net_link_bind_disconnect_protocol(_NetLink *link, NetLinkDisconnectCallback cb);
/** Sets the address form of the heads.
 *  @param link the link.
 *  @param ver 1: the heads this link writes carry the address 0.0.0.0.
 *  @return 0, -1 for a null link. */
KX_API int net_link_set_ip_ver(_NetLink *link, int ver);
/** The address form of the heads.
 *  @param link the link.
 *  @return ip_ver, -1 for a null link. */
KX_API int net_link_get_ip_ver(_NetLink *link);
/** Sets the link's type.
 *  @param link the link.
 *  @param type 0, or a type whose read events clear the time-out counter.
 *  @return 0, -1 for a null link. */
KX_API int net_link_set_type(_NetLink *link, int type);
/** The link's type.
 *  @param link the link.
 *  @return the type, -1 for a null link. */
KX_API int net_link_get_type(_NetLink *link);
/** Takes the link's process lock: shuts the parser out while the owner changes what it reads. Do not
 *  close or destroy the link while holding it.
 *  @param link the link.
 *  @return the result of sdk_mutex_lock(); -1 for a null link. */
KX_API int net_link_lock(_NetLink *link);
/** Releases the process lock.
 *  @param link the link.
 *  @return the result of sdk_mutex_unlock(); -1 for a null link. */
KX_API int net_link_unlock(_NetLink *link);
/** Adds 1 to the owner's time-out counter.
 *  @param link the link.
 *  @return 0, -1 for a null link. */
KX_API int net_link_time_add(_NetLink *link);
/** Adds count to the owner's time-out counter.
 *  @param link the link.
 *  @param count the amount.
 *  @return 0, -1 for a null link. */
KX_API int net_link_time_add_ex(_NetLink *link, int count);
/** Tests the time-out counter.
 *  @param link the link.
 *  @return 1 once the time-out counter reached 60, else 0 (also for null). */
KX_API int net_link_check_timeout(_NetLink *link);
/** The peer of the link's client.
 *  @param link the link.
 *  @param ip room for 16 bytes.
 *  @param port where the port goes.
 *  @return 1 or 0 as net_tcp_client_get_remote(), -1 for a null argument. */
KX_API int net_link_get_remote(_NetLink *link, char *ip, uint16_t *port);
/** Sends bytes as they are. What the socket cannot take at once is copied into the queue, so the
 *  bytes are the caller's again on return. A queue that holds g_iMaxPackageBufNum blocks overflows:
 *  a packet already begun on the wire stays to its end, every whole packet behind it is dropped (logs
 *  the error "net_link_send_package buffer overflow ..." with the packets and bytes dropped), and
 *  these bytes then go or are queued as usual. A block that cannot be allocated fails the call.
 *  @param link the link.
 *  @param data the bytes.
 *  @param size their number.
 *  @return 0 or more on success (queued bytes count as sent; test the sign), -1 on failure. */
KX_API int net_link_send_package(_NetLink *link, const char *data, int size);
/** Sends one command head and its body.
 *  @param link the link.
 *  @param data the body.
 *  @param size at most 1440 (else logs "net_link_send_command invalid size %d").
 *  @return as net_link_send_package(). */
KX_API int net_link_send_command(_NetLink *link, const char *data, int size);
/** Sends any length in chunks of 1440 bytes, each behind a data head. The chunks of one call follow
 *  each other on the wire, with nothing of another sender between them or between a head and its
 *  body.
 *  @param link the link.
 *  @param data the bytes.
 *  @param size their number, above 0.
 *  @return the result of the last chunk; -1 on failure (chunks already sent stay sent). */
KX_API int net_link_send_data(_NetLink *link, const char *data, int size);
/** Queued blocks at which a link's queue overflows; 20000 by default, for all links. A packet already
 *  begun on the wire still goes to its end; every whole packet behind it is dropped, with one log line
 *  that counts the packets and bytes dropped. Set it with sdk_os_set_max_package_buf(). */
KX_API extern int g_iMaxPackageBufNum;
/** Sets g_iMaxPackageBufNum for all links. Any thread.
 *  @param count 1 to 20000.
 *  @return 1; anything else gives 0 and the limit stays (logs "sdk_os_set_max_package_buf Illegal
 *          num = %d"). */
KX_API int sdk_os_set_max_package_buf(int count);

/** @name Supervised sessions
 *  An opt-in supervisor per link, run by the event thread: it notices a dead or silent device,
 *  reports every change of the link's state, and opens the link's client again with a doubling
 *  back-off. Without net_link_supervise() a link behaves as without it; the state callback and the
 *  counters work on every link.
 *  @{ */

/** Link states, handed to the state callback and kept in NetLinkStats::state. */
enum {
    NET_LINK_CONNECTING = 1, /**< a connect is under way */
    NET_LINK_UP = 2,         /**< connected */
    NET_LINK_DOWN = 3,       /**< not connected (also before the first open) */
    NET_LINK_GAVE_UP = 4     /**< the supervisor stopped reopening after max_attempts failures */
};
/** Why a link went down; handed with NET_LINK_DOWN and NET_LINK_GAVE_UP. */
enum {
    NET_LINK_REFUSED = 1,     /**< the peer refused the connect */
    NET_LINK_RESET = 2,       /**< the peer reset the connection (or it failed otherwise) */
    NET_LINK_PEER_CLOSED = 3, /**< the peer closed the connection */
    NET_LINK_IDLE = 4,        /**< nothing was received for idle_ms */
    NET_LINK_KEEPALIVE = 5,   /**< TCP keepalive or the bound on unacknowledged sends ended it */
    NET_LINK_LOCAL = 6,       /**< the caller closed it (net_tcp_client_close()) */
    NET_LINK_UNREACHABLE = 7  /**< the connect timed out, or no route to the peer */
};

/** What the supervisor of a link watches. Every field 0 switches supervision off. */
typedef struct NetLinkSupervision {
    int idle_ms;          /**< no byte received for this long: the connection is closed (reason
                               NET_LINK_IDLE); 0 off */
    int keepalive_s;      /**< TCP keepalive after this many idle seconds, and a bound of twice this
                               on unacknowledged sends: a vanished device ends the connection after
                               about 2 * keepalive_s seconds (reason NET_LINK_KEEPALIVE); 0 off */
    int reconnect_min_ms; /**< first automatic reopen after a disconnect; 0: no automatic reopen */
    int reconnect_max_ms; /**< ceiling of the doubling back-off: the n-th reopen in a row waits a
                               random time from reconnect_min_ms to min(reconnect_max_ms,
                               reconnect_min_ms * 2^(n-1)) (full jitter). A connect still under way
                               after reconnect_max_ms (10 s when 0) ends as NET_LINK_UNREACHABLE */
    int max_attempts;     /**< consecutive failed reopens before NET_LINK_GAVE_UP; 0: for ever */
} NetLinkSupervision;

/** State callback: once per change of state, in order. It runs with the main lock held, on the event
 *  thread for everything the library sees or does itself, and on the caller's thread for a caller's
 *  own net_tcp_client_open() or net_tcp_client_close() (as the link's disconnect callback does). With
 *  NET_LINK_DOWN it runs before the link's disconnect callback. It must not destroy the link (that is
 *  refused with a log line); the disconnect callback may.
 *  @param link the link.
 *  @param udata the link's value.
 *  @param state NET_LINK_CONNECTING, NET_LINK_UP, NET_LINK_DOWN or NET_LINK_GAVE_UP.
 *  @param reason with NET_LINK_DOWN and NET_LINK_GAVE_UP a NET_LINK_REFUSED ... NET_LINK_UNREACHABLE
 *         reason; 0 otherwise.
 *  @return ignored. */
typedef int (*NetLinkStateCallback)(_NetLink *link, void *udata, int state, int reason);

/** Counters of a link, from its creation on. */
typedef struct NetLinkStats {
    uint64_t bytes_in;         /**< bytes received */
    uint64_t bytes_out;        /**< bytes the socket took */
    uint64_t packets_in;       /**< packets handed to the parser (or dropped for want of one) */
    uint64_t packets_out;      /**< packets the send calls accepted (sent or queued) */
    uint32_t connects;         /**< connections made */
    uint32_t disconnects;      /**< connections, or connects, that ended */
    uint32_t attempts;         /**< connects begun, the caller's and the supervisor's */
    uint32_t packets_dropped;  /**< accepted packets dropped from the queue (overflow, disconnect) */
    uint32_t queue_blocks;     /**< blocks waiting in the send queue now */
    int64_t last_rx_ms;        /**< milliseconds since the last byte was received; -1 before any */
    int state;                 /**< the current NET_LINK_ state */
} NetLinkStats;

/** Supervises the link, or changes its supervision. Takes effect at once: on a connected link the
 *  idle time-out and keepalive start now; reopening follows the next disconnect. A caller's own
 *  net_tcp_client_close() or net_link_destroy() stops the supervisor (nothing fires after it); a
 *  later net_link_supervise() starts it again. Any thread; takes the main lock.
 *  @param link the link.
 *  @param s what to watch; every field 0 switches supervision off.
 *  @return 0, or -1 (logs "net_link_supervise: ...") for a null argument, a negative value or
 *          reconnect_min_ms above a non-zero reconnect_max_ms; nothing changes then. */
KX_API int net_link_supervise(_NetLink *link, const NetLinkSupervision *s);
/** Binds the state callback. Any thread.
 *  @param link the link.
 *  @param cb the callback; null unbinds.
 *  @return 0, -1 for a null link. */
KX_API int net_link_bind_state(_NetLink *link, NetLinkStateCallback cb);
/** Reads the link's counters and state. Any thread.
 *  @param link the link.
 *  @param out where they go.
 *  @return 0, -1 for a null argument. */
KX_API int net_link_get_stats(_NetLink *link, NetLinkStats *out);
/** @} */
/** @} */
/* @section link */

/* ======================================================================================
 * Command engine
 * ====================================================================================== */
/** @addtogroup pap
 *  The text command engine. A _TProtFrame holds a tree of command keys registered by the caller;
 *  command texts run through it and reach the analyze callback of the node they name. A command is
 *  words separated by single tabs: upper-case keys first (at most 16), parameters behind them (at
 *  most 360), 376 words of at most 256 characters. A package is commands that each start with a
 *  section word ("INNER", "USER", "CMD" or "PARASET") and end with "\n\n\n". The engine takes no
 *  lock and logs nothing: every refusal gives -1. A frame belongs to one thread at a time; callbacks
 *  run on the thread that runs the command, under no lock of the engine.
 *  @{ */
/** Limits of the command engine. */
enum {
    PAP_MAX_KEYS = 16,          /**< keys of a command path */
    PAP_MAX_PARAMS = 360,       /**< parameters of a command */
    PAP_MAX_WORDS = 376,        /**< words of a command */
    PAP_MAX_WORD_LEN = 256,     /**< characters of a word */
    PAP_REMAIN_WORDS = 32,      /**< remain words of a frame */
    PAP_RESULT_WORDS = 8,       /**< result words of a frame */
    PAP_SLOT_LEN = 32,          /**< a remain or result word holds at most 31 characters */
    PAP_MAX_PACKAGE_LEN = 1999  /**< longest package that pap_run_cmd_package takes */
};

struct tagAnalyzeParam;
struct TProtNode;

/** A deal callback: handed to the analyze callback; the engine never calls it. Its arguments mean
 *  what the application's analyze callback makes of them.
 *  @param in input.
 *  @param len its length.
 *  @param out output.
 *  @return the application's. */
typedef int (*pap_deal_cbk)(void *in, int len, void *out);
/** The entry of a command, on the thread that runs it.
 *  @param param keys, parameters and values of the run; valid only during the call.
 *  @return the result of the run; 0 counts as success. */
typedef int (*pap_analyze_cbk)(struct tagAnalyzeParam *param);
/** Stored with pap_regist_cbk_get_param() and handed to each analyze callback; never called here.
 *  @param ctx the application's.
 *  @param id the application's.
 *  @param out the application's.
 *  @return the application's. */
typedef int (*pap_get_param_cbk)(void *ctx, int id, void *out);
/** Own check of a parameter word.
 *  @param param the word.
 *  @return 0 for a bad value, anything else for a good one. */
typedef int (*pap_param_check_cbk)(const char *param);

/** Check of one parameter: type 0 none, 1 base-10 integer in [min, max], 2 length in [min, max],
 *  3 check(word) != 0; any other type fails. */
typedef struct TParamDef {
    int type;                  /**< 0, 1, 2 or 3 */
    int64_t min;               /**< lower bound of types 1 and 2 */
    int64_t max;               /**< upper bound of types 1 and 2 */
    pap_param_check_cbk check; /**< check of type 3 */
} TParamDef;

/** The callbacks of a node. param_num is the number of parameters this leaf accepts (-1: any);
 *  params holds one definition for each. The registration calls make leaves with -1. */
typedef struct TProtLeaf {
    struct TProtNode *node;  /**< the node of the leaf */
    int param_num;           /**< parameters accepted, -1 any */
    TParamDef *params;       /**< param_num definitions */
    pap_deal_cbk deal;       /**< handed to analyze */
    pap_analyze_cbk analyze; /**< the entry */
} TProtLeaf;

/** One key of a command path. The first leaf is the one that runs for any number of parameters. */
typedef struct TProtNode {
    struct TProtNode *next;   /**< next sibling, in order of creation */
    struct TProtNode *child;  /**< first node of the level below */
    struct TProtNode *parent; /**< null on the top level */
    char *key;                /**< the key word */
    int leaf_num;             /**< entries at leaves */
    TProtLeaf *leaves;        /**< the leaves */
} TProtNode;

/** One engine instance. The counters are written by each run and read by nobody here. */
typedef struct _TProtFrame {
    TProtNode *root;          /**< first node of the top level */
    uint64_t node_num;        /**< nodes of the tree */
    uint64_t run_total;       /**< commands run */
    uint64_t run_ok;          /**< runs that gave 0 */
    uint64_t run_fail;        /**< runs that gave anything else */
    char remain_words[PAP_REMAIN_WORDS][PAP_SLOT_LEN]; /**< keys made remain words by the _spe calls */
    int remain_num;           /**< entries of remain_words */
    char result_words[PAP_RESULT_WORDS][PAP_SLOT_LEN]; /**< reserved result words */
    int result_num;           /**< entries of result_words */
    pap_get_param_cbk get_param; /**< of pap_regist_cbk_get_param() */
} _TProtFrame;

/** What an analyze callback gets: words[0 .. key_num-1] are the keys, words[key_num ..
 *  key_num+param_num-1] the parameters. Valid only during the call. */
typedef struct tagAnalyzeParam {
    uint8_t reserved[8];         /**< zero */
    char **words;                /**< keys, then parameters */
    int key_num;                 /**< keys */
    int param_num;               /**< parameters */
    pap_deal_cbk deal;           /**< the deal callback of the node */
    pap_get_param_cbk get_param; /**< the frame's */
    void *user_data;             /**< of pap_run_cmd() */
} tagAnalyzeParam;

/** One command split into words, kept on the stack of a single run. */
typedef struct _TProtCmdTxt {
    int len;                     /**< characters of text */
    char *text;                  /**< the working copy */
    char *words[PAP_MAX_WORDS];  /**< the words, pointing into text */
    int key_num;                 /**< keys */
    int param_num;               /**< parameters */
} _TProtCmdTxt;

/** A new empty frame.
 *  @return the frame, null if allocation fails. */
KX_API _TProtFrame *pap_init(void);
/** Frees the frame with its whole tree.
 *  @param frame the frame, or null.
 *  @return always -1. */
KX_API int pap_uninit(_TProtFrame *frame);
/* Registration. */
/** Registers an analyze callback for a path. path: keys separated by single tabs, made of A-Z, 0-9 and
 *  "_" (at most 16 keys count). A path that exists gets its callbacks replaced in place (a null
 *  callback leaves the old one); missing keys are created, the inner ones with the same callbacks.
 *  @param frame the frame.
 *  @param path the keys, e.g. "CMD\tSET\tTIME".
 *  @param analyze the entry.
 *  @return 0 on success, -1 on failure. */
KX_API int pap_regist_cbk_cmd_analyze(_TProtFrame *frame, const char *path, pap_analyze_cbk analyze);
/** As pap_regist_cbk_cmd_analyze(), and makes the last key a remain word: in a command text
 *  everything behind it is a parameter. A remain word holds at most 31 characters: a longer one gives
 *  -1 and registers nothing.
 *  @param frame the frame.
 *  @param path the keys.
 *  @param analyze the entry.
 *  @return 0 on success, -1 on failure. */
KX_API int pap_regist_cbk_cmd_analyze_spe(_TProtFrame *frame, const char *path, pap_analyze_cbk analyze);
/** Registers a deal callback for a path, as pap_regist_cbk_cmd_analyze().
 *  @param frame the frame.
 *  @param path the keys.
 *  @param deal handed to the analyze callback.
 *  @return 0 on success, -1 on failure. */
KX_API int pap_regist_cbk_cmd_deal(_TProtFrame *frame, const char *path, pap_deal_cbk deal);
/** Registers a deal callback and makes the last key a remain word, as pap_regist_cbk_cmd_analyze_spe().
 *  @param frame the frame.
 *  @param path the keys.
 *  @param deal handed to the analyze callback.
 *  @return 0 on success, -1 on failure. */
KX_API int pap_regist_cbk_cmd_deal_spe(_TProtFrame *frame, const char *path, pap_deal_cbk deal);
/** Stores the get-param callback handed to each analyze callback.
 *  @param frame the frame; null is ignored.
 *  @param get_param the callback.
 *  @return always 0. */
KX_API int pap_regist_cbk_get_param(_TProtFrame *frame, pap_get_param_cbk get_param);
/** The common road of the four registration calls.
 *  @param frame the frame.
 *  @param path the keys.
 *  @param analyze the entry, or null.
 *  @param deal the deal callback, or null.
 *  @param spe 1 for the _spe forms.
 *  @return 0 on success, -1 on failure. */
KX_API int Inner_RegCallBack(_TProtFrame *frame, const char *path, pap_analyze_cbk analyze, pap_deal_cbk deal,
                             int spe);
/** Tests a key word.
 *  @param word a word.
 *  @return 1 if word is A-Z followed by A-Z, 0-9 or "_"; 0 otherwise (also for null or ""). */
KX_API int isupperstr(const char *word);
/** Runs one command: the deepest registered match of its keys runs, and the words behind it are its
 *  parameters. An analyze callback may run commands on the same frame again.
 *  @param frame the frame.
 *  @param text zero-terminated command.
 *  @param length not read.
 *  @param user_data reaches the callback.
 *  @return the result of the analyze callback, or -1 if none ran. */
KX_API int pap_run_cmd(_TProtFrame *frame, const char *text, int length, void *user_data);
/** The road of pap_run_cmd().
 *  @param frame the frame.
 *  @param text zero-terminated command.
 *  @param length not read.
 *  @param user_data reaches the callback.
 *  @return as pap_run_cmd(). */
KX_API int Inner_RunCmd(_TProtFrame *frame, const char *text, int length, void *user_data);
/** Runs each command of a package.
 *  @param frame the frame.
 *  @param text the package; no terminating zero needed.
 *  @param length 0 to 1999 bytes.
 *  @param user_data reaches the callbacks.
 *  @return the result of the last command run, or -1 if none ran or length is out of range. */
KX_API int pap_run_cmd_package(_TProtFrame *frame, const char *text, int length, void *user_data);
/** @} */

/* @section pap */

/* ======================================================================================
 * Function maps and common helpers
 * ====================================================================================== */
/** @addtogroup maps
 *  A function map binds function pointers to names (key map, searched from the front, first binding
 *  wins) or to numbers (index map, an array of max_index slots). The map never calls the functions:
 *  the caller casts func, or the slot, to the function's real type. Any thread; no lock is taken, so
 *  the caller serialises binding against lookup. Failures log the error named at each call.
 *  @{ */
#define MAP_TYPE_KEY 0   /**< a map of names */
#define MAP_TYPE_INDEX 1 /**< a map of numbers */

/** A function pointer as the map stores it; cast it to the function's real type. */
typedef void (*FunctionMapFunc)(void);

/** A function map. */
typedef struct FunctionMap {
    int32_t type;      /**< MAP_TYPE_KEY or MAP_TYPE_INDEX */
    int32_t max_index; /**< index map: number of slots */
    _OS_DList *key_map; /**< key map: list of FunctionMapItem pointers, in order of binding */
    FunctionMapFunc *index_map; /**< index map: max_index slots, null where nothing is bound */
} FunctionMap;

/** One binding of a key map. */
typedef struct FunctionMapItem {
    char key[32]; /**< zero-terminated, cut to 31 characters */
    FunctionMapFunc func; /**< the bound function */
} FunctionMapItem;

/** A new empty key map. A key map lives for the whole process: destroy refuses it.
 *  @param type MAP_TYPE_KEY; every other type gives null (an index map comes from
 *              function_map_create_index(); logs "map->index_map == NULL" or "error type").
 *  @return the map, or null. */
KX_API FunctionMap *function_map_create(int type);
/** Kept for compatibility.
 *  @return always null: a key map comes from function_map_create(MAP_TYPE_KEY). */
KX_API FunctionMap *function_map_create_key(void);
/** A new index map.
 *  @param max_index number of slots, above 0 (else logs "illegal max_index <= 0").
 *  @return the map with max_index null slots, or null. */
KX_API FunctionMap *function_map_create_index(int max_index);
/** Releases an index map.
 *  @param map the map.
 *  @return 0 for an index map (released); -1 for a null map and for a key map, which is not released. */
KX_API int function_map_destroy(FunctionMap *map);
/** Binds a function to a name. A key bound twice stands twice; lookups find the first binding.
 *  @param map a key map.
 *  @param key the name, cut to 31 characters.
 *  @param func the function.
 *  @return 0, or -1 for a null argument, a wrong map or a failed allocation. */
KX_API int function_map_bind_key(FunctionMap *map, const char *key, FunctionMapFunc func);
/** Binds a function to a number.
 *  @param map an index map.
 *  @param index 0 to max_index - 1.
 *  @param func the function, not null.
 *  @return 0, or -1 for a wrong map, a null function or an index out of range. */
KX_API int function_map_bind_index(FunctionMap *map, int index, FunctionMapFunc func);
/** Looks a name up.
 *  @param map a key map.
 *  @param key the name.
 *  @return the item of the first binding of key, or null. */
KX_API FunctionMapItem *function_map_get_key_map(FunctionMap *map, const char *key);
/** Looks a number up.
 *  @param map an index map.
 *  @param index the number.
 *  @return the address of the slot (which may hold null), or null for a wrong map or index. */
KX_API FunctionMapFunc *function_map_get_index_map(FunctionMap *map, int index);
/** Copies at most size - 1 characters and always terminates the copy.
 *  @param _cDest the target, size bytes.
 *  @param _cSrc the text.
 *  @param size room at _cDest.
 *  @return 0, also when the text was cut; -1 for a null pointer or a size below 1 (nothing written). */
KX_API int strcpy_safe(char *_cDest, const char *_cSrc, int size);
/** @} */
/* @section function_map */
/** @addtogroup helpers
 *  Common helpers. They keep no state, write no log line and may be called from any thread.
 *  @{ */

#define OS_STR_ARRAY_MAX 512 /**< pieces of os_split_str_to_arr() */

/** Result of os_split_str_to_arr: the pieces point into the split text; entries behind the last piece
 *  point to a constant empty string, never null. */
typedef struct tagOsStrArray {
    char *apcItem[OS_STR_ARRAY_MAX]; /**< the pieces */
    int32_t iItemNum;                /**< number of pieces */
} tagOsStrArray;

/** Copies the smaller of count and room bytes.
 *  @param dest the target.
 *  @param room bytes at dest.
 *  @param src the source.
 *  @param count bytes wanted.
 *  @return 0, or 22 (EINVAL) for a null pointer. */
KX_API int os_memcpy(void *dest, size_t room, const void *src, size_t count);
/** With room >= 1 copies at most room - 1 characters and terminates; with room <= 0 copies the whole
 *  text.
 *  @param dest the target.
 *  @param src the text.
 *  @param room bytes at dest.
 *  @return 0, or -1 for a null pointer. */
KX_API int os_strcpy(char *dest, const char *src, int room);
/** dlopen (lazy binding) of dir "/" name, or of name alone when dir is null or empty.
 *  @param path ignored.
 *  @param name file name of the library.
 *  @param reserved ignored.
 *  @param dir its directory, or null.
 *  @param flags ignored.
 *  @return the handle; null on failure, also when dir and name don't fit in 260 characters. */
KX_API void *os_load_library(const char *path, const char *name, void *reserved, char *dir, int flags);
/** dlsym.
 *  @param handle of os_load_library().
 *  @param symbol the name.
 *  @return the address, or null. */
KX_API void *os_dlsym_address(void *handle, const char *symbol);
/** dlclose.
 *  @param handle of os_load_library().
 *  @return 0 on success, non-zero on failure (also for a null handle). */
KX_API int os_free_library(void *handle);
/** The wall clock in milliseconds.
 *  @return the wall clock in milliseconds since the epoch; follows changes of the system time. */
KX_API int64_t os_get_tick_count(void);
/** usleep.
 *  @param us microseconds.
 *  @return the result of usleep; -1 for a negative time. */
KX_API int os_usleep(int us);
/** Cuts text in place at each separator into at most OS_STR_ARRAY_MAX pieces. A trailing separator
 *  adds no piece, two in a row give an empty one, the empty text gives one empty piece.
 *  @param text the text, changed in place.
 *  @param sep the separator.
 *  @param arr the pieces.
 *  @return 0, or -1 for a null pointer or too many pieces (iItemNum then stays 0). */
KX_API int os_split_str_to_arr(char *text, char sep, tagOsStrArray *arr);
/** Lowers each byte in place.
 *  @param text the text; null is ignored. */
KX_API void os_to_lower(char *text);
/** Coded picture size to display size (1088 -> 1080, 368 -> 360, ...).
 *  @param size a width or height.
 *  @return the display size; other values unchanged. */
KX_API int os_convert_video_size(int size);
/** Prints the version text to standard output.
 *  @return the version text. */
KX_API const char *os_get_sdk_version(void);
/** The calling thread's id.
 *  @return an id of the calling thread. */
KX_API uintptr_t os_get_cur_thread_id(void);
/** fopen. A stream is a FILE* as void*.
 *  @param path the file.
 *  @param mode the fopen mode.
 *  @param share ignored.
 *  @param a ignored.
 *  @param b ignored.
 *  @return the stream, null on failure or for a null path or mode. */
KX_API void *os_fopen(const char *path, const char *mode, int share, unsigned char a, unsigned char b);
/** fread.
 *  @param buf where the bytes go.
 *  @param size bytes of an item.
 *  @param count items.
 *  @param stream the stream; null reads nothing.
 *  @return items read. */
KX_API size_t os_fread(void *buf, unsigned size, unsigned count, void *stream);
/** fwrite.
 *  @param buf the bytes.
 *  @param size bytes of an item.
 *  @param count items.
 *  @param stream the stream; null writes nothing.
 *  @return items written. */
KX_API size_t os_fwrite(const void *buf, unsigned size, unsigned count, void *stream);
/** fseeko.
 *  @param stream the stream.
 *  @param offset bytes.
 *  @param origin SEEK_SET, SEEK_CUR or SEEK_END.
 *  @return 0, -1 on failure or a null stream. */
KX_API int os_fseek(void *stream, int64_t offset, int origin);
/** ftello.
 *  @param stream the stream.
 *  @return the position, -1 for a null stream. */
KX_API int64_t os_ftell(void *stream);
/** feof.
 *  @param stream the stream.
 *  @return non-zero at the end and for a null stream (1). */
KX_API int os_feof(void *stream);
/** fclose.
 *  @param stream the stream.
 *  @return 0, -1 for a null stream. */
KX_API int os_fclose(void *stream);
/** Tests for UTF-8.
 *  @param bytes the text.
 *  @param len its bytes.
 *  @return 1 when the bytes are well-formed UTF-8 (sequences of up to six bytes, none cut off) and hold
 *          at least one multi-byte sequence; else 0. */
KX_API int os_is_utf8_encoding(const char *bytes, int len);
/** Same answer as os_is_utf8_encoding().
 *  @param bytes the text.
 *  @param len its bytes.
 *  @return 1 or 0. */
KX_API int os_get_charset_code(const char *bytes, int len);
/** Same answer as os_is_utf8_encoding().
 *  @param bytes the text.
 *  @param len its bytes.
 *  @return 1 or 0. */
KX_API int os_is_wide_char(const char *bytes, int len);
/** @} */
/* @section os_helpers */

/* ======================================================================================
 * INI files
 * ====================================================================================== */
/** @addtogroup ini
 *  Single values in a text file of "[Section]" lines and "key=value" lines. Lines are read in parts of
 *  at most 255 characters. A section starts at a line that begins with its "[name]" and ends at the
 *  next line that begins with "[". A key matches every line of the section that begins with its
 *  letters (so no key of a section may begin another); the value runs from behind the first "=" to
 *  the line's end, untrimmed. Lines that begin with ";", CR or LF are comments or blank. No call keeps
 *  state, takes a lock or logs; any thread, but writers of one file must not overlap. The value
 *  buffer has room for 256 characters; a value that is not found leaves it as it was.
 *  @{ */
/** Reads a value.
 *  @param section the header with its brackets, e.g. "[File]".
 *  @param key the key.
 *  @param val room for 256 characters; unchanged when nothing is found.
 *  @param path the file. */
KX_API void IniReadValue(const char *section, const char *key, char *val, const char *path);
/** Reads a value.
 *  @param section the plain name, e.g. "File".
 *  @param key the key.
 *  @param val room for 256 characters.
 *  @param path the file.
 *  @return 0 when all arguments are given (found or not), -1 for a null one. */
KX_API int readStringValue(const char *section, const char *key, char *val, const char *path);
/** Reads an int: leading blanks skipped, digits up to the first other character, clamped to the int
 *  range.
 *  @param section the plain name.
 *  @param key the key.
 *  @param def the result for a missing file, section or key, an empty value or a null argument.
 *  @param path the file.
 *  @return the value, or def. */
KX_API int readIntValue(const char *section, const char *key, int def, const char *path);
/** Replaces every line of the section that begins with key by "key=val\n"; never adds a key, a section
 *  or a file. A new line of the old length is written in place. Otherwise the file is rewritten
 *  whole through a temporary file in its directory that replaces it by rename, so no byte around the
 *  line is lost. Refused without change: a new line over 255 characters, and a section where a line
 *  beginning with key holds a longer key (e.g. "LevelMax" for the key "Level").
 *  @param section the header with its brackets.
 *  @param key the key.
 *  @param val the new value.
 *  @param path the file. */
KX_API void IniWriteValue(const char *section, const char *key, const char *val, const char *path);
/** Writes a value as IniWriteValue().
 *  @param section the plain name.
 *  @param key the key.
 *  @param val the new value.
 *  @param path the file.
 *  @return 0 when all arguments are given (written or not), -1 for a null one. */
KX_API int writeStringVlaue(const char *section, const char *key, const char *val, const char *path);
/** Writes the value as "%-4d" (at least four characters, blanks behind) as IniWriteValue().
 *  @param section the plain name.
 *  @param key the key.
 *  @param val the value.
 *  @param path the file.
 *  @return always 0. */
KX_API int writeIntValue(const char *section, const char *key, int val, const char *path);
/** @} */
/* @section ini */

/* ======================================================================================
 * Ciphers and digests
 * ====================================================================================== */
/** @addtogroup ciphers
 *  AES (FIPS 197) in two forms, MD5 (RFC 1321) and the frame cipher modes built on them. Every call
 *  runs on the caller's thread, keeps no state between calls (beyond the shared tables of gen_tabs())
 *  and logs nothing; a context belongs to one thread at a time. Buffers are processed in place.
 *  @{ */
/** Byte-wise AES-128 context (10 rounds, 16-byte key); the caller's, usually on the stack. */
typedef struct AES_ctx {
    uint8_t RoundKey[176]; /**< the 11 round keys */
    uint8_t Iv[16];        /**< CBC chaining value, or the CTR counter (big-endian) */
} AES_ctx;

/** Expands the key; Iv keeps its value.
 *  @param ctx the context.
 *  @param key 16 bytes. */
KX_API void AES_init_ctx(AES_ctx *ctx, const uint8_t *key);
/** Expands the key and sets Iv.
 *  @param ctx the context.
 *  @param key 16 bytes.
 *  @param iv 16 bytes. */
KX_API void AES_init_ctx_iv(AES_ctx *ctx, const uint8_t *key, const uint8_t *iv);
/** Sets Iv.
 *  @param ctx the context.
 *  @param iv 16 bytes. */
KX_API void AES_ctx_set_iv(AES_ctx *ctx, const uint8_t *iv);
/** Enciphers one 16-byte block.
 *  @param ctx the context.
 *  @param buf the block, in place. */
KX_API void AES_ECB_encrypt(const AES_ctx *ctx, uint8_t *buf);
/** Deciphers one 16-byte block.
 *  @param ctx the context.
 *  @param buf the block, in place. */
KX_API void AES_ECB_decrypt(const AES_ctx *ctx, uint8_t *buf);
/** CBC encryption without padding over whole 16-byte blocks; a trailing partial block is left as it
 *  is. Iv then holds the last ciphertext block, so a further call continues the chain.
 *  @param ctx the context.
 *  @param buf the bytes, in place.
 *  @param length their number. */
KX_API void AES_CBC_encrypt_buffer(AES_ctx *ctx, uint8_t *buf, unsigned long length);
/** CBC decryption, as AES_CBC_encrypt_buffer().
 *  @param ctx the context.
 *  @param buf the bytes, in place.
 *  @param length their number. */
KX_API void AES_CBC_decrypt_buffer(AES_ctx *ctx, uint8_t *buf, unsigned long length);
/** CTR over any length; encrypts and decrypts alike. Iv is the counter, increased by 1 after each key
 *  stream block; each call starts with a fresh key stream block.
 *  @param ctx the context.
 *  @param buf the bytes, in place.
 *  @param length their number. */
KX_API void AES_CTR_xcrypt_buffer(AES_ctx *ctx, uint8_t *buf, unsigned long length);

/** Table-driven AES for 128, 192 and 256-bit keys, single blocks. Clear the record before set_key(). */
typedef struct STR_AES {
    uint32_t uiKeyWords;          /**< key length in 32-bit words: 4, 6 or 8 */
    uint32_t auiEncSchedule[64];  /**< encryption round keys, least significant byte first */
    uint32_t auiDecSchedule[64];  /**< decryption round keys, in the order of use */
} STR_AES;

/** Builds the shared tables once per process; set_key() calls it on first use. Safe to call from
 *  several threads at once. */
KX_API void gen_tabs(void);
/** Expands a key into the record.
 *  @param aes the record, cleared.
 *  @param key the key bytes.
 *  @param key_bits 128, 192 or 256. Any other length leaves the record unusable: encrypt() and
 *         decrypt() then write 16 zero bytes. */
KX_API void set_key(STR_AES *aes, const unsigned char *key, unsigned long key_bits);
/** Enciphers one block.
 *  @param aes the keyed record.
 *  @param in 16 bytes.
 *  @param out 16 bytes; may be in. */
KX_API void encrypt(const STR_AES *aes, const unsigned char *in, unsigned char *out);
/** Deciphers one block.
 *  @param aes the keyed record.
 *  @param in 16 bytes.
 *  @param out 16 bytes; may be in. */
KX_API void decrypt(const STR_AES *aes, const unsigned char *in, unsigned char *out);
/** Fits a key of up to 16 bytes to 16: the bytes, then 0xFF up to 16, then a 0 as 17th byte.
 *  @param key the key.
 *  @param len its bytes, 0 to 16.
 *  @param out room for 17 bytes.
 *  @return 0, or -1 (output untouched) for a length over 16, a negative length or a null pointer. */
KX_API int expand_key(const unsigned char *key, int len, unsigned char *out);

/** MD5 digest.
 *  @param _pcOut where the 16 raw digest bytes go.
 *  @param _piOutLen in: the capacity of _pcOut; out: 16.
 *  @param _pcIn the bytes.
 *  @param _iInLen their number, above 0.
 *  @return 0, or -1 with nothing changed for null pointers, a length of 0 or less, or a capacity
 *          below 16. */
KX_API int MD5_Encrypt(char *_pcOut, int *_piOutLen, const char *_pcIn, int _iInLen);

/* Frame cipher modes: scramble the first bytes of a frame's payload in place, the frame number as
 * counter. */
/** Plain frame cipher: XORs the whole buffer with one AES block of the counter, repeated, under the key
 *  padded with 0xFF to 16 bytes (a key over 16 bytes counts as 16 zero bytes). Encrypts and decrypts
 *  alike.
 *  @param _pucBuf the bytes, in place.
 *  @param _iBufLen their number.
 *  @param _uiCounter the frame number.
 *  @param _pucKey the key.
 *  @param _iKeyLen its bytes.
 *  @return 0, or -1 for a null pointer. */
KX_API int aes_crypt(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter, const unsigned char *_pucKey,
                     int _iKeyLen);
/** The same operation as aes_crypt().
 *  @param _pucBuf the bytes, in place.
 *  @param _iBufLen their number.
 *  @param _uiCounter the frame number.
 *  @param _pucKey the key.
 *  @param _iKeyLen its bytes.
 *  @return 0, or -1 for a null pointer. */
KX_API int AES_CTR(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter, const unsigned char *_pucKey,
                   int _iKeyLen);
/** As aes_crypt(), only when the first four bytes decipher to the start code 00 00 00 01.
 *  @param _pucBuf the bytes, in place.
 *  @param _iBufLen their number, at least 4.
 *  @param _uiCounter the frame number.
 *  @param _pucKey the key.
 *  @param _iKeyLen its bytes.
 *  @return 0; -1 with the buffer unchanged when the start code doesn't appear (a wrong key), for a
 *          buffer below four bytes or a null pointer. */
KX_API int video_AES_CTR(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter, const unsigned char *_pucKey,
                         int _iKeyLen);
/** The enhanced frame cipher: a 64-byte key stream from the MD5 of the counter under four rotations of
 *  the key, XORed over the first 64 bytes of every 256 within the first 262,144 bytes, behind the same
 *  start-code check as video_AES_CTR().
 *  @param _pucBuf the bytes, in place.
 *  @param _iBufLen their number.
 *  @param _uiCounter the frame number.
 *  @param _pucKey the key; only its first _iKeyLen bytes (at most 16) are read, the rest of the 16-byte
 *         AES key is zero, so a key followed by zeros gives the same result as the key alone.
 *  @param _iKeyLen its length, at least 1.
 *  @return 0, or -1 with the buffer unchanged. */
KX_API int video_AES_CTR_EX(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter,
                            const unsigned char *_pucKey, int _iKeyLen);
/** One AES-128 CBC run with a zero IV through the byte-wise AES; a short source is padded with zeros
 *  to a whole block.
 *  @param _pcSrc the bytes.
 *  @param _iSrcLen 0 to 16.
 *  @param _pucKey 16 bytes.
 *  @param _iKeyLen not read.
 *  @param _pucOut room for 16 bytes.
 *  @return 0, or -1 for a null pointer or a length outside 0 to 16. */
KX_API int AES_ENC_STR(const char *_pcSrc, int _iSrcLen, const unsigned char *_pucKey, int _iKeyLen,
                       unsigned char *_pucOut);
/** Tests a key against the start code; the buffer is not changed.
 *  @param _pucBuf the bytes.
 *  @param _iBufLen their number, at least 4.
 *  @param _pucKey the key.
 *  @param _iKeyLen its bytes, at least 4.
 *  @return 0 when the first four bytes, XORed with the key repeated, give the start code; -1 otherwise,
 *          for null pointers, or a buffer or key below four bytes. */
KX_API int CheckDecrypt(const unsigned char *_pucBuf, int _iBufLen, const unsigned char *_pucKey, int _iKeyLen);
/** Rotates bytes left; else does nothing.
 *  @param _pucBuf the bytes, in place.
 *  @param _iBufLen 1 to 16.
 *  @param _iShift 1 to _iBufLen - 1. */
KX_API void str_leftshift(unsigned char *_pucBuf, int _iBufLen, int _iShift);
/** @} */
/* @section crypto */

/* ======================================================================================
 * Stream analysis: frames, encryption, I-frame index, user data
 * ====================================================================================== */
/** @addtogroup frames
 *  Every call here runs on the caller's thread, takes no lock and allocates nothing; calls may run at
 *  once on different frames, but one frame belongs to one call at a time. Failures of the cipher calls
 *  log the error named with their codes.
 *  @{ */
/** The 32-byte header in front of every media frame; little-endian, read in place. The payload
 *  (uiPayloadLen bytes, an Annex B stream for video) and usExtCount x usExtSize bytes of extension
 *  units follow it. usFrameFlags: bits 0-1 encryption state, bits 6-7 enhancement state, where only
 *  the value 2 means yes. */
typedef struct __S_FrameHeader {
    uint8_t aucHeadReserved[4]; /**< reserved */
    uint32_t uiFrameLen; /**< the whole frame, these 32 bytes included */
    uint8_t ucFrameAttr;        /**< frame attribute */
    uint8_t aucAttrReserved[3]; /**< reserved */
    uint32_t uiFrameNo; /**< counter of the frame ciphers; consecutive for split user data */
    uint32_t uiFrameInfo;       /**< frame information word */
    uint32_t uiPayloadLen;      /**< bytes of the payload */
    uint16_t usExtCount;        /**< extension units */
    uint16_t usExtSize;         /**< bytes of each extension unit */
    uint8_t aucFlagsReserved[2]; /**< reserved */
    uint16_t usFrameFlags;      /**< encryption (bits 0-1) and enhancement (bits 6-7) state */
} __S_FrameHeader;

/** What SA_GetStreamInfo reports of a frame and of the stream head block that goes with it. */
typedef struct TStreamInfo {
    int32_t iHeadWord2;      /**< unsigned 16-bit word at offset 2 of the stream head block */
    int32_t iHeadWord4;      /**< word at offset 4 */
    int32_t iFrameInfo;      /**< uiFrameInfo of the header */
    int32_t iFrameAttr;      /**< ucFrameAttr of the header */
    int32_t iStreamKind;     /**< always 1 */
    int32_t iHeadWord0;      /**< word at offset 0 */
    int32_t iStreamReserved; /**< always 0 */
} TStreamInfo;

/** Reports what a frame header and a stream head block say: builds a TStreamInfo and copies its first
 *  _iOutSize bytes (28 at most) to _pvOutBuf. Logs nothing.
 *  @param _pucStreamHead the stream head block.
 *  @param _iStreamHeadLen its bytes, at least 88.
 *  @param _pucFrameBuf the frame, at its header.
 *  @param _iFrameLen not read.
 *  @param _pvOutBuf where the TStreamInfo goes.
 *  @param _iOutSize bytes wanted.
 *  @return tested in this order: -1 null output, -2 null frame, -3 invalid frame header, -4 null stream
 *          head block, -5 stream head block shorter than 88 bytes, 0 written. */
KX_API int SA_GetStreamInfo(const unsigned char *_pucStreamHead, int _iStreamHeadLen,
                            const unsigned char *_pucFrameBuf, int _iFrameLen, void *_pvOutBuf,
                            int _iOutSize);
/** Counts NAL units of a buffer to tell an H.264 Annex B byte stream.
 *  @param _pucBuf the bytes.
 *  @param _iLen their number.
 *  @return 1 when it looks like H.264 (SPS, PPS, an IDR slice or more than three slices, no forbidden
 *          header), 0 when not, -1 for a null buffer. */
KX_API int H264_Probe(const unsigned char *_pucBuf, int _iLen);
/** Tells an H.265 Annex B byte stream.
 *  @param _pucBuf the bytes.
 *  @param _iLen their number.
 *  @return 1 when it looks like H.265 (VPS, SPS, PPS and an IRAP picture, no forbidden header), 0 when
 *          not, -1 for a null buffer. */
KX_API int H265_Probe(const unsigned char *_pucBuf, int _iLen);

/* @section stream_frame */
/** Deciphers a frame that its flags mark as encrypted, in either mode, in place, and marks it clear.
 *  @param _pucFrameBuf the frame, at its header.
 *  @param _iFrameLen bytes held.
 *  @param _pucDecryptKey key of at least one character; only _iDecryptKeyLen bytes are read.
 *  @param _iDecryptKeyLen its length.
 *  @return 0; -101 null frame ("_pucFrameBuf == NULL"); -104 a length below 1 ("_iFrameLen <= 0"), or
 *          a plain frame below 96 bytes; -102 an invalid header or a buffer shorter than a header
 *          ("!IsValidFrameHeader"); -3 a clear frame; -2 a null ("_pucDecryptKey == NULL") or empty
 *          key; -4 a wrong key or no frame, frame unchanged ("video_AES_CTR fail! IsEncryptEnhanced = 1
 *          key = (9 bytes)": the key's length, never the key). */
KX_API int SA_DecryptOneFrame(unsigned char *_pucFrameBuf, int _iFrameLen, const unsigned char *_pucDecryptKey,
                              int _iDecryptKeyLen);
/** Runs AES_CTR() over a bare buffer.
 *  @param _pucBuf the bytes, in place.
 *  @param _iBufLen their number.
 *  @param _uiCounter the counter.
 *  @param _pucDecryptKey the key.
 *  @param _iDecryptKeyLen its bytes.
 *  @return 0, -101 null buffer, -104 length below 1, -2 null key or length below 1, -4 cipher refused. */
KX_API int SA_DecryptAES(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter,
                         const unsigned char *_pucDecryptKey, int _iDecryptKeyLen);
/** Enciphers payload bytes 0 to 63 in the plain mode and marks the frame encrypted; a frame whose
 *  uiFrameLen is below 96 stays clear (result 0).
 *  @param _pucFrameBuf the frame, at its header.
 *  @param _iFrameLen bytes held.
 *  @param _pucDecryptKey zero-terminated key of at least one character.
 *  @param _iDecryptKeyLen its length.
 *  @return 0; -101, -104, -102, -2 as SA_DecryptOneFrame() (-104 also when a buffer is below 96 bytes
 *          while its header claims more); -3 when the cipher refuses ("aes_crypt fail!"). */
KX_API int SA_EncryptOneFrame(unsigned char *_pucFrameBuf, int _iFrameLen, const unsigned char *_pucDecryptKey,
                              int _iDecryptKeyLen);
/** Enciphers in the enhanced mode: the first 64 bytes of every 256 within the first 262,144 bytes of
 *  what follows the header.
 *  @param _pucFrameBuf the frame, at its header.
 *  @param _iFrameLen bytes held.
 *  @param _pucDecryptKey key of at least one character; only _iDecryptKeyLen bytes are read.
 *  @param _iDecryptKeyLen its length.
 *  @return 0; -101, -104, -102, -2 as SA_EncryptOneFrame(); -3 when the cipher refuses
 *          ("video_AES_CTR_EX fail!"). */
KX_API int SA_EncryptOneFrameEx(unsigned char *_pucFrameBuf, int _iFrameLen, const unsigned char *_pucDecryptKey,
                                int _iDecryptKeyLen);
/* @section stream_crypt */
/** Head of an I-frame index block: a 44-byte head, then uiIndexCount items of uiIndexItemSize bytes
 *  each, little-endian. Of an item only the first 12 bytes carry meaning (a shorter item reads as if
 *  padded with zeros). */
typedef struct TIFrameIndexHead {
    uint8_t aucReserved[32];    /**< reserved */
    uint32_t uiIndexCount;      /**< items */
    uint32_t uiIndexItemSize;   /**< bytes of each item */
    uint8_t aucTailReserved[4]; /**< reserved */
} TIFrameIndexHead;

/** The first 12 bytes of an index item. */
typedef struct TIFrameIndexItem {
    uint32_t uiItemWord;  /**< handed back unchanged */
    int32_t iItemStamp;   /**< grows from item to item; a step that does not grow is a restart */
    uint32_t uiSignMask;  /**< bit n-1 for sign type n */
} TIFrameIndexItem;

/** In and out record of SA_GetIFrameInfo. */
typedef struct TIFrameInfoQuery {
    int32_t iMatchCount;    /**< out, count mode: number of matching items */
    int32_t iWantedOrdinal; /**< in, find mode: the wanted match, from 1; -1 selects count mode */
    int32_t iRestartCount;  /**< out, find mode: restarts up to and including the found item */
    /** out, find mode: the first 12 bytes of the found item, copied as the block holds them. The
     *  block is little-endian, so a big-endian host reads these three words byte-swapped (read them
     *  byte by byte, least significant first); the other fields of this record are in host order. */
    TIFrameIndexItem tItem;
} TIFrameInfoQuery;

/** Counts or finds items of an I-frame index block.
 *  @param _iSignType 0 matches every item, 1..5 items with bit 0..4 of uiSignMask; 100..105 select the
 *         same in count mode.
 *  @param _pvInBuf the index block.
 *  @param _iInBufSize its bytes.
 *  @param _pvOutBuf a TIFrameInfoQuery.
 *  @param _piOutLen the room at _pvOutBuf: find mode copies room - 12 bytes of the item (at most 12) and
 *         the restart count when the room is above 12; a room above 24 is stored back as 24.
 *  @return 0 (also when nothing was found), -101 null pointer, -104 block too short for its head or its
 *          items, -100 bad sign type. */
KX_API int SA_GetIFrameInfo(int _iSignType, const void *_pvInBuf, int _iInBufSize, void *_pvOutBuf,
                            int *_piOutLen);
/** @} */
/* @section stream_iframe */

/* --- User data embedded in frames ------------------------------------------------------------------ */
/** @addtogroup userdata
 *  Devices put a user-data unit into the coded stream of a frame, as an SEI NAL unit of a private
 *  payload type: a start pattern (00 00 00 01 06 F0/F1 for H.264, 00 00 00 01 4E 01 F0/F1 for H.265),
 *  size bytes (each adds to the size, 255 continues the run), the container with emulation-prevention
 *  bytes, and one trailing byte. The container is a TUserDataHeader and blocks, each a
 *  TUserDataBlockHead and its payload. An old container (F0) may carry a new one (F1) behind it.
 *
 *  Everything is little-endian and runs on the caller's thread without allocating or taking a lock;
 *  the user-data callback runs on that thread, inside the call. Outputs and the split state are the
 *  caller's; one frame and one split state belong to one call at a time. Failures log the error with
 *  the condition, e.g. "!IsValidFrameHeader" or "[InnerAnalyzeNewUserData] iUserDataSize illegal, len=%d.".
 *
 *  Result codes: 0 done; -100 iType outside 0..46 (and not 255); -101 a required pointer is null, or a
 *  position lies beyond the frame's data; -102 no frame, or an invalid header (also a buffer shorter
 *  than a header); -104 iFrameLen 0 or below; -105 malformed user data; -106 a fragment of a split
 *  container was stored and the container isn't complete yet (no decoder ran).
 *  @{ */

#define GET_USERDATA_INFO_MIN 0  /**< lowest information type of a query */
#define GET_USERDATA_INFO_MAX 46 /**< highest information type; 255 asks for all types */

/** Head of a container: tag "QZST" complete, "QZSS" first, "QZSC" further, "QZSE" last fragment of a
 *  container split over consecutive frames. */
typedef struct TUserDataHeader {
    uint8_t aucTag[4];     /**< "QZST", "QZSS", "QZSC" or "QZSE" */
    uint16_t usBlockCount; /**< blocks behind the header; in a further fragment its index */
    uint16_t uiDataLen;    /**< bytes behind the header */
} TUserDataHeader;

/** Head of one block; the next block starts 4 + usLen bytes behind it. */
typedef struct TUserDataBlockHead {
    uint16_t usType; /**< block type, e.g. 0xFED3 absolute time */
    uint16_t usLen;  /**< bytes of the payload */
} TUserDataBlockHead;

/** Frame fields handed to the user-data callback; valid only during the call. */
typedef struct TUserDataFrameInfo {
    int32_t iSize;        /**< 16 */
    uint32_t uiFrameNo;   /**< of the frame header; 0 without one */
    uint32_t uiFrameAttr; /**< ucFrameAttr, widened */
    uint32_t uiFrameInfo; /**< uiFrameInfo of the frame header */
} TUserDataFrameInfo;

/** The caller's user-data callback. It runs on the calling thread inside the analysis, under no lock
 *  of the library.
 *  @param iCbHandle iCbHandle of the query.
 *  @param iType a decoder's type number (0 to 44), the block type of a block passed on raw, or
 *         0xFFFFFF when the walk over a container has ended (no data, length 0).
 *  @param pvData the block's data; valid only during the call.
 *  @param iLen its bytes.
 *  @param ptFrameInfo fields of the frame header.
 *  @param pvCbUser pvCbUser of the query.
 *  @return not read. */
typedef int (*UserDataCallback)(int iCbHandle, int iType, const void *pvData, int iLen,
                                TUserDataFrameInfo *ptFrameInfo, void *pvCbUser);

/** One frame's parameters, carried through every analysis and decoder; nobody changes it. */
typedef struct _tagInnerFramePara {
    int32_t iSize;                 /**< 72; not read */
    int32_t iEncode;               /**< 21 or 22 H.264, 23 H.265: selects the start patterns */
    int32_t iFlag;                 /**< block type asked for; 0xFFFF for all */
    int32_t iCbHandle;             /**< first argument of the callback */
    const __S_FrameHeader *ptFrmHeader; /**< the frame's header, may be null */
    UserDataCallback pfnUserDataCb; /**< may be null */
    void *pvCbUser;                /**< last argument of the callback */
    int32_t iSplitStateSize;       /**< bytes at pvSplitState */
    void *pvSplitState;            /**< the caller's split-container state, may be null */
    const unsigned char *pucData;  /**< first byte behind the frame header */
    int32_t iDataLen;              /**< bytes behind the frame header */
    int32_t iTypeMask;             /**< block-type bits wanted by the two-layout analysis */
} _tagInnerFramePara;

/** Reports one block to the callback of _ptPara with a TUserDataFrameInfo built from its frame header.
 *  @param iType the callback's type number.
 *  @param _ptPara the frame's parameters; null logs the error "_ptPara == NULL".
 *  @param pvData the block's data.
 *  @param iLen its bytes. A null callback does nothing. */
KX_API void DevCallbackFunc(int iType, const _tagInnerFramePara *_ptPara, const void *pvData, int iLen);
/** Finds a byte pattern.
 *  @param _pucBuf the bytes.
 *  @param _iLen their number.
 *  @param _pvFlag the pattern.
 *  @param _iFlagLen its bytes.
 *  @return the position of the first occurrence, -1 for none (or a null or empty buffer). */
KX_API int FindPosByFlag(const unsigned char *_pucBuf, int _iLen, const void *_pvFlag, int _iFlagLen);
/** @} */

/* --- Decoded records --- */
/** @addtogroup decoders
 *  Each decoder takes one block's payload (valid only during the call), stores what it holds in the
 *  caller's output and reports the block through DevCallbackFunc() with its type number, on the
 *  caller's thread. None returns a result; a fault costs that block alone. _ptPara is only handed on
 *  to DevCallbackFunc(). With _bAll false _pvOutBuf is the record of the decoder's own kind; with
 *  _bAll true it is a tagUserDataAll, and the decoder writes its field there and sets its valid flag.
 *  A null _pvOutBuf stores nothing, and the callback then gets the block's whole length; with an
 *  output it gets the stored one.
 *  @{ */

/** A time block, in UTC calendar fields (no zone, no daylight saving) and as it came. */
typedef struct __S_AbsoluteTime {
    uint16_t usYear;   /**< e.g. 2024 */
    uint16_t usMonth;  /**< 1 to 12 */
    uint16_t usDay;    /**< 1 to 31 */
    uint16_t usHour;   /**< 0 to 23 */
    uint16_t usMinute; /**< 0 to 59 */
    uint16_t usSecond; /**< 0 to 59 */
    uint32_t uiSeconds; /**< seconds since 1970-01-01 00:00:00 UTC */
} __S_AbsoluteTime;

/** A user-defined block. */
typedef struct tagUserDefineData {
    int32_t iSize; /**< set to 72 */
    uint8_t aucData[64]; /**< the first 64 bytes of the block */
    int32_t iDataSize; /**< bytes stored */
} tagUserDefineData;

/** Licence plates. The caller sets iEntrySize (bytes taken of each plate, at most 120) before the call;
 *  at most 10 plates are stored, and iCount says how many. */
typedef struct tagLprInfo {
    int32_t iCount;           /**< plates stored */
    int32_t iEntrySize;       /**< in: bytes taken of each plate, at most 120 */
    uint8_t atEntry[10][120]; /**< the plates */
} tagLprInfo;

/** Output of a query for all types: every decoder writes its own field and sets its valid flag. The
 *  caller clears the record before each frame and sets tLpr.iEntrySize. */
typedef struct tagUserDataAll {
    __S_AbsoluteTime tAbsTime;     /**< GetFrameAbsoluteTime() */
    tagUserDefineData tUserDefine; /**< GetUserDefineData() */
    uint8_t aucVitalSign[552];     /**< GetVitalSignData() */
    uint8_t aucDemographics[536];  /**< GetDemographicsInfo() */
    tagLprInfo tLpr;               /**< GetLPRInfo() */
    uint8_t bTimeValid;            /**< tAbsTime written */
    uint8_t bUserDefineValid;      /**< tUserDefine written */
    uint8_t bDemographicsValid;    /**< aucDemographics written */
    uint8_t bLprValid;             /**< tLpr written */
    uint8_t bVitalSignValid;       /**< aucVitalSign written */
    uint8_t aucReserved1[515];     /**< reserved */
    uint8_t aucOsd1[544];          /**< OSD record of sub-type 1 */
    uint8_t aucOsd2[544];          /**< OSD record of sub-type 2 */
    uint8_t aucLdc[136];           /**< GetLdcInfo() */
    uint8_t aucOsd4[544];          /**< OSD record of sub-type 4 */
    uint8_t aucOsd7[544];          /**< OSD record of sub-type 7 */
    uint8_t ucReserved2;           /**< reserved */
    uint8_t bOsd1Valid;            /**< aucOsd1 written */
    uint8_t bOsd2Valid;            /**< aucOsd2 written */
    uint8_t bLdcValid;             /**< aucLdc written */
    uint8_t bOsd4Valid;            /**< aucOsd4 written */
    uint8_t bOsd7Valid;            /**< aucOsd7 written */
    uint8_t aucZfMark[12];         /**< GetZFMarkInfo() */
    uint8_t bZfMarkValid;          /**< aucZfMark written */
} tagUserDataAll;

/** Output of the two-layout analysis: slots that the caller fills in before the call. A null pointer
 *  turns the storing of that kind off. Where a size is "in and out" it comes in as the capacity of the
 *  buffer and goes out as the bytes stored, so set it anew before each frame. Sizes of 0 or below store
 *  nothing. The sizes marked "not read" are not looked at: those buffers must hold the size given
 *  beside them. */
typedef struct tagUserDataOut {
    int32_t iOsdSize;          /**< not read */
    void *pOsd;                /**< 544 bytes */
    int32_t iVcaSize;          /**< size of the record at pVca */
    void *pVca;                /**< tagVcaTargetGet */
    int32_t iTimeSize;         /**< not read */
    void *pTime;               /**< __S_AbsoluteTime */
    int32_t iLprSize;          /**< not read */
    void *pLpr;                /**< tagLprInfo, iEntrySize set */
    int32_t iDemographicsSize; /**< not read */
    void *pDemographics;       /**< 536 bytes */
    int32_t iVitalSignSize;    /**< not read */
    void *pVitalSign;          /**< 552 bytes */
    int32_t iLdcSize;          /**< not read */
    void *pLdc;                /**< 136 bytes */
    int32_t iZfMarkSize;       /**< not read */
    void *pZfMark;             /**< 12 bytes */
    int32_t iVcaStampSize;     /**< capacity at pVcaStamp */
    void *pVcaStamp;           /**< VCA time stamp of an old container, up to 4 bytes */
    int32_t iUserDefineSize;   /**< not read */
    void *pUserDefine;         /**< tagUserDefineData */
    int32_t iVcaAttrSize;      /**< in and out */
    void *pVcaAttr;            /**< VCA attributes of an old container */
    int32_t iVcaStampNewSize;  /**< capacity at pVcaStampNew */
    void *pVcaStampNew;        /**< VCA time stamp of a new container */
    int32_t iVcaAttrNewSize;   /**< in and out */
    void *pVcaAttrNew;         /**< VCA attributes of a new container */
    int32_t iWaterMarkVideoSize; /**< in and out */
    void *pWaterMarkVideo;     /**< video watermark */
    int32_t iWaterMarkUserSize; /**< in and out */
    void *pWaterMarkUser;      /**< user watermark */
    const unsigned char *pucFrameRest; /**< out: first byte behind the new user-data unit in the frame */
    int32_t iFrameRestLen;             /**< out: bytes from there to the end of the frame's data */
    int32_t iPoliceClothSize;  /**< in and out */
    void *pPoliceCloth;        /**< police clothing */
    int32_t iVestClothSize;    /**< in and out */
    void *pVestCloth;          /**< vest clothing */
    int32_t iHmacSize;         /**< in and out */
    void *pHmac;               /**< HMAC */
    int32_t iCheckHmacSize;    /**< in and out */
    void *pCheckHmac;          /**< HMAC check */
    int32_t iPtzPosSize;       /**< in and out */
    void *pPtzPos;             /**< PTZ position */
    int32_t iTrackStyleSize;   /**< in and out */
    void *pTrackStyle;         /**< target track style */
    int32_t iReservedSize;     /**< not read */
    void *pReserved;           /**< not read */
    int32_t iWatermarkAddSize; /**< in: capacity, the buffer holds 4 more; out: bytes stored, head included */
    void *pWatermarkAdd;       /**< added watermark, block head included */
} tagUserDataOut;

/** One VCA target: four coordinates (x, y, x, y) and four words passed on as they are. */
typedef struct TVcaTarget {
    uint16_t ausWord[8]; /**< x, y, x, y, then four words */
} TVcaTarget;

/** One VCA target as it came, unscaled. */
typedef struct TVcaTargetRaw {
    uint16_t ausWord[8]; /**< as in the block */
    int32_t iValid; /**< 1 once the entry is written */
} TVcaTargetRaw;

/** Output of the VCA decoders. The caller clears it before each frame: the counts grow from what they
 *  hold. Scaled targets are in a 176 x 144 grid; entry n of a raw table belongs to entry n of its scaled
 *  table. */
typedef struct tagVcaTargetGet {
    uint16_t usTargetCount;          /**< entries of atTarget */
    TVcaTarget atTarget[32];         /**< targets of an old container */
    uint16_t usTargetNewCount;       /**< entries of atTargetNew */
    TVcaTarget atTargetNew[128];     /**< targets of a new container */
    int32_t iRawLen;                 /**< bytes in aucRaw */
    uint8_t aucRaw[1024];            /**< the payload of a GetVcaTargetnfo() block as it came */
    TVcaTargetRaw atSrcVideo[32];    /**< reserved */
    int32_t iSrcVideoWidth;          /**< of GetVcaSrcVideoSize() */
    int32_t iSrcVideoHeight;         /**< of GetVcaSrcVideoSize() */
    int32_t iSrcVideoSizeValid;      /**< 1 once the source size is stored */
    TVcaTargetRaw atTargetRaw[32];   /**< unscaled entries of atTarget */
    TVcaTargetRaw atTargetNewRaw[128]; /**< unscaled entries of atTargetNew */
    int32_t iSrcVideoSizeEnable;     /**< of GetVcaSrcVideoSizeEnable() */
} tagVcaTargetGet;

/* --- Decoders --- */

/** Block 0xFED3, callback type 0: seconds since 1970 (up to 4 bytes; a shorter block counts as
 *  zero-padded), stored as __S_AbsoluteTime.
 *  @param _bAll false: _pvOutBuf is the decoder's own record; true: a tagUserDataAll, whose field and
 *         valid flag are set.
 *  @param _pvInBuf the payload.
 *  @param _pvOutBuf the output, or null to store nothing (the callback then gets the whole length).
 *  @param _iLen bytes of the payload.
 *  @param _ptPara the frame's parameters, for the callback. */
KX_API void GetFrameAbsoluteTime(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                                 const _tagInnerFramePara *_ptPara);
/** Block 0x0001, type 4: the first 64 bytes into tagUserDefineData.
 *  @copydetails GetFrameAbsoluteTime */
KX_API void GetUserDefineData(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                              const _tagInnerFramePara *_ptPara);
/** Block 0xFEDA, type 5: the first 552 bytes.
 *  @copydetails GetFrameAbsoluteTime */
KX_API void GetVitalSignData(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                             const _tagInnerFramePara *_ptPara);
/** Block 0xFED9, type 6: the first 536 bytes.
 *  @copydetails GetFrameAbsoluteTime */
KX_API void GetDemographicsInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                                const _tagInnerFramePara *_ptPara);
/** Block 0xFED5, type 7 once for each plate: a signed 32-bit count (0 or below logs the error
 *  "iNumOutputs <= 0"), then the plates, each _iLen / count bytes long, into tagLprInfo. An entry
 *  length above iEntrySize is cut to it.
 *  @copydetails GetFrameAbsoluteTime */
KX_API void GetLPRInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                       const _tagInnerFramePara *_ptPara);
/** Block 0xFEDC, type 8: an OSD record of up to 544 bytes; with _bAll its sub-type (1, 2, 4, 7) picks
 *  the field.
 *  @copydetails GetFrameAbsoluteTime */
KX_API void GetOsdExInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                         const _tagInnerFramePara *_ptPara);
/** Block 0xFEDD, type 9: the first 136 bytes.
 *  @copydetails GetFrameAbsoluteTime */
KX_API void GetLdcInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                       const _tagInnerFramePara *_ptPara);
/** Block 0xFEDE, type 10: the first 12 bytes.
 *  @copydetails GetFrameAbsoluteTime */
KX_API void GetZFMarkInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                          const _tagInnerFramePara *_ptPara);
/** Copies a time block of exactly 4 bytes unconverted.
 *  @param _pucData the payload.
 *  @param _iLen its bytes; nothing is copied unless 4.
 *  @param _ulReserved not read.
 *  @param _puiOut where the value goes: the block's four bytes as they stand. The block is
 *         little-endian, so on a little-endian host this is the time in seconds; a big-endian host
 *         sees those seconds byte-swapped (GetFrameAbsoluteTime() gives the converted time on every
 *         host).
 *  @return -1 for a null payload or output, else 0 (also when the length isn't 4). */
KX_API int GetFrameTimeInfo(const unsigned char *_pucData, int _iLen, unsigned long _ulReserved,
                            unsigned int *_puiOut);

/** Block 0xFEF1, type 28: has no slot; only reported.
 *  @param _pUDData the payload.
 *  @param _iLen its bytes.
 *  @param _pvOutBuf the slots of the two-layout analysis.
 *  @param _ptPara the frame's parameters, for the callback. */
KX_API void GetLawCaseData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                           const _tagInnerFramePara *_ptPara); /* 0xFEF1, 28; has no slot */
/** Block 0xFEF2, type 29: copies the payload into pWaterMarkVideo (the smaller of _iLen and
 *  iWaterMarkVideoSize, which then says the bytes stored) and reports the block whole.
 *  @copydetails GetLawCaseData */
KX_API void GetWaterMarkVideoData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                  const _tagInnerFramePara *_ptPara); /* 0xFEF2, 29 */
/** Block 0xFEF3, type 30: into pWaterMarkUser, as GetWaterMarkVideoData().
 *  @copydetails GetLawCaseData */
KX_API void GetWaterMarkUserData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                 const _tagInnerFramePara *_ptPara); /* 0xFEF3, 30 */
/** Block 0xFEF4, type 31: into pPoliceCloth, as GetWaterMarkVideoData().
 *  @copydetails GetLawCaseData */
KX_API void GetPoliceClothInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                               const _tagInnerFramePara *_ptPara); /* 0xFEF4, 31 */
/** Block 0xFEF5, type 32: into pVestCloth, as GetWaterMarkVideoData().
 *  @copydetails GetLawCaseData */
KX_API void GetVestClothInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                             const _tagInnerFramePara *_ptPara); /* 0xFEF5, 32 */
/** Block 0xFEF7, type 34: into pHmac, as GetWaterMarkVideoData().
 *  @copydetails GetLawCaseData */
KX_API void GetHmacInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                        const _tagInnerFramePara *_ptPara); /* 0xFEF7, 34 */
/** Block 0xFEFA, type 37: into pCheckHmac, as GetWaterMarkVideoData().
 *  @copydetails GetLawCaseData */
KX_API void GetCheckHmacInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                             const _tagInnerFramePara *_ptPara); /* 0xFEFA, 37 */
/** Block 0xFEFC, type 40: into pTrackStyle, as GetWaterMarkVideoData().
 *  @copydetails GetLawCaseData */
KX_API void GetTargetTrackStyle(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                const _tagInnerFramePara *_ptPara); /* 0xFEFC, 40 */
/** Block 0xFEFE, type 42, given from its 4-byte head on. The slot's buffer holds iWatermarkAddSize + 4
 *  bytes; up to that many are stored, and the size goes out as the bytes stored, head included. The
 *  analysis offers every such block of a frame the size that the caller gave.
 *  @copydetails GetLawCaseData */
KX_API void GetWatermarkAddData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                const _tagInnerFramePara *_ptPara);

/* VCA decoders. */
/** Block 0xFED2, type 3: a 16-bit count and up to 16 targets of 16 bytes, stored unscaled; the payload
 *  as it came goes to aucRaw when iOutSize reaches it.
 *  @param _bAll true stores nothing (an all-types record has no VCA area); only the callback runs.
 *  @param _pvInBuf the payload.
 *  @param _iLen its bytes.
 *  @param _pvOutBuf a tagVcaTargetGet, cleared by the caller before the frame.
 *  @param iOutSize its bytes; nothing is written past them.
 *  @param _ptPara the frame's parameters, for the callback. */
KX_API void GetVcaTargetnfo(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                            const _tagInnerFramePara *_ptPara);
/** Block 0xFEE3 in an old container, type 43: 18-byte target records, appended to atTarget (scaled to
 *  176 x 144) and atTargetRaw, at most 16 from one block and 32 in all. A null payload or output stops
 *  it silently.
 *  @copydetails GetVcaTargetnfo */
KX_API void GetVcaTargetnfoEx(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                              const _tagInnerFramePara *_ptPara);
/** Block 0xFEE3 in a new container, type 44: as GetVcaTargetnfoEx() into atTargetNew and
 *  atTargetNewRaw, at most 128.
 *  @param _pUDData the payload.
 *  @param _iLen its bytes.
 *  @param _pvOutBuf the output, cleared by the caller before the frame.
 *  @param iOutSize its bytes; nothing is written past them.
 *  @param _ptPara the frame's parameters, for the callback. */
KX_API void GetVcaTargetnfoNew(const void *_pUDData, int _iLen, tagVcaTargetGet *_pvOutBuf, int iOutSize,
                               const _tagInnerFramePara *_ptPara);
/** Block 0xFED7, type 38: source video width and height (two signed 32-bit values), stored when both
 *  are above 0.
 *  @copydetails GetVcaTargetnfo */
KX_API void GetVcaSrcVideoSize(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                               const _tagInnerFramePara *_ptPara);
/** Block 0xFEFB, type 39: sets iSrcVideoSizeEnable.
 *  @copydetails GetVcaTargetnfo */
KX_API void GetVcaSrcVideoSizeEnable(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf,
                                     int iOutSize, const _tagInnerFramePara *_ptPara);
/** @} */

/* --- User-data calls --- */
/** @addtogroup userdata
 *  @{ */

/** The caller's record for containers that a device splits over consecutive frames (tags QZSS, QZSC,
 *  QZSE). One for each stream, zeroed before the first frame and handed in with every frame. Slot n
 *  holds the fragment of frame uiFirstFrameNo + n: slot 0 the first fragment whole, with its header,
 *  the others the data behind their own header. A joined container must fit 10240 bytes; a fragment
 *  that would not fit, or that claims more data than it carries, is refused with -105 and nothing is
 *  stored. */
typedef struct TUserDataSplitState {
    uint32_t uiFirstFrameNo; /**< frame of the first fragment */
    uint32_t uiLastFrameNo;  /**< frame of the latest fragment stored */
    int32_t iFragCount;      /**< fragments collected */
    int32_t aiFragLen[10];   /**< bytes in each slot */
    uint8_t aucFrag[10][1024]; /**< the fragments */
} TUserDataSplitState;

/** Input of SA_GetUserDataInfoEx. A shorter record (by _iInParamSize) counts as zeros behind its end. */
typedef struct tagUserDataInfoPara {
    int32_t iSize;                    /**< size of the record; not tested */
    int32_t iType;                    /**< information type 0..46, or 255 for all */
    const unsigned char *pucFrameBuf; /**< the frame, at its 32-byte header */
    int32_t iFrameLen;                /**< bytes that the caller holds of the frame */
    int32_t iEncode;                  /**< 21 or 22 H.264, 23 H.265; 41 no user data */
    int32_t iCbHandle;                /**< first argument of the callback */
    UserDataCallback pfnUserDataCb;   /**< may be null */
    void *pvCbUser;                   /**< last argument of the callback */
    int32_t iSplitStateSize;          /**< size of the buffer at pvSplitState */
    void *pvSplitState;               /**< TUserDataSplitState of this stream, may be null */
    int32_t iTypeMask;                /**< above 0: the two-layout analysis with this mask of block-type bits */
} tagUserDataInfoPara;

/** Finds and decodes the user data of one frame.
 *
 *  iTypeMask 0 or below, the single-frame analysis: an old container (F0) whose pattern stands within
 *  the first 64 bytes behind the header; only blocks of iType are decoded, into _pvOutBuf as the record
 *  of that type (a tagUserDataAll for 255; when _iOutBufSize is below the size of that record, it is
 *  left alone and the blocks only reach the callback). A frame without the pattern gives 0.
 *
 *  iTypeMask above 0, the two-layout analysis: the frame's data must begin with an old or a new
 *  container (else -105), an old one may have a new one behind it, blocks whose bit is set in the mask
 *  (all for type 255) go to the slots of the tagUserDataOut at _pvOutBuf, and the frame's rest behind a
 *  new container is reported in pucFrameRest and iFrameRestLen. iEncode 41 gives 0 at once.
 *
 *  Every walk over a container ends with a callback of type 0xFFFFFF. iFrameLen above uiFrameLen
 *  counts as uiFrameLen. The callback runs on the calling thread, inside this call.
 *  @param pInParam the query.
 *  @param _iInParamSize bytes of the query record.
 *  @param _pvOutBuf the output record (see above).
 *  @param _iOutBufSize its bytes.
 *  @return 0, -100, -101, -102, -104, -105 or -106 (see the group's result codes). */
KX_API int SA_GetUserDataInfoEx(const tagUserDataInfoPara *pInParam, int _iInParamSize, void *_pvOutBuf,
                                int _iOutBufSize);
/** The single-frame analysis of an H.264 frame, without callback, split state or mask.
 *  @param _iType information type 0..46, or 255.
 *  @param _pucFrameBuf the frame, at its header.
 *  @param _iFrameLen bytes held.
 *  @param _pvOutBuf the record of that type.
 *  @param _iOutBufSize its bytes.
 *  @return as SA_GetUserDataInfoEx(). */
KX_API int SA_GetUserDataInfo(int _iType, const unsigned char *_pucFrameBuf, int _iFrameLen, void *_pvOutBuf,
                              int _iOutBufSize);

/** The two-layout analysis behind SA_GetUserDataInfoEx(), on a filled _tagInnerFramePara.
 *  @param _pInParam the frame's parameters.
 *  @param _pOut the slots.
 *  @param _iOutSize bytes of the record at _pOut.
 *  @return 0, -101, -105 or -106. */
KX_API int InnerAnalyzeUserData(const _tagInnerFramePara *_pInParam, tagUserDataOut *_pOut, int _iOutSize);
/** The new container whose pattern may stand at _iOldUDLen of pucData.
 *  @param _pInParam the frame's parameters.
 *  @param _iOldUDLen position in pucData.
 *  @param _pOut the slots.
 *  @param _iOutSize bytes of the record at _pOut.
 *  @return 0, also when the pattern doesn't stand there; -101 or -105. */
KX_API int InnerAnalyzeNewUserData(const _tagInnerFramePara *_pInParam, int _iOldUDLen, tagUserDataOut *_pOut,
                                   int _iOutSize);
/** The single-frame analysis over _iDataLen bytes of data.
 *  @param _ptPara the frame's parameters.
 *  @param _pucData the data behind the frame header.
 *  @param _iDataLen its bytes.
 *  @param _pOut the record of the type asked for, or null (then only the callback).
 *  @param _iOutSize its bytes.
 *  @return 0, -101, -105 or -106. */
KX_API int AnalyzeUserDataInOneFrame(const _tagInnerFramePara *_ptPara, const unsigned char *_pucData,
                                     int _iDataLen, void *_pOut, int _iOutSize);
/** @} */

/* @section stream_userdata */

#ifdef __cplusplus
} /* extern "C" */

/* Declarations whose signatures take C++ references. */
extern "C" {
/** @addtogroup userdata
 *  @{ */
/** Removes emulation-prevention bytes (the 03 of every 00 00 03) from a container. C++ only.
 *  @param _pucSrc the container as it stands in the stream; must hold the bytes consumed.
 *  @param _pucDst the target; receives the stated number of bytes.
 *  @param _iSize in: the stated size; out: the bytes consumed from the source, the stated size plus one
 *         for each 03 removed.
 *  @param _iLimit room at the target; nothing is written beyond it.
 *  @return always 0. */
KX_API int RevertUserData(const unsigned char *_pucSrc, unsigned char *_pucDst, int &_iSize, int _iLimit);
/** Copies the first 8 bytes of a container into the header and gives its tag. C++ only.
 *  @param _pucData the container.
 *  @param _tHeader the header; left alone for a null buffer.
 *  @return 0 QZST, 1 QZSS, 2 QZSC, 3 QZSE, -1 another tag (the header is copied all the same) or a
 *          null buffer. */
KX_API int GetUserdataFlagType(const unsigned char *_pucData, TUserDataHeader &_tHeader);
/** The old container behind the size bytes at _iOffset of pucData, with the split state of _pInParam.
 *  C++ only.
 *  @param _pInParam the frame's parameters.
 *  @param _iOffset position of the size bytes in pucData.
 *  @param _iUserDataSize in: the stated size (9 to 1024); out: the bytes that the container takes in the
 *         stream (stated size plus the emulation-prevention bytes), where a new container may follow
 *         behind one trailing byte.
 *  @param _pOut the slots.
 *  @param _iOutSize bytes of the record at _pOut.
 *  @return 0, -101, -105 or -106. */
KX_API int InnerAnalyzeOldUserData(const _tagInnerFramePara *_pInParam, int _iOffset, int &_iUserDataSize,
                                   tagUserDataOut *_pOut, int _iOutSize);
/** @} */
}
/* @section cplusplus */
#endif

#endif /* KORVEX_KORVEX_H */
