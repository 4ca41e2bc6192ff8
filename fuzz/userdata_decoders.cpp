// Feeds arbitrary block payloads to every user-data decoder, with both output shapes, with null and real
// outputs, and with record and slot sizes taken from the input; also the container building blocks and
// the probes. Payloads and outputs live in buffers of their exact size, so ASan sees any byte read or
// written past them, and the callback reads every byte it is handed.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "korvex/korvex.h"
#include "stream/userdata_internal.h"

namespace {

volatile uint32_t g_sink;

int read_all(int, int, const void *data, int len, TUserDataFrameInfo *info, void *) {
    uint32_t sum = info->uiFrameNo;
    const uint8_t *p = static_cast<const uint8_t *>(data);
    for (int i = 0; p != nullptr && i < len; i++) sum += p[i];
    g_sink = sum;
    return 0;
}

// A heap buffer of exactly n bytes (at least 1, so that the pointer is real).
struct Exact {
    explicit Exact(size_t n) : bytes(n ? n : 1) {}
    void *get() { return bytes.data(); }
    std::vector<uint8_t> bytes;
};

struct Input {
    const uint8_t *p;
    size_t n;
    uint8_t take() {
        if (n == 0) return 0;
        n--;
        return *p++;
    }
    int take16() { return take() | (take() << 8); }
};

using FormA = void (*)(bool, const void *, void *, int, const _tagInnerFramePara *);
using FormB = void (*)(bool, const void *, int, void *, int, const _tagInnerFramePara *);
using FormC = void (*)(const void *, int, tagUserDataOut *, const _tagInnerFramePara *);

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sdk_log_set_level(0, 0, 0);  // null payloads log; keep the run quiet
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    const int vca_size = in.take16() % (sizeof(tagVcaTargetGet) + 64);
    const int slot_size = in.take16() % 400 - 8;  // slot capacities, some 0 or below
    const int entry_size = (int8_t)in.take();     // iEntrySize of the plate record, some above 120
    const uint8_t null_mask = in.take();
    std::vector<uint8_t> payload_bytes(in.p, in.p + in.n);
    const int len = int(payload_bytes.size());
    Exact payload_buf(payload_bytes.size());
    if (len > 0) memcpy(payload_buf.get(), payload_bytes.data(), payload_bytes.size());
    const void *payload = (null_mask & 4) ? nullptr : payload_buf.get();

    uint8_t header[32] = {};
    _tagInnerFramePara para = {};
    para.ptFrmHeader = reinterpret_cast<const __S_FrameHeader *>(header);
    para.pfnUserDataCb = read_all;
    const _tagInnerFramePara *pp = (null_mask & 1) ? nullptr : &para;

    static const FormA form_a[] = {GetFrameAbsoluteTime, GetUserDefineData, GetVitalSignData,
                                   GetDemographicsInfo,  GetLPRInfo,        GetOsdExInfo,
                                   GetLdcInfo,           GetZFMarkInfo};
    static const size_t form_a_size[] = {
        sizeof(__S_AbsoluteTime), sizeof(tagUserDefineData), 552, 536, sizeof(tagLprInfo), 544, 136, 12};
    for (size_t i = 0; i < sizeof(form_a) / sizeof(form_a[0]); i++) {
        form_a[i](false, payload, nullptr, len, pp);
        Exact one(form_a_size[i]);
        if (form_a[i] == GetLPRInfo) static_cast<tagLprInfo *>(one.get())->iEntrySize = entry_size;
        form_a[i](false, payload, one.get(), len, pp);
        Exact all(sizeof(tagUserDataAll));
        static_cast<tagUserDataAll *>(all.get())->tLpr.iEntrySize = entry_size;
        form_a[i](true, payload, all.get(), len, pp);
    }

    static const FormB form_b[] = {GetVcaTargetnfo,    GetVcaTargetnfoEx,        GetVcaSrcVideo,
                                   GetVcaSrcVideoSize, GetVcaSrcVideoSizeEnable, GetVcaTimestamp,
                                   GetPtzData};
    for (FormB f : form_b) {
        f(false, payload, len, nullptr, vca_size, pp);
        Exact rec(vca_size);
        f(false, payload, len, vca_size ? rec.get() : nullptr, vca_size, pp);
        f(false, payload, len, rec.get(), vca_size, pp);  // fills a second time on top
        Exact all(sizeof(tagUserDataAll));
        f(true, payload, len, all.get(), sizeof(tagUserDataAll), pp);
    }
    Exact vca_rec(vca_size);
    GetVcaTargetnfoNew(payload, len, static_cast<tagVcaTargetGet *>(vca_rec.get()), vca_size, pp);
    GetVcaTargetnfoNew(payload, len, static_cast<tagVcaTargetGet *>(vca_rec.get()), vca_size, pp);

    // Slot decoders: every slot a buffer of its stated capacity (plus the 4 that GetWatermarkAddData
    // counts), or null where the mask says so.
    static const FormC form_c[] = {
        GetLawCaseData, GetWaterMarkVideoData, GetWaterMarkUserData, GetPoliceClothInfo,  GetVestClothInfo,
        GetHmacInfo,    GetCheckHmacInfo,      GetTargetTrackStyle,  GetWatermarkAddData, GetPtzPosInfo};
    std::vector<Exact> slots;
    slots.reserve(16);
    tagUserDataOut out = {};
    auto give = [&](int32_t &size_field, void *&ptr_field, int extra) {
        size_field = slot_size;
        slots.emplace_back(slot_size + extra > 0 ? size_t(slot_size + extra) : 0);
        ptr_field = (null_mask & 2) ? nullptr : slots.back().get();
    };
    give(out.iWaterMarkVideoSize, out.pWaterMarkVideo, 0);
    give(out.iWaterMarkUserSize, out.pWaterMarkUser, 0);
    give(out.iPoliceClothSize, out.pPoliceCloth, 0);
    give(out.iVestClothSize, out.pVestCloth, 0);
    give(out.iHmacSize, out.pHmac, 0);
    give(out.iCheckHmacSize, out.pCheckHmac, 0);
    give(out.iTrackStyleSize, out.pTrackStyle, 0);
    give(out.iWatermarkAddSize, out.pWatermarkAdd, 4);
    give(out.iPtzPosSize, out.pPtzPos, 0);
    give(out.iVcaAttrSize, out.pVcaAttr, 0);
    give(out.iVcaAttrNewSize, out.pVcaAttrNew, 0);
    for (FormC f : form_c) {
        f(payload, len, nullptr, pp);
        f(payload, len, &out, pp);
        // The second block sees the first one's length as capacity; the watermark's size goes out with
        // its head counted, so it gets the caller's capacity again, as the analysis gives it.
        out.iWatermarkAddSize = slot_size;
        f(payload, len, &out, pp);
    }
    for (int sel = -1; sel <= 2; sel++) GetVcaTargetAttr(payload, len, &out, pp, sel);

    // Container building blocks on the same bytes.
    const uint8_t *src = static_cast<const uint8_t *>(payload_buf.get());
    static uint8_t work[KX_UD_NEW_MAX];
    int stated = len ? src[0] * 41 : 0;
    ud_revert(src, len, work, &stated, sizeof(work), sizeof(work));
    // The removal with room (sixteen bytes at a time) and without (byte by byte) must agree.
    static uint8_t exact[KX_UD_NEW_MAX];
    stated = len;
    int stated_exact = len;
    const int rc = ud_revert(src, len, work, &stated, sizeof(work), sizeof(work));
    if (rc != ud_revert(src, len, exact, &stated_exact, sizeof(exact), -1) || stated != stated_exact ||
        (rc == 0 && memcmp(work, exact, len < KX_UD_NEW_MAX ? len : KX_UD_NEW_MAX) != 0)) {
        __builtin_trap();
    }
    stated = len;
    ud_revert(src, len, work, &stated, 7, -1);
    int consumed;
    g_sink = ud_read_size_run(src, len, null_mask >> 4, &consumed);
    if (len >= 8) {
        TUserDataHeader h;
        g_sink = GetUserdataFlagType(src, h);
        TUserDataBlockHead bh;
        for (int pos = KX_UD_HEADER_LEN; ud_read_block_head(src, len, pos, &bh); pos += 4 + bh.usLen)
            g_sink = bh.usType;
    }
    g_sink = FindPosByFlag(src, len, "\x00\x00\x03", 3) + H264_Probe(src, len) + H265_Probe(src, len);
    return 0;
}
