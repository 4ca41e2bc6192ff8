// Internal side of the log: the shared state of the line composer and the file step, the two sink
// decisions, and the macro through which the whole library writes error records.
#pragma once

#include <time.h>

#include "korvex/korvex.h"

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

// Levels and switches (plain integers, read without a lock).
extern int s_log_level;
extern int s_logfile_level;
extern int s_api_control_log;
extern int s_write_log_file;
extern int s_pause_write_log;
// Log directory with a trailing "/"; empty means the current directory.
extern char s_log_path[KX_LOG_PATH_MAX];

// Handles of the two log mutexes. They point at storage that lives for the whole process, so a
// thread still holding one when the last stop drops the handle never touches freed memory.
extern sdk_mutex_t *s_log_buf_mtx;
extern sdk_mutex_t *s_log_file_mtx;
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
// The file step: writes a finished line (ending in "\n") to the log file for the local date tm.
void log_file_write(const char *line, int len, const struct tm *tm);
// Sets the log directory from the executable's path when it is still empty.
void update_log_path(void);
// Reads sdk_log_config.ini from the log directory.
void update_log_config(void);
// The periodic check run by the log check timer every three seconds.
int on_check_log_timer(void *arg);
