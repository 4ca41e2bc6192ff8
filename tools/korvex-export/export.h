// korvex-export: frames into an MP4 or Matroska file without re-encoding, each picture at its own time,
// with the frames' user data beside the pictures (a metadata track, WebVTT, CSV and JSON files). The
// export is a library of its own so that the Python module runs the same one.
#pragma once

#include <stdint.h>

#include <functional>
#include <string>

#include "core/core.h"

namespace kxe {

struct ExportOptions {
    std::string input = "-";          // a file, or "-" for standard input
    FILE *input_file = nullptr;       // read instead of input (left open), named input in messages
    std::string output;               // .mp4, .m4v, .mov or .mkv
    kxc::AnalysisOptions analysis;    // key, codec, mask
    double fps = 0;                   // the rate where neither the device nor the stream gives one; 0 none
    bool has_from = false, has_to = false;
    int64_t from_ms = 0, to_ms = 0;   // device times, milliseconds since 1970 (or video times without them)
    long long first = -1, last = -1;  // --frames A:B, B included; -1 open
    std::string index;                // an I-frame index of the input, to seek to the first key frame
    std::string vtt, csv, json;       // sidecar files; empty none
    bool data_track = true;           // the metadata track in the output
    bool skip_broken = false;         // leave broken frames out instead of stopping at the first
    int progress = 0;                 // 1: a progress line on standard error
};

// What an export did.
struct ExportResult {
    long long frames = 0;             // pictures written
    long long first_index = -1, last_index = -1;  // frame numbers of the first and last written
    int64_t first_ms = 0, last_ms = 0;            // their times
    bool device_times = false;        // the times come from the device's clock
    long long broken = 0;             // broken frames left out (skip_broken)
    kxc::TimeSource interval_source = kxc::TimeSource::kDefault;
    double fps = 0;
    bool written = false;             // the output (and the side files) are in place
    std::string message;              // the first error, a sentence
};

// Runs the export; every error is said through say (one sentence each) and the first is kept in
// result->message. 0 done; 1 broken input (a broken frame, a wrong or missing key, nothing in the
// range); 2 bad options or files (a container the name doesn't give, an unreadable input, an
// unwritable output). On any failure no output file and no sidecar is left behind.
int run_export(const ExportOptions &o, const std::function<void(const std::string &)> &say, ExportResult *result);

// FFmpeg's own lines on standard error: errors with verbose, else none.
void set_ffmpeg_log(bool verbose);

// The container a file name gives: "mp4", "mov", "matroska", or null.
const char *container_of(const std::string &path);

}  // namespace kxe
