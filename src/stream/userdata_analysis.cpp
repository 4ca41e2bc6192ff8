// The user-data calls: SA_GetUserDataInfo and SA_GetUserDataInfoEx validate a frame and choose the
// analysis; InnerAnalyzeUserData runs the two-layout analysis (an old container, a new one behind it, or
// a new one alone, into the slots of tagUserDataOut); AnalyzeUserDataInOneFrame runs the single-frame
// analysis (an old container near the start of the frame, one information type or all of them, into the
// record of that type). Working memory is on the stack; nothing is allocated.
#include <string.h>

#include "log/log_internal.h"
#include "stream/frame_header.h"
#include "stream/userdata_internal.h"

static_assert(sizeof(void *) != 8 || sizeof(tagUserDataInfoPara) == 72, "input record is 72 bytes");

namespace {

enum { kSearchSpan = 64 };  // the single-frame analysis looks for its pattern in these first bytes

// The output handed to a decoder of the single-frame analysis: the caller's record when it holds the
// decoder's record (need bytes; the whole tagUserDataAll in an all-types run), else none, so that the
// decoder only reports.
inline void *record(void *out, int out_size, bool all, size_t need) {
    if (out == nullptr || out_size < 0) return nullptr;
    return (size_t)out_size >= (all ? sizeof(tagUserDataAll) : need) ? out : nullptr;
}

// The dispatch of the single-frame analysis; -105 for the block types that it has no answer for.
int dispatch_one(const _tagInnerFramePara *para, bool all, const TUserDataBlockHead &head,
                 const uint8_t *payload, void *out, int out_size) {
    const int len = head.usLen;
    // The slot decoders read pointers out of a tagUserDataOut; an all-types record has no slots.
    tagUserDataOut *slots =
        all ? nullptr : static_cast<tagUserDataOut *>(record(out, out_size, false, sizeof(tagUserDataOut)));
    switch (head.usType) {
        case KX_BLK_USER_DEFINE:
            GetUserDefineData(all, payload, record(out, out_size, all, sizeof(tagUserDefineData)), len, para);
            break;
        case KX_BLK_FED1:
        case KX_BLK_FED4:
            return -105;
        case KX_BLK_VCA_TARGET:
            GetVcaTargetnfo(all, payload, len, out, out_size, para);
            break;
        case KX_BLK_ABS_TIME:
            GetFrameAbsoluteTime(all, payload, record(out, out_size, all, sizeof(__S_AbsoluteTime)), len,
                                 para);
            break;
        case KX_BLK_LPR:
            GetLPRInfo(all, payload, record(out, out_size, all, sizeof(tagLprInfo)), len, para);
            break;
        case KX_BLK_VCA_SRC_SIZE:
            GetVcaSrcVideoSize(all, payload, len, out, out_size, para);
            break;
        case KX_BLK_VCA_SRC_VIDEO:
            GetVcaSrcVideo(all, payload, len, out, out_size, para);
            break;
        case KX_BLK_DEMOGRAPHICS:
            GetDemographicsInfo(all, payload, record(out, out_size, all, KX_UD_DEMOGRAPHICS_LEN), len, para);
            break;
        case KX_BLK_VITAL_SIGN:
            GetVitalSignData(all, payload, record(out, out_size, all, KX_UD_VITAL_SIGN_LEN), len, para);
            break;
        case KX_BLK_OSD:
            GetOsdExInfo(all, payload, record(out, out_size, all, KX_UD_OSD_LEN), len, para);
            break;
        case KX_BLK_LDC:
            GetLdcInfo(all, payload, record(out, out_size, all, KX_UD_LDC_LEN), len, para);
            break;
        case KX_BLK_ZF_MARK:
            GetZFMarkInfo(all, payload, record(out, out_size, all, KX_UD_ZF_MARK_LEN), len, para);
            break;
        case KX_BLK_VCA_STAMP:
            GetVcaTimestamp(all, payload, len, out, out_size, para);
            break;
        case KX_BLK_VCA_ATTR:
            GetVcaTargetAttr(payload, len, slots, para, 0);
            break;
        case KX_BLK_PTZ:
            GetPtzData(all, payload, len, out, out_size, para);
            break;
        case KX_BLK_VCA_TARGET_EX:
            GetVcaTargetnfoEx(all, payload, len, out, out_size, para);
            break;
        case KX_BLK_HMAC:
            GetHmacInfo(payload, len, slots, para);
            break;
        case KX_BLK_VCA_SRC_SIZE_ENABLE:
            GetVcaSrcVideoSizeEnable(all, payload, len, out, out_size, para);
            break;
        default:
            DevCallbackFunc(head.usType, para, payload, len);
            break;
    }
    return 0;
}

// Whether the single-frame analysis takes a block: the type asked for (a query for VCA targets also
// takes their record form), or every block in an all-types run.
inline bool one_frame_takes(int flag, int usType) {
    return flag == KX_UD_FLAG_ALL || flag == usType ||
           (flag == KX_BLK_VCA_TARGET && usType == KX_BLK_VCA_TARGET_EX);
}

}  // namespace

extern "C" {

KX_API int InnerAnalyzeUserData(const _tagInnerFramePara *_pInParam, tagUserDataOut *_pOut, int _iOutSize) {
    if (_pInParam == nullptr || _pOut == nullptr) {
        KX_LOG_ERR("[InnerAnalyzeUserData] NULL == _pInParam || NULL == _pOut");
        return -101;
    }
    const _tagInnerFramePara *para = _pInParam;
    if (para->iEncode == KX_ENCODE_NONE) return 0;
    const uint8_t *old_pattern, *new_pattern;
    const int plen = ud_patterns(para->iEncode, &old_pattern, &new_pattern);
    if (plen == 0) {
        KX_LOG_ERR("[InnerAnalyzeUserData] GetUserDataFlag failed, Encode=%d.", para->iEncode);
        return -105;
    }
    const uint8_t *data = para->pucData;
    const int len = para->iDataLen;
    if (data == nullptr) return -101;
    // The data must begin with one of the two patterns.
    if (len < plen) return -105;
    if (!ud_is_pattern(data, old_pattern, plen)) {
        if (ud_is_pattern(data, new_pattern, plen)) return InnerAnalyzeNewUserData(para, 0, _pOut, _iOutSize);
        return -105;
    }

    int size_bytes = 0;
    const int stated = ud_read_size_run(data + plen, len - plen, KX_UD_OLD_SIZE_BYTES, &size_bytes);
    if (stated > KX_UD_OLD_MAX || stated < KX_UD_STATED_MIN) {
        KX_LOG_ERR("[InnerAnalyzeUserData] iUserDataSize old, len=%d.", stated);
        return -105;
    }
    const int pos = plen + size_bytes;
    int size = stated;
    const int rc = InnerAnalyzeOldUserData(para, pos, size, _pOut, _iOutSize);
    // A new container may follow behind the old one's stream bytes and its trailing byte, whatever the
    // old analysis gave; its own result only reaches the log. Beyond the data nothing can stand.
    const long long next = (long long)pos + size + 1;
    if (next <= len) InnerAnalyzeNewUserData(para, (int)next, _pOut, _iOutSize);
    return rc;
}

KX_API int AnalyzeUserDataInOneFrame(const _tagInnerFramePara *_ptPara, const unsigned char *_pucData,
                                     int _iDataLen, void *_pOut, int _iOutSize) {
    if (_ptPara == nullptr) {
        KX_LOG_ERR("[AnalyzeUserDataInOneFrame] _ptPara == NULL");
        return -101;
    }
    const int encode = _ptPara->iEncode;
    if (encode != KX_ENCODE_H264 && encode != KX_ENCODE_H264_ALT && encode != KX_ENCODE_H265) return -105;
    const uint8_t *pattern;
    const int plen = ud_patterns(encode, &pattern, nullptr);
    if (_pucData == nullptr || _iDataLen < plen) return 0;
    const int found =
        ud_find_pattern(_pucData, _iDataLen < kSearchSpan ? _iDataLen : kSearchSpan, pattern, plen);
    if (found < 0) return 0;

    int pos = found + plen;
    int size_bytes = 0;
    int size = ud_read_size_run(_pucData + pos, _iDataLen - pos, KX_UD_OLD_SIZE_BYTES, &size_bytes);
    if (size > KX_UD_OLD_MAX || size < KX_UD_STATED_MIN) return -105;
    pos += size_bytes;
    uint8_t work[KX_UD_NEW_MAX];
    int stream_len = size;
    if (!ud_load_container(_pucData + pos, _iDataLen - pos, work, &stream_len)) return -105;

    TUserDataHeader hdr;
    memset(&hdr, 0, sizeof(hdr));
    const int tag = GetUserdataFlagType(work, hdr);
    if (tag == KX_UD_TAG_BAD) return -105;
    int joined = 0;
    const int split = ud_split_fragment(_ptPara, tag, work, size, &hdr, &joined);
    if (split < 0) return split;
    if (split == KX_UD_SPLIT_JOINED) size = joined;
    if (size != KX_UD_OLD_MAX && (int)hdr.uiDataLen + KX_UD_HEADER_LEN != size) {
        KX_LOG_ERR("[AnalyzeUserDataInOneFrame] Header.uiDataLen=%d, iUserDataSize=%d.", (int)hdr.uiDataLen,
                   size);
        return -105;
    }

    // The rest of the frame behind the unit is not reported here: tagUserDataAll has no field for it.
    const bool all = _ptPara->iFlag == KX_UD_FLAG_ALL;
    int rc = 0;
    TUserDataBlockHead head;
    int at = KX_UD_HEADER_LEN;
    for (int i = 0; i < hdr.usBlockCount; i++) {
        const uint8_t *payload = ud_next_block(work, size, &at, &head);
        if (payload == nullptr) break;
        if (!one_frame_takes(_ptPara->iFlag, head.usType)) continue;
        rc = dispatch_one(_ptPara, all, head, payload, _pOut, _iOutSize);  // the last block taken decides
    }
    DevCallbackFunc(KX_UD_CB_END, _ptPara, nullptr, 0);
    return rc;
}

KX_API int SA_GetUserDataInfoEx(const tagUserDataInfoPara *pInParam, int _iInParamSize, void *_pvOutBuf,
                                int _iOutBufSize) {
    if (pInParam == nullptr) {
        KX_LOG_ERR("pInParam == NULL");
        return -101;
    }
    // A shorter record counts as zeros behind its end.
    tagUserDataInfoPara in;
    if (_iInParamSize >= (int)sizeof(in)) {
        in = *pInParam;  // the whole record in fixed moves
    } else {
        memset(&in, 0, sizeof(in));
        if (_iInParamSize > 0) memcpy(&in, pInParam, (size_t)_iInParamSize);
    }
    if (in.iFrameLen <= 0) {
        KX_LOG_ERR("_iFrameLen <= 0");
        return -104;
    }
    if (in.pucFrameBuf == nullptr) {
        KX_LOG_ERR("pFrmHeader == NULL");
        return -102;
    }
    // A buffer too short for the header holds no valid header; it is never read past its end.
    const __S_FrameHeader *header = reinterpret_cast<const __S_FrameHeader *>(in.pucFrameBuf);
    if (in.iFrameLen < KX_FRAME_HEADER_LEN || !IsValidFrameHeader(header)) {
        KX_LOG_ERR("!IsValidFrameHeader");
        return -102;
    }
    if (in.iType != KX_UD_TYPE_ALL &&
        (in.iType < GET_USERDATA_INFO_MIN || in.iType > GET_USERDATA_INFO_MAX)) {
        KX_LOG_ERR("_iType < GET_USERDATA_INFO_MIN || _iType > GET_USERDATA_INFO_MAX");
        return -100;
    }
    int frame_len = in.iFrameLen;
    if ((uint32_t)frame_len > fh_frame_len(header)) frame_len = (int)fh_frame_len(header);

    _tagInnerFramePara para;
    memset(&para, 0, sizeof(para));
    para.iSize = (int32_t)sizeof(para);
    para.iEncode = in.iEncode;
    para.iFlag = GetUserDataFlag(in.iType);
    para.iCbHandle = in.iCbHandle;
    para.ptFrmHeader = header;
    para.pfnUserDataCb = in.pfnUserDataCb;
    para.pvCbUser = in.pvCbUser;
    para.iSplitStateSize = in.iSplitStateSize;
    para.pvSplitState = in.pvSplitState;
    para.pucData = in.pucFrameBuf + KX_FRAME_HEADER_LEN;
    para.iDataLen = frame_len - KX_FRAME_HEADER_LEN;
    para.iTypeMask = in.iTypeMask;
    if (para.iTypeMask > 0) {
        return InnerAnalyzeUserData(&para, static_cast<tagUserDataOut *>(_pvOutBuf), _iOutBufSize);
    }
    return AnalyzeUserDataInOneFrame(&para, para.pucData, para.iDataLen, _pvOutBuf, _iOutBufSize);
}

KX_API int SA_GetUserDataInfo(int _iType, const unsigned char *_pucFrameBuf, int _iFrameLen, void *_pvOutBuf,
                              int _iOutBufSize) {
    if (_pucFrameBuf == nullptr || _pvOutBuf == nullptr) {
        KX_LOG_ERR("_pucFrameBuf == NULL || _pvOutBuf == NULL");
        return -101;
    }
    tagUserDataInfoPara in;
    memset(&in, 0, sizeof(in));
    in.iSize = (int32_t)sizeof(in);
    in.iType = _iType;
    in.pucFrameBuf = _pucFrameBuf;
    in.iFrameLen = _iFrameLen;
    in.iEncode = KX_ENCODE_H264;
    return SA_GetUserDataInfoEx(&in, (int)sizeof(in), _pvOutBuf, _iOutBufSize);
}

}  // extern "C"
