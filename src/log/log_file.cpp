// The file side of the log: where a finished line goes on disk. It owns the log directory, the
// configuration file sdk_log_config.ini, the dated log file of the process with its daily change
// of name, the rotation by size, the deletion of expired files and the free-disk guard.
#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "platform/alloc.h"
#include "log/log_internal.h"
#include "platform/platform.h"

namespace {

// The longest name a log file takes behind the directory: "log_sdk_YYYY-MM-DD_" (19), a process id
// of up to 10 digits and "old" for the rotated copy. A directory is accepted only if that fits, so
// no path of the log is ever cut.
constexpr int kLongestLogName = 19 + 10 + 3;
constexpr int kLogDirMax = KX_LOG_PATH_MAX - 1 - kLongestLogName;
constexpr char kLogPrefix[] = "log_sdk_";
constexpr size_t kLogPrefixLen = sizeof(kLogPrefix) - 1;

time_t file_now(void) {
    time_t (*clock)(void) = s_log.clock.load();
    return clock != nullptr ? clock() : time(nullptr);
}

// Holds the log file mutex for one scope.
struct FileLock {
    sdk_mutex_t *mtx = log_file_mutex();
    FileLock() {
        pthread_mutex_lock(mtx);
        s_log.file_owner.acquired();
    }
    ~FileLock() {
        s_log.file_owner.releasing();
        pthread_mutex_unlock(mtx);
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
    KX_ASSERT_HELD(s_log.file_owner);
    if (s_log.fp != nullptr) fclose(s_log.fp);
    s_log.fp = nullptr;
}

// Opens the file of the given date in append mode. A failed open leaves s_log.fp null, so the next
// line tries again; the directory walk of the retention runs only after a successful open.
void open_log_file(const struct tm *tm) {
    KX_ASSERT_HELD(s_log.file_owner);
    if (!format_path(s_log.file_name, "%slog_sdk_%04d-%02d-%02d_%d", log_path(), tm->tm_year + 1900,
                     tm->tm_mon + 1, tm->tm_mday, (int)getpid())) {
        s_log.file_name[0] = '\0';
    } else {
        s_log.fp = kx_alloc_refused() ? nullptr : fopen(s_log.file_name, "a");
        // Child processes the caller starts don't inherit the log file.
        if (s_log.fp != nullptr) fcntl(fileno(s_log.fp), F_SETFD, FD_CLOEXEC);
    }
    s_log.file_day = tm->tm_mday;
    if (s_log.fp != nullptr) check_delete_log_file();
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
    return s_log.path_state.load(std::memory_order_acquire) == 2 ? s_log.path : "";
}

int log_set_path(const char *dir) {
    if (dir == nullptr) return 0;
    size_t n = strlen(dir);
    bool slash = n > 0 && dir[n - 1] == '/';
    if (n == 0 || n + (slash ? 0 : 1) > (size_t)kLogDirMax) return 0;
    int expected = 0;
    if (!s_log.path_state.compare_exchange_strong(expected, 1)) return 0;
    memcpy(s_log.path, dir, n);
    if (!slash) s_log.path[n++] = '/';
    s_log.path[n] = '\0';
    s_log.path_state.store(2, std::memory_order_release);
    return 1;
}

// The directory of the running executable. A path the platform can't give, or one too long for the
// log's paths, leaves the log in the current directory.
void update_log_path(void) {
    if (s_log.path_state.load(std::memory_order_acquire) != 0) return;
    char exe[KX_LOG_PATH_MAX];
    if (!kx_platform_exe_path(exe, sizeof(exe))) return;
    char *slash = strrchr(exe, '/');
    if (slash == nullptr) return;        // no directory part: the current directory
    slash[slash == exe ? 1 : 0] = '\0';  // the root keeps its "/"
    log_set_path(exe);
}

void update_log_config(void) {
    char ini[KX_LOG_PATH_MAX];
    // Never cut with an accepted directory; a path that could not be built reads as a missing file.
    if (!format_path(ini, "%ssdk_log_config.ini", log_path())) ini[0] = '\0';
    if (!s_log.api_control) {
        s_log.level = readIntValue("Terminal", "Level", SDK_LOG_LEVEL_MSG, ini);
        s_log.file_level = readIntValue("File", "Level", SDK_LOG_LEVEL_MSG, ini);
    }
    s_log.file_size = readIntValue("File", "Size", 2048, ini);
    // Days to seconds in 64 bits: every day count the file can hold keeps its meaning.
    s_log.savetime = (int64_t)readIntValue("File", "SavaTime", 30, ini) * 86400;
    s_log.diskfree_percent = readIntValue("File", "FreePercent", 0, ini);
}

int on_check_log_timer(void *arg) {
    (void)arg;
    update_log_config();
    check_oversize_log_file();
    check_diskfreesize_writelog();
    return 0;
}

void log_file_write(const char *line, int len, const struct tm *tm) {
    if (line == nullptr || len <= 0 || tm == nullptr) return;
    struct tm test_tm;
    if (s_log.clock.load() != nullptr) {
        time_t now = file_now();
        localtime_r(&now, &test_tm);
        tm = &test_tm;
    }
    FileLock lock;
    if (s_log.fp == nullptr || !exists(s_log.file_name)) {
        close_log_file();
        open_log_file(tm);
    }
    if (s_log.file_day != tm->tm_mday) {
        close_log_file();
        open_log_file(tm);
    }
    if (s_log.fp != nullptr) {
        fwrite(line, 1, (size_t)len, s_log.fp);
        fflush(s_log.fp);
    }
}

// Runs under the file mutex. The age of a file comes from the date in its name, counted from
// midnight at the start of that date; rotated copies and files of other processes count alike.
void check_delete_log_file(void) {
    KX_ASSERT_HELD(s_log.file_owner);
    char dir[KX_LOG_PATH_MAX + 2];
    if (!format_path(dir, "%s./", log_path())) return;
    DIR *d = kx_alloc_refused() ? nullptr : opendir(dir);
    if (d == nullptr) return;
    const int64_t now = (int64_t)file_now();
    const int64_t keep = s_log.savetime;
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
    if (!isWriteLog()) return;
    FileLock lock;
    int64_t size = 0;
    if (!get_filesize(s_log.fp, &size)) return;
    const int64_t limit = (int64_t)s_log.file_size * 1048576 / 2;
    if (size <= limit) return;
    char rotated[KX_LOG_PATH_MAX];
    if (!format_path(rotated, "%sold", s_log.file_name)) return;
    if (s_log.last_file_name[0] != '\0' && exists(s_log.last_file_name) && remove(s_log.last_file_name) != 0)
        return;  // nothing rotates; the next check tries again
    close_log_file();
    if (rename(s_log.file_name, rotated) == 0) memcpy(s_log.last_file_name, rotated, sizeof(rotated));
}

// The guard looks at the file system of the current directory.
void check_diskfreesize_writelog(void) {
    if (!isWriteLog()) return;
    struct statvfs vfs;
    if (statvfs("./", &vfs) != 0) {
        s_log.pause_write = 0;
        return;
    }
    // free * 100 / total with the block size cancelled out, exact and without overflow.
    uint64_t avail = vfs.f_bavail, total = vfs.f_blocks;
    int64_t percent = total == 0 ? 0 : (int64_t)(avail / total * 100 + avail % total * 100 / total);
    s_log.pause_write = percent < s_log.diskfree_percent ? 1 : 0;
}

void log_file_set_clock(time_t (*clock)(void)) {
    s_log.clock.store(clock);
}

void log_file_forget(void) {
    FileLock lock;
    close_log_file();
    s_log.file_name[0] = '\0';
    s_log.last_file_name[0] = '\0';
    s_log.file_day = -1;
}

void log_file_names(char *current, char *rotated, size_t size) {
    FileLock lock;
    if (current != nullptr && size > 0)
        snprintf(current, size, "%s", s_log.fp != nullptr ? s_log.file_name : "");
    if (rotated != nullptr && size > 0) snprintf(rotated, size, "%s", s_log.last_file_name);
}
