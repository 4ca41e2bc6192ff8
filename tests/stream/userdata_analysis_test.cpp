// User-data analysis end to end through SA_GetUserDataInfoEx: the single-frame analysis, the two-layout
// analysis, split containers, the entry checks, and a user-data unit in a real H.264 access unit.
#include <gtest/gtest.h>

#include <string.h>

#include <memory>

#include "stream/userdata_internal.h"
#include "support/frame_builder.h"
#include "support/stderr_capture.h"

using fb::Bytes;

namespace {

const int kEnd = KX_UD_CB_END;

struct Analysis : ::testing::Test {
    fb::CallbackLog log;
    std::unique_ptr<TUserDataSplitState> state{new TUserDataSplitState()};
    alignas(8) uint8_t out[8192] = {};  // room for every record of the single-frame analysis
    tagUserDataOut slots = {};          // the two-layout analysis's output unless a test gives one
    int state_size = sizeof(TUserDataSplitState);

    int run(const Bytes &frame, int type, int mask = 0, void *o = nullptr, int osize = 0, int encode = 21) {
        tagUserDataInfoPara in = {};
        in.iType = type, in.pucFrameBuf = frame.data(), in.iFrameLen = int(frame.size()), in.iEncode = encode;
        in.iCbHandle = 77, in.pfnUserDataCb = fb::CallbackLog::callback, in.pvCbUser = &log;
        in.iSplitStateSize = state_size, in.pvSplitState = state.get(), in.iTypeMask = mask;
        if (o == nullptr && mask > 0) o = &slots, osize = sizeof(slots);
        if (o == nullptr) o = out, osize = sizeof(out);
        return SA_GetUserDataInfoEx(&in, sizeof(in), o, osize);
    }
    std::vector<int> types() {
        std::vector<int> t = log.types();
        log.calls.clear();
        return t;
    }
};

Bytes opaque(uint8_t v = 0x11) {
    return Bytes(8, v);
}
Bytes time_block(uint32_t s = 1700000000) {
    return fb::block(0xFED3, fb::le32(s));
}
Bytes record18() {
    return fb::cat({fb::le16(18), fb::le16(5000), fb::le16(5000), fb::le16(10000), Bytes(10, 1)});
}
Bytes old_frame(const Bytes &c, uint32_t no = 1, int encode = 21) {
    return fb::frame(fb::unit(encode, fb::kOld, c), {.frame_no = no});
}

// A container with a block of every type that the single-frame table names.
Bytes every_block() {
    std::vector<Bytes> b = {time_block(),
                            fb::block(0xFED1, opaque()),
                            fb::block(0xFED4, opaque()),
                            fb::block(0xFED2, fb::cat({fb::le16(1), Bytes(16, 5)})),
                            fb::block(0xFEE3, record18()),
                            fb::block(0x0001, opaque()),
                            fb::block(0xFED5, fb::cat({fb::le32(1), opaque()}))};
    for (int t : {0xFEDA, 0xFED9, 0xFEDC, 0xFEDD, 0xFEDE, 0xFEDF, 0xFEE0, 0xFEE1, 0xFEE2, 0xFEE8, 0xFEE9,
                  0xFEE6, 0xFEE7, 0xFEF7})
        b.push_back(fb::block(uint16_t(t), opaque()));
    return fb::container("QZST", b);
}

}  // namespace

TEST_F(Analysis, EachTypeReachesOnlyItsDecoder) {
    const Bytes f = old_frame(every_block());
    const std::vector<std::pair<int, std::vector<int>>> table = {
        {0, {0}},       {1, {}},        {2, {}},        {3, {3, 43}}, {4, {4}},       {5, {5}},
        {6, {6}},       {7, {7}},       {8, {8}},       {9, {9}},     {10, {10}},     {11, {0}},
        {12, {12}},     {13, {13}},     {14, {0xFEE1}}, {15, {15}},   {16, {0xFEE8}}, {17, {0xFEE9}},
        {18, {0xFEE6}}, {19, {0xFEE7}}, {46, {0}}};
    for (const auto &row : table) {
        memset(out, 0, sizeof(out));
        reinterpret_cast<tagLprInfo *>(out)->iEntrySize = 120;
        EXPECT_EQ(row.first == 1 || row.first == 2 ? -105 : 0, run(f, row.first)) << row.first;
        std::vector<int> want = row.second;
        want.push_back(kEnd);
        EXPECT_EQ(want, types()) << row.first;
        if (row.first == 0) {
            EXPECT_EQ(2023, reinterpret_cast<__S_AbsoluteTime *>(out)->usYear);
        }
        if (row.first == 3) {
            EXPECT_EQ(2, reinterpret_cast<tagVcaTargetGet *>(out)->usTargetCount);
        }
        if (row.first == 7) {
            EXPECT_EQ(1, reinterpret_cast<tagLprInfo *>(out)->iCount);
        }
    }
    // A record smaller than the caller says it holds is left alone; the block still reaches the callback.
    memset(out, 0, sizeof(out));
    EXPECT_EQ(0, run(f, 0, 0, out, sizeof(__S_AbsoluteTime) - 1));
    EXPECT_EQ(0, reinterpret_cast<__S_AbsoluteTime *>(out)->usYear);
    EXPECT_EQ((std::vector<int>{0, kEnd}), types());
}

TEST_F(Analysis, AllTypesFillTheAllRecord) {
    std::unique_ptr<tagUserDataAll> all(new tagUserDataAll());
    all->tLpr.iEntrySize = 120;
    EXPECT_EQ(0, run(old_frame(every_block()), 255, 0, all.get(), sizeof(tagUserDataAll)));
    EXPECT_EQ((std::vector<int>{0,  3,  43,     4,  7,      5,      6,      8,      9,  10,
                                12, 13, 0xFEE1, 15, 0xFEE8, 0xFEE9, 0xFEE6, 0xFEE7, 34, kEnd}),
              types());  // 0xFED1 and 0xFED4 have no answer, but later blocks set the result back
    EXPECT_EQ(2023, all->tAbsTime.usYear);
    EXPECT_TRUE(all->bTimeValid && all->bUserDefineValid && all->bLprValid && all->bVitalSignValid &&
                all->bDemographicsValid && all->bLdcValid && all->bZfMarkValid);
    EXPECT_EQ(1, all->tLpr.iCount);
    EXPECT_EQ(-105, run(old_frame(fb::container("QZST", {time_block(), fb::block(0xFED4, {})})), 255, 0,
                        all.get(), sizeof(tagUserDataAll)));
    EXPECT_EQ((std::vector<int>{0, kEnd}), types());
}

TEST_F(Analysis, TwoLayoutMasksNewDispatchAndFrameRest) {
    const Bytes old_c =
        fb::container("QZST", {time_block(), fb::block(0xFED5, fb::cat({fb::le32(1), opaque()})),
                               fb::block(0xFED1, opaque()), fb::block(0xFEDF, fb::le32(0xAABBCCDD))});
    const Bytes new_c =
        fb::container("QZSS", {fb::block(0xFED2, fb::cat({fb::le16(1), Bytes(16, 0)})),
                               fb::block(0xFEDC, opaque()), fb::block(0xFEDF, fb::le32(0x01020304)),
                               fb::block(0xFEFE, opaque(0x77)), fb::block(0xFEE3, record18()),
                               fb::block(0xFED1, opaque()), fb::block(0xFEF2, opaque()), time_block(7)});
    const Bytes rest = {0, 0, 0, 1, 0x65, 0x88, 0x80};
    const Bytes f = fb::frame(fb::cat({fb::unit(21, fb::kOld, old_c), fb::unit(21, fb::kNew, new_c), rest}));
    __S_AbsoluteTime t = {};
    std::unique_ptr<tagVcaTargetGet> vca(new tagVcaTargetGet());
    uint8_t stamp[4] = {}, wm[16] = {};
    slots.pTime = &t, slots.pVca = vca.get(), slots.iVcaSize = sizeof(*vca);
    slots.pVcaStampNew = stamp, slots.iVcaStampNewSize = 4, slots.pWatermarkAdd = wm,
    slots.iWatermarkAddSize = 12;
    // Type 3 with the bits of time and VCA time stamps: the mask decides, the type counts only as not 255.
    EXPECT_EQ(0, run(f, 3, 1 << 0 | 1 << 12, &slots, sizeof(slots)));
    EXPECT_EQ((std::vector<int>{0, 12, kEnd, 0, kEnd}), types());
    EXPECT_EQ(7u, t.uiSeconds);  // the new container's time came last
    EXPECT_EQ(fb::le32(0x01020304), Bytes(stamp, stamp + 4));
    EXPECT_EQ(rest, Bytes(slots.pucFrameRest, slots.pucFrameRest + slots.iFrameRestLen));
    EXPECT_EQ(f.data() + f.size() - rest.size(), slots.pucFrameRest);
    // Type 255: every block; in the new layout a second raw report of 0xFED2 and 0xFEDC, the watermark
    // from its head on, and the blocks that an old container ignores.
    EXPECT_EQ(0, run(f, 255, 1, &slots, sizeof(slots)));
    EXPECT_EQ((std::vector<int>{0, 7, 12, kEnd, 3, 0xFED2, 8, 0xFEDC, 42, 44, 0xFED1, 29, 0, kEnd}), types());
    EXPECT_EQ(fb::block(0xFEFE, opaque(0x77)), Bytes(wm, wm + 12));
    EXPECT_EQ(1, vca->usTargetNewCount);
    EXPECT_EQ(88, vca->atTargetNew[0].ausWord[0]);
    // Without a pattern at the very start the two-layout analysis refuses the frame.
    EXPECT_EQ(-105,
              run(fb::frame(fb::cat({{0x55}, fb::unit(21, fb::kOld, old_c)})), 0, 1, &slots, sizeof(slots)));
    tagUserDataInfoPara in = {};
    in.pucFrameBuf = f.data(), in.iFrameLen = int(f.size()), in.iEncode = 21, in.iTypeMask = 1;
    EXPECT_EQ(-101, SA_GetUserDataInfoEx(&in, sizeof(in), nullptr, 0));
}

TEST_F(Analysis, EveryWatermarkBlockOfAFrameGetsTheCallersCapacity) {
    // The buffer holds the stated 10 bytes plus the 4 of the block head, on the heap so that ASan sees
    // a byte written past it. A second block must not be offered the 14 that the first one left.
    std::unique_ptr<uint8_t[]> wm(new uint8_t[14]());
    const Bytes first = fb::block(0xFEFE, Bytes(100, 0x11)), second = fb::block(0xFEFE, Bytes(100, 0x22));
    const Bytes short_one = fb::block(0xFEFE, Bytes(6, 0x33));
    for (const Bytes &last : {second, short_one}) {
        slots.pWatermarkAdd = wm.get(), slots.iWatermarkAddSize = 10;
        const Bytes f = fb::frame(fb::unit(21, fb::kNew, fb::container("QZST", {first, last})));
        EXPECT_EQ(0, run(f, 255, 1, &slots, sizeof(slots)));
        EXPECT_EQ((std::vector<int>{42, 42, kEnd}), types());
        const size_t stored = last.size() < 14 ? last.size() : 14;
        EXPECT_EQ(int(stored), slots.iWatermarkAddSize);  // the last block's bytes, head included
        EXPECT_EQ(Bytes(last.begin(), last.begin() + stored), Bytes(wm.get(), wm.get() + stored));
    }
}

TEST_F(Analysis, NewContainerStandsExactlyBehindTheOldOne) {
    // Size bytes FF 10 state 271; two emulation-prevention bytes make 273 in the stream, so the new pattern
    // is looked for at 6 + 2 + 273 + 1 = 282.
    Bytes payload(259, 0x22);
    payload[10] = 0, payload[11] = 0, payload[12] = 1, payload[50] = 0, payload[51] = 0, payload[52] = 2;
    const Bytes old_u = fb::unit(21, fb::kOld, fb::container("QZST", {fb::block(0x0001, payload)}));
    ASSERT_EQ(282u, old_u.size());
    ASSERT_EQ((Bytes{0xFF, 0x10}), Bytes(old_u.begin() + 6, old_u.begin() + 8));
    const Bytes new_u = fb::unit(21, fb::kNew, fb::container("QZST", {time_block()}));
    EXPECT_EQ(0, run(fb::frame(fb::cat({old_u, new_u})), 255, 1, &slots, sizeof(slots)));
    EXPECT_EQ((std::vector<int>{4, kEnd, 0, kEnd}), types());
    const Bytes early(old_u.begin(), old_u.end() - 1);
    EXPECT_EQ(0, run(fb::frame(fb::cat({early, new_u})), 255, 1, &slots, sizeof(slots)));
    EXPECT_EQ((std::vector<int>{4, kEnd}), types());
    EXPECT_EQ(0, run(fb::frame(fb::cat({old_u, {0}, new_u})), 255, 1, &slots, sizeof(slots)));
    EXPECT_EQ((std::vector<int>{4, kEnd}), types());
    // A first fragment in the old container doesn't keep the new one from being walked.
    const Bytes frag = fb::unit(21, fb::kOld, fb::container("QZSS", {opaque()}, 1, 100));
    EXPECT_EQ(-106, run(fb::frame(fb::cat({frag, new_u})), 255, 1, &slots, sizeof(slots)));
    EXPECT_EQ((std::vector<int>{0, kEnd}), types());
}

TEST_F(Analysis, SplitContainersJoinOverConsecutiveFrames) {
    const Bytes body = fb::cat({time_block(), fb::block(0x0001, Bytes(40, 0x66))});
    const Bytes p1(body.begin(), body.begin() + 10), p2(body.begin() + 10, body.begin() + 30),
        p3(body.begin() + 30, body.end());
    const Bytes first = fb::container("QZSS", {p1}, 2, int(body.size()));
    const Bytes further = fb::container("QZSC", {p2}, 1), last = fb::container("QZSE", {p3});
    for (int mask : {0, 1}) {  // both analyses join alike
        EXPECT_EQ(-106, run(old_frame(first, 100), 255, mask));
        EXPECT_EQ(-106, run(old_frame(further, 101), 255, mask));
        EXPECT_EQ(0, run(old_frame(last, 102), 255, mask));
        EXPECT_EQ((std::vector<int>{0, 4, kEnd}), types());
    }
    EXPECT_EQ(0, run(old_frame(last, 102), 0));  // the state stays: the same last fragment joins again
    EXPECT_EQ((std::vector<int>{0, kEnd}), types());
    // Out of sequence: a further fragment two frames on, a last one not directly behind the latest.
    EXPECT_EQ(-106, run(old_frame(first, 200), 255));
    EXPECT_EQ(-105, run(old_frame(further, 202), 255));
    EXPECT_EQ(-105, run(old_frame(last, 203), 255));
    EXPECT_EQ(10, state->aiFragLen[0] - 8);  // the first fragment is still in place
    // A last fragment directly behind the first is accepted (the joined size then fails the length test).
    EXPECT_EQ(-105, run(old_frame(last, 201), 255));
    EXPECT_EQ(0, run(old_frame(fb::container("QZSE", {fb::cat({p2, p3})}), 201), 255));
    EXPECT_EQ((std::vector<int>{0, 4, kEnd}), types());
    // Refused: a fragment that claims more than it carries, a join beyond 10240 bytes, no usable state.
    EXPECT_EQ(-106, run(old_frame(first, 300), 255));
    EXPECT_EQ(-105, run(old_frame(fb::container("QZSC", {p2}, 1, 900), 301), 255));
    EXPECT_EQ(300u, state->uiLastFrameNo);
    state->iFragCount = 10;
    for (int &len : state->aiFragLen) len = 1024;
    EXPECT_EQ(-105, run(old_frame(last, 301), 255));
    state_size = sizeof(TUserDataSplitState) - 1;
    EXPECT_EQ(-105, run(old_frame(first, 300), 255));
    EXPECT_EQ(0, run(old_frame(fb::container("QZST", {time_block()})), 255));
    EXPECT_EQ((std::vector<int>{0, kEnd}), types());
}

TEST_F(Analysis, PatternPositionsSizesAndEncodings) {
    const Bytes c = fb::container("QZST", {time_block()});
    for (int encode : {21, 23}) {
        const int last = encode == 21 ? 58 : 57;  // the pattern must end within the first 64 bytes
        for (int at : {last, last + 1}) {
            EXPECT_EQ(0, run(fb::frame(fb::cat({Bytes(at, 0x55), fb::unit(encode, fb::kOld, c)})), 0, 0, out,
                             sizeof(out), encode));
            EXPECT_EQ(at == last ? (std::vector<int>{0, kEnd}) : std::vector<int>{}, types()) << at;
        }
    }
    StderrCapture cap;
    cap.start();
    for (int mask : {0, 1}) {
        for (int stated : {8, 9, 1024, 1025}) {
            const Bytes f = old_frame(fb::container("QZST", {Bytes(stated - 8, 0x44)}, 0));
            EXPECT_EQ(stated == 8 || stated == 1025 ? -105 : 0, run(f, 0, mask)) << stated;
            types();
        }
        // Five size bytes of 255 state 1275; no sixth byte is read.
        EXPECT_EQ(-105,
                  run(fb::frame(fb::cat({fb::pattern(21, fb::kOld), Bytes(5, 0xFF), {4}, Bytes(1300, 1)})), 0,
                      mask));
        EXPECT_EQ(mask ? 0 : -105, run(old_frame(c), 0, mask, out, sizeof(out), 41));
        EXPECT_TRUE(types().empty());
    }
    // Length test: uiDataLen + 8 must equal the stated size, unless the stream length is 1024.
    EXPECT_EQ(-105, run(old_frame(fb::container("QZST", {Bytes(92, 0x44)}, 0, 91)), 0, 1));
    EXPECT_EQ(0, run(old_frame(fb::container("QZST", {Bytes(1016, 0x44)}, 0, 5)), 0, 1));
    EXPECT_EQ((std::vector<int>{kEnd}), types());
    // A block that runs past the container ends the walk; the blocks before it stand.
    const Bytes past = fb::container("QZST", {time_block(), fb::block(0x0001, opaque(), 100), time_block()});
    for (int mask : {0, 1}) {
        EXPECT_EQ(0, run(old_frame(past), 255, mask));
        EXPECT_EQ((std::vector<int>{0, kEnd}), types());
    }
    // New layout: six size bytes are fine, a size that reaches the end of the frame is not.
    const Bytes big = fb::container("QZST", {fb::block(0x0001, Bytes(1268, 0x44))});
    EXPECT_EQ(0, run(fb::frame(fb::unit(21, fb::kNew, big)), 0, 1 << 4));
    EXPECT_EQ((std::vector<int>{4, kEnd}), types());
    const Bytes nu = fb::unit(21, fb::kNew, fb::container("QZST", {time_block()}));
    EXPECT_EQ(-105, run(fb::frame(Bytes(nu.begin(), nu.end() - 2)), 0, 1));
    EXPECT_EQ(-105,
              run(fb::frame(fb::unit(21, fb::kNew, fb::container("QZST", {time_block()}, 1, 400))), 0, 1));
    EXPECT_NE(std::string::npos, cap.stop().find("[InnerAnalyzeUserData] iUserDataSize old, len=1025."));
}

TEST_F(Analysis, EntryChecksAndFrameLength) {
    const Bytes f = old_frame(fb::container("QZST", {time_block()}));
    tagUserDataInfoPara in = {};
    in.pucFrameBuf = f.data(), in.iFrameLen = int(f.size()), in.iEncode = 21;
    StderrCapture cap;
    cap.start();
    EXPECT_EQ(-101, SA_GetUserDataInfoEx(nullptr, sizeof(in), out, sizeof(out)));
    EXPECT_EQ(0, SA_GetUserDataInfoEx(&in, 24, out, sizeof(out)));  // no callback, state or mask
    EXPECT_EQ(2023, reinterpret_cast<__S_AbsoluteTime *>(out)->usYear);
    auto entry = [&](int type, int len) {
        in.iType = type, in.iFrameLen = len;
        return SA_GetUserDataInfoEx(&in, sizeof(in), out, sizeof(out));
    };
    EXPECT_EQ(-100, entry(47, int(f.size())));
    EXPECT_EQ(-100, entry(-1, int(f.size())));
    EXPECT_EQ(-102, entry(0, 31));
    EXPECT_EQ(-104, entry(0, 0));
    EXPECT_EQ(-102, SA_GetUserDataInfo(0, fb::header(100, 10).data(), 100, out, sizeof(out)));
    // Bytes that the caller holds beyond uiFrameLen are not the frame's.
    const Bytes hidden =
        fb::cat({fb::frame(Bytes(10, 0x55)), fb::unit(21, fb::kOld, fb::container("QZST", {}))});
    EXPECT_EQ(0, run(hidden, 255));
    EXPECT_TRUE(types().empty());
    // Every cut of a frame stays inside the bytes given; encryption flags play no part.
    Bytes two = fb::cat({fb::unit(21, fb::kOld, every_block()), fb::unit(21, fb::kNew, every_block())});
    for (size_t n = 32; n <= two.size() + 32; n++) {
        Bytes whole = fb::frame(two, {.frame_no = 9, .flags = uint16_t(n % 2 ? 0x82 : 0)});
        Bytes cut(whole.begin(), whole.begin() + n);
        const int rc0 = run(cut, 255), rc1 = run(cut, 255, 0x7FFFFFFF);
        EXPECT_TRUE(rc0 == 0 || rc0 == -105) << n;
        EXPECT_TRUE(rc1 == 0 || rc1 == -105) << n;
    }
    EXPECT_NE(std::string::npos, cap.stop().find("[InnerAnalyzeOldUserData] OldUDLen("));
    log.calls.clear();
    Bytes plain = fb::frame(two), marked = fb::frame(two, {.flags = 0x82});
    EXPECT_EQ(run(plain, 255, 3), run(marked, 255, 3));
    const std::vector<int> t = types();
    EXPECT_EQ(std::vector<int>(t.begin(), t.begin() + t.size() / 2),
              std::vector<int>(t.begin() + t.size() / 2, t.end()));
}

TEST_F(Analysis, UnitInARealH264AccessUnit) {
    const Bytes stream = fb::read_data_file("testsrc_baseline.h264");
    ASSERT_GT(stream.size(), 2000u);
    // The first access unit: SPS, PPS, an SEI and the IDR slice, up to the start code of the next picture.
    const uint8_t next_au[] = {0, 0, 0, 1, 0x41};
    const int au_len = FindPosByFlag(stream.data() + 4, int(stream.size()) - 4, next_au, 5) + 4;
    ASSERT_GT(au_len, 600);
    const Bytes au(stream.begin(), stream.begin() + au_len);
    const Bytes plate = fb::block(0xFED5, fb::cat({fb::le32(1), Bytes(8, 'K')}));
    // A new container in front of the access unit: the frame's rest is the access unit itself.
    const Bytes f =
        fb::frame(fb::cat({fb::unit(21, fb::kNew, fb::container("QZST", {plate})), au}), {.frame_no = 5});
    tagLprInfo lpr = {};
    lpr.iEntrySize = 120;
    slots.pLpr = &lpr;
    EXPECT_EQ(0, run(f, 0, 1 << 7));
    ASSERT_EQ(2u, log.calls.size());
    EXPECT_EQ(5u, log.calls[0].info.uiFrameNo);
    EXPECT_EQ((std::vector<int>{7, kEnd}), types());
    EXPECT_EQ('K', lpr.atEntry[0][0]);
    EXPECT_EQ(au, Bytes(slots.pucFrameRest, slots.pucFrameRest + slots.iFrameRestLen));
    EXPECT_EQ(1, H264_Probe(slots.pucFrameRest, slots.iFrameRestLen));
    // An old container behind the parameter sets, within the first 64 bytes: the single-frame analysis.
    const int sps_pps = 33;
    const Bytes u = fb::unit(21, fb::kOld, fb::container("QZST", {time_block()}));
    const Bytes g = fb::frame(
        fb::cat({Bytes(au.begin(), au.begin() + sps_pps), u, Bytes(au.begin() + sps_pps, au.end())}));
    EXPECT_EQ(0, run(g, 0));
    EXPECT_EQ((std::vector<int>{0, kEnd}), types());
    EXPECT_EQ(1700000000u, reinterpret_cast<__S_AbsoluteTime *>(out)->uiSeconds);
}
