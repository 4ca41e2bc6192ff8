// VCA decoders: the targets that the device's video content analysis sees, with their rectangles, and
// the source video it worked on. Target rectangles come in ten-thousandths of the picture and are
// rescaled to a 176 x 144 grid. The output is a tagVcaTargetGet of iOutSize bytes: a decoder writes only
// fields that lie wholly inside iOutSize, and nothing into an all-types record, which has no VCA area.
#include <stddef.h>
#include <string.h>

#include "platform/bytes.h"
#include "stream/userdata_internal.h"

static_assert(sizeof(TVcaTarget) == 16 && sizeof(TVcaTargetRaw) == 20, "target entries");
static_assert(offsetof(tagVcaTargetGet, atTarget) == 2 &&
                  offsetof(tagVcaTargetGet, usTargetNewCount) == 514 &&
                  offsetof(tagVcaTargetGet, atTargetNew) == 516 &&
                  offsetof(tagVcaTargetGet, iRawLen) == 2564 && offsetof(tagVcaTargetGet, aucRaw) == 2568 &&
                  offsetof(tagVcaTargetGet, atSrcVideo) == 3592 &&
                  offsetof(tagVcaTargetGet, iSrcVideoWidth) == 4232 &&
                  offsetof(tagVcaTargetGet, atTargetRaw) == 4244 &&
                  offsetof(tagVcaTargetGet, atTargetNewRaw) == 4884 &&
                  offsetof(tagVcaTargetGet, iSrcVideoSizeEnable) == 7444 && sizeof(tagVcaTargetGet) == 7448,
              "VCA record layout");

namespace {

enum {
    kTargetLen = 16,                         // a target of 0xFED2 and an entry of 0xFED8: eight 16-bit words
    kRecordLen = 18,                         // a target record of 0xFEE3: its length word and eight words
    kListMax = 16,                           // entries read from one 0xFED2 or 0xFED8 block
    kListBytes = 2 + kListMax * kTargetLen,  // 258
    kRawMax = 1024,
    kGridWidth = 176,
    kGridHeight = 144,
    kCoordUnit = 10000,
};

// End of the bytes of tagVcaTargetGet that each kind of store touches.
constexpr int kTargetsEnd = offsetof(tagVcaTargetGet, atTarget) + kListMax * sizeof(TVcaTarget);
constexpr int kRawAt = offsetof(tagVcaTargetGet, aucRaw);
constexpr int kSrcVideoEnd = offsetof(tagVcaTargetGet, atSrcVideo) + kListMax * sizeof(TVcaTargetRaw);
constexpr int kSrcSizeEnd = offsetof(tagVcaTargetGet, iSrcVideoSizeValid) + sizeof(int32_t);
constexpr int kExEnd =
    offsetof(tagVcaTargetGet, atTargetRaw) + sizeof(((tagVcaTargetGet *)nullptr)->atTargetRaw);
constexpr int kNewEnd =
    offsetof(tagVcaTargetGet, atTargetNewRaw) + sizeof(((tagVcaTargetGet *)nullptr)->atTargetNewRaw);
constexpr int kEnableEnd = sizeof(tagVcaTargetGet);

// The record to store into, or null when there is none, it is an all-types record, or the bytes up to
// `end` don't fit into iOutSize.
inline tagVcaTargetGet *vca_record(bool all, void *out, int out_size, int end) {
    return (!all && out != nullptr && out_size >= end) ? static_cast<tagVcaTargetGet *>(out) : nullptr;
}

inline void read_words(uint16_t *words, const uint8_t *p) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    memcpy(words, p, 8 * sizeof(uint16_t));  // the words stand in the block as the host holds them
#else
    for (int w = 0; w < 8; w++) words[w] = kx_rd16le(p + 2 * w);
#endif
}

// Rescales the four coordinates from ten-thousandths to the grid; the other words stay.
inline void scale_words(uint16_t *words) {
    for (int w = 0; w < 4; w++) {
        uint32_t span = (w % 2 == 0) ? kGridWidth : kGridHeight;
        words[w] = (uint16_t)((uint32_t)words[w] * span / kCoordUnit);
    }
}

// 0xFEE3 target records: each appends one scaled and one unscaled entry under the same index until the
// block, the per-block limit or the table runs out. rec is null when nothing is to be stored.
void decode_target_records(bool is_new, const void *in, int len, tagVcaTargetGet *rec,
                           const _tagInnerFramePara *para) {
    enum { kOldRead = 16 * kRecordLen, kNewRead = 128 * kRecordLen };
    const int read_bytes = is_new ? kNewRead : kOldRead;
    const int per_block = is_new ? 128 : 16;
    uint8_t head[2];
    ud_copy_padded(head, 2, in, len);
    int record_len = kx_rd16le(head);
    if (record_len == 0) return;
    int records = len / record_len;  // records stand 18 bytes apart whatever their length word says
    if (rec != nullptr) {
        uint8_t local[kNewRead];
        ud_copy_padded(local, read_bytes, in, len);
        uint16_t &count = is_new ? rec->usTargetNewCount : rec->usTargetCount;
        TVcaTarget *scaled = is_new ? rec->atTargetNew : rec->atTarget;
        TVcaTargetRaw *raw = is_new ? rec->atTargetNewRaw : rec->atTargetRaw;
        const int limit = is_new ? 128 : 32;
        for (int i = 0; i < records && i < per_block && count < limit; i++) {
            int n = count++;
            read_words(raw[n].ausWord, local + i * kRecordLen + 2);
            raw[n].iValid = 1;
            memcpy(scaled[n].ausWord, raw[n].ausWord, sizeof(scaled[n].ausWord));
            scale_words(scaled[n].ausWord);
        }
    }
    DevCallbackFunc(is_new ? KX_CB_VCA_TARGET_NEW : KX_CB_VCA_TARGET_EX, para, in, len);
}

}  // namespace

void GetVcaSrcVideo(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                    const _tagInnerFramePara *_ptPara) {
    if (_pvInBuf == nullptr || _pvOutBuf == nullptr) return;
    if (_iLen < 0) _iLen = 0;
    uint8_t local[kListBytes];
    ud_copy_padded(local, kListBytes, _pvInBuf, _iLen);
    int count = kx_rd16le(local);
    if (count == 0) return;
    if (tagVcaTargetGet *rec = vca_record(_bAll, _pvOutBuf, iOutSize, kSrcVideoEnd)) {
        for (int i = 0; i < count && i < kListMax; i++) {
            read_words(rec->atSrcVideo[i].ausWord, local + 2 + i * kTargetLen);
            rec->atSrcVideo[i].iValid = 1;
        }
    }
    DevCallbackFunc(KX_CB_VCA_SRC_VIDEO, _ptPara, _pvInBuf, _iLen);
}

void GetVcaTimestamp(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                     const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pvInBuf);
    if (_iLen < 0) _iLen = 0;
    if (!_bAll && _pvOutBuf != nullptr && iOutSize > 0) {
        ud_copy_padded(_pvOutBuf, iOutSize < KX_UD_VCA_STAMP_LEN ? iOutSize : KX_UD_VCA_STAMP_LEN, _pvInBuf,
                       _iLen);
    }
    DevCallbackFunc(KX_CB_VCA_STAMP, _ptPara, _pvInBuf, _iLen);
}

void GetVcaTargetAttr(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                      const _tagInnerFramePara *_ptPara, int iSelector) {
    KX_UD_NEED_PAYLOAD(_pUDData);
    // Selector 0 is the slot of old containers and of the single-frame analysis, 1 that of new containers;
    // any other selector has no slot.
    bool old_slot = iSelector == 0;
    ud_decode_slot(_pUDData, _iLen, (iSelector == 0 || iSelector == 1) ? _pvOutBuf : nullptr, _ptPara,
                   KX_CB_VCA_ATTR,
                   old_slot ? &tagUserDataOut::iVcaAttrSize : &tagUserDataOut::iVcaAttrNewSize,
                   old_slot ? &tagUserDataOut::pVcaAttr : &tagUserDataOut::pVcaAttrNew, 0);
}

extern "C" {

KX_API void GetVcaTargetnfo(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                            const _tagInnerFramePara *_ptPara) {
    if (_pvInBuf == nullptr) return;
    if (_iLen < 0) _iLen = 0;
    if (_pvOutBuf != nullptr) {
        if (tagVcaTargetGet *rec = vca_record(_bAll, _pvOutBuf, iOutSize, kTargetsEnd)) {
            // The list is read in place when the block holds it whole, else from a zero-padded copy.
            const uint8_t *list = static_cast<const uint8_t *>(_pvInBuf);
            uint8_t local[kListBytes];
            int count = _iLen >= 2 ? kx_rd16le(list) : 0;
            if (count > kListMax) count = kListMax;
            if (_iLen < 2 + count * kTargetLen) {
                ud_copy_padded(local, kListBytes, _pvInBuf, _iLen);
                list = local;
            }
            // Replaces the count; entries behind it stay. Coordinates stay as the block has them.
            rec->usTargetCount = (uint16_t)count;
            for (int i = 0; i < count; i++) read_words(rec->atTarget[i].ausWord, list + 2 + i * kTargetLen);
        }
        if (tagVcaTargetGet *rec = vca_record(_bAll, _pvOutBuf, iOutSize, kRawAt)) {
            int n = _iLen < kRawMax ? _iLen : kRawMax;
            if (n > iOutSize - kRawAt) n = iOutSize - kRawAt;  // a record cut short inside aucRaw
            rec->iRawLen = n;
            ud_copy(rec->aucRaw, _pvInBuf, n);
        }
    }
    DevCallbackFunc(KX_CB_VCA_TARGET, _ptPara, _pvInBuf, _iLen);
}

KX_API void GetVcaTargetnfoEx(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                              const _tagInnerFramePara *_ptPara) {
    if (_pvInBuf == nullptr || _pvOutBuf == nullptr) return;
    decode_target_records(false, _pvInBuf, _iLen < 0 ? 0 : _iLen,
                          vca_record(_bAll, _pvOutBuf, iOutSize, kExEnd), _ptPara);
}

KX_API void GetVcaTargetnfoNew(const void *_pUDData, int _iLen, tagVcaTargetGet *_pvOutBuf, int iOutSize,
                               const _tagInnerFramePara *_ptPara) {
    if (_pUDData == nullptr || _pvOutBuf == nullptr) return;
    decode_target_records(true, _pUDData, _iLen < 0 ? 0 : _iLen,
                          vca_record(false, _pvOutBuf, iOutSize, kNewEnd), _ptPara);
}

KX_API void GetVcaSrcVideoSize(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                               const _tagInnerFramePara *_ptPara) {
    if (_pvInBuf == nullptr || _pvOutBuf == nullptr) return;
    if (_iLen < 0) _iLen = 0;
    uint8_t pair[8];
    ud_copy_padded(pair, 8, _pvInBuf, _iLen);
    int32_t width = (int32_t)kx_rd32le(pair);
    int32_t height = (int32_t)kx_rd32le(pair + 4);
    tagVcaTargetGet *rec = vca_record(_bAll, _pvOutBuf, iOutSize, kSrcSizeEnd);
    if (rec != nullptr && width > 0 && height > 0) {
        rec->iSrcVideoWidth = width;
        rec->iSrcVideoHeight = height;
        rec->iSrcVideoSizeValid = 1;
    }
    DevCallbackFunc(KX_CB_VCA_SRC_SIZE, _ptPara, _pvInBuf, _iLen);
}

KX_API void GetVcaSrcVideoSizeEnable(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf,
                                     int iOutSize, const _tagInnerFramePara *_ptPara) {
    if (_pvInBuf == nullptr || _pvOutBuf == nullptr) return;
    if (tagVcaTargetGet *rec = vca_record(_bAll, _pvOutBuf, iOutSize, kEnableEnd))
        rec->iSrcVideoSizeEnable = 1;
    DevCallbackFunc(KX_CB_VCA_SRC_SIZE_ENABLE, _ptPara, _pvInBuf, _iLen < 0 ? 0 : _iLen);
}

}  // extern "C"
