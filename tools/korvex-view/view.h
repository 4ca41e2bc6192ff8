// korvex-view: the pieces of the viewer. The decoder turns the frames' clear payloads into pictures;
// the overlay draws a frame's user data on its picture with libavfilter (scale, drawbox, drawtext);
// the outputs write the pictures as PNG files or as a video file.
#pragma once

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "common/annexb.h"

extern "C" {
struct AVFrame;
}

namespace kxc {
struct UserDataReport;
}

namespace kxv {

// What is drawn on one picture.
struct Overlay {
    struct Box {
        double x1, y1, x2, y2;  // fractions of the picture's width and height, 0 to 1
    };
    std::vector<Box> boxes;
    std::vector<std::string> top;     // lines at the top left: the time, then the OSD texts
    std::vector<std::string> bottom;  // lines at the bottom left: the plates
};

// What the frame's user data asks to draw.
Overlay overlay_of(const kxc::UserDataReport &u);

// A box in pixels on a picture of ow x oh: at least one pixel wide and high, inside the picture.
struct PixelBox {
    long long x, y, w, h;
};
PixelBox box_pixels(const Overlay::Box &b, int ow, int oh);

// The box colour of the VCA targets (RGB, amber).
enum : uint32_t { kBoxColour = 0xFF9900 };

class Decoder {
public:
    ~Decoder();
    // Opens the decoder for codec; false after a message.
    bool open(kxt::Codec codec);
    bool is_open() const { return ctx_ != nullptr; }
    // Decodes one access unit stamped with its frame index; false when the decoder refused it.
    bool send(const uint8_t *data, size_t len, int64_t index);
    // Signals the end of the stream.
    void flush();
    // The next decoded picture (owned by the decoder until the next call) or null; *index receives the
    // frame index of its access unit.
    AVFrame *receive(int64_t *index);

private:
    struct AVCodecContext *ctx_ = nullptr;
    struct AVPacket *pkt_ = nullptr;
    AVFrame *frame_ = nullptr;
};

// The font file of each line of text. builtin: the font given at build time, used where it has every
// glyph of a line; given: --font, used for every line (empty: choose through fontconfig). Names the
// characters that no font has (or the given one lacks) on standard error, once for each set.
class FontChooser {
public:
    FontChooser(std::string builtin, std::string given);
    ~FontChooser();
    FontChooser(const FontChooser &) = delete;
    FontChooser &operator=(const FontChooser &) = delete;
    const std::string &font_for(const std::string &line);

private:
    std::string builtin_, given_;
    void *first_charset_ = nullptr;  // FcCharSet of the given or built-in font
    std::map<std::string, std::string> cache_;
    std::set<std::string> warned_;
};

// Draws overlays onto pictures, scaled to an output size, in the pixel format the output wants.
class Renderer {
public:
    Renderer(FontChooser *fonts, int width, bool draw) : fonts_(fonts), width_(width), draw_(draw) {}
    ~Renderer();
    // The picture with its overlay, in pix_fmt (an AVPixelFormat), or null after a message. The
    // result stays valid until the next call.
    AVFrame *render(const AVFrame *picture, const Overlay &overlay, int pix_fmt);
    // Output size for a picture of w x h: the given width (the picture's own, at least 480, when 0),
    // even numbers both, the aspect kept.
    void output_size(int w, int h, int *ow, int *oh) const;

private:
    FontChooser *fonts_;
    int width_;
    bool draw_;
    AVFrame *out_ = nullptr;
};

// Writes one picture (rgb24) as a PNG file: to a temporary file first, then renamed. False after a
// message.
bool write_png(const AVFrame *rgb, const std::string &path);

// A video file with the rendered pictures; the container follows the file name (.mp4, .mkv, .avi).
// Each picture keeps its time (milliseconds; the first picture at 0), so the file plays as long as the
// recording.
class VideoOut {
public:
    explicit VideoOut(std::string path) : path_(std::move(path)) {}
    ~VideoOut();
    // Checks that the name gives a container and an encoder; false after a message.
    bool check();
    // The pixel format the encoder takes.
    int pix_fmt() const { return pix_fmt_; }
    // Encodes one picture at pts_ms (opens the file at the first; times only grow); fps is the
    // recording's frame rate, which gives the encoder its rate and the last picture its duration.
    // False after a message.
    bool add(AVFrame *picture, int64_t pts_ms, double fps);
    // Ends the file and renames it into place; false after a message. Without it the file goes.
    bool finish();
    long long pictures() const { return count_; }

private:
    bool open(const AVFrame *first);
    bool drain(bool flush);
    std::string path_, tmp_;
    double fps_ = 25;
    int64_t first_ms_ = 0, last_ms_ = -1;
    int pix_fmt_ = -1;
    const struct AVCodec *codec_ = nullptr;
    struct AVFormatContext *oc_ = nullptr;
    struct AVCodecContext *enc_ = nullptr;
    struct AVStream *st_ = nullptr;
    struct AVPacket *pkt_ = nullptr;
    long long count_ = 0;
    bool opened_ = false;
};

}  // namespace kxv
