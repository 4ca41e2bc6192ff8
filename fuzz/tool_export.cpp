// The export walk (kxe::run_export, as korvex-export and korvex.export() run it) over any bytes: the
// frame walk, decryption, the clip's selection around key frames, the picture clock, the side files and
// libavformat's muxing of what the stream's parameter sets say.
//
// Checks: the result is 0, or 1 (broken input) with a sentence; a written export leaves the video and
// every side file, a failed one leaves no file at all (no temporary one either).
//
// Input: a byte of options (bit 0 a key, bit 1 Matroska, bit 2 --from, bit 3 --to, bit 4 --frames,
// bit 5 --skip-broken, bit 6 no metadata track, bit 7 the two-layout analysis), when bit 2, 3 or 4 is
// set four bytes (two little-endian 16-bit values: a start and an end in frames, also read as seconds
// from 2024-05-01T08:00:00Z), then the recording.
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "korvex-export/export.h"

namespace {

std::string g_dir;

int files_in(const std::string &dir) {
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) abort();
    int n = 0;
    while (struct dirent *e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
    return n;
}

void clear(const std::string &dir) {
    for (const char *name : {"out.mp4", "out.mkv", "out.vtt", "out.csv", "out.jsonl"}) unlink((dir + "/" + name).c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sdk_log_set_level(0, 0, 0);
    kxe::set_ffmpeg_log(false);
    char tmpl[] = "/tmp/fuzz_tool_export_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    g_dir = tmpl;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint8_t opt = data[0];
    size_t at = 1;
    kxe::ExportOptions o;
    uint16_t a = 0, b = 0;
    if (opt & 0x1C) {
        if (size < 5) return 0;
        a = kxt::rd16(data + 1);
        b = kxt::rd16(data + 3);
        at = 5;
    }
    const int64_t base = 1714550400000;
    if (opt & 4) o.has_from = true, o.from_ms = base + a * 100;
    if (opt & 8) o.has_to = true, o.to_ms = base + b * 100;
    if (opt & 16) o.first = a % 512, o.last = o.first + b % 512;
    if (o.has_from && o.has_to && o.to_ms < o.from_ms) std::swap(o.from_ms, o.to_ms);
    if (opt & 1) kxc::set_walk_option("--key", "fuzzkey", &o.analysis);
    if (opt & 128) kxc::set_walk_option("--mask", "all", &o.analysis);
    o.output = g_dir + ((opt & 2) ? "/out.mkv" : "/out.mp4");
    o.vtt = g_dir + "/out.vtt";
    o.csv = g_dir + "/out.csv";
    o.json = g_dir + "/out.jsonl";
    o.skip_broken = (opt & 32) != 0;
    o.data_track = (opt & 64) == 0;
    std::string copy(reinterpret_cast<const char *>(data + at), size - at);
    FILE *in = copy.empty() ? fopen("/dev/null", "rb") : fmemopen(&copy[0], copy.size(), "rb");
    if (in == nullptr) abort();
    o.input = "fuzz";
    o.input_file = in;
    kxe::ExportResult res;
    int rc = kxe::run_export(o, [](const std::string &) {}, &res);
    fclose(in);
    int left = files_in(g_dir);
    if (rc != 0 && rc != 1) abort();
    if (res.written != (left == 4)) abort();
    if (!res.written && (left != 0 || res.message.empty())) abort();
    if (res.written && res.frames < 1) abort();
    clear(g_dir);
    return 0;
}
