// The file sink of the log: where a finished line goes on disk. It owns the log directory, the
// dated log file of the process with its daily change of name, the rotation by size, the deletion
// of expired files, the free-disk guard and the file mutex. It calls nothing of the line composer.
#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>

#include "platform/alloc.h"
#include "log/log_internal.h"
#include "platform/platform.h"

namespace {

// The storage of the file mutex lives for the whole process (see log.cpp for why); non-recursive,
// error-checking where the platform has it.
#if defined(PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP)
#define KX_LOG_FILE_MUTEX_INIT PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP
#else
#define KX_LOG_FILE_MUTEX_INIT PTHREAD_MUTEX_INITIALIZER
#endif

// The file sink's process-wide state: one record, one instance. Each field names what guards it.
struct LogFileState {
    // Log directory with a trailing "/"; empty means the current directory. Set at most once:
    // path_state (atomic) is 0 no directory, 1 being set, 2 set; path is written only in state 1
    // and read only in state 2 (through log_path()).
    std::atomic<int> path_state;
    char path[KX_LOG_PATH_MAX];
    // Limits of sdk_log_config.ini, set by each check, and the free-disk guard's hold. Atomic.
    std::atomic<int> file_size;         // MiB for a file and its rotated copy together
    std::atomic<int64_t> savetime;      // retention in seconds
    std::atomic<int> diskfree_percent;  // lowest free disk share; 0 turns the guard off
    std::atomic<int> pause_write;       // the guard holds the file back
    // The file mutex's storage and the handle of the current start (dropped by the last stop).
    sdk_mutex_t storage;
    std::atomic<sdk_mutex_t *> mtx;
    KxLockOwner owner;  // written by the holder of storage
    // The open log file, its name, the name of its rotated copy and its day. storage.
    FILE *fp;
    char file_name[KX_LOG_PATH_MAX];
    char last_file_name[KX_LOG_PATH_MAX];
    int file_day;
    // Test seam: "now" for the file's date and the retention (null: the real clock). Atomic.
    std::atomic<time_t (*)(void)> clock;
};

LogFileState s_file = {
    /*path_state*/ {0},
    /*path*/ "",
    /*file_size*/ {2048},
    /*savetime*/ {2592000},
    /*diskfree_percent*/ {0},
    /*pause_write*/ {0},
    /*storage*/ KX_LOG_FILE_MUTEX_INIT,
    /*mtx*/ {nullptr},
    /*owner*/ {},
    /*fp*/ nullptr,
    /*file_name*/ "",
    /*last_file_name*/ "",
    /*file_day*/ -1,
    /*clock*/ {nullptr},
};

// The longest name a log file takes behind the directory: "log_sdk_YYYY-MM-DD_" (19), a process id
// of up to 10 digits and "old" for the rotated copy. A directory is accepted only if that fits, so
// no path of the log is ever cut.
constexpr int kLongestLogName = 19 + 10 + 3;
constexpr int kLogDirMax = KX_LOG_PATH_MAX - 1 - kLongestLogName;
constexpr char kLogPrefix[] = "log_sdk_";
constexpr size_t kLogPrefixLen = sizeof(kLogPrefix) - 1;

time_t file_now(void) {
    time_t (*clock)(void) = s_file.clock.load();
    return clock != nullptr ? clock() : time(nullptr);
}

// Holds the log file mutex for one scope.
struct FileLock {
    FileLock() {
        log_file_take_mutex();
        pthread_mutex_lock(&s_file.storage);
        s_file.owner.acquired();
    }
    ~FileLock() {
        s_file.owner.releasing();
        pthread_mutex_unlock(&s_file.storage);
    }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;
};

// snprintf that reports a cut text as a failure.
template <size_t N, typename... Args>
bool format_path(char (&buf)[N], const char *fmt, Args... args) {
    int n = snprintf(buf, N, fmt, args...);
    return n >= 0 && (size_t)n < N;
}

inline bool exists(const char *path) {
    return access(path, F_OK) == 0;
}

void close_log_file(void) {
    KX_ASSERT_HELD(s_file.owner);
    if (s_file.fp != nullptr) fclose(s_file.fp);
    s_file.fp = nullptr;
}

// Opens the file of the given date in append mode. A failed open leaves s_file.fp null, so the next
// line tries again; the directory walk of the retention runs only after a successful open.
void open_log_file(const struct tm *tm) {
    KX_ASSERT_HELD(s_file.owner);
    if (!format_path(s_file.file_name, "%slog_sdk_%04d-%02d-%02d_%d", log_path(), tm->tm_year + 1900,
                     tm->tm_mon + 1, tm->tm_mday, (int)getpid())) {
        s_file.file_name[0] = '\0';
    } else {
        s_file.fp = kx_alloc_refused() ? nullptr : fopen(s_file.file_name, "a");
        // Child processes the caller starts don't inherit the log file.
        if (s_file.fp != nullptr) fcntl(fileno(s_file.fp), F_SETFD, FD_CLOEXEC);
    }
    s_file.file_day = tm->tm_mday;
    if (s_file.fp != nullptr) check_delete_log_file();
}

// A regular file itself, not a link to one; the entry's type when the directory gives it.
bool is_regular_entry(const struct dirent *entry, const char *path) {
#if defined(DT_REG) && defined(DT_UNKNOWN)
    if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_REG;
#else
    (void)entry;
#endif
    struct stat st;
    return lstat(path, &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

const char *log_path(void) {
    return s_file.path_state.load(std::memory_order_acquire) == 2 ? s_file.path : "";
}

int log_set_path(const char *dir) {
    if (dir == nullptr) return 0;
    size_t n = strlen(dir);
    bool slash = n > 0 && dir[n - 1] == '/';
    if (n == 0 || n + (slash ? 0 : 1) > (size_t)kLogDirMax) return 0;
    int expected = 0;
    if (!s_file.path_state.compare_exchange_strong(expected, 1)) return 0;
    memcpy(s_file.path, dir, n);
    if (!slash) s_file.path[n++] = '/';
    s_file.path[n] = '\0';
    s_file.path_state.store(2, std::memory_order_release);
    return 1;
}

// The directory of the running executable. A path the platform can't give, or one too long for the
// log's paths, leaves the log in the current directory.
void update_log_path(void) {
    if (s_file.path_state.load(std::memory_order_acquire) != 0) return;
    char exe[KX_LOG_PATH_MAX];
    if (!kx_platform_exe_path(exe, sizeof(exe))) return;
    char *slash = strrchr(exe, '/');
    if (slash == nullptr) return;        // no directory part: the current directory
    slash[slash == exe ? 1 : 0] = '\0';  // the root keeps its "/"
    log_set_path(exe);
}

void log_file_take_mutex(void) {
    if (s_file.mtx == nullptr) s_file.mtx = &s_file.storage;
}

void log_file_drop_mutex(void) { s_file.mtx = nullptr; }

void log_file_configure(int size_mib, int64_t savetime, int diskfree_percent) {
    s_file.file_size = size_mib;
    s_file.savetime = savetime;
    s_file.diskfree_percent = diskfree_percent;
}

void log_file_write(const char *line, int len, const struct tm *tm) {
    if (line == nullptr || len <= 0 || tm == nullptr || s_file.pause_write) return;
    struct tm test_tm;
    if (s_file.clock.load() != nullptr) {
        time_t now = file_now();
        localtime_r(&now, &test_tm);
        tm = &test_tm;
    }
    FileLock lock;
    if (s_file.fp == nullptr || !exists(s_file.file_name)) {
        close_log_file();
        open_log_file(tm);
    }
    if (s_file.file_day != tm->tm_mday) {
        close_log_file();
        open_log_file(tm);
    }
    if (s_file.fp != nullptr) {
        fwrite(line, 1, (size_t)len, s_file.fp);
        fflush(s_file.fp);
    }
}

// Runs under the file mutex. The age of a file comes from the date in its name, counted from
// midnight at the start of that date; rotated copies and files of other processes count alike.
void check_delete_log_file(void) {
    KX_ASSERT_HELD(s_file.owner);
    char dir[KX_LOG_PATH_MAX + 2];
    if (!format_path(dir, "%s./", log_path())) return;
    DIR *d = kx_alloc_refused() ? nullptr : opendir(dir);
    if (d == nullptr) return;
    const int64_t now = (int64_t)file_now();
    const int64_t keep = s_file.savetime;
    struct dirent *entry;
    while ((entry = readdir(d)) != nullptr) {
        if (strncmp(entry->d_name, kLogPrefix, kLogPrefixLen) != 0) continue;
        char path[sizeof(dir) + sizeof(entry->d_name)];
        if (!format_path(path, "%s%s", dir, entry->d_name)) continue;
        if (!is_regular_entry(entry, path)) continue;
        char date[11];
        memset(date, 0, sizeof(date));
        strncpy(date, entry->d_name + kLogPrefixLen, 10);
        struct tm tm;
        memset(&tm, 0, sizeof(tm));
        if (strptime(date, "%Y-%m-%d", &tm) == nullptr) continue;
        tm.tm_isdst = -1;
        time_t born = mktime(&tm);
        if (born == (time_t)-1) continue;
        if (now - (int64_t)born > keep) remove(path);  // a failure is tried again at the next opening
    }
    closedir(d);
}

int get_filesize(FILE *fp, int64_t *size) {
    if (fp == nullptr || size == nullptr) return 0;
    if (fseeko(fp, 0, SEEK_END) != 0) return 0;
    off_t pos = ftello(fp);
    if (pos < 0) return 0;
    *size = (int64_t)pos;
    return 1;
}

// A file is rotated when it grows past half of the budget; the process keeps one rotated copy.
void check_oversize_log_file(void) {
    FileLock lock;
    int64_t size = 0;
    if (!get_filesize(s_file.fp, &size)) return;
    const int64_t limit = (int64_t)s_file.file_size * 1048576 / 2;
    if (size <= limit) return;
    char rotated[KX_LOG_PATH_MAX];
    if (!format_path(rotated, "%sold", s_file.file_name)) return;
    if (s_file.last_file_name[0] != '\0' && exists(s_file.last_file_name) && remove(s_file.last_file_name) != 0)
        return;  // nothing rotates; the next check tries again
    close_log_file();
    if (rename(s_file.file_name, rotated) == 0) memcpy(s_file.last_file_name, rotated, sizeof(rotated));
}

// The guard looks at the file system of the current directory.
void check_diskfreesize_writelog(void) {
    struct statvfs vfs;
    if (statvfs("./", &vfs) != 0) {
        s_file.pause_write = 0;
        return;
    }
    // free * 100 / total with the block size cancelled out, exact and without overflow.
    uint64_t avail = vfs.f_bavail, total = vfs.f_blocks;
    int64_t percent = total == 0 ? 0 : (int64_t)(avail / total * 100 + avail % total * 100 / total);
    s_file.pause_write = percent < s_file.diskfree_percent ? 1 : 0;
}

void log_file_set_clock(time_t (*clock)(void)) {
    s_file.clock.store(clock);
}

void log_file_forget(void) {
    FileLock lock;
    close_log_file();
    s_file.file_name[0] = '\0';
    s_file.last_file_name[0] = '\0';
    s_file.file_day = -1;
}

void log_file_names(char *current, char *rotated, size_t size) {
    FileLock lock;
    if (current != nullptr && size > 0)
        snprintf(current, size, "%s", s_file.fp != nullptr ? s_file.file_name : "");
    if (rotated != nullptr && size > 0) snprintf(rotated, size, "%s", s_file.last_file_name);
}

int log_file_size_mib(void) { return s_file.file_size; }
int64_t log_file_savetime(void) { return s_file.savetime; }
int log_file_paused(void) { return s_file.pause_write; }
