// korvex-dump's walk over its input: the core's walk with the tool's messages and progress line.
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "korvex-dump/dump.h"

namespace kxd {

namespace {

// A progress line on standard error, shown once a walk takes longer than a second.
class Progress {
public:
    Progress(bool on, uint64_t total) : on_(on), total_(total) { start_ = now(); }
    void update(long long frames, uint64_t offset) {
        if (!on_) return;
        double t = now();
        if (t - start_ < 1.0 || t - last_ < 0.2) return;
        last_ = t;
        if (total_ > 0) {
            fprintf(stderr, "\r%s: frame %lld, %.1f of %.1f MB (%d%%)\033[K", kxt::program_name(), frames, offset / 1e6,
                    total_ / 1e6, int(offset * 100 / total_));
        } else {
            fprintf(stderr, "\r%s: frame %lld, %.1f MB\033[K", kxt::program_name(), frames, offset / 1e6);
        }
        shown_ = true;
    }
    // Clears the line so that a message or the end of the walk starts on a clean line.
    void clear() {
        if (!shown_) return;
        fputs("\r\033[K", stderr);
        shown_ = false;
    }

private:
    static double now() {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return double(ts.tv_sec) + ts.tv_nsec / 1e9;
    }
    bool on_;
    uint64_t total_;
    double start_ = 0, last_ = 0;
    bool shown_ = false;
};

}  // namespace

int walk_input(const Options &o, const kxc::FrameVisitor &visit, kxc::WalkTotals *totals) {
    FILE *f = kxt::open_input(o.input);
    if (f == nullptr) return 2;
    struct stat st;
    uint64_t total = (fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode)) ? uint64_t(st.st_size) : 0;
    bool show = o.progress == 1 || (o.progress < 0 && isatty(2) && !isatty(1));
    Progress progress(show, total);
    long long frames = 0;
    kxc::walk(f, o.analysis,
              [&](const FrameReport &r, kxc::Span frame) {
                  bool more = visit(r, frame);
                  progress.update(++frames, r.offset + r.held);
                  return more;
              },
              [&](const std::string &line) {
                  progress.clear();
                  kxt::errorf("%s", line.c_str());
              },
              totals);
    progress.clear();
    int rc = 0;
    if (totals->read_error != 0) {
        kxt::errorf("cannot read '%s': %s", o.input.c_str(), strerror(totals->read_error));
        rc = 2;
    }
    if (f != stdin) fclose(f);
    return rc;
}

int walk_frames(const Options &o) {
    kxc::WalkTotals t;
    int rc = walk_input(o, [&](const FrameReport &r, kxc::Span) { print_frame(o, r); return true; }, &t);
    if (rc != 0 && t.frames == 0) return rc;
    if (t.frames == 0) {
        kxt::errorf("'%s' is empty: no frames to read", o.input.c_str());
        return 1;
    }
    print_summary(o, t.frames, t.broken, t.with_user_data, t.codec);
    if (rc != 0) return rc;
    return t.broken > 0 ? 1 : 0;
}

}  // namespace kxd
