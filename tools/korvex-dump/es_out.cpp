// --es: the frames' payloads, decrypted, as one Annex B elementary stream that players open. The
// user-data units go unless --keep-sei. The stream is written to a temporary file beside the target
// and renamed into place at the end, so that a failed run leaves no half-written file.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "korvex-dump/dump.h"

namespace kxd {

namespace {

// A user-data unit: an SEI NAL unit (H.264 type 6, H.265 prefix SEI 4E 01) whose first payload type
// is F0 or F1, the two container layouts.
bool is_user_data_unit(const uint8_t *nal, size_t len, kxt::Codec codec) {
    if (codec == kxt::Codec::kH265) return len > 2 && nal[0] == 0x4E && nal[1] == 0x01 && (nal[2] | 1) == 0xF1;
    return len > 1 && nal[0] == 0x06 && (nal[1] | 1) == 0xF1;
}

}  // namespace

Bytes clear_payload(const uint8_t *frame, size_t held, uint32_t payload_len, kxt::Codec codec, bool keep_sei) {
    Bytes out;
    if (held <= 32) return out;
    const uint8_t *p = frame + 32;
    size_t n = std::min(size_t(payload_len), held - 32);
    for (const kxt::Nal &nal : kxt::scan_nals(p, n)) {
        if (nal.end <= nal.begin) continue;
        if (!keep_sei && is_user_data_unit(p + nal.begin, nal.end - nal.begin, codec)) continue;
        out.insert(out.end(), {0, 0, 0, 1});
        out.insert(out.end(), p + nal.begin, p + nal.end);
    }
    return out;
}

int write_elementary_stream(const Options &o) {
    bool to_stdout = o.es_out == "-";
    if (to_stdout && isatty(1)) return kxt::errorf("refusing to write a video stream to a terminal"), 2;
    std::string tmp = o.es_out + ".XXXXXX";
    FILE *out = stdout;
    if (!to_stdout) {
        int fd = mkstemp(&tmp[0]);
        mode_t mask = umask(0);
        umask(mask);
        if (fd >= 0) (void)fchmod(fd, 0666 & ~mask);
        out = fd < 0 ? nullptr : fdopen(fd, "wb");
        if (out == nullptr) return kxt::errorf("cannot create '%s': %s", tmp.c_str(), strerror(errno)), 2;
    }
    long long written = 0, missing = 0;
    bool write_failed = false;
    WalkTotals t;
    int rc = walk(o, [&](const FrameReport &r, const uint8_t *frame) {
        if (!r.skip_reason.empty() || frame == nullptr) {
            if (r.decrypt == "no key" && missing == 0) kxt::errorf("frame %lld is encrypted: give --key", r.index);
            ++missing;
            return true;
        }
        Bytes es = clear_payload(frame, r.held, r.payload_len, r.codec, o.keep_sei);
        if (es.empty()) return true;
        if (fwrite(es.data(), 1, es.size(), out) != es.size()) write_failed = true;
        ++written;
        return !write_failed;
    }, &t);
    write_failed = (fflush(out) != 0) || write_failed;
    if (!to_stdout) write_failed = (fclose(out) != 0) || write_failed;
    if (write_failed) kxt::errorf("cannot write '%s': %s", to_stdout ? "standard output" : tmp.c_str(), strerror(errno));
    bool keep = !write_failed && written > 0;
    if (!to_stdout) {
        if (keep && rename(tmp.c_str(), o.es_out.c_str()) != 0) {
            kxt::errorf("cannot rename '%s' to '%s': %s", tmp.c_str(), o.es_out.c_str(), strerror(errno));
            keep = false;
            write_failed = true;
        }
        if (!keep) unlink(tmp.c_str());
    }
    if (rc != 0) return rc;
    if (write_failed) return 2;
    if (t.frames == 0) return kxt::errorf("'%s' is empty: no frames to read", o.input.c_str()), 1;
    if (written == 0) return kxt::errorf("no frame with a clear payload: nothing written"), 1;
    if (!o.quiet) {
        kxt::errorf("%lld of %lld frames written as %s elementary stream to '%s'", written, t.frames,
                    kxt::codec_name(t.codec), to_stdout ? "standard output" : o.es_out.c_str());
    }
    return t.broken > 0 || missing > 0 ? 1 : 0;
}

}  // namespace kxd
