// Internal side of the command engine: the tree operations behind registration and the steps of a
// run, reachable from tests through the static library.
#pragma once

#include "korvex/korvex.h"

// The terminator of a command inside a package.
extern const char *const const_end;
extern const int const_end_len;

// Limits of the word splitter: keys of a path, words of a command text.
enum { PAP_PATH_LIMIT = PAP_MAX_KEYS, PAP_TEXT_LIMIT = PAP_MAX_WORDS };

// 0 if every character of path is A-Z, 0-9, "_", tab or newline (the empty path too), else -1.
int CheckCmds(const char *path);
// Splits text into tab-separated heap words (leading white space skipped), at most limit of them.
// A non-null entry is freed before it is reused. A word longer than PAP_MAX_WORD_LEN stops the
// splitting. Gives the number of words stored, or -1 when a word's copy could not be allocated (the
// words stored so far stay in words for the caller to free).
int ParseKeyNum(const char *text, char **words, int limit);
// Walks the tree from the level whose first node is level, matching words[depth..num-1] key by key.
// Gives the deepest matching node (null when not even the first word matched) and stores the index
// of its word in *index (-1 when nothing matched).
TProtNode *FindCmdNode(TProtNode *level, char **words, int num, int depth, int *index);
// A new node under parent (or on the top level) with one leaf; null on failure.
TProtNode *RegisterCmdExact(_TProtFrame *frame, TProtNode *parent, const char *word, pap_analyze_cbk analyze,
                            pap_deal_cbk deal);
// A leaf for node accepting any number of parameters, with one zeroed parameter definition.
TProtLeaf *CreateLeafNode(TProtNode *node, pap_analyze_cbk analyze, pap_deal_cbk deal);
// Grows node's leaves by one and writes the non-null callbacks into the first leaf. Gives the new
// leaf array, or null (node unchanged) when allocation fails.
TProtLeaf *ReplaceLeafNode(TProtNode *node, pap_analyze_cbk analyze, pap_deal_cbk deal);
// Adds word to the remain words unless it stands there already. -1 for a null argument, a word of
// PAP_SLOT_LEN characters or more, or a full table; 0 otherwise.
int reg_special_cmd_key(_TProtFrame *frame, const char *word);
// Appends node at the tail of the sibling chain that *head starts.
void InsertNode(TProtNode **head, TProtNode *node);
// Frees node, its subtree and all siblings behind it; prev (if any) is cut from the chain.
void FreeAllNode(TProtNode *node, TProtNode *prev);
// Frees one node with its key and leaves; prev (if any) is cut from the chain.
void FreeCmdNode(TProtNode *node, TProtNode *prev);
void FreeLeafNode(TProtLeaf *leaf);

// 1 if word is one of the frame's remain words; 0 otherwise or for null.
int IsInPpfRemainWords(const _TProtFrame *frame, const char *word);
// 0 if word is one of the frame's result words; 1 otherwise or for null.
int IsNotPpfResultWords(const _TProtFrame *frame, const char *word);
// 0 if each of the count parameter words passes its definition, -1 at the first that fails.
int CheckParams(char **params, const TParamDef *defs, int count);
// Frees the copy and the words of a split command and zeroes its counts.
void ReleaseCmdBuff(_TProtCmdTxt *cmd);
// A frame keeps no command buffer: nothing to do. Always 0.
int CleanCmdBuff(_TProtFrame *frame);
int inner_run_cmd_package(_TProtFrame *frame, const char *text, int length, void *user_data);
