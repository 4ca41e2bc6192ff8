// korvex-export on streams made in the test with FFmpeg's encoders (x264 and x265, no B-frames, key
// frames at a fixed distance) and wrapped by korvex-mkframe with times, plates and OSD text: ffprobe
// checks the written files against what korvex-dump --json says of the same frames; the side files
// are compared with it too. Also the core's parsers of times and ranges and its picture clock.
#if defined(KORVEX_EXPORT) && defined(KORVEX_DUMP) && defined(KORVEX_MKFRAME)

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "core/core.h"
#include "tool_run.h"

namespace {

using namespace tool_run;

// What ffprobe says of a file's video packets: time in ms and the key flag.
struct Packet {
    int64_t ms;
    bool key;
};

class ExportTest : public ToolDirTest {
protected:
    Result exp(const std::string &args) { return run(KORVEX_EXPORT, args); }

    // An outside-shaped recording: testsrc encoded by FFmpeg at rate fps, a key frame every gop
    // pictures, wrapped into frames with the device's time (from 2024-05-01T08:00:00Z at fps), two
    // plates (one Chinese), a target and an OSD text, encrypted.
    std::string recording(const std::string &encoder, double fps, int frames, int gop, bool times = true,
                          const std::string &start = "2024-05-01T08:00:00Z") {
        std::string es = path("in.es");
        char cmd[512];
        snprintf(cmd, sizeof(cmd),
                 "-hide_banner -loglevel error -y -f lavfi -i testsrc=size=96x64:rate=%g -frames:v %d -c:v %s "
                 "-bf 0 -g %d -keyint_min %d -sc_threshold 0 %s -pix_fmt yuv420p -f %s %s",
                 fps, frames, encoder.c_str(), gop, gop,
                 encoder == "libx265" ? "-x265-params log-level=none:bframes=0:scenecut=0" : "",
                 encoder == "libx265" ? "hevc" : "h264", es.c_str());
        Result r = run(FFMPEG, cmd);
        EXPECT_EQ(r.status, 0) << r.err;
        std::string frames_path = path("cam.frames");
        char opts[160];
        snprintf(opts, sizeof(opts), "--start-time %s --fps %g ", start.c_str(), fps);
        r = run(KORVEX_MKFRAME, std::string("-q ") + (times ? opts : "") +
                                    "--vca 1000,2000,4000,6000,7 --plate AB123CD --plate '京A·12345' --osd 'Gate 3' "
                                    "--encrypt enhanced --key secret --index-out " + path("cam.index") + " -o " +
                                    frames_path + " " + es);
        EXPECT_EQ(r.status, 0) << r.err;
        return frames_path;
    }
    std::vector<Json> dump_json(const std::string &frames) {
        Result r = run(KORVEX_DUMP, "--key secret --json " + frames);
        EXPECT_EQ(r.status, 0) << r.err;
        return json_lines(r.out);
    }
    std::vector<Packet> packets(const std::string &file) {
        Result r = run(FFPROBE, "-v error -select_streams v:0 -show_entries packet=pts_time,flags -of csv=p=0 " + file);
        EXPECT_EQ(r.status, 0) << r.err;
        std::vector<Packet> out;
        for (const std::string &l : lines_of(r.out)) {
            size_t comma = l.find(',');
            out.push_back({llround(atof(l.substr(0, comma).c_str()) * 1000), l.find('K', comma) != std::string::npos});
        }
        return out;
    }
    int64_t start_tag(const std::string &file) {
        Result r = run(FFPROBE, "-v error -show_entries format_tags=korvex_start_ms -of csv=p=0 " + file);
        return atoll(r.out.c_str());
    }

};

// The device's time of each frame to the millisecond: its second, and within it the place among the
// frames of that second at the stream's frame interval.
std::vector<int64_t> device_ms(const std::vector<Json> &frames, double fps) {
    std::vector<int64_t> out;
    int64_t second = -1, run = 0;
    for (const Json &f : frames) {
        int64_t s = f["userdata"]["time"]["seconds"].get<int64_t>();
        run = s == second ? run + 1 : 0;
        second = s;
        out.push_back(s * 1000 + llround(run * 1000 / fps));
    }
    return out;
}

TEST_F(ExportTest, PacketsCarryTheDeviceTimesAndKeyFlagsInBothContainers) {
    const double fps = 12.5;  // three pictures in every two seconds share... none: 12 or 13 per second
    std::string frames = recording("libx264", fps, 40, 10);
    std::vector<Json> dump = dump_json(frames);
    ASSERT_EQ(dump.size(), 40u);
    std::vector<int64_t> want = device_ms(dump, fps);
    for (const char *name : {"cam.mp4", "cam.mkv"}) {
        Result r = exp("--key secret -o " + path(name) + " " + frames);
        ASSERT_EQ(r.status, 0) << r.err;
        std::vector<Packet> got = packets(path(name));
        ASSERT_EQ(got.size(), dump.size()) << name;
        int64_t start = start_tag(path(name));
        EXPECT_EQ(start, want[0]);
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(start + got[i].ms, want[i]) << name << " frame " << i;
            EXPECT_EQ(got[i].key, dump[i]["key_frame"].get<bool>()) << name << " frame " << i;
            EXPECT_EQ(got[i].key, i % 10 == 0);
        }
        // The metadata track: one sample per picture.
        Result n = run(FFPROBE, "-v error -count_packets -show_entries stream=codec_type,nb_read_packets -of csv=p=0 " +
                                     path(name));
        EXPECT_EQ(n.out, std::string("video,40\n") + (name[4] == 'm' && name[5] == 'p' ? "data,40\n" : "subtitle,40\n"));
    }
}

TEST_F(ExportTest, H265WithoutDeviceTimesFollowsTheStreamsOwnTiming) {
    // The encoder writes 10 frames per second into the parameter sets; --fps says otherwise and loses.
    std::string frames = recording("libx265", 10, 12, 6, false);
    Result r = exp("--key secret --fps 25 -o " + path("h.mp4") + " " + frames);
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<Packet> got = packets(path("h.mp4"));
    ASSERT_EQ(got.size(), 12u);
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].ms, int64_t(i) * 100);
        EXPECT_EQ(got[i].key, i % 6 == 0);
    }
}

TEST_F(ExportTest, ClipOpensAtTheKeyFrameAtOrBeforeItsStartWithOrWithoutTheIndex) {
    const double fps = 10;
    std::string frames = recording("libx264", fps, 60, 8);
    std::vector<Json> dump = dump_json(frames);
    std::vector<int64_t> ms = device_ms(dump, fps);
    // From 08:00:02.250 (frame 22.5) to 08:00:04.100: key frames at 0, 8, 16, 24, ...: the clip opens at
    // 16 and ends at 41.
    const std::string range = "--from 2024-05-01T08:00:02.250Z --to '2024-05-01 08:00:04.100' ";
    Result a = exp("--key secret " + range + "--json " + path("a.jsonl") + " -o " + path("a.mkv") + " " + frames);
    ASSERT_EQ(a.status, 0) << a.err;
    Result b = exp("--key secret " + range + "--index " + path("cam.index") + " --json " + path("b.jsonl") + " -o " +
                   path("b.mkv") + " " + frames);
    ASSERT_EQ(b.status, 0) << b.err;
    EXPECT_EQ(slurp(path("a.jsonl")), slurp(path("b.jsonl")));
    std::vector<Json> clip = json_lines(slurp(path("a.jsonl")));
    ASSERT_FALSE(clip.empty());
    size_t first = 0;
    for (size_t i = 0; i < dump.size(); ++i) {
        if (dump[i]["key_frame"].get<bool>() && ms[i] <= 1714550402250) first = i;
    }
    EXPECT_EQ(first, 16u);
    EXPECT_EQ(clip.front()["frame"], first);
    EXPECT_EQ(clip.back()["frame"], 41);
    for (const Json &f : clip) EXPECT_EQ(f, dump[f["frame"].get<size_t>()]);
    std::vector<Packet> got = packets(path("b.mkv"));
    ASSERT_EQ(got.size(), clip.size());
    EXPECT_TRUE(got[0].key);
    EXPECT_EQ(start_tag(path("b.mkv")), ms[first]);
    // By frame numbers: the same key frame.
    Result c = exp("--key secret --frames 20:30 --index " + path("cam.index") + " --json " + path("c.jsonl") + " -o " +
                   path("c.mp4") + " " + frames);
    ASSERT_EQ(c.status, 0) << c.err;
    std::vector<Json> byframes = json_lines(slurp(path("c.jsonl")));
    EXPECT_EQ(byframes.front()["frame"], 16);
    EXPECT_EQ(byframes.back()["frame"], 30);
}

TEST_F(ExportTest, CuesAndRowsSayWhatKorvexDumpSays) {
    const double fps = 5;
    std::string frames = recording("libx264", fps, 12, 5);
    std::vector<Json> dump = dump_json(frames);
    Result r = exp("--key secret --vtt " + path("c.vtt") + " --csv " + path("c.csv") + " -o " + path("c.mp4") + " " +
                   frames);
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<int64_t> ms = device_ms(dump, fps);
    // The cue text each frame should have on screen, and the one the VTT file shows at its time.
    std::vector<std::string> vtt = lines_of(slurp(path("c.vtt")));
    ASSERT_EQ(vtt[0], "WEBVTT");
    struct CueSpan {
        int64_t a, b;
        std::string text;
    };
    std::vector<CueSpan> cues;
    auto parse = [](const std::string &t) {
        int h, m, s, f;
        sscanf(t.c_str(), "%d:%d:%d.%d", &h, &m, &s, &f);
        return ((int64_t(h) * 60 + m) * 60 + s) * 1000 + f;
    };
    for (size_t i = 1; i < vtt.size(); ++i) {
        size_t arrow = vtt[i].find(" --> ");
        if (arrow == std::string::npos) continue;
        CueSpan c{parse(vtt[i].substr(0, arrow)), parse(vtt[i].substr(arrow + 5)), ""};
        for (size_t j = i + 1; j < vtt.size() && !vtt[j].empty(); ++j) c.text += (c.text.empty() ? "" : "\n") + vtt[j];
        cues.push_back(c);
    }
    EXPECT_EQ(cues.size(), 3u);  // one for each second: the time changes
    for (size_t i = 0; i < dump.size(); ++i) {
        const Json &ud = dump[i]["userdata"];
        std::string utc = ud["time"]["utc"];
        std::string want = utc.substr(0, 10) + " " + utc.substr(11, 8) + " UTC\n" + ud["osd"][0]["text"].get<std::string>();
        for (const Json &p : ud["plates"]) want += "\nplate " + p.get<std::string>();
        int64_t t = ms[i] - ms[0];
        int shown = 0;
        for (const CueSpan &c : cues) {
            if (c.a <= t && t < c.b) {
                ++shown;
                EXPECT_EQ(c.text, want) << "frame " << i;
            }
        }
        EXPECT_EQ(shown, 1) << "frame " << i;
    }
    // One CSV row per plate and frame: time, video time, frame, plate, the target at its place.
    std::vector<std::string> csv = lines_of(slurp(path("c.csv")));
    ASSERT_EQ(csv.size(), 1 + 2 * dump.size());
    EXPECT_EQ(csv[0], "time,video_time,frame,plate,x1,y1,x2,y2");
    for (size_t i = 0; i < dump.size(); ++i) {
        const Json &ud = dump[i]["userdata"];
        for (size_t k = 0; k < 2; ++k) {
            char head[96];
            snprintf(head, sizeof(head), "%s,%.3f,%zu,", kxc::iso8601_ms(ms[i]).c_str(), (ms[i] - ms[0]) / 1000.0, i);
            std::string box = k == 0 ? ",1000,2000,4000,6000" : ",,,,";
            EXPECT_EQ(csv[1 + 2 * i + k], head + ud["plates"][k].get<std::string>() + box);
        }
    }
}

TEST_F(ExportTest, BadInputGivesASentenceAnExitCodeAndNoFile) {
    std::string frames = recording("libx264", 10, 20, 10);
    struct Case {
        std::string args;
        int status;
        std::string says;
    };
    const std::string out = " --vtt " + path("x.vtt") + " -o " + path("x.mp4") + " ";
    std::string cut = path("cut.frames");
    std::string whole = slurp(frames);
    std::ofstream(cut, std::ios::binary) << whole.substr(0, whole.size() - 100);
    const Case cases[] = {
        {"--key wrong" + out + frames, 1, "frame 0: decryption failed: wrong key"},
        {out + frames, 1, "frame 0 is encrypted: give --key"},
        {"--key secret" + out + cut, 1, "truncated"},
        {"--key secret --from 2024-05-01T09:00:00Z" + out + frames, 1, "no frame between 2024-05-01T09:00:00.000Z"},
        {"--key secret --frames 50:60" + out + frames, 1, "the recording runs from 2024-05-01T08:00:00.000Z"},
        {"--key secret -o " + path("x.avi") + " " + frames, 2, "must end in .mp4"},
        {"--key secret -o " + path("no/x.mp4") + " " + frames, 2, "cannot create"},
        {"--key secret --from 2024-02-30T00:00:00Z" + out + frames, 2, "--from takes a time"},
        {"--key secret" + out + path("missing.frames"), 2, "cannot open"},
    };
    for (const Case &c : cases) {
        Result r = exp(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_FALSE(exists("x.mp4") || exists("x.vtt")) << c.args;
    }
    // Nothing left under a temporary name either.
    Result ls = run("ls", dir_);
    EXPECT_EQ(ls.out.find(".XXXXXX"), std::string::npos);
    EXPECT_EQ(lines_of(ls.out).size(), 6u) << ls.out;  // in.es, cam.frames, cam.index, cut.frames, out.txt, err.txt
    // --skip-broken writes what is whole and still says the input was broken.
    Result r = exp("--key secret --skip-broken" + out + cut);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_TRUE(exists("x.mp4") && exists("x.vtt"));
}

TEST_F(ExportTest, DeviceClockSetAheadByDaysKeepsTheFilePlayable) {
    std::string first = slurp(recording("libx264", 10, 10, 5));
    std::string second = slurp(recording("libx264", 10, 10, 5, true, "2024-05-03T08:00:00Z"));
    std::ofstream(path("jump.frames"), std::ios::binary) << first << second;
    Result r = exp("-o " + path("j.mp4") + " --csv " + path("j.csv") + " --key secret " + path("jump.frames"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("frame 10: the device's clock jumps ahead by 172799 s"), std::string::npos) << r.err;
    std::vector<Packet> got = packets(path("j.mp4"));
    ASSERT_EQ(got.size(), 20u);
    EXPECT_EQ(got[10].ms - got[9].ms, 100);  // on at the frame interval
    // The side file keeps the device's own time.
    EXPECT_EQ(lines_of(slurp(path("j.csv")))[21].substr(0, 24), "2024-05-03T08:00:00.000Z");
}

TEST(ExportParsers, TimesRangesAndTheClock) {
    int64_t ms = 0;
    EXPECT_TRUE(kxc::parse_time_ms("2024-05-01T08:00:00Z", &ms));
    EXPECT_EQ(ms, 1714550400000);
    EXPECT_TRUE(kxc::parse_time_ms("2024-02-29 23:59:59.5", &ms));
    EXPECT_EQ(ms, 1709251199500);
    EXPECT_TRUE(kxc::parse_time_ms("1714550400.25", &ms));
    EXPECT_EQ(ms, 1714550400250);
    EXPECT_EQ(kxc::iso8601_ms(1714550400250), "2024-05-01T08:00:00.250Z");
    for (const char *bad : {"2023-02-29T00:00:00Z", "2024-05-01T24:00:00Z", "2024-5-01T08:00:00Z", "1969-12-31T23:59:59Z",
                            "2024-05-01T08:00:00+02", "", "12e3", "2024-05-01T08:00:00.Z"}) {
        EXPECT_FALSE(kxc::parse_time_ms(bad, &ms)) << bad;
    }
    long long a, b;
    EXPECT_TRUE(kxc::parse_frame_range("10:20", &a, &b));
    EXPECT_EQ(a * 1000 + b, 10020);
    EXPECT_TRUE(kxc::parse_frame_range(":7", &a, &b));
    EXPECT_EQ(a * 1000 + b, 7);
    EXPECT_TRUE(kxc::parse_frame_range("010:", &a, &b));  // decimal, open end
    EXPECT_EQ(a * 1000 + b, 10000 - 1);
    for (const char *bad : {"5:4", ":", "1:2:3", "a:b", "-1:4", "4"}) EXPECT_FALSE(kxc::parse_frame_range(bad, &a, &b)) << bad;

    // The clock: 4 frames per second from the device, a device clock set back, then no device time.
    kxc::PtsClock clock(4);
    kxc::FrameReport r;
    r.ud.has_time = true;
    std::vector<int64_t> got;
    for (uint32_t s : {100u, 100u, 100u, 101u, 100u}) {
        r.ud.time.uiSeconds = s;
        got.push_back(clock.next(r, nullptr, 0));
    }
    r.ud.has_time = false;
    got.push_back(clock.next(r, nullptr, 0));
    // Set back: the second 100 again follows 101000 at the interval; then on at the interval.
    EXPECT_EQ(got, (std::vector<int64_t>{100000, 100250, 100500, 101000, 101250, 101500}));
    EXPECT_EQ(clock.steps_back(), 1);
    EXPECT_EQ(clock.interval_source(), kxc::TimeSource::kGiven);
}

}  // namespace

#endif
