// Log lines: format, thresholds, the red error form, cutting at the room.
#include <errno.h>
#include <gtest/gtest.h>
#include <regex>
#include <string>

#include "log/log_internal.h"
#include "support/stderr_capture.h"

namespace {

std::string capture(void (*fn)()) {
    StderrCapture cap;
    cap.start();
    fn();
    return cap.stop();
}

}  // namespace

TEST(LogLine, PlainLineFormatAndDefaultThresholds) {
    std::string out = capture([] {
        sdk_log_msg("hello %d", 42);
        sdk_log_debug("hidden");
    });
    std::regex line(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} \[MSG\] hello 42\n$)");
    EXPECT_TRUE(std::regex_match(out, line)) << out;
}

TEST(LogLine, ErrorRecordIsRedWithSourcePositionAndNoErrnoText) {
    std::string out = capture([] {
        errno = EACCES;
        KX_LOG_ERR("bad thing %s", "x");
    });
    std::regex line(
        R"(^\x1b\[;31m\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} \[ERR\] file: tests/log/log_line_test\.cpp, func:.*, line: \d+ bad thing x\n\x1b\[0m$)");
    EXPECT_TRUE(std::regex_match(out, line)) << out;
}

TEST(LogLine, QuitUnlockAppendsErrnoTextAndReturns) {
    std::string out = capture([] {
        errno = ENOENT;
        KX_LOG_ERRNO("open %s", "f");
        sdk_log_msg("after");
    });
    EXPECT_NE(out.find("open f: No such file or directory\n\x1b[0m"), std::string::npos) << out;
    EXPECT_NE(out.find("[MSG] after\n"), std::string::npos);
}

TEST(LogLine, LevelsEqualToTheThresholdAreTakenAndSetLevelRulesForGood) {
    int t = 0, f = 0;
    sdk_log_get_level(&t, &f);
    EXPECT_TRUE(t == 200 && f == 200);

    sdk_log_set_level(100, 100, 0);
    std::string out = capture([] {
        sdk_log_msg("msg hidden");
        KX_LOG_ERR("err shown");
    });
    EXPECT_EQ(out.find("msg hidden"), std::string::npos);
    EXPECT_NE(out.find("err shown"), std::string::npos);
    EXPECT_EQ(1, log_api_control());
    EXPECT_EQ(0, isWriteLog());

    sdk_log_set_level(300, 300, 1);
    EXPECT_EQ(1, isWriteLog());
    sdk_log_set_level(300, 300, 0);  // no log file from this test
    out = capture([] { sdk_log_debug("dbg %s", "now"); });
    EXPECT_NE(out.find("[DBG] dbg now\n"), std::string::npos) << out;

    // Thresholds below 100: the error group still runs and stays balanced, the record goes nowhere.
    sdk_log_set_level(50, 50, 0);
    out = capture([] {
        KX_LOG_ERR("nowhere");
        KX_LOG_ERR("nowhere either");
    });
    EXPECT_EQ("", out);
}

TEST(LogLine, LongLinesAreCutAndStillEndInOneNewline) {
    static std::string big(10000, 'a');
    std::string out = capture([] { sdk_log_msg("%s", big.c_str()); });
    EXPECT_EQ(4093u, out.size());  // 4092 characters, then the newline
    EXPECT_EQ(out.find('\n'), out.size() - 1);

    out = capture([] { KX_LOG_ERR("%s", big.c_str()); });
    // Red form: escape, 4092 characters, newline, reset.
    EXPECT_EQ(6u + 4093u + 4u, out.size());
    EXPECT_EQ(out.size() - 5, out.find("\n\x1b[0m"));

    // The shared buffer starts over at 0 for the next record.
    out = capture([] { KX_LOG_ERR("short"); });
    EXPECT_NE(out.find("short\n"), std::string::npos);
    EXPECT_LT(out.size(), 300u);

    // A head longer than the room: the message is cut, the group stays balanced.
    out = capture([] {
        sdk_log_buf_lock();
        sdk_log_buf_date();
        for (int i = 0; i < 3; i++) sdk_log_buf_msg("%s", big.c_str());
        sdk_err_buf_msg_unlock("tail");
    });
    EXPECT_EQ(6u + 4093u + 4u, out.size());
}

TEST(LogLine, WorksBeforeStartAndAfterCleanupFromManyThreads) {
    std::string out = capture([] {
        sdk_log_msg("before");
        sdk_os_startup(0, 0);
        sdk_os_cleanup();
        EXPECT_FALSE(log_buf_mutex_taken());
        KX_LOG_ERR("after cleanup");
        EXPECT_TRUE(log_buf_mutex_taken());
        pthread_t th[4];
        for (auto &t : th)
            pthread_create(
                &t, nullptr,
                [](void *) -> void * {
                    for (int i = 0; i < 200; i++) KX_LOG_ERR("thread %d", i);
                    return nullptr;
                },
                nullptr);
        for (auto &t : th) pthread_join(t, nullptr);
    });
    EXPECT_NE(out.find("[MSG] before\n"), std::string::npos);
    EXPECT_NE(out.find("after cleanup\n"), std::string::npos);
    size_t count = 0;
    for (size_t p = out.find("[ERR] "); p != std::string::npos; p = out.find("[ERR] ", p + 1)) count++;
    EXPECT_EQ(801u, count);
}
