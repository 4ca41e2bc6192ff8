// New user-data analysis: a container of the new layout (payload type F1, up to 10240 bytes), at the
// start of a frame's data or behind an old container. It joins nothing: all four tags are walked alike.
// Besides the blocks it reports where the frame goes on behind the user-data unit.
#include <string.h>

#include "log/log_internal.h"
#include "stream/userdata_internal.h"

extern "C" {

KX_API int InnerAnalyzeNewUserData(const _tagInnerFramePara *_pInParam, int _iOldUDLen, tagUserDataOut *_pOut,
                                   int _iOutSize) {
    (void)_iOutSize;  // every decoder here takes its limits from the slots
    if (_pInParam == nullptr || _pOut == nullptr) {
        KX_LOG_ERR("[InnerAnalyzeNewUserData] NULL == _pInParam || NULL == _pOut");
        return -101;
    }
    const _tagInnerFramePara *para = _pInParam;
    if (para->pucData == nullptr || _iOldUDLen < 0 || _iOldUDLen > para->iDataLen) {
        KX_LOG_ERR("[InnerAnalyzeNewUserData] OldUDLen(%d) > FrameLen(%d).", _iOldUDLen, para->iDataLen);
        return -101;
    }
    const uint8_t *unit = para->pucData + _iOldUDLen;
    const int left = para->iDataLen - _iOldUDLen;

    const uint8_t *pattern;
    const int plen = ud_patterns(para->iEncode, nullptr, &pattern);
    if (plen == 0) {
        KX_LOG_ERR("[InnerAnalyzeNewUserData] GetUserDataFlag failed, Encode=%d.", para->iEncode);
        return -105;
    }
    // No pattern here, or no room for one: the frame holds no new container.
    if (left < plen || !ud_is_pattern(unit, pattern, plen)) return 0;

    int size_bytes = 0;
    const int stated = ud_read_size_run(unit + plen, left - plen, 0, &size_bytes);
    if (stated >= left || stated < KX_UD_STATED_MIN || stated > KX_UD_NEW_MAX) {
        KX_LOG_ERR("[InnerAnalyzeNewUserData] iUserDataSize illegal, len=%d.", stated);
        return -105;
    }
    const int pos = plen + size_bytes;
    uint8_t work[KX_UD_NEW_MAX];
    int stream_len = stated;
    if (!ud_load_container(unit + pos, left - pos, work, &stream_len)) {
        // The stated size fits the frame, but not with the size bytes and emulation prevention.
        KX_LOG_ERR("[InnerAnalyzeNewUserData] iUserDataSize illegal, len=%d.", stated);
        return -105;
    }

    TUserDataHeader hdr;
    memset(&hdr, 0, sizeof(hdr));
    const int tag = GetUserdataFlagType(work, hdr);
    if (tag == KX_UD_TAG_BAD || hdr.uiDataLen > stream_len || hdr.uiDataLen > left) {
        KX_LOG_ERR("[InnerAnalyzeNewUserData] GetUserdataFlagType failed, UDLen=%d, HDFlag=%d, HDLen=%d.",
                   stream_len, tag, (int)hdr.uiDataLen);
        return -105;
    }

    // The frame goes on behind the container and its trailing byte; a unit cut off before its trailing
    // byte leaves nothing behind it.
    int rest = pos + stream_len + 1;
    if (rest > left) rest = left;
    _pOut->pucFrameRest = unit + rest;
    _pOut->iFrameRestLen = left - rest;

    // The watermark slot's size goes out with the 4-byte head counted, and its buffer holds the size
    // that came in plus 4: every watermark block of the frame is offered the capacity that the caller
    // gave, never the size that an earlier one left, so none writes past that buffer.
    const int32_t watermark_cap = _pOut->iWatermarkAddSize;
    TUserDataBlockHead head;
    int at = KX_UD_HEADER_LEN;
    for (int i = 0; i < hdr.usBlockCount; i++) {
        const uint8_t *payload = ud_next_block(work, stream_len, &at, &head);
        if (payload == nullptr) break;
        if (!ud_mask_takes(para, head.usType)) continue;
        if (head.usType == KX_BLK_WATERMARK_ADD) _pOut->iWatermarkAddSize = watermark_cap;
        ud_dispatch_slot_block(true, para, head, payload, _pOut);
    }
    DevCallbackFunc(KX_UD_CB_END, para, nullptr, 0);
    return 0;
}

}  // extern "C"
