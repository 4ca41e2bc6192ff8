#include "support/frame_builder.h"

#include <string.h>

namespace fb {

Bytes le16(uint16_t v) {
    return {uint8_t(v), uint8_t(v >> 8)};
}

Bytes le32(uint32_t v) {
    return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes block(uint16_t type, const Bytes &payload, int len_field) {
    return cat({le16(type), le16(uint16_t(len_field < 0 ? payload.size() : len_field)), payload});
}

Bytes container(const char *tag, const std::vector<Bytes> &blocks, int block_count, int data_len) {
    Bytes body;
    for (const Bytes &b : blocks) body.insert(body.end(), b.begin(), b.end());
    Bytes out(tag, tag + 4);
    return cat({out, le16(uint16_t(block_count < 0 ? blocks.size() : block_count)),
                le16(uint16_t(data_len < 0 ? body.size() : data_len)), body});
}

Bytes pattern(int encode, Layout layout) {
    uint8_t last = layout == kOld ? 0xF0 : 0xF1;
    if (encode == 23) return {0, 0, 0, 1, 0x4E, 0x01, last};
    return {0, 0, 0, 1, 0x06, last};
}

Bytes size_bytes(int n) {
    Bytes out(size_t(n / 255), 0xFF);
    out.push_back(uint8_t(n % 255));
    return out;
}

Bytes escape(const Bytes &raw) {
    Bytes out;
    int zeros = 0;
    for (uint8_t b : raw) {
        if (zeros >= 2 && b <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        out.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
}

Bytes unit(int encode, Layout layout, const Bytes &c, int stated, uint8_t trailing) {
    return cat(
        {pattern(encode, layout), size_bytes(stated < 0 ? int(c.size()) : stated), escape(c), {trailing}});
}

Bytes header(uint32_t frame_len, uint32_t payload_len, uint16_t ext_count, uint16_t ext_size) {
    Bytes h(32, 0);
    memcpy(&h[4], le32(frame_len).data(), 4);
    memcpy(&h[20], le32(payload_len).data(), 4);
    memcpy(&h[24], le16(ext_count).data(), 2);
    memcpy(&h[26], le16(ext_size).data(), 2);
    return h;
}

Bytes frame(const Bytes &data, const FrameFields &f) {
    Bytes h = header(uint32_t(32 + data.size()), uint32_t(data.size()));
    h[8] = f.attr;
    memcpy(&h[12], le32(f.frame_no).data(), 4);
    memcpy(&h[16], le32(f.info).data(), 4);
    memcpy(&h[30], le16(f.flags).data(), 2);
    return cat({h, data});
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
