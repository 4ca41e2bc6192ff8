// korvex-view: decodes a stream of frames and draws on each picture what the device put into its user
// data: the VCA target rectangles, plates, OSD texts and the absolute time. Output: PNG pictures or a
// video file.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <map>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/pixfmt.h>
}

#include "core/core.h"
#include "korvex-view/view.h"

namespace {

using kxt::errorf;

const char kHelp[] =
    "Usage: korvex-view [OPTIONS] --png DIR [FILE]\n"
    "  or:  korvex-view [OPTIONS] -o OUT.mp4 [FILE]\n"
    "Draw the user data of frames onto their decoded pictures.\n"
    "\n"
    "Reads frames from FILE (or standard input, also for -) as korvex-dump does, decrypts them with\n"
    "--key, decodes their H.264 or H.265 payloads with FFmpeg's libraries and draws on each picture\n"
    "what the frame's user data holds: every VCA target as an amber rectangle (scaled from the\n"
    "device's coordinates to the picture), the absolute time (UTC) and the OSD texts at the top\n"
    "left, the plates at the bottom left. Text is drawn with libavfilter's drawtext in the font\n"
    "given at build time.\n"
    "\n"
    "Pictures smaller than 480 pixels wide are scaled up to 480 so that the text stays readable;\n"
    "--width chooses another width. Each output file is written under a temporary name and renamed\n"
    "when complete. A progress line appears on standard error for long runs when it is a terminal.\n"
    "\n"
    "Options:\n"
    "  --png DIR        one PNG file per picture, DIR/frame_NNNNNN.png (NNNNNN the frame's number in\n"
    "                   the stream, from 0); DIR is created when missing; each path is printed\n"
    "  --every N        with --png: only frames 0, N, 2N, ...\n"
    "  --frame N        with --png: only frame N\n"
    "  -o, --output OUT a video file with the overlays; the container follows the name (.mp4 and\n"
    "                   .mkv with H.264, .avi with MPEG-4)\n"
    "  --fps FPS        frame rate of the video file (default 25)\n"
    "  --key KEY        decrypt encrypted frames with KEY (1 to 16 characters)\n"
    "  --codec auto|h264|h265\n"
    "                   the codec of the frames' data; auto (the default) asks the probes\n"
    "  --mask MASK      the two-layout analysis with this mask, as in korvex-dump\n"
    "  --width W        width of the output pictures (height keeps the aspect)\n"
    "  --no-overlay     the decoded pictures alone\n"
    "  --font FILE      a TrueType font for the text instead of the built-in choice\n"
    "  --progress, --no-progress\n"
    "                   always or never show the progress line\n"
    "  -q, --quiet      no paths and no summary\n"
    "  -v, --verbose    also FFmpeg's and the library's own error lines\n"
    "  -h, --help       this text\n"
    "\n"
    "Exit status:\n"
    "  0 every frame sound and decoded; 1 a broken frame, a picture that did not decode, or nothing\n"
    "  to draw; 2 bad options, an unreadable input or an output that cannot be written.\n"
    "\n"
    "Examples:\n"
    "  korvex-view --key secret --png shots --every 25 cam.frames\n"
    "\n"
    "  korvex-view --key secret --png shots --frame 0 cam.frames\n"
    "\n"
    "  korvex-view --key secret -o cam.mp4 cam.frames\n";

struct ViewOptions {
    std::string input = "-";
    kxc::AnalysisOptions walk;
    bool verbose = false;
    std::string png_dir, video;
    long long every = 1, only = -1;
    double fps = 25;
    int width = 0;
    bool overlay = true;
    std::string font = KORVEX_VIEW_FONT;
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
    if (access(v->font.c_str(), R_OK) != 0) return errorf("cannot read the font '%s': %s", v->font.c_str(), strerror(errno)), 2;
    return 0;
}

double now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + ts.tv_nsec / 1e9;
}

int run(const ViewOptions &v) {
    if (!v.png_dir.empty() && mkdir(v.png_dir.c_str(), 0777) != 0 && errno != EEXIST) {
        return errorf("cannot create '%s': %s", v.png_dir.c_str(), strerror(errno)), 2;
    }
    kxv::VideoOut video(v.video, v.fps);
    if (!v.video.empty() && !video.check()) return 2;
    int pix_fmt = v.video.empty() ? AV_PIX_FMT_RGB24 : video.pix_fmt();

    kxv::Decoder decoder;
    kxv::Renderer renderer(v.font, v.width, v.overlay);
    std::map<int64_t, kxv::Overlay> pending;  // overlays of frames sent to the decoder, by frame index
    long long pictures = 0, undecoded = 0, missing = 0;
    bool failed = false, done = false;
    bool show = v.progress == 1 || (v.progress < 0 && isatty(2));
    double start = now(), last = 0;
    bool shown = false;
    auto clear_progress = [&]() {
        if (shown) fputs("\r\033[K", stderr);
        shown = false;
    };

    auto wanted = [&](int64_t index) {
        if (!v.png_dir.empty()) return v.only >= 0 ? index == v.only : index % v.every == 0;
        return true;
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
            // Pictures come out in display order, a few frames apart at most; older overlays belong to
            // pictures the decoder dropped.
            pending.erase(pending.begin(), pending.lower_bound(index - 64));
            if (!wanted(index)) continue;
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
                clear_progress();
                if (!v.quiet) printf("%s\n", path.c_str());
                done = v.only >= 0;
            } else if (!video.add(out)) {
                failed = true;
                return;
            }
            ++pictures;
        }
    };

    FILE *in = kxt::open_input(v.input);
    if (in == nullptr) return 2;
    kxc::WalkTotals totals;
    kxc::walk(in, v.walk, [&](const kxc::FrameReport &r, kxc::Span frame) {
        if (!r.clear() || frame.data == nullptr) {
            if (r.decrypt == kxc::Decrypt::kNoKey && missing == 0) {
                clear_progress();
                errorf("frame %lld is encrypted: give --key", r.index);
            }
            ++missing;
            return true;
        }
        kxt::Bytes es = kxc::clear_payload(frame.data, r.held, r.payload_len, r.codec, false);
        if (es.empty()) return true;
        if (!decoder.is_open() && !decoder.open(r.codec)) {
            failed = true;
            return false;
        }
        pending[r.index] = kxv::overlay_of(r.ud);
        if (!decoder.send(es.data(), es.size(), r.index)) {
            clear_progress();
            errorf("frame %lld: the %s decoder refused its payload", r.index, kxt::codec_name(r.codec));
            ++undecoded;
        }
        drain();
        double t = now();
        if (show && t - start > 1.0 && t - last > 0.2) {
            last = t;
            fprintf(stderr, "\rkorvex-view: frame %lld, %lld pictures\033[K", r.index, pictures);
            shown = true;
        }
        return !failed && !done;
    }, [&](const std::string &line) {
        clear_progress();
        errorf("%s", line.c_str());
    }, &totals);
    if (in != stdin) fclose(in);
    int rc = 0;
    if (totals.read_error != 0) {
        errorf("cannot read '%s': %s", v.input.c_str(), strerror(totals.read_error));
        rc = 2;
    }
    if (!failed && !done) {
        decoder.flush();
        drain();
    }
    clear_progress();
    if (rc != 0) return rc;
    if (failed) return 2;
    if (totals.frames == 0) return errorf("'%s' is empty: no frames to read", v.input.c_str()), 1;
    if (totals.foreign) return 1;  // said by the walk
    if (!v.video.empty()) {
        if (!video.finish()) return pictures == 0 ? 1 : 2;
        if (!v.quiet) printf("%s\n", v.video.c_str());
    }
    if (v.only >= 0 && pictures == 0) {
        return errorf("frame %lld not drawn: the stream has %lld frames", v.only, totals.frames), 1;
    }
    if (pictures == 0) return errorf("no picture decoded"), 1;
    if (!v.quiet) {
        errorf("%lld %s drawn from %lld %s", pictures, pictures == 1 ? "picture" : "pictures", totals.frames,
               totals.frames == 1 ? "frame" : "frames");
    }
    return totals.broken > 0 || undecoded > 0 || missing > 0 ? 1 : 0;
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
