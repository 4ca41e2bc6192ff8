// Wire heads of the link and the scan that finds them in a run of buffered bytes.
#include <arpa/inet.h>
#include <string.h>

#include "link/link_internal.h"
#include "log/log_internal.h"
#include "platform/bytes.h"

const uint8_t kLinkCommandMagic[4] = {0xF1, 0xF5, 0xEA, 0xF5};
const uint8_t kLinkDataMagic[4] = {0xF1, 0xF5, 0xEA, 0xF9};
const uint8_t kLinkOdnsMagic[4] = {0xE1, 0x00, 0x00, 0x00};
const char kLinkMobileHead[LINK_HEAD_SIZE + 1] = "MOBILEDEVICEIRRIHEAD";

namespace {

inline bool starts_with(const char *p, const uint8_t magic[4]) { return memcmp(p, magic, 4) == 0; }

// A magic head at p with remain bytes buffered from p on. Gives true when the scan stops here:
// the head or its packet is still incomplete (*package_len stays 0), or the packet is whole.
// False for a length above the limit, which makes the head noise.
bool magic_head(const char *p, int remain, int len_offset, int *package_len) {
    if (remain < LINK_HEAD_SIZE) return true;
    int plen = kx_rd16le(p + len_offset);
    if (plen > LINK_MAX_PACKAGE_LEN) {
        KX_LOG_ERR("invalid protocol size %d", plen);
        return false;
    }
    if (remain >= plen) *package_len = plen;
    return true;
}

// The first bytes of the four heads: F1 (command and data), E1 (ODNS) and "M" (mobile).
inline bool is_head_start(uint8_t b) { return b == 0xF1 || b == 0xE1 || b == 'M'; }

// Eight bytes, data[0] least significant.
inline uint64_t load_word(const char *p) {
    return (uint64_t)kx_rd32le(p) | ((uint64_t)kx_rd32le(p + 4) << 32);
}

// The high bit of each byte of w that may begin a head. The lowest bit set is always exact (a
// borrow only reaches bytes above a true match), so it points at the first byte that begins one;
// 0 when none of the eight does.
inline uint64_t head_start_bits(uint64_t w) {
    constexpr uint64_t kOnes = 0x0101010101010101ull, kHighs = 0x8080808080808080ull;
    auto zero_bytes = [](uint64_t v) { return (v - kOnes) & ~v & kHighs; };
    return zero_bytes(w ^ (kOnes * 0xF1)) | zero_bytes(w ^ (kOnes * 0xE1)) | zero_bytes(w ^ (kOnes * 'M'));
}

}  // namespace

int protocol_parase_net_data(const char *data, int len, int *package_len) {
    if (data == nullptr || package_len == nullptr) {
        KX_LOG_ERR("%s", "");
        return -1;
    }
    if (len <= LINK_SCAN_TAIL) return 0;
    const int end = len - LINK_SCAN_TAIL;  // heads are looked for at offsets [0, end)
    int i = 0;
    for (; i < end; i++) {
        // Noise is passed eight bytes at a time, up to the first byte that may begin a head.
        while (i + 8 <= end) {
            uint64_t bits = head_start_bits(load_word(data + i));
            if (bits != 0) {
                i += __builtin_ctzll(bits) / 8;
                break;
            }
            i += 8;
        }
        if (i >= end) break;
        const char *p = data + i;
        if (!is_head_start((uint8_t)*p)) continue;
        const int remain = len - i;
        if (starts_with(p, kLinkCommandMagic)) {
            if (magic_head(p, remain, 6, package_len)) return i;
        } else if (starts_with(p, kLinkDataMagic)) {
            if (magic_head(p, remain, 14, package_len)) return i;
        } else if (starts_with(p, kLinkOdnsMagic)) {
            // The length field must be whole before it is read, and the packet is held back until
            // all of it is buffered: the parser is never shown bytes that have not arrived.
            if (remain < 8) return i;
            int32_t plen = (int32_t)kx_rd32le(p + 4);
            if (plen < 1 || plen > LINK_ODNS_MAX_LEN) {
                KX_LOG_ERR("invalid ODNS_DATAPACKHEAD protocol size %d", plen);
                return i;
            }
            if (remain >= plen) *package_len = plen;
            return i;
        } else if (remain >= LINK_HEAD_SIZE && memcmp(p, kLinkMobileHead, LINK_HEAD_SIZE) == 0) {
            *package_len = remain;
            return i;
        }
    }
    return i;
}

int link_head_type(const char *p, int n) {
    if (n >= 4 && starts_with(p, kLinkDataMagic)) return LINK_HEAD_DATA;
    if (n >= 4 && starts_with(p, kLinkOdnsMagic)) return LINK_HEAD_ODNS;
    if (n >= LINK_HEAD_SIZE && memcmp(p, kLinkMobileHead, LINK_HEAD_SIZE) == 0) return LINK_HEAD_MOBILE;
    return LINK_HEAD_COMMAND;
}

void link_write_command_head(uint8_t *head, uint16_t seq, int body_len, uint32_t remote_addr,
                             uint32_t local_addr) {
    memset(head, 0, LINK_HEAD_SIZE);
    memcpy(head, kLinkCommandMagic, 4);
    kx_wr16le(head + 4, seq);
    kx_wr16le(head + 6, (uint16_t)(body_len + LINK_HEAD_SIZE));
    // The address as a number with the first octet most significant, stored little-endian.
    kx_wr32le(head + 8, ntohl(remote_addr));
    kx_wr32le(head + 12, ntohl(local_addr));
    kx_wr16le(head + 18, (uint16_t)body_len);
}

void link_write_data_head(uint8_t *head, uint32_t seq, int body_len, uint32_t local_addr) {
    memset(head, 0, LINK_HEAD_SIZE);
    memcpy(head, kLinkDataMagic, 4);
    kx_wr32le(head + 4, seq);
    memcpy(head + 8, &local_addr, 4);  // network order, the first octet first
    kx_wr16le(head + 14, (uint16_t)(body_len + LINK_HEAD_SIZE));
    kx_wr32le(head + 16, 1);
}
