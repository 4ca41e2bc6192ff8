// The 32-byte header in front of every media frame, and its validity rule that all SA_ calls apply
// first. Fields are read from the frame buffer in place, little-endian, at any alignment.
#pragma once

#include <stddef.h>

#include "korvex/korvex.h"
#include "platform/bytes.h"

enum { KX_FRAME_HEADER_LEN = 32, KX_FRAME_MAX_LEN = 0x300000 };

// Field offsets inside __S_FrameHeader.
enum {
    KX_FH_FRAME_LEN = offsetof(__S_FrameHeader, uiFrameLen),
    KX_FH_FRAME_ATTR = offsetof(__S_FrameHeader, ucFrameAttr),
    KX_FH_FRAME_NO = offsetof(__S_FrameHeader, uiFrameNo),
    KX_FH_FRAME_INFO = offsetof(__S_FrameHeader, uiFrameInfo),
    KX_FH_PAYLOAD_LEN = offsetof(__S_FrameHeader, uiPayloadLen),
    KX_FH_EXT_COUNT = offsetof(__S_FrameHeader, usExtCount),
    KX_FH_EXT_SIZE = offsetof(__S_FrameHeader, usExtSize),
    KX_FH_FLAGS = offsetof(__S_FrameHeader, usFrameFlags),
};

static inline uint32_t fh_frame_len(const void *h) { return kx_rd32le((const uint8_t *)h + KX_FH_FRAME_LEN); }
static inline uint8_t fh_frame_attr(const void *h) { return ((const uint8_t *)h)[KX_FH_FRAME_ATTR]; }
static inline uint32_t fh_frame_no(const void *h) { return kx_rd32le((const uint8_t *)h + KX_FH_FRAME_NO); }
static inline uint32_t fh_frame_info(const void *h) { return kx_rd32le((const uint8_t *)h + KX_FH_FRAME_INFO); }
static inline uint32_t fh_payload_len(const void *h) { return kx_rd32le((const uint8_t *)h + KX_FH_PAYLOAD_LEN); }
static inline uint16_t fh_ext_count(const void *h) { return kx_rd16le((const uint8_t *)h + KX_FH_EXT_COUNT); }
static inline uint16_t fh_ext_size(const void *h) { return kx_rd16le((const uint8_t *)h + KX_FH_EXT_SIZE); }
static inline uint16_t fh_flags(const void *h) { return kx_rd16le((const uint8_t *)h + KX_FH_FLAGS); }
static inline void fh_set_flags(void *h, uint16_t v) { kx_wr16le((uint8_t *)h + KX_FH_FLAGS, v); }

// Valid when uiFrameLen and uiPayloadLen are at most 0x300000 and uiFrameLen equals
// uiPayloadLen + 32 + usExtCount * usExtSize (mod 2^32). The buffer's real length is not seen here.
bool IsValidFrameHeader(const __S_FrameHeader *header);
