// korvex-view: decodes a stream of frames and draws on each picture what the device put into its user
// data: the VCA target rectangles, plates, OSD texts and the absolute time. Output: PNG pictures or a
// video file.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/pixfmt.h>
}

#include "core/core.h"
#include "stream/frame_header.h"
#include "korvex-view/view.h"

namespace {

using kxt::errorf;

const char kHelp[] =
    "Usage: korvex-view [OPTIONS] --png DIR [FILE]\n"
    "  or:  korvex-view [OPTIONS] -o OUT.mp4 [FILE]\n"
    "Draw the user data of frames onto their decoded pictures.\n"
    "\n"
    "Reads frames from FILE (or standard input, also for -) as korvex-dump does, decrypts them with\n"
    "--key, decodes their H.264 or H.265 payloads with FFmpeg's libraries (frame threads on every\n"
    "core) and draws on each picture what the frame's user data holds: every VCA target as an amber\n"
    "rectangle (scaled from the device's coordinates to the picture), the absolute time (UTC) and the\n"
    "OSD texts at the top left, the plates at the bottom left.\n"
    "\n"
    "Text is drawn with libavfilter's drawtext in DejaVu Sans where it has every glyph of a line, else\n"
    "in a font that fontconfig finds with all of them (a Chinese plate such as 京A12345 in a CJK font);\n"
    "where no installed font has a glyph, a warning names it. --font draws everything in one font.\n"
    "\n"
    "A video file takes each picture's time from the recording, as korvex-export does: the device's\n"
    "absolute time in the frame's user data (frames within a second at the stream's frame interval),\n"
    "else the stream's own timing (SPS), else --fps; so it lasts as long as the recording. --frame,\n"
    "--from and --to pick pictures; decoding starts at the key frame before the first one (the frames\n"
    "before it are read, not decoded).\n"
    "\n"
    "Pictures smaller than 480 pixels wide are scaled up to 480 so that the text stays readable;\n"
    "--width chooses another width. Each output file is written under a temporary name and renamed\n"
    "when complete. A progress line (with the total and the time left) appears on standard error for\n"
    "long runs when it is a terminal. A wrong or missing key stops at the first encrypted frame with\n"
    "one line.\n"
    "\n"
    "Options:\n"
    "  --png DIR        one PNG file per picture, DIR/frame_NNNNNN.png (NNNNNN the frame's number in\n"
    "                   the stream, from 0); DIR is created when missing; each path is printed\n"
    "  --every N        with --png: only frames 0, N, 2N, ...\n"
    "  --frame N        with --png: only frame N\n"
    "  -o, --output OUT a video file with the overlays; the container follows the name (.mp4 and\n"
    "                   .mkv with H.264, .avi with MPEG-4)\n"
    "  --from TIME      only pictures at or after TIME (device time, UTC: 2024-05-01T08:00:00Z,\n"
    "                   2024-05-01 08:00:00.250 or seconds since 1970)\n"
    "  --to TIME        only pictures at or before TIME; the walk ends behind it\n"
    "  --fps FPS        the frame rate where the stream gives none (default 25)\n"
    "  --key KEY        decrypt encrypted frames with KEY (1 to 16 characters)\n"
    "  --codec auto|h264|h265\n"
    "                   the codec of the frames' data; auto (the default) asks the probes\n"
    "  --mask MASK      the two-layout analysis with this mask, as in korvex-dump\n"
    "  --width W        width of the output pictures (height keeps the aspect)\n"
    "  --no-overlay     the decoded pictures alone\n"
    "  --font FILE      a TrueType font for all text instead of the choice above\n"
    "  --progress, --no-progress\n"
    "                   always or never show the progress line\n"
    "  -q, --quiet      no paths and no summary\n"
    "  -v, --verbose    also FFmpeg's and the library's own error lines\n"
    "  -h, --help       this text\n"
    "\n"
    "Exit status:\n"
    "  0 every frame sound and decoded; 1 a broken frame, a wrong or missing key, a picture that did\n"
    "  not decode, or nothing to draw; 2 bad options, an unreadable input or an output that cannot be\n"
    "  written.\n"
    "\n"
    "Examples:\n"
    "  korvex-view --key secret --png shots --every 25 cam.frames\n"
    "\n"
    "  korvex-view --key secret --png shots --frame 6000 cam.frames\n"
    "\n"
    "  korvex-view --key secret --from 2024-05-01T08:00:10Z --to 2024-05-01T08:00:20Z -o clip.mp4 cam.frames\n";

struct ViewOptions {
    std::string input = "-";
    kxc::AnalysisOptions walk;
    bool verbose = false;
    std::string png_dir, video;
    long long every = 1, only = -1;
    int64_t from_ms = -1, to_ms = -1;  // device times, milliseconds since 1970; -1 open
    double fps = 0;                    // 0: the stream's own, else 25
    int width = 0;
    bool overlay = true;
    std::string font;  // --font; empty: the built-in font and fontconfig's choice
    bool quiet = false;
    int progress = -1;
};

// 0 on success, 2 after a message on bad options, -1 after --help.
int parse_options(int argc, char **argv, ViewOptions *v) {
    kxc::AnalysisOptions *o = &v->walk;
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i], s;
        auto value = [&]() {
            if (i + 1 >= argc) return errorf("option %s needs a value", a.c_str()), false;
            s = argv[++i];
            return true;
        };
        long long n;
        if (a == "-h" || a == "--help") {
            fputs(kHelp, stdout);
            return -1;
        } else if (a == "-q" || a == "--quiet") {
            v->quiet = true;
        } else if (a == "-v" || a == "--verbose") {
            v->verbose = true;
        } else if (a == "--progress") {
            v->progress = 1;
        } else if (a == "--no-progress") {
            v->progress = 0;
        } else if (a == "--no-overlay") {
            v->overlay = false;
        } else if (a == "--png") {
            if (!value()) return 2;
            if (s.empty()) return errorf("--png needs a directory"), 2;
            v->png_dir = s;
        } else if (a == "-o" || a == "--output") {
            if (!value()) return 2;
            if (s.empty() || s == "-") return errorf("-o needs a file name (.mp4, .mkv, .avi)"), 2;
            v->video = s;
        } else if (a == "--every") {
            if (!value()) return 2;
            if (!kxt::parse_int(s, 1, 1LL << 40, &v->every)) return errorf("--every takes a number from 1 on"), 2;
        } else if (a == "--frame") {
            if (!value()) return 2;
            if (!kxt::parse_int(s, 0, 1LL << 40, &v->only)) return errorf("--frame takes a number from 0 on"), 2;
        } else if (a == "--from" || a == "--to") {
            if (!value()) return 2;
            int64_t ms;
            if (!kxc::parse_time_ms(s, &ms)) {
                return errorf("bad time '%s' for %s: use 2024-05-01T08:00:00Z, 2024-05-01 08:00:00.250 or seconds "
                              "since 1970", s.c_str(), a.c_str()), 2;
            }
            (a == "--from" ? v->from_ms : v->to_ms) = ms;
        } else if (a == "--fps") {
            if (!value()) return 2;
            if (!kxt::parse_positive_double(s, &v->fps) || v->fps > 1000) return errorf("bad frame rate '%s'", s.c_str()), 2;
        } else if (a == "--width") {
            if (!value()) return 2;
            if (!kxt::parse_int(s, 16, 8192, &n)) return errorf("--width takes 16 to 8192 pixels"), 2;
            v->width = int(n);
        } else if (a == "--font") {
            if (!value()) return 2;
            v->font = s;
        } else if (kxc::is_walk_option(a)) {
            if (!value()) return 2;
            if (kxc::set_walk_option(a, s, o) != 0) return 2;
        } else if (a.size() > 1 && a[0] == '-') {
            return errorf("unknown option %s (see --help)", a.c_str()), 2;
        } else {
            v->input = a;
            ++inputs;
        }
    }
    if (inputs > 1) return errorf("give at most one input (see --help)"), 2;
    if (v->png_dir.empty() == v->video.empty()) return errorf("give either --png DIR or -o FILE (see --help)"), 2;
    if ((v->every != 1 || v->only >= 0) && v->png_dir.empty()) return errorf("--every and --frame go with --png"), 2;
    if (v->every != 1 && v->only >= 0) return errorf("--every and --frame exclude each other"), 2;
    if (v->only >= 0 && (v->from_ms >= 0 || v->to_ms >= 0)) return errorf("--frame goes with neither --from nor --to"), 2;
    if (v->from_ms >= 0 && v->to_ms >= 0 && v->to_ms < v->from_ms) return errorf("--to lies before --from"), 2;
    std::string font = v->font.empty() ? KORVEX_VIEW_FONT : v->font;
    if (access(font.c_str(), R_OK) != 0) return errorf("cannot read the font '%s': %s", font.c_str(), strerror(errno)), 2;
    return 0;
}

double now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + ts.tv_nsec / 1e9;
}

// The progress line: frames read of the total (known for --frame, else estimated from the bytes read
// of the file's size), pictures drawn and the time left at the rate so far.
class Progress {
public:
    Progress(bool on, uint64_t file_size, long long last_frame)
        : on_(on), size_(file_size), last_frame_(last_frame), start_(now()) {}
    void update(long long frame, uint64_t offset, long long pictures) {
        if (!on_) return;
        double t = now();
        if (t - start_ < 1.0 || t - last_ < 0.2) return;
        last_ = t;
        double done = 0;  // the share of the work behind us
        char total[48] = "";
        if (last_frame_ >= 0) {
            done = double(frame + 1) / double(last_frame_ + 1);
            snprintf(total, sizeof(total), " of %lld", last_frame_ + 1);
        } else if (size_ > 0) {
            done = double(offset) / double(size_);
            snprintf(total, sizeof(total), " of ~%lld", (long long)(double(frame + 1) / std::max(done, 1e-9)));
        }
        char left[48] = "";
        if (done > 0.001) {
            long long secs = (long long)((t - start_) * (1 - done) / done);
            snprintf(left, sizeof(left), ", %lld:%02lld left", secs / 60, secs % 60);
        }
        fprintf(stderr, "\rkorvex-view: frame %lld%s (%d%%), %lld pictures%s\033[K", frame + 1, total,
                int(std::min(done, 1.0) * 100), pictures, left);
        shown_ = true;
    }
    void clear() {
        if (shown_) fputs("\r\033[K", stderr);
        shown_ = false;
    }

private:
    bool on_;
    uint64_t size_;
    long long last_frame_;
    double start_, last_ = 0;
    bool shown_ = false;
};

// A frame read but not yet sent to the decoder: its clear payload, overlay and time.
struct Held {
    int64_t index, pts;
    kxt::Bytes es;
    kxv::Overlay overlay;
};

int run(const ViewOptions &v) {
    if (!v.png_dir.empty() && mkdir(v.png_dir.c_str(), 0777) != 0 && errno != EEXIST) {
        return errorf("cannot create '%s': %s", v.png_dir.c_str(), strerror(errno)), 2;
    }
    FILE *in = kxt::open_input(v.input);
    if (in == nullptr) return 2;
    struct stat st;
    uint64_t size = (fstat(fileno(in), &st) == 0 && S_ISREG(st.st_mode)) ? uint64_t(st.st_size) : 0;

    kxv::VideoOut video(v.video);
    if (!v.video.empty() && !video.check()) {
        if (in != stdin) fclose(in);
        return 2;
    }
    int pix_fmt = v.video.empty() ? AV_PIX_FMT_RGB24 : video.pix_fmt();
    kxv::Decoder decoder;
    kxv::FontChooser fonts(KORVEX_VIEW_FONT, v.font);
    kxv::Renderer renderer(&fonts, v.width, v.overlay);
    kxc::PtsClock clock(v.fps);
    // Overlays and times of the frames sent to the decoder, by frame index; the times of the pictures
    // to come, smallest first (pictures come out in display order, frames go in in decode order).
    std::map<int64_t, kxv::Overlay> pending;
    std::multiset<int64_t> times;
    // Frames since the last key frame before the first wanted one: sent when it comes, so that decoding
    // starts at that key frame; until then nothing is decoded.
    std::vector<Held> gop;
    bool decoding = v.only < 0 && v.from_ms < 0;
    long long pictures = 0, undecoded = 0, missing = 0, broken_key = 0;
    bool failed = false, done = false;
    Progress progress(v.progress == 1 || (v.progress < 0 && isatty(2)), size, v.only);

    auto wanted = [&](int64_t index, int64_t pts) {
        if (v.only >= 0) return index == v.only;
        if (v.from_ms >= 0 && pts < v.from_ms) return false;
        if (v.to_ms >= 0 && pts > v.to_ms) return false;
        return v.png_dir.empty() || index % v.every == 0;
    };
    // Renders and writes every picture the decoder has ready.
    auto drain = [&]() {
        int64_t index = 0;
        while (!failed && !done) {
            AVFrame *pic = decoder.receive(&index);
            if (pic == nullptr) return;
            kxv::Overlay ov;
            auto it = pending.find(index);
            if (it != pending.end()) {
                ov = std::move(it->second);
                pending.erase(it);
            }
            // Older overlays belong to pictures the decoder dropped.
            pending.erase(pending.begin(), pending.lower_bound(index - 64));
            int64_t pts = times.empty() ? 0 : *times.begin();
            if (!times.empty()) times.erase(times.begin());
            if (!wanted(index, pts)) continue;
            AVFrame *out = renderer.render(pic, ov, pix_fmt);
            if (out == nullptr) {
                failed = true;
                return;
            }
            if (!v.png_dir.empty()) {
                char name[48];
                snprintf(name, sizeof(name), "/frame_%06lld.png", (long long)index);
                std::string path = v.png_dir + name;
                if (!kxv::write_png(out, path)) {
                    failed = true;
                    return;
                }
                progress.clear();
                if (!v.quiet) printf("%s\n", path.c_str());
                done = v.only >= 0;
            } else if (!video.add(out, pts, clock.fps())) {
                failed = true;
                return;
            }
            ++pictures;
        }
    };

    kxt::Codec codec = kxt::Codec::kUnknown;
    auto decode = [&](Held &h) {
        if (!decoder.is_open() && !decoder.open(codec)) {
            failed = true;
            return;
        }
        pending[h.index] = std::move(h.overlay);
        times.insert(h.pts);
        if (!decoder.send(h.es.data(), h.es.size(), h.index)) {
            progress.clear();
            errorf("frame %lld: the %s decoder refused its payload", (long long)h.index, kxt::codec_name(codec));
            ++undecoded;
        }
        drain();
    };

    kxc::WalkTotals totals;
    kxc::walk(in, v.walk, [&](const kxc::FrameReport &r, kxc::Span frame) {
        if (r.decrypt == kxc::Decrypt::kFailed) {  // said by the walk's notice: one line, then stop
            ++broken_key;
            return false;
        }
        if (r.decrypt == kxc::Decrypt::kNoKey) {
            progress.clear();
            errorf("frame %lld is encrypted: give --key", r.index);
            ++missing;
            return false;
        }
        if (!r.clear() || frame.data == nullptr) return true;
        const uint8_t *payload = frame.data + KX_FRAME_HEADER_LEN;
        size_t payload_len = std::min(size_t(r.payload_len), r.held - KX_FRAME_HEADER_LEN);
        int64_t pts = clock.next(r, payload, payload_len);
        if (v.to_ms >= 0 && pts > v.to_ms) return false;  // behind the last wanted picture
        Held h{r.index, pts, kxc::clear_payload(frame.data, r.held, r.payload_len, r.codec, false), {}};
        if (h.es.empty()) return true;
        codec = r.codec;
        h.overlay = kxv::overlay_of(r.ud);
        if (!decoding) {
            if (r.key_frame) gop.clear();
            gop.push_back(std::move(h));
            bool first_wanted = v.only >= 0 ? r.index >= v.only : pts >= v.from_ms;
            if (!first_wanted) {
                progress.update(r.index, r.offset + r.held, pictures);
                return true;
            }
            decoding = true;
            for (Held &g : gop) {
                if (!failed && !done) decode(g);
            }
            gop.clear();
        } else {
            decode(h);
        }
        progress.update(r.index, r.offset + r.held, pictures);
        return !failed && !done;
    }, [&](const std::string &line) {
        progress.clear();
        errorf("%s", line.c_str());
    }, &totals);
    if (in != stdin) fclose(in);
    int rc = 0;
    if (totals.read_error != 0) {
        errorf("cannot read '%s': %s", v.input.c_str(), strerror(totals.read_error));
        rc = 2;
    }
    if (!failed && !done && decoder.is_open()) {
        decoder.flush();
        drain();
    }
    progress.clear();
    if (rc != 0) return rc;
    if (failed) return 2;
    if (totals.frames == 0) return errorf("'%s' is empty: no frames to read", v.input.c_str()), 1;
    if (totals.foreign || broken_key > 0 || missing > 0) return 1;  // said in one line already
    if (!v.video.empty()) {
        if (pictures == 0) return errorf("no picture to write to '%s'", v.video.c_str()), 1;
        if (!video.finish()) return 2;
        if (!v.quiet) printf("%s\n", v.video.c_str());
    }
    if (v.only >= 0 && pictures == 0) {
        if (v.only >= totals.frames) return errorf("frame %lld not drawn: the stream has %lld frames", v.only, totals.frames), 1;
        return errorf("frame %lld not drawn: it did not decode", v.only), 1;
    }
    if (pictures == 0) return errorf("no picture decoded"), 1;
    if (!v.quiet) {
        errorf("%lld %s drawn from %lld %s", pictures, pictures == 1 ? "picture" : "pictures", totals.frames,
               totals.frames == 1 ? "frame" : "frames");
    }
    return totals.broken > 0 || undecoded > 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char **argv) {
    kxt::set_program_name("korvex-view");
    ViewOptions v;
    if (argc == 1 && isatty(0)) {
        fputs("usage: korvex-view [OPTIONS] --png DIR|-o OUT.mp4 FILE; korvex-view --help tells more\n", stderr);
        return 2;
    }
    int rc = parse_options(argc, argv, &v);
    if (rc != 0) return rc < 0 ? 0 : rc;
    sdk_log_set_level(v.verbose ? SDK_LOG_LEVEL_ERR : 0, 0, 0);
    av_log_set_level(v.verbose ? AV_LOG_ERROR : AV_LOG_QUIET);
    return run(v);
}
