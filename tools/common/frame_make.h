// Builders of the device's frame format as a producer writes it: the 32-byte frame header, user-data
// blocks, containers and units, and I-frame index blocks.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "common/annexb.h"
#include "common/tool_util.h"

namespace kxt {

enum class Layout { kOld, kNew };

// Largest stated container size of a layout: 1024 bytes in the old layout, 10240 in the new.
int container_limit(Layout layout);

// Block types written by the frame maker.
enum : uint16_t {
    kBlockTime = 0xFED3,
    kBlockPlates = 0xFED5,
    kBlockOsd = 0xFEDC,
    kBlockVcaTargets = 0xFEE3,
    kBlockPtz = 0xFEE2,
};

// One VCA target: a rectangle in ten-thousandths of the picture's width and height (x1, y1, x2, y2,
// each 0 to 10000) and four words carried along unchanged (for example an id and a class).
struct VcaRect {
    uint16_t coord[4];
    uint16_t extra[4];
};

// One block: type, payload length, payload.
Bytes ud_block(uint16_t type, const Bytes &payload);
// The time block payload: seconds since 1970, UTC.
Bytes time_payload(uint32_t seconds);
// Target records of 18 bytes: the record length, the four coordinates, the four extra words.
Bytes vca_payload(const std::vector<VcaRect> &targets);
// The plate block payload: a 32-bit count, then the plates as zero-padded text. The reader takes the
// block's whole length divided by the count as the distance between plates, count field included, so
// the plates are laid out at that distance and each text ends with a zero inside the block.
Bytes plate_payload(const std::vector<std::string> &plates);
// Longest plate text and most plates that plate_payload accepts.
enum { kPlateTextMax = 100, kPlateMax = 10 };
// An OSD text record of sub-type 7: the sub-type, 24 unused bytes, the text length, the text.
Bytes osd_text_payload(const std::string &text);
enum { kOsdTextMax = 512 };

// A complete container (tag QZST) holding the blocks, with its header counting them.
Bytes ud_container(const std::vector<Bytes> &blocks);
// A whole user-data unit: start pattern of the codec and layout, size bytes stating the container's
// length, the escaped container and the closing byte 80.
Bytes ud_unit(Codec codec, Layout layout, const Bytes &container);

// A frame header for data_len bytes of payload and no extension units.
Bytes frame_header(uint32_t data_len, uint32_t frame_no, uint16_t flags);
enum : uint32_t { kFrameMaxLen = 0x300000 };

// One item of an I-frame index, and the whole index block (44-byte head and 12-byte items).
struct IndexItem {
    uint32_t word;
    int32_t stamp;
    uint32_t mask;
};
Bytes iframe_index(const std::vector<IndexItem> &items);

}  // namespace kxt
