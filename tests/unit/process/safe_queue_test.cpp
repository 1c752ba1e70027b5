#include "safe_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "json_memory.h"
#include "json_writer.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

buffer_info_ptr message(const std::string& text) {
    auto buffer = std::make_shared<buffer_info_t>();
    buffer->append(text.data(), static_cast<unsigned>(text.size()));
    return buffer;
}

std::vector<std::string> drain(safe_queue& queue) {
    std::vector<std::string> texts;
    while (queue.dequeue([&](const buffer_info_ptr& item) { texts.emplace_back(item->text()); })) {
    }
    return texts;
}

class SafeQueue : public testing::Test {
  protected:
    void put(const std::string& text) { EXPECT_TRUE(queue.enqueue(message(text))); }

    safe_queue queue;
};

TEST_F(SafeQueue, GivesMessagesBackInOrder) {
    put("one");
    put("two");
    put("three");
    EXPECT_THAT(drain(queue), ElementsAre("one", "two", "three"));
}

TEST_F(SafeQueue, TellsWhetherThereIsAnythingToTake) {
    EXPECT_TRUE(queue.empty());
    put("one");
    EXPECT_FALSE(queue.empty());
    drain(queue);
    EXPECT_TRUE(queue.empty());
}

TEST_F(SafeQueue, DequeueTakesOneMessagePerCall) {
    put("one");
    put("two");
    int calls = 0;
    EXPECT_TRUE(queue.dequeue([&](const buffer_info_ptr&) { ++calls; }));
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(drain(queue), ElementsAre("two"));
}

TEST_F(SafeQueue, DequeueOnAnEmptyQueueIsFalseAndCallsNothing) {
    bool called = false;
    EXPECT_FALSE(queue.dequeue([&](const buffer_info_ptr&) { called = true; }));
    EXPECT_FALSE(queue.dequeue([&](buffer_info_ptr) { called = true; }));
    EXPECT_FALSE(called);
}

TEST_F(SafeQueue, DequeueByValueHandsOverTheQueuesReference) {
    put("one");
    buffer_info_ptr taken;
    EXPECT_TRUE(queue.dequeue([&](buffer_info_ptr item) { taken = std::move(item); }));
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->text(), "one");
    EXPECT_EQ(taken.use_count(), 1);
}

TEST_F(SafeQueue, PassesTheBufferItselfNotACopyOfItsText) {
    const buffer_info_ptr sent = message("one");
    queue.enqueue(sent);
    EXPECT_EQ(sent.use_count(), 2);
    queue.dequeue([&](const buffer_info_ptr& item) { EXPECT_EQ(item, sent); });
    EXPECT_EQ(sent.use_count(), 1);
}

TEST_F(SafeQueue, DequeueTakesACallbackOfEitherForm) {
    std::vector<std::string> texts;
    const std::function<void(const buffer_info_ptr&)> by_reference =
        [&](const buffer_info_ptr& item) { texts.emplace_back(item->text()); };
    const std::function<void(buffer_info_ptr)> by_value = [&](buffer_info_ptr item) {
        texts.emplace_back(item->text());
    };
    put("one");
    put("two");
    EXPECT_TRUE(queue.dequeue(by_reference));
    EXPECT_TRUE(queue.dequeue(by_value));
    EXPECT_THAT(texts, ElementsAre("one", "two"));
}

TEST_F(SafeQueue, AnEmptyCallbackRaisesAfterTheMessageWasTaken) {
    put("lost");
    EXPECT_THROW(queue.dequeue(std::function<void(const buffer_info_ptr&)>{}),
                 std::bad_function_call);
    put("lost");
    EXPECT_THROW(queue.dequeue(std::function<void(buffer_info_ptr)>{}), std::bad_function_call);
    EXPECT_THAT(drain(queue), IsEmpty());
}

TEST_F(SafeQueue, CallbackMayEnqueueIntoTheSameQueue) {
    put("one");
    EXPECT_TRUE(queue.dequeue([&](const buffer_info_ptr&) { put("answer"); }));
    EXPECT_THAT(drain(queue), ElementsAre("answer"));
}

TEST_F(SafeQueue, NotifierIsCalledOncePerEnqueueOnTheProducersThread) {
    std::vector<std::thread::id> callers;
    queue.set_user_notifier([&] { callers.push_back(std::this_thread::get_id()); });
    std::jthread producer([&] { put("one"); });
    const std::thread::id producer_id = producer.get_id();
    producer.join();
    put("two");
    EXPECT_THAT(callers, ElementsAre(producer_id, std::this_thread::get_id()));
}

TEST_F(SafeQueue, TakesOverAReferenceThatItIsGiven) {
    buffer_info_ptr sent = message("one");
    EXPECT_TRUE(queue.enqueue(std::move(sent)));
    queue.dequeue([&](const buffer_info_ptr& item) { EXPECT_EQ(item.use_count(), 1); });
}

TEST_F(SafeQueue, EnqueuesSeveralMessagesInTheirOrder) {
    put("one");
    std::vector<buffer_info_ptr> several{message("two"), message("three")};
    EXPECT_TRUE(queue.enqueue_all(several));
    EXPECT_THAT(several, IsEmpty());
    EXPECT_THAT(drain(queue), ElementsAre("one", "two", "three"));
}

TEST_F(SafeQueue, NotifierIsCalledOnceForSeveralMessagesAndFindsAllOfThem) {
    std::vector<std::vector<std::string>> seen;
    queue.set_user_notifier([&] { seen.push_back(drain(queue)); });
    std::vector<buffer_info_ptr> several{message("one"), message("two")};
    queue.enqueue_all(several);
    EXPECT_THAT(seen, ElementsAre(ElementsAre("one", "two")));
}

TEST_F(SafeQueue, NotifierIsNotCalledForNoMessages) {
    int calls = 0;
    queue.set_user_notifier([&] { ++calls; });
    std::vector<buffer_info_ptr> none;
    EXPECT_TRUE(queue.enqueue_all(none));
    EXPECT_EQ(calls, 0);
}

TEST_F(SafeQueue, NotifierFindsTheMessageAlreadyInTheQueue) {
    std::vector<std::string> seen;
    queue.set_user_notifier([&] { seen = drain(queue); });
    put("one");
    EXPECT_THAT(seen, ElementsAre("one"));
}

TEST_F(SafeQueue, NotifierIsNotCalledForWhatWasQueuedBeforeIt) {
    put("one");
    int calls = 0;
    queue.set_user_notifier([&] { ++calls; });
    EXPECT_EQ(calls, 0);
    put("two");
    EXPECT_EQ(calls, 1);
}

TEST_F(SafeQueue, UnsetNotifierIsCalledNoMore) {
    int calls = 0;
    queue.set_user_notifier([&] { ++calls; });
    queue.unset_user_notifier();
    put("one");
    EXPECT_EQ(calls, 0);
}

TEST_F(SafeQueue, AnEmptyNotifierIsNotCalled) {
    queue.set_user_notifier({});
    put("one");
    EXPECT_THAT(drain(queue), ElementsAre("one"));
}

TEST_F(SafeQueue, NotifierMayReplaceItselfAndUseAnyQueue) {
    safe_queue other;
    queue.set_user_notifier([&] {
        queue.unset_user_notifier();
        other.enqueue(message("forwarded"));
        put("follow-up");
    });
    put("one");
    EXPECT_THAT(drain(queue), ElementsAre("one", "follow-up"));
    EXPECT_THAT(drain(other), ElementsAre("forwarded"));
}

TEST_F(SafeQueue, DestructionReleasesWhatIsStillQueued) {
    const buffer_info_ptr sent = message("one");
    {
        safe_queue doomed;
        doomed.enqueue(sent);
    }
    EXPECT_EQ(sent.use_count(), 1);
}

TEST_F(SafeQueue, IsUnbounded) {
    constexpr std::size_t many = 100000;
    const buffer_info_ptr sent = message("one");
    for (std::size_t i = 0; i < many; ++i)
        ASSERT_TRUE(queue.enqueue(sent));
    EXPECT_EQ(drain(queue).size(), many);
}

TEST_F(SafeQueue, EnqueueJsonQueuesTheSerialisedText) {
    json_writer writer("internal-ipc", "connected", "", "2.4");
    queue.enqueue_json(writer);
    EXPECT_THAT(drain(queue),
                ElementsAre(R"({"version":"2.4","service":"internal-ipc","cmd":"connected"})"));
}

TEST_F(SafeQueue, AMessageThatCannotBeSerialisedIsNotQueued) {
    json_writer writer("internal-ipc", "connected", "", "2.4");
    const JsonShortage shortage{JsonShortage::TEXT};
    queue.enqueue_json(writer);
    EXPECT_THAT(drain(queue), IsEmpty());
}

TEST(BoundedSafeQueue, RefusesAndDropsWhatDoesNotFit) {
    libhubd::SafeQueue<int, LockdepMutex> queue(2);
    int notified = 0;
    queue.set_user_notifier([&] { ++notified; });
    EXPECT_TRUE(queue.enqueue(1));
    EXPECT_TRUE(queue.enqueue(2));
    EXPECT_FALSE(queue.enqueue(3));
    EXPECT_EQ(notified, 2);

    std::vector<int> items;
    while (queue.dequeue([&](const int& item) { items.push_back(item); })) {
    }
    EXPECT_THAT(items, ElementsAre(1, 2));
}

TEST(BoundedSafeQueue, TakesAsManyOfSeveralAsFit) {
    libhubd::SafeQueue<int, LockdepMutex> queue(2);
    int notified = 0;
    queue.set_user_notifier([&] { ++notified; });
    std::vector<int> items{1, 2, 3};
    EXPECT_FALSE(queue.enqueue_all(items));
    EXPECT_THAT(items, IsEmpty());
    items = {4};
    EXPECT_FALSE(queue.enqueue_all(items));
    EXPECT_EQ(notified, 1);
    while (queue.dequeue([&](const int& item) { items.push_back(item); })) {
    }
    EXPECT_THAT(items, ElementsAre(1, 2));
}

TEST(UnboundedSafeQueue, IsWhatAQueueIsUnlessToldOtherwise) {
    libhubd::SafeQueue<int, LockdepMutex> queue;
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(queue.enqueue(i));
}

TEST_F(SafeQueue, KeepsEachProducersOrderAndLosesNothing) {
    constexpr int producers = 4;
    constexpr int messages_each = 500;
    std::atomic<int> notified = 0;
    queue.set_user_notifier([&] { ++notified; });

    std::vector<std::jthread> pool;
    for (int p = 0; p < producers; ++p)
        pool.emplace_back([this, p] {
            for (int i = 0; i < messages_each; ++i)
                put(std::to_string(p) + " " + std::to_string(i));
        });
    std::map<int, int> next;  // expected number by producer
    int total = 0;
    const auto check = [&](const buffer_info_ptr& item) {
        std::size_t blank = 0;
        const std::string text(item->text());
        const int producer = std::stoi(text, &blank);
        EXPECT_EQ(std::stoi(text.substr(blank)), next[producer]++);
        ++total;
    };
    while (total < producers * messages_each) {
        if (!queue.dequeue(check))
            std::this_thread::yield();
    }
    pool.clear();
    EXPECT_EQ(notified, producers * messages_each);
    EXPECT_THAT(drain(queue), IsEmpty());
}

TEST_F(SafeQueue, SeveralConsumersShareTheMessagesWithoutLossOrRepeat) {
    constexpr int total = 2000;
    std::atomic<int> taken = 0;
    std::atomic<long> sum = 0;
    const auto consume = [&] {
        while (taken < total) {
            queue.dequeue([&](buffer_info_ptr item) {
                sum += std::stol(std::string(item->text()));
                ++taken;
            });
        }
    };
    {
        std::jthread first(consume);
        std::jthread second(consume);
        for (int i = 1; i <= total; ++i)
            put(std::to_string(i));
    }
    EXPECT_EQ(taken, total);
    EXPECT_EQ(sum, static_cast<long>(total) * (total + 1) / 2);
}

TEST_F(SafeQueue, NotifierMayBeChangedWhileOthersProduce) {
    constexpr int total = 1000;
    std::atomic<int> notified = 0;
    std::jthread producer([&] {
        for (int i = 0; i < total; ++i)
            put("one");
    });
    for (int i = 0; i < 100; ++i) {
        queue.set_user_notifier([&] { ++notified; });
        queue.unset_user_notifier();
    }
    producer.join();
    EXPECT_LE(notified, total);
    EXPECT_EQ(drain(queue).size(), static_cast<std::size_t>(total));
}

}  // namespace
