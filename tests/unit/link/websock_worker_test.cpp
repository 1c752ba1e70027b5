#include "websock_worker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <set>

#include "log_capture.h"
#include "pause_log.h"
#include "test_clock.h"
#include "websock_worker_peer.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string internal(const std::string& cmd) {
    return R"({"service":"internal-ipc","cmd":")" + cmd + R"("})";
}

// --- names ---

TEST(WebsockWorkerNames, FollowTheService) {
    EXPECT_EQ(websock_worker_peer(WS_INSTANCE_PORTAL).name(), "websock-roaming");
    EXPECT_EQ(websock_worker_peer(WS_INSTANCE_RRM).name(), "websock-rrm");
    EXPECT_EQ(websock_worker_peer(WS_INSTANCE_WIDS).name(), "websock-wids");
    EXPECT_TRUE(websock_worker_peer(WS_INSTANCE_WIDS).has_converter());
}

TEST(WebsockWorkerNames, AnUnknownServiceHasNoLogConverter) {
    const websock_worker_peer peer(WS_INSTANCE_MAX);
    EXPECT_EQ(peer.name(), "unknown");
    EXPECT_FALSE(peer.has_converter());
}

TEST(WebsockWorkerNames, LibraryLinesAreLoggedAtDebugLevelUnderTheService) {
    const LogCapture log;
    portal_lwsl_convert_log(4, "a notice\n");
    rrm_lwsl_convert_log(1, "an error\n");
    wids_lwsl_convert_log(512, "a detail\n");
    EXPECT_THAT(log.lines(), ElementsAre("debug: portal->libwebsocket-debug> 4: a notice",
                                         "debug: rrm->libwebsocket-debug> 1: an error",
                                         "debug: wids->libwebsocket-debug> 512: a detail"));
}

// --- back-off ---

struct delays {
    std::size_t initial;
    std::size_t maximum;
    // Half-open ranges of the first draws, the last of which stays.
    std::vector<std::pair<int, int>> ranges;
};

class BackOff : public testing::TestWithParam<delays> {};

TEST_P(BackOff, DrawsEveryWaitOfTheRangeAndNoneOutsideOfIt) {
    const auto& [initial, maximum, ranges] = GetParam();
    std::vector<std::set<int>> drawn(ranges.size());
    for (int round = 0; round < 3000; ++round) {
        websock_worker_peer peer(WS_INSTANCE_RRM, initial, maximum);
        for (std::set<int>& set : drawn)
            set.insert(peer.connect_delay());
    }
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(*drawn[i].begin(), ranges[i].first);
        EXPECT_EQ(*drawn[i].rbegin(), ranges[i].second - 1);
        EXPECT_EQ(drawn[i].size(), static_cast<std::size_t>(ranges[i].second - ranges[i].first));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Delays, BackOff,
    testing::Values(delays{4, 60, {{2, 6}, {4, 12}, {8, 24}, {16, 48}, {30, 90}, {30, 90}}},
                    delays{0, 0, {{1, 3}, {1, 3}, {1, 3}}}, delays{0, 60, {{1, 3}, {1, 3}, {2, 6}}},
                    delays{4, 0, {{2, 6}, {1, 3}}}, delays{1, 1, {{0, 1}, {0, 1}}},
                    delays{10, 4, {{5, 15}, {2, 6}}}, delays{3, 5, {{1, 4}, {2, 7}, {2, 7}}},
                    delays{2, 5, {{1, 3}, {2, 6}, {2, 7}}}));

TEST(BackOffTest, AbsurdDelaysStayWithinAnInt) {
    websock_worker_peer peer(WS_INSTANCE_RRM, SIZE_MAX, SIZE_MAX);
    EXPECT_GE(peer.connect_delay(), 0);
    EXPECT_EQ(peer.back_off(), SIZE_MAX);
}

TEST(BackOffTest, NamesTheRangeAndTheWait) {
    const LogCapture log;
    websock_worker_peer peer(WS_INSTANCE_RRM, 1, 60);
    peer.delay_loop();
    EXPECT_THAT(log.lines(), ElementsAre("debug: Generate delay into [0;1) range",
                                         "debug: Delay before connection: 0 sec"));
}

TEST(BackOffTest, NamesTheRangeThatItDrawsFrom) {
    const LogCapture log;
    websock_worker_peer peer(WS_INSTANCE_RRM, 6, 60);
    peer.connect_delay();
    EXPECT_THAT(log.lines(), ElementsAre("debug: Generate delay into [3;9) range"));
}

TEST(BackOffTest, TakesOneMessageOfThePartnerInEachTenthOfASecondAndLogsIt) {
    TestClock clock;
    websock_worker_peer peer(WS_INSTANCE_RRM, 6, 6);  // waits three seconds at least
    for (const char* text : {"one", "two", "three"})
        peer.enqueue(text);
    const LogCapture log;
    const PauseLog pauses([&] { clock.advance(1); });
    peer.delay_loop();
    EXPECT_GE(pauses.pauses().size(), 3U);
    EXPECT_TRUE(peer.from_ipc.empty());
    EXPECT_EQ(log.count("debug: websock-rrm->From queue"), 3);
    for (const char* text : {"one", "two", "three"})
        EXPECT_EQ(log.count(std::string("debug: Buffer info dump: ") + text), 1);
}

TEST(BackOffTest, StartsAfreshOnceTheHandshakeSucceeded) {
    websock_worker_peer peer(WS_INSTANCE_RRM, 1, 60);
    peer.connect_delay();
    peer.connect_delay();
    ASSERT_EQ(peer.back_off(), 4U);
    const LogCapture log;
    ASSERT_TRUE(peer.establish());
    EXPECT_EQ(peer.back_off(), 1U);
    EXPECT_TRUE(log.contains("debug: Connection established - reset connection delay"));
}

TEST(BackOffTest, EndsAtOnceWhenTheRunFlagFalls) {
    websock_worker_peer peer(WS_INSTANCE_RRM, 1000, 1000);
    peer.enqueue(internal("status"));
    peer.run = false;
    peer.delay_loop();
    EXPECT_THAT(peer.received(), IsEmpty());
}

TEST(BackOffTest, DropsWhatThePartnerSendsAndAnswersAStatusRequest) {
    websock_worker_peer peer;
    peer.enqueue("for the service");
    peer.enqueue(internal("status"));
    peer.delay_loop();
    EXPECT_THAT(peer.received(), IsEmpty());
    peer.delay_loop();
    EXPECT_THAT(peer.received(), ElementsAre(disconnected_text));
    ASSERT_TRUE(peer.establish());
    peer.enqueue("later");
    ASSERT_TRUE(peer.until([&] { return !peer.service.texts.empty(); }));
    EXPECT_THAT(peer.service.texts, ElementsAre("later"));
}

// --- internal messages ---

struct internal_case {
    std::string text;
    bool consumed;
    std::vector<std::string> answers;
};

class InternalMessage : public testing::TestWithParam<internal_case> {};

TEST_P(InternalMessage, IsKnownByItsServiceAlone) {
    websock_worker_peer peer;
    EXPECT_EQ(peer.process_internal(GetParam().text), GetParam().consumed);
    EXPECT_EQ(peer.received(), GetParam().answers);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, InternalMessage,
    testing::Values(internal_case{"", false, {}}, internal_case{"no json", false, {}},
                    internal_case{R"({"service":"internal-ipc")", false, {}},
                    internal_case{"{", false, {}}, internal_case{"[1,2]", false, {}},
                    internal_case{"17", false, {}}, internal_case{"null", false, {}},
                    internal_case{"{}", false, {}},
                    internal_case{R"({"service":null,"cmd":"status"})", false, {}},
                    internal_case{R"({"service":"wireless","cmd":"status"})", false, {}},
                    internal_case{R"({"cmd":"status"})", false, {}},
                    internal_case{R"({"service":"internal-ipc"})", true, {}},
                    internal_case{internal("status"), true, {disconnected_text}},
                    internal_case{
                        R"({"service":"Internal-IPC","cmd":"STATUS"})", true, {disconnected_text}},
                    internal_case{internal("anything"), true, {}},
                    internal_case{R"({"service":"\u0069nternal-ipc","cmd":"any"})", true, {}},
                    internal_case{R"({"service":"internal\u002Dipc","cmd":"any"})", true, {}},
                    internal_case{R"({"service":"internal-\/ipc","cmd":"status"})", false, {}},
                    internal_case{R"({"pad":"\n\t\"","service":"Internal-IPC"})", true, {}},
                    internal_case{R"({"-":"a-b--","service":"INTERNAL-ipc"})", true, {}},
                    internal_case{R"({"service":"internal-rpc"})", false, {}},
                    internal_case{internal("UNLINK"), true, {}},
                    internal_case{R"({"service":"internal-ipc","cmd":7})", true, {}}));

TEST(InternalMessageTest, UpdateTimezoneRereadsTheZoneAndGoesOn) {
    setenv("TZ", "UTC0", 1);
    tzset();
    websock_worker_peer peer;
    setenv("TZ", "FAR-5", 1);
    EXPECT_FALSE(peer.process_internal(R"({"command":"Update-Timezone"})"));
    EXPECT_EQ(timezone, 0) << "the command is compared exactly";
    EXPECT_FALSE(peer.process_internal(R"({"command":"update-timezone"})"));
    EXPECT_EQ(timezone, -5 * 3600);
    unsetenv("TZ");
    tzset();
}

TEST(InternalMessageTest, StatusIsAnsweredWithTheStateOfTheLink) {
    websock_worker_peer peer;
    ASSERT_TRUE(peer.establish());
    EXPECT_THAT(peer.received(), ElementsAre(connected_text));
    peer.enqueue(internal("status"));
    EXPECT_THAT(peer.wait_received(1), ElementsAre(connected_text));
    EXPECT_THAT(peer.service.texts, IsEmpty());
}

TEST(InternalMessageTest, UnlinkBeforeAConnectIsFinalToo) {
    websock_worker_peer peer;
    peer.enqueue(internal("unlink"));
    EXPECT_FALSE(peer.attempt());
    EXPECT_FALSE(peer.has_context());
}

TEST(InternalMessageTest, UnlinkDropsTheLinkAndRefusesEveryFurtherConnect) {
    websock_worker_peer peer;
    ASSERT_TRUE(peer.establish());
    peer.enqueue(internal("unlink"));
    ASSERT_TRUE(peer.until([&] { return !peer.usable(); }));
    peer.disconnect();
    EXPECT_FALSE(peer.connect());
    EXPECT_FALSE(peer.has_context());
    peer.service.drop();
    peer.service.pump();
    EXPECT_EQ(peer.service.connections, 1);
}

TEST(InternalMessageTest, UnlinkIsLogged) {
    websock_worker_peer peer;
    const LogCapture log;
    EXPECT_TRUE(peer.process_internal(internal("unlink")));
    EXPECT_EQ(log.count("debug: websock-rrm->process_internal_unlink:"), 1);
}

TEST(InternalMessageTest, UnlinkIsComparedExactly) {
    websock_worker_peer peer;
    ASSERT_TRUE(peer.establish());
    for (const char* cmd : {"Unlink", "UNLINK", "unlink ", "unlin"})
        EXPECT_TRUE(peer.process_internal(internal(cmd))) << cmd;
    EXPECT_TRUE(peer.usable());
}

}  // namespace
