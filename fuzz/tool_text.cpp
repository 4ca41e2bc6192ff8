// The text of plates and OSD records as the tools show it (kxt::device_text): valid UTF-8 as it is,
// anything else decoded from GB18030 with iconv, else \xHH escapes; with raw, printable ASCII only.
//
// Checks: the result is well-formed UTF-8 without control characters (C0, DEL, C1), so that it stays
// one line of text on a terminal, in JSON and in korvex-view's drawtext; with raw, printable ASCII;
// nothing is read at or past the field's first zero byte or its end; text that is valid UTF-8 without
// control characters comes back unchanged.
//
// Input: an options byte (bit 0 raw), then the field.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "common/tool_util.h"

namespace {

// Code points of well-formed UTF-8, or false.
bool decode_utf8(const std::string &s, std::vector<uint32_t> *out) {
    const uint8_t *p = reinterpret_cast<const uint8_t *>(s.data());
    size_t n = s.size();
    for (size_t i = 0; i < n;) {
        uint8_t c = p[i];
        size_t len = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
        if (len == 0 || i + len > n) return false;
        uint32_t cp = len == 1 ? c : len == 2 ? c & 0x1F : len == 3 ? c & 0x0F : c & 0x07;
        for (size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = cp << 6 | (p[i + k] & 0x3F);
        }
        const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < least[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        out->push_back(cp);
        i += len;
    }
    return true;
}

bool is_control(uint32_t cp) { return cp < 0x20 || (cp >= 0x7F && cp <= 0x9F); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const bool raw = (data[0] & 1) != 0;
    // The field in a buffer of its exact size, so that ASan sees a read past it.
    std::vector<uint8_t> field(data + 1, data + size);
    std::string text = kxt::device_text(field.data(), field.size(), raw);

    size_t used = 0;
    while (used < field.size() && field[used] != 0) ++used;
    if (raw) {
        for (char c : text) {
            if (c < 0x20 || c > 0x7E) abort();
        }
        return 0;
    }
    std::vector<uint32_t> cps;
    if (!decode_utf8(text, &cps)) abort();
    for (uint32_t cp : cps) {
        if (is_control(cp)) abort();
    }
    std::string in(reinterpret_cast<const char *>(field.data()), used);
    std::vector<uint32_t> in_cps;
    bool plain = decode_utf8(in, &in_cps);
    for (uint32_t cp : in_cps) plain = plain && !is_control(cp);
    if (plain && text != in) abort();
    return 0;
}
