#include "common/frame_make.h"

#include <string.h>

namespace kxt {

int container_limit(Layout layout) { return layout == Layout::kOld ? 1024 : 10240; }

Bytes ud_block(uint16_t type, const Bytes &payload) { return framegen::block(type, payload); }

Bytes time_payload(uint32_t seconds) {
    Bytes out;
    put32(out, seconds);
    return out;
}

Bytes vca_payload(const std::vector<VcaRect> &targets) {
    Bytes out;
    for (const VcaRect &t : targets) {
        put16(out, 18);
        for (uint16_t c : t.coord) put16(out, c);
        for (uint16_t e : t.extra) put16(out, e);
    }
    return out;
}

Bytes plate_payload(const std::vector<std::string> &plates) {
    size_t longest = 0;
    for (const std::string &p : plates) longest = p.size() > longest ? p.size() : longest;
    // With n plates of stride s the block is n * s bytes long, so length / count gives s back; the last
    // plate then has s - 4 bytes inside the block, room for its text and the closing zero.
    size_t n = plates.size();
    size_t stride = longest + 1 + 4;
    Bytes out(n * stride, 0);
    if (n == 0) return out;
    Bytes count;
    put32(count, uint32_t(n));
    memcpy(out.data(), count.data(), 4);
    for (size_t i = 0; i < n; ++i) memcpy(&out[4 + i * stride], plates[i].data(), plates[i].size());
    return out;
}

Bytes osd_text_payload(const std::string &text) {
    Bytes out;
    put32(out, 7);
    out.resize(28, 0);
    put32(out, uint32_t(text.size()));
    out.insert(out.end(), text.begin(), text.end());
    return out;
}

Bytes ud_container(const std::vector<Bytes> &blocks) { return framegen::container("QZST", blocks); }

Bytes ud_unit(Codec codec, Layout layout, const Bytes &container) {
    return framegen::unit(codec_encode(codec), layout == Layout::kOld ? framegen::kOld : framegen::kNew,
                          container);
}

Bytes frame_header(uint32_t data_len, uint32_t frame_no, uint16_t flags) {
    framegen::FrameHeader h;
    h.frame_len = data_len + 32, h.payload_len = data_len, h.frame_no = frame_no, h.flags = flags;
    return framegen::frame_header(h);
}

Bytes iframe_index(const std::vector<IndexItem> &items) {
    Bytes out(32, 0);
    put32(out, uint32_t(items.size()));
    put32(out, 12);
    put32(out, 0);
    for (const IndexItem &it : items) {
        put32(out, it.word);
        put32(out, uint32_t(it.stamp));
        put32(out, it.mask);
    }
    return out;
}

}  // namespace kxt
