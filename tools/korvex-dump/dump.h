// korvex-dump: the inspector's own parts on top of the tools' core (tools/core): the command line, the
// printing of frame reports as text or JSON, --es, --probe and --index.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>

#include "core/core.h"

namespace kxd {

using kxc::FrameReport;
using kxt::Bytes;

struct Options {
    std::string input = "-";
    kxc::AnalysisOptions analysis;  // --key, --codec, --mask, --raw-text
    bool json = false;
    bool probe = false;
    bool index = false;
    int sign_type = 0;      // --index
    long long ordinal = 0;  // --ordinal: only this match; 0 lists them all
    bool quiet = false;     // no frame lines, only errors and the summary
    bool verbose = false;   // the library's own error lines on standard error
    int progress = -1;      // -1 decide by the terminal, 0 never, 1 always
    std::string es_out;     // --es: where the clear elementary stream goes ("-" standard output)
    bool keep_sei = false;  // --keep-sei: the user-data units stay in the elementary stream
};

// Walks o.input with the core's walk, every broken frame said on standard error, a progress line for
// long walks. 0, or 2 when the input cannot be opened or read.
int walk_input(const Options &o, const kxc::FrameVisitor &visit, kxc::WalkTotals *totals);

// Walks the frames of the input and prints each; the exit status of the tool.
int walk_frames(const Options &o);
// --es: writes the frames' clear payloads as one Annex B stream; the exit status of the tool.
int write_elementary_stream(const Options &o);
// --probe and --index; the exit status of the tool.
int run_probe(const Options &o);
int run_index(const Options &o);

// Output of one frame, and the last line of a walk.
void print_frame(const Options &o, const FrameReport &r);
void print_summary(const Options &o, long long frames, long long broken, long long with_user_data, kxt::Codec codec);

}  // namespace kxd
