// Printing of frame reports: an indented text block per frame, or one JSON object per line.
#include <stdio.h>

#include <nlohmann/json.hpp>

#include "korvex-dump/dump.h"
#include "korvex-dump/dump_json.h"

namespace kxd {

namespace {

using Json = nlohmann::ordered_json;

std::string time_text(const __S_AbsoluteTime &t) {
    return kxt::iso8601_utc(t.usYear, t.usMonth, t.usDay, t.usHour, t.usMinute, t.usSecond);
}

std::string hex4(int type) {
    char b[16];
    snprintf(b, sizeof(b), "0x%04X", unsigned(type));
    return b;
}

Json raw_json(const RawView &v) {
    Json j;
    j["type"] = v.type;
    if (v.type > 44) j["type_hex"] = hex4(v.type);
    if (const char *name = record_name(v.type)) j["name"] = name;
    j["len"] = v.len;
    j["hex"] = kxt::hex_compact(v.head.data(), v.head.size());
    return j;
}

}  // namespace

Json frame_json(const FrameReport &r) {
    Json j;
    j["frame"] = r.index;
    j["offset"] = r.offset;
    if (r.has_header) {
        j["valid"] = r.valid;
        j["frame_len"] = r.frame_len;
        j["payload_len"] = r.payload_len;
        j["ext_count"] = r.ext_count;
        j["ext_size"] = r.ext_size;
        j["frame_no"] = r.frame_no;
        j["attr"] = r.attr;
        j["info"] = r.info;
        j["flags"] = r.flags;
    }
    j["held"] = r.held;
    if (!r.encryption.empty()) j["encryption"] = r.encryption;
    if (!r.decrypt.empty()) j["decrypt"] = r.decrypt;
    if (!r.error.empty()) j["error"] = r.error;
    if (!r.ud.ran) {
        if (!r.skip_reason.empty()) j["userdata"] = Json{{"analysed", false}, {"reason", r.skip_reason}};
        return j;
    }
    const UserDataReport &u = r.ud;
    Json ud;
    ud["codec"] = kxt::codec_name(r.codec);
    ud["result"] = u.result;
    ud["status"] = u.status;
    if (u.result != 0) ud["result_text"] = userdata_result_text(u.result);
    if (u.has_time) ud["time"] = Json{{"utc", time_text(u.time)}, {"seconds", u.time.uiSeconds}};
    Json vca = Json::array();
    for (const VcaView &v : u.vca) {
        Json t;
        t["layout"] = v.new_layout ? "new" : "old";
        if (v.has_raw) {
            t["grid"] = {v.grid[0], v.grid[1], v.grid[2], v.grid[3]};
            t["unscaled"] = {v.raw[0], v.raw[1], v.raw[2], v.raw[3]};
        } else {
            t["as_sent"] = {v.grid[0], v.grid[1], v.grid[2], v.grid[3]};
        }
        t["words"] = {v.extra[0], v.extra[1], v.extra[2], v.extra[3]};
        vca.push_back(t);
    }
    if (!vca.empty()) ud["vca"] = vca;
    if (!u.plates.empty()) ud["plates"] = u.plates;
    Json osd = Json::array();
    for (const OsdView &v : u.osd) {
        Json t;
        t["subtype"] = v.subtype;
        if (v.has_text) t["text"] = v.text;
        t["len"] = v.raw.len;
        if (!v.has_text) t["hex"] = kxt::hex_compact(v.raw.head.data(), v.raw.head.size());
        osd.push_back(t);
    }
    if (!osd.empty()) ud["osd"] = osd;
    Json records = Json::array();
    for (const RawView &v : u.records) records.push_back(raw_json(v));
    if (!records.empty()) ud["records"] = records;
    Json blocks = Json::array();
    for (const RawView &v : u.blocks) blocks.push_back(raw_json(v));
    if (!blocks.empty()) ud["blocks"] = blocks;
    if (u.rest_len >= 0) ud["frame_rest_len"] = u.rest_len;
    ud["callbacks"] = u.callbacks;
    j["userdata"] = ud;
    return j;
}

namespace {

void print_text(const FrameReport &r) {
    if (!r.has_header) {
        printf("frame %lld @ %llu: %s\n", r.index, (unsigned long long)r.offset, r.error.c_str());
        return;
    }
    printf("frame %lld @ %llu: len %u, payload %u, ext %ux%u, no %u, attr 0x%02x, info 0x%08x, flags 0x%04x%s\n",
           r.index, (unsigned long long)r.offset, r.frame_len, r.payload_len, r.ext_count, r.ext_size, r.frame_no,
           r.attr, r.info, r.flags, r.valid ? "" : ", INVALID");
    if (r.valid && r.encryption != "none") {
        const char *state = r.decrypt == "ok" ? "decrypted" : r.decrypt == "no key" ? "not decrypted (no --key)"
                                                                                    : "decryption failed";
        printf("  encryption: %s, %s\n", r.encryption.c_str(), state);
    }
    if (!r.error.empty()) printf("  error: %s\n", r.error.c_str());
    if (!r.valid) return;
    const UserDataReport &u = r.ud;
    if (!u.ran) {
        printf("  user data: not analysed (%s)\n", r.skip_reason.c_str());
        return;
    }
    if (u.status == "none") {
        printf("  user data: none\n");
        return;
    }
    if (u.result == 0) {
        printf("  user data: %s (%s%s)\n", u.status.c_str(), kxt::codec_name(r.codec),
               u.two_layout ? ", two-layout analysis" : "");
    }
    else printf("  user data: %s (%d, %s)\n", u.status.c_str(), u.result, userdata_result_text(u.result));
    if (u.has_time) printf("    time: %s (%u)\n", time_text(u.time).c_str(), u.time.uiSeconds);
    int n = 0;
    for (const VcaView &v : u.vca) {
        ++n;
        if (v.has_raw) {
            printf("    target %d: (%u,%u)-(%u,%u) on 176x144, unscaled (%u,%u)-(%u,%u), words %u %u %u %u%s\n", n,
                   v.grid[0], v.grid[1], v.grid[2], v.grid[3], v.raw[0], v.raw[1], v.raw[2], v.raw[3], v.extra[0],
                   v.extra[1], v.extra[2], v.extra[3], v.new_layout ? " (new layout)" : "");
        } else {
            printf("    target %d: (%u,%u)-(%u,%u) as sent, words %u %u %u %u\n", n, v.grid[0], v.grid[1], v.grid[2],
                   v.grid[3], v.extra[0], v.extra[1], v.extra[2], v.extra[3]);
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
