// INI files: single values read and changed in a text file of sections and key lines. Every call
// opens the file, walks it line by line with a 256-byte line buffer and closes it again.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <fcntl.h>

#include "korvex/korvex.h"
#include "platform/alloc.h"

namespace {

constexpr int kLineSize = 256;  // a line arrives in parts of at most 255 characters

inline bool is_comment(const char *line) {
    return line[0] == ';' || line[0] == '\r' || line[0] == '\n';
}

inline bool begins_with(const char *line, const char *s, size_t n) {
    return strncmp(line, s, n) == 0;
}

// One line part with the exact count of bytes it took from the file (NUL bytes included).
bool next_line(FILE *fp, char *line, long *start, long *taken) {
    *start = ftell(fp);
    if (fgets(line, kLineSize, fp) == nullptr) return false;
    long end = ftell(fp);
    if (*start < 0 || end < *start) return false;
    *taken = end - *start;
    return true;
}

// Reads lines until one that is no comment and begins with the section header; false at the end.
bool find_section(FILE *fp, const char *header, char *line) {
    size_t n = strlen(header);
    while (fgets(line, kLineSize, fp) != nullptr)
        if (!is_comment(line) && begins_with(line, header, n)) return true;
    return false;
}

// A line that begins with the key holds a longer key when anything but blanks stands between the
// key and its "=" (or the end of the line): "LevelMax=3" for the key "Level".
bool holds_longer_key(const char *line, size_t key_len) {
    for (const char *p = line + key_len; *p != '\0' && *p != '=' && *p != '\r' && *p != '\n'; p++)
        if (*p != ' ' && *p != '\t') return true;
    return false;
}

enum WritePlan { kNothing, kRefuse, kInPlace, kRewrite };

// Looks at the key lines of the section before anything is written.
WritePlan survey(FILE *fp, const char *header, const char *key, long new_len) {
    char line[kLineSize];
    if (!find_section(fp, header, line)) return kNothing;
    size_t key_len = strlen(key);
    WritePlan plan = kNothing;
    long start, taken;
    while (next_line(fp, line, &start, &taken)) {
        if (begins_with(line, key, key_len)) {
            if (holds_longer_key(line, key_len)) return kRefuse;
            if (taken != new_len)
                plan = kRewrite;
            else if (plan == kNothing)
                plan = kInPlace;
        } else if (line[0] == '[') {
            break;
        }
    }
    return ferror(fp) ? kRefuse : plan;
}

// The one temporary name of a file's writes: the target's name with ".kxtmp" behind it. A writer
// killed half way leaves at most this file, which the next write of the same file takes over or
// removes.
bool temp_name(const char *path, char (&real)[PATH_MAX], char (&tmp)[PATH_MAX + 16], const char **target) {
    *target = realpath(path, real) != nullptr ? real : path;  // keep a symbolic link a link
    int n = snprintf(tmp, sizeof(tmp), "%s.kxtmp", *target);
    return n > 0 && n < (int)sizeof(tmp);
}

// Copies the file into the temporary file beside it with every key line of the section replaced,
// flushes it to the disk and renames it over the file, so that a reader, and a writer killed at
// any point, leave the file either old or new. On any failure the file stays as it was.
void write_through_copy(FILE *src, const char *path, const char *header, const char *key,
                        const char *new_line) {
    char real[PATH_MAX];
    char tmp[PATH_MAX + 16];
    const char *target;
    if (!temp_name(path, real, tmp, &target)) return;
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return;
    FILE *out = kx_alloc_refused() ? nullptr : fdopen(fd, "w");
    if (out == nullptr) {
        close(fd);
        unlink(tmp);
        return;
    }
    struct stat st;
    if (fstat(fileno(src), &st) == 0) {
        fchmod(fd, st.st_mode & 07777);
        if (fchown(fd, st.st_uid, st.st_gid) != 0) {
            // Only the owner's group or root may hand a file over; the mode is what matters.
        }
    }

    size_t header_len = strlen(header), key_len = strlen(key);
    enum { kSeeking, kInSection, kAfter } where = kSeeking;
    char line[kLineSize];
    long start, taken;
    bool ok = true;
    rewind(src);
    while (ok && next_line(src, line, &start, &taken)) {
        bool replace = false;
        if (where == kSeeking) {
            if (!is_comment(line) && begins_with(line, header, header_len)) where = kInSection;
        } else if (where == kInSection) {
            if (begins_with(line, key, key_len))
                replace = true;
            else if (line[0] == '[')
                where = kAfter;
        }
        if (replace)
            ok = fputs(new_line, out) != EOF;
        else
            ok = fwrite(line, 1, (size_t)taken, out) == (size_t)taken;
    }
    if (ferror(src) || !feof(src)) ok = false;
    if (ok) ok = fflush(out) == 0 && fsync(fileno(out)) == 0;
    if (fclose(out) != 0) ok = false;
    if (!ok || rename(tmp, target) != 0) unlink(tmp);
}

}  // namespace

extern "C" {

KX_API void IniReadValue(const char *section, const char *key, char *val, const char *path) {
    if (section == nullptr || key == nullptr || val == nullptr || path == nullptr) return;
    FILE *fp = kx_alloc_refused() ? nullptr : fopen(path, "r");
    if (fp == nullptr) return;
    char line[kLineSize];
    if (find_section(fp, section, line)) {
        size_t key_len = strlen(key);
        while (fgets(line, kLineSize, fp) != nullptr) {
            if (begins_with(line, key, key_len)) {
                const char *eq = strchr(line + key_len, '=');
                if (eq == nullptr) break;
                size_t n = strcspn(eq + 1, "\r\n");  // at most 254: it lies inside the line
                memcpy(val, eq + 1, n);
                val[n] = '\0';
            } else if (line[0] == '[') {
                break;
            }
        }
    }
    fclose(fp);
}

KX_API int readStringValue(const char *section, const char *key, char *val, const char *path) {
    if (section == nullptr || key == nullptr || val == nullptr || path == nullptr) return -1;
    char header[kLineSize];
    int n = snprintf(header, sizeof(header), "[%s]", section);
    // A header that does not fit a line can't begin one: the section is simply not found.
    if (n > 0 && n < (int)sizeof(header)) IniReadValue(header, key, val, path);
    return 0;
}

KX_API int readIntValue(const char *section, const char *key, int def, const char *path) {
    char buf[kLineSize];
    memset(buf, 0, sizeof(buf));
    if (readStringValue(section, key, buf, path) != 0 || buf[0] == '\0') return def;
    // The digits up to the first other character, as atoi reads them, but never out of range.
    long v = strtol(buf, nullptr, 10);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return (int)v;
}

KX_API void IniWriteValue(const char *section, const char *key, const char *val, const char *path) {
    if (section == nullptr || key == nullptr || val == nullptr || path == nullptr) return;
    char new_line[kLineSize];
    int len = snprintf(new_line, sizeof(new_line), "%s=%s\n", key, val);
    if (len < 0 || len >= (int)sizeof(new_line)) return;  // would be read back in parts
    // Opened for update, though only read: a file the caller may not write is not written.
    FILE *fp = kx_alloc_refused() ? nullptr : fopen(path, "r+");
    if (fp == nullptr) return;
    // Every change goes through the copy, also one that keeps the line's length: several key lines
    // rewritten in place one after the other could be cut between two of them.
    WritePlan plan = survey(fp, section, key, len);
    if (plan == kInPlace || plan == kRewrite) {
        write_through_copy(fp, path, section, key, new_line);
    } else {
        char real[PATH_MAX];
        char tmp[PATH_MAX + 16];
        const char *target;
        if (temp_name(path, real, tmp, &target)) unlink(tmp);  // what a killed writer left
    }
    fclose(fp);
}

KX_API int writeStringVlaue(const char *section, const char *key, const char *val, const char *path) {
    if (section == nullptr || key == nullptr || val == nullptr || path == nullptr) return -1;
    char header[kLineSize];
    int n = snprintf(header, sizeof(header), "[%s]", section);
    if (n > 0 && n < (int)sizeof(header)) IniWriteValue(header, key, val, path);
    return 0;
}

KX_API int writeIntValue(const char *section, const char *key, int val, const char *path) {
    char buf[kLineSize];
    memset(buf, 0, sizeof(buf));
    snprintf(buf, sizeof(buf), "%-4d", val);
    writeStringVlaue(section, key, buf, path);
    return 0;
}

}  // extern "C"
