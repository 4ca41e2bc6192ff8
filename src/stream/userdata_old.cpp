// Old user-data analysis: a container of the old layout (payload type F0, at most 1024 bytes in one
// frame) in the two-layout analysis, and the scheme by which a device splits a larger container over
// consecutive frames - a first fragment, further fragments, a last one - which is joined in the caller's
// TUserDataSplitState. The single-frame analysis follows the same scheme.
#include <string.h>

#include "log/log_internal.h"
#include "stream/userdata_internal.h"

static_assert(sizeof(TUserDataSplitState) ==
                  12 + KX_UD_FRAG_SLOTS * sizeof(int32_t) + KX_UD_FRAG_SLOTS * KX_UD_OLD_MAX,
              "split state: frame numbers, count, slot lengths and slots");

namespace {

// The caller's split state, or null when none is given or its stated size can't hold the record.
TUserDataSplitState *split_state(const _tagInnerFramePara *para) {
    if (para->pvSplitState == nullptr || para->iSplitStateSize < (int)sizeof(TUserDataSplitState)) {
        return nullptr;
    }
    return static_cast<TUserDataSplitState *>(para->pvSplitState);
}

// A slot length from the state, which the caller holds between frames: never outside a slot.
inline int slot_len(int32_t n) {
    return n < 0 ? 0 : (n > KX_UD_OLD_MAX ? KX_UD_OLD_MAX : n);
}

// The data behind the header of the fragment in work, when the container really holds it: a fragment's
// uiDataLen is not trusted beyond its own stated size. -1 when it claims more.
inline int fragment_data_len(const TUserDataHeader &hdr, int stated) {
    return (int)hdr.uiDataLen + KX_UD_HEADER_LEN <= stated ? (int)hdr.uiDataLen : -1;
}

// First fragment: a new frame number starts the state afresh; the fragment goes whole into slot 0.
int store_first(TUserDataSplitState *st, uint32_t n, const uint8_t *work, int stated) {
    if (n != st->uiFirstFrameNo) memset(st, 0, sizeof(*st));
    if (st->uiFirstFrameNo == 0) {
        st->uiFirstFrameNo = n;
        st->uiLastFrameNo = n;
    }
    st->iFragCount = 1;
    st->uiLastFrameNo = n;
    const int len = slot_len(stated);
    memcpy(st->aucFrag[0], work, (size_t)len);
    st->aiFragLen[0] = len;
    return -106;
}

// Further fragment: it must follow the latest one directly and lie within the ten slots.
int store_further(TUserDataSplitState *st, uint32_t n, const uint8_t *work, int stated,
                  const TUserDataHeader &hdr) {
    const int32_t d = (int32_t)(n - st->uiFirstFrameNo);
    if (d < 0 || d >= KX_UD_FRAG_SLOTS || (int32_t)(n - st->uiLastFrameNo) != 1) return -105;
    const int len = fragment_data_len(hdr, stated);
    if (len < 0) return -105;
    st->uiLastFrameNo = n;
    st->iFragCount = hdr.usBlockCount + 1;  // usBlockCount is the fragment's index here
    memcpy(st->aucFrag[d], work + KX_UD_HEADER_LEN, (size_t)len);
    st->aiFragLen[d] = len;
    return -106;
}

// Last fragment: the slots in order, then its own data, form one container under the first fragment's
// header. The state stays as it is.
int join_last(const TUserDataSplitState *st, uint8_t *work, int stated, TUserDataHeader *hdr, int *joined) {
    const int last = fragment_data_len(*hdr, stated);
    if (last < 0) return -105;
    int count = st->iFragCount < 0 ? 0 : st->iFragCount;
    if (count > KX_UD_FRAG_SLOTS) count = KX_UD_FRAG_SLOTS;
    int total = last;
    for (int i = 0; i < count; i++) total += slot_len(st->aiFragLen[i]);
    if (total > KX_UD_NEW_MAX) return -105;  // ten full slots and a full last fragment don't fit

    uint8_t scratch[KX_UD_OLD_MAX];
    memcpy(scratch, work + KX_UD_HEADER_LEN, (size_t)last);
    int pos = 0;
    for (int i = 0; i < count; i++) {
        const int len = slot_len(st->aiFragLen[i]);
        memcpy(work + pos, st->aucFrag[i], (size_t)len);
        pos += len;
    }
    memcpy(work + pos, scratch, (size_t)last);
    pos += last;
    if (pos < KX_UD_HEADER_LEN) memset(work + pos, 0, (size_t)(KX_UD_HEADER_LEN - pos));
    GetUserdataFlagType(work, *hdr);
    *joined = pos;
    return KX_UD_SPLIT_JOINED;
}

}  // namespace

int ud_split_fragment(const _tagInnerFramePara *para, int tag, uint8_t *work, int stated,
                      TUserDataHeader *hdr, int *joined) {
    if (tag == KX_UD_TAG_QZST) return KX_UD_SPLIT_COMPLETE;
    TUserDataSplitState *st = split_state(para);
    if (st == nullptr) return -105;
    const uint32_t n = ud_frame_no(para);
    switch (tag) {
        case KX_UD_TAG_QZSS:
            return store_first(st, n, work, stated);
        case KX_UD_TAG_QZSC:
            return store_further(st, n, work, stated, *hdr);
        case KX_UD_TAG_QZSE:
            if (n != st->uiLastFrameNo + 1) return -105;
            return join_last(st, work, stated, hdr, joined);
        default:
            return -105;
    }
}

extern "C" {

KX_API int InnerAnalyzeOldUserData(const _tagInnerFramePara *_pInParam, int _iOffset, int &_iUserDataSize,
                                   tagUserDataOut *_pOut, int _iOutSize) {
    (void)_iOutSize;  // the decoders take their limits from the slots
    if (_pInParam == nullptr || _pOut == nullptr) {
        KX_LOG_ERR("[InnerAnalyzeOldUserData] NULL == _pInParam || NULL == _pOut");
        return -101;
    }
    const _tagInnerFramePara *para = _pInParam;
    if (para->pucData == nullptr || _iOffset < 0 || _iOffset > para->iDataLen ||
        _iUserDataSize > KX_UD_OLD_MAX) {
        KX_LOG_ERR("[InnerAnalyzeOldUserData] OldUDLen(%d) > FrameLen(%d).", _iOffset, para->iDataLen);
        return -101;
    }

    uint8_t work[KX_UD_NEW_MAX];
    const int stated = _iUserDataSize;
    int stream_len = stated;
    if (!ud_load_container(para->pucData + _iOffset, para->iDataLen - _iOffset, work, &stream_len)) {
        // The frame ends inside the container. The size goes out beyond the frame's data, where no new
        // container can stand.
        KX_LOG_ERR("[InnerAnalyzeOldUserData] OldUDLen(%d) > FrameLen(%d).", _iOffset + stream_len,
                   para->iDataLen);
        _iUserDataSize = stream_len;
        return -105;
    }
    _iUserDataSize = stream_len;

    TUserDataHeader hdr;
    memset(&hdr, 0, sizeof(hdr));
    const int tag = GetUserdataFlagType(work, hdr);
    if (tag == KX_UD_TAG_BAD) return -105;
    int noted = stated;
    int joined = 0;
    const int split = ud_split_fragment(para, tag, work, stated, &hdr, &joined);
    if (split < 0) return split;
    if (split == KX_UD_SPLIT_JOINED) {
        _iUserDataSize = joined;
        noted = joined;
    }
    if (_iUserDataSize != KX_UD_OLD_MAX && (int)hdr.uiDataLen + KX_UD_HEADER_LEN != noted) {
        KX_LOG_ERR("[AnalyzeUserDataInOneFrame] Header.uiDataLen=%d, iUserDataSize=%d.", (int)hdr.uiDataLen,
                   _iUserDataSize);
        return -105;
    }

    TUserDataBlockHead head;
    int pos = KX_UD_HEADER_LEN;
    for (int i = 0; i < hdr.usBlockCount; i++) {
        const uint8_t *payload = ud_next_block(work, _iUserDataSize, &pos, &head);
        if (payload == nullptr) break;
        if (ud_mask_takes(para, head.usType)) ud_dispatch_slot_block(false, para, head, payload, _pOut);
    }
    _iUserDataSize = stream_len;
    DevCallbackFunc(KX_UD_CB_END, para, nullptr, 0);
    return 0;
}

}  // extern "C"
