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
/* @section tcp_server */

/* ======================================================================================
 * UDP client
 * ====================================================================================== */
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
/* @section stream_iframe */
/* @section stream_userdata */

#ifdef __cplusplus
} /* extern "C" */

/* Declarations whose signatures take C++ references. */
/* @section cplusplus */
#endif

#endif /* KORVEX_KORVEX_H */
