// Internal side of user data: the numbers of the container format, the look-up tables, the bounded
// building blocks that the analyses walk containers with, and the decoders that stay inside the library.
// Everything here runs on the caller's thread, allocates nothing and keeps no state.
#pragma once

#include <stdint.h>
#include <string.h>

#include "korvex/korvex.h"
#include "log/log_internal.h"
#include "platform/bytes.h"

// --- Format numbers ---
enum {
    KX_UD_HEADER_LEN = 8,      // TUserDataHeader
    KX_UD_BLOCK_HEAD_LEN = 4,  // TUserDataBlockHead
    KX_UD_OLD_MAX = 1024,      // stated size of an old container (F0), and one split-state slot
    KX_UD_NEW_MAX = 10240,     // stated size of a new container (F1), and the working buffer
    KX_UD_STATED_MIN = 9,      // smallest stated size of either layout
    KX_UD_OLD_SIZE_BYTES = 5,  // size bytes of an old unit, at most
    KX_UD_PATTERN_MAX = 7,     // longest start pattern
    KX_UD_FLAG_ALL = 0xFFFF,   // iFlag of a query for all types
    KX_UD_TYPE_ALL = 255,      // the information type that asks for all types
    KX_UD_CB_END = 0xFFFFFF,   // callback type: the walk over a container has ended
    KX_UD_TYPE_BITS_MAX = 32,  // iTypeMask holds bits 0 to 31
};

// iEncode values. 21 and 22 are H.264, 23 is H.265; 41 is an encoding without user data, which the
// two-layout analysis accepts as done.
enum { KX_ENCODE_H264 = 21, KX_ENCODE_H264_ALT = 22, KX_ENCODE_H265 = 23, KX_ENCODE_NONE = 41 };

// Results of GetUserdataFlagType.
enum { KX_UD_TAG_QZST = 0, KX_UD_TAG_QZSS = 1, KX_UD_TAG_QZSC = 2, KX_UD_TAG_QZSE = 3, KX_UD_TAG_BAD = -1 };

// Block types (usType).
enum {
    KX_BLK_USER_DEFINE = 0x0001,
    KX_BLK_FED1 = 0xFED1,  // no decoder
    KX_BLK_VCA_TARGET = 0xFED2,
    KX_BLK_ABS_TIME = 0xFED3,
    KX_BLK_FED4 = 0xFED4,  // no decoder
    KX_BLK_LPR = 0xFED5,
    KX_BLK_VCA_SRC_SIZE = 0xFED7,
    KX_BLK_VCA_SRC_VIDEO = 0xFED8,
    KX_BLK_DEMOGRAPHICS = 0xFED9,
    KX_BLK_VITAL_SIGN = 0xFEDA,
    KX_BLK_OSD = 0xFEDC,
    KX_BLK_LDC = 0xFEDD,
    KX_BLK_ZF_MARK = 0xFEDE,
    KX_BLK_VCA_STAMP = 0xFEDF,
    KX_BLK_VCA_ATTR = 0xFEE0,
    KX_BLK_FEE1 = 0xFEE1,  // passed on raw
    KX_BLK_PTZ = 0xFEE2,
    KX_BLK_VCA_TARGET_EX = 0xFEE3,
    KX_BLK_LAW_CASE = 0xFEF1,
    KX_BLK_WATERMARK_VIDEO = 0xFEF2,
    KX_BLK_WATERMARK_USER = 0xFEF3,
    KX_BLK_POLICE_CLOTH = 0xFEF4,
    KX_BLK_VEST_CLOTH = 0xFEF5,
    KX_BLK_HMAC = 0xFEF7,
    KX_BLK_PTZ_POS = 0xFEF8,
    KX_BLK_CHECK_HMAC = 0xFEFA,
    KX_BLK_VCA_SRC_SIZE_ENABLE = 0xFEFB,
    KX_BLK_TRACK_STYLE = 0xFEFC,
    KX_BLK_WATERMARK_ADD = 0xFEFE,
};

// Type numbers that the decoders give to DevCallbackFunc.
enum {
    KX_CB_ABS_TIME = 0,
    KX_CB_VCA_TARGET = 3,
    KX_CB_USER_DEFINE = 4,
    KX_CB_VITAL_SIGN = 5,
    KX_CB_DEMOGRAPHICS = 6,
    KX_CB_LPR = 7,
    KX_CB_OSD = 8,
    KX_CB_LDC = 9,
    KX_CB_ZF_MARK = 10,
    KX_CB_VCA_SRC_VIDEO = 11,
    KX_CB_VCA_STAMP = 12,
    KX_CB_VCA_ATTR = 13,
    KX_CB_PTZ = 15,
    KX_CB_LAW_CASE = 28,
    KX_CB_WATERMARK_VIDEO = 29,
    KX_CB_WATERMARK_USER = 30,
    KX_CB_POLICE_CLOTH = 31,
    KX_CB_VEST_CLOTH = 32,
    KX_CB_HMAC = 34,
    KX_CB_PTZ_POS = 35,
    KX_CB_CHECK_HMAC = 37,
    KX_CB_VCA_SRC_SIZE = 38,
    KX_CB_VCA_SRC_SIZE_ENABLE = 39,
    KX_CB_TRACK_STYLE = 40,
    KX_CB_WATERMARK_ADD = 42,
    KX_CB_VCA_TARGET_EX = 43,
    KX_CB_VCA_TARGET_NEW = 44,
};

// Stored lengths of the opaque records.
enum {
    KX_UD_USER_DEFINE_LEN = 64,
    KX_UD_VITAL_SIGN_LEN = 552,
    KX_UD_DEMOGRAPHICS_LEN = 536,
    KX_UD_OSD_LEN = 544,
    KX_UD_LDC_LEN = 136,
    KX_UD_ZF_MARK_LEN = 12,
    KX_UD_VCA_STAMP_LEN = 4,
    KX_UD_LPR_ENTRIES = 10,
    KX_UD_LPR_ENTRY_MAX = 120,
};

// --- Tables ---

// Information type -> block type for iFlag: 0xFFFF for 255, the type's own block type for 0 to 10 and
// 12 to 19, and 0xFED3 (absolute time) for every other value.
int GetUserDataFlag(int _iType);

// iEncode -> start patterns. Copies the old (F0) and the new (F1) pattern into the buffers that aren't
// null (7 bytes each suffice) and gives their length: 6 for 21 and 22, 7 for 23, 0 (nothing copied) for
// every other value. Shares only its name with the look-up above.
int GetUserDataFlag(int iEncode, char *pcOldFlag, char *pcNewFlag);

// The same look-up without copies: points *old_flag and *new_flag (either may be null) at the constant
// patterns of iEncode and gives their length, 6 or 7; 0 for an iEncode without patterns.
int ud_patterns(int iEncode, const uint8_t **old_flag, const uint8_t **new_flag);

// Whether the len bytes at p (6 or 7, all readable) are the pattern: compares of fixed size.
inline bool ud_is_pattern(const uint8_t *p, const uint8_t *pattern, int len) {
    return memcmp(p, pattern, 6) == 0 && (len == 6 || p[6] == pattern[6]);
}

// FindPosByFlag for a start pattern of len 6 or 7: the first position in the len_buf bytes at buf where
// the pattern stands whole, -1 for none.
inline int ud_find_pattern(const uint8_t *buf, int len_buf, const uint8_t *pattern, int len) {
    for (int i = 0; i + len <= len_buf; i++) {
        if (buf[i] == pattern[0] && ud_is_pattern(buf + i, pattern, len)) return i;
    }
    return -1;
}

// The block type's bit of iTypeMask: the mask with all other bits cleared; 0 when that bit is clear, the
// block type has no bit (0xFEF6, 0xFEF7 and unknown types), or the mask is negative.
int GetUDTypeByFlag(int iMask, int iBlockType);

// --- Bounded building blocks for the container walk ---

// Sums a run of size bytes at p: each byte adds to the size, and a byte of 255 continues the run. Reads at
// most max_bytes bytes (0 or below: no limit) and never more than avail. *consumed gets the bytes read.
int ud_read_size_run(const uint8_t *p, int avail, int max_bytes, int *consumed);

// RevertUserData with the source bounded: never reads src beyond src_len bytes and never writes dst
// beyond limit bytes. *size comes in as the stated size and goes out as the stream length (stated size
// plus the 03 bytes removed). 0 on success; -1 when the container runs past src_len (the frame is too
// short for its stated size), in which case *size says how far it got and the target is incomplete.
// room (at most limit) is how far dst may be written at all: bytes behind the stated size up to room
// may receive scratch, which lets the copy go on in whole blocks; -1 writes nothing behind the stated
// size (nor behind limit).
int ud_revert(const uint8_t *src, int src_len, uint8_t *dst, int *size, int limit, int room);

// Reads the block head at pos of a container of container_len bytes. false when the head itself doesn't
// fit; the caller still has to check that pos + 4 + usLen stays inside its limit.
inline bool ud_read_block_head(const uint8_t *container, int container_len, int pos,
                               TUserDataBlockHead *head) {
    if (container == nullptr || head == nullptr || pos < 0 || pos > container_len - KX_UD_BLOCK_HEAD_LEN) {
        return false;
    }
    head->usType = kx_rd16le(container + pos);
    head->usLen = kx_rd16le(container + pos + 2);
    return true;
}

// memcpy of n bytes (0 or more) of a payload into a record, through the C library's memcpy. Where the
// compiler sees a bound on n (a record's size) it would otherwise inline the copy as `rep movs`, whose
// start-up costs more than a whole copy of a few hundred bytes.
void ud_copy(void *dst, const void *src, int n);

// Copies dst_len bytes to dst; source bytes beyond src_len read as zeros. Nothing for dst_len <= 0.
void ud_copy_padded(void *dst, int dst_len, const void *src, int src_len);

// --- Decoders that stay inside the library ---

// Ends the calling decoder with an error record naming its argument when the payload is null.
#define KX_UD_NEED_PAYLOAD(arg)                \
    do {                                       \
        if ((arg) == nullptr) {                \
            KX_LOG_ERR("%s", #arg " == NULL"); \
            return;                            \
        }                                      \
    } while (0)

// The common body of the slot decoders, behind their payload check: when the output, the slot's pointer
// and a size above 0 are there, copies the smaller of len and size + head bytes to the slot and sets the
// size to the bytes copied, head included (head is 4 for data that carries its block head, else 0); then
// reports the whole block with cb_type.
void ud_decode_slot(const void *in, int len, tagUserDataOut *out, const _tagInnerFramePara *para, int cb_type,
                    int32_t tagUserDataOut::*size_field, void *tagUserDataOut::*ptr_field, int head);

// Fills an absolute-time record from seconds since 1970, in UTC, with a re-entrant conversion; values
// above 2^31 lie behind 2038.
void MakeAbsoluteTime(__S_AbsoluteTime *ptTime, unsigned int uiSeconds);

// 0xFEE2, type 15: reports the block and stores nothing; _bAll, the output and its size are not read.
// Logs the error "_pvInBuf == NULL" on a null payload.
void GetPtzData(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                const _tagInnerFramePara *_ptPara);
// 0xFEF8, type 35: slot decoder into iPtzPosSize and pPtzPos.
void GetPtzPosInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                   const _tagInnerFramePara *_ptPara);
// 0xFED8, type 11: a 16-bit count and up to 16 entries of 16 bytes into atSrcVideo from the first entry on,
// each marked valid. A null payload or output, or a count of 0, returns with no callback.
void GetVcaSrcVideo(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                    const _tagInnerFramePara *_ptPara);
// 0xFEDF in an old container, type 12: copies the smaller of iOutSize and 4 bytes (a shorter payload reads
// as zero-padded) to _pvOutBuf. Logs the error "_pvInBuf == NULL" on a null payload.
void GetVcaTimestamp(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                     const _tagInnerFramePara *_ptPara);
// 0xFEE0, type 13: slot decoder into iVcaAttrSize/pVcaAttr (selector 0, old containers and the single-frame
// analysis) or iVcaAttrNewSize/pVcaAttrNew (selector 1, new containers). Logs the error "_pUDData == NULL"
// on a null payload.
void GetVcaTargetAttr(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                      const _tagInnerFramePara *_ptPara, int iSelector);

// Notes for the analyses that call the decoders:
// - The slot decoders (GetHmacInfo, GetVcaTargetAttr, ...) read pointers out of a tagUserDataOut. A
//   tagUserDataAll has no slots, so an all-types run hands them a null output: they then store nothing and
//   only report the block.
// - The VCA decoders store only into fields that lie wholly inside iOutSize, so pass the slot's iVcaSize
//   (or the caller's output size) as it came; with _bAll true they store nothing and only report.
// - The copy of a new container's VCA time stamp to pVcaStampNew is ud_copy_padded with the smaller of
//   iVcaStampNewSize and KX_UD_VCA_STAMP_LEN, when that is above 0.

// --- The walk over a container, shared by the analyses ---

enum { KX_UD_FRAG_SLOTS = 10 };  // slots of TUserDataSplitState

// uiFrameNo of the frame header that para carries, 0 without one.
uint32_t ud_frame_no(const _tagInnerFramePara *para);

// Loads a container into the working buffer of KX_UD_NEW_MAX bytes: removes the emulation-prevention
// bytes from src (src_len bytes readable) for *size stated bytes, and zeroes the buffer behind them up to
// the stream length (at most the buffer) and at least over the header, so that every byte a walk up to
// the stream length reaches is defined. *size goes out as the stream length. false when the frame ends
// inside the container; *size then lies beyond src_len.
bool ud_load_container(const uint8_t *src, int src_len, uint8_t *work, int *size);

// One step of the walk over the blocks of a container in the working buffer, whose blocks must end
// within limit bytes (cut to the buffer). Reads the block head at *pos; when the block ends inside the
// limit, moves *pos behind it and gives its payload; else gives null, which ends the walk.
inline const uint8_t *ud_next_block(const uint8_t *work, int limit, int *pos, TUserDataBlockHead *head) {
    if (limit > KX_UD_NEW_MAX) limit = KX_UD_NEW_MAX;
    if (!ud_read_block_head(work, limit, *pos, head)) return nullptr;
    const int payload = *pos + KX_UD_BLOCK_HEAD_LEN;
    if (payload + head->usLen > limit) return nullptr;
    *pos = payload + head->usLen;
    return work + payload;
}

// The mask filter of the two-layout analysis: true when the block is to be handled, that is for type
// 255, for a mask of 0 or below, and for a block type whose bit is set in the mask.
bool ud_mask_takes(const _tagInnerFramePara *para, int usType);

// Hands one block of a container walked by the two-layout analysis to its decoder, into the slots of
// out: the dispatch of an old container, or with new_layout that of a new one. payload lies in the
// working buffer, 4 bytes behind its block head.
void ud_dispatch_slot_block(bool new_layout, const _tagInnerFramePara *para, const TUserDataBlockHead &head,
                            const uint8_t *payload, tagUserDataOut *out);

// The split scheme of old containers, for the container in work (stated bytes of it are real, at least
// the header defined) whose tag is tag and whose header is *hdr:
// - QZST: KX_UD_SPLIT_COMPLETE, nothing touched.
// - QZSS, QZSC: the fragment goes to the caller's split state; -106.
// - QZSE: the stored fragments and this last one are joined in work, *hdr becomes the first fragment's
//   header and *joined the joined size; KX_UD_SPLIT_JOINED.
// -105, with the state as it was, when there is no usable state (null, or iSplitStateSize below the
// record), the frame numbers are out of sequence, a fragment claims more data than its container holds,
// or the joined container would not fit the working buffer. The frame number comes from ud_frame_no.
enum { KX_UD_SPLIT_COMPLETE = 0, KX_UD_SPLIT_JOINED = 1 };
int ud_split_fragment(const _tagInnerFramePara *para, int tag, uint8_t *work, int stated,
                      TUserDataHeader *hdr, int *joined);
