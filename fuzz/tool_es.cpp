// korvex-dump --es and korvex-view: the clear payload of a frame cut into Annex B units
// (kxc::clear_payload), with the user-data SEI units dropped unless kept.
//
// Checks: the output is a sequence of 4-byte start codes and units that scans back into the same
// units; each unit is one of the payload's, in order; no user-data unit is left unless kept; nothing
// is read past the payload length or the held bytes.
//
// Input: an options byte (bits 0-1 the codec, bit 2 keep the user-data units), the payload length
// (4 bytes, little-endian), then the frame as held (header and data).
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "core/core.h"

namespace {

bool is_user_data(const uint8_t *nal, size_t len, kxt::Codec codec) {
    if (codec == kxt::Codec::kH265) return len > 2 && nal[0] == 0x4E && nal[1] == 0x01 && (nal[2] == 0xF0 || nal[2] == 0xF1);
    return len > 1 && nal[0] == 0x06 && (nal[1] == 0xF0 || nal[1] == 0xF1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 5) return 0;
    const kxt::Codec codecs[] = {kxt::Codec::kH264, kxt::Codec::kH265, kxt::Codec::kUnknown, kxt::Codec::kH264};
    const kxt::Codec codec = codecs[data[0] & 3];
    const bool keep = (data[0] & 4) != 0;
    const uint32_t payload_len = kxt::rd32(data + 1);
    // The held bytes in a buffer of their exact size, so that ASan sees a read past them.
    std::vector<uint8_t> frame(data + 5, data + size);
    const size_t held = frame.size();
    kxt::Bytes out = kxc::clear_payload(frame.data(), held, payload_len, codec, keep);
    if (held <= 32) {
        if (!out.empty()) abort();
        return 0;
    }

    const uint8_t *payload = frame.data() + 32;
    const size_t n = std::min(size_t(payload_len), held - 32);
    std::vector<kxt::Nal> in_units = kxt::scan_nals(payload, n);
    std::vector<kxt::Nal> out_units = kxt::scan_nals(out.data(), out.size());
    size_t j = 0;
    for (const kxt::Nal &u : out_units) {
        if (u.start + 4 != u.begin || memcmp(out.data() + u.start, "\0\0\0\1", 4) != 0) abort();
        const uint8_t *nal = out.data() + u.begin;
        const size_t len = u.end - u.begin;
        if (len == 0 || (!keep && is_user_data(nal, len, codec))) abort();
        // The next unit of the payload with the same bytes; those skipped must have been dropped.
        while (j < in_units.size() && !(in_units[j].end - in_units[j].begin == len &&
                                        memcmp(payload + in_units[j].begin, nal, len) == 0)) {
            const kxt::Nal &s = in_units[j];
            if (s.end > s.begin && (keep || !is_user_data(payload + s.begin, s.end - s.begin, codec))) abort();
            ++j;
        }
        if (j == in_units.size()) abort();
        ++j;
    }
    for (; j < in_units.size(); ++j) {
        const kxt::Nal &s = in_units[j];
        if (s.end > s.begin && (keep || !is_user_data(payload + s.begin, s.end - s.begin, codec))) abort();
    }
    if (!out_units.empty() && out_units.back().end != out.size()) abort();
    return 0;
}
