// Running command texts: splitting a command into keys and parameters, the walk to its node and the
// call of its analyze callback, and the cutting of packages into commands.
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "platform/alloc.h"
#include "pap/pap_internal.h"

const char *const const_end = "\n\n\n";
const int const_end_len = 3;

namespace {

// Section words that open a command in a package, in the order they are searched.
const char *const kSectionWords[] = {"INNER", "USER", "CMD", "PARASET"};

// Compares word with a fixed slot; a slot without a terminating zero matches nothing.
bool slot_equals(const char (&slot)[PAP_SLOT_LEN], const char *word) {
    for (int i = 0; i < PAP_SLOT_LEN; i++) {
        if (slot[i] != word[i]) return false;
        if (slot[i] == '\0') return true;
    }
    return false;
}

int clamp_count(int num, int max) {
    return num < 0 ? 0 : (num > max ? max : num);
}

// Runs may come from several threads on one frame; the counters are the only thing they share.
void count_run(_TProtFrame *frame, int result) {
    __atomic_add_fetch(&frame->run_total, 1, __ATOMIC_RELAXED);
    __atomic_add_fetch(result == 0 ? &frame->run_ok : &frame->run_fail, 1, __ATOMIC_RELAXED);
}

// Counts the leading words that are keys: upper-case words, up to and including a remain word.
// Stops once the count is past the limit, as such a command is refused anyway.
int count_keys(const _TProtFrame *frame, char **words, int num) {
    int keys = 0;
    for (int i = 0; i < num && keys <= PAP_MAX_KEYS; i++) {
        const char *next = i + 1 < num ? words[i + 1] : nullptr;
        if (IsInPpfRemainWords(frame, words[i]) && IsNotPpfResultWords(frame, next)) return keys + 1;
        if (!isupperstr(words[i])) break;
        keys++;
    }
    return keys;
}

bool check_int(const char *word, const TParamDef &def) {
    errno = 0;
    char *end = nullptr;
    // 64 bits on every processor, as the bounds are: a 32-bit long would refuse what fits elsewhere.
    long long value = strtoll(word, &end, 10);
    if (errno == ERANGE && (value == LLONG_MAX || value == LLONG_MIN)) return false;
    if (errno != 0 && value == 0) return false;
    if (end == word || *end != '\0') return false;
    return value >= def.min && value <= def.max;
}

// Splits the command, finds its node and leaf, and calls analyze. -1 when nothing ran.
int run_split(_TProtFrame *frame, _TProtCmdTxt *cmd, void *user_data) {
    int num = ParseKeyNum(cmd->text, cmd->words, PAP_TEXT_LIMIT);
    if (num <= 0) return -1;
    int keys = count_keys(frame, cmd->words, num);
    if (keys == 0 || keys > PAP_MAX_KEYS || num - keys > PAP_MAX_PARAMS) return -1;

    int deepest = -1;
    TProtNode *node = FindCmdNode(frame->root, cmd->words, keys, 0, &deepest);
    if (node == nullptr || deepest < 0) return -1;
    cmd->key_num = deepest + 1;
    cmd->param_num = num - cmd->key_num;

    TProtLeaf *leaf = nullptr;
    for (int i = 0; node->leaves != nullptr && i < node->leaf_num; i++) {
        if (node->leaves[i].param_num == cmd->param_num || node->leaves[i].param_num == -1) {
            leaf = &node->leaves[i];
            break;
        }
    }
    if (leaf == nullptr || leaf->analyze == nullptr) return -1;
    if (leaf->param_num > 0) {
        if (leaf->params == nullptr) return -1;
        if (CheckParams(&cmd->words[cmd->key_num], leaf->params, cmd->param_num) != 0) return -1;
    }

    tagAnalyzeParam param;
    memset(&param, 0, sizeof(param));
    param.words = cmd->words;
    param.key_num = cmd->key_num;
    param.param_num = cmd->param_num;
    param.deal = leaf->deal;
    param.get_param = frame->get_param;
    param.user_data = user_data;
    return leaf->analyze(&param);
}

}  // namespace

int IsInPpfRemainWords(const _TProtFrame *frame, const char *word) {
    if (frame == nullptr || word == nullptr) return 0;
    int num = clamp_count(frame->remain_num, PAP_REMAIN_WORDS);
    for (int i = 0; i < num; i++)
        if (slot_equals(frame->remain_words[i], word)) return 1;
    return 0;
}

int IsNotPpfResultWords(const _TProtFrame *frame, const char *word) {
    if (frame == nullptr || word == nullptr) return 1;
    int num = clamp_count(frame->result_num, PAP_RESULT_WORDS);
    for (int i = 0; i < num; i++)
        if (slot_equals(frame->result_words[i], word)) return 0;
    return 1;
}

int CheckParams(char **params, const TParamDef *defs, int count) {
    if (count <= 0) return 0;
    if (params == nullptr || defs == nullptr) return -1;
    for (int i = 0; i < count; i++) {
        const char *word = params[i];
        const TParamDef &def = defs[i];
        if (word == nullptr) return -1;
        bool good;
        switch (def.type) {
            case 0:
                good = true;
                break;
            case 1:
                good = check_int(word, def);
                break;
            case 2: {
                int64_t len = static_cast<int64_t>(strlen(word));
                good = len >= def.min && len <= def.max;
                break;
            }
            case 3:
                good = def.check != nullptr && def.check(word) != 0;
                break;
            default:
                good = false;
                break;
        }
        if (!good) return -1;
    }
    return 0;
}

void ReleaseCmdBuff(_TProtCmdTxt *cmd) {
    if (cmd == nullptr) return;
    free(cmd->text);
    cmd->text = nullptr;
    for (int i = 0; i < PAP_MAX_WORDS && cmd->words[i] != nullptr; i++) {
        free(cmd->words[i]);
        cmd->words[i] = nullptr;
    }
    cmd->len = 0;
    cmd->key_num = 0;
    cmd->param_num = 0;
}

int CleanCmdBuff(_TProtFrame *) {
    return 0;
}

int inner_run_cmd_package(_TProtFrame *frame, const char *text, int length, void *user_data) {
    // A negative length is refused like one of PAP_MAX_PACKAGE_LEN + 1 or more: nothing is copied.
    if (frame == nullptr || text == nullptr || length < 0 || length > PAP_MAX_PACKAGE_LEN) return -1;
    char buf[PAP_MAX_PACKAGE_LEN + 1];
    memcpy(buf, text, static_cast<size_t>(length));
    buf[length] = '\0';

    int result = -1;
    char *pos = buf;
    for (;;) {
        char *start = nullptr;
        for (const char *section : kSectionWords)
            if ((start = strstr(pos, section)) != nullptr) break;
        if (start == nullptr) start = pos;
        char *end = strstr(start, const_end);
        if (end == nullptr) break;
        *end = '\0';
        result = pap_run_cmd(frame, start, static_cast<int>(end - start), user_data);
        pos = end + const_end_len;
    }
    return result;
}

extern "C" {

KX_API int Inner_RunCmd(_TProtFrame *frame, const char *text, int, void *user_data) {
    if (frame == nullptr || text == nullptr) return -1;
    _TProtCmdTxt cmd;
    memset(&cmd, 0, sizeof(cmd));
    size_t len = strlen(text);
    cmd.len = len > INT_MAX ? INT_MAX : static_cast<int>(len);
    cmd.text = static_cast<char *>(kx_malloc(len + 1));
    int result = -1;
    if (cmd.text != nullptr) {
        memcpy(cmd.text, text, len + 1);
        result = run_split(frame, &cmd, user_data);
    }
    count_run(frame, result);
    ReleaseCmdBuff(&cmd);
    return result;
}

KX_API int pap_run_cmd(_TProtFrame *frame, const char *text, int length, void *user_data) {
    return Inner_RunCmd(frame, text, length, user_data);
}

KX_API int pap_run_cmd_package(_TProtFrame *frame, const char *text, int length, void *user_data) {
    return inner_run_cmd_package(frame, text, length, user_data);
}

}  // extern "C"
