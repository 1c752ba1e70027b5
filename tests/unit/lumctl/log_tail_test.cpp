#include "log_tail.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "logsink.h"
#include "temporary_folder.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

namespace {

std::string line(const std::string& severity, const std::string& text) {
    return "2026-01-15 12:00:00.000 LUMD[7] " + severity + ": " + text + "\n";
}

TEST(LogTail, AnEmptyLogHasNoComplaints) {
    EXPECT_THAT(last_complaints("", 5), IsEmpty());
    EXPECT_THAT(last_complaints("\n\n", 5), IsEmpty());
}

TEST(LogTail, WarningsAndErrorsAreComplaints) {
    EXPECT_THAT(last_complaints(line("warning", "a") + line("error", "b"), 5),
                ElementsAre(EndsWith("warning: a"), EndsWith("error: b")));
}

TEST(LogTail, InformationAndDebuggingAreNone) {
    EXPECT_THAT(
        last_complaints(line("info", "a") + line("debug", "error: b") + line("notice", "c"), 5),
        IsEmpty());
}

TEST(LogTail, TheTextOfALineDoesNotMakeItAComplaint) {
    EXPECT_THAT(last_complaints(line("debug", "of list[1] error: b"), 5), IsEmpty());
}

TEST(LogTail, TheLastOnesAreGivenOldestFirst) {
    const std::string log = line("error", "1") + line("error", "2") + line("error", "3");
    EXPECT_THAT(last_complaints(log, 2), ElementsAre(EndsWith("2"), EndsWith("3")));
}

TEST(LogTail, ALineCutAtItsBeginningIsLeftOut) {
    EXPECT_THAT(last_complaints(line("error", "1").substr(5) + line("error", "2"), 5),
                ElementsAre(EndsWith("2")));
}

TEST(LogTail, ALineWithoutItsEndIsRead) {
    const std::string log = line("error", "1");
    EXPECT_THAT(last_complaints(log.substr(0, log.size() - 1), 5), ElementsAre(EndsWith("1")));
}

TEST(LogTail, WhatTheLogSinkWritesIsUnderstood) {
    const TemporaryFolder folder;
    logsink_set_name("LUMD");
    logsink_set_file((folder / "log").c_str());
    logsink_message(SINK_DEBUG, "quiet");
    logsink_message(SINK_WARNING, "loud");
    logsink_set_file(nullptr);
    EXPECT_THAT(last_complaints(folder.read("log"), 5), ElementsAre(EndsWith("warning: loud")));
}

}  // namespace
