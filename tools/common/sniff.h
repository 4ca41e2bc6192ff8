// What an input that a tool cannot read looks like, from its first bytes, and which command takes it:
// a raw H.264/H.265 stream, a container file (MP4, Matroska, MPEG-TS, AVI, FLV), a stream of frames,
// a picture or text.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace kxt {

enum class InputKind {
    kUnknown,
    kFrames,     // begins with a sound frame header
    kAnnexB,     // a raw Annex B stream (the codec in *codec of sniff_input)
    kContainer,  // MP4/QuickTime, Matroska/WebM, MPEG-TS, AVI, FLV
    kPicture,    // PNG, JPEG
    kText,
};

struct Sniffed {
    InputKind kind = InputKind::kUnknown;
    std::string what;  // "an MP4 file", "a raw H.264 stream (Annex B)", "text", ...
};

// Looks at the first n bytes of an input (a few KiB are enough).
Sniffed sniff_input(const uint8_t *p, size_t n);

// The sentence for a tool that cannot read such an input: what it looks like and which command takes
// it, e.g. "this looks like a raw H.264 stream (Annex B), not frames: wrap it into frames with
// korvex-mkframe". wanted says what the tool reads ("frames" or "a raw H.264/H.265 stream"). Empty
// for an input of unknown kind.
std::string foreign_input_hint(const Sniffed &s, const char *wanted);

}  // namespace kxt
