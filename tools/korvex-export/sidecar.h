// The files korvex-export writes beside the video: each under a temporary name in the same directory,
// renamed into place only when the whole export succeeded, removed otherwise.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

#include "core/core.h"

namespace kxe {

class TempFile {
public:
    TempFile() = default;
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;
    ~TempFile() { discard(); }
    // Creates the temporary file for path; false with *why set.
    bool create(const std::string &path, std::string *why);
    FILE *file() const { return f_; }
    const std::string &temp_path() const { return tmp_; }
    bool write(const std::string &s) {
        ok_ = ok_ && (s.empty() || fwrite(s.data(), 1, s.size(), f_) == s.size());
        return ok_;
    }
    // Closes the file (when still open) and renames it into place; false with *why set.
    bool commit(std::string *why);
    // Closes and removes the temporary file.
    void discard();
    void close_only();  // for files another writer (libavformat) fills: the name stays reserved

private:
    std::string path_, tmp_;
    FILE *f_ = nullptr;
    bool ok_ = true;
    bool live_ = false;
};

// One cue of the WebVTT file: what is on screen from start to end.
struct Cue {
    int64_t start = 0, end = 0;  // milliseconds of the video's time line
    std::string text;            // lines: the time, the OSD texts, the plates
};

// "00:01:02.345" for WebVTT.
std::string vtt_time(int64_t ms);
// The text of a cue for a frame: its device time (UTC, whole seconds), OSD texts and plates, each on a
// line; empty when the frame has none of them. '<', '>' and '&' escaped as WebVTT wants.
std::string cue_text(const kxc::UserDataReport &u);
// A CSV field, quoted where it holds a comma, a quote or a line break.
std::string csv_field(const std::string &s);

}  // namespace kxe
