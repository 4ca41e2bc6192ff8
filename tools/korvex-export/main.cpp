// korvex-export: a recording of frames into an MP4 or Matroska file that players open, at the pictures'
// own times, with the frames' user data beside them.
#include <unistd.h>

#include "korvex-export/export.h"

namespace {

using kxt::errorf;

const char kHelp[] =
    "Usage: korvex-export [OPTIONS] -o OUT.mp4|OUT.mkv [FILE]\n"
    "Frames into an MP4 or Matroska file at their own times, with their user data.\n"
    "\n"
    "Reads frames from FILE (or standard input, also for -) as korvex-dump does, decrypts them with\n"
    "--key and writes their H.264 or H.265 pictures, as they are (no re-encoding), into OUT: MP4 for\n"
    ".mp4, .m4v and .mov (fragmented at each key frame, so memory stays small whatever the length),\n"
    "Matroska for .mkv. The user-data units are left out of the pictures; key frames are flagged.\n"
    "\n"
    "Each picture's time comes from the device's absolute time in its user data: the frames that share\n"
    "a second follow each other at the frame interval within it, to the millisecond. Frames without a\n"
    "device time follow the previous one at the interval. The interval comes from the stream's own\n"
    "timing (VUI timing of the H.264 SPS, the H.265 VPS or SPS), else from --fps, else 25 frames per\n"
    "second. The file's time 0 is the first picture; its tag korvex_start_ms says where that lies on\n"
    "the device's clock (milliseconds since 1970), and creation_time says it as a date. Pictures keep\n"
    "the frames' order: a stream with B-frames (which cameras don't send) shows them in decoding order.\n"
    "\n"
    "The user data of every frame goes along as a metadata track, one sample per picture holding the\n"
    "JSON object that korvex-dump --json prints for the frame: a data track in MP4 (players pass over\n"
    "it; browsers and ffplay play the file as without it), a WebVTT track of kind metadata in Matroska\n"
    "(ffplay shows it as subtitles unless given -sn). --no-data-track leaves it out.\n"
    "\n"
    "A clip (--from/--to or --frames) starts at the key frame at or before its first time or frame, so\n"
    "that it plays from its first picture, and ends with the last picture at or before its end. With\n"
    "--index the walk starts near that key frame instead of at the beginning of the recording.\n"
    "\n"
    "The video and the side files are written under temporary names beside them and renamed when\n"
    "the export is complete: a failed export leaves none of them behind.\n"
    "\n"
    "Options:\n"
    "  -o, --output OUT  the video file; its name gives the container (.mp4, .m4v, .mov, .mkv)\n"
    "  --key KEY         decrypt encrypted frames with KEY (1 to 16 characters)\n"
    "  --codec auto|h264|h265\n"
    "                    the codec of the frames' data; auto (the default) asks the probes\n"
    "  --mask MASK       the two-layout analysis with this mask, as in korvex-dump\n"
    "  --fps FPS         the frame rate where the stream gives none (default 25)\n"
    "  --from TIME       the clip's first time, as 2024-05-01T08:00:00Z, 2024-05-01 08:00:00.250 or\n"
    "                    seconds since 1970 (UTC; a fraction gives milliseconds); a recording without\n"
    "                    device times counts from 0 at its first picture\n"
    "  --to TIME         the clip's last time (the picture at it is the last one written)\n"
    "  --frames A:B      the clip by frame numbers (as korvex-dump counts them, from 0; B included;\n"
    "                    A: or :B leave one end open); goes with --from/--to, both limits apply\n"
    "  --index FILE      an I-frame index of the recording (as korvex-mkframe --index-out writes:\n"
    "                    each item the frame's offset, sign bit 0 for key frames) to find the clip's\n"
    "                    first key frame without reading the recording up to it\n"
    "  --vtt FILE        a WebVTT file whose cues show the device time, the OSD texts and the plates\n"
    "                    while they are on screen (one cue as long as the text stays the same)\n"
    "  --csv FILE        one row per plate: time (device time, ISO 8601 UTC with milliseconds; empty\n"
    "                    without one), video_time (seconds in OUT), frame (number), plate (UTF-8),\n"
    "                    x1,y1,x2,y2 (the VCA target at the plate's position in the frame, in\n"
    "                    ten-thousandths of the picture; empty when the frame has no such target)\n"
    "  --json FILE       the JSON object of each written frame (as korvex-dump --json), one per line\n"
    "  --no-data-track   no metadata track in OUT\n"
    "  --skip-broken     leave broken frames out and go on (the exit status is still 1); by default\n"
    "                    the first broken frame stops the export\n"
    "  --progress        a progress line on standard error\n"
    "  -q, --quiet       no summary line\n"
    "  -v, --verbose     also the library's own error lines\n"
    "  -h, --help        this text\n"
    "\n"
    "Exit status:\n"
    "  0 written; 1 broken input: a broken frame, a wrong or missing key, no frame in the clip's range,\n"
    "  no key picture (with --skip-broken: OUT is written, the broken frames left out); 2 bad options,\n"
    "  an input that cannot be read or an output that cannot be written. With 1 and 2 (but for\n"
    "  --skip-broken) no file is written.\n"
    "\n"
    "Examples:\n"
    "  korvex-export --key secret -o cam.mp4 --vtt cam.vtt cam.frames\n"
    "\n"
    "  korvex-export --key secret --from 2024-05-01T08:00:10Z --to 2024-05-01T08:00:20Z -o clip.mkv cam.frames\n"
    "\n"
    "  korvex-export --frames 250:499 --index cam.index --csv plates.csv -o clip.mp4 cam.frames\n";

// 0 on success, 2 after a message on bad options, -1 after --help.
int parse_options(int argc, char **argv, kxe::ExportOptions *o, bool *quiet, bool *verbose) {
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i], s;
        auto value = [&]() {
            if (i + 1 >= argc) return errorf("option %s needs a value", a.c_str()), false;
            s = argv[++i];
            return true;
        };
        auto file = [&](std::string *out) {
            if (!value()) return false;
            if (s.empty() || s == "-") return errorf("%s needs a file name", a.c_str()), false;
            *out = s;
            return true;
        };
        if (a == "-h" || a == "--help") {
            fputs(kHelp, stdout);
            return -1;
        } else if (a == "-q" || a == "--quiet") {
            *quiet = true;
        } else if (a == "-v" || a == "--verbose") {
            *verbose = true;
        } else if (a == "--progress") {
            o->progress = 1;
        } else if (a == "--no-data-track") {
            o->data_track = false;
        } else if (a == "--skip-broken") {
            o->skip_broken = true;
        } else if (a == "-o" || a == "--output") {
            if (!file(&o->output)) return 2;
        } else if (a == "--vtt") {
            if (!file(&o->vtt)) return 2;
        } else if (a == "--csv") {
            if (!file(&o->csv)) return 2;
        } else if (a == "--json") {
            if (!file(&o->json)) return 2;
        } else if (a == "--index") {
            if (!file(&o->index)) return 2;
        } else if (a == "--fps") {
            if (!value()) return 2;
            if (!kxt::parse_positive_double(s, &o->fps) || o->fps > 1000) return errorf("bad frame rate '%s'", s.c_str()), 2;
        } else if (a == "--from" || a == "--to") {
            if (!value()) return 2;
            int64_t ms;
            if (!kxc::parse_time_ms(s, &ms)) {
                return errorf("%s takes a time such as 2024-05-01T08:00:00Z or seconds since 1970, not '%s'",
                              a.c_str(), s.c_str()), 2;
            }
            if (a == "--from") o->has_from = true, o->from_ms = ms;
            else o->has_to = true, o->to_ms = ms;
        } else if (a == "--frames") {
            if (!value()) return 2;
            if (!kxc::parse_frame_range(s, &o->first, &o->last)) {
                return errorf("--frames takes A:B (frame numbers from 0, A <= B; A: or :B), not '%s'", s.c_str()), 2;
            }
        } else if (kxc::is_walk_option(a)) {
            if (!value()) return 2;
            if (kxc::set_walk_option(a, s, &o->analysis) != 0) return 2;
        } else if (a.size() > 1 && a[0] == '-') {
            return errorf("unknown option %s (see --help)", a.c_str()), 2;
        } else {
            o->input = a;
            ++inputs;
        }
    }
    if (inputs > 1) return errorf("give at most one input (see --help)"), 2;
    if (o->output.empty()) return errorf("give the output with -o OUT.mp4 or -o OUT.mkv (see --help)"), 2;
    if (kxe::container_of(o->output) == nullptr) {
        return errorf("'%s': the output's name must end in .mp4, .m4v, .mov or .mkv", o->output.c_str()), 2;
    }
    if (!o->index.empty() && !o->has_from && o->first < 0) return errorf("--index goes with --from or --frames"), 2;
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    kxt::set_program_name("korvex-export");
    kxe::ExportOptions o;
    bool quiet = false, verbose = false;
    if (argc == 1 && isatty(0)) {
        fputs("usage: korvex-export [OPTIONS] -o OUT.mp4 FILE; korvex-export --help tells more\n", stderr);
        return 2;
    }
    int rc = parse_options(argc, argv, &o, &quiet, &verbose);
    if (rc != 0) return rc < 0 ? 0 : rc;
    if (o.input == "-" && isatty(0)) return errorf("refusing to read frames from a terminal; give FILE"), 2;
    sdk_log_set_level(verbose ? SDK_LOG_LEVEL_ERR : 0, 0, 0);
    kxe::set_ffmpeg_log(verbose);
    kxe::ExportResult res;
    rc = kxe::run_export(o, [](const std::string &line) { errorf("%s", line.c_str()); }, &res);
    if (res.written && !quiet) {
        errorf("%lld frames (%lld to %lld) written to '%s', %s to %s, times from the %s", res.frames, res.first_index,
               res.last_index, o.output.c_str(),
               res.device_times ? kxc::iso8601_ms(res.first_ms).c_str() : (std::to_string(res.first_ms) + " ms").c_str(),
               res.device_times ? kxc::iso8601_ms(res.last_ms).c_str() : (std::to_string(res.last_ms) + " ms").c_str(),
               res.device_times ? "device's clock" : kxc::time_source_name(res.interval_source));
    }
    return rc;
}
