// The texts of times and frame ranges that korvex-export and korvex.export() take (kxc::parse_time_ms,
// kxc::parse_frame_range), and the side-file texts made from device text (WebVTT cue lines, CSV fields).
//
// Checks: a time that parses prints (iso8601_ms) as a text that parses to the same millisecond; a range
// that parses starts at 0 or later and ends open or not before its start; a CSV field keeps its quotes
// paired; a cue line holds no "-->" and no line break.
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "core/core.h"
#include "korvex-export/sidecar.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    int64_t ms = 0;
    if (kxc::parse_time_ms(text, &ms)) {
        if (ms < 0) abort();
        int64_t back = -1;
        if (!kxc::parse_time_ms(kxc::iso8601_ms(ms), &back) || back != ms) abort();
    }
    long long first = 0, last = 0;
    if (kxc::parse_frame_range(text, &first, &last)) {
        if (first < 0 || (last != -1 && last < first)) abort();
    }
    std::string field = kxe::csv_field(text);
    size_t quotes = 0;
    for (char c : field) quotes += c == '"';
    if (quotes % 2 != 0) abort();
    kxc::UserDataReport u;
    u.plates.push_back(kxt::device_text(data, size, false));
    std::string cue = kxe::cue_text(u);
    if (cue.find("-->") != std::string::npos || cue.find('\n') != std::string::npos) abort();
    return 0;
}
