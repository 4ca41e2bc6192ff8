// The two other inputs of the inspector: a raw Annex B stream (--probe) and an I-frame index block
// (--index).
#include <limits.h>
#include <stdio.h>

#include <nlohmann/json.hpp>

#include "korvex-dump/dump.h"
#include "stream/frame_header.h"

namespace kxd {

using Json = nlohmann::ordered_json;

int run_probe(const Options &o) {
    Bytes in;
    if (!kxt::read_file(o.input, &in)) return 2;
    if (in.empty()) return kxt::errorf("'%s' is empty: nothing to probe", o.input.c_str()), 1;
    int len = in.size() > size_t(INT_MAX) ? INT_MAX : int(in.size());
    int h264 = H264_Probe(in.data(), len);
    int h265 = H265_Probe(in.data(), len);
    kxt::Codec codec = h264 == 1 ? kxt::Codec::kH264 : h265 == 1 ? kxt::Codec::kH265 : kxt::Codec::kUnknown;
    size_t skipped = 0;
    std::vector<kxt::Nal> nals = kxt::scan_nals(in.data(), in.size(), &skipped);
    std::vector<kxt::AccessUnit> units;
    size_t keys = 0;
    if (codec != kxt::Codec::kUnknown) units = kxt::split_access_units(codec, in.data(), nals);
    for (const kxt::AccessUnit &au : units) keys += au.key ? 1 : 0;
    bool framed = in.size() >= KX_FRAME_HEADER_LEN &&
                  IsValidFrameHeader(reinterpret_cast<const __S_FrameHeader *>(in.data())) &&
                  fh_frame_len(in.data()) >= KX_FRAME_HEADER_LEN;

    if (o.json) {
        Json j;
        j["bytes"] = in.size();
        j["h264_probe"] = h264;
        j["h265_probe"] = h265;
        j["codec"] = kxt::codec_name(codec);
        j["nal_units"] = nals.size();
        if (codec != kxt::Codec::kUnknown) {
            j["access_units"] = units.size();
            j["key_frames"] = keys;
        }
        j["frame_header_at_start"] = framed;
        puts(j.dump().c_str());
    } else {
        printf("input: %s, %zu bytes, %zu NAL units\n", o.input.c_str(), in.size(), nals.size());
        printf("H264_Probe: %d\nH265_Probe: %d\n", h264, h265);
        if (codec == kxt::Codec::kUnknown) {
            printf("stream: neither H.264 nor H.265\n");
        } else {
            printf("stream: %s Annex B, %zu access units, %zu key frames\n",
                   codec == kxt::Codec::kH264 ? "H.264" : "H.265", units.size(), keys);
        }
        if (framed) printf("note: the input begins with a frame header; without --probe its frames are walked\n");
    }
    if (codec == kxt::Codec::kUnknown) {
        kxt::errorf("'%s' is neither an H.264 nor an H.265 Annex B stream", o.input.c_str());
        return 1;
    }
    return 0;
}

namespace {

const char *index_error(int rc) {
    switch (rc) {
    case -101: return "the block is empty";
    case -104: return "the block is too short for its 44-byte head or for the items its head announces";
    case -100: return "the sign type is out of range";
    default: return "refused";
    }
}

}  // namespace

int run_index(const Options &o) {
    Bytes in;
    if (!kxt::read_file(o.input, &in)) return 2;
    if (in.empty()) return kxt::errorf("'%s' is empty: no I-frame index to read", o.input.c_str()), 1;
    if (in.size() > size_t(INT_MAX)) {
        kxt::errorf("'%s' is too large for an index block", o.input.c_str());
        return 1;
    }
    int size = int(in.size());
    TIFrameInfoQuery q;
    memset(&q, 0, sizeof(q));
    q.iWantedOrdinal = -1;
    int room = sizeof(q);
    int rc = SA_GetIFrameInfo(o.sign_type + 100, in.data(), size, &q, &room);
    if (rc != 0) {
        kxt::errorf("'%s' is not a usable I-frame index: %s", o.input.c_str(), index_error(rc));
        return 1;
    }
    uint32_t count = kxt::rd32(&in[32]), item_size = kxt::rd32(&in[36]);
    long long matches = q.iMatchCount;
    long long first = o.ordinal > 0 ? o.ordinal : 1;
    long long last = o.ordinal > 0 ? o.ordinal : (matches < 1000 ? matches : 1000);
    Json found = Json::array();
    bool missing = false;
    if (!o.json) {
        printf("index: %u items of %u bytes\n", count, item_size);
        printf("sign type %d: %lld %s\n", o.sign_type, matches, matches == 1 ? "match" : "matches");
    }
    for (long long k = first; k <= last; ++k) {
        TIFrameInfoQuery f;
        memset(&f, 0, sizeof(f));
        f.iWantedOrdinal = int(k);
        room = sizeof(f);
        if (SA_GetIFrameInfo(o.sign_type, in.data(), size, &f, &room) != 0 || k > matches) {
            missing = true;
            if (!o.json) printf("  match %lld: not found\n", k);
            continue;
        }
        if (o.json) {
            found.push_back(Json{{"ordinal", k}, {"word", f.tItem.uiItemWord}, {"stamp", f.tItem.iItemStamp},
                                 {"mask", f.tItem.uiSignMask}, {"restarts", f.iRestartCount}});
        } else {
            printf("  match %lld: word %u (0x%08x), stamp %d, mask 0x%08x, restarts %d\n", k, f.tItem.uiItemWord,
                   f.tItem.uiItemWord, f.tItem.iItemStamp, f.tItem.uiSignMask, f.iRestartCount);
        }
    }
    if (!o.json && o.ordinal == 0 && matches > last) printf("  ... %lld more\n", matches - last);
    if (o.json) {
        Json j;
        j["items"] = count;
        j["item_size"] = item_size;
        j["sign_type"] = o.sign_type;
        j["matches"] = matches;
        j["found"] = found;
        puts(j.dump().c_str());
    }
    if (missing) {
        kxt::errorf("match %lld of sign type %d not found (%lld matches)", o.ordinal, o.sign_type, matches);
        return 1;
    }
    return 0;
}

}  // namespace kxd
