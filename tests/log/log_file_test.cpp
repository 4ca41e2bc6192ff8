// The log on disk, in a scratch log directory of this process, with the file step's clock fixed.
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "log/log_internal.h"
#include "platform/platform.h"

namespace fs = std::filesystem;

namespace {

int level_of(int sink) {
    int level = 0, file_level = 0;
    sdk_log_get_level(&level, &file_level);
    return sink ? file_level : level;
}

constexpr time_t kDay = 86400;
std::atomic<time_t> s_now{0};
std::string s_dir;  // one per process: the log directory is set only once

struct LogFiles : ::testing::Test {
    static time_t test_clock(void) { return s_now; }
    static void put(const std::string &name, const std::string &s) { std::ofstream(s_dir + name) << s; }
    static int64_t size(const std::string &p) { return fs::exists(p) ? (int64_t)fs::file_size(p) : -1; }
    static void config(const std::string &s) { put("sdk_log_config.ini", s), update_log_config(); }
    // n bytes through the file step, which takes its day from the test clock.
    static void write(size_t n) { log_file_write(std::string(n, 'x').c_str(), (int)n, &s_tm); }
    // Path of this process's log file of the day of t.
    static std::string file(time_t t, const char *tail = "") {
        char buf[64];
        strftime(buf, sizeof(buf), "log_sdk_%Y-%m-%d_", localtime_r(&t, &s_tm));
        return s_dir + buf + std::to_string(getpid()) + tail;
    }
    static struct tm s_tm;

    void SetUp() override {
        if (s_dir.empty()) {
            char t[] = "/tmp/kx_log_XXXXXX";
            ASSERT_EQ(1, log_set_path(mkdtemp(t)));
            s_dir = log_path();
        }
        for (auto &e : fs::directory_iterator(s_dir)) fs::remove_all(e.path());
        log_file_forget();
        s_tm = {};
        s_tm.tm_year = 125, s_tm.tm_mon = 2, s_tm.tm_mday = 10, s_tm.tm_hour = 12, s_tm.tm_isdst = -1;
        s_now = mktime(&s_tm);  // 2025-03-10 12:00
        log_file_set_clock(test_clock);
        log_give_back_levels();
        put("sdk", "");
        config("");
    }
    static void TearDownTestSuite() { fs::remove_all(s_dir); }
};
struct tm LogFiles::s_tm;

TEST_F(LogFiles, FileFollowsTheSwitchAndComesBackWhenRemoved) {
    fs::remove(s_dir + "sdk");
    sdk_log_msg("off");
    EXPECT_FALSE(fs::exists(file(s_now)));
    put("sdk", "");
    sdk_log_msg("on");
    EXPECT_TRUE(fs::remove(file(s_now)));
    sdk_log_msg("again");
    EXPECT_GT(size(file(s_now)), 0);
    s_now = s_now + 12 * 3600 - 1;  // 23:59:59 stays in the file, 00:00:01 opens the next day's
    sdk_log_msg("late");
    int64_t first_day = size(file(s_now));
    s_now = s_now + 2;
    sdk_log_msg("early");
    EXPECT_EQ(first_day, size(file(s_now - 2)));
    EXPECT_GT(size(file(s_now)), 0);
}

TEST_F(LogFiles, RotatesPastHalfTheSizeKeepingOneOldFile) {
    config("[File]\nSize=2\n");
    for (int round = 0; round < 2; round++, s_now = s_now + kDay) {
        for (int i = 0; i < 256; i++) write(4096);
        check_oversize_log_file();  // exactly 1,048,576 bytes stays
        EXPECT_EQ(1048576, size(file(s_now)));
        write(1);
        check_oversize_log_file();
        EXPECT_FALSE(fs::exists(file(s_now)));
        EXPECT_EQ(1048577, size(file(s_now, "old")));
        write(10);  // the next line opens the file anew
        EXPECT_EQ(10, size(file(s_now)));
    }
    EXPECT_FALSE(fs::exists(file(s_now - 2 * kDay, "old")));  // removed by the next rotation
}

TEST_F(LogFiles, RetentionCountsFromTheDateInTheName) {
    EXPECT_EQ(2592000, log_file_savetime());
    put("log_sdk_notes", "");
    fs::create_directory(file(s_now - 30 * kDay));
    for (const std::string &f :
         {file(s_now - 6 * kDay), file(s_now - 7 * kDay), file(s_now - 7 * kDay, "old")})
        std::ofstream{f};
    config("[File]\nSavaTime=7\n");
    sdk_log_msg("opens a file");
    EXPECT_TRUE(fs::exists(file(s_now - 6 * kDay)) && fs::exists(s_dir + "log_sdk_notes"));
    EXPECT_FALSE(fs::exists(file(s_now - 7 * kDay)) || fs::exists(file(s_now - 7 * kDay, "old")));
    EXPECT_TRUE(fs::is_directory(file(s_now - 30 * kDay)));
    config("[File]\nSavaTime=2000000000\n");  // beyond 32 bits of seconds the days still count
    s_now = s_now + 365 * kDay;
    sdk_log_msg("a year later");
    EXPECT_TRUE(fs::exists(file(s_now - 371 * kDay)));
    config("[File]\nSavaTime=0\n");  // even today's file is expired: the one just opened goes at once
    s_now = s_now + kDay;
    sdk_log_msg("lost");
    EXPECT_FALSE(fs::exists(file(s_now)));
}

TEST_F(LogFiles, FreeDiskGuardAndTheLevelsOfTheCaller) {
    struct statvfs vfs;
    ASSERT_EQ(0, statvfs("./", &vfs));
    config("[Terminal]\nLevel=100\n[File]\nLevel=300\nFreePercent=100\n");
    EXPECT_EQ(100, level_of(0));
    EXPECT_EQ(300, level_of(1));
    check_diskfreesize_writelog();
    EXPECT_EQ(vfs.f_bavail < vfs.f_blocks ? 1 : 0, log_file_paused());
    sdk_log_msg("held back");
    EXPECT_EQ(!log_file_paused(), fs::exists(file(s_now)));
    sdk_log_set_level(200, 200, 1);
    config("[Terminal]\nLevel=300\n[File]\nFreePercent=0\n");
    check_diskfreesize_writelog();
    EXPECT_EQ(0, log_file_paused());
    EXPECT_EQ(200, level_of(0));  // the caller's levels hold for good
    sdk_log_msg("written");
    EXPECT_GT(size(file(s_now)), 0);
}

TEST(LogPath, LongDirectoryRefusedThenTheExecutablesDirectory) {
    if (log_path()[0] != '\0') GTEST_SKIP() << "the log directory of this process is set already";
    EXPECT_EQ(0, log_set_path(std::string(240, 'd').c_str()));
    update_log_path();
    char exe[KX_LOG_PATH_MAX];
    ASSERT_EQ(1, kx_platform_exe_path(exe, sizeof(exe)));
    EXPECT_EQ(fs::path(exe).parent_path().string() + "/", log_path());
}

// Waits for real ticks: the configuration is read again every three seconds while the library runs.
TEST_F(LogFiles, ConfigurationIsReadAgainWhileRunning) {
    ASSERT_EQ(1, sdk_os_startup(0, 1));
    put("sdk_log_config.ini", "[File]\nSize=7\nLevel=100\n");
    for (int i = 0; i < 2000 && (log_file_size_mib() != 7 || level_of(1) != 100); i++) usleep(5000);
    EXPECT_TRUE(log_file_size_mib() == 7 && level_of(1) == 100);
    fs::remove(s_dir + "sdk_log_config.ini");  // a vanished file gives the defaults back
    for (int i = 0; i < 2000 && log_file_size_mib() != 2048; i++) usleep(5000);
    EXPECT_TRUE(log_file_size_mib() == 2048 && level_of(1) == 200);
    sdk_os_cleanup();
}

}  // namespace
