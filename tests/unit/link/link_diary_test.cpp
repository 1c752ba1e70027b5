#include "link_diary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* refused = "warning: worker->No link to host:80/path: refused";
constexpr const char* up_again = "info: worker->Link to host:80/path is up again";

class LinkDiary : public testing::Test {
  protected:
    LogCapture log{2};
    const std::string host = "host";
    const std::string path = "/path";
    link_diary diary{"worker", host, 80, path};
};

TEST_F(LinkDiary, TellsOneCauseOnce) {
    for (int now = 0; now < 3600; now += 60)
        diary.down("refused", now);
    EXPECT_THAT(log.lines(), ElementsAre(refused));
}

TEST_F(LinkDiary, TellsEachChangeOfTheCause) {
    diary.down("refused", 0);
    diary.down("refused", 1);
    diary.down("time-out", 2);
    diary.down("refused", 3);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(refused, "warning: worker->No link to host:80/path: time-out", refused));
}

TEST_F(LinkDiary, TellsACauseThatStaysOnceAnHour) {
    for (int now = 0; now <= 7200; now += 1200)
        diary.down("refused", now);
    const std::string again = std::string(refused) + " (again, 3 times)";
    EXPECT_THAT(log.lines(), ElementsAre(refused, again, again));
}

TEST_F(LinkDiary, CountsASingleAttemptToo) {
    diary.down("refused", 0);
    diary.down("refused", 3600);
    EXPECT_EQ(log.count("refused (again, 1 times)"), 1);
}

TEST_F(LinkDiary, TheHourBeginsWithTheLastChange) {
    diary.down("time-out", 0);
    diary.down("refused", 3000);
    diary.down("refused", 3600);
    EXPECT_EQ(log.count("again"), 0);
    diary.down("refused", 6600);
    EXPECT_EQ(log.count("refused (again, 2 times)"), 1);
}

TEST_F(LinkDiary, HasNothingToTellWithoutACause) {
    diary.down("", 0);
    diary.up(1);
    diary.look(100);
    EXPECT_THAT(log.lines(), IsEmpty());
    diary.down("refused", 101);
    diary.down("", 102);
    EXPECT_THAT(log.lines(), ElementsAre(refused));
}

TEST_F(LinkDiary, SaysNothingOfALinkThatIsUpFromTheStart) {
    diary.up(0);
    diary.look(100);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LinkDiary, TellsOnceThatTheLinkIsUpAgain) {
    diary.down("refused", 0);
    diary.up(5);
    diary.look(14);
    EXPECT_THAT(log.lines(), ElementsAre(refused)) << "it may not last";
    diary.look(15);
    diary.look(16);
    diary.look(100);
    EXPECT_THAT(log.lines(), ElementsAre(refused, up_again));
}

TEST_F(LinkDiary, TellsACauseAnewAfterTheLinkWasUp) {
    diary.down("refused", 0);
    diary.up(1);
    diary.look(11);
    diary.down("refused", 12);
    EXPECT_THAT(log.lines(), ElementsAre(refused, up_again, refused));
}

TEST_F(LinkDiary, TakesLinksThatDoNotLastForOneTrouble) {
    for (int now = 0; now < 3600; now += 10) {
        diary.up(now);
        diary.look(now + 9);
        diary.down("refused", now + 9);
    }
    EXPECT_THAT(log.lines(), ElementsAre(refused));
}

TEST_F(LinkDiary, ALinkThatDidNotLastIsNotUpLater) {
    diary.down("refused", 0);
    diary.up(1);
    diary.down("refused", 2);
    diary.look(100);
    EXPECT_THAT(log.lines(), ElementsAre(refused));
}

TEST_F(LinkDiary, TellsTheEndToWhomItWouldTellInformation) {
    trace.set_log_level(4);
    diary.down("refused", 0);
    diary.up(1);
    diary.look(11);
    EXPECT_THAT(log.lines(), ElementsAre(up_again));
}

TEST_F(LinkDiary, IsSilentWhenWarningsAndInformationAre) {
    trace.set_log_level(9);
    diary.down("refused", 0);
    diary.up(1);
    diary.look(11);
    EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
