#include "korvex-export/sidecar.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kxe {

bool TempFile::create(const std::string &path, std::string *why) {
    path_ = path;
    f_ = kxt::create_beside(path, &tmp_);
    if (f_ == nullptr) {
        *why = tmp_.empty() ? "cannot create a file beside '" + path + "': " + strerror(errno)
                            : "cannot create '" + tmp_ + "': " + strerror(errno);
        return false;
    }
    live_ = true;
    return true;
}

void TempFile::close_only() {
    if (f_ != nullptr) fclose(f_);
    f_ = nullptr;
}

bool TempFile::commit(std::string *why) {
    if (!live_) return true;
    if (f_ != nullptr) {
        ok_ = fflush(f_) == 0 && ok_;
        ok_ = fclose(f_) == 0 && ok_;
        f_ = nullptr;
    }
    if (!ok_) {
        *why = "cannot write '" + path_ + "': " + strerror(errno ? errno : EIO);
        discard();
        return false;
    }
    if (rename(tmp_.c_str(), path_.c_str()) != 0) {
        *why = "cannot rename '" + tmp_ + "' to '" + path_ + "': " + strerror(errno);
        discard();
        return false;
    }
    live_ = false;
    return true;
}

void TempFile::discard() {
    if (f_ != nullptr) fclose(f_);
    f_ = nullptr;
    if (live_) unlink(tmp_.c_str());
    live_ = false;
}

std::string vtt_time(int64_t ms) {
    if (ms < 0) ms = 0;
    char b[32];
    snprintf(b, sizeof(b), "%02lld:%02lld:%02lld.%03lld", (long long)(ms / 3600000), (long long)(ms / 60000 % 60),
             (long long)(ms / 1000 % 60), (long long)(ms % 1000));
    return b;
}

namespace {

std::string vtt_escape(const std::string &s) {
    std::string out;
    for (char c : s) {
        if (c == '&') out += "&amp;";
        else if (c == '<') out += "&lt;";
        else if (c == '>') out += "&gt;";
        else out += c;
    }
    return out;
}

}  // namespace

std::string cue_text(const kxc::UserDataReport &u) {
    std::string text;
    auto line = [&](const std::string &s) {
        if (!text.empty()) text += '\n';
        text += vtt_escape(s);
    };
    if (u.has_time) {
        char b[64];
        snprintf(b, sizeof(b), "%04d-%02d-%02d %02d:%02d:%02d UTC", u.time.usYear, u.time.usMonth, u.time.usDay,
                 u.time.usHour, u.time.usMinute, u.time.usSecond);
        line(b);
    }
    for (const kxc::OsdView &v : u.osd) {
        if (v.has_text && !v.text.empty()) line(v.text);
    }
    for (const std::string &p : u.plates) line("plate " + p);
    return text;
}

std::string csv_field(const std::string &s) {
    if (s.find_first_of(",\"\r\n") == std::string::npos) return s;
    std::string out = "\"";
    for (char c : s) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + "\"";
}

}  // namespace kxe
