#include "support/frame_builder.h"

#include <string.h>

namespace fb {

Bytes header(uint32_t frame_len, uint32_t payload_len, uint16_t ext_count, uint16_t ext_size) {
    framegen::FrameHeader h;
    h.frame_len = frame_len, h.payload_len = payload_len, h.ext_count = ext_count, h.ext_size = ext_size;
    return framegen::frame_header(h);
}

Bytes frame(const Bytes &data, const FrameFields &f) {
    framegen::FrameHeader h;
    h.frame_no = f.frame_no, h.attr = f.attr, h.info = f.info, h.flags = f.flags;
    return framegen::frame(data, h);
}

_tagInnerFramePara CallbackLog::para(const __S_FrameHeader *header, int flag, int encode) {
    _tagInnerFramePara p;
    memset(&p, 0, sizeof(p));
    p.iSize = sizeof(p);
    p.iEncode = encode;
    p.iFlag = flag;
    p.iCbHandle = 77;
    p.ptFrmHeader = header;
    p.pfnUserDataCb = &CallbackLog::callback;
    p.pvCbUser = this;
    if (header != nullptr) {
        p.pucData = reinterpret_cast<const unsigned char *>(header) + 32;
        uint32_t frame_len;
        memcpy(&frame_len, reinterpret_cast<const uint8_t *>(header) + 4, 4);
        p.iDataLen = int(frame_len) - 32;
    }
    return p;
}

std::vector<int> CallbackLog::types() const {
    std::vector<int> t;
    for (const Call &c : calls) t.push_back(c.type);
    return t;
}

int CallbackLog::callback(int handle, int type, const void *data, int len, TUserDataFrameInfo *info,
                          void *user) {
    Call c{handle, type, {}, len, data == nullptr, *info};
    if (data != nullptr && len > 0) c.data.assign((const uint8_t *)data, (const uint8_t *)data + len);
    static_cast<CallbackLog *>(user)->calls.push_back(c);
    return 0;
}

}  // namespace fb
