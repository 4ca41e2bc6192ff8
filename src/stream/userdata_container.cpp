// The user-data container format: start patterns, size bytes, emulation prevention, tags, the tables of
// information types, block types and mask bits, and the one door to the caller's callback.
#include <limits.h>
#include <stddef.h>
#include <string.h>

#if defined(__SSE2__)
#include <emmintrin.h>
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

int GetUserDataFlag(int iEncode, char *pcOldFlag, char *pcNewFlag) {
    const char *old_flag;
    const char *new_flag;
    int len;
    if (iEncode == KX_ENCODE_H264 || iEncode == KX_ENCODE_H264_ALT) {
        old_flag = s_acH264Old, new_flag = s_acH264New, len = 6;
    } else if (iEncode == KX_ENCODE_H265) {
        old_flag = s_acH265Old, new_flag = s_acH265New, len = 7;
    } else {
        return 0;
    }
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
// that may not be read beyond the container, and on hosts without SSE2.
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

#if defined(__SSE2__)
// Sixteen bytes from src to dst, at any alignment.
inline void copy16(uint8_t *dst, const uint8_t *src) {
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst), _mm_loadu_si128(reinterpret_cast<const __m128i *>(src)));
}

// Bit i set where byte i of the 64 bytes at p equals the byte in every lane of ref.
inline uint64_t match_bits64(const uint8_t *p, __m128i ref) {
    uint64_t bits = 0;
    for (int i = 0; i < 4; i++) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 16 * i));
        bits |= (uint64_t)(unsigned)_mm_movemask_epi8(_mm_cmpeq_epi8(v, ref)) << (16 * i);
    }
    return bits;
}

// The removal with the source known to hold src_len readable bytes and the target room bytes. The
// 00 00 03 triples are found 64 source bytes at a time, and the runs between their 03 bytes are copied
// 32 bytes at a time, the last piece reaching behind the run where the source and room allow. Every
// 03 of a triple in the source goes: the 03 of one triple is no zero, so no zero of a later triple lies
// in front of it. It lands at its source position minus the bytes removed before it, and is removed
// while that lies inside the stated size, that is while its source position lies below the grown size
// n; each removal makes the source one byte longer.
int revert_blocks(const uint8_t *src, int src_len, uint8_t *dst, int *size, int room) {
    int n = *size, r = 0, w = 0;  // grown size; next source byte to copy; bytes written
    uint64_t zeros_before = 0;    // zero bytes of the block before, for a triple across the border
    const __m128i zero = _mm_setzero_si128(), three = _mm_set1_epi8(3);
    for (int c = 0; c < n; c += 64) {
        const uint8_t *block = src + c;
        uint8_t tail[64];
        if (src_len - c < 64) {
            memset(tail, 0, sizeof(tail));  // zeros behind the end hold no 03
            memcpy(tail, block, (size_t)(src_len - c));
            block = tail;
        }
        const uint64_t z = match_bits64(block, zero);
        uint64_t m = match_bits64(block, three) & (z << 1 | zeros_before >> 63) & (z << 2 | zeros_before >> 62);
        zeros_before = z;
        for (; m != 0; m &= m - 1) {
            const int p = c + __builtin_ctzll(m);
            if (p >= n) goto done;  // the target is full in front of this 03
            const int len = p - r;
            if (len + 32 <= src_len - r && len + 32 <= room - w) {
                copy16(dst + w, src + r);
                copy16(dst + w + 16, src + r + 16);
                for (int i = 32; i < len; i += 16) copy16(dst + w + i, src + r + i);
            } else {
                memcpy(dst + w, src + r, (size_t)len);
            }
            w += len, r = p + 1;
            if (n >= src_len) {
                *size = n;
                return -1;
            }
            n++;
        }
    }
done:
    memcpy(dst + w, src + r, (size_t)(n - r));
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
#if defined(__SSE2__)
    // Without room, reads stay inside the container (src_len may only be a caller's promise) and writes
    // inside the stated size: the byte loop does that.
    if (stated <= limit && room >= 0) {
        if (room > limit) room = stated;
        return revert_blocks(src, src_len, dst, size, room);
    }
#else
    (void)room;
#endif
    return revert_bytewise(src, src_len, dst, size, limit);
}

bool ud_read_block_head(const uint8_t *container, int container_len, int pos, TUserDataBlockHead *head) {
    if (container == nullptr || head == nullptr || pos < 0 || pos > container_len - KX_UD_BLOCK_HEAD_LEN) {
        return false;
    }
    head->usType = kx_rd16le(container + pos);
    head->usLen = kx_rd16le(container + pos + 2);
    return true;
}

void ud_copy(void *dst, const void *src, int n) {
    if (n > 0) memcpy(dst, src, (size_t)n);
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
