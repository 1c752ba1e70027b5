// The WIDS worker: which MAC lists it takes, what it answers, what reaches hubd.
#include "wids_worker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "log_capture.h"
#include "mock_driver.h"
#include "pause_log.h"
#include "test_bus.h"
#include "thread_name.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class WidsWorkerTest : public testing::Test {
  protected:
    void enqueue(const std::string& text) {
        const auto buffer = std::make_shared<buffer_info_t>();
        buffer->append(text.data(), static_cast<unsigned>(text.size()));
        from_service.enqueue(buffer);
    }
    void service_sends(const std::string& text) {
        enqueue(text);
        EXPECT_TRUE(worker.execute());
    }
    void push(const std::string& fields) {
        service_sends(R"({"version":"2.4","service":"wids-mac-service",)" + fields + "}");
    }
    const std::vector<std::string>& replies() {
        while (
            to_service.dequeue([this](const buffer_info_ptr& b) { sent.emplace_back(b->text()); }))
            ;
        return sent;
    }
    static std::string received(const std::string& list_name) {
        return R"({"version":"2.4","service":"wids-mac-service","cmd":"mac-list-received","Name":")" +
               list_name + R"("})";
    }
    static std::string rejected(const std::string& list_name) {
        return R"({"version":"2.4","service":"wids-mac-service","cmd":"mac-list-rejected","Name":")" +
               list_name + R"("})";
    }

    TestBus bus;
    FakeHubd hubd{bus};
    LogCapture log;
    volatile bool run_flag = true;
    testing::NiceMock<MockDriver> driver{&run_flag};
    safe_queue to_service;
    safe_queue from_service;
    wids_worker worker{driver, to_service, from_service, run_flag, "Floor-3"};

  private:
    std::vector<std::string> sent;
};

TEST_F(WidsWorkerTest, AlwaysConnectsAndRunsWhileItsFlagIsSet) {
    EXPECT_TRUE(worker.__connect());
    EXPECT_TRUE(worker.condition(run_flag));
    run_flag = false;
    EXPECT_FALSE(worker.condition(run_flag));
}

TEST_F(WidsWorkerTest, RunsUnderItsName) {
    const ThreadName own;
    run_flag = false;
    worker.start_on_current_thread();
    EXPECT_EQ(ThreadName::now(), "lumd:wids");
}

TEST_F(WidsWorkerTest, WaitsForAMessageFor100Milliseconds) {
    PauseLog times{[this] { run_flag = false; }};
    worker.start_on_current_thread();
    EXPECT_THAT(times.waits(), ElementsAre(100));
}

TEST_F(WidsWorkerTest, PausesForASecondBetweenTwoConnects) {
    class unconnected : public wids_worker {
      public:
        using wids_worker::wids_worker;
        bool __connect() override { return false; }
    } other{driver, to_service, from_service, run_flag, "Floor-3"};
    PauseLog times{[this] { run_flag = false; }};
    other.start_on_current_thread();
    EXPECT_THAT(times.pauses(), ElementsAre(1000000));
}

TEST_F(WidsWorkerTest, OwnListIsAcknowledgedAndHandedToHubd) {
    push(R"("Name":"Floor-3","black":["aa:bb:cc:00:00:01"],"white":[])");
    EXPECT_THAT(replies(), ElementsAre(received("Floor-3")));
    EXPECT_THAT(hubd.requests(),
                ElementsAre(R"({"version":"2.4","service":"wids-mac-service","Name":"Floor-3",)"
                            R"("black":["aa:bb:cc:00:00:01"],"white":[],)"
                            R"("command":"update-wids-mac-lists"})"));
    EXPECT_TRUE(log.contains(R"(Got message: {"version":"2.4",)"));
    EXPECT_TRUE(log.contains("Get message with name 'Floor-3' (compare with 'Floor-3')!"));
    EXPECT_TRUE(log.contains("Our mac list was geted, renew mac lists!"));
}

TEST_F(WidsWorkerTest, OwnListInOtherLetterCaseIsAccepted) {
    push(R"("Name":"fLOOR-3")");
    EXPECT_THAT(replies(), ElementsAre(received("fLOOR-3")));
    EXPECT_THAT(hubd.requests(), SizeIs(1));
}

TEST_F(WidsWorkerTest, ServiceInOtherLetterCaseIsAccepted) {
    service_sends(R"({"service":"WIDS-MAC-Service","Name":"Floor-3"})");
    EXPECT_THAT(replies(), ElementsAre(received("Floor-3")));
}

TEST_F(WidsWorkerTest, OtherListIsRejectedUnderItsName) {
    push(R"("Name":"Floor-4")");
    push(R"("Name":"Floor-33")");
    push(R"("Name":"")");
    EXPECT_THAT(replies(), ElementsAre(rejected("Floor-4"), rejected("Floor-33"), rejected("")));
    EXPECT_THAT(hubd.requests(), IsEmpty());
    EXPECT_EQ(log.count("Wrong list name"), 3);
}

TEST_F(WidsWorkerTest, ListWithoutNameIsRejectedAsEmptyName) {
    push(R"("black":[])");
    push(R"("Name":null)");
    EXPECT_THAT(replies(), ElementsAre(rejected("empty-name"), rejected("empty-name")));
}

TEST_F(WidsWorkerTest, InternalLinkMessagesAreIgnored) {
    service_sends(R"({"service":"internal-ipc","cmd":"connected"})");
    service_sends(R"({"service":"Internal-IPC","cmd":"disconnected","Name":"Floor-3"})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

class ForeignMessageTest : public WidsWorkerTest,
                           public testing::WithParamInterface<std::string> {};

TEST_P(ForeignMessageTest, IsLoggedAndDropped) {
    service_sends(GetParam());
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_THAT(hubd.requests(), IsEmpty());
    EXPECT_EQ(log.count("Got message:"), 1);
    push(R"("Name":"Floor-3")");
    EXPECT_THAT(replies(), SizeIs(1)) << "and the worker goes on";
}

INSTANTIATE_TEST_SUITE_P(
    Messages, ForeignMessageTest,
    testing::Values("", "{", "[]", "null", "7", R"("wids-mac-service")", "{}",
                    R"([{"service":"wids-mac-service","Name":"Floor-3"}])", R"({"Name":"Floor-3"})",
                    R"({"service":null,"Name":"Floor-3"})", R"({"service":"rrm","Name":"Floor-3"})",
                    R"({"service":["wids-mac-service"],"Name":"Floor-3"})",
                    std::string{"\0{\"service\":\"wids-mac-service\"}", 31},
                    std::string{"{\"service\":\"wids-mac-service\",\0\"Name\":1}", 40},
                    "{\"service\":\"wids-mac-service\",\"x\":" + std::string(200, '[')));

TEST_F(WidsWorkerTest, TextBehindANulIsNotRead) {
    service_sends(
        std::string{"{\"service\":\"wids-mac-service\",\"Name\":\"Floor-3\"}\0garbage", 55});
    EXPECT_THAT(replies(), ElementsAre(received("Floor-3")));
}

TEST_F(WidsWorkerTest, EscapedNulInsideTheListIsKept) {
    push(R"("Name":"Floor-3","note":"a\u0000b")");
    EXPECT_THAT(hubd.requests(), ElementsAre(HasSubstr(R"("note":"a\u0000b")")));
}

TEST_F(WidsWorkerTest, NameThatIsNoTextIsComparedByItsTextForm) {
    push(R"("Name":["Floor-3"])");
    EXPECT_THAT(replies(), ElementsAre(HasSubstr(R"("cmd":"mac-list-rejected")")));
}

TEST_F(WidsWorkerTest, ListOfAMebibyteReachesHubdWhole) {
    std::string list;
    while (list.size() < 1024 * 1024)
        list += R"("aa:bb:cc:00:00:01",)";
    list.pop_back();
    push(R"("Name":"Floor-3","black":[)" + list + "]");
    EXPECT_THAT(replies(), ElementsAre(received("Floor-3")));
    const std::vector<std::string> requests = hubd.requests();
    ASSERT_THAT(requests, SizeIs(1));
    EXPECT_NE(requests[0].find(R"("black":[)" + list + "]"), std::string::npos);
}

TEST_F(WidsWorkerTest, AcknowledgementIsQueuedBeforeTheListIsStored) {
    bool acknowledged = false;
    bus.serve(HUBDMOD, [&](const std::string&) {
        acknowledged = to_service.dequeue([](const buffer_info_ptr&) {});
        return R"({"command":"update-wids-mac-lists-response","status":"ok"})";
    });
    push(R"("Name":"Floor-3")");
    bus.drop(HUBDMOD);
    EXPECT_TRUE(acknowledged);
}

TEST_F(WidsWorkerTest, RefusalByHubdIsNotReportedToTheService) {
    hubd.set_mood(FakeHubd::REFUSES);
    push(R"("Name":"Floor-3")");
    EXPECT_THAT(replies(), ElementsAre(received("Floor-3")));
    EXPECT_TRUE(log.contains(std::string{"Error: reason ("} + FakeHubd::reason + ")"));
}

TEST_F(WidsWorkerTest, AbsenceOfHubdIsNotReportedToTheService) {
    hubd.stop();
    push(R"("Name":"Floor-3")");
    EXPECT_THAT(replies(), ElementsAre(received("Floor-3")));
    EXPECT_TRUE(log.contains("Error: no response"));
}

TEST_F(WidsWorkerTest, OnePassTakesOneMessage) {
    enqueue(R"({"service":"wids-mac-service","Name":"1"})");
    enqueue(R"({"service":"wids-mac-service","Name":"2"})");
    worker.execute();
    EXPECT_THAT(replies(), SizeIs(1));
    worker.execute();
    EXPECT_THAT(replies(), SizeIs(2));
    worker.execute();
    EXPECT_THAT(replies(), SizeIs(2));
}

TEST_F(WidsWorkerTest, RunsOnAThreadOfItsOwnUntilItsFlagIsClear) {
    wids_worker other{driver, to_service, from_service, run_flag, "Floor-3"};
    run_flag = false;
    other.start_on_dedicated_thread();
    other.join();
}

}  // namespace
