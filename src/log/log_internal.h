// Internal side of the log: the line composer above the file sink, and the macro through which the
// whole library writes error records.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <time.h>

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

// Two layers, each with its process-wide state private to its file:
// - the line composer (log.cpp): levels, the file switch, the error record buffer and its mutex;
//   it reads sdk_log_config.ini and hands each finished line down to the file sink;
// - the file sink (log_file.cpp): the log directory, the open file with its names and day, the file
//   limits, the free-disk guard and the file mutex. It never calls up into the composer.

// --- the line composer ---
// Takes up both log mutexes (the file sink's through log_file_take_mutex) when their handles are
// null; drops both handles at the last stop, and the next log call or start takes them up again.
void log_create_mutexes(void);
void log_release_mutexes(void);
// sink 0 the terminal, 1 the file: 1 when the sink takes a record of this level.
int isOutputLogString(int sink, int level);
// The file switch: the entry "sdk" in the log directory, or the switch given to sdk_log_set_level.
int isWriteLog(void);
// Reads sdk_log_config.ini from the log directory: the levels (unless sdk_log_set_level took them
// over) for the composer, the limits for the file sink.
void update_log_config(void);
// The periodic check run by the log check timer every three seconds: the configuration, then, with
// the file switch on, the file sink's rotation by size and free-disk guard.
int on_check_log_timer(void *arg);
// Test seams: 1 once sdk_log_set_level has taken over from the file; giving that back; whether the
// error record mutex has a handle.
int log_api_control(void);
void log_give_back_levels(void);
bool log_buf_mutex_taken(void);

// --- the file sink ---
// The log directory with its trailing "/", or "" (the current directory) while none is set. It is
// set at most once per process, so the text a reader gets never changes under it.
const char *log_path(void);
// Sets the log directory, adding the trailing "/". 1 when set; 0 when one is set already, or when
// dir is empty or too long for every log file path below it to fit KX_LOG_PATH_MAX.
int log_set_path(const char *dir);
// Sets the log directory from the executable's path when it is still empty.
void update_log_path(void);
// The handle of the file mutex: taken up (set to its process-lifetime storage) and dropped.
void log_file_take_mutex(void);
void log_file_drop_mutex(void);
// The limits read from sdk_log_config.ini: MiB for a file and its rotated copy together, retention
// in seconds, lowest free disk share (0 turns the guard off).
void log_file_configure(int size_mib, int64_t savetime, int diskfree_percent);
// Writes a finished line (ending in "\n") to the log file for the local date tm, unless the
// free-disk guard holds the file back.
void log_file_write(const char *line, int len, const struct tm *tm);
// Rotation by size and the free-disk guard, run by the periodic check; the retention, run under the
// file mutex whenever a new log file has been opened.
void check_oversize_log_file(void);
void check_diskfreesize_writelog(void);
void check_delete_log_file(void);
// 1 and the size of the stream's file (it seeks to the end); 0 for a null stream or a failed seek.
int get_filesize(FILE *fp, int64_t *size);

// Test seams of the file sink. The clock gives "now" for the choice of the file's date and for the
// retention (null: the real clock). Forgetting closes the open file and clears its names and day.
void log_file_set_clock(time_t (*clock)(void));
void log_file_forget(void);
// Path of the open log file ("" when none) and of the last rotated file, copied under the mutex.
void log_file_names(char *current, char *rotated, size_t size);
// The size limit in MiB, the retention in seconds and the free-disk guard's hold (1 held back).
int log_file_size_mib(void);
int64_t log_file_savetime(void);
int log_file_paused(void);
