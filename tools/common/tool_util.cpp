#include "common/tool_util.h"

#include <ctype.h>
#include <errno.h>
#include <iconv.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace kxt {

namespace {
const char *s_program = "korvex";
}

void set_program_name(const char *name) { s_program = name; }
const char *program_name() { return s_program; }

void errorf(const char *fmt, ...) {
    fflush(stdout);
    fprintf(stderr, "%s: ", s_program);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputc('\n', stderr);
}

bool parse_int(const std::string &text, long long lo, long long hi, long long *out) {
    if (text.empty() || isspace((unsigned char)text[0])) return false;
    errno = 0;
    char *end = nullptr;
    long long v = strtoll(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

bool parse_positive_double(const std::string &text, double *out) {
    if (text.empty() || isspace((unsigned char)text[0])) return false;
    char *end = nullptr;
    double v = strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !(v > 0) || v > 1e6) return false;
    *out = v;
    return true;
}

bool parse_hex(const std::string &text, Bytes *out) {
    out->clear();
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == ':') {
            if (high >= 0) return false;  // a separator inside a byte
            continue;
        }
        if (!isxdigit((unsigned char)c)) return false;
        int v = isdigit((unsigned char)c) ? c - '0' : (tolower((unsigned char)c) - 'a' + 10);
        if (high < 0) {
            high = v;
        } else {
            out->push_back(uint8_t(high << 4 | v));
            high = -1;
        }
    }
    return high < 0;
}

bool parse_utc_time(const std::string &text, uint32_t *out) {
    long long secs;
    if (parse_int(text, 0, 0xFFFFFFFFLL, &secs)) {
        *out = uint32_t(secs);
        return true;
    }
    int y, mo, d, h, mi, s, n = 0;
    if (sscanf(text.c_str(), "%4d-%2d-%2d%*1[T ]%2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &s, &n) != 6) return false;
    const char *rest = text.c_str() + n;
    if (*rest == '.') {  // fractional seconds are dropped: time blocks hold whole seconds
        ++rest;
        while (isdigit((unsigned char)*rest)) ++rest;
    }
    if (*rest == 'Z') ++rest;
    if (*rest != '\0' || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 59) return false;
    struct tm tm;
    memset(&tm, 0, sizeof(tm));
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    long long t = (long long)timegm(&tm);
    if (t < 0 || t > 0xFFFFFFFFLL) return false;
    // A day that the month doesn't have (2023-02-29, 04-31) comes back as another date: refused.
    struct tm back;
    time_t tt = time_t(t);
    if (gmtime_r(&tt, &back) == nullptr || back.tm_mday != d || back.tm_mon != mo - 1) return false;
    *out = uint32_t(t);
    return true;
}

std::string iso8601_utc(int year, int month, int day, int hour, int minute, int second) {
    char buf[48];
    snprintf(buf, sizeof(buf), "%04d-%02d-%02dT%02d:%02d:%02dZ", year, month, day, hour, minute, second);
    return buf;
}

FILE *open_input(const std::string &path) {
    if (path == "-") return stdin;
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr) errorf("cannot open '%s': %s", path.c_str(), strerror(errno));
    return f;
}

bool read_file(const std::string &path, Bytes *out) {
    FILE *f = open_input(path);
    if (f == nullptr) return false;
    out->clear();
    uint8_t chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) out->insert(out->end(), chunk, chunk + n);
    bool ok = !ferror(f);
    if (!ok) errorf("cannot read '%s': %s", path.c_str(), strerror(errno));
    if (f != stdin) fclose(f);
    return ok;
}

FILE *create_beside(const std::string &path, std::string *tmp) {
    *tmp = path + ".XXXXXX";
    int fd = mkstemp(&(*tmp)[0]);
    if (fd < 0) {
        tmp->clear();
        return nullptr;
    }
    mode_t mask = umask(0);
    umask(mask);
    (void)fchmod(fd, 0666 & ~mask);
    FILE *f = fdopen(fd, "wb");
    if (f == nullptr) {
        int e = errno;
        close(fd);
        unlink(tmp->c_str());
        errno = e;
    }
    return f;
}

bool write_file(const std::string &path, const Bytes &data) {
    // A file is written under a temporary name beside it and renamed when complete, so that a failed
    // run leaves no half-written file.
    std::string tmp;
    FILE *f = stdout;
    if (path != "-") {
        f = create_beside(path, &tmp);
        if (f == nullptr) return errorf("cannot create '%s': %s", path.c_str(), strerror(errno)), false;
    }
    bool ok = data.empty() || fwrite(data.data(), 1, data.size(), f) == data.size();
    ok = (fflush(f) == 0) && ok;
    if (f != stdout) ok = (fclose(f) == 0) && ok;
    if (ok && f != stdout && rename(tmp.c_str(), path.c_str()) != 0) ok = false;
    if (!ok) errorf("cannot write '%s': %s", path.c_str(), strerror(errno));
    if (!ok && f != stdout) unlink(tmp.c_str());
    return ok;
}

OutputFile::~OutputFile() {
    if (f_ != nullptr && f_ != stdout) fclose(f_);
    if (!tmp_.empty()) unlink(tmp_.c_str());
}

bool OutputFile::open(const std::string &path) {
    path_ = path;
    if (path == "-") {
        f_ = stdout;
        return true;
    }
    f_ = create_beside(path, &tmp_);
    if (f_ == nullptr) {
        tmp_.clear();
        return errorf("cannot create '%s': %s", path.c_str(), strerror(errno)), false;
    }
    return true;
}

bool OutputFile::write(const uint8_t *p, size_t n) {
    if (failed_ || f_ == nullptr) return false;
    if (n > 0 && fwrite(p, 1, n, f_) != n) {
        failed_ = true;
        errorf("cannot write '%s': %s", path_ == "-" ? "standard output" : path_.c_str(), strerror(errno));
    }
    return !failed_;
}

bool OutputFile::finish() {
    if (failed_ || f_ == nullptr) return false;
    bool ok = fflush(f_) == 0;
    if (f_ != stdout) ok = (fclose(f_) == 0) && ok;
    f_ = nullptr;
    if (ok && !tmp_.empty()) ok = rename(tmp_.c_str(), path_.c_str()) == 0;
    if (!ok) {
        failed_ = true;
        errorf("cannot write '%s': %s", path_ == "-" ? "standard output" : path_.c_str(), strerror(errno));
        return false;
    }
    tmp_.clear();
    return true;
}

std::string hex_view(const uint8_t *p, size_t n, size_t max) {
    std::string s;
    char b[4];
    for (size_t i = 0; i < n && i < max; ++i) {
        snprintf(b, sizeof(b), i ? " %02x" : "%02x", p[i]);
        s += b;
    }
    if (n > max) s += " ...";
    return s;
}

std::string hex_compact(const uint8_t *p, size_t n, size_t max) {
    std::string s;
    char b[3];
    for (size_t i = 0; i < n && i < max; ++i) {
        snprintf(b, sizeof(b), "%02x", p[i]);
        s += b;
    }
    return s;
}

std::string printable_text(const uint8_t *p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n && p[i] != 0; ++i) {
        if (p[i] >= 0x20 && p[i] < 0x7F && p[i] != '\\') {
            s += char(p[i]);
        } else {
            char b[8];
            snprintf(b, sizeof(b), "\\x%02x", p[i]);
            s += b;
        }
    }
    return s;
}

}  // namespace kxt

namespace kxt {

namespace {

// Length of the UTF-8 sequence at p (at most n bytes), or 0 when it is not a well-formed one
// (overlong forms, surrogates and values above U+10FFFF included).
size_t utf8_sequence(const uint8_t *p, size_t n) {
    uint8_t c = p[0];
    if (c < 0x80) return 1;
    size_t len = c >= 0xC2 && c <= 0xDF ? 2 : (c & 0xF0) == 0xE0 ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    if (len == 0 || len > n) return 0;
    for (size_t i = 1; i < len; ++i) {
        if ((p[i] & 0xC0) != 0x80) return 0;
    }
    if (c == 0xE0 && p[1] < 0xA0) return 0;   // overlong
    if (c == 0xED && p[1] >= 0xA0) return 0;  // surrogate
    if (c == 0xF0 && p[1] < 0x90) return 0;   // overlong
    if (c == 0xF4 && p[1] >= 0x90) return 0;  // above U+10FFFF
    return len;
}

bool valid_utf8(const uint8_t *p, size_t n) {
    for (size_t i = 0; i < n;) {
        size_t len = utf8_sequence(p + i, n - i);
        if (len == 0) return false;
        i += len;
    }
    return true;
}

// Control characters of well-formed UTF-8 text as \xHH, so that the text stays on one line: C0, DEL and
// the C1 controls U+0080 to U+009F (C2 80 to C2 9F, both bytes escaped), which some terminals obey.
std::string escape_controls(const std::string &text) {
    std::string s;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char c = text[i];
        bool c1 = c == 0xC2 && i + 1 < text.size() && (unsigned char)text[i + 1] < 0xA0;
        if (c < 0x20 || c == 0x7F || c1) {
            char b[16];
            if (c1) snprintf(b, sizeof(b), "\\x%02x\\x%02x", c, (unsigned char)text[++i]);
            else snprintf(b, sizeof(b), "\\x%02x", c);
            s += b;
        } else {
            s += char(c);
        }
    }
    return s;
}

}  // namespace

std::string device_text(const uint8_t *p, size_t n, bool raw) {
    if (raw) return printable_text(p, n);
    size_t len = 0;
    while (len < n && p[len] != 0) ++len;
    if (valid_utf8(p, len)) return escape_controls(std::string(reinterpret_cast<const char *>(p), len));
    iconv_t cd = iconv_open("UTF-8", "GB18030");
    if (cd == (iconv_t)-1) return printable_text(p, len);
    std::string out(len * 4 + 4, '\0');
    char *in = const_cast<char *>(reinterpret_cast<const char *>(p));
    size_t in_left = len, out_left = out.size();
    char *dst = &out[0];
    size_t rc = iconv(cd, &in, &in_left, &dst, &out_left);
    iconv_close(cd);
    if (rc == size_t(-1) || in_left != 0) return printable_text(p, len);
    out.resize(out.size() - out_left);
    return escape_controls(out);
}

}  // namespace kxt
