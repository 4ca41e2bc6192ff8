// Frame header validity.
#include "stream/frame_header.h"

bool IsValidFrameHeader(const __S_FrameHeader *header) {
    if (header == nullptr) return false;
    uint32_t frame_len = fh_frame_len(header);
    uint32_t payload_len = fh_payload_len(header);
    if (frame_len > KX_FRAME_MAX_LEN || payload_len > KX_FRAME_MAX_LEN) return false;
    uint32_t expect = payload_len + KX_FRAME_HEADER_LEN + (uint32_t)fh_ext_count(header) * fh_ext_size(header);
    return frame_len == expect;
}
