#include "framegen.h"

namespace framegen {

void put16(Bytes &out, uint16_t v) {
    out.push_back(uint8_t(v));
    out.push_back(uint8_t(v >> 8));
}

void put32(Bytes &out, uint32_t v) {
    put16(out, uint16_t(v));
    put16(out, uint16_t(v >> 16));
}

void append(Bytes &out, const Bytes &more) {
    out.insert(out.end(), more.begin(), more.end());
}

Bytes le16(uint16_t v) {
    Bytes out;
    put16(out, v);
    return out;
}

Bytes le32(uint32_t v) {
    Bytes out;
    put32(out, v);
    return out;
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) append(out, p);
    return out;
}

Bytes block(uint16_t type, const Bytes &payload, int len_field) {
    Bytes out;
    put16(out, type);
    put16(out, uint16_t(len_field < 0 ? payload.size() : size_t(len_field)));
    append(out, payload);
    return out;
}

Bytes container(const char *tag, const std::vector<Bytes> &blocks, int block_count, int data_len) {
    Bytes body;
    for (const Bytes &b : blocks) append(body, b);
    Bytes out(tag, tag + 4);
    put16(out, uint16_t(block_count < 0 ? blocks.size() : size_t(block_count)));
    put16(out, uint16_t(data_len < 0 ? body.size() : size_t(data_len)));
    append(out, body);
    return out;
}

Bytes pattern(int encode, Layout layout) {
    const uint8_t last = layout == kOld ? 0xF0 : 0xF1;
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
    out.reserve(raw.size() + raw.size() / 64);
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

Bytes frame_header(const FrameHeader &h) {
    Bytes out(4, 0);
    put32(out, h.frame_len);
    out.push_back(h.attr);
    out.resize(12, 0);
    put32(out, h.frame_no);
    put32(out, h.info);
    put32(out, h.payload_len);
    put16(out, h.ext_count);
    put16(out, h.ext_size);
    put16(out, 0);
    put16(out, h.flags);
    return out;
}

Bytes frame(const Bytes &data, FrameHeader h) {
    h.payload_len = uint32_t(data.size());
    h.frame_len = 32 + h.payload_len;
    h.ext_count = h.ext_size = 0;
    return cat({frame_header(h), data});
}

}  // namespace framegen
