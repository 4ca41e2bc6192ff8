// Text encoding tests for library callers.
#include "korvex/korvex.h"

namespace {

// Number of bytes of the sequence that a lead byte (192 and above) starts, in the original UTF-8
// definition with sequences of up to six bytes. 254 and 255 are taken as five-byte leads.
int lead_length(unsigned char c) {
    if (c == 252 || c == 253) return 6;
    if (c >= 248) return 5;
    if (c >= 240) return 4;
    if (c >= 224) return 3;
    return 2;
}

}  // namespace

extern "C" {

// Well-formed sequences only, none cut off at the end, and at least one of them: plain ASCII text
// is not taken as UTF-8. Overlong forms are not looked for.
KX_API int os_is_utf8_encoding(const char *bytes, int len) {
    if (bytes == nullptr || len <= 0) return 0;
    const unsigned char *p = reinterpret_cast<const unsigned char *>(bytes);
    int pending = 0;
    bool multi = false;
    for (int i = 0; i < len; i++) {
        unsigned char c = p[i];
        if (pending > 0) {
            if ((c & 0xC0) != 0x80) return 0;
            pending--;
        } else if (c >= 0x80) {
            if (c < 0xC0) return 0;  // a continuation byte without a lead
            pending = lead_length(c) - 1;
            multi = true;
        }
    }
    return (pending == 0 && multi) ? 1 : 0;
}

KX_API int os_get_charset_code(const char *bytes, int len) { return os_is_utf8_encoding(bytes, len) == 1 ? 1 : 0; }

KX_API int os_is_wide_char(const char *bytes, int len) { return os_get_charset_code(bytes, len); }

}  // extern "C"
