// What korvex-view takes from a frame's user data before drawing: the overlay of a report, and where a
// target's box lands on a picture of the output size. No FFmpeg here, so that the fuzz harness links it.
#include <math.h>
#include <stdio.h>

#include <algorithm>

#include "core/core.h"
#include "korvex-view/view.h"

namespace kxv {

Overlay overlay_of(const kxc::UserDataReport &u) {
    Overlay ov;
    for (const kxc::VcaView &v : u.vca) {
        // Unscaled coordinates are ten-thousandths of the picture; without them, the 176 x 144 grid.
        if (v.has_raw) ov.boxes.push_back({v.raw[0] / 1e4, v.raw[1] / 1e4, v.raw[2] / 1e4, v.raw[3] / 1e4});
        else ov.boxes.push_back({v.grid[0] / 176.0, v.grid[1] / 144.0, v.grid[2] / 176.0, v.grid[3] / 144.0});
    }
    if (u.has_time) {
        char b[64];
        snprintf(b, sizeof(b), "%04d-%02d-%02d %02d:%02d:%02d UTC", u.time.usYear, u.time.usMonth, u.time.usDay,
                 u.time.usHour, u.time.usMinute, u.time.usSecond);
        ov.top.push_back(b);
    }
    for (const kxc::OsdView &v : u.osd) {
        if (v.has_text) ov.top.push_back(v.text);
    }
    for (const std::string &p : u.plates) ov.bottom.push_back("plate " + p);
    return ov;
}

PixelBox box_pixels(const Overlay::Box &b, int ow, int oh) {
    long long x1 = llround(b.x1 * ow), y1 = llround(b.y1 * oh);
    long long x2 = llround(b.x2 * ow), y2 = llround(b.y2 * oh);
    x1 = std::min<long long>(std::max(0LL, x1), ow - 1);
    y1 = std::min<long long>(std::max(0LL, y1), oh - 1);
    x2 = std::min<long long>(std::max(x1 + 1, x2), ow);
    y2 = std::min<long long>(std::max(y1 + 1, y2), oh);
    return {x1, y1, x2 - x1, y2 - y1};
}

}  // namespace kxv
