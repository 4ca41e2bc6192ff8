// The font of each text line, through fontconfig: the built-in font where it has every glyph of the
// line, else the first font fontconfig sorts for a sans-serif face with all of them (a CJK font for a
// Chinese plate), else the one that lacks the fewest, with a warning naming the glyphs no font has.
// With --font the given font draws everything and the warning names what it lacks.
#include <fontconfig/fontconfig.h>
#include <stdio.h>

#include <algorithm>

#include "common/tool_util.h"
#include "korvex-view/view.h"

namespace kxv {

namespace {

std::vector<uint32_t> code_points(const std::string &s) {
    std::vector<uint32_t> cps;
    const FcChar8 *p = reinterpret_cast<const FcChar8 *>(s.data());
    int left = int(s.size());
    while (left > 0) {
        FcChar32 c = 0;
        int n = FcUtf8ToUcs4(p, &c, left);
        if (n <= 0) {  // not UTF-8 here: the byte stands for itself
            c = *p;
            n = 1;
        }
        if (c > 0x20 && std::find(cps.begin(), cps.end(), c) == cps.end()) cps.push_back(c);
        p += n;
        left -= n;
    }
    return cps;
}

FcCharSet *charset_of_file(const std::string &file) {
    int count = 0;
    FcPattern *p = FcFreeTypeQuery(reinterpret_cast<const FcChar8 *>(file.c_str()), 0, nullptr, &count);
    FcCharSet *cs = nullptr, *copy = nullptr;
    if (p != nullptr && FcPatternGetCharSet(p, FC_CHARSET, 0, &cs) == FcResultMatch) copy = FcCharSetCopy(cs);
    if (p != nullptr) FcPatternDestroy(p);
    return copy;
}

std::vector<uint32_t> missing_in(const FcCharSet *cs, const std::vector<uint32_t> &cps) {
    std::vector<uint32_t> missing;
    for (uint32_t c : cps) {
        if (cs == nullptr || !FcCharSetHasChar(cs, c)) missing.push_back(c);
    }
    return missing;
}

std::string utf8_of(uint32_t c) {
    FcChar8 b[8] = {0};
    int n = FcUcs4ToUtf8(c, b);
    return std::string(reinterpret_cast<char *>(b), size_t(n));
}

}  // namespace

FontChooser::FontChooser(std::string builtin, std::string given) : builtin_(std::move(builtin)), given_(std::move(given)) {
    FcInit();
    const std::string &first = given_.empty() ? builtin_ : given_;
    first_charset_ = charset_of_file(first);
}

FontChooser::~FontChooser() {
    if (first_charset_ != nullptr) FcCharSetDestroy(static_cast<FcCharSet *>(first_charset_));
    FcFini();  // fontconfig's configuration and caches, taken by FcInit
}

const std::string &FontChooser::font_for(const std::string &line) {
    auto hit = cache_.find(line);
    if (hit != cache_.end()) return hit->second;
    if (cache_.size() > 4096) cache_.clear();  // texts that change from frame to frame: bounded
    std::vector<uint32_t> cps = code_points(line);
    const FcCharSet *first = static_cast<const FcCharSet *>(first_charset_);
    std::vector<uint32_t> missing = missing_in(first, cps);
    std::string font = given_.empty() ? builtin_ : given_;
    if (!missing.empty() && given_.empty()) {
        // fontconfig's sorted sans-serif faces that have the line's characters, best first.
        FcPattern *pat = FcPatternCreate();
        FcCharSet *need = FcCharSetCreate();
        for (uint32_t c : cps) FcCharSetAddChar(need, c);
        FcPatternAddString(pat, FC_FAMILY, reinterpret_cast<const FcChar8 *>("sans-serif"));
        FcPatternAddCharSet(pat, FC_CHARSET, need);
        FcConfigSubstitute(nullptr, pat, FcMatchPattern);
        FcDefaultSubstitute(pat);
        FcResult result;
        FcFontSet *set = FcFontSort(nullptr, pat, FcFalse, nullptr, &result);
        for (int i = 0; set != nullptr && i < set->nfont && !missing.empty(); ++i) {
            FcChar8 *file = nullptr;
            FcCharSet *cs = nullptr;
            int index = 0;
            if (FcPatternGetString(set->fonts[i], FC_FILE, 0, &file) != FcResultMatch ||
                FcPatternGetCharSet(set->fonts[i], FC_CHARSET, 0, &cs) != FcResultMatch) {
                continue;
            }
            FcPatternGetInteger(set->fonts[i], FC_INDEX, 0, &index);
            if (index != 0) continue;  // drawtext opens the first face of a collection
            std::vector<uint32_t> lacks = missing_in(cs, cps);
            if (lacks.size() < missing.size()) {
                missing = lacks;
                font = reinterpret_cast<const char *>(file);
            }
        }
        if (set != nullptr) FcFontSetDestroy(set);
        FcCharSetDestroy(need);
        FcPatternDestroy(pat);
    }
    if (!missing.empty()) {
        std::string names;
        for (uint32_t c : missing) {
            char code[16];
            snprintf(code, sizeof(code), "U+%04X", unsigned(c));
            names += (names.empty() ? "" : ", ") + utf8_of(c) + " (" + code + ")";
            if (names.size() > 200) break;
        }
        if (warned_.insert(names).second) {
            if (given_.empty()) {
                kxt::errorf("no installed font has a glyph for %s in '%s': drawn as empty boxes; install one "
                            "that has (Debian: fonts-wqy-zenhei for Chinese) or give --font", names.c_str(),
                            line.c_str());
            } else {
                kxt::errorf("the font '%s' has no glyph for %s in '%s': drawn as empty boxes", given_.c_str(),
                            names.c_str(), line.c_str());
            }
        }
    }
    return cache_.emplace(line, font).first->second;
}

}  // namespace kxv
