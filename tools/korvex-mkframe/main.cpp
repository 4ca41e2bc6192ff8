// korvex-mkframe: wraps a raw H.264 or H.265 Annex B stream into the device's frames, one frame for each
// access unit, with optional user data (absolute time, VCA targets, plates, OSD text, any block) and
// optional frame encryption in either mode.
#include <errno.h>
#include <math.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/annexb.h"
#include "common/frame_make.h"
#include "common/sniff.h"
#include "common/tool_util.h"
#include "korvex/korvex.h"

using namespace kxt;

namespace {

const char kHelp[] =
    "Usage: korvex-mkframe [OPTIONS] -o OUTPUT INPUT\n"
    "Wrap an H.264/H.265 Annex B stream into frames, with user data and encryption.\n"
    "\n"
    "Reads a raw Annex B byte stream (for example made with ffmpeg ... -f h264 out.h264), splits it\n"
    "into access units and writes one frame for each: a 32-byte frame header (uiFrameLen,\n"
    "uiFrameNo, uiPayloadLen, usFrameFlags) and the access unit. With any user-data option every\n"
    "frame begins with a user-data unit (an SEI NAL unit holding a QZST container) in front of the\n"
    "access unit. With --encrypt the frames are encrypted in place with --key; frame numbers are the\n"
    "counters of the cipher. INPUT may be - for standard input. The input is read and the frames\n"
    "written piece by piece, so memory stays small whatever the input's size. Container files (MP4,\n"
    "Matroska, ...) are refused with the ffmpeg command that gives their raw stream, and so are\n"
    "files of frames (already wrapped) and text.\n"
    "\n"
    "Options:\n"
    "  -o, --output FILE     where the frames go; - is standard output (never a terminal)\n"
    "  --codec auto|h264|h265\n"
    "                        the input's codec; auto (the default) asks the H.264 and H.265 probes;\n"
    "                        a codec that the probes contradict needs --force\n"
    "  --force               take --codec even where the probes find the other codec\n"
    "  --max-frames N        only the first N access units\n"
    "  --first-frame-no N    uiFrameNo of the first frame (default 1); each frame counts one up\n"
    "  --start-time TIME     put an absolute-time block into every frame: TIME is UTC, as\n"
    "                        2023-11-14T22:13:20Z or as seconds since 1970; frame i carries\n"
    "                        TIME + floor(i / FPS)\n"
    "  --fps FPS             frame rate for --start-time (default 25; 29.97 is fine); the last\n"
    "                        frame's time must not pass 2^32 - 1 seconds\n"
    "  --vca X1,Y1,X2,Y2[,W5,W6,W7,W8]\n"
    "                        a VCA target rectangle in ten-thousandths of the picture (0-10000,\n"
    "                        X1 <= X2, Y1 <= Y2), with up to four more words carried unchanged\n"
    "                        (e.g. id, class); repeatable (16 targets in the old layout, 128 in\n"
    "                        the new)\n"
    "  --plate TEXT          a licence plate (at most 100 characters); repeatable, at most 10\n"
    "  --osd TEXT            an OSD text (sub-type 7, at most 512 bytes); repeatable\n"
    "  --block TYPE:HEX      any block, e.g. --block 0xFEE2:0102030405 for PTZ data; repeatable\n"
    "  --layout old|new      container layout: old (payload type F0, up to 1024 bytes, found by every\n"
    "                        analysis; the default) or new (F1, up to 10240 bytes, found by the\n"
    "                        two-layout analysis only, korvex-dump --mask)\n"
    "  --encrypt plain|enhanced\n"
    "                        encrypt every frame: plain covers payload bytes 0-63 (frames below 96\n"
    "                        bytes stay clear), enhanced the first 64 bytes of every 256\n"
    "  --key KEY             the key, 1 to 16 characters\n"
    "  --index-out FILE      also write an I-frame index of the frames: one item each, with the\n"
    "                        frame's offset in OUTPUT, its frame number as stamp, and sign bit 0 for\n"
    "                        key frames, bit 1 for frames with user data\n"
    "  -q, --quiet           no summary on standard error\n"
    "  -h, --help            this text\n"
    "\n"
    "Exit status:\n"
    "  0 frames written; 1 the input holds no stream of a known codec (or is a container file, frames\n"
    "  or text), or the user data or a frame is too large; 2 bad options (a date that doesn't exist,\n"
    "  a reversed target, a contradicted codec, a time past 2^32 - 1 seconds) or files.\n"
    "\n"
    "Examples:\n"
    "  ffmpeg -f lavfi -i testsrc=size=320x240:rate=25 -frames:v 50 -f h264 in.h264\n"
    "\n"
    "  korvex-mkframe --start-time 2024-05-01T08:00:00Z --vca 1000,1000,5000,5000,7 \\\n"
    "      --plate AB123CD --osd 'Gate 3' --encrypt enhanced --key secret -o cam.frames in.h264\n"
    "\n"
    "  ffmpeg -i clip.mp4 -c:v copy -bsf:v h264_mp4toannexb -f h264 clip.h264\n"
    "\n"
    "  korvex-dump --key secret cam.frames\n";

struct Options {
    std::string input, output, index_out;
    Codec codec = Codec::kUnknown;  // unknown: probe
    uint32_t first_frame_no = 1;
    long long max_frames = -1;  // all
    bool has_time = false;
    uint32_t start_time = 0;
    double fps = 25;
    std::vector<VcaRect> vca;
    std::vector<std::string> plates, osd;
    std::vector<Bytes> blocks;  // whole blocks given with --block
    Layout layout = Layout::kOld;
    int encrypt = 0;  // 0 none, 1 plain, 2 enhanced
    std::string key;
    bool quiet = false;
    bool force = false;  // --force: a --codec that the probes contradict
};

// Empty on success, else why the target is refused.
std::string parse_vca(const std::string &text, VcaRect *out) {
    const std::string form = "X1,Y1,X2,Y2 in 0-10000, then up to four words";
    memset(out, 0, sizeof(*out));
    std::vector<long long> v;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t comma = text.find(',', pos);
        std::string part = text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        long long n;
        if (!parse_int(part, 0, 65535, &n)) return form;
        v.push_back(n);
        if (comma == std::string::npos) break;
        pos = comma + 1;
    }
    if (v.size() < 4 || v.size() > 8) return form;
    for (int i = 0; i < 4; ++i) {
        if (v[i] > 10000) return form;
        out->coord[i] = uint16_t(v[i]);
    }
    if (v[0] > v[2]) return "X1 " + std::to_string(v[0]) + " lies right of X2 " + std::to_string(v[2]);
    if (v[1] > v[3]) return "Y1 " + std::to_string(v[1]) + " lies below Y2 " + std::to_string(v[3]);
    for (size_t i = 4; i < v.size(); ++i) out->extra[i - 4] = uint16_t(v[i]);
    return "";
}

bool parse_block(const std::string &text, Bytes *out) {
    size_t colon = text.find(':');
    long long type;
    Bytes payload;
    if (colon == std::string::npos || !parse_int(text.substr(0, colon), 0, 0xFFFF, &type) ||
        !parse_hex(text.substr(colon + 1), &payload) || payload.size() > 0xFFFF) {
        return false;
    }
    *out = ud_block(uint16_t(type), payload);
    return true;
}

// 0 on success, 2 after a message on bad options, -1 after --help.
int parse_options(int argc, char **argv, Options *o) {
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string *v) {
            if (i + 1 >= argc) {
                errorf("option %s needs a value", a.c_str());
                return false;
            }
            *v = argv[++i];
            return true;
        };
        std::string v;
        long long n;
        if (a == "-h" || a == "--help") {
            fputs(kHelp, stdout);
            return -1;
        } else if (a == "-q" || a == "--quiet") {
            o->quiet = true;
        } else if (a == "--force") {
            o->force = true;
        } else if (a == "-o" || a == "--output") {
            if (!value(&o->output)) return 2;
        } else if (a == "--index-out") {
            if (!value(&o->index_out)) return 2;
        } else if (a == "--codec") {
            if (!value(&v)) return 2;
            if (v == "h264") o->codec = Codec::kH264;
            else if (v == "h265") o->codec = Codec::kH265;
            else if (v == "auto") o->codec = Codec::kUnknown;
            else return errorf("--codec takes auto, h264 or h265, not '%s'", v.c_str()), 2;
        } else if (a == "--first-frame-no") {
            if (!value(&v)) return 2;
            if (!parse_int(v, 0, 0xFFFFFFFFLL, &n)) return errorf("bad frame number '%s'", v.c_str()), 2;
            o->first_frame_no = uint32_t(n);
        } else if (a == "--max-frames") {
            if (!value(&v)) return 2;
            if (!parse_int(v, 1, 1LL << 40, &o->max_frames)) return errorf("bad frame count '%s'", v.c_str()), 2;
        } else if (a == "--start-time") {
            if (!value(&v)) return 2;
            if (!parse_utc_time(v, &o->start_time)) {
                return errorf("bad time '%s': use a date that exists, 2023-11-14T22:13:20Z, up to "
                              "2106-02-07T06:28:15Z, or seconds since 1970", v.c_str()), 2;
            }
            o->has_time = true;
        } else if (a == "--fps") {
            if (!value(&v)) return 2;
            if (!parse_positive_double(v, &o->fps)) return errorf("bad frame rate '%s'", v.c_str()), 2;
        } else if (a == "--vca") {
            if (!value(&v)) return 2;
            VcaRect r;
            std::string why = parse_vca(v, &r);
            if (!why.empty()) return errorf("bad target '%s': %s", v.c_str(), why.c_str()), 2;
            o->vca.push_back(r);
        } else if (a == "--plate") {
            if (!value(&v)) return 2;
            if (v.empty() || v.size() > kPlateTextMax) {
                return errorf("a plate has 1 to %d characters", kPlateTextMax), 2;
            }
            o->plates.push_back(v);
        } else if (a == "--osd") {
            if (!value(&v)) return 2;
            if (v.size() > kOsdTextMax) return errorf("an OSD text has at most %d bytes", kOsdTextMax), 2;
            o->osd.push_back(v);
        } else if (a == "--block") {
            if (!value(&v)) return 2;
            Bytes b;
            if (!parse_block(v, &b)) return errorf("bad block '%s': TYPE:HEX, e.g. 0xFEE2:0102", v.c_str()), 2;
            o->blocks.push_back(b);
        } else if (a == "--layout") {
            if (!value(&v)) return 2;
            if (v == "old") o->layout = Layout::kOld;
            else if (v == "new") o->layout = Layout::kNew;
            else return errorf("--layout takes old or new, not '%s'", v.c_str()), 2;
        } else if (a == "--encrypt") {
            if (!value(&v)) return 2;
            if (v == "plain") o->encrypt = 1;
            else if (v == "enhanced") o->encrypt = 2;
            else return errorf("--encrypt takes plain or enhanced, not '%s'", v.c_str()), 2;
        } else if (a == "--key") {
            if (!value(&o->key)) return 2;
        } else if (a.size() > 1 && a[0] == '-') {
            return errorf("unknown option %s (see --help)", a.c_str()), 2;
        } else {
            inputs.push_back(a);
        }
    }
    if (inputs.size() != 1) return errorf("give exactly one input stream (see --help)"), 2;
    o->input = inputs[0];
    if (o->output.empty()) return errorf("give the output with -o FILE (or -o - for standard output)"), 2;
    if (o->output == "-" && isatty(1)) return errorf("refusing to write frames to a terminal"), 2;
    if (o->encrypt != 0 && (o->key.empty() || o->key.size() > 16)) {
        return errorf("--encrypt needs --key with 1 to 16 characters"), 2;
    }
    if (o->encrypt == 0 && !o->key.empty()) return errorf("--key without --encrypt"), 2;
    if (o->plates.size() > kPlateMax) return errorf("at most %d plates", kPlateMax), 2;
    size_t vca_max = o->layout == Layout::kOld ? 16 : 128;
    if (o->vca.size() > vca_max) return errorf("at most %zu targets in this layout", vca_max), 2;
    return 0;
}

// The blocks of frame i; empty when no user-data option was given.
std::vector<Bytes> frame_blocks(const Options &o, size_t i) {
    std::vector<Bytes> blocks;
    if (o.has_time) {
        double t = double(o.start_time) + floor(double(i) / o.fps);
        blocks.push_back(ud_block(kBlockTime, time_payload(uint32_t(t))));  // checked to fit by run()
    }
    if (!o.vca.empty()) blocks.push_back(ud_block(kBlockVcaTargets, vca_payload(o.vca)));
    if (!o.plates.empty()) blocks.push_back(ud_block(kBlockPlates, plate_payload(o.plates)));
    for (const std::string &text : o.osd) blocks.push_back(ud_block(kBlockOsd, osd_text_payload(text)));
    for (const Bytes &b : o.blocks) blocks.push_back(b);
    return blocks;
}

struct Totals {
    size_t frames = 0, key_frames = 0, with_user_data = 0, encrypted = 0, left_clear = 0;
};

// One access unit into a frame, written to out. 0, or the exit status after a message.
struct FrameWriter {
    FrameWriter(const Options &opts, Codec c, OutputFile &file) : o(opts), codec(c), out(file) {
        memcpy(key, o.key.data(), std::min(o.key.size(), sizeof(key) - 1));
    }
    const Options &o;
    Codec codec;
    OutputFile &out;
    unsigned char key[17] = {0};  // the enhanced cipher reads 16 bytes at the key
    uint64_t offset = 0;
    std::vector<IndexItem> items;
    Totals t;

    int add(size_t i, const Bytes &au, bool key_frame) {
        Bytes data;
        if (o.has_time && double(o.start_time) + floor(double(i) / o.fps) > 4294967295.0) {
            errorf("the time of frame %zu would pass 2106-02-07T06:28:15Z (2^32 - 1 seconds)", i);
            return 2;
        }
        std::vector<Bytes> blocks = frame_blocks(o, i);
        if (!blocks.empty()) {
            Bytes c = ud_container(blocks);
            if (int(c.size()) > container_limit(o.layout)) {
                errorf("the user data of frame %zu takes %zu bytes, more than the %d of the %s layout", i, c.size(),
                       container_limit(o.layout), o.layout == Layout::kOld ? "old" : "new");
                return 1;
            }
            data = ud_unit(codec, o.layout, c);
        }
        append(data, au);
        if (data.size() + 32 > kFrameMaxLen) {
            errorf("frame %zu would be %zu bytes, above the frame limit of %u", i, data.size() + 32,
                   unsigned(kFrameMaxLen));
            return 1;
        }
        uint32_t frame_no = o.first_frame_no + uint32_t(i);
        // The encrypting calls only clear flag bits: both state fields start at 3 and end at 2 where
        // the call marks the frame.
        Bytes frame = frame_header(uint32_t(data.size()), frame_no, o.encrypt ? 0x00FF : 0);
        append(frame, data);
        if (o.encrypt != 0) {
            int rc = o.encrypt == 1 ? SA_EncryptOneFrame(frame.data(), int(frame.size()), key, int(o.key.size()))
                                    : SA_EncryptOneFrameEx(frame.data(), int(frame.size()), key, int(o.key.size()));
            if (rc != 0) {
                errorf("encryption of frame %zu failed (%d)", i, rc);
                return 1;
            }
            if ((rd16(&frame[30]) & 3) == 2) {
                ++t.encrypted;
            } else {
                frame[30] = frame[31] = 0;  // too short for the plain cipher: an honest clear frame
                ++t.left_clear;
            }
        }
        items.push_back({uint32_t(offset), int32_t(frame_no), (key_frame ? 1u : 0u) | (blocks.empty() ? 0u : 2u)});
        if (!out.write(frame)) return 2;
        offset += frame.size();
        ++t.frames;
        t.key_frames += key_frame ? 1 : 0;
        t.with_user_data += blocks.empty() ? 0 : 1;
        return 0;
    }
};

// The input is read in pieces (NalReader) and each access unit written as its frame once the next
// unit opens, so memory holds one access unit and one piece of input whatever the input's size.
int run(const Options &o) {
    FILE *f = open_input(o.input);
    if (f == nullptr) return 2;
    struct Closer {
        FILE *f;
        ~Closer() {
            if (f != stdin) fclose(f);
        }
    } closer{f};
    NalReader reader(f);
    const uint8_t *head = nullptr;
    size_t head_len = reader.peek(4u << 20, &head);  // enough for the parameter sets and a key picture
    if (reader.error() != 0) return errorf("cannot read '%s': %s", o.input.c_str(), strerror(reader.error())), 2;
    Sniffed sniffed = sniff_input(head, head_len);
    if (sniffed.kind != InputKind::kAnnexB && sniffed.kind != InputKind::kUnknown) {
        // A container, a stream of frames or text: wrapping it would give frames of garbage.
        errorf("'%s': %s", o.input.c_str(), foreign_input_hint(sniffed, "a raw H.264/H.265 stream").c_str());
        return 1;
    }
    Codec probed = probe_codec(head, head_len);
    Codec codec = o.codec == Codec::kUnknown ? probed : o.codec;
    if (o.codec != Codec::kUnknown && probed != Codec::kUnknown && probed != o.codec && !o.force) {
        errorf("--codec %s, but the probes find %s in '%s'; --force to go on", codec_name(o.codec), codec_name(probed),
               o.input.c_str());
        return 2;
    }
    if (codec == Codec::kUnknown) {
        errorf("'%s' is neither an H.264 nor an H.265 Annex B stream to the probes; name it with --codec",
               o.input.c_str());
        return 1;
    }

    OutputFile out;
    if (!out.open(o.output)) return 2;
    FrameWriter w(o, codec, out);
    AccessUnitSplitter splitter(codec);
    Bytes au;
    bool au_key = false;
    size_t index = 0;
    const uint8_t *nal;
    size_t len;
    while (reader.next(&nal, &len)) {
        bool key = false;
        if (splitter.opens(nal, len, &key) && !au.empty()) {
            if (int rc = w.add(index++, au, au_key)) return rc;
            au.clear();
            au_key = false;
            if (o.max_frames > 0 && index >= size_t(o.max_frames)) break;
        }
        au.insert(au.end(), {0, 0, 0, 1});
        au.insert(au.end(), nal, nal + len);
        au_key = au_key || key;
    }
    if (reader.error() != 0) return errorf("cannot read '%s': %s", o.input.c_str(), strerror(reader.error())), 2;
    if (reader.too_long()) {
        errorf("'%s': no start code within %zu MiB at offset %llu; this is no Annex B stream", o.input.c_str(),
               size_t(NalReader::kMaxNal >> 20), (unsigned long long)reader.bytes());
        return 1;
    }
    if (!au.empty() && (o.max_frames <= 0 || index < size_t(o.max_frames))) {
        if (int rc = w.add(index++, au, au_key)) return rc;
    }
    if (w.t.frames == 0) {
        errorf("'%s' holds no NAL unit", o.input.c_str());
        return 1;
    }
    if (reader.skipped() > 0 && !o.quiet) {
        errorf("skipped %llu bytes in front of the first start code", (unsigned long long)reader.skipped());
    }
    if (!out.finish()) return 2;
    if (!o.index_out.empty() && !write_file(o.index_out, iframe_index(w.items))) return 2;
    if (!o.quiet) {
        const Totals &t = w.t;
        std::string enc;
        if (o.encrypt != 0) {
            enc = ", " + std::to_string(t.encrypted) + (o.encrypt == 1 ? " encrypted (plain)" : " encrypted (enhanced)");
            if (t.left_clear) enc += ", " + std::to_string(t.left_clear) + " too short to encrypt";
        }
        errorf("%zu frames (%s, %zu key), %llu bytes, user data in %zu%s", t.frames, codec_name(codec), t.key_frames,
               (unsigned long long)w.offset, t.with_user_data, enc.c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    set_program_name("korvex-mkframe");
    sdk_log_set_level(0, 0, 0);  // the tool reports failures itself
    Options o;
    if (argc == 1 && isatty(0)) {
        fputs("usage: korvex-mkframe [OPTIONS] -o OUTPUT INPUT; korvex-mkframe --help tells more\n", stderr);
        return 2;
    }
    int rc = parse_options(argc, argv, &o);
    if (rc != 0) return rc < 0 ? 0 : rc;
    return run(o);
}
