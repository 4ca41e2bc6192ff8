// The user-data part of the inspector: runs the library's analyses on one frame and gathers what they
// decoded. The single-frame analysis (the default) asks for all types into a tagUserDataAll, and once
// more for VCA targets into a tagVcaTargetGet, since the all-types record has no place for them. The
// two-layout analysis (--mask, or where the single-frame one finds nothing in a frame that begins with
// a container) fills the slots of a tagUserDataOut. Every decoder also reports its
// block through the callback; kinds without a record of their own are shown from there.
#include <string.h>

#include <memory>

#include "core/core.h"

namespace kxc {

namespace {

struct Call {
    int type;
    int len;
    Bytes data;  // the first bytes, enough for an OSD record
};

enum { kKeepBytes = 600, kEndOfWalk = 0xFFFFFF };

int collect(int, int type, const void *data, int len, TUserDataFrameInfo *, void *user) {
    Call c{type, len, {}};
    if (data != nullptr && len > 0) {
        const uint8_t *p = static_cast<const uint8_t *>(data);
        c.data.assign(p, p + (len < kKeepBytes ? len : kKeepBytes));
    }
    static_cast<std::vector<Call> *>(user)->push_back(std::move(c));
    return 0;
}

RawView raw_view(const Call &c) {
    RawView v;
    v.type = c.type;
    v.len = c.len;
    v.head.assign(c.data.begin(), c.data.begin() + long(c.data.size() < 16 ? c.data.size() : 16));
    return v;
}

// An OSD record: sub-type at 0; for sub-type 7 the text length at 28 and the text from 32.
OsdView osd_view(const Call &c, bool raw_text) {
    OsdView v;
    v.raw = raw_view(c);
    if (c.data.size() >= 4) v.subtype = int32_t(kxt::rd32(c.data.data()));
    if (v.subtype == 7 && c.data.size() >= 32) {
        int32_t len = int32_t(kxt::rd32(c.data.data() + 28));
        size_t room = c.data.size() - 32;
        size_t n = len < 0 ? 0 : size_t(len) < room ? size_t(len) : room;
        if (n > 512) n = 512;
        v.has_text = true;
        v.text = kxt::device_text(c.data.data() + 32, n, raw_text);
    }
    return v;
}

// Targets of a tagVcaTargetGet table: scaled entries with their unscaled twins where a raw entry exists.
void add_targets(const TVcaTarget *scaled, const TVcaTargetRaw *raw, int count, bool new_layout,
                 std::vector<VcaView> *out) {
    for (int i = 0; i < count; ++i) {
        VcaView v;
        memcpy(v.grid, scaled[i].ausWord, sizeof(v.grid));
        memcpy(v.extra, scaled[i].ausWord + 4, sizeof(v.extra));
        v.has_raw = raw[i].iValid == 1;
        if (v.has_raw) memcpy(v.raw, raw[i].ausWord, sizeof(v.raw));
        else memset(v.raw, 0, sizeof(v.raw));
        v.new_layout = new_layout;
        out->push_back(v);
    }
}

void add_plates(const tagLprInfo &lpr, bool raw_text, std::vector<std::string> *out) {
    int n = lpr.iCount < 0 ? 0 : lpr.iCount > 10 ? 10 : lpr.iCount;
    for (int i = 0; i < n; ++i) {
        out->push_back(kxt::device_text(lpr.atEntry[i], sizeof(lpr.atEntry[i]), raw_text));
    }
}

bool saw(const std::vector<Call> &calls, int type) {
    for (const Call &c : calls) {
        if (c.type == type) return true;
    }
    return false;
}

}  // namespace

bool starts_with_user_data(const uint8_t *data, size_t len, Codec codec) {
    static const uint8_t h264[] = {0, 0, 0, 1, 0x06};
    static const uint8_t h265[] = {0, 0, 0, 1, 0x4E, 0x01};
    const uint8_t *pat = codec == Codec::kH265 ? h265 : h264;
    size_t n = codec == Codec::kH265 ? sizeof(h265) : sizeof(h264);
    return len > n && memcmp(data, pat, n) == 0 && (data[n] == 0xF0 || data[n] == 0xF1);
}

void analyse_user_data(const AnalysisOptions &o, const uint8_t *frame, size_t held, Codec codec, void *split_state,
                       int split_state_size, UserDataReport *out) {
    std::vector<Call> calls;
    tagUserDataInfoPara p;
    memset(&p, 0, sizeof(p));
    p.iSize = sizeof(p);
    p.iType = o.type;
    p.pucFrameBuf = frame;
    p.iFrameLen = int(held);
    p.iEncode = kxt::codec_encode(codec);
    p.pfnUserDataCb = &collect;
    p.pvCbUser = &calls;
    p.iSplitStateSize = split_state_size;
    p.pvSplitState = split_state;

    std::unique_ptr<tagVcaTargetGet> vca(new tagVcaTargetGet());
    memset(vca.get(), 0, sizeof(*vca));
    tagLprInfo *lpr = nullptr;
    std::unique_ptr<tagUserDataAll> all;
    tagLprInfo slot_lpr;
    __S_AbsoluteTime slot_time;
    if (!o.two_layout) {
        // VCA targets first, on a copy of the split state, so that the main query sees the state that
        // this frame found.
        Bytes state_copy(static_cast<uint8_t *>(split_state), static_cast<uint8_t *>(split_state) + split_state_size);
        tagUserDataInfoPara pv = p;
        pv.iType = 3;
        pv.pfnUserDataCb = nullptr;
        pv.pvSplitState = state_copy.data();
        (void)SA_GetUserDataInfoEx(&pv, sizeof(pv), vca.get(), sizeof(*vca));

        all.reset(new tagUserDataAll());
        memset(all.get(), 0, sizeof(*all));
        all->tLpr.iEntrySize = sizeof(all->tLpr.atEntry[0]);
        out->result = SA_GetUserDataInfoEx(&p, sizeof(p), all.get(), sizeof(*all));
        if (all->bTimeValid) {
            out->has_time = true;
            out->time = all->tAbsTime;
        }
        if (all->bLprValid) lpr = &all->tLpr;
    } else {
        tagUserDataOut slots;
        memset(&slots, 0, sizeof(slots));
        memset(&slot_lpr, 0, sizeof(slot_lpr));
        memset(&slot_time, 0, sizeof(slot_time));
        slot_lpr.iEntrySize = sizeof(slot_lpr.atEntry[0]);
        slots.iVcaSize = sizeof(*vca);
        slots.pVca = vca.get();
        slots.iTimeSize = sizeof(slot_time);
        slots.pTime = &slot_time;
        slots.iLprSize = sizeof(slot_lpr);
        slots.pLpr = &slot_lpr;
        slots.iFrameRestLen = -1;
        p.iTypeMask = o.mask;
        out->result = SA_GetUserDataInfoEx(&p, sizeof(p), &slots, sizeof(slots));
        if (saw(calls, 0)) {
            out->has_time = true;
            out->time = slot_time;
        }
        if (saw(calls, 7)) lpr = &slot_lpr;
        if (slots.pucFrameRest != nullptr && slots.iFrameRestLen >= 0) {
            out->rest_len = slots.iFrameRestLen;
        }
    }
    out->ran = true;
    add_targets(vca->atTarget, vca->atTargetRaw, vca->usTargetCount > 32 ? 32 : vca->usTargetCount, false, &out->vca);
    add_targets(vca->atTargetNew, vca->atTargetNewRaw, vca->usTargetNewCount > 128 ? 128 : vca->usTargetNewCount,
                true, &out->vca);
    if (lpr != nullptr) add_plates(*lpr, o.raw_text, &out->plates);

    int previous = -1;
    for (const Call &c : calls) {
        out->callbacks.push_back(c.type);
        if (c.type == 8) {
            out->osd.push_back(osd_view(c, o.raw_text));
        } else if (c.type > 44 && c.type != kEndOfWalk) {
            // A new container reports targets and OSD blocks a second time, raw: shown once.
            bool repeat = (c.type == 0xFED2 && previous == 3) || (c.type == 0xFEDC && previous == 8);
            if (!repeat) out->blocks.push_back(raw_view(c));
        } else if (c.type != kEndOfWalk && c.type != 0 && c.type != 3 && c.type != 7 && c.type != 43 &&
                   c.type != 44) {
            out->records.push_back(raw_view(c));
        }
        previous = c.type;
    }

    switch (out->result) {
    case 0: out->status = calls.empty() ? UserDataStatus::kNone : UserDataStatus::kOk; break;
    case -105:
        // The two-layout analysis answers so for every frame that doesn't begin with user data.
        out->status = o.two_layout && !starts_with_user_data(frame + 32, held - 32, codec) ? UserDataStatus::kNone
                                                                                           : UserDataStatus::kMalformed;
        break;
    case -106: out->status = UserDataStatus::kFragment; break;
    default: out->status = UserDataStatus::kError; break;
    }
    if (!o.two_layout && out->status == UserDataStatus::kNone && held > 32 && starts_with_user_data(frame + 32, held - 32, codec)) {
        // A container the single-frame analysis passes over (the new layout): the two-layout analysis
        // reads either layout, here for every type.
        AnalysisOptions all = o;
        all.two_layout = true;
        all.type = 255;
        all.mask = 0x7FFFFFFF;
        *out = UserDataReport();
        analyse_user_data(all, frame, held, codec, split_state, split_state_size, out);
        out->two_layout = true;
    }
}

const char *status_name(UserDataStatus s) {
    switch (s) {
    case UserDataStatus::kOk: return "ok";
    case UserDataStatus::kMalformed: return "malformed";
    case UserDataStatus::kFragment: return "fragment";
    case UserDataStatus::kError: return "error";
    default: return "none";
    }
}

const char *userdata_result_text(int code) {
    switch (code) {
    case 0: return "done";
    case -100: return "information type out of range";
    case -101: return "a pointer is null or a position lies beyond the frame";
    case -102: return "no frame, or an invalid frame header";
    case -104: return "frame length 0 or below";
    case -105: return "malformed user data";
    case -106: return "fragment of a split container stored; the container continues in the next frames";
    default: return "unknown result";
    }
}

const char *record_name(int type) {
    switch (type) {
    case 0: return "absolute time";
    case 3: case 43: case 44: return "VCA targets";
    case 4: return "user-defined data";
    case 5: return "vital signs";
    case 6: return "demographics";
    case 7: return "plate";
    case 8: return "OSD";
    case 9: return "LDC information";
    case 10: return "ZF mark";
    case 11: return "VCA source video";
    case 12: return "VCA time stamp";
    case 13: return "VCA target attributes";
    case 15: return "PTZ data";
    case 28: return "law case data";
    case 29: return "video watermark";
    case 30: return "user watermark";
    case 31: return "police clothing";
    case 32: return "vest clothing";
    case 34: return "HMAC";
    case 35: return "PTZ position";
    case 37: return "HMAC check";
    case 38: return "VCA source video size";
    case 39: return "VCA source video size enabled";
    case 40: return "target track style";
    case 42: return "added watermark";
    default: return nullptr;
    }
}

}  // namespace kxc
