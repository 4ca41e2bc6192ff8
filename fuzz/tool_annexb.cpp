// korvex-mkframe and korvex-dump --probe: an Annex B stream read in pieces (kxt::NalReader), and the
// guess at what an unreadable input is (kxt::sniff_input).
//
// Checks: the units read in pieces of any size are those of the whole-buffer scan (kxt::scan_nals),
// byte for byte, with the same count of bytes in front of the first start code; the guess names a kind
// and a hint for every known kind; nothing is read outside the input.
//
// Input: the piece size (1 byte, 1 to 256), then the stream.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/annexb.h"
#include "common/sniff.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    size_t piece = size_t(data[0]) + 1;
    const uint8_t *s = data + 1;
    size_t n = size - 1;

    kxt::Sniffed sniffed = kxt::sniff_input(s, n);
    if (sniffed.kind != kxt::InputKind::kUnknown && kxt::foreign_input_hint(sniffed, "frames").empty()) abort();

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
