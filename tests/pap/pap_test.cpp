// The command engine: tree shapes after registration, remain words, key counting, limits, leaf
// choice, parameter checks, packages, counters and re-entrant runs.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "pap/pap_internal.h"

namespace {

using Words = std::vector<std::string>;
struct Seen {
    int calls = 0;
    Words words;
    tagAnalyzeParam param{};
} g_seen;

// Records the call; a first parameter that is a number is the result.
int record(tagAnalyzeParam *p) {
    g_seen.calls++;
    g_seen.param = *p;
    g_seen.words.assign(p->words, p->words + p->key_num + p->param_num);
    return p->param_num > 0 ? atoi(p->words[p->key_num]) : 0;
}
int other(tagAnalyzeParam *) {
    return 0;
}
int deal_d(void *, int, void *) {
    return 0;
}
int get_g(void *, int, void *) {
    return 0;
}
// Runs a failing and a good command on the same frame from inside a callback.
int nested(tagAnalyzeParam *p) {
    _TProtFrame *f = static_cast<_TProtFrame *>(p->user_data);
    return pap_run_cmd(f, "CMD\tSET\t9", 0, f) + pap_run_cmd(f, "nope", 0, f);
}

std::string join(const Words &words) {
    std::string s;
    for (const auto &w : words) s += (s.empty() ? "" : "\t") + w;
    return s;
}

struct Pap : ::testing::Test {
    _TProtFrame *f = pap_init();
    void SetUp() override { g_seen = Seen(); }
    void TearDown() override { EXPECT_EQ(pap_uninit(f), -1); }
    int reg(const std::string &path, pap_analyze_cbk cb = record) {
        return pap_regist_cbk_cmd_analyze(f, path.c_str(), cb);
    }
    int spe(const std::string &path) { return pap_regist_cbk_cmd_analyze_spe(f, path.c_str(), record); }
    int run(const std::string &text) { return pap_run_cmd(f, text.c_str(), 0, f); }
    int pkg(const std::string &text) { return pap_run_cmd_package(f, text.data(), (int)text.size(), f); }
    TProtNode *find(TProtNode *n, const char *key) {
        while (n != nullptr && strcmp(n->key, key) != 0) n = n->next;
        return n;
    }
    void vocabulary() {
        reg("CMD\tSET");
        pap_regist_cbk_cmd_deal(f, "CMD\tSET", deal_d);
        reg("USER\tGET"), reg("INNER\tGET");
        pap_regist_cbk_cmd_deal(f, "DEAL", deal_d);
        pap_regist_cbk_get_param(f, get_g);
    }
};

TEST_F(Pap, TreeShapes) {
    ASSERT_EQ(reg("CMD\tSET", record), 0);
    TProtNode *cmd = f->root, *set = cmd->child;
    EXPECT_TRUE(cmd->leaves[0].analyze == record && set->leaves[0].analyze == record);
    ASSERT_EQ(pap_regist_cbk_cmd_deal(f, "CMD\tSET", deal_d), 0);  // the full path only
    EXPECT_TRUE(set->leaves[0].deal == deal_d && set->leaves[0].analyze == record && set->leaf_num == 2);
    EXPECT_EQ(cmd->leaves[0].deal, nullptr);
    ASSERT_EQ(reg("CMD\tGET", other), 0);
    EXPECT_TRUE(set->next == find(cmd->child, "GET") && cmd->leaves[0].analyze == record);
    ASSERT_EQ(reg("CMD", other), 0);
    EXPECT_TRUE(cmd->leaves[0].analyze == other && set->leaves[0].analyze == record);
    ASSERT_EQ(reg("CMD\tSET", other), 0);  // replaced in place, deal stays
    EXPECT_TRUE(set->leaves[0].analyze == other && set->leaves[0].deal == deal_d);
    EXPECT_TRUE(f->node_num == 3 && cmd->next == nullptr && set->leaves[0].param_num == -1);
}

TEST_F(Pap, PathRules) {
    EXPECT_EQ(reg("CMD\tset") + reg("CMD SET") + pap_regist_cbk_cmd_deal(nullptr, "CMD", deal_d), -3);
    EXPECT_EQ(pap_regist_cbk_cmd_analyze(f, nullptr, record), -1);
    EXPECT_EQ(pap_regist_cbk_get_param(nullptr, get_g), 0);
    EXPECT_EQ(reg(std::string(257, 'K')), -1);
    EXPECT_EQ(f->root, nullptr);
    EXPECT_EQ(reg("A\t" + std::string(257, 'K') + "\tB"), 0);  // only the words before the long one
    EXPECT_EQ(f->root->child, nullptr);
    EXPECT_EQ(reg("A\t" + std::string(256, 'K')), 0);
    Words deep{"D"};
    for (int i = 1; i < 17; i++) deep.push_back("K" + std::to_string(i));
    EXPECT_EQ(reg(join(deep)), 0);  // 17 keys: the first 16 are registered
    int depth = 0;
    for (TProtNode *n = find(f->root, "D"); n != nullptr; n = n->child) depth++;
    EXPECT_EQ(depth, 16);
    EXPECT_EQ(reg("") + reg("NL\n"), 0);
    EXPECT_TRUE(find(f->root, "") && find(f->root, "NL\n"));
    EXPECT_EQ(isupperstr("_A") + isupperstr(nullptr), 0);
}

TEST_F(Pap, RemainWords) {
    reg("CMD\tSET");
    EXPECT_EQ(spe("CMD\tSET"), 0);  // exists: no remain word
    EXPECT_EQ(f->remain_num, 0);
    EXPECT_EQ(pap_regist_cbk_cmd_deal_spe(f, "CMD\tRAW", deal_d) + spe("USER\tRAW"), 0);
    EXPECT_EQ(f->remain_num, 1);  // one slot for one word
    uint64_t nodes = f->node_num;
    EXPECT_EQ(spe("NEW\t" + std::string(32, 'L')), -1);  // cannot be a remain word: nothing built
    EXPECT_EQ(f->node_num, nodes);
    EXPECT_EQ(spe(std::string(31, 'L')), 0);
    EXPECT_EQ(IsInPpfRemainWords(f, std::string(31, 'L').c_str()), 1);
    for (int i = 0; f->remain_num < PAP_REMAIN_WORDS; i++) ASSERT_EQ(spe("R" + std::to_string(i)), 0);
    EXPECT_EQ(spe("LAST"), 0);  // table full: registered, but no remain word
    EXPECT_TRUE(f->remain_num == PAP_REMAIN_WORDS && !IsInPpfRemainWords(f, "LAST") && find(f->root, "LAST"));
}

TEST_F(Pap, Splitter) {
    char *w[4] = {strdup("stale"), nullptr, nullptr, nullptr};  // a stale entry is freed first
    EXPECT_EQ(ParseKeyNum(" \n\tA B\t\tC\t", w, 4), 4);
    EXPECT_EQ(Words(w, w + 4), (Words{"A B", "", "C", ""}));
    EXPECT_EQ(ParseKeyNum("", w, 4), 1);
    EXPECT_STREQ(w[0], "");
    EXPECT_EQ(ParseKeyNum("A\tB\tC", w, 2), 2);
    for (char *s : w) free(s);
}

TEST_F(Pap, KeysAndParameters) {
    vocabulary();
    EXPECT_EQ(run("CMD\tSET\tabc"), 0);
    EXPECT_EQ(g_seen.words, (Words{"CMD", "SET", "abc"}));
    EXPECT_TRUE(g_seen.param.key_num == 2 && g_seen.param.deal == deal_d && g_seen.param.get_param == get_g &&
                g_seen.param.user_data == f);
    EXPECT_EQ(run(" \tCMD\tSET\tABC\t DEF"), 0);  // ABC has no node: a parameter
    EXPECT_TRUE(g_seen.words == (Words{"CMD", "SET", "ABC", " DEF"}) && g_seen.param.key_num == 2);
    EXPECT_EQ(run("CMD\tSET\n"), 0);  // the newline keeps SET from being a key
    EXPECT_TRUE(g_seen.words == (Words{"CMD", "SET\n"}) && g_seen.param.key_num == 1);
    spe("CMD\tRAW"), reg("CMD\tRAW\tABC");
    EXPECT_EQ(run("CMD\tRAW\tABC\tdef"), 0);
    EXPECT_EQ(g_seen.param.key_num, 2);
}

TEST_F(Pap, LimitsAndCounters) {
    vocabulary();
    Words w(17, "K");
    w[0] = "CMD";
    EXPECT_EQ(run(join(w)), -1);  // 17 keys are counted before the walk
    w.pop_back();
    EXPECT_EQ(run(join(w)), 0);
    w.push_back("K"), spe("CMD\tSET\tRAW"), w[1] = "SET", w[2] = "RAW";
    EXPECT_EQ(run(join(w)), 0);  // a remain word ends the count
    EXPECT_EQ(g_seen.param.key_num, 3);
    Words big(376, "p");
    for (int i = 0; i < 16; i++) big[i] = i == 0 ? "CMD" : "SET";
    EXPECT_EQ(run(join(big) + "\t7"), 0);  // 16 keys and 360 parameters; the 377th word is ignored
    EXPECT_EQ(g_seen.words.size(), 376u);
    big[2] = "p";
    EXPECT_EQ(run(join(big)), -1);  // 374 parameters
    EXPECT_EQ(run("CMD\tSET\t3\t" + std::string(257, 'x') + "\t4"), 3);

    f->run_total = f->run_ok = f->run_fail = 0;
    EXPECT_EQ(pap_run_cmd(f, nullptr, 0, nullptr) + pap_run_cmd(nullptr, "CMD", 0, nullptr), -2);
    EXPECT_EQ(f->run_total, 0u);
    EXPECT_EQ(run("") + run("cmd") + run("NONE") + run("DEAL") + run("CMD\tSET\t5"), -4 + 5);
    EXPECT_EQ(run("CMD\tSET"), 0);
    EXPECT_TRUE(f->run_total == 6 && f->run_ok == 1 && f->run_fail == 5);
}

TEST_F(Pap, LeafChoiceAndParameterChecks) {
    vocabulary();
    TProtLeaf *leaves = f->root->child->leaves;  // CMD SET: leaf 0 with record, leaf 1 empty
    TParamDef defs[2] = {{1, 12, 12, nullptr}, {2, 0, 3, nullptr}}, *own = leaves[0].params;
    leaves[0].param_num = 2, leaves[0].params = defs;
    EXPECT_EQ(run("CMD\tSET\t12\t"), 12);
    EXPECT_EQ(run("CMD\tSET\t12a\tx") + run("CMD\tSET\t12\tlong"), -2);
    EXPECT_EQ(g_seen.calls, 1);
    EXPECT_EQ(run("CMD\tSET\t1"), -1);  // leaf 1 fits but has no analyze
    leaves[1].analyze = record;
    EXPECT_EQ(run("CMD\tSET\t1"), 1);
    leaves[1].param_num = 3;
    EXPECT_EQ(run("CMD\tSET\t1"), -1);  // no leaf fits
    leaves[0].params = own;

    char *p[] = {const_cast<char *>(""), const_cast<char *>("99999999999999999999"),
                 const_cast<char *>(" -7"), const_cast<char *>("ok")};
    TParamDef t1{1, -10, 10, nullptr}, bad{4, 0, 0, nullptr},
        t3{3, 0, 0, [](const char *s) { return s[0] == 'o' ? 1 : 0; }};
    EXPECT_EQ(CheckParams(p, &t1, 1) + CheckParams(p + 1, &t1, 1) + CheckParams(p + 2, &t3, 1), -3);
    EXPECT_EQ(CheckParams(p + 2, &t1, 1) + CheckParams(p + 3, &t3, 1) + CheckParams(p, &bad, 0), 0);
    EXPECT_EQ(CheckParams(p, &bad, 1), -1);
    // Whole numbers are taken in 64 bits on every processor, like their bounds.
    char *wide[] = {const_cast<char *>("4000000000"), const_cast<char *>("-3000000000")};
    TParamDef big{1, -4000000000LL, 5000000000LL, nullptr};
    EXPECT_EQ(CheckParams(wide, &big, 1) + CheckParams(wide + 1, &big, 1), 0);
}

TEST_F(Pap, Packages) {
    vocabulary();
    EXPECT_EQ(pkg("CMD\tSET\t1\n\n\nCMD\tSET\t2\n\n\n"), 2);
    EXPECT_EQ(pkg("USER\tGET\t3\n\n\nINNER\tGET\t4\n\n\n"), 4);  // INNER is searched first
    EXPECT_EQ(g_seen.calls, 3);
    EXPECT_EQ(pkg("xx\tSET\t1\n\n\n\nCMD\tSET\t6\n\n\nCMD\tSET\t7"), 6);  // the tail has no terminator
    reg("GO");
    EXPECT_EQ(pkg("GO\t8\n\n\n\nGO\t9\n\n\n"), 9);  // no section word: from the position on
    EXPECT_TRUE(g_seen.calls == 6 && g_seen.words[0] == "GO");
    EXPECT_EQ(pkg("") + pap_run_cmd_package(f, "CMD\tSET\t1\n\n\n", -1, f) +
                  pap_run_cmd_package(nullptr, "CMD", 3, f),
              -3);
    std::string tail = "CMD\tSET\t5\n\n\n", big = std::string(1999 - tail.size(), 'x') + tail;
    EXPECT_EQ(pkg(big), 5);
    EXPECT_EQ(pkg(big + "x"), -1);
    char raw[12];  // not zero-terminated
    memcpy(raw, "CMD\tSET\t3\n\n\n", 12);
    EXPECT_EQ(pap_run_cmd_package(f, raw, 12, f), 3);
}

TEST_F(Pap, ReentrantRuns) {
    vocabulary();
    reg("NEST", nested), reg("PARASET\tNEST", nested);
    EXPECT_EQ(run("NEST"), 9 - 1);
    EXPECT_EQ(pkg("CMD\tNEST\n\n\nPARASET\tNEST\n\n\n"), 8);  // CMD NEST reaches CMD's callback
    EXPECT_TRUE(f->run_total == 7 && f->run_ok == 1 && g_seen.calls == 3);
}

}  // namespace
