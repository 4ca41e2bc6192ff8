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
    kxc::WalkTotals t;
    int rc = walk_input(o, [&](const FrameReport &r, kxc::Span frame) {
        if (!r.clear() || frame.data == nullptr) {
            if (r.decrypt == kxc::Decrypt::kNoKey && missing == 0) kxt::errorf("frame %lld is encrypted: give --key", r.index);
            ++missing;
            return true;
        }
        Bytes es = kxc::clear_payload(frame.data, r.held, r.payload_len, r.codec, o.keep_sei);
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
