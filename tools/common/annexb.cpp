#include "common/annexb.h"

#include <limits.h>

#include "korvex/korvex.h"

namespace kxt {

const char *codec_name(Codec codec) {
    switch (codec) {
    case Codec::kH264: return "h264";
    case Codec::kH265: return "h265";
    default: return "unknown";
    }
}

Codec probe_codec(const uint8_t *p, size_t n) {
    int len = n > size_t(INT_MAX) ? INT_MAX : int(n);
    if (H264_Probe(p, len) == 1) return Codec::kH264;
    if (H265_Probe(p, len) == 1) return Codec::kH265;
    return Codec::kUnknown;
}

int codec_encode(Codec codec) { return codec == Codec::kH265 ? 23 : 21; }

std::vector<Nal> scan_nals(const uint8_t *p, size_t n, size_t *skipped) {
    std::vector<Nal> nals;
    for (size_t i = 2; i < n; ++i) {
        if (p[i] != 1 || p[i - 1] != 0 || p[i - 2] != 0) continue;
        size_t start = (i >= 3 && p[i - 3] == 0) ? i - 3 : i - 2;
        if (!nals.empty()) {
            size_t end = start;
            while (end > nals.back().begin && p[end - 1] == 0) --end;
            nals.back().end = end;
        } else if (skipped != nullptr) {
            *skipped = start;
        }
        nals.push_back({start, i + 1, n});
    }
    if (nals.empty() && skipped != nullptr) *skipped = n;
    if (!nals.empty()) {
        Nal &last = nals.back();
        while (last.end > last.begin && p[last.end - 1] == 0) --last.end;
    }
    return nals;
}

int nal_type(Codec codec, const uint8_t *nal, size_t len) {
    if (len < 1) return -1;
    return codec == Codec::kH265 ? (nal[0] >> 1) & 0x3F : nal[0] & 0x1F;
}

bool is_key_nal(Codec codec, int type) {
    return codec == Codec::kH265 ? (type >= 16 && type <= 23) : type == 5;
}

namespace {

// A slice that may begin a picture, and whether this one does: for H.264 first_mb_in_slice is 0 (its
// Exp-Golomb code is the single bit 1), for H.265 first_slice_segment_in_pic_flag is set.
bool is_vcl(Codec codec, int type) {
    return codec == Codec::kH265 ? type >= 0 && type <= 31 : type >= 1 && type <= 5;
}

bool first_slice_of_picture(Codec codec, int type, const uint8_t *nal, size_t len) {
    if (codec == Codec::kH265) return len >= 3 && (nal[2] & 0x80) != 0;
    if (type == 3 || type == 4) return false;  // data partitions B and C continue partition A
    return len >= 2 && (nal[1] & 0x80) != 0;
}

// Non-VCL units that, behind the slices of a picture, open the next access unit.
bool opens_access_unit(Codec codec, int type) {
    if (codec == Codec::kH265) {
        return (type >= 32 && type <= 35) || type == 39 || (type >= 41 && type <= 44) || (type >= 48 && type <= 55);
    }
    return (type >= 6 && type <= 9) || (type >= 14 && type <= 18);
}

}  // namespace

std::vector<AccessUnit> split_access_units(Codec codec, const uint8_t *p, const std::vector<Nal> &nals) {
    std::vector<AccessUnit> units;
    bool has_slice = false;  // the open access unit holds a slice already
    for (size_t i = 0; i < nals.size(); ++i) {
        const uint8_t *nal = p + nals[i].begin;
        size_t len = nals[i].end - nals[i].begin;
        int type = nal_type(codec, nal, len);
        bool vcl = is_vcl(codec, type);
        bool opens = units.empty() || (has_slice && ((vcl && first_slice_of_picture(codec, type, nal, len)) ||
                                                     (!vcl && opens_access_unit(codec, type))));
        if (opens) {
            units.push_back({i, 0, false});
            has_slice = false;
        }
        AccessUnit &au = units.back();
        ++au.count;
        if (vcl) has_slice = true;
        if (is_key_nal(codec, type)) au.key = true;
    }
    return units;
}

}  // namespace kxt
