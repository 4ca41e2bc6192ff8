// The stream's own frame rate read from H.264 and H.265 parameter sets (kxc::stream_frame_rate: the
// SPS VUI, the VPS and SPS of H.265, read bit by bit behind emulation-prevention bytes) and the
// picture clock fed with the device times and key frames the input gives (kxc::PtsClock).
//
// Checks: a rate is 0 or within 0.1 to 1000 frames per second; the clock's times grow strictly.
//
// Input: a byte of options (bit 0 H.265), then per frame a byte (bit 0 a device time, bit 1 a key frame)
// and four bytes of the device's seconds, with the payload (the rest) read as the key frames' data.
#include <stdint.h>
#include <stdlib.h>

#include "core/core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    kxc::Codec codec = (data[0] & 1) ? kxc::Codec::kH265 : kxc::Codec::kH264;
    for (kxc::Codec c : {kxc::Codec::kH264, kxc::Codec::kH265}) {
        double fps = kxc::stream_frame_rate(data + 1, size - 1, c);
        if (fps != 0 && !(fps >= 0.1 && fps <= 1000)) abort();
    }
    kxc::PtsClock clock(data[0] >> 1);
    kxc::FrameReport r;
    r.codec = codec;
    int64_t prev = INT64_MIN;
    for (size_t i = 1; i + 5 <= size && i < 1 + 5 * 64; i += 5) {
        r.ud.has_time = data[i] & 1;
        r.key_frame = (data[i] & 2) != 0;
        r.ud.time.uiSeconds = kxt::rd32(data + i + 1);
        int64_t t = clock.next(r, data + 1, size - 1);
        if (t <= prev) abort();
        prev = t;
    }
    if (!(clock.fps() >= 0.1 && clock.fps() <= 1000)) abort();
    return 0;
}
