// Small helpers shared by the command-line tools: byte buffers, number and time parsing, whole-file
// input and output, hex views and the uniform error line.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "framegen.h"
#include "platform/bytes.h"

namespace kxt {

using framegen::Bytes;

// The program name used in front of every message ("korvex-dump: ...").
void set_program_name(const char *name);
const char *program_name();

// Prints "<program>: <message>" and a newline to standard error.
void errorf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Little-endian appends (framegen's) and reads (the library's own).
using framegen::append;
using framegen::put16;
using framegen::put32;
inline uint16_t rd16(const uint8_t *p) {
    return kx_rd16le(p);
}
inline uint32_t rd32(const uint8_t *p) {
    return kx_rd32le(p);
}

// Parses a whole decimal or 0x-prefixed number within [lo, hi]; false on any junk or overflow.
bool parse_int(const std::string &text, long long lo, long long hi, long long *out);
// Parses a positive decimal number such as 25 or 29.97.
bool parse_positive_double(const std::string &text, double *out);
// Parses a hex text such as "0a1B2c" or "0a 1b 2c" (spaces and colons allowed between bytes).
bool parse_hex(const std::string &text, Bytes *out);

// Seconds since 1970 from "2023-11-14T22:13:20Z" (the Z, a space for the T and fractional seconds are
// accepted; the time is always UTC) or from a plain number of seconds. Must fit 32 bits unsigned and
// name a day that exists.
bool parse_utc_time(const std::string &text, uint32_t *out);
// "2023-11-14T22:13:20Z" from calendar fields.
std::string iso8601_utc(int year, int month, int day, int hour, int minute, int second);

// Reads a whole file, or standard input for "-". On failure prints a message and returns false.
bool read_file(const std::string &path, Bytes *out);
// Opens a file for reading, or standard input for "-"; null with a message on failure.
FILE *open_input(const std::string &path);
// Creates a temporary file beside path (path.XXXXXX) with the mode a new file there gets, its name in
// *tmp. Gives the open stream, or nullptr with errno set and no file left; *tmp is then empty when no
// name could be made, and the name that was made when only the stream could not be opened.
FILE *create_beside(const std::string &path, std::string *tmp);

// Writes a whole buffer to a file (under a temporary name, renamed when complete), or to standard output
// for "-". On failure prints a message and leaves no file behind.
bool write_file(const std::string &path, const Bytes &data);

// A file written piece by piece under a temporary name beside it and renamed into place by finish(),
// or standard output for "-". Without finish() (a failure on the way) the temporary file goes, so no
// half-written file is left. Each call prints its own message on failure.
class OutputFile {
public:
    OutputFile() = default;
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;
    ~OutputFile();
    bool open(const std::string &path);
    bool write(const uint8_t *p, size_t n);
    bool write(const Bytes &b) { return write(b.data(), b.size()); }
    bool finish();

private:
    std::string path_, tmp_;
    FILE *f_ = nullptr;
    bool failed_ = false;
};

// "de ad be ef" of the first max bytes, with " ..." behind when there are more.
std::string hex_view(const uint8_t *p, size_t n, size_t max = 16);
// The same without spaces, for JSON.
std::string hex_compact(const uint8_t *p, size_t n, size_t max = 16);
// Text of a zero-padded field: up to the first zero byte within n, other bytes outside the printable
// ASCII range written as \xHH so that output stays one line of plain text.
std::string printable_text(const uint8_t *p, size_t n);
// Text that a device wrote (a plate, an OSD text): up to the first zero byte within n, as UTF-8. Valid
// UTF-8 stays as it is, anything else is decoded from GB18030; control characters, and bytes that
// neither decodes, become \xHH. With raw, printable_text.
std::string device_text(const uint8_t *p, size_t n, bool raw);

}  // namespace kxt
