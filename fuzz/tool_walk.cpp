// The tools' walk over a stream of frames (kxc::walk, reading a file as the tools do): broken
// headers and the byte-wise search for the next one, lengths that run over a sound header inside them,
// frames cut off by the end, decryption with a key and the user-data analysis with the stream's split
// state. Each frame the walk hands over is then cut into its elementary stream (as --es and korvex-view
// do) and drawn into an overlay (as korvex-view does).
//
// Checks: every frame lies inside the input, behind the previous one, and every byte it holds is read.
// The walk over the same bytes in memory (kxc::Walker, as the Python module walks a bytes object) finds the same
// frames. Where the stream is also walked behind a filler frame, so that its frames straddle the walk's
// 64 KiB reads, the walk must find the same frames there as alone: where the reads fall changes nothing.
//
// Input: an options byte (bit 0 a key, bit 1 the two-layout analysis, bits 2-3 the codec, bit 4 raw
// text, bit 5 user-data units kept in the elementary stream), then the stream. With bits 6 and 7 both
// set, two more bytes place the stream up to 4 KiB before the end of the walk's first read, behind one
// sound frame of filler.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "framegen.h"
#include "core/core.h"
#include "korvex-view/view.h"

namespace {

volatile uint32_t g_sink;
int g_fd = -1;
std::string g_path;

// What a frame of the walk came to, as far as it does not depend on where the stream starts.
struct Seen {
    uint64_t offset;
    size_t held;
    uint32_t frame_len;
    bool valid;
    std::string error;
    kxc::UserDataStatus status;
    size_t callbacks;
    bool operator==(const Seen &o) const {
        return offset == o.offset && held == o.held && frame_len == o.frame_len && valid == o.valid &&
               error == o.error && status == o.status && callbacks == o.callbacks;
    }
};

// Walks the file's bytes from 0 to len; skip bytes of filler lie in front of the stream.
// *foreign is set when the walk stopped at the start because the input is of another kind (a container,
// say): the walk in memory does not ask that, so it finds the frames the file walk left.
std::vector<Seen> walk_file(const kxc::AnalysisOptions &o, size_t len, size_t skip, bool keep_sei,
                            bool *foreign = nullptr) {
    std::vector<Seen> seen;
    uint64_t next = 0;
    kxc::WalkTotals totals;
    FILE *f = fopen(g_path.c_str(), "rb");
    if (f == nullptr) abort();
    kxc::walk(f, o, [&](const kxc::FrameReport &r, kxc::Span span) {
        const uint8_t *frame = span.data;
        if (r.offset < next || r.offset + r.held > len) abort();
        if (r.has_header && frame == nullptr) abort();
        next = r.offset + (r.held > 0 ? r.held : 1);
        if (r.offset < skip) return true;  // the filler frame
        uint32_t sum = 0;
        for (size_t i = 0; frame != nullptr && i < r.held; ++i) sum += frame[i];
        if (frame != nullptr && r.clear() && r.ud.ran) {
            kxt::Bytes es = kxc::clear_payload(frame, r.held, r.payload_len, r.codec, keep_sei);
            if (es.size() > 2 * r.held + 4) abort();  // a start code of 4 for each unit of at least 1
            kxv::Overlay ov = kxv::overlay_of(r.ud);
            sum += uint32_t(es.size() + ov.boxes.size() + ov.top.size() + ov.bottom.size());
        }
        g_sink = sum;
        seen.push_back({r.offset - skip, r.held, r.frame_len, r.valid, r.error, r.ud.status, r.ud.callbacks.size()});
        return true;
    }, [](const std::string &) {}, &totals);
    fclose(f);
    if (totals.read_error != 0 || totals.broken > totals.frames) abort();
    if (foreign != nullptr) *foreign = totals.foreign;
    return seen;
}

// The same bytes walked in memory, one frame at a time as the Python module walks them: the same frames
// at the same places, each read where it lies, and the walk's own error first in each frame's error.
void walk_memory(const uint8_t *p, size_t len, const std::vector<Seen> &file, bool foreign) {
    kxt::Bytes copy(p, p + len);
    kxc::Walker w(copy.data(), copy.size());
    kxc::FrameReport r;
    kxc::Span frame;
    uint64_t skipped = 0;
    size_t i = 0;
    while (w.next(&r, &frame)) {
        if (i >= file.size()) {
            if (foreign) return;  // the file walk stopped where it recognised the input's kind
            abort();
        }
        const Seen &s = file[i++];
        if (r.offset != s.offset || r.held != s.held || r.valid != s.valid || frame.data != copy.data() + r.offset ||
            s.error.compare(0, r.error.size(), r.error) != 0) {
            abort();
        }
        if (!w.advance(&skipped)) break;
    }
    if (i != file.size() || w.next(&r, &frame)) abort();
}

void put_file(const uint8_t *a, size_t an, const uint8_t *b, size_t bn) {
    if (ftruncate(g_fd, 0) != 0 || (an > 0 && pwrite(g_fd, a, an, 0) != ssize_t(an)) ||
        (bn > 0 && pwrite(g_fd, b, bn, off_t(an)) != ssize_t(bn))) {
        abort();
    }
}

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
    size_t len = size - 1;
    kxc::AnalysisOptions o;
    if (opt & 1) kxc::set_walk_option("--key", "fuzzkey", &o);
    if (opt & 2) kxc::set_walk_option("--mask", "all", &o);
    const kxt::Codec codecs[] = {kxt::Codec::kUnknown, kxt::Codec::kH264, kxt::Codec::kH265, kxt::Codec::kUnknown};
    o.codec = codecs[(opt >> 2) & 3];
    o.raw_text = (opt & 0x10) != 0;
    const bool keep_sei = (opt & 0x20) != 0;

    if ((opt & 0xC0) != 0xC0 || len < 2) {
        put_file(stream, len, nullptr, 0);
        bool foreign = false;
        std::vector<Seen> seen = walk_file(o, len, 0, keep_sei, &foreign);
        walk_memory(stream, len, seen, foreign);
        return 0;
    }
    // 0xFF bytes: no header can start inside the filler frame, so the walk passes over it quickly. The
    // codec is given, so that the probes need not read the filler.
    if (o.codec == kxt::Codec::kUnknown) o.codec = kxt::Codec::kH264;
    kxt::Bytes filler(65536 - kxt::rd16(stream) % 4096, 0xFF);
    framegen::FrameHeader h;
    h.frame_len = uint32_t(filler.size());
    h.payload_len = h.frame_len - 32;
    kxt::Bytes head = framegen::frame_header(h);
    std::copy(head.begin(), head.end(), filler.begin());
    stream += 2;
    len -= 2;
    // The first four bytes of a header are free, so a sound header may begin in the filler's last bytes
    // and reach into the stream: then the two walks differ by right.
    for (size_t j = len >= 31 ? 1 : 32 - len; j < 32; ++j) {  // j bytes in the filler, 32 - j in the stream
        uint8_t window[32];
        memset(window, 0xFF, j);
        memcpy(window + j, stream, 32 - j);
        if (kxc::sound_header(window)) return 0;
    }
    put_file(stream, len, nullptr, 0);
    bool foreign = false;
    std::vector<Seen> alone = walk_file(o, len, 0, keep_sei, &foreign);
    if (foreign) return 0;  // alone the walk names the input's kind and stops; behind a frame it walks on
    put_file(filler.data(), filler.size(), stream, len);
    std::vector<Seen> behind = walk_file(o, filler.size() + len, filler.size(), keep_sei);
    if (!(alone == behind)) abort();
    return 0;
}
