// Internal side of the log: the shared state of the line composer and the file step, the two sink
// decisions, and the macro through which the whole library writes error records.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <time.h>

#include <atomic>

#include "korvex/korvex.h"
#include "platform/lock_check.h"

// Writes one error record (level 100) with the source position in front of the message. Every
// failure path of the library logs through this. For a record with an empty text use KX_LOG_ERR("%s", "").
#define KX_LOG_ERR(...)                                                                            \
    do {                                                                                           \
        sdk_log_buf_lock();                                                                        \
        sdk_log_buf_date();                                                                        \
        sdk_log_buf_msg("file: %s, func:%s, line: %d ", __FILE__, __func__, __LINE__);             \
        sdk_err_buf_msg_unlock(__VA_ARGS__);                                                       \
    } while (0)

// Same record, closed with ": " and the text of errno.
#define KX_LOG_ERRNO(...)                                                                          \
    do {                                                                                           \
        sdk_log_buf_lock();                                                                        \
        sdk_log_buf_date();                                                                        \
        sdk_log_buf_msg("file: %s, func:%s, line: %d ", __FILE__, __func__, __LINE__);             \
        sdk_err_buf_quit_unlock(__VA_ARGS__);                                                      \
    } while (0)

enum { KX_LOG_PATH_MAX = 260, KX_LOG_LINE_MAX = 4095, KX_LOG_ROOM = 4093 };

// The log's process-wide state: one record, one instance (s_log, in log.cpp). Each field names what
// guards it.
struct LogState {
    // Levels and switches: single integers read without a lock by every logging thread while the
    // log check on the event thread or a caller may change them; a reader sees the old or the new
    // value. Atomic.
    std::atomic<int> level;        // terminal threshold
    std::atomic<int> file_level;   // file threshold
    std::atomic<int> api_control;  // 1 once sdk_log_set_level has taken over from the file
    std::atomic<int> write_file;   // the file switch given to sdk_log_set_level
    std::atomic<int> pause_write;  // the free-disk guard holds the file back
    // Values of sdk_log_config.ini, read anew by each check. Atomic.
    std::atomic<int> file_size;         // MiB for a file and its rotated copy together
    std::atomic<int64_t> savetime;      // retention in seconds
    std::atomic<int> diskfree_percent;  // lowest free disk share; 0 turns the guard off
    // Log directory with a trailing "/"; empty means the current directory. Set at most once:
    // path_state (atomic) is 0 no directory, 1 being set, 2 set; path is written only in state 1
    // and read only in state 2 (through log_path()).
    std::atomic<int> path_state;
    char path[KX_LOG_PATH_MAX];
    // Storage of the two log mutexes, for the whole process, and the handles of the current start
    // (atomic; dropped by the last stop). The owners record their holders (debug builds).
    sdk_mutex_t buf_storage;
    sdk_mutex_t file_storage;
    std::atomic<sdk_mutex_t *> buf_mtx;
    std::atomic<sdk_mutex_t *> file_mtx;
    KxLockOwner buf_owner;   // written by the holder of buf_storage
    KxLockOwner file_owner;  // written by the holder of file_storage
    // The error record being composed. buf_storage.
    char buf[4096];
    int buf_idx;
    // The open log file, its name, the name of its rotated copy and its day. file_storage.
    FILE *fp;
    char file_name[KX_LOG_PATH_MAX];
    char last_file_name[KX_LOG_PATH_MAX];
    int file_day;
    // Test seam of the file step: "now" for the file's date and the retention (null: the real
    // clock). Atomic.
    std::atomic<time_t (*)(void)> clock;
};

extern LogState s_log;

// Sets the handle to the process-lifetime storage of that mutex when it is null.
sdk_mutex_t *log_buf_mutex(void);
sdk_mutex_t *log_file_mutex(void);
// Drops both handles at the last stop; the next log call or start takes them up again.
void log_release_mutexes(void);
void log_create_mutexes(void);

// sink 0 the terminal, 1 the file: 1 when the sink takes a record of this level.
int isOutputLogString(int sink, int level);
// The file switch: the entry "sdk" in the log directory, or the switch given to sdk_log_set_level.
int isWriteLog(void);

// --- the file side ---
// The log directory with its trailing "/", or "" (the current directory) while none is set. It is
// set at most once per process, so the text a reader gets never changes under it.
const char *log_path(void);
// Sets the log directory, adding the trailing "/". 1 when set; 0 when one is set already, or when
// dir is empty or too long for every log file path below it to fit KX_LOG_PATH_MAX.
int log_set_path(const char *dir);
// The file step: writes a finished line (ending in "\n") to the log file for the local date tm.
void log_file_write(const char *line, int len, const struct tm *tm);
// Sets the log directory from the executable's path when it is still empty.
void update_log_path(void);
// Reads sdk_log_config.ini from the log directory.
void update_log_config(void);
// The periodic check run by the log check timer every three seconds.
int on_check_log_timer(void *arg);
// Rotation by size, the free-disk guard and the retention; the first two run in the periodic check,
// the last under the file mutex whenever a new log file has been opened.
void check_oversize_log_file(void);
void check_diskfreesize_writelog(void);
void check_delete_log_file(void);
// 1 and the size of the stream's file (it seeks to the end); 0 for a null stream or a failed seek.
int get_filesize(FILE *fp, int64_t *size);

// Test seams of the file step. The clock gives "now" for the choice of the file's date and for the
// retention (null: the real clock). Forgetting closes the open file and clears its names and day.
void log_file_set_clock(time_t (*clock)(void));
void log_file_forget(void);
// Path of the open log file ("" when none) and of the last rotated file, copied under the mutex.
void log_file_names(char *current, char *rotated, size_t size);
