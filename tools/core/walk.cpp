// The walk over a stream of frames: each frame is a 32-byte header and its data, one behind the other.
// A frame with a sound header is read whole, decrypted when asked and possible, and analysed. A broken
// header is reported and the walk searches on, byte by byte, for the next sound header. A frame whose
// claimed length runs over the next sound header (one the stream goes on from) ends at that header, so
// one wrong length loses no sound frame behind it. A frame cut off by the end of the input is analysed
// as far as it goes and ends the walk.
#include <errno.h>
#include <string.h>

#include <algorithm>

#include "common/sniff.h"
#include "core/core.h"
#include "stream/frame_header.h"

namespace kxc {

size_t WalkInput::fill(size_t n) {
    if (f_ == nullptr || avail() >= n || eof_) return avail();
    if (pos_ > 0) {
        buf_.erase(buf_.begin(), buf_.begin() + long(pos_));
        pos_ = 0;
    }
    while (buf_.size() < n && !eof_) {
        size_t old = buf_.size();
        size_t want = std::max(n - old, size_t(1) << 16);
        buf_.resize(old + want);
        size_t got = fread(buf_.data() + old, 1, want, f_);
        buf_.resize(old + got);
        if (got == 0) {
            eof_ = true;
            error_ = ferror(f_) != 0 ? errno : 0;
        }
    }
    return avail();
}

void WalkInput::consume(size_t n) {
    n = std::min(n, avail());
    pos_ += n;
    offset_ += n;
}

bool sound_header(const uint8_t *p) {
    const __S_FrameHeader *h = reinterpret_cast<const __S_FrameHeader *>(p);
    return IsValidFrameHeader(h) && fh_frame_len(h) >= KX_FRAME_HEADER_LEN;
}

namespace {

// Moves the read position to the next sound header behind the current one; false at the end of the
// input. *skipped receives the bytes passed over.
bool resync(WalkInput &in, uint64_t *skipped) {
    *skipped = 0;
    in.consume(1);
    *skipped = 1;
    for (;;) {
        size_t avail = in.fill(1 << 16);
        if (avail < KX_FRAME_HEADER_LEN) {
            *skipped += avail;
            in.consume(avail);
            return false;
        }
        const uint8_t *p = in.data();
        for (size_t i = 0; i + KX_FRAME_HEADER_LEN <= avail; ++i) {
            if (sound_header(p + i)) {
                in.consume(i);
                *skipped += i;
                return true;
            }
        }
        size_t step = avail - KX_FRAME_HEADER_LEN + 1;
        in.consume(step);
        *skipped += step;
    }
}

}  // namespace

void read_header(const uint8_t *p, FrameReport *r) {
    r->has_header = true;
    r->frame_len = fh_frame_len(p);
    r->attr = fh_frame_attr(p);
    r->frame_no = fh_frame_no(p);
    r->info = fh_frame_info(p);
    r->payload_len = fh_payload_len(p);
    r->ext_count = fh_ext_count(p);
    r->ext_size = fh_ext_size(p);
    r->flags = fh_flags(p);
}

namespace {

const char *decrypt_failure(int rc) {
    switch (rc) {
    case -4: return "wrong key (or the data is no frame)";
    case -104: return "frame too short for the plain cipher";
    case -2: return "unusable key";
    default: return "refused by the cipher";
    }
}

// A sound header inside a frame's claimed length stands for the next frame when the stream goes on
// from it: its own frame ends at the end of the input or at another sound header. The length of the
// frame up to it, or 0 when there is none. A header that begins inside the claimed length is read
// whole, also where it runs past the claimed end, whatever part of the input is buffered.
size_t next_header_inside(WalkInput &in, size_t claimed) {
    size_t avail = in.fill(claimed + KX_FRAME_HEADER_LEN);  // the frame and a header behind it, if there
    for (size_t k = KX_FRAME_HEADER_LEN; k < claimed && k + KX_FRAME_HEADER_LEN <= avail; ++k) {
        // Both lengths of a sound header are below 2^24: on to the next place whose uiFrameLen ends
        // in a zero byte, then uiPayloadLen too.
        const uint8_t *base = in.data();
        size_t end_k = std::min(claimed, avail - KX_FRAME_HEADER_LEN + 1);
        const void *zero = memchr(base + k + 7, 0, end_k - k);
        if (zero == nullptr) return 0;
        k = size_t(static_cast<const uint8_t *>(zero) - base) - 7;
        const uint8_t *p = base + k;
        if (p[23] != 0 || !sound_header(p)) continue;
        size_t end = k + fh_frame_len(p);
        avail = in.fill(end + KX_FRAME_HEADER_LEN);
        if (end == avail || (end + KX_FRAME_HEADER_LEN <= avail && sound_header(in.data() + end))) return k;
    }
    return 0;
}

std::string header_error(const FrameReport &r) {
    char msg[200];
    if (r.frame_len > KX_FRAME_MAX_LEN || r.payload_len > KX_FRAME_MAX_LEN) {
        bool frame = r.frame_len > KX_FRAME_MAX_LEN;
        snprintf(msg, sizeof(msg), "invalid frame header: %s %u is above the limit of %u bytes (3 MiB)",
                 frame ? "uiFrameLen" : "uiPayloadLen", frame ? r.frame_len : r.payload_len,
                 unsigned(KX_FRAME_MAX_LEN));
    } else if (r.frame_len < KX_FRAME_HEADER_LEN) {
        snprintf(msg, sizeof(msg), "invalid frame header: uiFrameLen %u is shorter than the 32-byte header",
                 r.frame_len);
    } else {
        snprintf(msg, sizeof(msg),
                 "invalid frame header: uiFrameLen %u is not 32 + uiPayloadLen %u + extension %u x %u",
                 r.frame_len, r.payload_len, r.ext_count, r.ext_size);
    }
    return msg;
}

}  // namespace


bool Walker::next(FrameReport *r, Span *frame) {
    *frame = Span();
    if (ended_) return false;
    size_t avail = in_.fill(KX_FRAME_HEADER_LEN);
    if (avail == 0) {
        ended_ = true;
        return false;
    }
    *r = FrameReport();
    r->index = index_++;
    r->offset = in_.offset();
    broken_header_ = false;
    if (avail < KX_FRAME_HEADER_LEN) {
        r->error = "only " + std::to_string(avail) + " bytes left, too short for a frame header";
        r->extent = Extent::kShortTail;
        r->skip = Skip::kNoHeader;
        r->held = avail;
        held_ = avail;
        last_ = true;
        *frame = Span{in_.data(), avail};
        return true;
    }
    read_header(in_.data(), r);
    r->valid = sound_header(in_.data());
    if (!r->valid) {
        r->error = header_error(*r);
        r->extent = Extent::kBadHeader;
        r->skip = Skip::kNoHeader;
        broken_header_ = true;
        held_ = 0;
        last_ = false;
        *frame = Span{in_.data(), KX_FRAME_HEADER_LEN};
        return true;
    }
    size_t cut = next_header_inside(in_, r->frame_len);
    r->held = cut != 0 ? cut : std::min(in_.fill(r->frame_len), size_t(r->frame_len));
    *frame = Span{in_.data(), r->held};
    held_ = r->held;
    last_ = r->held < r->frame_len && cut == 0;
    if (cut != 0) {
        r->extent = Extent::kCutAtNextHeader;
        r->error = "the header says " + std::to_string(r->frame_len) + " bytes, but the next frame header follows " +
                   std::to_string(cut) + " bytes on; read as " + std::to_string(cut) + " bytes";
    } else if (last_) {
        r->extent = Extent::kTruncated;
        r->error = "truncated: the header says " + std::to_string(r->frame_len) + " bytes, " +
                   std::to_string(r->held) + " are present";
    }
    return true;
}

bool Walker::advance(uint64_t *skipped) {
    *skipped = 0;
    if (ended_) return false;
    if (last_) {
        in_.consume(held_);
        ended_ = true;
        return false;
    }
    if (broken_header_) {
        broken_header_ = false;
        if (!resync(in_, skipped)) ended_ = true;
        return !ended_;
    }
    in_.consume(held_);
    held_ = 0;
    return true;
}

int examine_frame(const AnalysisOptions &o, Span frame, FrameReport *r, Codec *codec, void *split_state,
                  int split_state_size) {
    unsigned char key[17] = {0};  // the key, zero-padded to the 16 bytes the enhanced cipher takes
    memcpy(key, o.key.data(), std::min(o.key.size(), size_t(16)));
    bool encrypted = (r->flags & 3) == 2;
    int rc = 0;
    r->examined = true;
    r->encryption = !encrypted ? Encryption::kNone : ((r->flags >> 6) & 3) == 2 ? Encryption::kEnhanced
                                                                                 : Encryption::kPlain;
    size_t held = std::min(r->held, frame.size);
    if (encrypted && !o.has_key) {
        r->decrypt = Decrypt::kNoKey;
        r->skip = Skip::kNoKey;
    } else if (encrypted) {
        rc = SA_DecryptOneFrame(frame.data, int(held), key, int(std::min(o.key.size(), size_t(16))));
        r->decrypt_rc = rc;
        if (rc == 0) {
            r->decrypt = Decrypt::kDone;
        } else {
            r->decrypt = Decrypt::kFailed;
            std::string why = std::string("decryption failed: ") + decrypt_failure(rc);
            r->error = r->error.empty() ? why : r->error + "; " + why;
            r->skip = Skip::kNotDecrypted;
        }
    }
    if (r->skip == Skip::kNone && held >= KX_FRAME_HEADER_LEN) {
        const uint8_t *data = frame.data + KX_FRAME_HEADER_LEN;
        size_t data_len = held - KX_FRAME_HEADER_LEN;
        if (*codec == Codec::kUnknown) *codec = kxt::probe_codec(data, data_len);
        // Until a frame with parameter sets and a key picture names the codec, a frame that begins
        // with the H.265 user-data unit is read as H.265, any other as H.264.
        r->codec = *codec != Codec::kUnknown ? *codec
                   : starts_with_user_data(data, data_len, Codec::kH265) ? Codec::kH265
                                                                         : Codec::kH264;
        r->key_frame = has_key_picture(data, std::min(data_len, size_t(r->payload_len)), r->codec);
        if (r->key_frame) {
            stream_picture_size(data, std::min(data_len, size_t(r->payload_len)), r->codec, &r->width, &r->height);
        }
        analyse_user_data(o, frame.data, held, r->codec, split_state, split_state_size, &r->ud);
    }
    return rc;
}

void walk(FILE *f, const AnalysisOptions &o, const FrameVisitor &visit, const WalkNotice &notice, WalkTotals *totals,
          long long first_index, uint64_t first_offset) {
    Walker walker(f, first_index);
    // The stream's record of containers split over frames; large, so it lives on the heap.
    Bytes split(sizeof(TUserDataSplitState), 0);
    WalkTotals &t = *totals;
    t = WalkTotals();
    t.codec = o.codec;
    FrameReport r;
    Span frame;
    char line[160];
    int picture_size[2] = {0, 0};  // of the stream's last sequence parameter set

    while (walker.next(&r, &frame)) {
        r.offset += first_offset;
        ++t.frames;
        uint64_t skipped = 0;
        if (!r.valid) {
            ++t.broken;
            notice("frame " + std::to_string(r.index) + " at offset " + std::to_string(r.offset) + ": " + r.error);
            bool more = visit(r, r.has_header ? frame : Span());
            if (r.index == first_index && first_offset == 0) {
                // Nothing at the start looks like a frame: say what the input is and which command takes it.
                // The peek sets head: it runs before the sniff reads it (argument order is unspecified).
                const uint8_t *head = nullptr;
                const size_t head_len = walker.peek(4096, &head);
                kxt::Sniffed sniffed = kxt::sniff_input(head, head_len);
                std::string hint = kxt::foreign_input_hint(sniffed, "a stream of frames");
                if (!hint.empty()) {
                    notice(hint);
                    t.foreign = true;
                    break;
                }
            }
            if (!more || !r.has_header) break;
            if (walker.advance(&skipped)) {
                snprintf(line, sizeof(line), "found the next frame header at offset %llu, %llu bytes on",
                         (unsigned long long)(walker.offset() + first_offset), (unsigned long long)skipped);
                notice(line);
                continue;
            }
            snprintf(line, sizeof(line), "no further frame header in the last %llu bytes", (unsigned long long)skipped);
            notice(line);
            break;
        }
        examine_frame(o, frame, &r, &t.codec, split.data(), int(split.size()));
        keep_picture_size(&r, picture_size);
        if (r.ud.found()) ++t.with_user_data;
        if (!r.error.empty()) {
            ++t.broken;
            notice("frame " + std::to_string(r.index) + " at offset " + std::to_string(r.offset) + ": " + r.error);
        }
        bool more = visit(r, frame);
        more = walker.advance(&skipped) && more;
        if (!more) break;
    }
    t.read_error = walker.error();
}

const char *encryption_name(Encryption e) {
    switch (e) {
    case Encryption::kPlain: return "plain";
    case Encryption::kEnhanced: return "enhanced";
    default: return "none";
    }
}

const char *decrypt_name(Decrypt d) {
    switch (d) {
    case Decrypt::kDone: return "ok";
    case Decrypt::kNoKey: return "no key";
    case Decrypt::kFailed: return "failed";
    default: return "";
    }
}

const char *skip_text(Skip s) {
    switch (s) {
    case Skip::kNoHeader: return "no valid frame header";
    case Skip::kNoKey: return "encrypted; give --key to decrypt";
    case Skip::kNotDecrypted: return "not decrypted";
    default: return "";
    }
}

}  // namespace kxc
