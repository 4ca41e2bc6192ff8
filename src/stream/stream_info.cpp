// Stream information of a frame, and the probes that tell an H.264 from an H.265 Annex B byte stream.
// Pure functions of their arguments: no state, no log line.
#include <stddef.h>
#include <string.h>

#include "korvex/korvex.h"
#include "platform/bytes.h"
#include "stream/frame_header.h"

static_assert(sizeof(TStreamInfo) == 28, "TStreamInfo is seven 32-bit fields");
static_assert(offsetof(TStreamInfo, iStreamReserved) == 24, "TStreamInfo field order");

namespace {

enum { kStreamHeadMin = 88 };

// Class of each H.264 NAL unit type for the probe: 0 any reference value, -1 must be a reference,
// 1 must not be a reference, 2 reserved or unspecified.
const signed char kH264NalClass[32] = {
    2, 0, 0, 0, 0, -1, 1, -1, -1, 1, 1, 1, 1, -1, 2, 2,  // 0-15
    2, 2, 2, 0, 2, 2,  2, 2,  2,  2, 2, 2, 2, 2,  2, 2,  // 16-31
};

// True when the shift register holds 00 00 01 followed by one byte.
inline bool after_start_code(uint32_t code) {
    return (code & 0xFFFFFF00u) == 0x00000100u;
}

}  // namespace

extern "C" {

KX_API int SA_GetStreamInfo(const unsigned char *_pucStreamHead, int _iStreamHeadLen,
                            const unsigned char *_pucFrameBuf, int _iFrameLen, void *_pvOutBuf,
                            int _iOutSize) {
    (void)_iFrameLen;
    if (_pvOutBuf == nullptr) return -1;
    if (_pucFrameBuf == nullptr) return -2;
    if (!IsValidFrameHeader(reinterpret_cast<const __S_FrameHeader *>(_pucFrameBuf))) return -3;
    if (_pucStreamHead == nullptr) return -4;
    if (_iStreamHeadLen < kStreamHeadMin) return -5;

    TStreamInfo info;
    info.iHeadWord2 = kx_rd16le(_pucStreamHead + 2);
    info.iHeadWord4 = kx_rd16le(_pucStreamHead + 4);
    info.iFrameInfo = (int32_t)fh_frame_info(_pucFrameBuf);
    info.iFrameAttr = fh_frame_attr(_pucFrameBuf);
    info.iStreamKind = 1;
    info.iHeadWord0 = kx_rd16le(_pucStreamHead);
    info.iStreamReserved = 0;
    if (_iOutSize > 0)
        memcpy(_pvOutBuf, &info, _iOutSize < (int)sizeof(info) ? (size_t)_iOutSize : sizeof(info));
    return 0;
}

KX_API int H264_Probe(const unsigned char *_pucBuf, int _iLen) {
    if (_pucBuf == nullptr) return -1;
    uint32_t code = 0xFFFFFFFFu;
    int sps = 0, pps = 0, idr = 0, sli = 0, res = 0;
    for (int i = 0; i + 2 < _iLen; i++) {
        code = (code << 8) | _pucBuf[i];
        if (!after_start_code(code)) continue;
        uint8_t nal = _pucBuf[i];
        if (nal & 0x80) return 0;  // forbidden_zero_bit
        int ref = (nal >> 5) & 3;
        int type = nal & 0x1F;
        int cls = kH264NalClass[type];
        if ((cls == 1 && ref != 0) || (cls == -1 && ref == 0)) return 0;
        // A start code followed by zeros is trailing padding, not a reserved NAL unit.
        if (cls == 2 && !(code == 0x100u && _pucBuf[i + 1] == 0 && _pucBuf[i + 2] == 0)) res++;
        if (type == 1) sli++;
        if (type == 5) idr++;
        if (type == 8) pps++;
        if (type == 7) {
            if (_pucBuf[i + 2] & 3) return 0;  // reserved_zero_2bits of the SPS
            sps++;
        }
    }
    return (sps != 0 && pps != 0 && (idr != 0 || sli > 3) && res < sps + pps + idr) ? 1 : 0;
}

KX_API int H265_Probe(const unsigned char *_pucBuf, int _iLen) {
    if (_pucBuf == nullptr) return -1;
    uint32_t code = 0xFFFFFFFFu;
    int vps = 0, sps = 0, pps = 0, irap = 0;
    for (int i = 0; i + 1 < _iLen; i++) {
        code = (code << 8) | _pucBuf[i];
        if (!after_start_code(code)) continue;
        int type = (code >> 1) & 0x3F;
        if (code & 0x81) return 0;            // forbidden_zero_bit, or the high bit of nuh_layer_id
        if (_pucBuf[i + 1] & 0xF8) return 0;  // the other bits of nuh_layer_id
        if (type == 32) vps++;
        if (type == 33) sps++;
        if (type == 34) pps++;
        if (type >= 16 && type <= 21) irap++;
    }
    return (vps != 0 && sps != 0 && pps != 0 && irap != 0) ? 1 : 0;
}

}  // extern "C"
