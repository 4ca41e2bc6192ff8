// The two other inputs of the inspector: a raw Annex B stream (--probe) and an I-frame index block
// (--index).
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <nlohmann/json.hpp>

#include "common/sniff.h"
#include "korvex-dump/dump.h"
#include "stream/frame_header.h"

namespace kxd {

using Json = nlohmann::ordered_json;

// The stream is read in pieces (NalReader): the probes look at its first 4 MiB, the NAL units and access
// units are counted as they pass, so memory stays small whatever the input's size.
int run_probe(const Options &o) {
    FILE *f = kxt::open_input(o.input);
    if (f == nullptr) return 2;
    kxt::NalReader reader(f);
    const uint8_t *head = nullptr;
    size_t head_len = reader.peek(4u << 20, &head);
    int len = int(head_len);
    int h264 = H264_Probe(head, len);
    int h265 = H265_Probe(head, len);
    kxt::Codec codec = h264 == 1 ? kxt::Codec::kH264 : h265 == 1 ? kxt::Codec::kH265 : kxt::Codec::kUnknown;
    kxt::Sniffed sniffed = kxt::sniff_input(head, head_len);
    bool framed = sniffed.kind == kxt::InputKind::kFrames;
    size_t nals = 0, units = 0, keys = 0;
    kxt::AccessUnitSplitter splitter(codec);
    const uint8_t *nal;
    size_t nal_len;
    bool last_key = false;
    while (reader.next(&nal, &nal_len)) {
        ++nals;
        if (codec == kxt::Codec::kUnknown) continue;
        bool key = false;
        if (splitter.opens(nal, nal_len, &key)) {
            ++units;
            last_key = false;
        }
        if (key && !last_key) ++keys;
        last_key = last_key || key;
    }
    int read_error = reader.error();
    uint64_t bytes = reader.bytes();
    if (f != stdin) fclose(f);
    if (read_error != 0) return kxt::errorf("cannot read '%s': %s", o.input.c_str(), strerror(read_error)), 2;
    if (bytes == 0) return kxt::errorf("'%s' is empty: nothing to probe", o.input.c_str()), 1;

    if (o.json) {
        Json j;
        j["bytes"] = bytes;
        j["h264_probe"] = h264;
        j["h265_probe"] = h265;
        j["codec"] = kxt::codec_name(codec);
        j["nal_units"] = nals;
        if (codec != kxt::Codec::kUnknown) {
            j["access_units"] = units;
            j["key_frames"] = keys;
        }
        j["frame_header_at_start"] = framed;
        puts(j.dump().c_str());
    } else {
        printf("input: %s, %llu bytes, %zu NAL units\n", o.input.c_str(), (unsigned long long)bytes, nals);
        printf("H264_Probe: %d\nH265_Probe: %d\n", h264, h265);
        if (codec == kxt::Codec::kUnknown) {
            printf("stream: neither H.264 nor H.265\n");
        } else {
            printf("stream: %s Annex B, %zu access units, %zu key frames\n",
                   codec == kxt::Codec::kH264 ? "H.264" : "H.265", units, keys);
        }
        if (framed) printf("note: the input begins with a frame header; without --probe its frames are walked\n");
    }
    if (codec == kxt::Codec::kUnknown) {
        std::string hint = kxt::foreign_input_hint(sniffed, "a raw H.264/H.265 stream");
        kxt::errorf("'%s' is neither an H.264 nor an H.265 Annex B stream%s%s", o.input.c_str(),
                    hint.empty() ? "" : "; ", hint.c_str());
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
