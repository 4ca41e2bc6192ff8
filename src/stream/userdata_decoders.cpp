// Record decoders: absolute time, user-defined data, vital signs, demographics, licence plates, OSD text,
// LDC information, ZF mark, PTZ data and the slot decoders of tagUserDataOut. Each stores one block's
// payload in the caller's output and reports it through DevCallbackFunc. Whatever a block claims, writes
// stay inside the record (or the slot's stated capacity) and reads inside the payload's _iLen bytes.
#include <stddef.h>
#include <string.h>

#include "log/log_internal.h"
#include "platform/bytes.h"
#include "stream/userdata_internal.h"

static_assert(sizeof(__S_AbsoluteTime) == 16 && offsetof(__S_AbsoluteTime, uiSeconds) == 12,
              "absolute time: six 16-bit fields and the seconds");
static_assert(sizeof(tagUserDefineData) == 72, "user-defined data record is 72 bytes");
static_assert(sizeof(tagLprInfo) == 8 + KX_UD_LPR_ENTRIES * KX_UD_LPR_ENTRY_MAX, "plate record");
static_assert(offsetof(tagUserDataAll, tUserDefine) == 16 && offsetof(tagUserDataAll, aucVitalSign) == 88 &&
                  offsetof(tagUserDataAll, aucDemographics) == 640 &&
                  offsetof(tagUserDataAll, tLpr) == 1176 && offsetof(tagUserDataAll, bTimeValid) == 2384 &&
                  offsetof(tagUserDataAll, aucOsd1) == 2904 && offsetof(tagUserDataAll, aucLdc) == 3992 &&
                  offsetof(tagUserDataAll, aucOsd7) == 4672 && offsetof(tagUserDataAll, bOsd1Valid) == 5217 &&
                  offsetof(tagUserDataAll, aucZfMark) == 5222 &&
                  offsetof(tagUserDataAll, bZfMarkValid) == 5234 && sizeof(tagUserDataAll) == 5236,
              "all-types record layout");
static_assert(sizeof(void *) != 8 ||
                  (offsetof(tagUserDataOut, pOsd) == 8 && offsetof(tagUserDataOut, pUserDefine) == 152 &&
                   offsetof(tagUserDataOut, pucFrameRest) == 240 &&
                   offsetof(tagUserDataOut, iPoliceClothSize) == 252 &&
                   offsetof(tagUserDataOut, pWatermarkAdd) == 368 && sizeof(tagUserDataOut) == 376),
              "slot record layout");

namespace {

// What distinguishes one simple decoder of the first form from another.
struct OpaqueKind {
    int limit;         // bytes stored at most
    int cb_type;       // type number to the callback
    size_t all_field;  // offset of its field in tagUserDataAll
    size_t all_flag;   // offset of its valid flag there
};

inline int non_negative(int len) {
    return len < 0 ? 0 : len;
}

// Reads up to 4 bytes little-endian; missing high bytes count as zero.
uint32_t read_u32_padded(const void *p, int len) {
    if (len >= 4) return kx_rd32le(p);
    uint8_t b[4];
    ud_copy_padded(b, 4, p, len);
    return kx_rd32le(b);
}

// The first form: copy the payload, cut at the kind's limit, to the start of the record or to the kind's
// field of tagUserDataAll; then report it. The payload is not null.
void decode_opaque(const OpaqueKind &k, bool all, const void *in, void *out, int len,
                   const _tagInnerFramePara *para) {
    len = non_negative(len);
    if (out != nullptr) {
        if (len > k.limit) len = k.limit;
        uint8_t *base = static_cast<uint8_t *>(out);
        ud_copy(base + (all ? k.all_field : 0), in, len);
        if (all) base[k.all_flag] = 1;
    }
    DevCallbackFunc(k.cb_type, para, in, len);
}

}  // namespace

// The slot rule: the slot's size comes in as the capacity and goes out as the bytes stored, so a second
// block of the kind in one frame gets no more room than the first one left. Where the data carries a head
// of `head` bytes in front, the buffer holds size + head bytes: up to that many are stored, and the size
// goes out as the bytes stored, head included. A null output or slot pointer, or a size of 0 or below,
// stores nothing.
void ud_decode_slot(const void *in, int len, tagUserDataOut *out, const _tagInnerFramePara *para, int cb_type,
                    int32_t tagUserDataOut::*size_field, void *tagUserDataOut::*ptr_field, int head) {
    if (in == nullptr) return;
    len = non_negative(len);
    if (out != nullptr && ptr_field != nullptr && out->*ptr_field != nullptr && out->*size_field > 0) {
        long long cap = (long long)(out->*size_field) + head;
        int n = len < cap ? len : (int)cap;
        memcpy(out->*ptr_field, in, (size_t)n);
        out->*size_field = n;
    }
    DevCallbackFunc(cb_type, para, in, len);
}

void MakeAbsoluteTime(__S_AbsoluteTime *ptTime, unsigned int uiSeconds) {
    if (ptTime == nullptr) return;
    // UTC calendar fields of the unsigned seconds (so 2^31 and above lie behind 2038, not before 1970),
    // counted here rather than by gmtime_r, which takes the C library's time-zone lock on every call.
    // The date comes from the day number by the Euclidean affine functions of Neri and Schneider
    // ("Euclidean affine functions and their application to calendar algorithms", 2022): the count runs
    // in 400-year cycles from a March 1st, shifted 82 cycles forward so that everything stays unsigned,
    // with the leap day last in its year; three multiplications in a row instead of a chain of divisions.
    const uint32_t days = uiSeconds / 86400, secs = uiSeconds - days * 86400;
    enum : uint32_t { kShiftDays = 719468 + 146097 * 82, kShiftYears = 400 * 82 };
    const uint32_t n1 = 4 * (days + kShiftDays) + 3;
    const uint32_t century = n1 / 146097, day_of_century = n1 % 146097 / 4;
    const uint64_t p2 = 2939745ULL * (4 * day_of_century + 3);
    const uint32_t year_of_century = (uint32_t)(p2 >> 32), day_of_year = (uint32_t)p2 / 2939745 / 4;
    const uint32_t n3 = 2141 * day_of_year + 197913;  // month in the high half, day * 2141 in the low
    const uint32_t jan_feb = day_of_year >= 306 ? 1 : 0;
    ptTime->usYear = (uint16_t)(100 * century + year_of_century - kShiftYears + jan_feb);
    ptTime->usMonth = (uint16_t)((n3 >> 16) - 12 * jan_feb);
    ptTime->usDay = (uint16_t)((n3 & 0xFFFF) / 2141 + 1);
    ptTime->usHour = (uint16_t)(secs / 3600);
    ptTime->usMinute = (uint16_t)(secs / 60 % 60);
    ptTime->usSecond = (uint16_t)(secs % 60);
    ptTime->uiSeconds = uiSeconds;
}

void GetPtzData(bool _bAll, const void *_pvInBuf, int _iLen, void *_pvOutBuf, int iOutSize,
                const _tagInnerFramePara *_ptPara) {
    (void)_bAll, (void)_pvOutBuf, (void)iOutSize;
    KX_UD_NEED_PAYLOAD(_pvInBuf);
    DevCallbackFunc(KX_CB_PTZ, _ptPara, _pvInBuf, non_negative(_iLen));
}

void GetPtzPosInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                   const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pUDData);
    ud_decode_slot(_pUDData, _iLen, _pvOutBuf, _ptPara, KX_CB_PTZ_POS, &tagUserDataOut::iPtzPosSize,
                   &tagUserDataOut::pPtzPos, 0);
}

extern "C" {

KX_API void GetFrameAbsoluteTime(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                                 const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pvInBuf);
    _iLen = non_negative(_iLen);
    if (_pvOutBuf != nullptr) {
        if (_iLen > 4) _iLen = 4;
        // tAbsTime is the first field of tagUserDataAll: both shapes start at the same byte.
        MakeAbsoluteTime(static_cast<__S_AbsoluteTime *>(_pvOutBuf), read_u32_padded(_pvInBuf, _iLen));
        if (_bAll) static_cast<tagUserDataAll *>(_pvOutBuf)->bTimeValid = 1;
    }
    DevCallbackFunc(KX_CB_ABS_TIME, _ptPara, _pvInBuf, _iLen);
}

KX_API void GetUserDefineData(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                              const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pvInBuf);
    _iLen = non_negative(_iLen);
    if (_pvOutBuf != nullptr) {
        if (_iLen > KX_UD_USER_DEFINE_LEN) _iLen = KX_UD_USER_DEFINE_LEN;
        tagUserDefineData *rec = _bAll ? &static_cast<tagUserDataAll *>(_pvOutBuf)->tUserDefine
                                       : static_cast<tagUserDefineData *>(_pvOutBuf);
        rec->iSize = (int32_t)sizeof(tagUserDefineData);
        memcpy(rec->aucData, _pvInBuf, (size_t)_iLen);
        rec->iDataSize = _iLen;
        if (_bAll) static_cast<tagUserDataAll *>(_pvOutBuf)->bUserDefineValid = 1;
    }
    DevCallbackFunc(KX_CB_USER_DEFINE, _ptPara, _pvInBuf, _iLen);
}

KX_API void GetVitalSignData(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                             const _tagInnerFramePara *_ptPara) {
    static const OpaqueKind k = {KX_UD_VITAL_SIGN_LEN, KX_CB_VITAL_SIGN,
                                 offsetof(tagUserDataAll, aucVitalSign),
                                 offsetof(tagUserDataAll, bVitalSignValid)};
    KX_UD_NEED_PAYLOAD(_pvInBuf);
    decode_opaque(k, _bAll, _pvInBuf, _pvOutBuf, _iLen, _ptPara);
}

KX_API void GetDemographicsInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                                const _tagInnerFramePara *_ptPara) {
    static const OpaqueKind k = {KX_UD_DEMOGRAPHICS_LEN, KX_CB_DEMOGRAPHICS,
                                 offsetof(tagUserDataAll, aucDemographics),
                                 offsetof(tagUserDataAll, bDemographicsValid)};
    KX_UD_NEED_PAYLOAD(_pvInBuf);
    decode_opaque(k, _bAll, _pvInBuf, _pvOutBuf, _iLen, _ptPara);
}

KX_API void GetLdcInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                       const _tagInnerFramePara *_ptPara) {
    static const OpaqueKind k = {KX_UD_LDC_LEN, KX_CB_LDC, offsetof(tagUserDataAll, aucLdc),
                                 offsetof(tagUserDataAll, bLdcValid)};
    KX_UD_NEED_PAYLOAD(_pvInBuf);
    decode_opaque(k, _bAll, _pvInBuf, _pvOutBuf, _iLen, _ptPara);
}

KX_API void GetZFMarkInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                          const _tagInnerFramePara *_ptPara) {
    static const OpaqueKind k = {KX_UD_ZF_MARK_LEN, KX_CB_ZF_MARK, offsetof(tagUserDataAll, aucZfMark),
                                 offsetof(tagUserDataAll, bZfMarkValid)};
    KX_UD_NEED_PAYLOAD(_pvInBuf);
    decode_opaque(k, _bAll, _pvInBuf, _pvOutBuf, _iLen, _ptPara);
}

KX_API void GetOsdExInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                         const _tagInnerFramePara *_ptPara) {
    enum { kSubTypeText = 7, kTextLenAt = 28, kTextAt = 32 };
    KX_UD_NEED_PAYLOAD(_pvInBuf);
    _iLen = non_negative(_iLen);
    if (_pvOutBuf != nullptr) {
        if (_iLen > KX_UD_OSD_LEN) _iLen = KX_UD_OSD_LEN;
        if (!_bAll) {
            ud_copy(_pvOutBuf, _pvInBuf, _iLen);
        } else {
            tagUserDataAll *all = static_cast<tagUserDataAll *>(_pvOutBuf);
            const uint8_t *in = static_cast<const uint8_t *>(_pvInBuf);
            const struct {
                int sub_type;
                uint8_t *area;
                uint8_t *flag;
            } areas[] = {{1, all->aucOsd1, &all->bOsd1Valid},
                         {2, all->aucOsd2, &all->bOsd2Valid},
                         {4, all->aucOsd4, &all->bOsd4Valid},
                         {kSubTypeText, all->aucOsd7, &all->bOsd7Valid}};
            int sub_type = (int32_t)read_u32_padded(in, _iLen);
            for (const auto &a : areas) {
                if (a.sub_type != sub_type) continue;
                ud_copy(a.area, in, _iLen);
                *a.flag = 1;
                int text_len = 0;
                if (sub_type == kSubTypeText && _iLen > kTextLenAt) {
                    text_len = (int32_t)read_u32_padded(in + kTextLenAt, _iLen - kTextLenAt);
                }
                // The terminator stays inside the text area: a longer text is cut at its last byte.
                if (text_len > KX_UD_OSD_LEN - kTextAt - 1) text_len = KX_UD_OSD_LEN - kTextAt - 1;
                if (text_len > 0) a.area[kTextAt + text_len] = 0;
            }
        }
    }
    DevCallbackFunc(KX_CB_OSD, _ptPara, _pvInBuf, _iLen);
}

KX_API void GetLPRInfo(bool _bAll, const void *_pvInBuf, void *_pvOutBuf, int _iLen,
                       const _tagInnerFramePara *_ptPara) {
    enum { kEntriesAt = 4 };
    KX_UD_NEED_PAYLOAD(_pvInBuf);
    const uint8_t *in = static_cast<const uint8_t *>(_pvInBuf);
    _iLen = non_negative(_iLen);
    int num = (int32_t)read_u32_padded(in, _iLen);
    if (num <= 0) {
        KX_LOG_ERR("iNumOutputs <= 0");
        return;
    }
    // The block's length counts the 4 bytes of the count, yet plates start behind them.
    int step = _iLen / num;
    if (step == 0) {
        // More plates than bytes: every plate would be empty.
        KX_LOG_ERR("iNumOutputs(%d) > _iLen(%d)", num, _iLen);
        return;
    }
    if (_pvOutBuf != nullptr) {
        tagLprInfo *rec;
        if (_bAll) {
            tagUserDataAll *all = static_cast<tagUserDataAll *>(_pvOutBuf);
            all->bLprValid = 1;
            rec = &all->tLpr;
        } else {
            rec = static_cast<tagLprInfo *>(_pvOutBuf);
        }
        if (rec->iEntrySize <= 0) return;
        if (step > rec->iEntrySize) step = rec->iEntrySize;
        // At most 10 plates of at most 120 bytes have a place; iCount says how many were stored.
        int stored = num < KX_UD_LPR_ENTRIES ? num : KX_UD_LPR_ENTRIES;
        int copy = step < KX_UD_LPR_ENTRY_MAX ? step : KX_UD_LPR_ENTRY_MAX;
        rec->iCount = stored;
        for (int i = 0; i < stored; i++) {
            long long at = kEntriesAt + (long long)i * step;
            int avail = at < _iLen ? (int)(_iLen - at) : 0;
            ud_copy_padded(rec->atEntry[i], copy, avail > 0 ? in + at : nullptr, avail);
        }
    }
    for (int i = 0; i < num; i++) {
        long long at = kEntriesAt + (long long)i * step;
        if (at >= _iLen) break;  // the rest of the plates lie beyond the block
        int avail = (int)(_iLen - at);
        DevCallbackFunc(KX_CB_LPR, _ptPara, in + at, step < avail ? step : avail);
    }
}

KX_API int GetFrameTimeInfo(const unsigned char *_pucData, int _iLen, unsigned long _ulReserved,
                            unsigned int *_puiOut) {
    (void)_ulReserved;
    if (_pucData == nullptr || _puiOut == nullptr) return -1;
    if (_iLen == 4) memcpy(_puiOut, _pucData, 4);
    return 0;
}

KX_API void GetLawCaseData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                           const _tagInnerFramePara *_ptPara) {
    (void)_pvOutBuf;
    KX_UD_NEED_PAYLOAD(_pUDData);
    DevCallbackFunc(KX_CB_LAW_CASE, _ptPara, _pUDData, non_negative(_iLen));
}

KX_API void GetWaterMarkVideoData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                  const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pUDData);
    ud_decode_slot(_pUDData, _iLen, _pvOutBuf, _ptPara, KX_CB_WATERMARK_VIDEO,
                   &tagUserDataOut::iWaterMarkVideoSize, &tagUserDataOut::pWaterMarkVideo, 0);
}

KX_API void GetWaterMarkUserData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                 const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pUDData);
    ud_decode_slot(_pUDData, _iLen, _pvOutBuf, _ptPara, KX_CB_WATERMARK_USER,
                   &tagUserDataOut::iWaterMarkUserSize, &tagUserDataOut::pWaterMarkUser, 0);
}

KX_API void GetPoliceClothInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                               const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pUDData);
    ud_decode_slot(_pUDData, _iLen, _pvOutBuf, _ptPara, KX_CB_POLICE_CLOTH, &tagUserDataOut::iPoliceClothSize,
                   &tagUserDataOut::pPoliceCloth, 0);
}

KX_API void GetVestClothInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                             const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pUDData);
    ud_decode_slot(_pUDData, _iLen, _pvOutBuf, _ptPara, KX_CB_VEST_CLOTH, &tagUserDataOut::iVestClothSize,
                   &tagUserDataOut::pVestCloth, 0);
}

KX_API void GetHmacInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                        const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pUDData);
    ud_decode_slot(_pUDData, _iLen, _pvOutBuf, _ptPara, KX_CB_HMAC, &tagUserDataOut::iHmacSize,
                   &tagUserDataOut::pHmac, 0);
}

KX_API void GetCheckHmacInfo(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                             const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pUDData);
    ud_decode_slot(_pUDData, _iLen, _pvOutBuf, _ptPara, KX_CB_CHECK_HMAC, &tagUserDataOut::iCheckHmacSize,
                   &tagUserDataOut::pCheckHmac, 0);
}

KX_API void GetTargetTrackStyle(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                const _tagInnerFramePara *_ptPara) {
    KX_UD_NEED_PAYLOAD(_pUDData);
    ud_decode_slot(_pUDData, _iLen, _pvOutBuf, _ptPara, KX_CB_TRACK_STYLE, &tagUserDataOut::iTrackStyleSize,
                   &tagUserDataOut::pTrackStyle, 0);
}

KX_API void GetWatermarkAddData(const void *_pUDData, int _iLen, tagUserDataOut *_pvOutBuf,
                                const _tagInnerFramePara *_ptPara) {
    // The data comes with its 4-byte block head in front: the buffer holds the slot's size plus 4 bytes,
    // and the size goes out as the bytes stored, head included.
    KX_UD_NEED_PAYLOAD(_pUDData);
    ud_decode_slot(_pUDData, _iLen, _pvOutBuf, _ptPara, KX_CB_WATERMARK_ADD,
                   &tagUserDataOut::iWatermarkAddSize, &tagUserDataOut::pWatermarkAdd, KX_UD_BLOCK_HEAD_LEN);
}

}  // extern "C"
