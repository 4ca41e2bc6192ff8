// Annex B byte streams of H.264 and H.265: NAL units between start codes, and their grouping into
// access units (one coded picture with the parameter sets and SEI in front of it).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <stdio.h>

#include <vector>

namespace kxt {

enum class Codec { kUnknown, kH264, kH265 };

// "h264", "h265" or "unknown".
const char *codec_name(Codec codec);
// The probes of the library over a buffer: H.264 first, then H.265.
Codec probe_codec(const uint8_t *p, size_t n);
// The iEncode value of the user-data calls: 21 for H.264, 23 for H.265.
int codec_encode(Codec codec);

// One NAL unit: its start code begins at start, its header at begin, and it ends before end (trailing
// zero bytes, which belong to the next start code or to trailing padding, are not counted).
struct Nal {
    size_t start;
    size_t begin;
    size_t end;
};

// All NAL units of a buffer. Bytes in front of the first start code belong to no unit; *skipped, when
// given, receives their count.
std::vector<Nal> scan_nals(const uint8_t *p, size_t n, size_t *skipped = nullptr);

// The NAL unit type: bits 0-4 of the header byte for H.264, bits 1-6 for H.265.
int nal_type(Codec codec, const uint8_t *nal, size_t len);
// A coded slice of an IDR picture (H.264) or of an IRAP picture (H.265).
bool is_key_nal(Codec codec, int type);

struct AccessUnit {
    size_t first;  // index of its first NAL unit
    size_t count;  // number of NAL units
    bool key;      // holds a key-picture slice
};

// Groups NAL units into access units: a new one opens at a parameter set, an access unit delimiter or
// a prefix SEI that follows the slices of a picture, and at the first slice of a new picture.
std::vector<AccessUnit> split_access_units(Codec codec, const uint8_t *p, const std::vector<Nal> &nals);

// The same grouping one NAL unit at a time, for streams read in pieces: opens() tells whether the unit
// (its header byte at nal) begins a new access unit; *key receives whether it is a key-picture slice.
class AccessUnitSplitter {
public:
    explicit AccessUnitSplitter(Codec codec) : codec_(codec) {}
    bool opens(const uint8_t *nal, size_t len, bool *key);

private:
    Codec codec_;
    bool any_ = false;        // a unit was seen
    bool has_slice_ = false;  // the open access unit holds a slice already
};

// Reads the NAL units of an Annex B stream from a file in pieces, each unit whole in memory; memory
// stays bounded by the longest unit (at most kMaxNal bytes) and the read size, whatever the stream's
// length.
class NalReader {
public:
    enum : size_t { kMaxNal = 8u << 20 };
    // piece: how many bytes each read takes (1 MiB; tests and the fuzz harness use small ones).
    explicit NalReader(FILE *f, size_t piece = 1u << 20) : f_(f), piece_(piece > 0 ? piece : 1) {}
    // The input's first bytes, up to n (fewer at its end), without moving on: for probes and sniffing.
    // Only before the first next().
    size_t peek(size_t n, const uint8_t **p);
    // The next NAL unit: *nal points at its header byte, *len counts it without trailing zero bytes;
    // valid until the next call. False at the end of the input, on a read error (error()) or on a unit
    // longer than kMaxNal (too_long()).
    bool next(const uint8_t **nal, size_t *len);
    uint64_t skipped() const { return skipped_; }  // bytes in front of the first start code
    uint64_t bytes() const { return consumed_ + buf_.size(); }  // bytes read so far
    int error() const { return error_; }  // errno of a failed read, or 0
    bool too_long() const { return too_long_; }

private:
    bool more();  // reads the next piece; false at the end or on an error
    // The position of the next start code's 0x01 in buf_ at or after from, or npos.
    size_t find_start(size_t from) const;
    FILE *f_;
    size_t piece_;
    std::vector<uint8_t> buf_;
    size_t pos_ = 0;           // in buf_: the header byte of the next unit (after the first next())
    uint64_t consumed_ = 0;    // bytes dropped from the front of buf_
    uint64_t skipped_ = 0;
    bool started_ = false, eof_ = false, too_long_ = false;
    bool open_ = true;         // a unit begins at pos_ that next() has not given yet
    int error_ = 0;
};

}  // namespace kxt
