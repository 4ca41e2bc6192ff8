// Decoding with libavcodec, drawing with libavfilter, writing PNG and video files with libavcodec and
// libavformat.
#include <errno.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include "common/tool_util.h"
#include "korvex-view/view.h"


// FFmpeg's libraries are not built for ThreadSanitizer: the atomics that order their worker threads are
// invisible to it and every hand-over looks like a race. A TSan build of the tool therefore decodes and
// encodes on one thread; any other build uses every core (0: FFmpeg's choice).
#if defined(__SANITIZE_THREAD__)
#define KX_VIEW_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KX_VIEW_TSAN 1
#endif
#endif
#ifdef KX_VIEW_TSAN
constexpr int kCodecThreads = 1;
#else
constexpr int kCodecThreads = 0;
#endif
namespace kxv {

namespace {

std::string av_text(int err) {
    char b[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(err, b, sizeof(b));
    return b;
}

// A file beside path to write into before the rename; empty after a message.
std::string temp_beside(const std::string &path) {
    std::string tmp = path + ".XXXXXX";
    int fd = mkstemp(&tmp[0]);
    if (fd < 0) {
        kxt::errorf("cannot create '%s': %s", tmp.c_str(), strerror(errno));
        return "";
    }
    mode_t mask = umask(0);
    umask(mask);
    (void)fchmod(fd, 0666 & ~mask);
    close(fd);
    return tmp;
}

bool rename_into_place(const std::string &tmp, const std::string &path) {
    if (rename(tmp.c_str(), path.c_str()) == 0) return true;
    kxt::errorf("cannot rename '%s' to '%s': %s", tmp.c_str(), path.c_str(), strerror(errno));
    unlink(tmp.c_str());
    return false;
}

}  // namespace

// ---- decoding ----

Decoder::~Decoder() {
    avcodec_free_context(&ctx_);
    av_packet_free(&pkt_);
    av_frame_free(&frame_);
}

bool Decoder::open(kxt::Codec codec) {
    const AVCodec *dec = avcodec_find_decoder(codec == kxt::Codec::kH265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264);
    if (dec == nullptr) return kxt::errorf("this FFmpeg has no %s decoder", kxt::codec_name(codec)), false;
    ctx_ = avcodec_alloc_context3(dec);
    pkt_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    if (ctx_ == nullptr || pkt_ == nullptr || frame_ == nullptr) return kxt::errorf("out of memory"), false;
    // Frame threads on every core (and slice threads where a picture has slices); the pictures still
    // come out in display order, each with the frame index its packet carried.
    ctx_->thread_count = kCodecThreads;
    ctx_->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    ctx_->pkt_timebase = AVRational{1, 1};
    int rc = avcodec_open2(ctx_, dec, nullptr);
    if (rc < 0) {
        kxt::errorf("cannot open the %s decoder: %s", kxt::codec_name(codec), av_text(rc).c_str());
        avcodec_free_context(&ctx_);
        return false;
    }
    return true;
}

bool Decoder::send(const uint8_t *data, size_t len, int64_t index) {
    if (av_new_packet(pkt_, int(len)) < 0) return false;
    memcpy(pkt_->data, data, len);
    pkt_->pts = index;  // carried to the picture of this access unit, whatever the display order
    int rc = avcodec_send_packet(ctx_, pkt_);
    av_packet_unref(pkt_);
    return rc >= 0;
}

void Decoder::flush() {
    if (ctx_ != nullptr) avcodec_send_packet(ctx_, nullptr);
}

AVFrame *Decoder::receive(int64_t *index) {
    if (ctx_ == nullptr) return nullptr;
    av_frame_unref(frame_);
    if (avcodec_receive_frame(ctx_, frame_) < 0) return nullptr;
    *index = frame_->pts;
    return frame_;
}

// ---- drawing ----

Renderer::~Renderer() { av_frame_free(&out_); }

void Renderer::output_size(int w, int h, int *ow, int *oh) const {
    int width = width_ > 0 ? width_ : std::max(w, 480);
    width = std::max(2, width & ~1);
    long long height = (2LL * width * h + w) / (2LL * w);  // rounded
    *ow = width;
    *oh = int(std::max(2LL, std::min(height, 16384LL) & ~1LL));
}

namespace {

// One filter of the chain, created from options set one by one (no filter-graph text, so a text from a
// stream needs no quoting), and linked behind prev.
AVFilterContext *add_filter(AVFilterGraph *g, AVFilterContext *prev, const char *name,
                            const std::vector<std::pair<const char *, std::string>> &opts) {
    const AVFilter *filter = avfilter_get_by_name(name);
    if (filter == nullptr) return kxt::errorf("this FFmpeg has no %s filter", name), nullptr;
    AVFilterContext *f = avfilter_graph_alloc_filter(g, filter, nullptr);
    if (f == nullptr) return nullptr;
    for (const auto &o : opts) {
        int rc = av_opt_set(f, o.first, o.second.c_str(), AV_OPT_SEARCH_CHILDREN);
        if (rc < 0) return kxt::errorf("%s: option %s: %s", name, o.first, av_text(rc).c_str()), nullptr;
    }
    int rc = avfilter_init_str(f, nullptr);
    if (rc < 0) return kxt::errorf("cannot set up the %s filter: %s", name, av_text(rc).c_str()), nullptr;
    if (prev != nullptr && avfilter_link(prev, 0, f, 0) < 0) return nullptr;
    return f;
}

std::string num(long long v) { return std::to_string(v); }

}  // namespace

AVFrame *Renderer::render(const AVFrame *picture, const Overlay &overlay, int pix_fmt) {
    int ow, oh;
    output_size(picture->width, picture->height, &ow, &oh);
    AVFilterGraph *g = avfilter_graph_alloc();
    if (g == nullptr) return nullptr;
    g->nb_threads = 1;
    AVFrame *result = nullptr;
    AVFilterContext *src = nullptr, *sink = nullptr, *last = nullptr;
    int rc = 0;
    do {
        src = add_filter(g, nullptr, "buffer",
                         {{"width", num(picture->width)}, {"height", num(picture->height)},
                          {"pix_fmt", av_get_pix_fmt_name(AVPixelFormat(picture->format))}, {"time_base", "1/25"},
                          {"pixel_aspect", "1/1"}});
        if (src == nullptr) break;
        // Drawn in full-resolution chroma, so that thin lines keep their colour.
        last = add_filter(g, src, "scale", {{"w", num(ow)}, {"h", num(oh)}, {"flags", "bicubic"}});
        if (last != nullptr) last = add_filter(g, last, "format", {{"pix_fmts", "yuv444p"}});
        if (last == nullptr) break;
        if (draw_) {
            int t = std::max(2, ow / 120);
            char colour[16];
            snprintf(colour, sizeof(colour), "0x%06X", unsigned(kBoxColour));
            for (const Overlay::Box &b : overlay.boxes) {
                PixelBox px = box_pixels(b, ow, oh);
                last = add_filter(g, last, "drawbox",
                                  {{"x", num(px.x)}, {"y", num(px.y)}, {"w", num(px.w)}, {"h", num(px.h)},
                                   {"color", colour}, {"t", num(t)}});
                if (last == nullptr) break;
            }
            int size = std::max(10, oh / 20), step = size * 3 / 2, pad = std::max(2, size / 3);
            auto text = [&](const std::string &line, long long y) {
                if (line.empty() || last == nullptr) return;
                last = add_filter(g, last, "drawtext",
                                  {{"fontfile", fonts_->font_for(line)}, {"text", line}, {"expansion", "none"}, {"fontsize", num(size)},
                                   {"fontcolor", "white"}, {"box", "1"}, {"boxcolor", "black@0.6"},
                                   {"boxborderw", num(pad / 2 + 1)}, {"x", num(pad)}, {"y", num(y)}});
            };
            for (size_t i = 0; i < overlay.top.size(); ++i) text(overlay.top[i], pad + long(i) * step);
            for (size_t i = 0; i < overlay.bottom.size(); ++i) {
                text(overlay.bottom[i], oh - pad - size - long(overlay.bottom.size() - 1 - i) * step);
            }
            if (last == nullptr) break;
        }
        last = add_filter(g, last, "format", {{"pix_fmts", av_get_pix_fmt_name(AVPixelFormat(pix_fmt))}});
        if (last == nullptr) break;
        sink = add_filter(g, last, "buffersink", {});
        if (sink == nullptr) break;
        if ((rc = avfilter_graph_config(g, nullptr)) < 0) {
            kxt::errorf("cannot set up the drawing: %s", av_text(rc).c_str());
            break;
        }
        AVFrame *in = av_frame_clone(picture);
        if (in == nullptr) break;
        in->pts = 0;
        rc = av_buffersrc_add_frame(src, in);
        av_frame_free(&in);
        if (rc < 0) break;
        if (out_ == nullptr) out_ = av_frame_alloc();
        av_frame_unref(out_);
        if (out_ != nullptr && av_buffersink_get_frame(sink, out_) >= 0) result = out_;
    } while (false);
    if (result == nullptr && rc < 0) kxt::errorf("drawing failed: %s", av_text(rc).c_str());
    avfilter_graph_free(&g);
    return result;
}

// ---- PNG ----

bool write_png(const AVFrame *rgb, const std::string &path) {
    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (codec == nullptr) return kxt::errorf("this FFmpeg has no PNG encoder"), false;
    AVCodecContext *enc = avcodec_alloc_context3(codec);
    AVPacket *pkt = av_packet_alloc();
    bool ok = false;
    if (enc != nullptr && pkt != nullptr) {
        enc->width = rgb->width;
        enc->height = rgb->height;
        enc->pix_fmt = AVPixelFormat(rgb->format);
        enc->time_base = AVRational{1, 25};
        av_opt_set(enc->priv_data, "pred", "mixed", 0);  // the smallest files
        int rc = avcodec_open2(enc, codec, nullptr);
        if (rc >= 0) rc = avcodec_send_frame(enc, rgb);
        if (rc >= 0) rc = avcodec_receive_packet(enc, pkt);
        if (rc < 0) {
            kxt::errorf("cannot encode '%s': %s", path.c_str(), av_text(rc).c_str());
        } else {
            std::string tmp = temp_beside(path);
            if (!tmp.empty()) {
                kxt::Bytes bytes(pkt->data, pkt->data + pkt->size);
                ok = kxt::write_file(tmp, bytes) && rename_into_place(tmp, path);
                if (!ok) unlink(tmp.c_str());
            }
        }
    }
    av_packet_free(&pkt);
    avcodec_free_context(&enc);
    return ok;
}

// ---- video ----

VideoOut::~VideoOut() {
    if (oc_ != nullptr && oc_->pb != nullptr) avio_closep(&oc_->pb);
    if (!tmp_.empty()) unlink(tmp_.c_str());
    avformat_free_context(oc_);
    avcodec_free_context(&enc_);
    av_packet_free(&pkt_);
}

bool VideoOut::check() {
    int rc = avformat_alloc_output_context2(&oc_, nullptr, nullptr, path_.c_str());
    if (rc < 0 || oc_ == nullptr) {
        kxt::errorf("cannot tell a video container from the name '%s': end it in .mp4, .mkv or .avi", path_.c_str());
        return false;
    }
    AVCodecID id = oc_->oformat->video_codec;
    if (id == AV_CODEC_ID_NONE) return kxt::errorf("'%s' names no video container", path_.c_str()), false;
    codec_ = id == AV_CODEC_ID_H264 ? avcodec_find_encoder_by_name("libx264") : nullptr;
    if (codec_ == nullptr) codec_ = avcodec_find_encoder(id);
    if (codec_ == nullptr) return kxt::errorf("this FFmpeg has no encoder for '%s'", path_.c_str()), false;
    pix_fmt_ = AV_PIX_FMT_YUV420P;
    if (codec_->pix_fmts != nullptr) {
        bool has = false;
        for (const AVPixelFormat *p = codec_->pix_fmts; *p != AV_PIX_FMT_NONE; ++p) has = has || *p == AV_PIX_FMT_YUV420P;
        if (!has) pix_fmt_ = codec_->pix_fmts[0];
    }
    return true;
}

bool VideoOut::open(const AVFrame *first) {
    enc_ = avcodec_alloc_context3(codec_);
    pkt_ = av_packet_alloc();
    if (enc_ == nullptr || pkt_ == nullptr) return kxt::errorf("out of memory"), false;
    enc_->width = first->width;
    enc_->height = first->height;
    enc_->pix_fmt = AVPixelFormat(pix_fmt_);
    // Times in milliseconds, as the recording gives them; the rate tells the encoder the usual step.
    enc_->time_base = AVRational{1, 1000};
    enc_->framerate = av_d2q(fps_, 100000);
    enc_->gop_size = std::max(1, int(lround(fps_ * 2)));
    enc_->thread_count = kCodecThreads;
    if (strcmp(codec_->name, "libx264") == 0) {
        av_opt_set(enc_->priv_data, "preset", "veryfast", 0);
        av_opt_set(enc_->priv_data, "x264-params", "log-level=error:bframes=0", 0);
    } else {
        enc_->bit_rate = 2000000;
    }
    if (oc_->oformat->flags & AVFMT_GLOBALHEADER) enc_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    int rc = avcodec_open2(enc_, codec_, nullptr);
    if (rc < 0) return kxt::errorf("cannot open the %s encoder: %s", codec_->name, av_text(rc).c_str()), false;
    st_ = avformat_new_stream(oc_, nullptr);
    if (st_ == nullptr || avcodec_parameters_from_context(st_->codecpar, enc_) < 0) return false;
    st_->time_base = enc_->time_base;
    tmp_ = temp_beside(path_);
    if (tmp_.empty()) return false;
    if ((rc = avio_open(&oc_->pb, tmp_.c_str(), AVIO_FLAG_WRITE)) < 0 ||
        (rc = avformat_write_header(oc_, nullptr)) < 0) {
        return kxt::errorf("cannot write '%s': %s", tmp_.c_str(), av_text(rc).c_str()), false;
    }
    opened_ = true;
    return true;
}

bool VideoOut::drain(bool flush) {
    if (flush && avcodec_send_frame(enc_, nullptr) < 0) return false;
    for (;;) {
        int rc = avcodec_receive_packet(enc_, pkt_);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return true;
        if (rc < 0) return kxt::errorf("encoding failed: %s", av_text(rc).c_str()), false;
        // One frame interval; without it the last picture is cut off.
        if (pkt_->duration <= 0) pkt_->duration = std::max<int64_t>(1, llround(1000.0 / fps_));
        av_packet_rescale_ts(pkt_, enc_->time_base, st_->time_base);
        pkt_->stream_index = st_->index;
        rc = av_interleaved_write_frame(oc_, pkt_);
        if (rc < 0) return kxt::errorf("cannot write '%s': %s", tmp_.c_str(), av_text(rc).c_str()), false;
    }
}

bool VideoOut::add(AVFrame *picture, int64_t pts_ms, double fps) {
    if (!opened_) {
        fps_ = fps > 0 ? fps : 25;
        first_ms_ = pts_ms;
        if (!open(picture)) return false;
    }
    if (picture->width != enc_->width || picture->height != enc_->height) {
        return kxt::errorf("the picture size changed within the stream; a video file keeps one size"), false;
    }
    int64_t t = std::max(pts_ms - first_ms_, last_ms_ + 1);
    last_ms_ = t;
    ++count_;
    picture->pts = t;
    picture->pict_type = AV_PICTURE_TYPE_NONE;
    int rc = avcodec_send_frame(enc_, picture);
    if (rc < 0) return kxt::errorf("encoding failed: %s", av_text(rc).c_str()), false;
    return drain(false);
}

bool VideoOut::finish() {
    if (!opened_) return kxt::errorf("no picture to write to '%s'", path_.c_str()), false;
    if (!drain(true)) return false;
    int rc = av_write_trailer(oc_);
    int rc2 = avio_closep(&oc_->pb);
    if (rc < 0 || rc2 < 0) {
        return kxt::errorf("cannot write '%s': %s", tmp_.c_str(), av_text(rc < 0 ? rc : rc2).c_str()), false;
    }
    bool ok = rename_into_place(tmp_, path_);
    tmp_.clear();
    return ok;
}

}  // namespace kxv
