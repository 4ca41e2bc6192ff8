// The allocation-failure sweep: every stage runs once with its first allocation failing, then its
// second, and so on until a run reaches no failing point (the stage completed). Each run must give
// the call's failure result with nothing done, or success with everything done; never a crash.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/startup_internal.h"
#include "log/log_internal.h"
#include "net/tcp_peer.h"
#include "pap/pap_internal.h"
#include "platform/alloc.h"
#include "runtime/runtime_internal.h"
#include "support/proc_entries.h"

namespace {

// Runs stage(n) for n = 1, 2, ... Each stage arms the seam with kx_alloc_fail_at(n) around the calls
// under test and disarms it with disarm() before it checks. Gives the number of allocation points.
template <typename F>
long sweep(const char *name, F stage) {
    auto t0 = std::chrono::steady_clock::now();
    for (long n = 1; n < 100000; n++) {
        long reached = stage(n);
        if (::testing::Test::HasFatalFailure() || ::testing::Test::HasFailure()) {
            ADD_FAILURE() << name << ": wrong outcome with allocation point " << n << " failing";
            return n;
        }
        if (reached < n) {
            double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
            printf("alloc sweep %-16s %4ld allocation points, %.1f ms\n", name, n - 1, ms);
            ::testing::Test::RecordProperty("allocation_points", (int)(n - 1));
            return n - 1;
        }
    }
    ADD_FAILURE() << name << ": no end";
    return 0;
}

long disarm() {
    long reached = kx_alloc_points();
    kx_alloc_fail_at(0);
    return reached;
}

// --- the command engine ---
struct Seen {
    int calls = 0, whole = 0;
    std::string last;
};
Seen g_seen;
int record(tagAnalyzeParam *p) {
    g_seen.calls++;
    if (p->key_num == 3 && p->param_num == 2 && strcmp(p->words[2], "TIME") == 0) g_seen.whole++;
    g_seen.last = p->param_num > 0 ? p->words[p->key_num] : "";
    return 0;
}

}  // namespace

TEST(AllocSweep, CommandRegister) {
    long points = sweep("pap register", [](long n) {
        _TProtFrame *f = pap_init();
        EXPECT_EQ(0, pap_regist_cbk_cmd_analyze(f, "CMD\tGET", record));
        const uint64_t nodes = f->node_num;
        kx_alloc_fail_at(n);
        int r = pap_regist_cbk_cmd_analyze_spe(f, "CMD\tSET\tTIME", record);
        long reached = disarm();
        g_seen = Seen();
        int run = pap_run_cmd(f, "CMD\tSET\tTIME\t2026-01-01\tUTC", 0, nullptr);
        if (r == 0) {
            EXPECT_EQ(0, run);
            EXPECT_EQ(1, g_seen.whole);
        } else {
            EXPECT_EQ(-1, r);
            EXPECT_EQ(nodes, f->node_num);  // nothing of the path stays
            EXPECT_EQ(0, f->remain_num);
            EXPECT_EQ(0, g_seen.whole);
        }
        EXPECT_EQ(0, pap_run_cmd(f, "CMD\tGET", 0, nullptr));  // what stood before still runs
        pap_uninit(f);
        return reached;
    });
    EXPECT_GE(points, 4);
    sweep("pap init", [](long n) {
        kx_alloc_fail_at(n);
        _TProtFrame *f = pap_init();
        long reached = disarm();
        if (f != nullptr) pap_uninit(f);
        return reached;
    });
}

TEST(AllocSweep, CommandRunAndPackage) {
    _TProtFrame *f = pap_init();
    ASSERT_EQ(0, pap_regist_cbk_cmd_analyze(f, "CMD\tSET\tTIME", record));
    long points = sweep("pap run", [f](long n) {
        g_seen = Seen();
        kx_alloc_fail_at(n);
        int r = pap_run_cmd(f, "CMD\tSET\tTIME\t2026-01-01\tUTC", 0, nullptr);
        long reached = disarm();
        EXPECT_EQ(g_seen.calls, g_seen.whole);  // never a truncated command
        EXPECT_EQ(r == 0 ? 1 : 0, g_seen.calls) << "result " << r;
        return reached;
    });
    EXPECT_GE(points, 6);  // the text and five words
    sweep("pap package", [f](long n) {
        g_seen = Seen();
        const char pkg[] = "CMD\tSET\tTIME\t1\tUTC\n\n\nCMD\tSET\tTIME\t2\tUTC\n\n\n";
        kx_alloc_fail_at(n);
        int r = pap_run_cmd_package(f, pkg, (int)strlen(pkg), nullptr);
        long reached = disarm();
        EXPECT_EQ(g_seen.calls, g_seen.whole);
        if (r == 0) {
            EXPECT_EQ("2", g_seen.last);  // success: the last command ran whole
        }
        return reached;
    });
    pap_uninit(f);
}

namespace {
void map_fn(void) {}
// Key maps live for the process (function_map_destroy refuses them): kept reachable here, in
// storage that no destructor releases before the leak check at exit.
FunctionMap *g_key_maps[64];
int g_key_map_num = 0;
void keep(FunctionMap *m) {
    if (g_key_map_num < 64) g_key_maps[g_key_map_num++] = m;
}
}  // namespace

TEST(AllocSweep, FunctionMaps) {
    sweep("map create", [](long n) {
        kx_alloc_fail_at(n);
        FunctionMap *k = function_map_create(MAP_TYPE_KEY);
        FunctionMap *i = function_map_create_index(8);
        long reached = disarm();
        if (i != nullptr) {
            EXPECT_EQ(0, function_map_bind_index(i, 3, (FunctionMapFunc)map_fn));
            EXPECT_EQ(0, function_map_destroy(i));
        }
        if (k != nullptr) {
            keep(k);
            EXPECT_EQ(0, function_map_bind_key(k, "a", (FunctionMapFunc)map_fn));
        }
        return reached;  // key maps live for the process
    });
    FunctionMap *k = function_map_create(MAP_TYPE_KEY);
    ASSERT_NE(nullptr, k);
    keep(k);
    long points = sweep("map bind", [k](long n) {
        std::string key = "key" + std::to_string(n);
        kx_alloc_fail_at(n);
        int r = function_map_bind_key(k, key.c_str(), (FunctionMapFunc)map_fn);
        long reached = disarm();
        FunctionMapItem *item = function_map_get_key_map(k, key.c_str());
        if (r == 0)
            EXPECT_NE(nullptr, item);
        else
            EXPECT_EQ(nullptr, item);
        return reached;
    });
    EXPECT_GE(points, 2);
}

TEST(AllocSweep, ListAndMutex) {
    sweep("list ops", [](long n) {
        kx_alloc_fail_at(n);
        _OS_DList *l = adt_dlist_create(sizeof(int));
        long reached = disarm();
        if (l == nullptr) return reached;
        int v = 1;
        for (int op = 0; op < 4; op++) {
            uint32_t before = adt_dlist_size(l);
            kx_alloc_fail_at(n > reached ? n - reached : 0);
            _OS_DListNode *node = op % 2 ? adt_dlist_add(l, nullptr, &v) : adt_dlist_insert(l, nullptr, &v);
            long more = disarm();
            if (n > reached) reached += more;
            EXPECT_EQ(before + (node != nullptr ? 1 : 0), adt_dlist_size(l));
        }
        adt_dlist_destroy(l);
        return reached;
    });
    sweep("mutex create", [](long n) {
        kx_alloc_fail_at(n);
        sdk_mutex_t *m = sdk_mutex_create(1);
        long reached = disarm();
        if (m != nullptr) sdk_mutex_free(m);
        return reached;
    });
}

namespace {
std::string read_all(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}
}  // namespace

TEST(AllocSweep, IniReadWrite) {
    char dir[] = "/tmp/kx_alloc_iniXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string path = std::string(dir) + "/a.ini";
    const std::string old_text = "[S]\nk=1   \nx=2\nk=1   \n";
    sweep("ini read", [&](long n) {
        { std::ofstream(path) << old_text; }
        kx_alloc_fail_at(n);
        int v = readIntValue("S", "k", -5, path.c_str());
        long reached = disarm();
        EXPECT_TRUE(v == 1 || v == -5) << v;  // the value, or the default as the failure result
        return reached;
    });
    for (int width : {4, 6}) {  // a line of the same length, and a longer one
        sweep(width == 4 ? "ini write" : "ini rewrite", [&](long n) {
            { std::ofstream(path) << old_text; }
            kx_alloc_fail_at(n);
            writeStringVlaue("S", "k", width == 4 ? "9   " : "123456", path.c_str());
            long reached = disarm();
            std::string now = read_all(path);
            std::string new_text = width == 4 ? "[S]\nk=9   \nx=2\nk=9   \n" : "[S]\nk=123456\nx=2\nk=123456\n";
            EXPECT_TRUE(now == old_text || now == new_text) << now;
            EXPECT_EQ(1, proc_entries(dir));  // no temporary file stays
            return reached;
        });
    }
    remove(path.c_str());
    rmdir(dir);
}

TEST(AllocSweep, LogLinesAndFiles) {
    char dir[] = "/tmp/kx_alloc_logXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    ASSERT_EQ(1, log_set_path(dir));
    sdk_log_set_level(0, 300, 1);  // to the file only
    long points = sweep("log file", [&](long n) {
        log_file_forget();  // every run opens the file anew
        kx_alloc_fail_at(n);
        sdk_log_msg("line %ld", n);
        KX_LOG_ERR("error %ld", n);
        long reached = disarm();
        return reached;
    });
    EXPECT_GE(points, 1);
    log_file_forget();
    char current[KX_LOG_PATH_MAX], rotated[KX_LOG_PATH_MAX];
    sdk_log_msg("last");
    log_file_names(current, rotated, sizeof(current));
    std::string text = read_all(current);
    // Lines that were written are whole.
    EXPECT_FALSE(text.empty());
    EXPECT_EQ('\n', text.back());
    EXPECT_EQ(std::string::npos, text.find("line 1\n"));  // its file could not be opened
    EXPECT_NE(std::string::npos, text.find("line 2\n"));
    log_file_forget();
}

TEST(AllocSweep, StartTimersLinks) {
    proc_warm_thread();  // a sanitizer runtime starts its helper threads before the count
    const int fds = proc_entries("/proc/self/fd"), threads = proc_entries("/proc/self/task");
    sweep("start", [&](long n) {
        kx_alloc_fail_at(n);
        int r = sdk_os_startup(0, 0);
        long reached = disarm();
        if (r == 0) {
            EXPECT_EQ(0, kx_start_count());
            EXPECT_FALSE(sdk_is_startup());
            EXPECT_EQ(fds, proc_entries("/proc/self/fd"));
            EXPECT_EQ(threads, proc_entries_settle("/proc/self/task", threads));  // a started event thread was joined
        } else {
            EXPECT_TRUE(sdk_is_startup());
        }
        return r == 1 ? 0 : reached;  // started: the sweep ends
    });
    ASSERT_TRUE(sdk_is_startup());

    sweep("timer create", [](long n) {
        uint32_t before = os_timer_count();
        kx_alloc_fail_at(n);
        _SdkTimer *t = sdk_timer_create(nullptr, 1000, nullptr);
        long reached = disarm();
        EXPECT_EQ(before + (t != nullptr ? 1 : 0), os_timer_count());
        if (t != nullptr) {
            EXPECT_EQ(1, sdk_timer_destroy(t));
        }
        return reached;
    });
    sweep("link create", [](long n) {
        kx_alloc_fail_at(n);
        _NetLink *l = net_link_create();
        long reached = disarm();
        if (l != nullptr) {
            EXPECT_EQ(0, net_link_destroy(l));
        }
        return reached;
    });
    sweep("client create", [](long n) {
        kx_alloc_fail_at(n);
        _NetTcpClient *c = net_tcp_client_create();
        long reached = disarm();
        EXPECT_NE(nullptr, c);  // a pool slot: nothing to allocate
        net_tcp_client_destroy(c);
        return reached;
    });

    // A link whose peer reads nothing: once the socket is full every send goes to the queue.
    uint16_t port = 0;
    int lfd = listen_on("127.0.0.1", &port, 4096);
    ASSERT_GE(lfd, 0);
    _NetLink *link = net_link_create();
    _NetTcpClient *c = net_tcp_client_create();
    ASSERT_TRUE(link != nullptr && c != nullptr);
    ASSERT_EQ(0, net_link_set_core(link, c));
    ASSERT_EQ(1, net_tcp_client_set_remote(c, "127.0.0.1", port));
    ASSERT_EQ(1, net_tcp_client_open(c, -1));
    ASSERT_TRUE(wait_for([&] { return net_tcp_client_get_status(c) == 2; }));
    int peer = accept_within(lfd);
    ASSERT_GE(peer, 0);
    auto queued = [&] {
        sdk_mutex_lock(link->mtx_send);
        uint32_t q = adt_dlist_size(link->send_buf_ls);
        sdk_mutex_unlock(link->mtx_send);
        return q;
    };
    static char body[1000];
    for (int i = 0; i < 100000 && queued() == 0; i++) net_link_send_package(link, body, sizeof(body));
    ASSERT_GT(queued(), 0u);
    for (int kind = 0; kind < 3; kind++) {
        sweep(kind == 0 ? "link package" : kind == 1 ? "link command" : "link data", [&](long n) {
            uint32_t before = queued();
            kx_alloc_fail_at(n);
            int r = kind == 0   ? net_link_send_package(link, body, sizeof(body))
                    : kind == 1 ? net_link_send_command(link, body, sizeof(body))
                                : net_link_send_data(link, body, sizeof(body));
            long reached = disarm();
            // One packet, one block: queued whole on success, not at all on failure.
            EXPECT_EQ(before + (r >= 0 ? 1 : 0), queued()) << "result " << r;
            return reached;
        });
    }
    EXPECT_EQ(0, net_link_destroy(link));
    close(peer);
    close(lfd);
}
