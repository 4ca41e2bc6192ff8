#include "common/annexb.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>

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

bool AccessUnitSplitter::opens(const uint8_t *nal, size_t len, bool *key) {
    int type = nal_type(codec_, nal, len);
    bool vcl = is_vcl(codec_, type);
    bool open = !any_ || (has_slice_ && ((vcl && first_slice_of_picture(codec_, type, nal, len)) ||
                                         (!vcl && opens_access_unit(codec_, type))));
    any_ = true;
    if (open) has_slice_ = false;
    if (vcl) has_slice_ = true;
    *key = is_key_nal(codec_, type);
    return open;
}

std::vector<AccessUnit> split_access_units(Codec codec, const uint8_t *p, const std::vector<Nal> &nals) {
    std::vector<AccessUnit> units;
    AccessUnitSplitter splitter(codec);
    for (size_t i = 0; i < nals.size(); ++i) {
        bool key = false;
        if (splitter.opens(p + nals[i].begin, nals[i].end - nals[i].begin, &key)) units.push_back({i, 0, false});
        AccessUnit &au = units.back();
        ++au.count;
        if (key) au.key = true;
    }
    return units;
}

// ---- reading in pieces ----

bool NalReader::more() {
    if (eof_) return false;
    // Bytes in front of the current unit are done with: dropped, so the buffer holds one unit and a
    // piece at most.
    if (pos_ > 0 && started_) {
        size_t drop = pos_ >= 4 ? pos_ - 4 : 0;  // keep the start code in front of the unit
        buf_.erase(buf_.begin(), buf_.begin() + long(drop));
        consumed_ += drop;
        pos_ -= drop;
    }
    size_t old = buf_.size();
    buf_.resize(old + piece_);
    size_t got = fread(buf_.data() + old, 1, piece_, f_);
    buf_.resize(old + got);
    if (got == 0) {
        eof_ = true;
        error_ = ferror(f_) != 0 ? errno : 0;
    }
    return got > 0;
}

size_t NalReader::peek(size_t n, const uint8_t **p) {
    while (buf_.size() < n && more()) {
    }
    *p = buf_.data();
    return std::min(n, buf_.size());
}

size_t NalReader::find_start(size_t from) const {
    const uint8_t *b = buf_.data();
    size_t n = buf_.size();
    for (size_t i = std::max<size_t>(from, 2); i < n;) {
        const void *one = memchr(b + i, 1, n - i);
        if (one == nullptr) return SIZE_MAX;
        i = size_t(static_cast<const uint8_t *>(one) - b);
        if (b[i - 1] == 0 && b[i - 2] == 0) return i;
        ++i;
    }
    return SIZE_MAX;
}

bool NalReader::next(const uint8_t **nal, size_t *len) {
    if (too_long_ || error_ != 0) return false;
    if (!started_) {
        // Up to the first start code; what lies in front belongs to no unit.
        size_t at;
        while ((at = find_start(0)) == SIZE_MAX) {
            size_t keep = std::min<size_t>(buf_.size(), 3);  // a start code may straddle the pieces
            skipped_ += buf_.size() - keep;
            consumed_ += buf_.size() - keep;
            buf_.erase(buf_.begin(), buf_.end() - long(keep));
            if (!more()) {
                skipped_ += buf_.size();
                consumed_ += buf_.size();
                buf_.clear();
                return false;
            }
        }
        size_t start = (at >= 3 && buf_[at - 3] == 0) ? at - 3 : at - 2;
        skipped_ += start;
        started_ = true;
        pos_ = at + 1;
    }
    if (!open_) return false;  // the last unit was given
    if (pos_ >= buf_.size()) more();
    size_t scanned = pos_;
    for (;;) {
        size_t at = find_start(scanned);
        if (at != SIZE_MAX) {
            size_t end = at - 2;
            while (end > pos_ && buf_[end - 1] == 0) --end;
            *nal = buf_.data() + pos_;
            *len = end - pos_;
            pos_ = at + 1;
            return true;
        }
        if (buf_.size() - pos_ > kMaxNal) {
            too_long_ = true;
            return false;
        }
        // Search on from where a start code split over the pieces may begin.
        size_t before = pos_;
        scanned = buf_.size() > pos_ + 2 ? buf_.size() - 2 : pos_;
        if (!more()) break;
        scanned -= before - pos_;  // the buffer moved forward by what more() dropped
    }
    open_ = false;  // the unit runs to the end of the input (empty where the input ends in a start code)
    size_t end = buf_.size();
    while (end > pos_ && buf_[end - 1] == 0) --end;
    *nal = buf_.data() + pos_;
    *len = end - pos_;
    pos_ = buf_.size();
    return true;
}

}  // namespace kxt
