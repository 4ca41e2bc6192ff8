// The walk over a user-data container that the analyses share: loading the container into the working
// buffer, stepping from block to block inside it, the mask filter, and the dispatch of blocks to the
// slots of tagUserDataOut for both layouts.
#include <string.h>

#include "stream/frame_header.h"
#include "stream/userdata_internal.h"

// Kept out of line from the callers (and out of their file): inside them the compiler would see their
// bound on n and copy with `rep movs`.
void ud_copy(void *dst, const void *src, int n) {
    if (n > 0) memcpy(dst, src, (size_t)n);
}

uint32_t ud_frame_no(const _tagInnerFramePara *para) {
    return (para != nullptr && para->ptFrmHeader != nullptr) ? fh_frame_no(para->ptFrmHeader) : 0;
}

bool ud_load_container(const uint8_t *src, int src_len, uint8_t *work, int *size) {
    const int stated = *size;
    if (src_len < 0) src_len = 0;
    if (ud_revert(src, src_len, work, size, KX_UD_NEW_MAX, KX_UD_NEW_MAX) != 0) return false;
    // The revert wrote the stated bytes (and maybe scratch behind them). Behind them the walk may reach
    // up to the stream length, and the header is read whatever the size: those bytes read as zeros.
    int written = stated < 0 ? 0 : (stated > KX_UD_NEW_MAX ? KX_UD_NEW_MAX : stated);
    int reach = *size > KX_UD_NEW_MAX ? KX_UD_NEW_MAX : *size;
    if (reach < KX_UD_HEADER_LEN) reach = KX_UD_HEADER_LEN;
    if (reach > written) memset(work + written, 0, (size_t)(reach - written));
    return true;
}

bool ud_mask_takes(const _tagInnerFramePara *para, int usType) {
    return para->iFlag == KX_UD_FLAG_ALL || para->iTypeMask <= 0 ||
           GetUDTypeByFlag(para->iTypeMask, usType) != 0;
}

void ud_dispatch_slot_block(bool new_layout, const _tagInnerFramePara *para, const TUserDataBlockHead &head,
                            const uint8_t *payload, tagUserDataOut *out) {
    const int len = head.usLen;
    const int type = head.usType;
    switch (type) {
        case KX_BLK_USER_DEFINE:
            GetUserDefineData(false, payload, out->pUserDefine, len, para);
            return;
        case KX_BLK_ABS_TIME:
            GetFrameAbsoluteTime(false, payload, out->pTime, len, para);
            return;
        case KX_BLK_LPR:
            GetLPRInfo(false, payload, out->pLpr, len, para);
            return;
        case KX_BLK_DEMOGRAPHICS:
            GetDemographicsInfo(false, payload, out->pDemographics, len, para);
            return;
        case KX_BLK_VITAL_SIGN:
            GetVitalSignData(false, payload, out->pVitalSign, len, para);
            return;
        case KX_BLK_LDC:
            GetLdcInfo(false, payload, out->pLdc, len, para);
            return;
        case KX_BLK_ZF_MARK:
            GetZFMarkInfo(false, payload, out->pZfMark, len, para);
            return;
        case KX_BLK_VCA_SRC_SIZE:
            GetVcaSrcVideoSize(false, payload, len, out->pVca, out->iVcaSize, para);
            return;
        case KX_BLK_VCA_SRC_VIDEO:
            GetVcaSrcVideo(false, payload, len, out->pVca, out->iVcaSize, para);
            return;
        case KX_BLK_VCA_SRC_SIZE_ENABLE:
            GetVcaSrcVideoSizeEnable(false, payload, len, out->pVca, out->iVcaSize, para);
            return;
        case KX_BLK_VCA_ATTR:
            GetVcaTargetAttr(payload, len, out, para, new_layout ? 1 : 0);
            return;
        case KX_BLK_PTZ:
            GetPtzData(false, payload, len, nullptr, 0, para);
            return;
        case KX_BLK_HMAC:
            GetHmacInfo(payload, len, out, para);
            return;
        case KX_BLK_PTZ_POS:
            GetPtzPosInfo(payload, len, out, para);
            return;
        case KX_BLK_FED1:
        case KX_BLK_FED4:
            if (!new_layout) return;  // an old container has no use for these
            break;
        case KX_BLK_VCA_TARGET:
            GetVcaTargetnfo(false, payload, len, out->pVca, out->iVcaSize, para);
            if (!new_layout) return;
            break;  // a new container reports the block raw as well
        case KX_BLK_OSD:
            GetOsdExInfo(false, payload, out->pOsd, len, para);
            if (!new_layout) return;
            break;
        case KX_BLK_VCA_STAMP:
            if (!new_layout) {
                GetVcaTimestamp(false, payload, len, out->pVcaStamp, out->iVcaStampSize, para);
            } else if (out->pVcaStampNew != nullptr && out->iVcaStampNewSize > 0) {
                // A new container's stamp is only stored, never reported.
                int n =
                    out->iVcaStampNewSize < KX_UD_VCA_STAMP_LEN ? out->iVcaStampNewSize : KX_UD_VCA_STAMP_LEN;
                ud_copy_padded(out->pVcaStampNew, n, payload, len);
            }
            return;
        case KX_BLK_VCA_TARGET_EX:
            if (new_layout) {
                GetVcaTargetnfoNew(payload, len, static_cast<tagVcaTargetGet *>(out->pVca), out->iVcaSize,
                                   para);
            } else {
                GetVcaTargetnfoEx(false, payload, len, out->pVca, out->iVcaSize, para);
            }
            return;
        default:
            if (new_layout) {
                switch (type) {
                    case KX_BLK_LAW_CASE:
                        GetLawCaseData(payload, len, out, para);
                        return;
                    case KX_BLK_WATERMARK_VIDEO:
                        GetWaterMarkVideoData(payload, len, out, para);
                        return;
                    case KX_BLK_WATERMARK_USER:
                        GetWaterMarkUserData(payload, len, out, para);
                        return;
                    case KX_BLK_POLICE_CLOTH:
                        GetPoliceClothInfo(payload, len, out, para);
                        return;
                    case KX_BLK_VEST_CLOTH:
                        GetVestClothInfo(payload, len, out, para);
                        return;
                    case KX_BLK_CHECK_HMAC:
                        GetCheckHmacInfo(payload, len, out, para);
                        return;
                    case KX_BLK_TRACK_STYLE:
                        GetTargetTrackStyle(payload, len, out, para);
                        return;
                    case KX_BLK_WATERMARK_ADD:
                        // This decoder takes the block from its head on.
                        GetWatermarkAddData(payload - KX_UD_BLOCK_HEAD_LEN, len + KX_UD_BLOCK_HEAD_LEN, out,
                                            para);
                        return;
                    default:
                        break;
                }
            }
            break;
    }
    // A block without a decoder of its own, and the second report of a new container.
    DevCallbackFunc(type, para, payload, len);
}
