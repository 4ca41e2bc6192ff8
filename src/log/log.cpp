// Log lines and levels: composes one line per record and hands it to the terminal and file sinks.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "log/log_internal.h"

namespace {

// The storage of the log mutexes lives for the whole process: the event thread outlives the last
// stop and may be inside a log call when the handles are dropped, so a mutex itself is never
// destroyed. They are non-recursive; where the platform has it they check errors, so a closing call
// without an open record cannot release a lock that another thread holds.
#if defined(PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP)
#define KX_LOG_MUTEX_INIT PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP
#else
#define KX_LOG_MUTEX_INIT PTHREAD_MUTEX_INITIALIZER
#endif

// The line composer's process-wide state: one record, one instance. Each field names what guards it.
struct LogLineState {
    // Levels and switches: single integers read without a lock by every logging thread while the
    // log check on the event thread or a caller may change them; a reader sees the old or the new
    // value. Atomic.
    std::atomic<int> level;        // terminal threshold
    std::atomic<int> file_level;   // file threshold
    std::atomic<int> api_control;  // 1 once sdk_log_set_level has taken over from the file
    std::atomic<int> write_file;   // the file switch given to sdk_log_set_level
    // The error record mutex's storage, the handle of the current start, and its holder.
    sdk_mutex_t buf_storage;
    std::atomic<sdk_mutex_t *> buf_mtx;
    KxLockOwner buf_owner;  // written by the holder of buf_storage
    // The error record being composed. buf_storage.
    char buf[4096];
    int buf_idx;
};

LogLineState s_log = {
    /*level*/ {SDK_LOG_LEVEL_MSG},
    /*file_level*/ {SDK_LOG_LEVEL_MSG},
    /*api_control*/ {0},
    /*write_file*/ {0},
    /*buf_storage*/ KX_LOG_MUTEX_INIT,
    /*buf_mtx*/ {nullptr},
    /*buf_owner*/ {},
    /*buf*/ "",
    /*buf_idx*/ 0,
};

}  // namespace

namespace {

// Appends formatted text to buf[*idx] with the room left before `room`; advances *idx by what was
// really stored and gives what vsnprintf gave.
int append_v(char *buf, int *idx, int room, const char *fmt, va_list ap) {
    int left = room - *idx;
    if (left <= 0) return 0;
    int n = vsnprintf(buf + *idx, (size_t)left, fmt, ap);
    if (n > 0) *idx += (n < left) ? n : left - 1;
    return n;
}

int append(char *buf, int *idx, int room, const char *fmt, ...) KX_PRINTF(4, 5);
int append(char *buf, int *idx, int room, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = append_v(buf, idx, room, fmt, ap);
    va_end(ap);
    return n;
}

// Local time of now, with milliseconds from a separate clock reading.
void now_local(struct tm *tm, int *ms) {
    time_t t = time(nullptr);
    localtime_r(&t, tm);
    struct timeval tv;
    os_gettimeofday(&tv, nullptr);
    *ms = (int)(tv.tv_usec / 1000);
}

// strerror_r comes in two forms; both overloads give the text.
[[maybe_unused]] inline const char *err_text(int ret, const char *buf) {
    return ret == 0 ? buf : "Unknown error";
}
[[maybe_unused]] inline const char *err_text(const char *ret, const char *) { return ret; }

// Ends a line: the newline goes behind what fits, so a cut line still ends in exactly one newline.
void end_line(char *line, int *idx) {
    line[(*idx)++] = '\n';
    line[*idx] = '\0';
}

// Hands a finished line down to the file sink when that sink takes it. Without a time of its own
// the clock is read again; that reading only selects the day of the file.
void to_file(const char *line, int len, int level, const struct tm *when) {
    if (!isOutputLogString(1, level) || !isWriteLog()) return;
    struct tm tm;
    if (when == nullptr) {
        time_t t = time(nullptr);
        localtime_r(&t, &tm);
        when = &tm;
    }
    log_file_write(line, len, when);
}

// Plain records: level 200 or 300, composed in a private buffer in one call.
void err_doit2(int level, const char *fmt, va_list ap) {
    if (!isOutputLogString(0, level) && !isOutputLogString(1, level)) return;
    char line[KX_LOG_LINE_MAX];
    int idx = 0;
    struct tm tm;
    int ms;
    now_local(&tm, &ms);
    append(line, &idx, KX_LOG_ROOM, "%04d-%02d-%02d %02d:%02d:%02d.%03d %s", tm.tm_year + 1900, tm.tm_mon + 1,
           tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms, level == SDK_LOG_LEVEL_DBG ? "[DBG] " : "[MSG] ");
    append_v(line, &idx, KX_LOG_ROOM, fmt, ap);
    end_line(line, &idx);
    to_file(line, idx, level, &tm);
    if (isOutputLogString(0, level)) {
        fflush(stdout);
        fputs(line, stderr);
        fflush(stderr);
    }
}

// Closes an error record begun in the shared buffer; entered with the buffer lock held.
void err_doit_unlock(int errflag, int error, const char *fmt, va_list ap) {
    char line[KX_LOG_LINE_MAX];
    KX_ASSERT_HELD(s_log.buf_owner);
    int idx = s_log.buf_idx;
    if (idx < 0) idx = 0;
    if (idx > KX_LOG_ROOM - 1) idx = KX_LOG_ROOM - 1;
    memcpy(line, s_log.buf, (size_t)idx);
    line[idx] = '\0';
    s_log.buf_idx = 0;
    s_log.buf_owner.releasing();
    pthread_mutex_unlock(&s_log.buf_storage);

    append_v(line, &idx, KX_LOG_ROOM, fmt, ap);
    if (errflag) {
        char ebuf[128];
        ebuf[0] = '\0';
        append(line, &idx, KX_LOG_ROOM, ": %s", err_text(strerror_r(error, ebuf, sizeof(ebuf)), ebuf));
    }
    end_line(line, &idx);
    to_file(line, idx, SDK_LOG_LEVEL_ERR, nullptr);
    if (isOutputLogString(0, SDK_LOG_LEVEL_ERR)) {
        // Room for the colour escape in front of a full line, so a cut line keeps its newline.
        char red[KX_LOG_LINE_MAX + 8];
        snprintf(red, sizeof(red), "\033[;31m%s", line);
        fflush(stdout);
        fputs(red, stderr);
        fputs("\033[0m", stderr);
        fflush(stderr);
    }
}

}  // namespace

namespace {

// Sets the handle to the process-lifetime storage when it is null.
sdk_mutex_t *log_buf_mutex(void) {
    if (s_log.buf_mtx == nullptr) s_log.buf_mtx = &s_log.buf_storage;
    return &s_log.buf_storage;
}

}  // namespace

void log_create_mutexes(void) {
    log_buf_mutex();
    log_file_take_mutex();
}

void log_release_mutexes(void) {
    s_log.buf_mtx = nullptr;
    log_file_drop_mutex();
}

int log_api_control(void) { return s_log.api_control; }
void log_give_back_levels(void) { s_log.api_control = 0; }
bool log_buf_mutex_taken(void) { return s_log.buf_mtx.load() != nullptr; }

void update_log_config(void) {
    char ini[KX_LOG_PATH_MAX];
    // Never cut with an accepted directory; a path that could not be built reads as a missing file.
    int n = snprintf(ini, sizeof(ini), "%ssdk_log_config.ini", log_path());
    if (n < 0 || n >= (int)sizeof(ini)) ini[0] = '\0';
    if (!s_log.api_control) {
        s_log.level = readIntValue("Terminal", "Level", SDK_LOG_LEVEL_MSG, ini);
        s_log.file_level = readIntValue("File", "Level", SDK_LOG_LEVEL_MSG, ini);
    }
    int size = readIntValue("File", "Size", 2048, ini);
    // Days to seconds in 64 bits: every day count the file can hold keeps its meaning.
    int64_t savetime = (int64_t)readIntValue("File", "SavaTime", 30, ini) * 86400;
    log_file_configure(size, savetime, readIntValue("File", "FreePercent", 0, ini));
}

int on_check_log_timer(void *arg) {
    (void)arg;
    update_log_config();
    if (isWriteLog()) {
        check_oversize_log_file();
        check_diskfreesize_writelog();
    }
    return 0;
}

int isOutputLogString(int sink, int level) {
    if (sink == 0) return level <= s_log.level ? 1 : 0;
    if (sink == 1) return level <= s_log.file_level ? 1 : 0;
    return 0;
}

int isWriteLog(void) {
    if (s_log.api_control) return s_log.write_file;
    char path[KX_LOG_PATH_MAX + 4];
    int n = snprintf(path, sizeof(path), "%ssdk", log_path());
    if (n < 0 || n >= (int)sizeof(path)) return 0;
    return access(path, F_OK) == 0 ? 1 : 0;
}

extern "C" {

KX_API void sdk_log_msg(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    err_doit2(SDK_LOG_LEVEL_MSG, fmt, ap);
    va_end(ap);
}

KX_API void sdk_log_debug(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    err_doit2(SDK_LOG_LEVEL_DBG, fmt, ap);
    va_end(ap);
}

// The lock is always taken, whatever the levels, so the shared buffer is guarded for every record
// and each closing call has a lock to release; a record that no sink takes is simply dropped.
KX_API void sdk_log_buf_lock(void) {
    pthread_mutex_lock(log_buf_mutex());
    s_log.buf_owner.acquired();
}

KX_API int sdk_log_buf_date(void) {
    struct tm tm;
    int ms;
    now_local(&tm, &ms);
    KX_ASSERT_HELD(s_log.buf_owner);
    int before = s_log.buf_idx;
    append(s_log.buf, &s_log.buf_idx, KX_LOG_ROOM, "%04d-%02d-%02d %02d:%02d:%02d.%03d [ERR] ", tm.tm_year + 1900,
           tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
    return s_log.buf_idx - before;
}

KX_API int sdk_log_buf_msg(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    KX_ASSERT_HELD(s_log.buf_owner);
    int n = append_v(s_log.buf, &s_log.buf_idx, KX_LOG_ROOM, fmt, ap);
    va_end(ap);
    return n;
}

// Three names for one operation: they close the record with the message.
#define KX_LOG_CLOSE_RECORD(name)              \
    KX_API void name(const char *fmt, ...) {   \
        va_list ap;                            \
        va_start(ap, fmt);                     \
        err_doit_unlock(0, 0, fmt, ap);        \
        va_end(ap);                            \
    }
KX_LOG_CLOSE_RECORD(sdk_err_buf_msg_unlock)
KX_LOG_CLOSE_RECORD(sdk_log_buf_msg_unlock)
KX_LOG_CLOSE_RECORD(sdk_log_buf_quit_unlock)

KX_API void sdk_err_buf_quit_unlock(const char *fmt, ...) {
    int error = errno;
    va_list ap;
    va_start(ap, fmt);
    err_doit_unlock(1, error, fmt, ap);
    va_end(ap);
}

KX_API void sdk_log_get_level(int *level, int *file_level) {
    if (level != nullptr) *level = s_log.level;
    if (file_level != nullptr) *file_level = s_log.file_level;
}

KX_API void sdk_log_set_level(int level, int file_level, int write_file) {
    s_log.level = level;
    s_log.file_level = file_level;
    s_log.write_file = write_file;
    s_log.api_control = 1;
}

KX_API void my_abort(void) {}

KX_API int os_gettimeofday(struct timeval *tv, void *tz) {
    (void)tz;
    return gettimeofday(tv, nullptr);
}

}  // extern "C"
