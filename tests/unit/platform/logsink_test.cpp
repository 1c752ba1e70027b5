#include "logsink.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "syslog_spy.h"
#include "temporary_folder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

class Logsink : public testing::Test {
  protected:
    Logsink() {
        logsink_set_name("tested");
        logsink_set_file((folder / "log").c_str());
        take_syslog();
    }
    ~Logsink() override { logsink_set_file(nullptr); }

    [[nodiscard]] std::vector<std::string> lines(const std::string& name = "log") const {
        std::vector<std::string> result;
        std::istringstream file{folder.read(name)};
        for (std::string line; std::getline(file, line);)
            result.push_back(line);
        return result;
    }

    TemporaryFolder folder;
};

TEST_F(Logsink, WritesTimeNamePidSeverityAndText) {
    logsink_message(SINK_ERROR, "radio %d is %s", 1, "down");
    const std::string expected =
        "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"
        "\\.[0-9]{3} tested\\[" +
        std::to_string(getpid()) + "\\] error: radio 1 is down";
    EXPECT_THAT(lines(), ElementsAre(MatchesRegex(expected)));
}

TEST_F(Logsink, SendsTheSameTextToSyslogWithItsPriority) {
    logsink_message(SINK_WARNING, "low %s", "memory");
    const std::vector<SyslogLine> sent = take_syslog();
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].priority, LOG_WARNING);
    EXPECT_EQ(sent[0].text, "low memory");
}

TEST_F(Logsink, NamesEverySeverity) {
    for (int bit = SINK_EMERG; bit <= SINK_DEBUG; bit *= 2)
        logsink_message(bit, "x");
    EXPECT_THAT(lines(), ElementsAre(HasSubstr("] emergency: x"), HasSubstr("] alert: x"),
                                     HasSubstr("] critical: x"), HasSubstr("] error: x"),
                                     HasSubstr("] warning: x"), HasSubstr("] notice: x"),
                                     HasSubstr("] info: x"), HasSubstr("] debug: x")));
    std::vector<int> priorities;
    for (const SyslogLine& line : take_syslog())
        priorities.push_back(line.priority);
    EXPECT_THAT(priorities, ElementsAre(LOG_EMERG, LOG_ALERT, LOG_CRIT, LOG_ERR, LOG_WARNING,
                                        LOG_NOTICE, LOG_INFO, LOG_DEBUG));
}

TEST_F(Logsink, KeepsALineOfUnknownSeverityAsAnError) {
    logsink_message(3, "odd");
    EXPECT_THAT(lines(), ElementsAre(HasSubstr("error: odd")));
}

TEST_F(Logsink, DoesNotDoubleALineFeedAtTheEnd) {
    logsink_message(SINK_INFO, "one\n");
    logsink_message(SINK_INFO, "two");
    EXPECT_THAT(lines(), ElementsAre(HasSubstr("info: one"), HasSubstr("info: two")));
}

TEST_F(Logsink, MakesABlankOfALineFeedInsideTheText) {
    logsink_message(SINK_INFO, "a\nb\n\n");
    EXPECT_THAT(lines(), ElementsAre(testing::EndsWith("info: a b ")));
    EXPECT_EQ(take_syslog().at(0).text, "a b ");
}

TEST_F(Logsink, WritesAnEmptyText) {
    logsink_message(SINK_INFO, "%s", "");
    EXPECT_THAT(lines(), ElementsAre(testing::EndsWith("info: ")));
}

TEST_F(Logsink, WritesLongTextsWhole) {
    for (const std::size_t length : {1022u, 1023u, 1024u, 1025u, 300000u}) {
        const std::string text(length, 'x');
        logsink_message(SINK_DEBUG, "%s", text.c_str());
        EXPECT_THAT(lines().back(), testing::EndsWith("debug: " + text)) << length;
    }
}

TEST_F(Logsink, CutsALongNameTo63Bytes) {
    logsink_set_name(std::string(100, 'n').c_str());
    logsink_message(SINK_INFO, "x");
    EXPECT_THAT(lines(), ElementsAre(HasSubstr(" " + std::string(63, 'n') + "[")));
}

TEST_F(Logsink, KeepsErrno) {
    logsink_set_file((folder / "missing/log").c_str());
    errno = EAGAIN;
    logsink_message(SINK_ERROR, "x");
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Logsink, WithoutAFileWritesToSyslogAlone) {
    for (const char* none : {static_cast<const char*>(nullptr), ""}) {
        logsink_set_file(none);
        logsink_message(SINK_INFO, "x");
        EXPECT_THAT(take_syslog(), SizeIs(1));
    }
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Logsink, AppendsToAFileThatIsThere) {
    folder.write("old", "first\n");
    logsink_set_file((folder / "old").c_str());
    logsink_message(SINK_INFO, "second");
    EXPECT_THAT(lines("old"), ElementsAre("first", HasSubstr("second")));
}

TEST_F(Logsink, RotatesAtItsLimitAndKeepsThreeOldFiles) {
    const std::string half(LOGSINK_ROTATE_BYTES / 2, 'x');
    for (int i = 0; i < 6; i++)
        logsink_message(SINK_INFO, "%d %s", i, half.c_str());
    EXPECT_THAT(lines("log"), ElementsAre(HasSubstr("info: 5 ")));
    EXPECT_THAT(lines("log.1"), ElementsAre(HasSubstr("info: 4 ")));
    EXPECT_THAT(lines("log.2"), ElementsAre(HasSubstr("info: 3 ")));
    EXPECT_THAT(lines("log.3"), ElementsAre(HasSubstr("info: 2 ")));
    EXPECT_FALSE(std::filesystem::exists(folder / "log.4"));
}

TEST_F(Logsink, FillsAFileUpToItsLimitBeforeItRotates) {
    logsink_message(SINK_INFO, "x");
    const auto line = static_cast<off_t>(std::filesystem::file_size(folder / "log"));
    ASSERT_EQ(truncate((folder / "log").c_str(), LOGSINK_ROTATE_BYTES - line), 0);
    logsink_set_file((folder / "log").c_str());
    logsink_message(SINK_INFO, "x");
    EXPECT_FALSE(std::filesystem::exists(folder / "log.1"));
    logsink_message(SINK_INFO, "x");
    EXPECT_EQ(std::filesystem::file_size(folder / "log.1"), LOGSINK_ROTATE_BYTES);
    EXPECT_THAT(lines("log"), SizeIs(1));
}

TEST_F(Logsink, RotatesAFileThatWasFullBefore) {
    folder.write("old", std::string(LOGSINK_ROTATE_BYTES, 'x'));
    logsink_set_file((folder / "old").c_str());
    logsink_message(SINK_INFO, "new");
    EXPECT_THAT(lines("old"), ElementsAre(HasSubstr("new")));
    EXPECT_EQ(std::filesystem::file_size(folder / "old.1"), LOGSINK_ROTATE_BYTES);
}

TEST_F(Logsink, ReportsAnUnwritableFileOnceToSyslog) {
    logsink_set_file((folder / "missing/log").c_str());
    logsink_message(SINK_INFO, "one");
    logsink_message(SINK_INFO, "two");
    const std::vector<SyslogLine> sent = take_syslog();
    ASSERT_THAT(sent, SizeIs(3));
    EXPECT_EQ(sent[0].text, "one");
    EXPECT_EQ(sent[1].priority, LOG_ERR);
    EXPECT_EQ(sent[1].text,
              "cannot open log file " + (folder / "missing/log") + ": No such file or directory");
    EXPECT_EQ(sent[2].text, "two");
}

TEST_F(Logsink, WritesAgainWhenTheFileHasBecomeWritable) {
    logsink_set_file((folder / "late/log").c_str());
    logsink_message(SINK_INFO, "one");
    std::filesystem::create_directory(folder / "late");
    logsink_message(SINK_INFO, "two");
    EXPECT_THAT(lines("late/log"), ElementsAre(HasSubstr("info: two")));
}

TEST_F(Logsink, ReportsTheNextFailureOfAFileThatWasWrittenInBetween) {
    logsink_set_file((folder / "late/log").c_str());
    logsink_message(SINK_INFO, "one");
    std::filesystem::create_directory(folder / "late");
    logsink_message(SINK_INFO, "two");
    std::filesystem::create_directories(folder / "late/log.1/inside");
    std::filesystem::create_directories(folder / "late/log.2/inside");
    folder.write("late/log.3", "");
    take_syslog();
    logsink_message(SINK_INFO, "%s", std::string(LOGSINK_ROTATE_BYTES, 'x').c_str());
    const std::vector<SyslogLine> sent = take_syslog();
    ASSERT_THAT(sent, SizeIs(2));
    EXPECT_THAT(sent[1].text, StartsWith("cannot rotate log file"));
}

TEST_F(Logsink, ReportsAFileThatCannotBeRotatedAndGoesOn) {
    std::filesystem::create_directory(folder / "log.1");
    const std::string half(LOGSINK_ROTATE_BYTES / 2, 'x');
    folder.write("log.1/inside", "");
    std::filesystem::create_directory(folder / "log.2");
    folder.write("log.2/inside", "");
    folder.write("log.3", "");
    logsink_message(SINK_INFO, "%s", half.c_str());
    logsink_message(SINK_INFO, "%s", half.c_str());
    logsink_message(SINK_INFO, "last");
    std::vector<std::string> reports;
    for (const SyslogLine& line : take_syslog())
        if (line.text.starts_with("cannot rotate"))
            reports.push_back(line.text);
    EXPECT_THAT(reports, SizeIs(1));
}

TEST_F(Logsink, ReportsAFullDeviceOnce) {
    logsink_set_file("/dev/full");
    logsink_message(SINK_INFO, "one");
    logsink_message(SINK_INFO, "two");
    const std::vector<SyslogLine> sent = take_syslog();
    ASSERT_THAT(sent, SizeIs(3));
    EXPECT_EQ(sent[1].text, "cannot write log file /dev/full: No space left on device");
}

TEST_F(Logsink, DoesNotWaitForAReaderOfANamedPipe) {
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    logsink_set_file((folder / "pipe").c_str());
    logsink_message(SINK_INFO, "one");
    EXPECT_THAT(take_syslog(), SizeIs(2));
}

TEST_F(Logsink, ConcurrentWritersNeverTearALine) {
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kThreads; writer++)
        writers.emplace_back([writer] {
            const std::string text(static_cast<std::size_t>(50 + writer * 500),
                                   static_cast<char>('a' + writer));
            for (int i = 0; i < kLines; i++)
                logsink_message(SINK_DEBUG, "<%s>", text.c_str());
        });
    for (std::thread& writer : writers)
        writer.join();
    std::size_t found = 0;
    const std::regex whole{R"(^\S+ \S+ tested\[\d+\] debug: <(a+|b+|c+|d+)>$)"};
    for (const char* name : {"log", "log.1", "log.2", "log.3"})
        for (const std::string& line : lines(name)) {
            EXPECT_TRUE(std::regex_match(line, whole)) << line.substr(0, 80);
            found++;
        }
    EXPECT_EQ(found, std::size_t{kThreads * kLines});
}

}  // namespace
