// The timing of the pictures: the frame rate that a stream's parameter sets carry (H.264 SPS VUI, H.265
// VPS or SPS VUI), each picture's presentation time, and the texts of times and frame ranges that the
// tools take and print.
#include <ctype.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "core/core.h"

namespace kxc {

namespace {

// Reads bits of an RBSP (the NAL unit without its emulation-prevention bytes). Past the end it gives
// zeros and marks itself overrun.
class Bits {
public:
    Bits(const uint8_t *nal, size_t n, size_t header) {
        // The whole parameter set is short; 512 bytes hold every field up to the timing.
        int zeros = 0;
        for (size_t i = header; i < n && rbsp_.size() < 512; ++i) {
            if (zeros >= 2 && nal[i] == 3) {
                zeros = 0;
                continue;
            }
            zeros = nal[i] == 0 ? zeros + 1 : 0;
            rbsp_.push_back(nal[i]);
        }
    }
    uint32_t u(int n) {
        uint32_t v = 0;
        for (int i = 0; i < n; ++i) v = (v << 1) | bit();
        return v;
    }
    uint32_t ue() {
        int lead = 0;
        while (bit() == 0) {
            if (++lead > 31 || over_) return over_ = true, 0;
        }
        return lead == 0 ? 0 : uint32_t((1ull << lead) - 1 + u(lead));
    }
    void skip(int n) { pos_ += size_t(n); over_ = over_ || pos_ > rbsp_.size() * 8; }
    bool ok() const { return !over_; }

private:
    uint32_t bit() {
        if (pos_ >= rbsp_.size() * 8) return over_ = true, 0;
        uint32_t b = (rbsp_[pos_ >> 3] >> (7 - (pos_ & 7))) & 1;
        ++pos_;
        return b;
    }
    Bytes rbsp_;
    size_t pos_ = 0;
    bool over_ = false;
};

// The frame rate of an H.264 SPS (0 without timing) and, where size is given, its cropped picture size
// (0 where it doesn't read).
double h264_sps_rate(const uint8_t *nal, size_t n, int size[2] = nullptr) {
    Bits b(nal, n, 1);
    uint32_t profile = b.u(8);
    b.skip(16);  // constraint flags, level
    b.ue();      // seq_parameter_set_id
    static const uint32_t high[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    uint32_t chroma = 1;
    if (std::find(std::begin(high), std::end(high), profile) != std::end(high)) {
        chroma = b.ue();
        if (chroma == 3) b.skip(1);
        b.ue();
        b.ue();
        b.skip(1);
        if (b.u(1)) {  // seq_scaling_matrix_present_flag
            for (int i = 0; i < (chroma == 3 ? 12 : 8) && b.ok(); ++i) {
                if (!b.u(1)) continue;
                int last = 8, next = 8;
                for (int j = 0; j < (i < 6 ? 16 : 64) && b.ok(); ++j) {
                    if (next != 0) {
                        uint32_t k = b.ue();
                        // Only the step modulo 256 matters; reducing it first keeps a hostile k in range.
                        const int mag = int(((k & 1) ? (k + 1) / 2 : k / 2) % 256u);
                        int delta = (k & 1) ? mag : -mag;
                        next = (last + delta + 256) % 256;
                    }
                    last = next == 0 ? last : next;
                }
            }
        }
    }
    b.ue();  // log2_max_frame_num_minus4
    uint32_t poc = b.ue();
    if (poc == 0) {
        b.ue();
    } else if (poc == 1) {
        b.skip(1);
        b.ue();
        b.ue();
        uint32_t cycle = b.ue();
        for (uint32_t i = 0; i < cycle && i < 256 && b.ok(); ++i) b.ue();
    }
    b.ue();      // max_num_ref_frames
    b.skip(1);   // gaps_in_frame_num_value_allowed_flag
    uint64_t mbs_w = uint64_t(b.ue()) + 1;  // pic_width_in_mbs_minus1
    uint64_t map_h = uint64_t(b.ue()) + 1;  // pic_height_in_map_units_minus1
    uint32_t frame_mbs_only = b.u(1);
    if (!frame_mbs_only) b.skip(1);  // mb_adaptive_frame_field_flag
    b.skip(1);                       // direct_8x8_inference_flag
    uint64_t crop[4] = {0, 0, 0, 0};
    if (b.u(1)) {  // frame_cropping_flag: left, right, top, bottom
        for (int i = 0; i < 4; ++i) crop[i] = b.ue();
    }
    if (size != nullptr && b.ok() && chroma <= 3) {
        uint64_t unit_x = chroma == 1 || chroma == 2 ? 2 : 1;
        uint64_t unit_y = (chroma == 1 ? 2 : 1) * (2 - frame_mbs_only);
        uint64_t w = mbs_w * 16, h = map_h * 16 * (2 - frame_mbs_only);
        uint64_t cw = (crop[0] + crop[1]) * unit_x, ch = (crop[2] + crop[3]) * unit_y;
        if (cw < w && ch < h && w - cw <= 16384 && h - ch <= 16384) {
            size[0] = int(w - cw);
            size[1] = int(h - ch);
        }
    }
    if (!b.u(1) || !b.ok()) return 0;  // vui_parameters_present_flag
    if (b.u(1) && b.u(8) == 255) b.skip(32);  // aspect ratio, extended SAR
    if (b.u(1)) b.skip(1);                    // overscan
    if (b.u(1)) {                             // video signal type
        b.skip(4);
        if (b.u(1)) b.skip(24);
    }
    if (b.u(1)) {  // chroma location
        b.ue();
        b.ue();
    }
    if (!b.u(1)) return 0;  // timing_info_present_flag
    uint32_t units = b.u(32), scale = b.u(32);
    if (!b.ok() || units == 0 || scale == 0) return 0;
    return scale / (2.0 * units);  // a frame is two fields' ticks
}

void h265_profile_tier_level(Bits &b, uint32_t max_sub_layers_minus1) {
    b.skip(96);  // the general profile, tier and level
    bool profile[8] = {false}, level[8] = {false};
    for (uint32_t i = 0; i < max_sub_layers_minus1; ++i) {
        profile[i] = b.u(1);
        level[i] = b.u(1);
    }
    if (max_sub_layers_minus1 > 0) b.skip(int(2 * (8 - max_sub_layers_minus1)));
    for (uint32_t i = 0; i < max_sub_layers_minus1; ++i) {
        if (profile[i]) b.skip(88);
        if (level[i]) b.skip(8);
    }
}

double h265_vps_rate(const uint8_t *nal, size_t n) {
    Bits b(nal, n, 2);
    b.skip(4 + 1 + 1 + 6);  // vps id, base layer flags, max layers
    uint32_t max_sub = b.u(3);
    b.skip(1 + 16);
    h265_profile_tier_level(b, max_sub);
    bool all = b.u(1);  // vps_sub_layer_ordering_info_present_flag
    for (uint32_t i = all ? 0 : max_sub; i <= max_sub && b.ok(); ++i) {
        b.ue();
        b.ue();
        b.ue();
    }
    uint32_t max_layer_id = b.u(6);
    uint32_t sets = b.ue();
    if (sets > 1023) return 0;
    for (uint32_t i = 1; i <= sets && b.ok(); ++i) b.skip(int(max_layer_id) + 1);
    if (!b.u(1)) return 0;  // vps_timing_info_present_flag
    uint32_t units = b.u(32), scale = b.u(32);
    if (!b.ok() || units == 0 || scale == 0) return 0;
    return double(scale) / units;
}

// The cropped picture size of an H.265 SPS; false where it doesn't read.
bool h265_sps_size(const uint8_t *nal, size_t n, int size[2]) {
    Bits b(nal, n, 2);
    b.skip(4);  // sps_video_parameter_set_id
    uint32_t max_sub = b.u(3);
    b.skip(1);  // sps_temporal_id_nesting_flag
    h265_profile_tier_level(b, max_sub);
    b.ue();  // sps_seq_parameter_set_id
    uint32_t chroma = b.ue();
    if (chroma == 3) b.skip(1);  // separate_colour_plane_flag
    uint64_t w = b.ue(), h = b.ue();
    uint64_t win[4] = {0, 0, 0, 0};
    if (b.u(1)) {  // conformance_window_flag: left, right, top, bottom
        for (int i = 0; i < 4; ++i) win[i] = b.ue();
    }
    if (!b.ok() || chroma > 3 || w == 0 || h == 0) return false;
    uint64_t sub_w = chroma == 1 || chroma == 2 ? 2 : 1, sub_h = chroma == 1 ? 2 : 1;
    uint64_t cw = (win[0] + win[1]) * sub_w, ch = (win[2] + win[3]) * sub_h;
    if (cw >= w || ch >= h || w - cw > 16384 || h - ch > 16384) return false;
    size[0] = int(w - cw);
    size[1] = int(h - ch);
    return true;
}

int32_t se(Bits &b) {
    uint32_t k = b.ue();
    return (k & 1) ? int32_t((k + 1) / 2) : -int32_t(k / 2);
}

// H.265 SPS, up to the VUI timing (x265 writes its timing there only).
double h265_sps_rate(const uint8_t *nal, size_t n) {
    Bits b(nal, n, 2);
    b.skip(4);
    uint32_t max_sub = b.u(3);
    b.skip(1);
    h265_profile_tier_level(b, max_sub);
    b.ue();  // sps_seq_parameter_set_id
    if (b.ue() == 3) b.skip(1);  // chroma_format_idc, separate_colour_plane_flag
    b.ue();
    b.ue();  // picture size
    if (b.u(1)) {
        for (int i = 0; i < 4; ++i) b.ue();  // conformance window
    }
    b.ue();
    b.ue();  // bit depths
    uint32_t poc_lsb_bits = b.ue() + 4;
    bool all = b.u(1);
    for (uint32_t i = all ? 0 : max_sub; i <= max_sub && b.ok(); ++i) {
        b.ue();
        b.ue();
        b.ue();
    }
    for (int i = 0; i < 6; ++i) b.ue();  // coding and transform block sizes and depths
    if (b.u(1) && b.u(1)) {              // scaling_list_enabled_flag, sps_scaling_list_data_present_flag
        for (int size = 0; size < 4 && b.ok(); ++size) {
            for (int matrix = 0; matrix < 6 && b.ok(); matrix += size == 3 ? 3 : 1) {
                if (!b.u(1)) {
                    b.ue();
                    continue;
                }
                int coefs = std::min(64, 1 << (4 + (size << 1)));
                if (size > 1) se(b);
                for (int i = 0; i < coefs && b.ok(); ++i) se(b);
            }
        }
    }
    b.skip(2);      // amp, sample adaptive offset
    if (b.u(1)) {   // pcm_enabled_flag
        b.skip(8);
        b.ue();
        b.ue();
        b.skip(1);
    }
    uint32_t sets = b.ue();  // num_short_term_ref_pic_sets
    if (sets > 64) return 0;
    uint32_t deltas[65] = {0};  // NumDeltaPocs of each set
    for (uint32_t i = 0; i < sets && b.ok(); ++i) {
        if (i != 0 && b.u(1)) {  // inter_ref_pic_set_prediction_flag
            b.skip(1);
            b.ue();
            uint32_t count = 0;
            for (uint32_t j = 0; j <= deltas[i - 1] && b.ok(); ++j) {
                bool used = b.u(1);
                bool use_delta = used || b.u(1);
                if (use_delta) ++count;
            }
            deltas[i] = count;
        } else {
            uint32_t neg = b.ue(), pos = b.ue();
            if (neg > 32 || pos > 32) return 0;
            for (uint32_t j = 0; j < neg + pos && b.ok(); ++j) {
                b.ue();
                b.skip(1);
            }
            deltas[i] = neg + pos;
        }
    }
    if (b.u(1)) {  // long_term_ref_pics_present_flag
        uint32_t lt = b.ue();
        if (lt > 32) return 0;
        for (uint32_t i = 0; i < lt; ++i) b.skip(int(poc_lsb_bits) + 1);
    }
    b.skip(2);                          // temporal MVP, strong intra smoothing
    if (!b.u(1) || !b.ok()) return 0;   // vui_parameters_present_flag
    if (b.u(1) && b.u(8) == 255) b.skip(32);
    if (b.u(1)) b.skip(1);
    if (b.u(1)) {
        b.skip(4);
        if (b.u(1)) b.skip(24);
    }
    if (b.u(1)) {
        b.ue();
        b.ue();
    }
    b.skip(3);     // neutral chroma, field sequence, frame field info
    if (b.u(1)) {  // default display window
        for (int i = 0; i < 4; ++i) b.ue();
    }
    if (!b.u(1)) return 0;  // vui_timing_info_present_flag
    uint32_t units = b.u(32), scale = b.u(32);
    if (!b.ok() || units == 0 || scale == 0) return 0;
    return double(scale) / units;
}

}  // namespace

bool stream_picture_size(const uint8_t *p, size_t n, Codec codec, int *width, int *height) {
    if (codec == Codec::kUnknown) return false;
    for (const kxt::Nal &nal : kxt::scan_nals(p, n)) {
        if (nal.end <= nal.begin) continue;
        const uint8_t *u = p + nal.begin;
        size_t len = nal.end - nal.begin;
        int type = kxt::nal_type(codec, u, len);
        int size[2] = {0, 0};
        if (codec == Codec::kH264 && type == 7) h264_sps_rate(u, len, size);
        if (codec == Codec::kH265 && type == 33) h265_sps_size(u, len, size);
        if (size[0] > 0 && size[1] > 0) {
            *width = size[0];
            *height = size[1];
            return true;
        }
    }
    return false;
}

void keep_picture_size(FrameReport *r, int size[2]) {
    if (r->width > 0 && r->height > 0) {
        size[0] = r->width;
        size[1] = r->height;
    } else if (r->clear() && size[0] > 0) {
        r->width = size[0];
        r->height = size[1];
    }
}

void vca_pixels(const VcaView &v, int width, int height, int out[4]) {
    for (int i = 0; i < 4; ++i) {
        double scale = (i % 2 == 0 ? width : height) /
                       (v.has_raw ? 10000.0 : (i % 2 == 0 ? 176.0 : 144.0));
        double c = double(v.has_raw ? v.raw[i] : v.grid[i]) * scale;
        out[i] = int(std::min(std::max(lround(c), 0L), long(i % 2 == 0 ? width : height)));
    }
}

double stream_frame_rate(const uint8_t *p, size_t n, Codec codec) {
    if (codec == Codec::kUnknown) return 0;
    for (const kxt::Nal &nal : kxt::scan_nals(p, n)) {
        if (nal.end <= nal.begin) continue;
        int type = kxt::nal_type(codec, p + nal.begin, nal.end - nal.begin);
        double fps = 0;
        if (codec == Codec::kH264 && type == 7) fps = h264_sps_rate(p + nal.begin, nal.end - nal.begin);
        if (codec == Codec::kH265 && type == 32) fps = h265_vps_rate(p + nal.begin, nal.end - nal.begin);
        if (codec == Codec::kH265 && type == 33) fps = h265_sps_rate(p + nal.begin, nal.end - nal.begin);
        // A rate no recording has is a misread field: ignored.
        if (fps >= 0.1 && fps <= 1000) return fps;
    }
    return 0;
}

const char *time_source_name(TimeSource s) {
    switch (s) {
    case TimeSource::kDevice: return "device";
    case TimeSource::kStream: return "stream";
    case TimeSource::kGiven: return "fps";
    default: return "default";
    }
}

double PtsClock::fps() const {
    return stream_fps_ > 0 ? stream_fps_ : given_fps_ > 0 ? given_fps_ : 25.0;
}

TimeSource PtsClock::interval_source() const {
    return stream_fps_ > 0 ? TimeSource::kStream : given_fps_ > 0 ? TimeSource::kGiven : TimeSource::kDefault;
}

int64_t PtsClock::next(const FrameReport &r, const uint8_t *payload, size_t payload_len) {
    if (stream_fps_ == 0 && r.key_frame) stream_fps_ = stream_frame_rate(payload, payload_len, r.codec);
    double interval = 1000.0 / fps();
    int64_t step = std::max<int64_t>(1, llround(interval));
    int64_t t;
    if (r.ud.has_time) {
        int64_t second = int64_t(r.ud.time.uiSeconds);
        if (have_prev_ && run_second_ >= 0 && second < run_second_) {
            // The device's clock was set back: from here on its times follow the previous picture.
            offset_ = prev_ + step - second * 1000;
            ++steps_back_;
        }
        if (second != run_second_) {
            run_second_ = second;
            run_ = 0;
        }
        int64_t within = std::min<int64_t>(llround(double(run_++) * interval), 999);
        t = second * 1000 + within + offset_;
        last_source_ = TimeSource::kDevice;
        ++device_frames_;
    } else {
        t = have_prev_ ? prev_ + step : 0;
        last_source_ = interval_source();
    }
    if (have_prev_ && t <= prev_) t = prev_ + 1;
    have_prev_ = true;
    prev_ = t;
    return t;
}

std::string iso8601_ms(int64_t ms) {
    int64_t secs = ms >= 0 ? ms / 1000 : -((-ms + 999) / 1000);
    int frac = int(ms - secs * 1000);
    time_t tt = time_t(secs);
    struct tm tm;
    if (gmtime_r(&tt, &tm) == nullptr) return "?";
    char buf[64];
    snprintf(buf, sizeof(buf), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec, frac);
    return buf;
}

namespace {

// Digits of a fraction of a second as milliseconds (at most three count; more are cut off); the
// position behind them, or null when there is no digit.
const char *fraction_ms(const char *p, int64_t *ms) {
    *ms = 0;
    int n = 0;
    for (; isdigit((unsigned char)*p); ++p, ++n) {
        if (n < 3) *ms = *ms * 10 + (*p - '0');
    }
    if (n == 0) return nullptr;
    for (int k = n; k < 3; ++k) *ms *= 10;
    return p;
}

// Exactly n digits at *p, moved past them.
bool digits(const char **p, int n, int *out) {
    int v = 0;
    for (int i = 0; i < n; ++i) {
        if (!isdigit((unsigned char)(*p)[i])) return false;
        v = v * 10 + ((*p)[i] - '0');
    }
    *p += n;
    *out = v;
    return true;
}

}  // namespace

bool parse_time_ms(const std::string &text, int64_t *out) {
    const char *p = text.c_str();
    if (text.size() != strlen(p) || text.empty()) return false;
    // Seconds since 1970, with an optional fraction.
    if (isdigit((unsigned char)p[0]) && text.find('-') == std::string::npos && text.find(':') == std::string::npos) {
        int64_t secs = 0;
        int n = 0;
        for (; isdigit((unsigned char)*p); ++p) {
            if (++n > 11) return false;
            secs = secs * 10 + (*p - '0');
        }
        int64_t ms = 0;
        if (*p == '.' && (p = fraction_ms(p + 1, &ms)) == nullptr) return false;
        if (*p != '\0' || secs > 253402300799LL) return false;
        *out = secs * 1000 + ms;
        return true;
    }
    int y, mo, d, h, mi, s;
    if (!digits(&p, 4, &y) || *p++ != '-' || !digits(&p, 2, &mo) || *p++ != '-' || !digits(&p, 2, &d)) return false;
    if (*p != 'T' && *p != 't' && *p != ' ') return false;
    ++p;
    if (!digits(&p, 2, &h) || *p++ != ':' || !digits(&p, 2, &mi) || *p++ != ':' || !digits(&p, 2, &s)) return false;
    int64_t ms = 0;
    if (*p == '.' && (p = fraction_ms(p + 1, &ms)) == nullptr) return false;
    if (*p == 'Z' || *p == 'z') ++p;
    if (*p != '\0' || y < 1970 || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 59) return false;
    // Days from 1970 by the civil calendar (no time zone, no time_t width in the way).
    int yy = mo <= 2 ? y - 1 : y;
    int era = yy / 400, yoe = yy - era * 400;
    int doy = (153 * (mo + (mo > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    int64_t days = int64_t(era) * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
    static const int mdays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    if (d > mdays[mo - 1] + (mo == 2 && leap ? 1 : 0)) return false;
    *out = ((days * 24 + h) * 60 + mi) * 60 * 1000 + int64_t(s) * 1000 + ms;
    return true;
}

bool parse_frame_range(const std::string &text, long long *first, long long *last) {
    size_t colon = text.find(':');
    if (colon == std::string::npos || text.find(':', colon + 1) != std::string::npos || text.size() < 2) return false;
    std::string a = text.substr(0, colon), b = text.substr(colon + 1);
    auto number = [](const std::string &s, long long *v) {
        *v = -1;
        if (s.empty()) return true;
        if (s.size() > 12) return false;
        long long n = 0;
        for (char c : s) {
            if (!isdigit((unsigned char)c)) return false;
            n = n * 10 + (c - '0');
        }
        *v = n;
        return true;
    };
    if (!number(a, first) || !number(b, last)) return false;
    if (*first < 0) *first = 0;
    return *last < 0 || *last >= *first;
}

}  // namespace kxc
