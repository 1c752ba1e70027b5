// Gives each test a $LUMD_PLATFORM_DIR of its own.
#ifndef TESTS_DATAFILE_SUPPORT_H
#define TESTS_DATAFILE_SUPPORT_H

#include <gmock/gmock.h>
#include <stdlib.h>
#include <syslog.h>

#include <string>

#include "syslog_spy.h"
#include "temporary_folder.h"

class DataFileTest : public testing::Test {
  protected:
    DataFileTest() {
        setenv("LUMD_PLATFORM_DIR", folder.path().c_str(), 1);
        take_syslog();
    }
    ~DataFileTest() override { unsetenv("LUMD_PLATFORM_DIR"); }

    // What was logged since the last call is one error line that contains `text`.
    static void expect_one_error(const std::string& text) {
        const std::vector<SyslogLine> lines = take_syslog();
        ASSERT_THAT(lines, testing::SizeIs(1));
        EXPECT_EQ(lines[0].priority, LOG_ERR);
        EXPECT_THAT(lines[0].text, testing::HasSubstr(text));
    }
    static void expect_silence() { EXPECT_THAT(take_syslog(), testing::IsEmpty()); }

    TemporaryFolder folder;
};

// Files that hold no JSON object.
inline const char* const kMalformedFiles[] = {
    "", " ", "{", "[]", "null", "12", "\"x\"", "{} {}", "{\"a\":}", "\x01\x02", "not JSON"};

#endif
