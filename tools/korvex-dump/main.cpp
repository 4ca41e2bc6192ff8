// korvex-dump: an inspector for streams of frames of the device's format, for raw Annex B streams and
// for I-frame index blocks.
#include <unistd.h>

#include "korvex-dump/dump.h"
#include "korvex-dump/json_fields.h"

namespace {

const char kHelp[] =
    "Usage: korvex-dump [OPTIONS] [FILE]\n"
    "  or:  korvex-dump --probe [--json] [FILE]\n"
    "  or:  korvex-dump --index SIGN [--ordinal N] [--json] [FILE]\n"
    "  or:  korvex-dump --es OUT [--key KEY] [--keep-sei] [FILE]\n"
    "Inspect frames: headers, encryption and the user data they carry.\n"
    "\n"
    "Reads frames one behind the other from FILE (or standard input, also for -): each a 32-byte\n"
    "frame header and its data. For each frame it prints its number and offset, the lengths, whether\n"
    "the header is valid, uiFrameNo, the attribute and info words, the flags and the encryption\n"
    "state and mode. With --key it decrypts encrypted frames in either mode. Then it runs the\n"
    "user-data analysis and prints the decoded records: absolute time as ISO 8601 UTC, VCA targets\n"
    "on the 176 x 144 grid, in pixels of the picture (its size from the stream's sequence parameter\n"
    "set) and unscaled (in ten-thousandths of the picture), licence plates, OSD text, PTZ data and\n"
    "the other kinds, and blocks passed on raw as type, length and hex.\n"
    "\n"
    "Where the single-frame analysis finds nothing in a frame whose data begins with a container\n"
    "of either layout (F0 old, F1 new), the two-layout analysis runs on it for every type.\n"
    "Plates and OSD texts print as text: UTF-8 as it is, anything else decoded from GB18030.\n"
    "\n"
    "A frame with an invalid header is reported with its offset and the walk searches on for the\n"
    "next valid header. A frame whose length runs over the next valid header ends there; a frame\n"
    "cut short by the end of the input is analysed as far as it goes. Containers split over\n"
    "consecutive frames are joined. Input that holds no frames at all (a raw H.264/H.265 stream,\n"
    "an MP4 or Matroska file, text) is named as such, with the command that takes it. A progress\n"
    "line appears on standard error for long walks when standard error is a terminal and standard\n"
    "output is not.\n"
    "\n"
    "Options:\n"
    "  --key KEY        decrypt encrypted frames with KEY (1 to 16 characters)\n"
    "  --es OUT         write the frames' payloads, decrypted, as one Annex B elementary stream to\n"
    "                   OUT (- for standard output) that ffprobe and ffplay open; no frame lines\n"
    "  --keep-sei       with --es: keep the user-data SEI units (they are removed by default)\n"
    "  --raw-text       plates and OSD texts as printable ASCII, other bytes as \\xHH escapes\n"
    "  --json           one JSON object per frame, one per line (--probe and --index: one object);\n"
    "                   the fields are listed below\n"
    "  --mask MASK      the two-layout analysis for every frame instead of the single-frame one: the\n"
    "                   frame's data must begin with an old (F0) or new (F1) container; only blocks\n"
    "                   whose bit is set in MASK are decoded (bit 0 time, 3 VCA targets, 7 plates,\n"
    "                   8 OSD, 15 PTZ, ...); MASK is a number (0x1A9) or all\n"
    "  --codec auto|h264|h265\n"
    "                   the codec of the frames' data, which selects the user-data patterns; auto\n"
    "                   (the default) takes the first frame that the probes recognise\n"
    "  --probe          the input is a raw Annex B stream: report what the H.264 and H.265 probes\n"
    "                   say, with its NAL units, access units and key frames (read in pieces, so\n"
    "                   any size fits)\n"
    "  --index SIGN     the input is an I-frame index block: count the items of sign type SIGN (0 all,\n"
    "                   1-5 sign bit 0-4) and list them (the first 1000)\n"
    "  --ordinal N      with --index: only the N-th matching item\n"
    "  -q, --quiet      no frame lines, only errors and the summary line\n"
    "  -v, --verbose    also the library's own error lines on standard error\n"
    "  --progress, --no-progress\n"
    "                   always or never show the progress line\n"
    "  -h, --help       this text\n"
    "\n"
    KXD_JSON_FIELDS_HELP
    "\n"
    "Exit status:\n"
    "  0 every frame sound (or the probe recognised the stream, or the index query succeeded);\n"
    "  1 a broken frame (invalid header, truncated, decryption failed, e.g. with a wrong key), no\n"
    "  frames at all, an unrecognised stream or an unusable index; 2 bad options or an unreadable\n"
    "  file. Encrypted frames without --key, and user data that the analysis refuses, are reported\n"
    "  but count as sound.\n"
    "\n"
    "Examples:\n"
    "  korvex-dump cam.frames\n"
    "\n"
    "  korvex-dump --key secret --json cam.frames | jq .userdata.time.utc\n"
    "\n"
    "  korvex-dump --mask all cam.frames\n"
    "\n"
    "  korvex-dump --key secret --es cam.h264 cam.frames && ffplay cam.h264\n"
    "\n"
    "  korvex-dump --probe in.h264\n"
    "\n"
    "  korvex-dump --index 1 cam.index\n";

// 0 on success, 2 after a message on bad options, -1 after --help.
int parse_options(int argc, char **argv, kxd::Options *o) {
    using kxt::errorf;
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        std::string v;
        auto value = [&]() {
            if (i + 1 >= argc) {
                errorf("option %s needs a value", a.c_str());
                return false;
            }
            v = argv[++i];
            return true;
        };
        long long n;
        if (a == "-h" || a == "--help") {
            fputs(kHelp, stdout);
            return -1;
        } else if (a == "--json") {
            o->json = true;
        } else if (a == "-q" || a == "--quiet") {
            o->quiet = true;
        } else if (a == "-v" || a == "--verbose") {
            o->verbose = true;
        } else if (a == "--raw-text") {
            o->analysis.raw_text = true;
        } else if (a == "--keep-sei") {
            o->keep_sei = true;
        } else if (a == "--es") {
            if (!value()) return 2;
            if (v.empty()) return errorf("--es needs a file name (or - for standard output)"), 2;
            o->es_out = v;
        } else if (a == "--progress") {
            o->progress = 1;
        } else if (a == "--no-progress") {
            o->progress = 0;
        } else if (a == "--probe") {
            o->probe = true;
        } else if (kxc::is_walk_option(a)) {
            if (!value()) return 2;
            if (kxc::set_walk_option(a, v, &o->analysis) != 0) return 2;
        } else if (a == "--index") {
            if (!value()) return 2;
            if (!kxt::parse_int(v, 0, 5, &n)) return errorf("--index takes a sign type from 0 to 5, not '%s'", v.c_str()), 2;
            o->index = true;
            o->sign_type = int(n);
        } else if (a == "--ordinal") {
            if (!value()) return 2;
            if (!kxt::parse_int(v, 1, 0x7FFFFFFF, &n)) return errorf("--ordinal takes a number from 1 on"), 2;
            o->ordinal = n;
        } else if (a.size() > 1 && a[0] == '-') {
            return errorf("unknown option %s (see --help)", a.c_str()), 2;
        } else {
            o->input = a;
            ++inputs;
        }
    }
    if (inputs > 1) return errorf("give at most one input (see --help)"), 2;
    if (o->probe && o->index) return errorf("--probe and --index exclude each other"), 2;
    if (o->ordinal != 0 && !o->index) return errorf("--ordinal goes with --index"), 2;
    if (!o->es_out.empty() && (o->probe || o->index || o->json)) {
        return errorf("--es goes with neither --probe, --index nor --json"), 2;
    }
    if (o->keep_sei && o->es_out.empty()) return errorf("--keep-sei goes with --es"), 2;
    if (!o->es_out.empty() && o->es_out != "-" && o->es_out == o->input) {
        return errorf("--es would overwrite its input '%s'", o->input.c_str()), 2;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    kxt::set_program_name("korvex-dump");
    kxd::Options o;
    if (argc == 1 && isatty(0)) {
        // Nothing given and nothing piped in: say how to use the tool rather than wait for input.
        fputs("usage: korvex-dump [OPTIONS] FILE (or - for standard input); korvex-dump --help tells more\n", stderr);
        return 2;
    }
    int rc = parse_options(argc, argv, &o);
    if (rc != 0) return rc < 0 ? 0 : rc;
    // The tool reports every failure itself; the library's lines (which name the key) only on request.
    sdk_log_set_level(o.verbose ? SDK_LOG_LEVEL_ERR : 0, 0, 0);
    if (o.probe) return kxd::run_probe(o);
    if (o.index) return kxd::run_index(o);
    if (!o.es_out.empty()) return kxd::write_elementary_stream(o);
    return kxd::walk_frames(o);
}
