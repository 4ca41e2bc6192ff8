// Little-endian loads and stores at any alignment. Wire, frame and index formats are little-endian;
// these compile to plain moves on little-endian hosts and stay correct elsewhere.
#pragma once

#include <stdint.h>

static inline uint16_t kx_rd16le(const void *p) {
    const uint8_t *b = static_cast<const uint8_t *>(p);
    return (uint16_t)(b[0] | (b[1] << 8));
}

static inline uint32_t kx_rd32le(const void *p) {
    const uint8_t *b = static_cast<const uint8_t *>(p);
    return (uint32_t)b[0] | ((uint32_t)b[1] << 8) | ((uint32_t)b[2] << 16) | ((uint32_t)b[3] << 24);
}

static inline void kx_wr16le(void *p, uint16_t v) {
    uint8_t *b = static_cast<uint8_t *>(p);
    b[0] = (uint8_t)v;
    b[1] = (uint8_t)(v >> 8);
}

static inline void kx_wr32le(void *p, uint32_t v) {
    uint8_t *b = static_cast<uint8_t *>(p);
    b[0] = (uint8_t)v;
    b[1] = (uint8_t)(v >> 8);
    b[2] = (uint8_t)(v >> 16);
    b[3] = (uint8_t)(v >> 24);
}
