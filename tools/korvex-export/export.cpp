// The export: the core's walk over the frames, each clear payload (its user-data units left out) handed
// to libavformat as one packet at the picture's time, the user data written beside it. Frames are held
// back only as long as needed: one frame (its duration is known when the next one comes), and before a
// clip's start the frames since the last key frame (the clip opens at the key frame at or before its
// first time). So memory stays bounded whatever the recording's length: MP4 is written fragmented at
// each key frame, Matroska keeps one cue per key frame.
#include "korvex-export/export.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <limits.h>

#include <algorithm>
#include <deque>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libavutil/mathematics.h>
}

#include "core/report_json.h"
#include "korvex-export/sidecar.h"
#include "stream/frame_header.h"

namespace kxe {

namespace {

using kxc::Codec;
using kxt::Bytes;

// What is kept of a frame until it is written.
struct Held {
    long long index = 0;
    int64_t t = 0;       // presentation time, ms
    int64_t clock = 0;   // the picture clock's time (the device's, where it gave one)
    bool key = false;
    bool device_time = false;
    Bytes es;          // the clear payload, Annex B
    std::string json;  // korvex-dump's JSON object of the frame
    std::string cue;   // the WebVTT cue text
    std::vector<std::string> plates;
    std::vector<kxc::VcaView> vca;
    size_t bytes() const { return es.size() + json.size() + cue.size() + 256; }
};

// Frames held before a clip's start: at most this much (key frames further apart than that are no
// recording a player could seek in either).
constexpr size_t kMaxHeldBytes = size_t(512) << 20;
// The longest gap between two pictures the output keeps: an hour.
constexpr int64_t kMaxGapMs = 3600 * 1000;

std::string av_error(int rc) {
    char b[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(rc, b, sizeof(b));
    return b;
}

// The parameter sets of a key frame's payload (SPS, PPS, and VPS for H.265) as Annex B extradata.
Bytes parameter_sets(const Bytes &es, Codec codec) {
    Bytes out;
    for (const kxt::Nal &n : kxt::scan_nals(es.data(), es.size())) {
        if (n.end <= n.begin) continue;
        int type = kxt::nal_type(codec, es.data() + n.begin, n.end - n.begin);
        bool ps = codec == Codec::kH265 ? (type >= 32 && type <= 34) : (type == 7 || type == 8);
        if (!ps) continue;
        out.insert(out.end(), {0, 0, 0, 1});
        out.insert(out.end(), es.data() + n.begin, es.data() + n.end);
    }
    return out;
}

// The picture size a key frame's parameter sets give, through FFmpeg's parser.
bool picture_size(const Bytes &es, Codec codec, int *w, int *h) {
    AVCodecID id = codec == Codec::kH265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
    AVCodecParserContext *pc = av_parser_init(id);
    const AVCodec *dec = avcodec_find_decoder(id);
    AVCodecContext *ctx = dec != nullptr ? avcodec_alloc_context3(dec) : nullptr;
    bool ok = false;
    if (pc != nullptr && ctx != nullptr) {
        pc->flags |= PARSER_FLAG_COMPLETE_FRAMES;
        uint8_t *out = nullptr;
        int out_size = 0;
        Bytes padded(es);
        padded.resize(es.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
        av_parser_parse2(pc, ctx, &out, &out_size, padded.data(), int(es.size()), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        ok = pc->width > 0 && pc->height > 0;
        *w = pc->width;
        *h = pc->height;
    }
    if (pc != nullptr) av_parser_close(pc);
    avcodec_free_context(&ctx);
    return ok;
}

// The output file: a video stream and, where asked, the metadata stream, written by libavformat to the
// temporary file.
class Muxer {
public:
    ~Muxer() {
        if (oc_ != nullptr) {
            if (oc_->pb != nullptr) avio_closep(&oc_->pb);
            avformat_free_context(oc_);
        }
    }
    // Opens the container for the first frame (a key frame); false with *why set and *code 1 when the
    // stream's parameter sets are the cause, 2 when the file is.
    bool open(int *code, const std::string &format, const std::string &path, const Held &first, Codec codec, bool data_track,
              int64_t start_ms, bool device_times, std::string *why) {
        int w = 0, h = 0;
        *code = 1;
        if (!picture_size(first.es, codec, &w, &h)) {
            *why = "frame " + std::to_string(first.index) + ": no picture size in its parameter sets";
            return false;
        }
        int rc = avformat_alloc_output_context2(&oc_, nullptr, format.c_str(), path.c_str());
        if (rc < 0 || oc_ == nullptr) return *why = "cannot set up the " + format + " container: " + av_error(rc), false;
        video_ = avformat_new_stream(oc_, nullptr);
        AVCodecParameters *par = video_->codecpar;
        par->codec_type = AVMEDIA_TYPE_VIDEO;
        par->codec_id = codec == Codec::kH265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
        if (codec == Codec::kH265 && format != "matroska") par->codec_tag = MKTAG('h', 'v', 'c', '1');
        par->width = w;
        par->height = h;
        Bytes ps = parameter_sets(first.es, codec);
        par->extradata = static_cast<uint8_t *>(av_mallocz(ps.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        memcpy(par->extradata, ps.data(), ps.size());
        par->extradata_size = int(ps.size());
        video_->time_base = AVRational{1, 1000};
        if (data_track) {
            data_ = avformat_new_stream(oc_, nullptr);
            data_->time_base = AVRational{1, 1000};
            if (format == "matroska") {
                // A WebVTT track of kind metadata (D_WEBVTT/METADATA): each cue one frame's JSON object.
                data_->codecpar->codec_type = AVMEDIA_TYPE_SUBTITLE;
                data_->codecpar->codec_id = AV_CODEC_ID_WEBVTT;
                data_->disposition = AV_DISPOSITION_METADATA;
            } else {
                // A timed data track, which players pass over.
                data_->codecpar->codec_type = AVMEDIA_TYPE_DATA;
                data_->codecpar->codec_id = AV_CODEC_ID_BIN_DATA;
            }
            av_dict_set(&data_->metadata, "title", "korvex frame user data (JSON)", 0);
        }
        // Where pts 0 lies on the device's clock, to the millisecond.
        av_dict_set(&oc_->metadata, "korvex_start_ms", std::to_string(start_ms).c_str(), 0);
        av_dict_set(&oc_->metadata, "korvex_time_source", device_times ? "device" : "stream", 0);
        if (device_times) {
            av_dict_set(&oc_->metadata, "creation_time", kxc::iso8601_ms(start_ms).c_str(), 0);
        }
        rc = avio_open(&oc_->pb, path.c_str(), AVIO_FLAG_WRITE);
        if (rc < 0) return *code = 2, *why = "cannot write '" + path + "': " + av_error(rc), false;
        AVDictionary *opts = nullptr;
        if (format != "matroska") {
            av_dict_set(&opts, "movflags", "+frag_keyframe+empty_moov+default_base_moof+use_metadata_tags", 0);
        }
        rc = avformat_write_header(oc_, &opts);
        av_dict_free(&opts);
        if (rc < 0) {
            *why = "frame " + std::to_string(first.index) + ": its parameter sets make no " + format + " header (" +
                   av_error(rc) + ")";
            return false;
        }
        start_ = start_ms;
        *code = 2;  // from here on a failure is the file's
        return true;
    }
    bool is_open() const { return oc_ != nullptr && oc_->pb != nullptr; }
    bool add(const Held &f, int64_t duration, std::string *why) {
        AVPacket *pkt = av_packet_alloc();
        if (pkt == nullptr) return *why = "out of memory", false;
        bool ok = put(pkt, video_, f.es.data(), f.es.size(), f.t, duration, f.key, why);
        if (ok && data_ != nullptr) {
            ok = put(pkt, data_, reinterpret_cast<const uint8_t *>(f.json.data()), f.json.size(), f.t, duration, true, why);
        }
        av_packet_free(&pkt);
        return ok;
    }
    bool finish(std::string *why) {
        int rc = av_write_trailer(oc_);
        if (rc < 0) return *why = "cannot end the output: " + av_error(rc), false;
        rc = avio_closep(&oc_->pb);
        if (rc < 0) return *why = "cannot write the output: " + av_error(rc), false;
        return true;
    }

private:
    bool put(AVPacket *pkt, AVStream *st, const uint8_t *p, size_t n, int64_t t, int64_t duration, bool key,
             std::string *why) {
        if (av_new_packet(pkt, int(n)) < 0) return *why = "out of memory", false;
        memcpy(pkt->data, p, n);
        pkt->stream_index = st->index;
        pkt->pts = pkt->dts = av_rescale_q(t - start_, AVRational{1, 1000}, st->time_base);
        pkt->duration = av_rescale_q(duration, AVRational{1, 1000}, st->time_base);
        if (key) pkt->flags |= AV_PKT_FLAG_KEY;
        int rc = av_interleaved_write_frame(oc_, pkt);
        av_packet_unref(pkt);
        if (rc < 0) return *why = "cannot write a packet: " + av_error(rc), false;
        return true;
    }
    AVFormatContext *oc_ = nullptr;
    AVStream *video_ = nullptr, *data_ = nullptr;
    int64_t start_ = 0;
};

// An I-frame index of the recording: the offset (item word) of every frame in table order, and which
// are key frames (sign bit 0).
struct Index {
    std::vector<uint32_t> offsets;
    std::vector<long long> keys;  // table positions of the key frames
};

bool read_index(const std::string &path, Index *ix, std::string *why) {
    Bytes block;
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr) return *why = "cannot open the index '" + path + "': " + strerror(errno), false;
    uint8_t chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) {
        block.insert(block.end(), chunk, chunk + n);
        if (block.size() > (size_t(1) << 30)) break;
    }
    fclose(f);
    if (block.size() > (size_t(1) << 30)) return *why = "the index '" + path + "' is larger than 1 GiB", false;
    TIFrameInfoQuery q;
    memset(&q, 0, sizeof(q));
    q.iWantedOrdinal = -1;
    int room = sizeof(q);
    if (block.size() <= 44 || SA_GetIFrameInfo(100, block.data(), int(block.size()), &q, &room) != 0) {
        return *why = "'" + path + "' is no I-frame index block", false;
    }
    // The library accepted the block: count x size bytes of items lie behind the 44-byte head.
    uint32_t count = kxt::rd32(&block[32]), size = kxt::rd32(&block[36]);
    if (size < 12) return *why = "the index '" + path + "' has items too short for a sign mask", false;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t *item = &block[44 + size_t(i) * size];
        ix->offsets.push_back(kxt::rd32(item));
        if (kxt::rd32(item + 8) & 1) ix->keys.push_back(i);
    }
    return true;
}

// The device second of the frame at offset of a seekable file, examined alone; -1 when no sound, clear
// frame with a device time lies there. *key tells whether it is a key frame.
int64_t second_at(FILE *f, uint64_t offset, const kxc::AnalysisOptions &a, bool *key = nullptr) {
    if (fseeko(f, off_t(offset), SEEK_SET) != 0) return -1;
    kxc::Walker w(f);
    kxc::Span frame;
    kxc::FrameReport r;
    if (!w.next(&r, &frame) || !r.valid || r.extent != kxc::Extent::kWhole) return -1;
    Bytes split(sizeof(TUserDataSplitState), 0);
    Codec codec = a.codec;
    kxc::examine_frame(a, frame, &r, &codec, split.data(), int(split.size()));
    if (key != nullptr) *key = r.key_frame;
    return r.clear() && r.ud.has_time ? int64_t(r.ud.time.uiSeconds) : -1;
}

// Where to start walking for a clip, found through the index: a key frame early enough (the walk then
// finds the exact one), backed up to the first frame of its device second, so that the times of the
// pictures within each second come out as in a walk from the beginning. False when the index doesn't
// fit the recording.
bool seek_point(FILE *in, const Index &ix, const ExportOptions &o, uint64_t *offset, long long *index) {
    *offset = 0;
    *index = 0;
    // Key frames at or before the first wanted frame number.
    size_t hi = std::upper_bound(ix.keys.begin(), ix.keys.end(), o.first >= 0 ? o.first : LLONG_MAX) - ix.keys.begin();
    size_t lo = 0;
    if (o.has_from) {
        // The last key frame whose second ends before the wanted second begins.
        int64_t from_second = o.from_ms / 1000;
        size_t a = 0, b = hi;
        while (a < b) {
            size_t mid = (a + b) / 2;
            int64_t s = second_at(in, ix.offsets[size_t(ix.keys[mid])], o.analysis);
            if (s < 0) return false;
            if (s < from_second) a = mid + 1;
            else b = mid;
        }
        hi = a;
    }
    if (hi == lo) return true;  // from the beginning
    long long k = ix.keys[hi - 1];
    bool key = false;
    int64_t s = second_at(in, ix.offsets[size_t(k)], o.analysis, &key);
    if (!key) return false;
    long long j = k;
    if (s >= 0) {
        while (j > 0 && k - j < 10000 && second_at(in, ix.offsets[size_t(j - 1)], o.analysis) == s) --j;
    }
    *offset = ix.offsets[size_t(j)];
    *index = j;
    return true;
}

// The written frames of the WebVTT file: a cue stays open while the frames show the same text.
class VttWriter {
public:
    explicit VttWriter(TempFile *f) : f_(f) {
        if (f_ != nullptr) f_->write("WEBVTT\n\n");
    }
    void add(const std::string &text, int64_t start, int64_t end) {
        if (f_ == nullptr) return;
        if (open_ && text == cue_.text && start <= cue_.end) {
            cue_.end = end;
            return;
        }
        flush();
        if (text.empty()) return;
        cue_ = Cue{start, end, text};
        open_ = true;
    }
    void flush() {
        if (f_ == nullptr || !open_) return;
        f_->write(vtt_time(cue_.start) + " --> " + vtt_time(cue_.end) + "\n" + cue_.text + "\n\n");
        open_ = false;
    }

private:
    TempFile *f_;
    Cue cue_;
    bool open_ = false;
};

}  // namespace

void set_ffmpeg_log(bool verbose) { av_log_set_level(verbose ? AV_LOG_ERROR : AV_LOG_QUIET); }

const char *container_of(const std::string &path) {
    size_t dot = path.rfind('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return nullptr;
    std::string ext = path.substr(dot + 1);
    for (char &c : ext) c = char(tolower((unsigned char)c));
    if (ext == "mp4" || ext == "m4v") return "mp4";
    if (ext == "mov") return "mov";
    if (ext == "mkv") return "matroska";
    return nullptr;
}

int run_export(const ExportOptions &o, const std::function<void(const std::string &)> &say, ExportResult *result) {
    ExportResult &res = *result;
    res = ExportResult();
    auto fail = [&](int code, const std::string &msg) {
        if (res.message.empty()) res.message = msg;
        say(msg);
        return code;
    };
    const char *format = container_of(o.output);
    if (format == nullptr) {
        return fail(2, "'" + o.output + "': the output's name must end in .mp4, .m4v, .mov or .mkv");
    }
    for (const std::string *side : {&o.vtt, &o.csv, &o.json, &o.output}) {
        if (side->empty()) continue;
        if (*side == o.input && o.input != "-") return fail(2, "'" + *side + "' is the input: it would be overwritten");
        for (const std::string *other : {&o.vtt, &o.csv, &o.json, &o.output}) {
            if (other != side && *other == *side) return fail(2, "'" + *side + "' is given for two outputs");
        }
    }
    if (!o.index.empty() && o.input == "-" && o.input_file == nullptr) return fail(2, "--index needs the recording as a file, not standard input");
    if (o.has_from && o.has_to && o.to_ms < o.from_ms) return fail(2, "--to lies before --from");

    FILE *in = o.input_file != nullptr ? o.input_file : o.input == "-" ? stdin : fopen(o.input.c_str(), "rb");
    if (in == nullptr) return fail(2, "cannot open '" + o.input + "': " + strerror(errno));
    std::unique_ptr<FILE, int (*)(FILE *)> in_guard(in == stdin || in == o.input_file ? nullptr : in, fclose);

    // Where the walk starts: the recording's beginning, or the key frame the index gives.
    uint64_t start_offset = 0;
    long long start_index = 0;
    if (!o.index.empty() && (o.has_from || o.first > 0)) {
        Index ix;
        std::string why;
        if (!read_index(o.index, &ix, &why)) return fail(2, why);
        if (!seek_point(in, ix, o, &start_offset, &start_index)) {
            say("the index '" + o.index + "' does not fit the recording; reading it from the beginning");
            start_offset = 0;
            start_index = 0;
        }
        if (fseeko(in, off_t(start_offset), SEEK_SET) != 0) return fail(2, "cannot seek in '" + o.input + "'");
    }

    TempFile out, vtt, csv, json;
    std::string why;
    if (!out.create(o.output, &why)) return fail(2, why);
    out.close_only();
    if (!o.vtt.empty() && !vtt.create(o.vtt, &why)) return fail(2, why);
    if (!o.csv.empty() && !csv.create(o.csv, &why)) return fail(2, why);
    if (!o.json.empty() && !json.create(o.json, &why)) return fail(2, why);
    VttWriter cues(o.vtt.empty() ? nullptr : &vtt);
    if (!o.csv.empty()) csv.write("time,video_time,frame,plate,x1,y1,x2,y2\n");

    Muxer mux;
    Codec codec = o.analysis.codec;  // the stream's, once a frame named it
    kxc::PtsClock clock(o.fps);
    std::deque<Held> gop;  // frames before the clip's start, from the last key frame on
    size_t gop_bytes = 0;
    bool started = false, failed = false;
    std::unique_ptr<Held> pending;  // the last frame, written when the next one gives its duration
    int code = 0;
    int fail_code = 2;  // of a failed write
    long long seen = 0;
    int64_t first_seen_ms = 0, last_seen_ms = 0;
    bool any_time = false;

    auto write = [&](Held &f, int64_t duration) {
        if (!mux.is_open()) {
            res.device_times = f.device_time;
            if (!mux.open(&fail_code, format, out.temp_path(), f, codec, o.data_track, f.t, f.device_time, &why)) {
                return false;
            }
            res.first_index = f.index;
            res.first_ms = f.t;
        }
        if (!mux.add(f, duration, &why)) return false;
        int64_t rel = f.t - res.first_ms;
        cues.add(f.cue, rel, rel + duration);
        if (!o.json.empty()) json.write(f.json + "\n");
        if (!o.csv.empty()) {
            std::string time = f.device_time ? kxc::iso8601_ms(f.clock) : "";
            char vt[32];
            snprintf(vt, sizeof(vt), "%.3f", rel / 1000.0);
            for (size_t i = 0; i < f.plates.size(); ++i) {
                std::string row = time + "," + vt + "," + std::to_string(f.index) + "," + csv_field(f.plates[i]);
                if (i < f.vca.size()) {
                    const kxc::VcaView &v = f.vca[i];
                    const uint16_t *c = v.has_raw ? v.raw : v.grid;
                    for (int k = 0; k < 4; ++k) row += "," + std::to_string(c[k]);
                } else {
                    row += ",,,,";
                }
                csv.write(row + "\n");
            }
        }
        ++res.frames;
        res.last_index = f.index;
        res.last_ms = f.clock;
        return true;
    };
    // Hands a frame on: the pending one is written with the distance to this one as its duration. A
    // device clock that jumps ahead by more than an hour (set anew) would leave a gap that containers
    // can't hold: the pictures from there on follow at the frame interval instead, said once.
    int64_t shift = 0;
    bool said_jump = false;
    auto emit = [&](std::unique_ptr<Held> f) {
        f->t -= shift;
        if (pending && f->t - pending->t > kMaxGapMs) {
            int64_t jump = f->t - pending->t - std::max<int64_t>(1, llround(1000.0 / clock.fps()));
            if (!said_jump) {
                say("frame " + std::to_string(f->index) + ": the device's clock jumps ahead by " +
                    std::to_string(jump / 1000) + " s; the pictures from there on follow at the frame interval");
            }
            said_jump = true;
            shift += jump;
            f->t -= jump;
        }
        if (pending) {
            if (!write(*pending, std::max<int64_t>(1, f->t - pending->t))) return false;
        }
        pending = std::move(f);
        return true;
    };

    kxc::WalkTotals totals;
    kxc::walk(in, o.analysis, [&](const kxc::FrameReport &r, kxc::Span frame) {
        if (!r.valid || !r.error.empty()) {
            if (r.decrypt == kxc::Decrypt::kFailed) {
                code = fail(1, "frame " + std::to_string(r.index) + ": decryption failed: " +
                                   (r.decrypt_rc == -4 ? "wrong key" : "the cipher refused the frame"));
                return false;
            }
            ++res.broken;
            if (!o.skip_broken) {
                code = fail(1, "frame " + std::to_string(r.index) + " at offset " + std::to_string(r.offset) + ": " +
                                   r.error + " (--skip-broken leaves broken frames out)");
                return false;
            }
            return true;
        }
        if (r.decrypt == kxc::Decrypt::kNoKey) {
            code = fail(1, "frame " + std::to_string(r.index) + " is encrypted: give --key");
            return false;
        }
        if (!r.clear()) return true;
        codec = r.codec;
        const uint8_t *payload = frame.data + KX_FRAME_HEADER_LEN;
        size_t payload_len = std::min(size_t(r.payload_len), r.held - KX_FRAME_HEADER_LEN);
        long long back = clock.steps_back();
        int64_t t = clock.next(r, payload, payload_len);
        if (clock.steps_back() > back && back == 0) {
            say("frame " + std::to_string(r.index) + ": the device's clock was set back; the pictures from there on "
                "follow at the frame interval");
        }
        ++seen;
        if (!any_time) first_seen_ms = t;
        any_time = true;
        last_seen_ms = t;
        bool before = (o.has_from && t < o.from_ms) || (o.first >= 0 && r.index < o.first);
        bool after = (o.has_to && t > o.to_ms) || (o.last >= 0 && r.index > o.last);
        if (after) return false;
        if (before && !r.key_frame && gop.empty()) return true;
        auto f = std::make_unique<Held>();
        f->index = r.index;
        f->t = t;
        f->clock = t;
        f->key = r.key_frame;
        f->device_time = r.ud.has_time;
        f->es = kxc::clear_payload(frame.data, r.held, r.payload_len, r.codec, false);
        f->json = kxc::frame_json(r).dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
        f->cue = cue_text(r.ud);
        f->plates = r.ud.plates;
        f->vca = r.ud.vca;
        if (f->es.empty()) return true;
        if (before) {
            if (f->key) {
                gop.clear();
                gop_bytes = 0;
            }
            gop_bytes += f->bytes();
            gop.push_back(std::move(*f));
            if (gop_bytes > kMaxHeldBytes) {
                code = fail(1, "more than 512 MiB between two key frames before the clip's start");
                return false;
            }
            return true;
        }
        if (!started) {
            // The first frame in range. The clip opens at the key frame at or before it: this one when
            // it is a key frame at the very start (or no earlier key frame was seen), else the held one.
            bool opens = f->key && (gop.empty() || (o.has_from && t == o.from_ms) || r.index == o.first);
            if (opens) gop.clear();
            else if (gop.empty()) return true;  // nothing decodable yet: on to the first key frame
            started = true;
            for (Held &g : gop) {
                if (!emit(std::make_unique<Held>(std::move(g)))) return failed = true, false;
            }
            gop.clear();
        }
        if (!emit(std::move(f))) return failed = true, false;
        if (o.progress > 0 && res.frames % 25 == 0) {
            fprintf(stderr, "\rkorvex-export: %lld frames, %.1f MB read\033[K", res.frames, (r.offset + r.held) / 1e6);
        }
        return true;
    }, [&](const std::string &line) {
        if (o.skip_broken) say(line);
    }, &totals, start_index, start_offset);
    if (o.progress > 0) fputs("\r\033[K", stderr);

    if (code == 0 && failed) code = fail(fail_code, why);
    if (code == 0 && totals.read_error != 0) {
        code = fail(2, "cannot read '" + o.input + "': " + strerror(totals.read_error));
    }
    if (code == 0 && totals.frames == 0) code = fail(1, "'" + o.input + "' is empty: no frames to read");
    if (code == 0 && pending) {
        // The last picture lasts one frame interval.
        int64_t d = std::max<int64_t>(1, llround(1000.0 / clock.fps()));
        if (!write(*pending, d)) code = fail(fail_code, why);
        pending.reset();
    }
    if (code == 0 && res.frames == 0) {
        std::string range;
        if (o.has_from || o.has_to) {
            range = "between " + (o.has_from ? kxc::iso8601_ms(o.from_ms) : std::string("the start")) + " and " +
                    (o.has_to ? kxc::iso8601_ms(o.to_ms) : std::string("the end"));
        } else if (o.first >= 0 || o.last >= 0) {
            range = "in frames " + std::to_string(std::max(0LL, o.first)) + " to " +
                    (o.last >= 0 ? std::to_string(o.last) : std::string("the end"));
        }
        if (!range.empty() && any_time) {
            code = fail(1, "no frame " + range + ": the recording runs from " +
                               (clock.device_frames() > 0 ? kxc::iso8601_ms(first_seen_ms) : std::to_string(first_seen_ms) + " ms") +
                               " to " +
                               (clock.device_frames() > 0 ? kxc::iso8601_ms(last_seen_ms) : std::to_string(last_seen_ms) + " ms") +
                               " (frames " + std::to_string(start_index) + " to " +
                               std::to_string(start_index + seen - 1) + ")");
        } else {
            code = fail(1, "no picture to write: no frame with a key picture" + (range.empty() ? "" : " " + range));
        }
    }
    if (code == 0 && !mux.finish(&why)) code = fail(2, why);
    cues.flush();
    res.interval_source = clock.interval_source();
    res.fps = clock.fps();
    if (code != 0) {
        for (TempFile *t : {&vtt, &csv, &json, &out}) t->discard();
        return code;
    }
    for (TempFile *t : {&vtt, &csv, &json, &out}) {
        if (!t->commit(&why)) {
            for (TempFile *u : {&vtt, &csv, &json, &out}) u->discard();
            return fail(2, why);
        }
    }
    res.written = true;
    // Broken frames left out (--skip-broken): the files are whole, the input was not.
    return res.broken > 0 ? 1 : 0;
}

}  // namespace kxe
