// Feeds frames to SA_GetUserDataInfoEx with the information type, iEncode, iTypeMask and the sizes of
// the outputs taken from the input, and one split state that lives on from input to input (so that
// fragments of one input meet those of the next). The frame and every output live in heap buffers of
// their exact size, so ASan sees any byte read or written past them; the callback reads every byte it
// is handed, and the frame's rest must lie inside the frame.
//
// Input: type, encode, mask (4 bytes, little-endian), options, frame number (2 bytes), a size byte, then
// the frame's data (behind a header made valid here) or, with option bit 0, the whole frame as it comes.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "framegen.h"
#include "korvex/korvex.h"

namespace {

volatile uint32_t g_sink;

int read_all(int, int, const void *data, int len, TUserDataFrameInfo *info, void *) {
    uint32_t sum = info->uiFrameNo + (uint32_t)len;
    const uint8_t *p = static_cast<const uint8_t *>(data);
    for (int i = 0; p != nullptr && i < len; i++) sum += p[i];
    g_sink = sum;
    return 0;
}

struct Input {
    const uint8_t *p;
    size_t n;
    uint8_t take() {
        if (n == 0) return 0;
        n--;
        return *p++;
    }
};

// Heap buffers of exact sizes for one input.
struct Buffers {
    std::vector<std::vector<uint8_t>> all;
    void *get(size_t n) {
        all.emplace_back(n ? n : 1);
        return all.back().data();
    }
};

const int kTypes[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 46, 255, 47, -1};
const int kEncodes[] = {21, 22, 23, 41, 0};

// The record of the single-frame analysis for each information type (index into kTypes).
size_t record_size(int type) {
    switch (type) {
        case 0:
        case 11:
        case 46:
            return sizeof(__S_AbsoluteTime);
        case 3:
            return sizeof(tagVcaTargetGet);
        case 4:
            return sizeof(tagUserDefineData);
        case 5:
            return 552;
        case 6:
            return 536;
        case 7:
            return sizeof(tagLprInfo);
        case 8:
            return 544;
        case 9:
            return 136;
        case 10:
            return 12;
        case 12:
            return 4;
        case 13:
            return sizeof(tagUserDataOut);
        case 255:
            return sizeof(tagUserDataAll);
        default:
            return 16;
    }
}

TUserDataSplitState *split_state() {
    static TUserDataSplitState *state =
        static_cast<TUserDataSplitState *>(calloc(1, sizeof(TUserDataSplitState)));
    return state;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sdk_log_set_level(0, 0, 0);  // malformed data logs; keep the run quiet
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    const int type = kTypes[in.take() % (sizeof(kTypes) / sizeof(kTypes[0]))];
    const int encode = kEncodes[in.take() % (sizeof(kEncodes) / sizeof(kEncodes[0]))];
    uint32_t mask = 0;
    for (int i = 0; i < 4; i++) mask |= (uint32_t)in.take() << (8 * i);
    const uint8_t opt = in.take();
    const uint32_t frame_no = in.take() | (in.take() << 8);
    const uint8_t size_byte = in.take();

    // The frame: the data as it comes behind a valid header, or (option bit 0) the whole of it as a frame.
    std::vector<uint8_t> frame;
    if (opt & 1) {
        frame.assign(in.p, in.p + in.n);
    } else {
        framegen::FrameHeader h;
        h.frame_no = frame_no;
        h.flags = (opt & 0x40) ? 0x82 : 0;  // encryption flags play no part
        frame = framegen::frame(framegen::Bytes(in.p, in.p + in.n), h);
    }
    if (frame.empty()) return 0;

    TUserDataSplitState *state = split_state();
    if (opt & 0x80) memset(state, 0, sizeof(*state));
    if (opt & 0x20) {
        // A caller's state with counts and lengths out of range.
        state->iFragCount = (int8_t)size_byte;
        for (int i = 0; i < 10; i++) state->aiFragLen[i] = (int)size_byte * 9 - 300 + i;
    }

    tagUserDataInfoPara para = {};
    para.iSize = sizeof(para);
    para.iType = type;
    para.pucFrameBuf = frame.data();
    para.iFrameLen = (int)frame.size();
    para.iEncode = encode;
    para.iCbHandle = 1;
    para.pfnUserDataCb = (opt & 2) ? nullptr : read_all;
    para.iSplitStateSize = (opt & 4) ? (int)sizeof(*state) - 1 : (int)sizeof(*state);
    para.pvSplitState = (opt & 8) ? nullptr : state;
    para.iTypeMask = (int32_t)mask;

    // A record of 24 bytes ends behind iEncode: no callback, no state, no mask.
    const int para_size = ((opt & 0x10) && (size_byte & 1)) ? 24 : (int)sizeof(para);
    Buffers buf;
    void *out;
    int out_size;
    tagUserDataOut slots = {};
    if ((int32_t)mask > 0 && para_size == (int)sizeof(para)) {
        // Every slot a buffer of the capacity that it states (4 more for the watermark head), some small.
        const int cap = size_byte % 64 + ((opt & 0x10) ? 0 : 200);
        slots.pOsd = buf.get(544);
        slots.iVcaSize = (opt & 0x10) ? size_byte * 31 : (int)sizeof(tagVcaTargetGet);
        slots.pVca = buf.get(slots.iVcaSize);
        slots.pTime = buf.get(sizeof(__S_AbsoluteTime));
        slots.pLpr = buf.get(sizeof(tagLprInfo));
        static_cast<tagLprInfo *>(slots.pLpr)->iEntrySize = (int8_t)size_byte;
        slots.pDemographics = buf.get(536);
        slots.pVitalSign = buf.get(552);
        slots.pLdc = buf.get(136);
        slots.pZfMark = buf.get(12);
        slots.pUserDefine = buf.get(sizeof(tagUserDefineData));
        int32_t *sizes[] = {&slots.iVcaStampSize,    &slots.iVcaAttrSize,        &slots.iVcaStampNewSize,
                            &slots.iVcaAttrNewSize,  &slots.iWaterMarkVideoSize, &slots.iWaterMarkUserSize,
                            &slots.iPoliceClothSize, &slots.iVestClothSize,      &slots.iHmacSize,
                            &slots.iCheckHmacSize,   &slots.iPtzPosSize,         &slots.iTrackStyleSize,
                            &slots.iWatermarkAddSize};
        void **ptrs[] = {&slots.pVcaStamp,    &slots.pVcaAttr,        &slots.pVcaStampNew,
                         &slots.pVcaAttrNew,  &slots.pWaterMarkVideo, &slots.pWaterMarkUser,
                         &slots.pPoliceCloth, &slots.pVestCloth,      &slots.pHmac,
                         &slots.pCheckHmac,   &slots.pPtzPos,         &slots.pTrackStyle,
                         &slots.pWatermarkAdd};
        for (size_t i = 0; i < sizeof(sizes) / sizeof(sizes[0]); i++) {
            *sizes[i] = cap - 8;
            const int extra = (ptrs[i] == &slots.pWatermarkAdd) ? 4 : 0;
            *ptrs[i] = buf.get(cap - 8 + extra > 0 ? (size_t)(cap - 8 + extra) : 0);
        }
        out = &slots;
        out_size = sizeof(slots);
    } else {
        size_t n = record_size(type);
        if (opt & 0x10) n = n > size_byte ? n - size_byte : 0;  // a caller's record shorter than its type
        out = (opt & 0x20) && (opt & 2) ? nullptr : buf.get(n);
        out_size = (int)n;
        if (out != nullptr && type == 7 && n >= 8)
            static_cast<tagLprInfo *>(out)->iEntrySize = (int8_t)size_byte;
        if (out != nullptr && type == 255)
            static_cast<tagUserDataAll *>(out)->tLpr.iEntrySize = (int8_t)size_byte;
    }

    g_sink = (uint32_t)SA_GetUserDataInfoEx(&para, para_size, out, out_size);

    if (slots.pucFrameRest != nullptr) {
        // The frame's rest lies inside the frame's data and runs to its end.
        const uint8_t *begin = frame.data() + 32, *end = frame.data() + frame.size();
        if (slots.pucFrameRest < begin || slots.pucFrameRest > end || slots.iFrameRestLen < 0 ||
            slots.pucFrameRest + slots.iFrameRestLen > end)
            abort();
    }
    return 0;
}
