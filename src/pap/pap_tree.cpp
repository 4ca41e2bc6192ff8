// The command tree: frames, registration of command paths, the word splitter and the tree walk
// shared with running, and the release of a whole tree.
#include <stdlib.h>
#include <string.h>

#include "platform/alloc.h"
#include "pap/pap_internal.h"

namespace {

bool is_upper(char c) {
    return c >= 'A' && c <= 'Z';
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

char *copy_word(const char *word, size_t len) {
    char *copy = static_cast<char *>(kx_malloc(len + 1));
    if (copy == nullptr) return nullptr;
    memcpy(copy, word, len);
    copy[len] = '\0';
    return copy;
}

// Creates what is missing of a split path and stores the callbacks; words holds num >= 1 keys.
int register_path(_TProtFrame *frame, char **words, int num, pap_analyze_cbk analyze, pap_deal_cbk deal,
                  int spe) {
    int index = -1;
    TProtNode *node = FindCmdNode(frame->root, words, num, 0, &index);
    if (node != nullptr && index == num - 1) return ReplaceLeafNode(node, analyze, deal) != nullptr ? 0 : -1;

    const char *last = words[num - 1];
    // A remain word must fit its slot with the terminating zero; a path whose last key is to be one
    // but cannot is refused before anything is built, so the caller never gets half of what it asked.
    if (spe && strlen(last) >= PAP_SLOT_LEN) return -1;

    // Whatever this call builds hangs below `first`; a failure takes it all back, so a registration
    // either stands whole or leaves the tree and the remain words as they were.
    TProtNode *parent = node, *first = nullptr;
    const uint64_t nodes_before = frame->node_num;
    const int remain_before = frame->remain_num;
    bool ok = true;
    for (int i = index + 1; ok && i < num - 1; i++) {
        parent = RegisterCmdExact(frame, parent, words[i], analyze, deal);
        ok = parent != nullptr;
        if (ok && first == nullptr) first = parent;
    }
    if (ok) {
        if (spe && frame->remain_num < PAP_REMAIN_WORDS) reg_special_cmd_key(frame, last);
        TProtNode *made = RegisterCmdExact(frame, parent, last, analyze, deal);
        if (made != nullptr) return 0;
    }
    if (first != nullptr) {
        TProtNode **at = node != nullptr ? &node->child : &frame->root;
        while (*at != first) at = &(*at)->next;
        *at = nullptr;  // first went in last on its level
        FreeAllNode(first, nullptr);
    }
    frame->node_num = nodes_before;
    frame->remain_num = remain_before;
    return -1;
}

}  // namespace

int CheckCmds(const char *path) {
    if (path == nullptr) return -1;
    for (const char *p = path; *p != '\0'; p++) {
        char c = *p;
        if (!is_upper(c) && !is_digit(c) && c != '_' && c != '\t' && c != '\n') return -1;
    }
    return 0;
}

int ParseKeyNum(const char *text, char **words, int limit) {
    if (text == nullptr || words == nullptr) return 0;
    const char *p = text;
    while (is_space(*p)) p++;
    int num = 0;
    while (num < limit) {
        size_t len = 0;
        while (p[len] != '\0' && p[len] != '\t' && len <= PAP_MAX_WORD_LEN) len++;
        if (len > PAP_MAX_WORD_LEN) break;
        free(words[num]);
        words[num] = copy_word(p, len);
        if (words[num] == nullptr) return -1;  // never the words so far as if they were the whole text
        num++;
        if (p[len] == '\0') break;
        p += len + 1;
    }
    return num;
}

TProtNode *FindCmdNode(TProtNode *level, char **words, int num, int depth, int *index) {
    int unused;
    if (index == nullptr) index = &unused;
    if (level == nullptr || words == nullptr || depth < 0) {
        *index = depth - 1;
        return nullptr;
    }
    for (;;) {
        TProtNode *match = nullptr;
        if (depth < num && words[depth] != nullptr) {
            for (match = level; match != nullptr; match = match->next)
                if (strcmp(match->key, words[depth]) == 0) break;
        }
        if (match == nullptr) {
            *index = depth - 1;
            return level->parent;
        }
        if (match->child == nullptr || depth == num - 1) {
            *index = depth;
            return match;
        }
        level = match->child;
        depth++;
    }
}

TProtLeaf *CreateLeafNode(TProtNode *node, pap_analyze_cbk analyze, pap_deal_cbk deal) {
    TProtLeaf *leaf = static_cast<TProtLeaf *>(kx_calloc(1, sizeof(TProtLeaf)));
    if (leaf == nullptr) return nullptr;
    leaf->params = static_cast<TParamDef *>(kx_calloc(1, sizeof(TParamDef)));
    if (leaf->params == nullptr) {
        free(leaf);
        return nullptr;
    }
    leaf->param_num = -1;
    if (analyze != nullptr) leaf->analyze = analyze;
    if (deal != nullptr) leaf->deal = deal;
    leaf->node = node;
    return leaf;
}

TProtLeaf *ReplaceLeafNode(TProtNode *node, pap_analyze_cbk analyze, pap_deal_cbk deal) {
    if (node == nullptr || node->leaf_num < 0 || (node->leaf_num > 0 && node->leaves == nullptr))
        return nullptr;
    size_t old_num = static_cast<size_t>(node->leaf_num);
    TProtLeaf *leaves = static_cast<TProtLeaf *>(kx_calloc(old_num + 1, sizeof(TProtLeaf)));
    TParamDef *def = static_cast<TParamDef *>(kx_calloc(1, sizeof(TParamDef)));
    if (leaves == nullptr || def == nullptr) {
        free(leaves);
        free(def);
        return nullptr;
    }
    if (old_num > 0) memcpy(leaves, node->leaves, old_num * sizeof(TProtLeaf));
    leaves[old_num].node = node;
    leaves[old_num].param_num = -1;
    leaves[old_num].params = def;
    free(node->leaves);
    node->leaves = leaves;
    node->leaf_num = static_cast<int>(old_num + 1);
    if (analyze != nullptr) leaves[0].analyze = analyze;
    if (deal != nullptr) leaves[0].deal = deal;
    return leaves;
}

void InsertNode(TProtNode **head, TProtNode *node) {
    if (head == nullptr || node == nullptr) return;
    while (*head != nullptr) head = &(*head)->next;
    *head = node;
}

TProtNode *RegisterCmdExact(_TProtFrame *frame, TProtNode *parent, const char *word, pap_analyze_cbk analyze,
                            pap_deal_cbk deal) {
    if (frame == nullptr || word == nullptr) return nullptr;
    TProtNode *node = static_cast<TProtNode *>(kx_calloc(1, sizeof(TProtNode)));
    if (node == nullptr) return nullptr;
    node->parent = parent;
    node->key = copy_word(word, strlen(word));
    if (node->key != nullptr) node->leaves = CreateLeafNode(node, analyze, deal);
    if (node->leaves == nullptr) {
        free(node->key);
        free(node);
        return nullptr;
    }
    node->leaf_num = 1;
    InsertNode(parent != nullptr ? &parent->child : &frame->root, node);
    frame->node_num++;
    return node;
}

int reg_special_cmd_key(_TProtFrame *frame, const char *word) {
    if (frame == nullptr || word == nullptr) return -1;
    if (IsInPpfRemainWords(frame, word)) return 0;
    size_t len = strlen(word);
    if (len >= PAP_SLOT_LEN || frame->remain_num < 0 || frame->remain_num >= PAP_REMAIN_WORDS) return -1;
    memcpy(frame->remain_words[frame->remain_num], word, len + 1);
    frame->remain_num++;
    return 0;
}

void FreeLeafNode(TProtLeaf *leaf) {
    if (leaf == nullptr) return;
    free(leaf->params);
    leaf->params = nullptr;
}

void FreeCmdNode(TProtNode *node, TProtNode *prev) {
    if (node == nullptr) return;
    if (prev != nullptr && prev->next == node) prev->next = nullptr;
    free(node->key);
    if (node->leaves != nullptr)
        for (int i = 0; i < node->leaf_num; i++) FreeLeafNode(&node->leaves[i]);
    free(node->leaves);
    free(node);
}

void FreeAllNode(TProtNode *node, TProtNode *prev) {
    if (prev != nullptr && prev->next == node) prev->next = nullptr;
    // Siblings are walked in a loop and only children recurse, so the stack depth is bounded by the
    // depth of the tree (16 keys), not by the number of commands on one level.
    while (node != nullptr) {
        TProtNode *next = node->next;
        FreeAllNode(node->child, nullptr);
        FreeCmdNode(node, nullptr);
        node = next;
    }
}

extern "C" {

KX_API _TProtFrame *pap_init(void) {
    return static_cast<_TProtFrame *>(kx_calloc(1, sizeof(_TProtFrame)));
}

KX_API int pap_uninit(_TProtFrame *frame) {
    if (frame == nullptr) return -1;
    FreeAllNode(frame->root, nullptr);
    frame->root = nullptr;
    CleanCmdBuff(frame);
    free(frame);
    return -1;
}

KX_API int Inner_RegCallBack(_TProtFrame *frame, const char *path, pap_analyze_cbk analyze, pap_deal_cbk deal,
                             int spe) {
    if (frame == nullptr || path == nullptr) return -1;
    if (CheckCmds(path) != 0) return -1;
    char *words[PAP_PATH_LIMIT] = {};
    int num = ParseKeyNum(path, words, PAP_PATH_LIMIT);
    int result = num > 0 ? register_path(frame, words, num, analyze, deal, spe) : -1;
    for (char *word : words) free(word);
    return result;
}

KX_API int pap_regist_cbk_cmd_analyze(_TProtFrame *frame, const char *path, pap_analyze_cbk analyze) {
    return Inner_RegCallBack(frame, path, analyze, nullptr, 0);
}

KX_API int pap_regist_cbk_cmd_analyze_spe(_TProtFrame *frame, const char *path, pap_analyze_cbk analyze) {
    return Inner_RegCallBack(frame, path, analyze, nullptr, 1);
}

KX_API int pap_regist_cbk_cmd_deal(_TProtFrame *frame, const char *path, pap_deal_cbk deal) {
    return Inner_RegCallBack(frame, path, nullptr, deal, 0);
}

KX_API int pap_regist_cbk_cmd_deal_spe(_TProtFrame *frame, const char *path, pap_deal_cbk deal) {
    return Inner_RegCallBack(frame, path, nullptr, deal, 1);
}

KX_API int pap_regist_cbk_get_param(_TProtFrame *frame, pap_get_param_cbk get_param) {
    if (frame != nullptr) frame->get_param = get_param;
    return 0;
}

KX_API int isupperstr(const char *word) {
    if (word == nullptr || !is_upper(word[0])) return 0;
    for (const char *p = word + 1; *p != '\0'; p++)
        if (!is_upper(*p) && !is_digit(*p) && *p != '_') return 0;
    return 1;
}

}  // extern "C"
