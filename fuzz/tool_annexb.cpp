// korvex-mkframe and korvex-dump --probe: an Annex B stream read in pieces (kxt::NalReader), the guess
// at what an unreadable input is (kxt::sniff_input), and the picture size of the sequence parameter
// sets (kxc::stream_picture_size) with the VCA boxes in its pixels (kxc::vca_pixels).
//
// Checks: the units read in pieces of any size are those of the whole-buffer scan (kxt::scan_nals),
// byte for byte, with the same count of bytes in front of the first start code; the guess names a kind
// and a hint for every known kind; a picture size is 1 to 16384 each way and a box lies inside it;
// nothing is read outside the input.
//
// Input: the piece size (1 byte, 1 to 256), then the stream.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/annexb.h"
#include "common/sniff.h"
#include "core/core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    size_t piece = size_t(data[0]) + 1;
    const uint8_t *s = data + 1;
    size_t n = size - 1;

    kxt::Sniffed sniffed = kxt::sniff_input(s, n);
    if (sniffed.kind != kxt::InputKind::kUnknown && kxt::foreign_input_hint(sniffed, "frames").empty()) abort();

    for (kxt::Codec c : {kxt::Codec::kH264, kxt::Codec::kH265}) {
        int w = 0, h = 0;
        if (!kxc::stream_picture_size(s, n, c, &w, &h)) continue;
        if (w < 1 || h < 1 || w > 16384 || h > 16384) abort();
        kxc::VcaView v;
        for (int i = 0; i < 4; ++i) {
            v.grid[i] = uint16_t(n > size_t(2 * i + 1) ? s[2 * i] | s[2 * i + 1] << 8 : 0);
            v.raw[i] = v.grid[i];
        }
        for (bool raw : {false, true}) {
            v.has_raw = raw;
            int px[4];
            kxc::vca_pixels(v, w, h, px);
            for (int i = 0; i < 4; ++i) {
                if (px[i] < 0 || px[i] > (i % 2 == 0 ? w : h)) abort();
            }
        }
    }

    size_t skipped = 0;
    std::vector<kxt::Nal> whole = kxt::scan_nals(s, n, &skipped);
    // fmemopen refuses a zero-length buffer: an empty stream is read from an empty temporary file.
    FILE *f = n > 0 ? fmemopen(const_cast<uint8_t *>(s), n, "rb") : tmpfile();
    if (f == nullptr) return 0;
    kxt::NalReader reader(f, piece);
    const uint8_t *nal;
    size_t len, k = 0;
    while (reader.next(&nal, &len)) {
        if (k >= whole.size()) abort();
        const kxt::Nal &w = whole[k++];
        if (len != w.end - w.begin || memcmp(nal, s + w.begin, len) != 0) abort();
    }
    fclose(f);
    if (k != whole.size() || reader.bytes() != n || reader.too_long()) abort();
    if (reader.skipped() != skipped) abort();
    return 0;
}
