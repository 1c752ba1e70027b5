#include "lum_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio_ext.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Built before and destroyed after every other static object of the program.
struct outermost_logger {
    outermost_logger() { trace.error("from the first constructor\n"); }
    ~outermost_logger() { trace.error("from the last destructor\n"); }
};
[[gnu::init_priority(101)]] const outermost_logger logs_at_both_ends;

void log_one_of_each() {
    trace.error("e%d\n", 1);
    trace.warn("w%d\n", 2);
    trace.info("i%d\n", 3);
    trace.debug("d%d\n", 4);
}

TEST(LumTrace, Level15GivesAllFourKindsWithTheirSeverities) {
    const LogCapture log(15);
    log_one_of_each();
    EXPECT_THAT(log.lines(), ElementsAre("error: e1", "warning: w2", "info: i3", "debug: d4"));
}

TEST(LumTrace, Level8GivesDebugLinesButNoErrors) {
    const LogCapture log(8);
    log_one_of_each();
    EXPECT_THAT(log.lines(), ElementsAre("debug: d4"));
}

TEST(LumTrace, EachBitEnablesItsOwnMethod) {
    const std::vector<std::pair<int, std::string>> expected = {
        {1, "error: e1"}, {2, "warning: w2"}, {4, "info: i3"}, {8, "debug: d4"}};
    for (const auto& [level, line] : expected) {
        const LogCapture log(level);
        log_one_of_each();
        EXPECT_THAT(log.lines(), ElementsAre(line));
    }
}

TEST(LumTrace, Level0LogsNothing) {
    const LogCapture log(0);
    log_one_of_each();
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(LumTrace, HigherBitsMeanNothing) {
    const LogCapture log(0xfff0);
    log_one_of_each();
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(LumTrace, SettingTheLevelReplacesTheWholeMask) {
    const LogCapture log(15);
    trace.set_log_level(2);
    EXPECT_FALSE(trace.is_error_enabled());
    EXPECT_TRUE(trace.is_warn_enabled());
    EXPECT_FALSE(trace.is_info_enabled());
    EXPECT_FALSE(trace.is_debug_enabled());
}

TEST(LumTrace, IsConstructedWithItsLevel) {
    const lum_trace logger("lumd", 9);
    EXPECT_TRUE(logger.is_error_enabled());
    EXPECT_FALSE(logger.is_warn_enabled());
    EXPECT_FALSE(logger.is_info_enabled());
    EXPECT_TRUE(logger.is_debug_enabled());
}

TEST(LumTrace, MakesStandardOutputUnbuffered) {
    EXPECT_LE(__fbufsize(stdout), 1u);
}

TEST(LumTrace, LinesOfSeveralThreadsStayWhole) {
    constexpr int threads = 4;
    constexpr int lines_each = 100;
    const LogCapture log;
    {
        std::vector<std::jthread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([t] {
                for (int i = 0; i < lines_each; ++i)
                    trace.info("thread %d says %s\n", t, std::string(50, 'x').c_str());
            });
    }
    const std::vector<std::string> lines = log.lines();
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(threads * lines_each));
    for (const std::string& line : lines)
        EXPECT_THAT(line, testing::MatchesRegex("info: thread [0-3] says " + std::string(50, 'x')));
}

TEST(LumTrace, LevelMayChangeWhileOthersLog) {
    const LogCapture log(0);
    std::jthread changer([] {
        for (int i = 0; i < 1000; ++i)
            trace.set_log_level(i % 2 == 0 ? 0 : 1);
    });
    for (int i = 0; i < 1000; ++i)
        trace.debug("never enabled\n");
    changer.join();
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(LumTraceDeathTest, LogsFromTheLastStaticDestructor) {
    const LogCapture log;
    EXPECT_EXIT(std::exit(0), testing::ExitedWithCode(0), "");
    EXPECT_THAT(log.lines(), ElementsAre("error: from the last destructor"));
}

}  // namespace
