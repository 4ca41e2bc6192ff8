// Printing of frame reports: an indented text block per frame, or one JSON object per line.
#include <stdio.h>

#include <nlohmann/json.hpp>

#include "korvex-dump/dump.h"
#include "core/report_json.h"

namespace kxd {

namespace {

using Json = nlohmann::ordered_json;
using namespace kxc;

void print_text(const FrameReport &r) {
    if (!r.has_header) {
        printf("frame %lld @ %llu: %s\n", r.index, (unsigned long long)r.offset, r.error.c_str());
        return;
    }
    printf("frame %lld @ %llu: len %u, payload %u, ext %ux%u, no %u, attr 0x%02x, info 0x%08x, flags 0x%04x%s\n",
           r.index, (unsigned long long)r.offset, r.frame_len, r.payload_len, r.ext_count, r.ext_size, r.frame_no,
           r.attr, r.info, r.flags, r.valid ? "" : ", INVALID");
    if (r.valid && r.encryption != Encryption::kNone) {
        const char *state = r.decrypt == Decrypt::kDone    ? "decrypted"
                            : r.decrypt == Decrypt::kNoKey ? "not decrypted (no --key)"
                                                           : "decryption failed";
        printf("  encryption: %s, %s\n", encryption_name(r.encryption), state);
    }
    if (!r.error.empty()) printf("  error: %s\n", r.error.c_str());
    if (!r.valid) return;
    const UserDataReport &u = r.ud;
    if (!u.ran) {
        printf("  user data: not analysed (%s)\n", skip_text(r.skip));
        return;
    }
    if (u.status == UserDataStatus::kNone) {
        printf("  user data: none\n");
        return;
    }
    if (u.result == 0) {
        printf("  user data: %s (%s%s)\n", status_name(u.status), kxt::codec_name(r.codec),
               u.two_layout ? ", two-layout analysis" : "");
    }
    else printf("  user data: %s (%d, %s)\n", status_name(u.status), u.result, userdata_result_text(u.result));
    if (u.has_time) printf("    time: %s (%u)\n", time_text(u.time).c_str(), u.time.uiSeconds);
    int n = 0;
    for (const VcaView &v : u.vca) {
        ++n;
        // The box in pixels of the picture, where the stream's parameter sets gave its size.
        char px[96] = "";
        if (r.width > 0) {
            int b[4];
            vca_pixels(v, r.width, r.height, b);
            snprintf(px, sizeof(px), ", (%d,%d)-(%d,%d) in pixels of %dx%d", b[0], b[1], b[2], b[3], r.width, r.height);
        }
        if (v.has_raw) {
            printf("    target %d: (%u,%u)-(%u,%u) on 176x144%s, unscaled (%u,%u)-(%u,%u), words %u %u %u %u%s\n", n,
                   v.grid[0], v.grid[1], v.grid[2], v.grid[3], px, v.raw[0], v.raw[1], v.raw[2], v.raw[3], v.extra[0],
                   v.extra[1], v.extra[2], v.extra[3], v.new_layout ? " (new layout)" : "");
        } else {
            printf("    target %d: (%u,%u)-(%u,%u) as sent%s, words %u %u %u %u\n", n, v.grid[0], v.grid[1], v.grid[2],
                   v.grid[3], px, v.extra[0], v.extra[1], v.extra[2], v.extra[3]);
        }
    }
    n = 0;
    for (const std::string &p : u.plates) printf("    plate %d: %s\n", ++n, p.c_str());
    for (const OsdView &v : u.osd) {
        if (v.has_text) printf("    osd %d: %s\n", v.subtype, v.text.c_str());
        else printf("    osd %d: %d bytes: %s\n", v.subtype, v.raw.len, kxt::hex_view(v.raw.head.data(), v.raw.head.size()).c_str());
    }
    for (const RawView &v : u.records) {
        printf("    %s (type %d): %d bytes: %s\n", record_name(v.type) ? record_name(v.type) : "record", v.type, v.len,
               kxt::hex_view(v.head.data(), v.head.size()).c_str());
    }
    for (const RawView &v : u.blocks) {
        printf("    block %s: %d bytes: %s\n", hex4(v.type).c_str(), v.len,
               kxt::hex_view(v.head.data(), v.head.size()).c_str());
    }
    if (u.rest_len >= 0) printf("    frame rest: %d bytes behind the new container\n", u.rest_len);
}

}  // namespace

void print_frame(const Options &o, const FrameReport &r) {
    if (o.json) {
        // Text from a stream can hold any bytes; invalid UTF-8 is replaced rather than refused.
        puts(frame_json(r).dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    } else if (!o.quiet) {
        print_text(r);
    }
}

void print_summary(const Options &o, long long frames, long long broken, long long with_user_data,
                   kxt::Codec codec) {
    if (o.json) return;
    printf("%lld frames, %lld broken, %lld with user data, codec %s\n", frames, broken, with_user_data,
           kxt::codec_name(codec));
}

}  // namespace kxd
