// Fuzzes the command engine: command texts and packages run through a frame with a registered
// vocabulary, parameter checks of all types, remain words and a callback that runs commands
// re-entrantly; one input mode also registers its own path first.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "korvex/korvex.h"

namespace {

int s_depth;

int touch_words(tagAnalyzeParam *p) {
    if (p->key_num < 1 || p->param_num < 0 || p->key_num + p->param_num > PAP_MAX_WORDS) abort();
    size_t sum = 0;
    for (int i = 0; i < p->key_num + p->param_num; i++) sum += strlen(p->words[i]);
    return static_cast<int>(sum % 3);
}

// Runs its first parameter as a command, and the rest as a package, on the same frame.
int nested(tagAnalyzeParam *p) {
    touch_words(p);
    if (p->param_num < 1 || s_depth >= 4) return 1;
    s_depth++;
    _TProtFrame *frame = static_cast<_TProtFrame *>(p->user_data);
    int r = pap_run_cmd(frame, p->words[p->key_num], 0, frame);
    if (p->param_num > 1) {
        const char *rest = p->words[p->key_num + 1];
        r += pap_run_cmd_package(frame, rest, static_cast<int>(strlen(rest)), frame);
    }
    s_depth--;
    return r;
}

int deal(void *, int, void *) {
    return 0;
}
int check_digit(const char *s) {
    return s[0] >= '0' && s[0] <= '9';
}

// Gives the leaf of path a parameter count and checks (allocated, as the frame frees them).
void set_checks(_TProtFrame *frame, const char *path, int num, const TParamDef *defs) {
    TProtNode *node = frame->root;
    char key[32];
    for (const char *p = path; node != nullptr;) {
        size_t len = strcspn(p, "\t");
        memcpy(key, p, len);
        key[len] = '\0';
        while (node != nullptr && strcmp(node->key, key) != 0) node = node->next;
        if (node == nullptr || p[len] == '\0') break;
        p += len + 1;
        node = node->child;
    }
    if (node == nullptr) return;
    TParamDef *copy = static_cast<TParamDef *>(calloc(num, sizeof(TParamDef)));
    if (copy == nullptr) return;
    memcpy(copy, defs, num * sizeof(TParamDef));
    free(node->leaves[0].params);
    node->leaves[0].params = copy;
    node->leaves[0].param_num = num;
}

_TProtFrame *make_frame() {
    _TProtFrame *frame = pap_init();
    pap_regist_cbk_cmd_analyze(frame, "CMD\tSET\tTIME", touch_words);
    pap_regist_cbk_cmd_deal(frame, "CMD\tSET\tTIME", deal);
    pap_regist_cbk_cmd_analyze(frame, "CMD\tGET", touch_words);
    pap_regist_cbk_cmd_analyze(frame, "CMD\tNEST", nested);
    pap_regist_cbk_cmd_analyze_spe(frame, "USER\tLOGIN", touch_words);
    pap_regist_cbk_cmd_deal_spe(frame, "INNER\tRAW", deal);
    pap_regist_cbk_cmd_analyze(frame, "INNER\tRAW", touch_words);
    pap_regist_cbk_cmd_analyze(frame, "PARASET\tNET\tIP", touch_words);
    pap_regist_cbk_cmd_analyze(frame, "PARASET\tCHK", touch_words);
    pap_regist_cbk_cmd_analyze(frame, "PARASET\tBAD", touch_words);
    const TParamDef checks[4] = {
        {1, -100, 100000, nullptr}, {2, 1, 8, nullptr}, {3, 0, 0, check_digit}, {0, 0, 0, nullptr}};
    set_checks(frame, "PARASET\tCHK", 4, checks);
    const TParamDef bad = {9, 0, 0, nullptr};
    set_checks(frame, "PARASET\tBAD", 1, &bad);
    return frame;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    _TProtFrame *frame = make_frame();
    if (frame == nullptr) return 0;
    int mode = data[0] % 3;
    std::string body(reinterpret_cast<const char *>(data + 1), size - 1);
    if (mode == 0) {
        pap_run_cmd(frame, body.c_str(), static_cast<int>(body.size()), frame);
    } else if (mode == 1) {
        pap_run_cmd_package(frame, body.data(), static_cast<int>(body.size()), frame);
    } else {
        // The text up to the first zero byte is a path (spe when it starts with '!'), the rest a package.
        size_t cut = body.find('\0');
        std::string path = body.substr(0, cut);
        std::string rest = cut == std::string::npos ? std::string() : body.substr(cut + 1);
        bool spe = !path.empty() && path[0] == '!';
        const char *p = path.c_str() + (spe ? 1 : 0);
        if (spe)
            pap_regist_cbk_cmd_analyze_spe(frame, p, nested);
        else
            pap_regist_cbk_cmd_analyze(frame, p, touch_words);
        pap_run_cmd_package(frame, rest.data(), static_cast<int>(rest.size()), frame);
        pap_run_cmd(frame, rest.c_str(), 0, frame);
    }
    pap_uninit(frame);
    return 0;
}
