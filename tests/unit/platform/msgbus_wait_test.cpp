#include <pthread.h>
#include <syslog.h>

#include <atomic>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "msgbus.h"
#include "msgbus_fixture.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

using MsgbusWait = MsgbusOnFake;

TEST_F(MsgbusOnBroker, AnswersGoToTheSenderUnderTheRequestsNumber) {
    const msgbus_ptr client = join(28);
    const msgbus_ptr server = join(1);
    msgbus_peer_start(client.get());
    msgbus_peer_start(server.get());
    send(client, 1, R"({"command":"get"})");
    const Message request = poll_frame(server);
    ASSERT_TRUE(request);
    const std::string text = done("36");
    msgbus_send_answer(server.get(), request.get(), text.data(), text.size());
    EXPECT_EQ(value_of(wait_answer(client)), "36");
}

TEST_F(MsgbusOnBroker, AnUndeliverableRequestEndsTheWaitAtOnce) {
    const msgbus_ptr ctx = join(28);
    msgbus_peer_start(ctx.get());
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    const std::vector<SyslogLine> lines = take_syslog();
    EXPECT_THAT(lines, ElementsAre(AllOf(Field(&SyslogLine::text, "Error: no answer"),
                                         Field(&SyslogLine::priority, LOG_ERR))));
}

TEST_F(MsgbusOnBroker, TheBrokersEndEndsAWaitAtOnce) {
    const msgbus_ptr ctx = join(28);
    RawPeer server{path};
    ASSERT_TRUE(server.attach(1));
    msgbus_peer_start(ctx.get());
    std::thread killer{[&] {
        EXPECT_TRUE(server.read());
        broker.reset();
    }};
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    killer.join();
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
}

TEST_F(MsgbusOnBroker, ARequestOfAnEarlierConnectionIsNotWaitedForOnTheNext) {
    const msgbus_ptr ctx = join(28);
    send(ctx, 28, "{}");
    broker.reset();
    start_broker();
    msgbus_peer_start(ctx.get());
    EXPECT_EQ(wait_answer(ctx), nullptr);
}

TEST_F(MsgbusOnBroker, ServesManyContextsOnThreadsOfTheirOwn) {
    constexpr int kPairs = 6;
    constexpr int kRounds = 100;
    std::atomic<int> clients_left{kPairs};
    std::vector<std::thread> threads;
    for (int pair = 0; pair < kPairs; pair++) {
        msgbus_ptr server = join(100 + pair);
        ASSERT_TRUE(server);
        threads.emplace_back([&clients_left, ctx = std::move(server)] {
            msgbus_peer_start(ctx.get());
            while (clients_left > 0) {
                const Message request = poll_once(ctx);
                if (!request) {
                    std::this_thread::yield();
                    continue;
                }
                const std::string text = done(text_of(request));
                msgbus_send_answer(ctx.get(), request.get(), text.data(), text.size());
            }
        });
    }
    // Requests that reach a server before its peer start are discarded there, so ask again.
    for (int pair = 0; pair < kPairs; pair++)
        threads.emplace_back([&clients_left, pair] {
            const msgbus_ptr ctx = join(pair);
            for (int round = 0; round < kRounds;) {
                msgbus_peer_start(ctx.get());
                send(ctx, 100 + pair, std::to_string(round));
                const cfgtree_ptr answer = wait_answer(ctx, 1);
                msgbus_peer_stop(ctx.get());
                if (!answer)
                    continue;
                EXPECT_EQ(value_of(answer), std::to_string(round));
                round++;
            }
            clients_left--;
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(MsgbusWait, TakesTheAnswerOfTheLastRequest) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker = answer_with([](std::uint32_t seq) { return data(seq, done("36")); });
    send(ctx, 1, "{}");
    EXPECT_EQ(value_of(wait_answer(ctx)), "36");
    broker.join();
    EXPECT_THAT(take_syslog(), IsEmpty());
}

TEST_F(MsgbusWait, DiscardsWhatIsNotTheAnswer) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker = answer_with([](std::uint32_t seq) {
        return data(seq, R"({"command":"other","value":"command"})") +
               data(seq + 1, done("number")) + data(seq, "no JSON") + data(seq, "") +
               data(seq, R"(["command","done"])") + data(seq, R"({"value":"none"})") +
               undeliverable(seq + 1) + bytes_of(make_frame(MSGBUS_ATTACH, 28, 28, seq)) +
               data(seq, done("right"));
    });
    send(ctx, 1, "{}");
    EXPECT_EQ(value_of(wait_answer(ctx)), "right");
    broker.join();
    EXPECT_EQ(poll_once(ctx), nullptr);
}

TEST_F(MsgbusWait, NeverTakesALateAnswerForTheCurrentOne) {
    const msgbus_ptr ctx = start_fake();
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx, 0), nullptr);
    const std::uint32_t late = peer->read()->header.seq;
    std::thread broker = answer_with([&](std::uint32_t seq) {
        return data(late, done("late")) + undeliverable(late) + data(seq, done("current"));
    });
    send(ctx, 1, "{}");
    EXPECT_EQ(value_of(wait_answer(ctx)), "current");
    broker.join();
}

TEST_F(MsgbusWait, AnAnswerGivenMeanwhileDoesNotChangeWhatIsWaitedFor) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker = answer_with([](std::uint32_t seq) { return data(seq, done("mine")); });
    send(ctx, 1, "{}");
    message_s request{};
    request.header = make_frame(MSGBUS_DATA, 3, 28, 4711).header;
    msgbus_send_answer(ctx.get(), &request, "{}", 2);
    EXPECT_EQ(value_of(wait_answer(ctx)), "mine");
    broker.join();
    const std::optional<Frame> answer = peer->read();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->header.dst, 3);
    EXPECT_EQ(answer->header.seq, 4711u);
}

TEST_F(MsgbusWait, EndsAtOnceWhenTheRequestIsUndeliverable) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker = answer_with(undeliverable);
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    broker.join();
    EXPECT_THAT(take_syslog(), logged("Error: no answer"));
}

TEST_F(MsgbusWait, EndsAtTheTimeOutWithTheCallersTextAsAnError) {
    const msgbus_ptr ctx = start_fake();
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx, 1), nullptr);
    EXPECT_THAT(take_syslog(), ElementsAre(AllOf(Field(&SyslogLine::text, "Error: no answer"),
                                                 Field(&SyslogLine::priority, LOG_ERR))));
    EXPECT_NE(msgbus_get_module_loop(ctx.get()), 0);
}

TEST_F(MsgbusWait, ATextWithFormatCharactersIsLoggedAsItIs) {
    const msgbus_ptr ctx = start_fake();
    EXPECT_EQ(msgbus_wait_answer(ctx.get(), "done", "100%s sure%n", 0), nullptr);
    EXPECT_THAT(take_syslog(), logged("100%s sure%n"));
}

TEST_F(MsgbusWait, WithoutTimeTakesWhatIsThere) {
    const msgbus_ptr ctx = start_fake();
    send(ctx, 1, "{}");
    const std::uint32_t seq = peer->read()->header.seq;
    ASSERT_TRUE(peer->write(data(seq, done("there"))));
    EXPECT_EQ(value_of(wait_answer(ctx, 0)), "there");
}

TEST_F(MsgbusWait, WithoutTimeLooksAtAllThatIsThere) {
    const msgbus_ptr ctx = start_fake();
    send(ctx, 1, "{}");
    const std::uint32_t seq = peer->read()->header.seq;
    ASSERT_TRUE(peer->write(data(seq + 1, "{}") + data(seq, "{}") + data(seq, done("there"))));
    EXPECT_EQ(value_of(wait_answer(ctx, 0)), "there");
}

TEST_F(MsgbusWait, EndsAtTheTimeOutAlsoWhileOtherFramesKeepArriving) {
    msgbus_ptr ctx = start_fake();
    std::thread broker{[&] {
        const std::uint32_t seq = peer->read()->header.seq;
        std::string others;
        for (int i = 0; i < 1000; i++)
            others += data(seq + 1, "{}");
        const auto patience =
            std::chrono::steady_clock::now() + std::chrono::milliseconds{kPatienceMs};
        while (std::chrono::steady_clock::now() < patience && peer->write(others))
            continue;
        peer->write(data(seq, done("much too late")));
    }};
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx, 1), nullptr);
    ctx.reset();
    broker.join();
}

TEST_F(MsgbusWait, EndsAtOnceWhenNothingWasSent) {
    const msgbus_ptr ctx = start_fake();
    EXPECT_EQ(wait_answer(ctx), nullptr);
    EXPECT_EQ(msgbus_wait_answer(ctx.get(), "done", nullptr, kForever), nullptr);
    EXPECT_EQ(msgbus_wait_answer(ctx.get(), nullptr, nullptr, kForever), nullptr);
}

TEST_F(MsgbusWait, EndsAtOnceWhenTheConnectionIsLost) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker{[&] {
        EXPECT_TRUE(peer->read());
        peer->hang_up();
    }};
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    broker.join();
    EXPECT_THAT(take_syslog(), logged("Error: no answer"));
}

TEST_F(MsgbusWait, EndsAtOnceAtAMalformedFrame) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker = answer_with([](std::uint32_t) { return std::string(17, 'x'); });
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    broker.join();
}

std::atomic<int> signals_seen{0};

TEST_F(MsgbusWait, GoesOnAfterASignal) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { signals_seen++; };
    sigaction(SIGTERM, &action, &before);
    const msgbus_ptr ctx = start_fake();
    const pthread_t waiting = pthread_self();
    std::thread broker = answer_with([waiting](std::uint32_t seq) {
        pthread_kill(waiting, SIGTERM);
        while (signals_seen == 0)
            std::this_thread::yield();
        return data(seq, done("after"));
    });
    send(ctx, 1, "{}");
    EXPECT_EQ(value_of(wait_answer(ctx)), "after");
    broker.join();
    sigaction(SIGTERM, &before, nullptr);
}

}  // namespace
