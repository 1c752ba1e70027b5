#include <gmock/gmock.h>

#include <ctime>
#include <string>

#include "bus_test_support.h"
#include "ctl_event.h"
#include "ctl_filter.h"
#include "frame.h"

namespace {

using namespace msgbusctl;

constexpr timespec kWhen{1700000000, 45'999'999};  // 2023-11-14 22:13:20.045 UTC

msgbus::Message message(int type, int src, int dst, const std::string& payload = {}) {
    const Frame frame = make_frame(type, src, dst, 7, payload);
    msgbus::Message result = msgbus::make_message(frame.header);
    result->header.src_uid = 12;
    payload.copy(reinterpret_cast<char*>(result->payload), payload.size());
    return result;
}

std::string line(int type, int src, int dst, const std::string& payload = {}) {
    const ScopedEnvironment zone{"TZ", "UTC"};
    tzset();
    return line_of(*message(type, src, dst, payload), kWhen);
}

std::string json(int type, int src, int dst, const std::string& payload = {}) {
    return json_of(*message(type, src, dst, payload), kWhen);
}

bool passes(const Filter& filter, int type, int src, int dst, const std::string& payload = {}) {
    return filter.lets_pass(*message(type, src, dst, payload));
}

TEST(EventLine, HasTimeDirectionNumberUserAndText) {
    EXPECT_EQ(line(MSGBUS_DATA, 28, 6, "text"),
              "22:13:20.045 28 (orvanta) -> 6 (hubd) #7 uid 12 text");
    EXPECT_EQ(line(MSGBUS_DATA, 200, 201), "22:13:20.045 200 -> 201 #7 uid 12 ");
}

TEST(EventLine, StaysOneLine) {
    EXPECT_EQ(line(MSGBUS_DATA, 200, 201, std::string{"a\n\0\x7f\x1b[0m", 8}),
              R"(22:13:20.045 200 -> 201 #7 uid 12 a\x0a\x00\x7f\x1b[0m)");
}

TEST(EventLine, TellsWhatIsNoMessage) {
    EXPECT_EQ(line(MSGBUS_ATTACH, 6, 6), "22:13:20.045 6 (hubd) joins");
    EXPECT_EQ(line(MSGBUS_DETACH, 200, 200), "22:13:20.045 200 leaves");
    EXPECT_EQ(line(MSGBUS_UNDELIVERABLE, 6, 200), "22:13:20.045 6 (hubd) -> 200 #7 undeliverable");
    EXPECT_EQ(line(MSGBUS_UNDELIVERABLE, 6, 200, "why"),
              "22:13:20.045 6 (hubd) -> 200 #7 undeliverable: why");
}

TEST(EventJson, HasTheHeaderAndTheNamesThatThereAre) {
    EXPECT_EQ(json(MSGBUS_ATTACH, 6, 6),
              R"({"time":"2023-11-14T22:13:20.045Z","type":"attach","src":6,"src-name":"hubd",)"
              R"("dst":6,"dst-name":"hubd","seq":7,"uid":12,"size":0})");
    EXPECT_EQ(json(MSGBUS_DETACH, 200, 201),
              R"({"time":"2023-11-14T22:13:20.045Z","type":"detach","src":200,)"
              R"("dst":201,"seq":7,"uid":12,"size":0})");
}

TEST(EventJson, HasThePayloadAsJsonAsTextOrAsBytes) {
    using testing::EndsWith;
    EXPECT_THAT(json(MSGBUS_DATA, 1, 2, "{\"a\":\n1}"),
                EndsWith(R"(,"size":8,"payload":{"a": 1}})"));
    EXPECT_THAT(json(MSGBUS_UNDELIVERABLE, 1, 2, "say \"why\""),
                EndsWith(R"(,"size":9,"text":"say \"why\""})"));
    EXPECT_THAT(json(MSGBUS_DATA, 1, 2, "\xff{}"), EndsWith(R"(,"size":3,"bytes":"ff7b7d"})"));
    EXPECT_THAT(json(MSGBUS_DATA, 1, 2, "\"\xff\""), EndsWith(R"(,"size":3,"bytes":"22ff22"})"));
}

TEST(EventFilter, LetsEverythingPassWithoutAnyCondition) {
    const Filter filter{{}, {}};
    for (const int type : {MSGBUS_DATA, MSGBUS_ATTACH, MSGBUS_UNDELIVERABLE, MSGBUS_DETACH})
        EXPECT_TRUE(passes(filter, type, 1, 2));
}

TEST(EventFilter, LetsPassWhatAModuleSendsReceivesAndMisses) {
    const Filter filter{{1, 6}, {}};
    EXPECT_TRUE(passes(filter, MSGBUS_DATA, 1, 2));
    EXPECT_TRUE(passes(filter, MSGBUS_DATA, 2, 6));
    EXPECT_TRUE(passes(filter, MSGBUS_UNDELIVERABLE, 6, 2));
    EXPECT_TRUE(passes(filter, MSGBUS_ATTACH, 6, 6));
    EXPECT_FALSE(passes(filter, MSGBUS_DATA, 2, 3));
    EXPECT_FALSE(passes(filter, MSGBUS_DETACH, 2, 2));
}

TEST(EventFilter, LetsPassMessagesWithACommand) {
    const Filter filter{{}, {"get", "get-response"}};
    EXPECT_TRUE(passes(filter, MSGBUS_DATA, 1, 2, R"({"command":"get"})"));
    EXPECT_TRUE(passes(filter, MSGBUS_DATA, 1, 2, R"({"a":1,"command":"get-response"})"));
    for (const char* text : {R"({"command":"set"})", R"({"x":{"command":"get"}})", "get", "{", "",
                             R"(["command","get"])"})
        EXPECT_FALSE(passes(filter, MSGBUS_DATA, 1, 2, text)) << text;
    EXPECT_FALSE(passes(filter, MSGBUS_UNDELIVERABLE, 1, 2, R"({"command":"get"})"));
}

TEST(EventFilter, WantsBothModuleAndCommand) {
    const Filter filter{{1}, {"get"}};
    EXPECT_TRUE(passes(filter, MSGBUS_DATA, 1, 2, R"({"command":"get"})"));
    EXPECT_FALSE(passes(filter, MSGBUS_DATA, 2, 3, R"({"command":"get"})"));
    EXPECT_FALSE(passes(filter, MSGBUS_DATA, 1, 2, R"({"command":"set"})"));
}

}  // namespace
