// Builds media frames and user-data units for tests, piece by piece (with the builders of framegen), and
// records what reaches the user-data callback. A typical frame with one absolute-time block:
//
//   Bytes c = fb::container("QZST", {fb::block(0xFED3, fb::le32(1700000000))});
//   Bytes f = fb::frame(fb::unit(21, fb::kOld, c));
//
// unit() escapes the container (emulation prevention) and states its unescaped size in size bytes.
#pragma once

#include <stdint.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "framegen.h"
#include "korvex/korvex.h"

namespace fb {

// The builders of blocks, containers and units are those of framegen (framegen.h).
using framegen::block;
using framegen::Bytes;
using framegen::cat;
using framegen::container;
using framegen::escape;
using framegen::kNew;
using framegen::kOld;
using framegen::Layout;
using framegen::le16;
using framegen::le32;
using framegen::pattern;
using framegen::size_bytes;
using framegen::unit;

// Fields of the frame header that a test may set; the lengths are always made consistent.
struct FrameFields {
    uint32_t frame_no = 1;
    uint8_t attr = 0;
    uint32_t info = 0;
    uint16_t flags = 0;
};
// A valid frame: the 32-byte header, then data (for video an Annex B stream; the user-data unit first).
Bytes frame(const Bytes &data, const FrameFields &f = FrameFields());

// A frame header with every length field as given, valid or not.
Bytes header(uint32_t frame_len, uint32_t payload_len, uint16_t ext_count = 0, uint16_t ext_size = 0);

// One call of the user-data callback, with its data copied.
struct Call {
    int handle;
    int type;
    Bytes data;
    int len;
    bool null_data;
    TUserDataFrameInfo info;
};

// Records the callbacks of one test; para() wires a _tagInnerFramePara to it.
struct CallbackLog {
    std::vector<Call> calls;
    _tagInnerFramePara para(const __S_FrameHeader *header = nullptr, int flag = 0xFFFF, int encode = 21);
    std::vector<int> types() const;
    static int callback(int handle, int type, const void *data, int len, TUserDataFrameInfo *info,
                        void *user);
};

#ifdef KORVEX_TEST_DATA
// Reads a whole file of tests/data (inline: the path comes from the test program's build flags).
inline Bytes read_data_file(const std::string &name) {
    std::ifstream in(std::string(KORVEX_TEST_DATA) + "/" + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
#endif

}  // namespace fb
