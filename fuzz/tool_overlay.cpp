// What korvex-view takes from a frame before drawing: the frame examined as the walk does (decryption,
// user-data analysis with the stream's split state), the overlay of its report (kxv::overlay_of) and
// each target's box on pictures of several output sizes (kxv::box_pixels).
//
// Checks: every box lies inside its picture and is at least one pixel wide and high; every text line
// is well-formed UTF-8 without control characters (drawtext draws one line per entry).
//
// Input: an options byte (bit 0 a key, bit 1 the two-layout analysis, bit 2 H.265, bit 3 a fresh split
// state, bit 4 the frame as it comes rather than behind a valid header), an output width and height
// (2 bytes each, little-endian), then the frame's data.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "framegen.h"
#include "core/core.h"
#include "korvex-view/view.h"

namespace {

bool one_line_utf8(const std::string &s) {
    const uint8_t *p = reinterpret_cast<const uint8_t *>(s.data());
    for (size_t i = 0; i < s.size();) {
        uint8_t c = p[i];
        size_t len = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
        if (len == 0 || i + len > s.size()) return false;
        for (size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
        }
        if (c < 0x20 || c == 0x7F || (c == 0xC2 && p[i + 1] < 0xA0)) return false;
        i += len;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sdk_log_set_level(0, 0, 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 5) return 0;
    const uint8_t opt = data[0];
    const int width = kxt::rd16(data + 1) % 8192 + 1, height = kxt::rd16(data + 3) % 16384 + 1;
    kxt::Bytes body(data + 5, data + size);
    kxt::Bytes frame = (opt & 0x10) ? body : framegen::frame(body);
    if (frame.size() < 32 || !kxc::sound_header(frame.data())) return 0;

    static kxt::Bytes split(sizeof(TUserDataSplitState), 0);
    if (opt & 8) memset(split.data(), 0, split.size());
    kxc::AnalysisOptions o;
    if (opt & 1) kxc::set_walk_option("--key", "fuzzkey", &o);
    if (opt & 2) kxc::set_walk_option("--mask", "all", &o);
    kxt::Codec codec = (opt & 4) ? kxt::Codec::kH265 : kxt::Codec::kUnknown;
    kxc::FrameReport r;
    kxc::read_header(frame.data(), &r);
    r.held = std::min(frame.size(), size_t(r.frame_len));
    kxc::examine_frame(o, kxc::Span{frame.data(), frame.size()}, &r, &codec, split.data(), int(split.size()));

    kxv::Overlay ov = kxv::overlay_of(r.ud);
    const int sizes[][2] = {{width, height}, {2, 2}, {8192, 16384}, {480, 270}};
    for (const kxv::Overlay::Box &b : ov.boxes) {
        for (const auto &wh : sizes) {
            kxv::PixelBox px = kxv::box_pixels(b, wh[0], wh[1]);
            if (px.x < 0 || px.y < 0 || px.w < 1 || px.h < 1 || px.x + px.w > wh[0] || px.y + px.h > wh[1]) abort();
        }
    }
    for (const auto *lines : {&ov.top, &ov.bottom}) {
        for (const std::string &line : *lines) {
            if (!one_line_utf8(line)) abort();
        }
    }
    return 0;
}
