// Runs korvex-mkframe and korvex-dump on streams made from the committed test data and checks what the
// inspector prints, as text and as JSON, for sound, encrypted, broken and foreign input; checks the
// elementary streams of korvex-dump --es with ffprobe and the pictures of korvex-view pixel by pixel.
#if defined(KORVEX_DUMP) && defined(KORVEX_MKFRAME) && defined(KORVEX_VIEW)

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/frame_make.h"
#include "support/frame_builder.h"
#include "tool_run.h"

namespace {

using namespace tool_run;

std::string data(const std::string &name) { return std::string(KORVEX_TEST_DATA) + "/" + name; }

int count(const std::string &text, const std::string &what) {
    int n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++n;
    return n;
}

// Every frame carries a time (one second for each four frames), two targets, two plates, an OSD text,
// a PTZ block and a block that no decoder knows.
const std::string kUserData =
    "--start-time 2023-11-14T22:13:20Z --fps 4 --vca 1000,1000,5000,5000,7 --vca 0,0,10000,10000 "
    "--plate AB123CD --plate XY9 --osd 'Gate 3' --block 0xFEE2:010203 --block 0xFEE1:dead ";

class ToolsTest : public ToolDirTest {
protected:
    Result dump(const std::string &args) { return run(KORVEX_DUMP, args); }
    Result mkframe(const std::string &args) { return run(KORVEX_MKFRAME, args); }
    Result view(const std::string &args) { return run(KORVEX_VIEW, args); }

    // A stream of frames made from a test stream, with the common user data and the extra options.
    std::string make(const std::string &source, const std::string &extra = "") {
        std::string out = path("s.frames");
        Result r = mkframe("-q " + kUserData + extra + " -o " + out + " " + data(source));
        EXPECT_EQ(r.status, 0) << r.err;
        return out;
    }

};

void expect_common_records(const Json &ud, int frame) {
    EXPECT_EQ(ud["time"]["utc"], frame < 4 ? "2023-11-14T22:13:20Z" : "2023-11-14T22:13:21Z");
    EXPECT_EQ(ud["time"]["seconds"], 1700000000 + frame / 4);
    ASSERT_EQ(ud["vca"].size(), 2u);
    EXPECT_EQ(ud["vca"][0]["grid"], Json({17, 14, 88, 72}));
    EXPECT_EQ(ud["vca"][1]["grid"], Json({0, 0, 176, 144}));
    EXPECT_EQ(ud["plates"], Json({"AB123CD", "XY9"}));
    EXPECT_EQ(ud["osd"][0]["text"], "Gate 3");
    EXPECT_EQ(ud["records"][0]["hex"], "010203");
    EXPECT_EQ(ud["blocks"][0]["hex"], "dead");
}

TEST_F(ToolsTest, TextShowsTheDecodedRecordsOfEveryFrame) {
    Result r = dump(make("testsrc_high.h264"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(count(r.out, "time: 2023-11-14T22:13:20Z (1700000000)"), 4);
    EXPECT_EQ(count(r.out, "time: 2023-11-14T22:13:21Z (1700000001)"), 4);
    EXPECT_EQ(count(r.out, "target 1: (17,14)-(88,72) on 176x144, (6,6)-(32,32) in pixels of 64x64, unscaled "
                           "(1000,1000)-(5000,5000), words 7 0 0 0"), 8);
    EXPECT_EQ(count(r.out, "target 2: (0,0)-(176,144) on 176x144, (0,0)-(64,64) in pixels of 64x64, unscaled (0,0)-(10000,10000)"), 8);
    EXPECT_EQ(count(r.out, "plate 1: AB123CD\n    plate 2: XY9\n    osd 7: Gate 3\n"), 8);
    EXPECT_EQ(count(r.out, "PTZ data (type 15): 3 bytes: 01 02 03"), 8);
    EXPECT_EQ(count(r.out, "block 0xFEE1: 2 bytes: de ad"), 8);
    EXPECT_NE(r.out.find("frame 7 @ "), std::string::npos);
    EXPECT_NE(r.out.find("8 frames, 0 broken, 8 with user data, codec h264"), std::string::npos);
}

TEST_F(ToolsTest, EncryptedH265FramesWithTheRightWrongOrNoKey) {
    for (const char *mode : {"plain", "enhanced"}) {
        SCOPED_TRACE(mode);
        std::string frames = make("testsrc_main.h265", std::string("--encrypt ") + mode + " --key k3y");
        Result r = dump("--json --key k3y " + frames);
        ASSERT_EQ(r.status, 0) << r.err;
        std::vector<Json> json = json_lines(r.out);
        ASSERT_EQ(json.size(), 8u);
        for (int i = 0; i < 8; ++i) {
            const Json &f = json[i];
            EXPECT_TRUE(f["frame"] == i && f["frame_no"] == i + 1 && f["encryption"] == mode);
            EXPECT_EQ(f["decrypt"], "ok");
            EXPECT_EQ(f["userdata"]["codec"], "h265");
            expect_common_records(f["userdata"], i);
        }
        Result wrong = dump("--key wrong " + frames);
        EXPECT_EQ(wrong.status, 1);
        EXPECT_NE(wrong.err.find("frame 0 at offset 0: decryption failed: wrong key"), std::string::npos) << wrong.err;
        EXPECT_EQ(wrong.out.find("plate"), std::string::npos);
        EXPECT_NE(wrong.out.find("8 frames, 8 broken"), std::string::npos);
        Json none = json_lines(dump("--json " + frames).out).at(0);
        EXPECT_EQ(none["decrypt"], "no key");
        EXPECT_EQ(none["userdata"]["analysed"], false);
    }
}

TEST_F(ToolsTest, PlainModeLeavesShortFramesClear) {
    // Without user data the pictures behind the first are shorter than the 96 bytes the cipher needs.
    Result made = mkframe("--encrypt plain --key k -o " + path("p") + " " + data("testsrc_high.h264"));
    ASSERT_EQ(made.status, 0);
    EXPECT_NE(made.err.find("1 encrypted (plain), 7 too short to encrypt"), std::string::npos) << made.err;
    Result r = dump("--json --key k " + path("p"));
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<Json> frames = json_lines(r.out);
    ASSERT_EQ(frames.size(), 8u);
    EXPECT_EQ(frames[0]["decrypt"], "ok");
    for (int i = 1; i < 8; ++i) {
        EXPECT_LT(frames[i]["frame_len"].get<int>(), 96);
        EXPECT_EQ(frames[i]["encryption"], "none");
        EXPECT_EQ(frames[i]["flags"], 0);
    }
}

TEST_F(ToolsTest, NewLayoutIsReadByTheTwoLayoutAnalysis) {
    ASSERT_EQ(mkframe("-q -o " + path("bare") + " " + data("testsrc_slices.h265")).status, 0);
    std::vector<Json> bare = json_lines(dump("--json " + path("bare")).out);
    std::string frames = make("testsrc_slices.h265", "--layout new");
    Result found = dump(frames);  // the single-frame analysis passes the new layout over; the other reads it
    EXPECT_EQ(found.status, 0);
    EXPECT_EQ(count(found.out, "user data: ok (h265, two-layout analysis)"), 8);
    EXPECT_EQ(count(found.out, "plate 1: AB123CD"), 8);

    std::vector<Json> all = json_lines(dump("--json --mask all " + frames).out);
    ASSERT_EQ(all.size(), 8u);
    for (int i = 0; i < 8; ++i) {
        expect_common_records(all[i]["userdata"], i);
        EXPECT_EQ(all[i]["userdata"]["vca"][0]["layout"], "new");
        // What follows the unit is the access unit, as a frame without user data holds it.
        EXPECT_EQ(all[i]["userdata"]["frame_rest_len"], bare.at(i)["payload_len"]);
    }
    // Bit 0 selects the time block alone; bit 7 the plates alone.
    Json time_only = json_lines(dump("--json --mask 0x1 " + frames).out).at(0)["userdata"];
    EXPECT_EQ(time_only["time"]["seconds"], 1700000000);
    EXPECT_FALSE(time_only.contains("plates"));
    EXPECT_FALSE(time_only.contains("vca"));
    Json plates_only = json_lines(dump("--json --mask 0x80 " + make("testsrc_high.h264")).out).at(0)["userdata"];
    EXPECT_EQ(plates_only["plates"], Json({"AB123CD", "XY9"}));
    EXPECT_FALSE(plates_only.contains("time"));
}

TEST_F(ToolsTest, SplitContainerIsJoinedOverFramesFromStandardInput) {
    // Time and plate blocks in three fragments of frames 100 to 102: first, further, last.
    fb::Bytes blocks = fb::cat({fb::block(0xFED3, fb::le32(1700000000)), fb::block(0xFED5, kxt::plate_payload({"SPLIT1"}))});
    fb::Bytes parts[3] = {fb::Bytes(blocks.begin(), blocks.begin() + 10), fb::Bytes(blocks.begin() + 10, blocks.begin() + 20),
                          fb::Bytes(blocks.begin() + 20, blocks.end())};
    fb::Bytes containers[3] = {fb::container("QZSS", {parts[0]}, 2, int(blocks.size())),
                               fb::container("QZSC", {parts[1]}, 1), fb::container("QZSE", {parts[2]})};
    std::string stream;
    for (int i = 0; i < 3; ++i) {
        fb::FrameFields fields;
        fields.frame_no = 100 + uint32_t(i);
        fb::Bytes f = fb::frame(fb::cat({fb::unit(21, fb::kOld, containers[i]), {0, 0, 0, 1, 0x41, 0x9A}}), fields);
        stream.append(f.begin(), f.end());
    }
    spill(path("split"), stream);
    Result r = dump("--json - < " + path("split"));
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<Json> frames = json_lines(r.out);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0]["userdata"]["status"], "fragment");
    EXPECT_EQ(frames[1]["userdata"]["result"], -106);
    EXPECT_EQ(frames[2]["userdata"]["status"], "ok");
    EXPECT_EQ(frames[2]["userdata"]["time"]["seconds"], 1700000000);
    EXPECT_EQ(frames[2]["userdata"]["plates"], Json({"SPLIT1"}));
}

TEST_F(ToolsTest, BrokenInputIsReportedWithItsOffset) {
    std::string good = slurp(make("testsrc_high.h264"));
    std::vector<size_t> offsets;  // of each frame, from the uiFrameLen fields
    for (size_t off = 0; off + 32 <= good.size();) {
        offsets.push_back(off);
        off += uint8_t(good[off + 4]) | uint8_t(good[off + 5]) << 8 | uint8_t(good[off + 6]) << 16;
    }
    ASSERT_EQ(offsets.size(), 8u);

    spill(path("cut"), good.substr(0, good.size() - 10));
    Result cut = dump(path("cut"));
    EXPECT_EQ(cut.status, 1);
    std::string at7 = "frame 7 at offset " + std::to_string(offsets[7]) + ": truncated: the header says ";
    EXPECT_NE(cut.err.find(at7), std::string::npos) << cut.err;
    EXPECT_EQ(count(cut.out, "plate 1: AB123CD"), 8);  // the cut frame is read as far as it goes

    std::string bad = good;
    bad[offsets[3] + 4] ^= 0x01;  // uiFrameLen of frame 3 no longer matches its payload length
    spill(path("bad"), bad);
    Result mid = dump("--json " + path("bad"));
    EXPECT_EQ(mid.status, 1);
    EXPECT_NE(mid.err.find("frame 3 at offset " + std::to_string(offsets[3]) + ": invalid frame header"),
              std::string::npos) << mid.err;
    EXPECT_NE(mid.err.find("found the next frame header at offset " + std::to_string(offsets[4])),
              std::string::npos) << mid.err;
    std::vector<Json> frames = json_lines(mid.out);
    ASSERT_EQ(frames.size(), 8u);
    EXPECT_EQ(frames[3]["valid"], false);
    EXPECT_EQ(frames[7]["offset"], offsets[7]);
    EXPECT_EQ(frames[7]["userdata"]["plates"][0], "AB123CD");

    spill(path("garbage"), std::string(5000, '\xA5'));  // no text, no known kind: searched through
    Result garbage = dump(path("garbage"));
    EXPECT_EQ(garbage.status, 1);
    EXPECT_NE(garbage.err.find("frame 0 at offset 0: invalid frame header"), std::string::npos) << garbage.err;
    EXPECT_NE(garbage.err.find("no further frame header in the last 5000 bytes"), std::string::npos);

    spill(path("empty"), "");
    EXPECT_EQ(dump(path("empty")).status, 1);
    Result missing = dump(path("nothing-here"));
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.err.find("cannot open"), std::string::npos);
}

TEST_F(ToolsTest, LengthRunningOverTheNextHeaderGivesWayToIt) {
    std::string frames = slurp(make("testsrc_high.h264"));
    uint32_t first = uint8_t(frames[4]) | uint8_t(frames[5]) << 8;
    std::string big = frames;
    big[6] = 0x30, big[4] = big[5] = 0;             // uiFrameLen 3 MiB, the limit,
    uint32_t payload = 0x300000 - 32;                // and a payload length to match: a sound header
    for (int i = 0; i < 4; ++i) big[20 + i] = char(payload >> (8 * i));
    spill(path("big"), big);
    Result r = dump("--json " + path("big"));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("frame 0 at offset 0: the header says 3145728 bytes, but the next frame header follows " +
                         std::to_string(first) + " bytes on"), std::string::npos) << r.err;
    std::vector<Json> json = json_lines(r.out);
    ASSERT_EQ(json.size(), 8u);  // nothing behind the wrong length is lost
    for (int i = 0; i < 8; ++i) expect_common_records(json[i]["userdata"], i);

    // A length 8 bytes too long, so that the next header begins inside it and runs past it, found
    // alone and where the wrong length ends at the walk's first 64 KiB read, behind a filler frame.
    std::string longer = frames;
    longer[4] = char(first + 8), longer[5] = char((first + 8) >> 8);
    longer[20] = char(first - 24), longer[21] = char((first - 24) >> 8);
    std::string filler(65536 - first - 8, '\xff');
    filler.replace(0, 32, std::string(32, '\0'));
    for (int i = 0; i < 4; ++i) {
        filler[4 + i] = char(filler.size() >> (8 * i));
        filler[20 + i] = char((filler.size() - 32) >> (8 * i));
    }
    spill(path("longer"), longer);
    spill(path("filler"), filler + longer);
    EXPECT_NE(dump("-q " + path("longer")).out.find("8 frames, 1 broken, 8 with user data"), std::string::npos);
    Result across = dump("-q " + path("filler"));
    EXPECT_NE(across.out.find("9 frames, 1 broken, 8 with user data"), std::string::npos) << across.out << across.err;

    std::string over = frames;
    over[4] = over[5] = 0, over[6] = 0x40;  // 4 MiB: above the limit, named
    spill(path("over"), over);
    Result o = dump("-q " + path("over"));
    EXPECT_NE(o.err.find("uiFrameLen 4194304 is above the limit of 3145728 bytes"), std::string::npos) << o.err;
    EXPECT_NE(o.out.find("8 frames, 1 broken, 7 with user data"), std::string::npos) << o.out;

    spill(path("empty"), "");
    for (const char *mode : {"", "--probe ", "--index 0 ", "--es x.h264 "}) {
        Result e = dump(mode + path("empty"));
        EXPECT_EQ(e.status, 1) << mode;
        EXPECT_NE(e.err.find("is empty"), std::string::npos) << e.err;
    }
    Result idx = dump("--index 0 " + path("big"));
    EXPECT_NE(idx.err.find("is not a usable I-frame index: the block is too short"), std::string::npos) << idx.err;
}

TEST_F(ToolsTest, ElementaryStreamDecodesWithFfprobe) {
    for (const char *source : {"testsrc_high.h264", "testsrc_main.h265"}) {
        for (const char *mode : {"plain", "enhanced"}) {
            SCOPED_TRACE(std::string(source) + " " + mode);
            std::string frames = make(source, std::string("--encrypt ") + mode + " --key k3y");
            Result r = dump("--key k3y --es " + path("es") + " " + frames);
            ASSERT_EQ(r.status, 0) << r.err;
            Result probe = run(FFPROBE, "-v error -count_frames -show_entries stream=codec_name,nb_read_frames "
                                        "-of csv=p=0 " + path("es"));
            EXPECT_EQ(probe.err, "");
            EXPECT_EQ(probe.out, std::string(source[strlen(source) - 1] == '4' ? "h264" : "hevc") + ",8\n");
            std::string es = slurp(path("es"));
            EXPECT_EQ(es.find("QZST"), std::string::npos);  // the user-data units are gone
            ASSERT_EQ(dump("--key k3y --keep-sei --es - " + frames).status, 0);
            EXPECT_EQ(count(slurp(path("out.txt")), "QZST"), 8);
        }
    }
    // Without the key nothing is written: no file, a sentence, exit 1.
    Result none = dump("--es " + path("nokey") + " " + path("s.frames"));
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("frame 0 is encrypted: give --key"), std::string::npos) << none.err;
    EXPECT_FALSE(exists("nokey"));
}

// The pixel of a 24-bit picture at (x, y).
struct Rgb {
    int r, g, b;
};
Rgb pixel(const std::string &rgb, int width, int x, int y) {
    size_t at = (size_t(y) * size_t(width) + size_t(x)) * 3;
    return {uint8_t(rgb.at(at)), uint8_t(rgb.at(at + 1)), uint8_t(rgb.at(at + 2))};
}
bool same(Rgb a, Rgb b, int tolerance = 0) {
    return abs(a.r - b.r) <= tolerance && abs(a.g - b.g) <= tolerance && abs(a.b - b.b) <= tolerance;
}

TEST_F(ToolsTest, ViewDrawsTargetsTimeAndPlates) {
    // One target in the right half, clear of the text at the top and bottom left; 320 x 320 pictures.
    ASSERT_EQ(mkframe("-q --start-time 2024-05-01T08:00:00Z --vca 5000,4000,9000,8000 --plate AB123CD --encrypt "
                      "enhanced --key k -o " + path("v.frames") + " " + data("testsrc_main.h265")).status, 0);
    Result drawn = view("--key k --width 320 --frame 2 --png " + path("on") + " " + path("v.frames"));
    ASSERT_EQ(drawn.status, 0) << drawn.err;
    EXPECT_EQ(drawn.out, path("on") + "/frame_000002.png\n");
    ASSERT_EQ(view("-q --no-overlay --key k --width 320 --frame 2 --png " + path("off") + " " + path("v.frames")).status, 0);
    std::string on, off;
    for (const char *name : {"on", "off"}) {
        Result raw = run(FFMPEG, std::string("-v error -i ") + path(name) + "/frame_000002.png -f rawvideo -pix_fmt rgb24 " +
                                     path(name) + ".rgb");
        ASSERT_EQ(raw.status, 0) << raw.err;
        (name[1] == 'n' ? on : off) = slurp(path(name) + ".rgb");
    }
    ASSERT_EQ(on.size(), 320u * 320 * 3);
    ASSERT_EQ(off.size(), on.size());
    const Rgb amber = {0xFF, 0x99, 0x00};
    // Edges at x 160 and 288, y 128 and 256, 2 pixels thick: the box colour on each, nothing inside.
    for (int y : {150, 192, 240}) {
        EXPECT_TRUE(same(pixel(on, 320, 160, y), amber, 24)) << y;
        EXPECT_TRUE(same(pixel(on, 320, 287, y), amber, 24)) << y;
        EXPECT_TRUE(same(pixel(on, 320, 165, y), pixel(off, 320, 165, y))) << y;
        EXPECT_TRUE(same(pixel(on, 320, 224, y), pixel(off, 320, 224, y))) << y;
    }
    for (int x : {170, 224, 280}) {
        EXPECT_TRUE(same(pixel(on, 320, x, 128), amber, 24)) << x;
        EXPECT_TRUE(same(pixel(on, 320, x, 255), amber, 24)) << x;
        EXPECT_TRUE(same(pixel(on, 320, x, 200), pixel(off, 320, x, 200))) << x;
    }
    // The time at the top left and the plate at the bottom left change the picture there.
    auto changed = [&](int y0, int y1) {
        int n = 0;
        for (int y = y0; y < y1; ++y) {
            for (int x = 0; x < 120; ++x) n += same(pixel(on, 320, x, y), pixel(off, 320, x, y), 8) ? 0 : 1;
        }
        return n;
    };
    EXPECT_GT(changed(0, 20), 600);
    EXPECT_GT(changed(300, 320), 600);
    EXPECT_EQ(changed(100, 120), 0);

    // A video file with the overlays: every frame in it.
    ASSERT_EQ(view("-q --key k -o " + path("v.mkv") + " " + path("v.frames")).status, 0);
    Result probe = run(FFPROBE, "-v error -count_frames -show_entries stream=nb_read_frames -of csv=p=0 " + path("v.mkv"));
    EXPECT_EQ(probe.out, "8\n");
}

TEST_F(ToolsTest, ViewRefusesBrokenInputWithASentence) {
    spill(path("garbage"), std::string(5000, '\xA5'));
    Result g = view("--png " + path("png") + " " + path("garbage"));
    EXPECT_EQ(g.status, 1);
    EXPECT_NE(g.err.find("no picture decoded"), std::string::npos) << g.err;
    Result v = view("-o " + path("out.mp4") + " " + path("garbage"));
    EXPECT_EQ(v.status, 1);
    EXPECT_FALSE(exists("out.mp4"));
    std::string frames = slurp(make("testsrc_high.h264"));
    spill(path("cut"), frames.substr(0, frames.size() / 2));
    Result cut = view("--png " + path("cut.png") + " " + path("cut"));
    EXPECT_EQ(cut.status, 1);
    EXPECT_NE(cut.err.find("truncated"), std::string::npos) << cut.err;
    EXPECT_EQ(view("--png a -o b.mp4 " + path("cut")).status, 2);
    EXPECT_EQ(view("--png " + path("p") + " --frame 99 " + path("s.frames")).status, 1);
}

TEST_F(ToolsTest, Gb18030PlateAndOsdComeOutAsUtf8) {
    // The plate 京A12345 and the OSD text 中文 in GB18030, as many devices write them.
    std::string frames = make("testsrc_high.h264", "--plate \"$(printf '\\276\\251A12345')\" "
                                                   "--osd \"$(printf '\\326\\320\\316\\304')\"");
    Json ud = json_lines(dump("--json " + frames).out).at(0)["userdata"];
    EXPECT_EQ(ud["plates"][2], "\xe4\xba\xac" "A12345");
    EXPECT_EQ(ud["osd"][1]["text"], "\xe4\xb8\xad\xe6\x96\x87");
    Result raw = dump("--raw-text " + frames);
    EXPECT_NE(raw.out.find("plate 3: \\xbe\\xa9A12345"), std::string::npos);
}

TEST_F(ToolsTest, MkframeRefusesWhatCannotBe) {
    const std::string in = " -o " + path("x") + " " + data("testsrc_high.h264");
    const char *refused[][2] = {
        {"--start-time 2023-02-29T00:00:00Z", "use a date that exists"},
        {"--vca 6000,1000,5000,2000", "X1 6000 lies right of X2 5000"},
        {"--vca 1000,6000,2000,5000", "Y1 6000 lies below Y2 5000"},
        {"--codec h265", "--codec h265, but the probes find h264"},
        {"--start-time 4294967295 --fps 1", "would pass 2106-02-07T06:28:15Z"},
    };
    for (const auto &c : refused) {
        Result r = mkframe(c[0] + in);
        EXPECT_EQ(r.status, 2) << c[0];
        EXPECT_NE(r.err.find(c[1]), std::string::npos) << r.err;
        EXPECT_FALSE(exists("x"));
    }
    EXPECT_EQ(mkframe("--codec h265 --force" + in).status, 0);
    EXPECT_EQ(mkframe("--start-time 4294967288 --fps 1" + in).status, 0);  // the last frame at 2^32 - 1
}

// The splitting itself is checked on all the test streams with the tools' own code.
TEST_F(ToolsTest, ProbeNamesTheCodec) {
    Json j = Json::parse(dump("--probe --json " + data("testsrc_slices.h265")).out);
    EXPECT_EQ(j["codec"], "h265");
    EXPECT_EQ(j["access_units"], 8);
    EXPECT_EQ(j["key_frames"], 1);
    spill(path("garbage"), std::string(300, '\x01'));
    Result r = dump("--probe " + path("garbage"));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("neither H.264 nor H.265"), std::string::npos);
}

TEST_F(ToolsTest, IndexOfTheMadeFrames) {
    std::string frames = make("testsrc_high.h264", "--index-out " + path("idx"));
    Json key = Json::parse(dump("--index 1 --json " + path("idx")).out);
    EXPECT_EQ(key["items"], 8);
    EXPECT_EQ(key["matches"], 1);  // one IDR picture
    EXPECT_EQ(key["found"][0]["word"], 0);
    EXPECT_EQ(key["found"][0]["stamp"], 1);
    Result ud = dump("--index 2 --ordinal 8 " + path("idx"));
    EXPECT_EQ(ud.status, 0);
    EXPECT_NE(ud.out.find("sign type 2: 8 matches\n  match 8: word"), std::string::npos) << ud.out;
    EXPECT_EQ(dump("--index 1 --ordinal 2 " + path("idx")).status, 1);
    Result foreign = dump("--index 0 " + frames);
    EXPECT_EQ(foreign.status, 1);
    EXPECT_NE(foreign.err.find("not a usable I-frame index"), std::string::npos);
}

TEST_F(ToolsTest, HelpOptionsAndLimits) {
    for (const char *tool : {KORVEX_DUMP, KORVEX_MKFRAME}) {
        EXPECT_EQ(run(tool, "--help").status, 0);
        EXPECT_EQ(run(tool, "--no-such-option x").status, 2);
    }
    EXPECT_EQ(mkframe("--vca 1,2,3 -o " + path("x") + " " + data("testsrc_high.h264")).status, 2);
    EXPECT_EQ(mkframe("--encrypt plain -o " + path("x") + " " + data("testsrc_high.h264")).status, 2);
    // Two OSD texts of 512 bytes overflow the 1024 bytes of an old container, not a new one.
    std::string osd = " --osd " + std::string(512, 'o') + " --osd " + std::string(512, 'p') + " -o " + path("x") + " ";
    Result big = mkframe(osd + data("testsrc_high.h264"));
    EXPECT_EQ(big.status, 1);
    EXPECT_NE(big.err.find("more than the 1024 of the old layout"), std::string::npos) << big.err;
    EXPECT_EQ(mkframe("--layout new" + osd + data("testsrc_high.h264")).status, 0);
    spill(path("junk"), std::string(300, '\xA5'));
    Result foreign = mkframe("-o " + path("x") + " " + path("junk"));
    EXPECT_EQ(foreign.status, 1);
    EXPECT_NE(foreign.err.find("neither an H.264 nor an H.265"), std::string::npos);
}

TEST_F(ToolsTest, BoxesInPixelsOfTheStreamsPictureSize) {
    // 1920 x 1080 from x264 and x265: coded 1088 high, cropped to 1080 by the parameter sets.
    for (const char *enc : {"libx264 -f h264", "libx265 -x265-params log-level=error -f hevc"}) {
        SCOPED_TRACE(enc);
        Result made = run(FFMPEG, std::string("-nostdin -v error -y -f lavfi -i testsrc=size=1920x1080 -frames:v 1 -c:v ") + enc +
                                      " " + path("hd.es"));
        ASSERT_EQ(made.status, 0) << made.err;
        ASSERT_EQ(mkframe("-q --vca 1000,2000,4000,6000 -o " + path("hd.frames") + " " + path("hd.es")).status, 0);
        Json ud = json_lines(dump("--json " + path("hd.frames")).out).at(0)["userdata"];
        EXPECT_EQ(ud["picture"], Json({1920, 1080}));
        EXPECT_EQ(ud["vca"][0]["pixels"], Json({192, 216, 768, 648}));
        EXPECT_NE(dump(path("hd.frames")).out.find("target 1: (17,28)-(70,86) on 176x144, (192,216)-(768,648) in pixels of "
                                                   "1920x1080, unscaled (1000,2000)-(4000,6000)"), std::string::npos);
    }
}

TEST_F(ToolsTest, ChinesePlateIsDrawnWithItsGlyphs) {
    // Two plates that differ only in their first character: drawn with glyphs, their pictures differ
    // there; drawn as empty boxes (a font without them), they are the same, and a warning names them.
    auto picture = [&](const std::string &plate, const std::string &font, std::string *err) {
        std::string frames = path("p.frames");
        EXPECT_EQ(mkframe("-q --max-frames 1 --plate '" + plate + "' -o " + frames + " " + data("testsrc_high.h264")).status, 0);
        Result r = view(font + " --width 320 --frame 0 --png " + path("png") + " " + frames);
        EXPECT_EQ(r.status, 0) << r.err;
        *err = r.err;
        Result raw = run(FFMPEG, "-nostdin -v error -y -i " + path("png/frame_000000.png") + " -f rawvideo -pix_fmt rgb24 " +
                                     path("p.rgb"));
        EXPECT_EQ(raw.status, 0) << raw.err;
        return slurp(path("p.rgb"));
    };
    auto differing = [](const std::string &a, const std::string &b) {  // in the plate's line, bottom left
        int n = 0;
        for (int y = 280; y < 320; ++y) {
            for (int x = 0; x < 200; ++x) n += same(pixel(a, 320, x, y), pixel(b, 320, x, y), 8) ? 0 : 1;
        }
        return n;
    };
    std::string err1, err2;
    std::string jing = picture("\xe4\xba\xac" "A12345", "", &err1), hu = picture("\xe6\xb2\xaa" "A12345", "", &err2);
    ASSERT_EQ(jing.size(), 320u * 320 * 3);
    EXPECT_GT(differing(jing, hu), 40);
    EXPECT_EQ(err1.find("no glyph"), std::string::npos) << err1;
    const std::string dejavu = "--font /usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
    std::string boxed_jing = picture("\xe4\xba\xac" "A12345", dejavu, &err1), boxed_hu = picture("\xe6\xb2\xaa" "A12345", dejavu, &err2);
    EXPECT_EQ(differing(boxed_jing, boxed_hu), 0);
    EXPECT_NE(err1.find("has no glyph for \xe4\xba\xac (U+4EAC) in 'plate \xe4\xba\xac" "A12345': drawn as empty boxes"),
              std::string::npos) << err1;
    EXPECT_GT(differing(jing, boxed_jing), 40);  // the glyph is no empty box
}

TEST_F(ToolsTest, ViewKeepsTheRecordingsTimesAndStopsAtAWrongKey) {
    // 20 pictures at 10 per second, key frames at 0 and 10, made here by x264 (its SPS says 10 fps).
    ASSERT_EQ(run(FFMPEG, "-nostdin -v error -f lavfi -i testsrc=size=64x64:rate=10 -frames:v 20 -c:v libx264 -g 10 "
                          "-bf 0 -f h264 " + path("ten.h264")).status, 0);
    ASSERT_EQ(mkframe("-q --start-time 2024-05-01T08:00:00Z --fps 10 --encrypt enhanced --key k -o " + path("dev.frames") +
                      " " + path("ten.h264")).status, 0);
    ASSERT_EQ(mkframe("-q -o " + path("sps.frames") + " " + path("ten.h264")).status, 0);
    auto probe = [&](const std::string &file) {
        return run(FFPROBE, "-v error -count_frames -show_entries format=duration:stream=nb_read_frames -of csv=p=0 " +
                                path(file)).out;
    };
    // From the device's times and from the stream's timing alike: 2 s, as recorded (never 25 fps).
    ASSERT_EQ(view("-q --key k -o " + path("dev.mp4") + " " + path("dev.frames")).status, 0);
    EXPECT_EQ(probe("dev.mp4"), "20\n2.000000\n");
    ASSERT_EQ(view("-q -o " + path("sps.mkv") + " " + path("sps.frames")).status, 0);
    EXPECT_EQ(probe("sps.mkv"), "20\n2.000000\n");
    Result clip = view("-q --key k --from 2024-05-01T08:00:01Z -o " + path("clip.mp4") + " " + path("dev.frames"));
    ASSERT_EQ(clip.status, 0) << clip.err;
    EXPECT_EQ(probe("clip.mp4"), "10\n1.000000\n");

    // A wrong or missing key: one line, then the walk stops.
    for (const char *key : {"--key wrong ", ""}) {
        Result r = view(std::string(key) + "-o " + path("w.mp4") + " " + path("dev.frames"));
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(count(r.err, "\n"), 1) << r.err;
        EXPECT_NE(r.err.find(*key ? "frame 0 at offset 0: decryption failed: wrong key" : "frame 0 is encrypted: give --key"),
                  std::string::npos) << r.err;
        EXPECT_FALSE(exists("w.mp4"));
    }

    // --frame N decodes from the key frame before it: pictures 1 to 9 spoilt, frame 15 draws without a
    // decoding error (FFmpeg's lines with -v), frame 5 with them.
    std::string frames = slurp(path("sps.frames"));
    size_t off = 0;
    for (int i = 0; i < 10; ++i) {
        size_t len = uint8_t(frames[off + 4]) | uint8_t(frames[off + 5]) << 8 | uint8_t(frames[off + 6]) << 16;
        for (size_t k = off + 32 + 8; i > 0 && k < off + len; ++k) frames[k] = char(0x5A ^ k);
        off += len;
    }
    spill(path("spoilt.frames"), frames);
    Result late = view("-v --frame 15 --png " + path("late") + " " + path("spoilt.frames"));
    EXPECT_EQ(late.status, 0) << late.err;
    EXPECT_EQ(late.err.find("[h264 @"), std::string::npos) << late.err;
    Result early = view("-v --frame 5 --png " + path("early") + " " + path("spoilt.frames"));
    EXPECT_NE(early.err.find("[h264 @"), std::string::npos) << early.err;
}

TEST_F(ToolsTest, ForeignInputsAreNamedWithTheCommandThatTakesThem) {
    for (const char *ext : {"mp4", "mkv"}) {
        Result made = run(FFMPEG, "-nostdin -v error -f lavfi -i testsrc=size=64x64:rate=25 -frames:v 4 -c:v libx264 " +
                                      path(std::string("c.") + ext));
        ASSERT_EQ(made.status, 0) << made.err;
    }
    spill(path("text"), "no video in here\n");
    std::string frames = make("testsrc_high.h264");
    const std::string container = ": take its video out as a raw stream with 'ffmpeg -i FILE -map 0:v:0 -c copy -f h264";
    const std::pair<std::string, std::string> foreign[] = {
        {data("testsrc_high.h264"), "this looks like a raw H.264 stream (Annex B), not a stream of frames: wrap it "
                                    "into frames with korvex-mkframe"},
        {data("testsrc_main.h265"), "this looks like a raw H.265 stream (Annex B)"},
        {path("c.mp4"), "this looks like an MP4/QuickTime file, not a stream of frames" + container},
        {path("c.mkv"), "this looks like a Matroska/WebM file, not a stream of frames" + container},
        {path("text"), "this looks like text, not a stream of frames: there is no video in it"},
    };
    for (const auto &f : foreign) {
        SCOPED_TRACE(f.first);
        Result d = dump(f.first);
        EXPECT_EQ(d.status, 1);
        EXPECT_NE(d.err.find("korvex-dump: " + f.second), std::string::npos) << d.err;
        EXPECT_EQ(count(d.err, "\n"), 2) << d.err;  // the header it found, the sentence, and no search on
        Result v = view("--png " + path("png") + " " + f.first);
        EXPECT_EQ(v.status, 1);
        EXPECT_NE(v.err.find(f.second), std::string::npos) << v.err;
        EXPECT_EQ(v.err.find("no picture decoded"), std::string::npos) << v.err;
    }
    // korvex-mkframe wraps raw streams only, whatever --codec says; nothing is written.
    for (const std::string &in : {path("c.mp4"), path("c.mkv"), path("text"), frames}) {
        Result m = mkframe("--codec h264 -o " + path("x") + " " + in);
        EXPECT_EQ(m.status, 1) << in;
        EXPECT_NE(m.err.find("not a raw H.264/H.265 stream: "), std::string::npos) << m.err;
        EXPECT_FALSE(exists("x"));
    }
    EXPECT_NE(mkframe("-o " + path("x") + " " + frames).err.find("korvex-dump and korvex-view read it"), std::string::npos);
    Result p = dump("--probe " + path("c.mp4"));
    EXPECT_EQ(p.status, 1);
    EXPECT_NE(p.err.find("neither an H.264 nor an H.265 Annex B stream; this looks like an MP4"), std::string::npos);
}

TEST_F(ToolsTest, MkframeAndProbeReadTheirInputInPieces) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "peak memory means nothing under a sanitizer's shadow memory";
#endif
    // 24 MiB: 2^14 copies of the test stream one behind the other, made by the shell so that this
    // process stays small (the tools' peak memory is measured over its children). Read whole, the
    // input alone would take that much memory.
    size_t copies = 1u << 14, size = slurp(data("testsrc_high.h264")).size();
    ASSERT_EQ(system(("cd " + dir_ + " && cp " + data("testsrc_high.h264") + " big.h264 && for i in $(seq 14); do "
                      "cat big.h264 big.h264 > two && mv two big.h264; done").c_str()), 0);
    // The peak memory of one command (KiB), its own, whatever ran before in this process.
    auto peak = [&](const std::string &cmd) {
        pid_t pid = fork();
        if (pid == 0) {
            execl("/bin/sh", "sh", "-c", ("exec " + cmd + " >" + path("out.txt")).c_str(), (char *)nullptr);
            _exit(127);
        }
        int status = 0;
        struct rusage ru;
        EXPECT_EQ(wait4(pid, &status, 0, &ru), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << cmd;
        return ru.ru_maxrss;
    };
    EXPECT_LT(peak(std::string(KORVEX_MKFRAME) + " -q --plate AB123CD -o " + path("big.frames") + " " + path("big.h264")),
              20 * 1024);
    EXPECT_LT(peak(std::string(KORVEX_DUMP) + " --probe --json " + path("big.h264")), 20 * 1024);
    Json probe = Json::parse(slurp(path("out.txt")));
    EXPECT_EQ(probe["access_units"], 8 * copies);
    EXPECT_EQ(probe["key_frames"], copies);
    EXPECT_EQ(probe["bytes"], copies * size);
    Result d = dump("-q " + path("big.frames"));
    EXPECT_NE(d.out.find(std::to_string(8 * copies) + " frames, 0 broken, " + std::to_string(8 * copies) + " with user data"),
              std::string::npos) << d.out;
}

}  // namespace

#endif
