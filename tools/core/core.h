// The tools' core: the walk over a stream of frames, their decryption, the user-data report of each
// frame, its JSON object, and the timing of the pictures. korvex-dump, korvex-view, korvex-export and the
// Python module all read recordings through it, so that they agree on every frame. Results are typed
// (enums for states and faults); texts are for people only. Nothing here knows a command line.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <functional>
#include <string>
#include <vector>

#include "common/annexb.h"
#include "common/tool_util.h"
#include "korvex/korvex.h"

namespace kxc {

using kxt::Bytes;
using kxt::Codec;

// Bytes the caller may change in place (a frame is decrypted where it lies).
struct Span {
    uint8_t *data = nullptr;
    size_t size = 0;
};

// How a frame is decrypted and its user data analysed.
struct AnalysisOptions {
    bool has_key = false;
    std::string key;                 // 1 to 16 bytes
    Codec codec = Codec::kUnknown;   // unknown: the first frame the probes recognise decides
    bool two_layout = false;         // the two-layout analysis for every frame
    int type = 255;                  // information type of the analysis
    int mask = 0;                    // iTypeMask of the two-layout analysis
    bool raw_text = false;           // plates and OSD text as printable ASCII with \xHH escapes
};

enum class Encryption : uint8_t { kNone, kPlain, kEnhanced };
enum class Decrypt : uint8_t { kNotNeeded, kDone, kNoKey, kFailed };
enum class UserDataStatus : uint8_t { kNone, kOk, kMalformed, kFragment, kError };
// Where the walk found the frame's extent wrong.
enum class Extent : uint8_t {
    kWhole,            // as long as its header says
    kShortTail,        // the input's last bytes, too few for a header
    kBadHeader,        // the header is invalid
    kCutAtNextHeader,  // its length runs over the next sound header; read up to it
    kTruncated,        // the input ends inside it
};
// Why the user data was not analysed.
enum class Skip : uint8_t { kNone, kNoHeader, kNoKey, kNotDecrypted };

const char *encryption_name(Encryption e);  // none, plain, enhanced
const char *decrypt_name(Decrypt d);        // "", ok, no key, failed
const char *status_name(UserDataStatus s);  // none, ok, malformed, fragment, error
const char *skip_text(Skip s);

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
    bool ran = false;  // false: not analysed (see FrameReport::skip)
    int result = 0;    // of SA_GetUserDataInfoEx
    UserDataStatus status = UserDataStatus::kNone;
    bool has_time = false;
    __S_AbsoluteTime time;
    std::vector<VcaView> vca;
    std::vector<std::string> plates;
    std::vector<OsdView> osd;
    std::vector<RawView> records;  // decoded kinds shown by type number: PTZ, user-defined data, ...
    std::vector<RawView> blocks;   // blocks passed on raw, by block type
    std::vector<int> callbacks;    // types in the order the callback saw them
    int rest_len = -1;             // two-layout analysis: bytes behind a new container, -1 none
    bool two_layout = false;       // the two-layout analysis ran after the single-frame one found nothing

    bool found() const { return status == UserDataStatus::kOk || status == UserDataStatus::kFragment; }
};

struct FrameReport {
    long long index = 0;
    uint64_t offset = 0;
    bool has_header = false;
    uint32_t frame_len = 0, frame_no = 0, info = 0, payload_len = 0;
    uint16_t ext_count = 0, ext_size = 0, flags = 0;  // flags as read, before any decryption
    uint8_t attr = 0;
    bool valid = false;
    size_t held = 0;  // bytes of the frame present in the input
    Extent extent = Extent::kWhole;
    bool examined = false;  // examine_frame ran: encryption and decrypt are set
    Encryption encryption = Encryption::kNone;
    Decrypt decrypt = Decrypt::kNotNeeded;
    int decrypt_rc = 0;      // of SA_DecryptOneFrame where it ran
    std::string error;       // why the frame is broken, for people; empty when it is sound
    Skip skip = Skip::kNone;
    Codec codec = Codec::kUnknown;
    bool key_frame = false;  // the clear payload holds a key picture (IDR, IRAP)
    // The picture's size in pixels, from the stream's last sequence parameter set (examine_frame reads
    // it from a key frame's; keep_picture_size carries it to the frames behind); 0 before one.
    int width = 0, height = 0;
    UserDataReport ud;

    // The frame is clear (decrypted where it was encrypted) and analysed.
    bool clear() const { return examined && skip == Skip::kNone; }
};

// Input of the walk: a file read through a buffer that keeps the bytes from the read position on in one
// piece (so a whole frame, 3 MiB at most, can be looked at in place), or bytes in memory, read (and
// decrypted) where they are.
class WalkInput {
public:
    explicit WalkInput(FILE *f) : f_(f) {}
    WalkInput(uint8_t *data, size_t size) : mem_(data), mem_size_(size) {}
    // Makes n bytes available at the read position unless the input ends first; gives what is there.
    size_t fill(size_t n);
    uint8_t *data() { return f_ != nullptr ? buf_.data() + pos_ : mem_ + pos_; }
    size_t avail() const { return (f_ != nullptr ? buf_.size() : mem_size_) - pos_; }
    void consume(size_t n);
    uint64_t offset() const { return offset_; }
    int error() const { return error_; }

private:
    FILE *f_ = nullptr;
    uint8_t *mem_ = nullptr;
    size_t mem_size_ = 0;
    Bytes buf_;
    size_t pos_ = 0;
    uint64_t offset_ = 0;
    bool eof_ = false;
    int error_ = 0;
};

// The walk one frame at a time. next() reads the frame at the read position: its index, offset and
// header into *r, how many of its bytes the input holds (r->held), its extent and, for a broken header,
// a cut or a truncated frame, r->error; *frame gets its bytes in the input, valid (and changeable) until
// the next call. advance() then moves on behind it: behind its held bytes, or after a broken header to
// the next sound header (*skipped gets the bytes passed over). advance() is false when the walk ends
// there; next() is false at the end of the input. first_index numbers the first frame (a walk that
// starts inside a recording keeps the recording's numbers).
class Walker {
public:
    explicit Walker(FILE *f, long long first_index = 0) : in_(f), index_(first_index) {}
    Walker(uint8_t *data, size_t size) : in_(data, size) {}
    bool next(FrameReport *r, Span *frame);
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
    size_t held_ = 0;  // bytes of the frame next() gave
    bool broken_header_ = false;
    bool last_ = false;  // the frame next() gave ends the walk
    bool ended_ = false;
};

// The steps of the walk for one frame. sound_header: the 32 bytes at p are a valid frame header.
// read_header: fills the header fields of a report. examine_frame: decrypts (when the options give a
// key) and analyses a frame whose header is sound and whose r->held bytes are at frame; *codec is the
// stream's codec, decided by the first frame the probes recognise; split_state the stream's
// TUserDataSplitState. Its result is that of SA_DecryptOneFrame, or 0 when nothing was decrypted.
bool sound_header(const uint8_t *p);
void read_header(const uint8_t *p, FrameReport *r);
int examine_frame(const AnalysisOptions &o, Span frame, FrameReport *r, Codec *codec, void *split_state,
                  int split_state_size);

// What a walk saw.
struct WalkTotals {
    long long frames = 0, broken = 0, with_user_data = 0;
    Codec codec = Codec::kUnknown;
    int read_error = 0;  // errno of a failed read, or 0
    bool foreign = false;  // the input is no stream of frames (a raw stream, a container, text): said and stopped
};

// Called for every frame with its report and its held bytes (clear where r.clear()); frame.data is null
// when not even a header was there. Returning false ends the walk.
using FrameVisitor = std::function<bool(const FrameReport &r, Span frame)>;
// Told about every broken frame and where the walk found the next header, as one line for people.
using WalkNotice = std::function<void(const std::string &line)>;

// Reads the frames of f one behind the other (f positioned at a frame; first_index numbers it and
// first_offset is its offset in the recording), examines each and hands it to visit.
void walk(FILE *f, const AnalysisOptions &o, const FrameVisitor &visit, const WalkNotice &notice, WalkTotals *totals,
          long long first_index = 0, uint64_t first_offset = 0);

// The frame's payload as Annex B units, without the user-data units unless keep_sei; empty when the
// payload holds no start code.
Bytes clear_payload(const uint8_t *frame, size_t held, uint32_t payload_len, Codec codec, bool keep_sei);
// The clear payload holds a key picture: an IDR slice (H.264) or an IRAP slice (H.265).
bool has_key_picture(const uint8_t *payload, size_t n, Codec codec);

// Runs the user-data analysis chosen by the options on one clear frame of held bytes.
void analyse_user_data(const AnalysisOptions &o, const uint8_t *frame, size_t held, Codec codec, void *split_state,
                       int split_state_size, UserDataReport *out);
// The frame's data begins with a user-data pattern of the codec (either layout).
bool starts_with_user_data(const uint8_t *data, size_t len, Codec codec);
// The meaning of an SA_ result code of the user-data calls.
const char *userdata_result_text(int code);
// The name of a callback type number (a decoder's kind), or null.
const char *record_name(int type);

// --key, --codec and --mask, which every tool that walks frames takes alike. is_walk_option tells
// whether a is one of them; set_walk_option stores its value v: 0, or 2 (said on standard error).
bool is_walk_option(const std::string &a);
int set_walk_option(const std::string &a, const std::string &v, AnalysisOptions *o);

// ---------------------------------------------------------------------------------------------------
// Timing of the pictures

// The frame rate a stream's parameter sets give (H.264 SPS VUI timing, H.265 VPS or SPS VUI timing), or
// 0 when the payload holds none.
double stream_frame_rate(const uint8_t *payload, size_t n, Codec codec);

// The picture size (pixels, cropped) of the first sequence parameter set in a payload; false when it
// holds none that reads.
bool stream_picture_size(const uint8_t *payload, size_t n, Codec codec, int *width, int *height);
// Carries the stream's picture size over a walk: a frame with a size sets *size (width, height), a
// clear frame without one gets it.
void keep_picture_size(FrameReport *r, int size[2]);
// A VCA target's box in pixels of a width x height picture: from its unscaled coordinates (ten-
// thousandths) where it has them, else from the 176 x 144 grid.
void vca_pixels(const VcaView &v, int width, int height, int out[4]);

// Where a picture's time came from.
enum class TimeSource : uint8_t { kDevice, kStream, kGiven, kDefault };
const char *time_source_name(TimeSource s);  // device, stream, fps, default

// Each picture's presentation time in milliseconds, in walk order. A frame with the device's absolute
// time (whole seconds) gets that second, and the frames that share it follow at the frame interval
// within it (never reaching the next second); frames without it follow the previous one at the
// interval. The interval comes from the stream's own timing where its parameter sets carry one, else
// from the given rate, else 25 frames per second. Times only grow: where the device's clock was set
// back, its times from there on are moved to follow the previous picture at the interval (steps_back()
// counts such places), and more frames in a second than the interval allows stay a millisecond apart.
// Device times are milliseconds since 1970; without any, times count from 0.
class PtsClock {
public:
    explicit PtsClock(double given_fps = 0) : given_fps_(given_fps) {}
    // The time of the next picture; r is its (clear) report, payload its bytes behind the header.
    int64_t next(const FrameReport &r, const uint8_t *payload, size_t payload_len);
    double fps() const;                          // the interval's rate
    TimeSource interval_source() const;          // stream, fps or default
    TimeSource last_source() const { return last_source_; }  // of the last time given
    long long device_frames() const { return device_frames_; }
    long long steps_back() const { return steps_back_; }

private:
    double given_fps_;
    double stream_fps_ = 0;
    bool have_prev_ = false;
    int64_t prev_ = 0;
    int64_t run_second_ = -1;  // the device second of the current run
    long long run_ = 0;         // frames of that second so far
    long long device_frames_ = 0;
    long long steps_back_ = 0;
    int64_t offset_ = 0;  // added to device times once the clock was set back
    TimeSource last_source_ = TimeSource::kDefault;
};

// Milliseconds since 1970 as "2024-05-01T08:00:00.040Z".
std::string iso8601_ms(int64_t ms);
// "2024-05-01T08:00:00Z", "2024-05-01 08:00:00.250", with or without Z, or seconds since 1970 (with a
// fraction): milliseconds since 1970. False for anything else, a day the month doesn't have included.
bool parse_time_ms(const std::string &text, int64_t *out);
// "A:B", "A:" or ":B" frame numbers (from 0, B included); an open end is -1. False for anything else.
bool parse_frame_range(const std::string &text, long long *first, long long *last);

}  // namespace kxc
