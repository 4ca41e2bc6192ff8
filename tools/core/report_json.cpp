// The JSON object of a frame's report: korvex-dump --json prints it, korvex-export writes it into its
// metadata track and --json file, and the Python module turns it into Python data.
#include <stdio.h>

#include "core/report_json.h"

namespace kxc {

namespace {

using Json = nlohmann::ordered_json;

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

std::string time_text(const __S_AbsoluteTime &t) {
    return kxt::iso8601_utc(t.usYear, t.usMonth, t.usDay, t.usHour, t.usMinute, t.usSecond);
}

std::string hex4(int type) {
    char b[16];
    snprintf(b, sizeof(b), "0x%04X", unsigned(type));
    return b;
}

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
    if (r.examined) j["encryption"] = encryption_name(r.encryption);
    if (r.examined && r.decrypt != Decrypt::kNotNeeded) j["decrypt"] = decrypt_name(r.decrypt);
    if (r.clear()) j["key_frame"] = r.key_frame;
    if (!r.error.empty()) j["error"] = r.error;
    if (!r.ud.ran) {
        if (r.skip == Skip::kNoKey || r.skip == Skip::kNotDecrypted) {
            j["userdata"] = Json{{"analysed", false}, {"reason", skip_text(r.skip)}};
        }
        return j;
    }
    const UserDataReport &u = r.ud;
    Json ud;
    ud["codec"] = kxt::codec_name(r.codec);
    ud["result"] = u.result;
    ud["status"] = status_name(u.status);
    if (u.result != 0) ud["result_text"] = userdata_result_text(u.result);
    if (u.has_time) ud["time"] = Json{{"utc", time_text(u.time)}, {"seconds", u.time.uiSeconds}};
    if (r.width > 0) ud["picture"] = {r.width, r.height};
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
        if (r.width > 0) {
            int px[4];
            vca_pixels(v, r.width, r.height, px);
            t["pixels"] = {px[0], px[1], px[2], px[3]};
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


}  // namespace kxc
