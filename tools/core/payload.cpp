// The clear payload of a frame as players take it: its NAL units behind start codes, the user-data units
// left out; and whether it holds a key picture.
#include <string.h>

#include <algorithm>

#include "core/core.h"

namespace kxc {

namespace {

// A user-data unit: an SEI NAL unit (H.264 type 6, H.265 prefix SEI 4E 01) whose first payload type
// is F0 or F1, the two container layouts.
bool is_user_data_unit(const uint8_t *nal, size_t len, Codec codec) {
    if (codec == Codec::kH265) return len > 2 && nal[0] == 0x4E && nal[1] == 0x01 && (nal[2] | 1) == 0xF1;
    return len > 1 && nal[0] == 0x06 && (nal[1] | 1) == 0xF1;
}

}  // namespace

Bytes clear_payload(const uint8_t *frame, size_t held, uint32_t payload_len, Codec codec, bool keep_sei) {
    Bytes out;
    if (held <= 32) return out;
    const uint8_t *p = frame + 32;
    size_t n = std::min(size_t(payload_len), held - 32);
    for (const kxt::Nal &nal : kxt::scan_nals(p, n)) {
        if (nal.end <= nal.begin) continue;
        if (!keep_sei && is_user_data_unit(p + nal.begin, nal.end - nal.begin, codec)) continue;
        out.insert(out.end(), {0, 0, 0, 1});
        out.insert(out.end(), p + nal.begin, p + nal.end);
    }
    return out;
}

bool has_key_picture(const uint8_t *p, size_t n, Codec codec) {
    // Each 00 00 01 is followed by a NAL header; the first key slice answers.
    for (size_t i = 0; i + 3 < n;) {
        const void *one = memchr(p + i + 2, 1, n - i - 3);
        if (one == nullptr) return false;
        size_t k = size_t(static_cast<const uint8_t *>(one) - p);
        if (p[k - 1] == 0 && p[k - 2] == 0 && kxt::is_key_nal(codec, kxt::nal_type(codec, p + k + 1, n - k - 1))) {
            return true;
        }
        i = k - 1;
    }
    return false;
}

}  // namespace kxc
