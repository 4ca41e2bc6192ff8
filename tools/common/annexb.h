// Annex B byte streams of H.264 and H.265: NAL units between start codes, and their grouping into
// access units (one coded picture with the parameter sets and SEI in front of it).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

namespace kxt {

enum class Codec { kUnknown, kH264, kH265 };

// "h264", "h265" or "unknown".
const char *codec_name(Codec codec);
// The probes of the library over a buffer: H.264 first, then H.265.
Codec probe_codec(const uint8_t *p, size_t n);
// The iEncode value of the user-data calls: 21 for H.264, 23 for H.265.
int codec_encode(Codec codec);

// One NAL unit: its start code begins at start, its header at begin, and it ends before end (trailing
// zero bytes, which belong to the next start code or to trailing padding, are not counted).
struct Nal {
    size_t start;
    size_t begin;
    size_t end;
};

// All NAL units of a buffer. Bytes in front of the first start code belong to no unit; *skipped, when
// given, receives their count.
std::vector<Nal> scan_nals(const uint8_t *p, size_t n, size_t *skipped = nullptr);

// The NAL unit type: bits 0-4 of the header byte for H.264, bits 1-6 for H.265.
int nal_type(Codec codec, const uint8_t *nal, size_t len);
// A coded slice of an IDR picture (H.264) or of an IRAP picture (H.265).
bool is_key_nal(Codec codec, int type);

struct AccessUnit {
    size_t first;  // index of its first NAL unit
    size_t count;  // number of NAL units
    bool key;      // holds a key-picture slice
};

// Groups NAL units into access units: a new one opens at a parameter set, an access unit delimiter or
// a prefix SEI that follows the slices of a picture, and at the first slice of a new picture.
std::vector<AccessUnit> split_access_units(Codec codec, const uint8_t *p, const std::vector<Nal> &nals);

}  // namespace kxt
