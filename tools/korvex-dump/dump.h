// korvex-dump: the pieces of the inspector. The frame walk reads frames one behind the other and fills a
// FrameReport for each; the user-data part runs the library's analyses on a frame; the output part
// prints a report as text or as one JSON object.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <functional>
#include <string>
#include <vector>

#include "common/annexb.h"
#include "common/tool_util.h"
#include "korvex/korvex.h"

namespace kxd {

using kxt::Bytes;

struct Options {
    std::string input = "-";
    bool json = false;
    bool probe = false;
    bool index = false;
    int sign_type = 0;      // --index
    long long ordinal = 0;  // --ordinal: only this match; 0 lists them all
    bool has_key = false;
    std::string key;
    bool two_layout = false;  // --mask
    int type = 255;           // information type of the analysis
    int mask = 0;             // iTypeMask of the two-layout analysis
    kxt::Codec codec = kxt::Codec::kUnknown;  // unknown: the first frame the probes recognise decides
    bool quiet = false;      // no frame lines, only errors and the summary
    bool verbose = false;    // the library's own error lines on standard error
    int progress = -1;       // -1 decide by the terminal, 0 never, 1 always
    bool raw_text = false;   // plates and OSD text as printable ASCII with \xHH escapes
    std::string es_out;      // --es: where the clear elementary stream goes ("-" standard output)
    bool keep_sei = false;   // --keep-sei: the user-data units stay in the elementary stream
};

// A block or record shown as its type, length and the first bytes.
struct RawView {
    int type = 0;
    int len = 0;
    Bytes head;  // up to 16 bytes
};

struct VcaView {
    uint16_t grid[4];     // on the 176 x 144 grid (or as sent, for targets without a raw entry)
    uint16_t raw[4];      // unscaled, in ten-thousandths of the picture
    uint16_t extra[4];    // words five to eight, as sent
    bool has_raw = false;
    bool new_layout = false;
};

struct OsdView {
    int subtype = 0;
    bool has_text = false;
    std::string text;
    RawView raw;
};

struct UserDataReport {
    bool ran = false;          // false: not analysed (see FrameReport::skip_reason)
    int result = 0;
    std::string status;        // none, ok, malformed, fragment, error
    bool has_time = false;
    __S_AbsoluteTime time;
    std::vector<VcaView> vca;
    std::vector<std::string> plates;
    std::vector<OsdView> osd;
    std::vector<RawView> records;  // decoded kinds shown by type number: PTZ, user-defined data, ...
    std::vector<RawView> blocks;   // blocks passed on raw, by block type
    std::vector<int> callbacks;    // types in the order the callback saw them
    const uint8_t *rest = nullptr; // two-layout analysis: what follows a new container
    int rest_len = -1;
    bool two_layout = false;       // the two-layout analysis ran after the single-frame one found nothing
};

struct FrameReport {
    long long index = 0;
    uint64_t offset = 0;
    bool has_header = false;
    uint32_t frame_len = 0, frame_no = 0, info = 0, payload_len = 0;
    uint16_t ext_count = 0, ext_size = 0, flags = 0;
    uint8_t attr = 0;
    bool valid = false;
    size_t held = 0;            // bytes of the frame present in the input
    std::string encryption;     // none, plain, enhanced
    std::string decrypt;        // empty, ok, no key, failed
    std::string error;          // why the frame is broken; empty when it is sound
    std::string skip_reason;    // why the user data was not analysed
    kxt::Codec codec = kxt::Codec::kUnknown;
    UserDataReport ud;
};

// What a walk saw.
struct WalkTotals {
    long long frames = 0, broken = 0, with_user_data = 0;
    kxt::Codec codec = kxt::Codec::kUnknown;
    bool foreign = false;  // the input is no stream of frames (a raw stream, a container, text): said and stopped
};

// Called for every frame with its report and its held bytes; the bytes are clear (decrypted where the
// frame was encrypted) when r.skip_reason is empty, and null when not even a header was there.
// Returning false ends the walk.
using FrameVisitor = std::function<bool(const FrameReport &r, const uint8_t *frame)>;

// Input for the walk: a file read through a buffer that keeps the bytes from the read position on in one
// piece (so a whole frame, 3 MiB at most, can be looked at in place), or bytes already in memory, read
// where they are.
class WalkInput {
public:
    explicit WalkInput(FILE *f) : f_(f) {}
    WalkInput(const uint8_t *data, size_t size) : mem_(data), mem_size_(size) {}
    // Makes n bytes available at the read position unless the input ends first; gives what is there.
    size_t fill(size_t n);
    const uint8_t *data() const { return f_ != nullptr ? buf_.data() + pos_ : mem_ + pos_; }
    size_t avail() const { return (f_ != nullptr ? buf_.size() : mem_size_) - pos_; }
    void consume(size_t n);
    uint64_t offset() const { return offset_; }
    int error() const { return error_; }

private:
    FILE *f_ = nullptr;
    const uint8_t *mem_ = nullptr;
    size_t mem_size_ = 0;
    Bytes buf_;
    size_t pos_ = 0;
    uint64_t offset_ = 0;
    bool eof_ = false;
    int error_ = 0;
};

// The walk one frame at a time, shared by walk() and the Python module. next() reads the frame at the
// read position: its index, offset and header into *r, how many of its bytes the input holds (r->held)
// and, for a broken header, a cut or a truncated frame, r->error; *frame points at its bytes in the
// input, valid until the next call. advance() then moves on behind it: behind its held bytes, or after
// a broken header to the next sound header (*skipped gets the bytes passed over). advance() is false
// when the walk ends there (a truncated frame, the input's last bytes too short for a header, no sound
// header behind a broken one); next() is false at the end of the input.
class Walker {
public:
    explicit Walker(FILE *f) : in_(f) {}
    Walker(const uint8_t *data, size_t size) : in_(data, size) {}
    bool next(FrameReport *r, const uint8_t **frame);
    bool advance(uint64_t *skipped);
    // Up to n bytes from the read position on (fewer at the end of the input), without moving on.
    size_t peek(size_t n, const uint8_t **p) {
        size_t got = in_.fill(n);
        *p = in_.data();
        return got < n ? got : n;
    }
    uint64_t offset() const { return in_.offset(); }
    int error() const { return in_.error(); }  // errno of a failed read, or 0

private:
    WalkInput in_;
    long long index_ = 0;
    size_t held_ = 0;          // bytes of the frame next() gave
    bool broken_header_ = false;
    bool last_ = false;        // the frame next() gave ends the walk
    bool ended_ = false;
};

// Reads the frames of o.input one behind the other, reports every broken frame on standard error and
// hands each frame to visit. 0, or 2 when the input cannot be opened or read.
int walk(const Options &o, const FrameVisitor &visit, WalkTotals *totals);

// Walks the frames of the input and prints each; the exit status of the tool.
int walk_frames(const Options &o);
// --es: writes the frames' clear payloads as one Annex B stream; the exit status of the tool.
int write_elementary_stream(const Options &o);
// The frame's payload as Annex B units, without the user-data units unless keep_sei; empty when the
// payload holds no start code.
Bytes clear_payload(const uint8_t *frame, size_t held, uint32_t payload_len, kxt::Codec codec, bool keep_sei);

// The steps of the walk for one frame, also used by the Python module. sound_header: the 32 bytes at p
// are a valid frame header. read_header: fills the header fields of a report. examine_frame: decrypts
// (when the options give a key) and analyses a frame whose header is sound and whose r->held bytes are
// present; *codec is the stream's codec, decided by the first frame the probes recognise. Its result is
// that of SA_DecryptOneFrame, or 0 when nothing was decrypted.
bool sound_header(const uint8_t *p);
void read_header(const uint8_t *p, FrameReport *r);
int examine_frame(const Options &o, uint8_t *frame, FrameReport *r, kxt::Codec *codec, void *split_state,
                  int split_state_size);
// --key, --codec and --mask, which every tool that walks frames takes alike. is_walk_option tells
// whether a is one of them; set_walk_option stores its value v: 0, or 2 (said on standard error).
bool is_walk_option(const std::string &a);
int set_walk_option(const std::string &a, const std::string &v, Options *o);
// --probe and --index; the exit status of the tool.
int run_probe(const Options &o);
int run_index(const Options &o);

// Runs the user-data analysis chosen by the options on one clear frame of held bytes.
// split_state is the stream's TUserDataSplitState, kept from frame to frame.
void analyse_user_data(const Options &o, const uint8_t *frame, size_t held, kxt::Codec codec, void *split_state,
                       int split_state_size, UserDataReport *out);
// The frame's data begins with a user-data pattern of the codec (either layout).
bool starts_with_user_data(const uint8_t *data, size_t len, kxt::Codec codec);

// Output of one frame, and the last line of a walk.
void print_frame(const Options &o, const FrameReport &r);
void print_summary(const Options &o, long long frames, long long broken, long long with_user_data, kxt::Codec codec);

// The meaning of an SA_ result code of the user-data calls.
const char *userdata_result_text(int code);
// The name of a callback type number (a decoder's kind), or null.
const char *record_name(int type);

}  // namespace kxd
