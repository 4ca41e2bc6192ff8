// korvex-dump's walk over a stream of frames (kxd::walk, reading a file as the tool does): broken
// headers and the byte-wise search for the next one, lengths that run over a sound header inside them,
// frames cut off by the end, decryption with a key and the user-data analysis with the stream's split
// state. Each frame the walk hands over is then cut into its elementary stream (as --es and korvex-view
// do), drawn into an overlay (as korvex-view does) and shaped into JSON (as --json does).
//
// Checks: every frame lies inside the input, behind the previous one, and every byte it holds is read.
//
// Input: an options byte (bit 0 a key, bit 1 the two-layout analysis, bits 2-3 the codec, bit 4 raw
// text, bit 5 user-data units kept in the elementary stream), then the stream.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "korvex-dump/dump.h"
#include "korvex-dump/dump_json.h"
#include "korvex-view/view.h"

namespace {

volatile uint32_t g_sink;
int g_fd = -1;
std::string g_path;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sdk_log_set_level(0, 0, 0);
    // The walk reports every broken frame on standard error; libFuzzer and the sanitizers keep their own
    // way to the terminal.
    FILE *null = fopen("/dev/null", "w");
    if (null != nullptr) stderr = null;
    g_fd = memfd_create("tool_walk", 0);
    if (g_fd < 0) abort();
    g_path = "/proc/self/fd/" + std::to_string(g_fd);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint8_t opt = data[0];
    const uint8_t *stream = data + 1;
    const size_t len = size - 1;
    if (ftruncate(g_fd, 0) != 0 || (len > 0 && pwrite(g_fd, stream, len, 0) != ssize_t(len))) abort();

    kxd::Options o;
    o.input = g_path;
    o.progress = 0;
    o.quiet = true;
    if (opt & 1) {
        o.has_key = true;
        o.key = "fuzzkey";
    }
    if (opt & 2) {
        o.two_layout = true;
        o.type = 255;
        o.mask = 0x7FFFFFFF;
    }
    const kxt::Codec codecs[] = {kxt::Codec::kUnknown, kxt::Codec::kH264, kxt::Codec::kH265, kxt::Codec::kUnknown};
    o.codec = codecs[(opt >> 2) & 3];
    o.raw_text = (opt & 0x10) != 0;
    const bool keep_sei = (opt & 0x20) != 0;

    uint64_t next = 0;
    kxd::WalkTotals totals;
    int rc = kxd::walk(o, [&](const kxd::FrameReport &r, const uint8_t *frame) {
        if (r.offset < next || r.offset + r.held > len) abort();
        if (r.has_header && frame == nullptr) abort();
        next = r.offset + (r.held > 0 ? r.held : 1);
        uint32_t sum = 0;
        for (size_t i = 0; frame != nullptr && i < r.held; ++i) sum += frame[i];
        if (frame != nullptr && r.skip_reason.empty() && r.ud.ran) {
            kxt::Bytes es = kxd::clear_payload(frame, r.held, r.payload_len, r.codec, keep_sei);
            if (es.size() > 2 * r.held + 4) abort();  // a start code of 4 for each unit of at least 1
            kxv::Overlay ov = kxv::overlay_of(r.ud);
            sum += uint32_t(es.size() + ov.boxes.size() + ov.top.size() + ov.bottom.size());
        }
        sum += uint32_t(kxd::frame_json(r).dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).size());
        g_sink = sum;
        return true;
    }, &totals);
    if (rc != 0 || totals.broken > totals.frames) abort();
    return 0;
}
