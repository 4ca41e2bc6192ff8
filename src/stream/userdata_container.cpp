// The user-data container format: start patterns, size bytes, emulation prevention, tags, the tables of
// information types, block types and mask bits, and the one door to the caller's callback.
#include <limits.h>
#include <stddef.h>
#include <string.h>

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#include <tmmintrin.h>
#endif

#include "log/log_internal.h"
#include "platform/bytes.h"
#include "stream/frame_header.h"
#include "stream/userdata_internal.h"

static_assert(sizeof(TUserDataHeader) == KX_UD_HEADER_LEN, "container header is 8 bytes");
static_assert(offsetof(TUserDataHeader, usBlockCount) == 4 && offsetof(TUserDataHeader, uiDataLen) == 6,
              "container header fields");
static_assert(sizeof(TUserDataBlockHead) == KX_UD_BLOCK_HEAD_LEN, "block head is 4 bytes");
static_assert(sizeof(TUserDataFrameInfo) == 16, "frame info is 16 bytes");
static_assert(sizeof(void *) != 8 || sizeof(_tagInnerFramePara) == 72, "frame parameters are 72 bytes");

namespace {

// The three bytes whose 03 is no part of the data.
const uint8_t s_ucNeedToRevert[3] = {0x00, 0x00, 0x03};

// Start patterns: an SEI NAL unit (H.264 type 6, H.265 prefix SEI type 39) of payload type F0 (old) or F1.
const char s_acH264Old[6] = {0x00, 0x00, 0x00, 0x01, 0x06, (char)0xF0};
const char s_acH264New[6] = {0x00, 0x00, 0x00, 0x01, 0x06, (char)0xF1};
const char s_acH265Old[7] = {0x00, 0x00, 0x00, 0x01, 0x4E, 0x01, (char)0xF0};
const char s_acH265New[7] = {0x00, 0x00, 0x00, 0x01, 0x4E, 0x01, (char)0xF1};

// Block type of each information type from 0 to 19. Type 11 has none of its own and asks for absolute time.
// clang-format off
const uint16_t s_ausTypeFlags[] = {
    KX_BLK_ABS_TIME, KX_BLK_FED1, KX_BLK_FED4, KX_BLK_VCA_TARGET, KX_BLK_USER_DEFINE,   // 0-4
    KX_BLK_VITAL_SIGN, KX_BLK_DEMOGRAPHICS, KX_BLK_LPR, KX_BLK_OSD, KX_BLK_LDC,         // 5-9
    KX_BLK_ZF_MARK, KX_BLK_ABS_TIME, KX_BLK_VCA_STAMP, KX_BLK_VCA_ATTR, KX_BLK_FEE1,    // 10-14
    KX_BLK_PTZ, 0xFEE8, 0xFEE9, 0xFEE6, 0xFEE7,                                         // 15-19
};
// clang-format on

struct MaskBit {
    uint16_t usType;
    uint8_t ucBit;
};

// Block type -> bit of iTypeMask. 0xFEF6 and 0xFEF7 stand for bits 33 and 34, which a 32-bit mask can't
// hold, so no mask ever selects them.
const MaskBit s_atMaskBits[] = {
    {0xFED3, 0},  {0xFED1, 1},  {0xFED4, 2},  {0xFED2, 3},  {0xFEE3, 3},  {0x0001, 4},  {0xFEDA, 5},
    {0xFED9, 6},  {0xFED5, 7},  {0xFEDC, 8},  {0xFEDD, 9},  {0xFEDE, 10}, {0xFEDF, 12}, {0xFEE0, 13},
    {0xFEE1, 14}, {0xFEE2, 15}, {0xFEE8, 16}, {0xFEE9, 17}, {0xFEE6, 18}, {0xFEE7, 19}, {0xFEEA, 20},
    {0xFEEB, 21}, {0xFEE4, 22}, {0xFEE5, 23}, {0xFEEC, 24}, {0xFEED, 25}, {0xFEEE, 26}, {0xFEEF, 27},
    {0xFEF1, 28}, {0xFEF6, 33}, {0xFEF7, 34},
};

}  // namespace

int GetUserDataFlag(int _iType) {
    if (_iType == KX_UD_TYPE_ALL) return KX_UD_FLAG_ALL;
    if (_iType >= 0 && _iType < (int)(sizeof(s_ausTypeFlags) / sizeof(s_ausTypeFlags[0]))) {
        return s_ausTypeFlags[_iType];
    }
    return KX_BLK_ABS_TIME;  // 20 to 46 and anything else: a query for absolute time
}

int ud_patterns(int iEncode, const uint8_t **old_flag, const uint8_t **new_flag) {
    const char *o, *n;
    int len;
    if (iEncode == KX_ENCODE_H264 || iEncode == KX_ENCODE_H264_ALT) {
        o = s_acH264Old, n = s_acH264New, len = 6;
    } else if (iEncode == KX_ENCODE_H265) {
        o = s_acH265Old, n = s_acH265New, len = 7;
    } else {
        return 0;
    }
    if (old_flag != nullptr) *old_flag = reinterpret_cast<const uint8_t *>(o);
    if (new_flag != nullptr) *new_flag = reinterpret_cast<const uint8_t *>(n);
    return len;
}

int GetUserDataFlag(int iEncode, char *pcOldFlag, char *pcNewFlag) {
    const uint8_t *old_flag, *new_flag;
    const int len = ud_patterns(iEncode, &old_flag, &new_flag);
    if (len == 0) return 0;
    if (pcOldFlag != nullptr) memcpy(pcOldFlag, old_flag, (size_t)len);
    if (pcNewFlag != nullptr) memcpy(pcNewFlag, new_flag, (size_t)len);
    return len;
}

int GetUDTypeByFlag(int iMask, int iBlockType) {
    if (iMask < 0) return 0;
    for (const MaskBit &m : s_atMaskBits) {
        if (m.usType != iBlockType) continue;
        if (m.ucBit >= KX_UD_TYPE_BITS_MAX) return 0;
        return iMask & (int)(1u << m.ucBit);
    }
    return 0;
}

int ud_read_size_run(const uint8_t *p, int avail, int max_bytes, int *consumed) {
    int sum = 0, n = 0;
    if (p != nullptr) {
        while (n < avail && (max_bytes <= 0 || n < max_bytes)) {
            uint8_t b = p[n++];
            if (sum > INT_MAX - 255) break;  // a run this long states no size any layout accepts
            sum += b;
            if (b != 0xFF) break;
        }
    }
    if (consumed != nullptr) *consumed = n;
    return sum;
}

namespace {

// The removal byte by byte: for a target smaller than the stated size (once a 00 00 03 would begin
// beyond the target, the rest is copied as it stands, and nothing is written behind limit), for a source
// that may not be read beyond the container, and on processors without SSSE3.
int revert_bytewise(const uint8_t *src, int src_len, uint8_t *dst, int *size, int limit) {
    int n = *size, r = 0, w = 0;
    int zeros = 0;  // zero bytes in a row in front of r, since the last removal
    bool removing = true;
    while (r < n) {
        const uint8_t b = src[r];
        if (b == s_ucNeedToRevert[2] && zeros >= 2 && removing) {
            if (w - 2 > limit) {
                removing = false;
            } else {
                if (n >= src_len) {
                    *size = n;
                    return -1;
                }
                n++, r++, zeros = 0;
                continue;
            }
        }
        if (w < limit) dst[w] = b;
        w++, r++;
        zeros = b == 0 ? zeros + 1 : 0;
    }
    *size = n;
    return 0;
}

// KX_UD_REVERT_BYTEWISE (CMake: -DKORVEX_USERDATA_SIMD=OFF) builds the byte loop alone, as on
// processors without SSSE3, so that it is tested on any build machine.
#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__)) && \
    !defined(KX_UD_REVERT_BYTEWISE)
#define KX_UD_REVERT_SSSE3 1
// Compaction of 8 bytes: for each mask of bytes to drop, the positions of the bytes that stay, in order,
// then 0x80 (a zero byte); and how many stay.
struct CompactTable {
    alignas(8) uint8_t keep_at[256][8];
    uint8_t kept[256];
};
constexpr CompactTable make_compact_table() {
    CompactTable t{};
    for (int m = 0; m < 256; m++) {
        int k = 0;
        for (int i = 0; i < 8; i++)
            if (((m >> i) & 1) == 0) t.keep_at[m][k++] = (uint8_t)i;
        t.kept[m] = (uint8_t)k;
        for (; k < 8; k++) t.keep_at[m][k] = 0x80;
    }
    return t;
}
constexpr CompactTable s_tCompact = make_compact_table();

// Shuffle indices that move a chunk down by s bytes, zeros behind: the sixteen bytes from s_aucSlide + s.
constexpr uint8_t s_aucSlide[32] = {0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,
                                    11,   12,   13,   14,   15,   0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
                                    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};

// One chunk of sixteen source bytes: drops the bytes of mask m (bit i: byte i) and stores what stays of
// each half behind the other at dst, 16 bytes in all. Gives the bytes that stay.
__attribute__((target("ssse3"))) inline int close_up(__m128i v, unsigned m, uint8_t *dst) {
    const int kept_low = s_tCompact.kept[m & 0xFF];
    const __m128i low =
        _mm_shuffle_epi8(v, _mm_loadl_epi64(reinterpret_cast<const __m128i *>(s_tCompact.keep_at[m & 0xFF])));
    const __m128i high = _mm_shuffle_epi8(
        _mm_srli_si128(v, 8), _mm_loadl_epi64(reinterpret_cast<const __m128i *>(s_tCompact.keep_at[m >> 8])));
    _mm_storel_epi64(reinterpret_cast<__m128i *>(dst), low);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(dst + kept_low), high);
    return kept_low + s_tCompact.kept[m >> 8];
}

// The removal with the source known to hold src_len readable bytes, sixteen source bytes at a time and
// without a branch on what they hold: the 03 bytes that end a 00 00 03 are found at once, each half of
// the chunk is closed up over them by one byte shuffle, and the halves are stored one behind the other,
// the last ones reaching up to 15 bytes behind the stated size where room allows. Every 03 of a triple
// in the source goes: the 03 of one triple is no zero, so no zero of a later triple lies in front of it.
// It lands at its source position minus the bytes removed before it, and is removed while that lies
// inside the stated size; each removal makes the source one byte longer (n).
__attribute__((target("ssse3"))) int revert_chunks(const uint8_t *src, int src_len, uint8_t *dst, int *size,
                                                   int room) {
    const int stated = *size;
    int n = stated, w = 0, c = 0;
    unsigned carry = 0;  // bit 1: the byte in front of the chunk is zero; bit 0: the one before that
    const __m128i zero = _mm_setzero_si128(), three = _mm_set1_epi8(3);
    // Whole chunks inside both the source and the container: their 16 stored bytes stay inside the
    // stated size (w + 16 <= stated, as w is c minus the bytes removed), and every 03 of them goes.
    // Were the source to end inside the container, n runs past src_len and stays there: that is
    // answered behind the loop.
    for (; c + 16 <= n && c <= src_len - 16; c += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + c));
        const unsigned z =
            (unsigned)_mm_movemask_epi8(_mm_cmpeq_epi8(v, zero)) << 2 | carry;  // bit i + 2: byte i
        const unsigned m = (unsigned)_mm_movemask_epi8(_mm_cmpeq_epi8(v, three)) & (z >> 1) & z;
        carry = z >> 16;
        const int kept = close_up(v, m, dst + w);
        w += kept, n += 16 - kept;
    }
    // The last bytes, one chunk at a time.
    for (; c < n && n <= src_len; c += 16) {
        alignas(16) uint8_t chunk[16] = {0};  // zeros behind the end hold no 03
        __m128i v;
        if (src_len - c >= 16) {
            v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + c));
        } else if (src_len >= 16) {
            // The sixteen bytes that end the source, moved down to the chunk's start.
            v = _mm_shuffle_epi8(
                _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + src_len - 16)),
                _mm_loadu_si128(reinterpret_cast<const __m128i *>(s_aucSlide + 16 - (src_len - c))));
        } else {
            ud_copy(chunk, src + c, src_len - c);
            v = _mm_load_si128(reinterpret_cast<const __m128i *>(chunk));
        }
        const unsigned z = (unsigned)_mm_movemask_epi8(_mm_cmpeq_epi8(v, zero)) << 2 | carry;
        unsigned m = (unsigned)_mm_movemask_epi8(_mm_cmpeq_epi8(v, three)) & (z >> 1) & z;
        carry = z >> 16;
        // The target may fill up inside this chunk: only the 03 bytes in front of its end go.
        unsigned keep = 0;
        int d = 0;
        for (unsigned rest = m; rest != 0; rest &= rest - 1, d++) {
            if (w + __builtin_ctz(rest) - d >= stated) break;
            keep |= rest & (0u - rest);
        }
        m = keep;
        int kept;
        if (w + 16 <= room) {
            kept = close_up(v, m, dst + w);
        } else {
            kept = close_up(v, m, chunk);
            ud_copy(dst + w, chunk, kept < stated - w ? kept : stated - w);
        }
        w += kept, n += 16 - kept;
    }
    if (n > src_len) {
        // The container runs past the source: the removal that needed byte src_len fails.
        *size = src_len;
        return -1;
    }
    *size = n;
    return 0;
}
#endif

}  // namespace

int ud_revert(const uint8_t *src, int src_len, uint8_t *dst, int *size, int limit, int room) {
    const int stated = *size;
    if (stated <= 0) return 0;
    if (stated > src_len) return -1;
    if (limit < 0) limit = 0;
#if defined(KX_UD_REVERT_SSSE3)
    // Without room, reads stay inside the container (src_len may only be a caller's promise) and writes
    // inside the stated size: the byte loop does that, and serves processors without SSSE3.
    if (stated <= limit && room >= 0 && __builtin_cpu_supports("ssse3")) {
        return revert_chunks(src, src_len, dst, size, room > limit ? stated : room);
    }
#else
    (void)room;
#endif
    return revert_bytewise(src, src_len, dst, size, limit);
}

void ud_copy_padded(void *dst, int dst_len, const void *src, int src_len) {
    if (dst == nullptr || dst_len <= 0) return;
    int n = (src == nullptr || src_len < 0) ? 0 : (src_len < dst_len ? src_len : dst_len);
    if (n > 0) memcpy(dst, src, (size_t)n);
    if (n < dst_len) memset((uint8_t *)dst + n, 0, (size_t)(dst_len - n));
}

extern "C" {

KX_API int FindPosByFlag(const unsigned char *_pucBuf, int _iLen, const void *_pvFlag, int _iFlagLen) {
    if (_pucBuf == nullptr || _pvFlag == nullptr || _iFlagLen <= 0 || _iLen < _iFlagLen) return -1;
    const uint8_t *flag = static_cast<const uint8_t *>(_pvFlag);
    const uint8_t *p = _pucBuf;
    const uint8_t *last = _pucBuf + (_iLen - _iFlagLen);  // the last position where the pattern fits
    while (p <= last) {
        p = static_cast<const uint8_t *>(memchr(p, flag[0], (size_t)(last - p) + 1));
        if (p == nullptr) return -1;
        if (memcmp(p, flag, (size_t)_iFlagLen) == 0) return (int)(p - _pucBuf);
        p++;
    }
    return -1;
}

KX_API int RevertUserData(const unsigned char *_pucSrc, unsigned char *_pucDst, int &_iSize, int _iLimit) {
    if (_pucSrc == nullptr || _pucDst == nullptr) return 0;
    // The caller vouches for the source: it holds the container's whole stream length.
    ud_revert(_pucSrc, INT_MAX, _pucDst, &_iSize, _iLimit, -1);
    return 0;
}

KX_API int GetUserdataFlagType(const unsigned char *_pucData, TUserDataHeader &_tHeader) {
    if (_pucData == nullptr) return KX_UD_TAG_BAD;
    memcpy(_tHeader.aucTag, _pucData, 4);
    _tHeader.usBlockCount = kx_rd16le(_pucData + 4);
    _tHeader.uiDataLen = kx_rd16le(_pucData + 6);
    if (memcmp(_pucData, "QZS", 3) != 0) return KX_UD_TAG_BAD;
    // The tags differ in their last byte only; its place in "TSCE" is the result.
    for (int i = 0; i < 4; i++) {
        if (_pucData[3] == "TSCE"[i]) return i;
    }
    return KX_UD_TAG_BAD;
}

KX_API void DevCallbackFunc(int iType, const _tagInnerFramePara *_ptPara, const void *pvData, int iLen) {
    if (_ptPara == nullptr) {
        KX_LOG_ERR("_ptPara == NULL");
        return;
    }
    if (_ptPara->pfnUserDataCb == nullptr) return;
    TUserDataFrameInfo info;
    info.iSize = (int32_t)sizeof(TUserDataFrameInfo);
    const __S_FrameHeader *h = _ptPara->ptFrmHeader;
    info.uiFrameNo = h != nullptr ? fh_frame_no(h) : 0;
    info.uiFrameAttr = h != nullptr ? fh_frame_attr(h) : 0;
    info.uiFrameInfo = h != nullptr ? fh_frame_info(h) : 0;
    _ptPara->pfnUserDataCb(_ptPara->iCbHandle, iType, pvData, iLen, &info, _ptPara->pvCbUser);
}

}  // extern "C"
