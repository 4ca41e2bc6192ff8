// Builders of the device's frame format as a producer writes it, the one home of these helpers for the
// tests, the tools, the benchmarks and the fuzz harnesses: little-endian appends, user-data blocks,
// containers and units (start pattern, size bytes, emulation prevention), and the 32-byte frame header.
// A frame with one absolute-time block:
//
//   Bytes c = framegen::container("QZST", {framegen::block(0xFED3, framegen::le32(1700000000))});
//   Bytes f = framegen::frame(framegen::unit(21, framegen::kOld, c));
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <initializer_list>
#include <vector>

namespace framegen {

using Bytes = std::vector<uint8_t>;

void put16(Bytes &out, uint16_t v);
void put32(Bytes &out, uint32_t v);
void append(Bytes &out, const Bytes &more);
Bytes le16(uint16_t v);
Bytes le32(uint32_t v);
Bytes cat(std::initializer_list<Bytes> parts);

// One block: usType, usLen (the payload's length unless given) and the payload.
Bytes block(uint16_t type, const Bytes &payload, int len_field = -1);

// A container: tag, usBlockCount (the number of blocks unless given), uiDataLen (the bytes of the blocks
// unless given), then the blocks.
Bytes container(const char *tag, const std::vector<Bytes> &blocks, int block_count = -1, int data_len = -1);

enum Layout { kOld, kNew };

// The start pattern of a layout for iEncode 21/22 (H.264 SEI) or 23 (H.265 prefix SEI).
Bytes pattern(int encode, Layout layout);
// Size bytes that state n: 255 for each full 255, then the rest (so 255 gives FF 00).
Bytes size_bytes(int n);
// Emulation prevention as an encoder applies it: 03 behind every 00 00 that a byte 00 to 03 follows.
Bytes escape(const Bytes &raw);

// A whole user-data unit: pattern, size bytes, the escaped container and a trailing byte. The stated size
// is the container's unescaped length unless given.
Bytes unit(int encode, Layout layout, const Bytes &container, int stated = -1, uint8_t trailing = 0x80);

// The fields of __S_FrameHeader, written little-endian; reserved bytes are zero.
struct FrameHeader {
    uint32_t frame_len = 32;
    uint8_t attr = 0;
    uint32_t frame_no = 0;
    uint32_t info = 0;
    uint32_t payload_len = 0;
    uint16_t ext_count = 0;
    uint16_t ext_size = 0;
    uint16_t flags = 0;
};
Bytes frame_header(const FrameHeader &h);

// A valid frame: the header with its lengths made to fit data (no extension units), then data.
Bytes frame(const Bytes &data, FrameHeader h = FrameHeader());

}  // namespace framegen
