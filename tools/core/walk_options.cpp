// The options that choose how frames are read, shared by every tool that walks a stream of frames
// (korvex-dump, korvex-view): the key, the codec and the two-layout analysis mask.
#include "core/core.h"

namespace kxc {

bool is_walk_option(const std::string &a) {
    return a == "--key" || a == "--codec" || a == "--mask";
}

int set_walk_option(const std::string &a, const std::string &v, AnalysisOptions *o) {
    using kxt::errorf;
    if (a == "--key") {
        if (v.empty() || v.size() > 16) return errorf("a key has 1 to 16 characters"), 2;
        o->has_key = true;
        o->key = v;
    } else if (a == "--codec") {
        if (v == "h264") o->codec = kxt::Codec::kH264;
        else if (v == "h265") o->codec = kxt::Codec::kH265;
        else if (v == "auto") o->codec = kxt::Codec::kUnknown;
        else return errorf("--codec takes auto, h264 or h265, not '%s'", v.c_str()), 2;
    } else {
        long long n;
        o->two_layout = true;
        if (v == "all") {
            o->type = 255;  // every block, whatever the mask says
            o->mask = 0x7FFFFFFF;
        } else if (kxt::parse_int(v, 1, 0x7FFFFFFF, &n)) {
            o->type = 0;  // any type but 255 lets the mask choose
            o->mask = int(n);
        } else {
            return errorf("--mask takes a positive number or all, not '%s'", v.c_str()), 2;
        }
    }
    return 0;
}

}  // namespace kxc
