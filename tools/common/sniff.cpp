#include "common/sniff.h"

#include <string.h>

#include "common/annexb.h"
#include "stream/frame_header.h"

namespace kxt {

namespace {

bool at(const uint8_t *p, size_t n, size_t off, const char *magic) {
    size_t m = strlen(magic);
    return n >= off + m && memcmp(p + off, magic, m) == 0;
}

// Printable text in UTF-8 (or ASCII): no control bytes but tab, line ends and form feed, and valid
// UTF-8 sequences (one cut at the end of the sample counts as valid).
bool looks_like_text(const uint8_t *p, size_t n) {
    if (n == 0) return false;
    for (size_t i = 0; i < n;) {
        uint8_t c = p[i];
        if (c < 0x80) {
            if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r' && c != '\f') || c == 0x7F) return false;
            ++i;
            continue;
        }
        size_t more = (c & 0xE0) == 0xC0 ? 1 : (c & 0xF0) == 0xE0 ? 2 : (c & 0xF8) == 0xF0 ? 3 : 9;
        if (more == 9 || c == 0xC0 || c == 0xC1) return false;
        for (size_t k = 1; k <= more; ++k) {
            if (i + k >= n) return true;
            if ((p[i + k] & 0xC0) != 0x80) return false;
        }
        i += more + 1;
    }
    return true;
}

// The codec a raw stream's first NAL unit points to, where the probes don't decide (a stream cut
// before its first key picture): an H.264 parameter set, delimiter or SEI, or an H.265 one.
Codec first_unit_codec(const uint8_t *p, size_t n) {
    size_t i = 0;
    while (i < n && i < 64 && p[i] == 0) ++i;
    if (i < 2 || i + 2 >= n || p[i] != 1) return Codec::kUnknown;
    uint8_t h = p[i + 1], h2 = p[i + 2];
    int t265 = (h >> 1) & 0x3F;
    if ((h & 0x81) == 0 && h2 == 1 && t265 >= 32 && t265 <= 40) return Codec::kH265;
    int t264 = h & 0x1F;
    if ((h & 0x80) == 0 && (t264 == 7 || t264 == 8 || t264 == 9 || t264 == 6 || t264 == 5 || t264 == 1)) {
        return Codec::kH264;
    }
    return Codec::kUnknown;
}

}  // namespace

Sniffed sniff_input(const uint8_t *p, size_t n) {
    Sniffed s;
    auto is = [&](InputKind k, const char *what) {
        s.kind = k;
        s.what = what;
        return s;
    };
    if (n >= KX_FRAME_HEADER_LEN && IsValidFrameHeader(reinterpret_cast<const __S_FrameHeader *>(p)) &&
        fh_frame_len(p) >= KX_FRAME_HEADER_LEN) {
        return is(InputKind::kFrames, "a stream of frames (it begins with a frame header)");
    }
    if (at(p, n, 4, "ftyp") || at(p, n, 4, "moov") || at(p, n, 4, "mdat") || at(p, n, 4, "wide") ||
        at(p, n, 4, "free") || at(p, n, 4, "skip")) {
        return is(InputKind::kContainer, "an MP4/QuickTime file");
    }
    if (at(p, n, 0, "\x1A\x45\xDF\xA3")) return is(InputKind::kContainer, "a Matroska/WebM file");
    if (at(p, n, 0, "RIFF") && at(p, n, 8, "AVI ")) return is(InputKind::kContainer, "an AVI file");
    if (at(p, n, 0, "FLV\x01")) return is(InputKind::kContainer, "an FLV file");
    if (n >= 377 && p[0] == 0x47 && p[188] == 0x47 && p[376] == 0x47) {
        return is(InputKind::kContainer, "an MPEG transport stream");
    }
    if (at(p, n, 0, "\x89PNG\r\n\x1A\n")) return is(InputKind::kPicture, "a PNG picture");
    if (at(p, n, 0, "\xFF\xD8\xFF")) return is(InputKind::kPicture, "a JPEG picture");
    if (n >= 4 && p[0] == 0 && p[1] == 0 && (p[2] == 1 || (p[2] == 0 && p[3] == 1))) {
        Codec c = probe_codec(p, n);
        if (c == Codec::kUnknown) c = first_unit_codec(p, n);
        if (c == Codec::kH264) return is(InputKind::kAnnexB, "a raw H.264 stream (Annex B)");
        if (c == Codec::kH265) return is(InputKind::kAnnexB, "a raw H.265 stream (Annex B)");
    }
    if (looks_like_text(p, n < 4096 ? n : 4096)) return is(InputKind::kText, "text");
    return s;
}

std::string foreign_input_hint(const Sniffed &s, const char *wanted) {
    std::string head = "this looks like " + s.what + ", not " + wanted;
    switch (s.kind) {
    case InputKind::kFrames:
        return head + ": korvex-dump and korvex-view read it";
    case InputKind::kAnnexB:
        return head + ": wrap it into frames with korvex-mkframe (korvex-dump --probe looks into it)";
    case InputKind::kContainer:
        return head + ": take its video out as a raw stream with "
                      "'ffmpeg -i FILE -map 0:v:0 -c copy -f h264 OUT.h264' (-f hevc for H.265), "
                      "then wrap that into frames with korvex-mkframe";
    case InputKind::kPicture:
    case InputKind::kText:
        return head + ": there is no video in it";
    default:
        return "";
    }
}

}  // namespace kxt
