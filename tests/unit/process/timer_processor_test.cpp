#include "timer_processor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "sleep_clock.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class TimerProcessor : public testing::Test {
  protected:
    // A timer that notes its name when it fires.
    void add(const std::string& name, int id, int timeout) {
        timers.add_timer([this, name] { fired.push_back(name); }, id, timeout);
    }
    void pass_after(int seconds) {
        clock.advance_ms(seconds * 1000);
        timers.process_once();
    }

    SleepClock clock{100000};
    timer_processor timers;
    std::vector<std::string> fired;
};

TEST_F(TimerProcessor, FiresOnceWhenItsTimeHasCome) {
    add("one", 1, 5);
    pass_after(4);
    EXPECT_THAT(fired, IsEmpty());
    pass_after(1);
    EXPECT_THAT(fired, ElementsAre("one"));
    pass_after(100);
    EXPECT_THAT(fired, ElementsAre("one"));
}

TEST_F(TimerProcessor, FiresInTheOrderOfDeadlines) {
    add("third", 1, 3);
    add("first", 2, 1);
    add("second", 3, 2);
    pass_after(10);
    EXPECT_THAT(fired, ElementsAre("first", "second", "third"));
}

TEST_F(TimerProcessor, EqualDeadlinesFireInTheOrderTheyWereAdded) {
    add("later", 1, 3);
    add("a", 2, 2);
    add("b", 1, 2);
    add("c", 2, 2);
    pass_after(2);
    EXPECT_THAT(fired, ElementsAre("a", "b", "c"));
}

TEST_F(TimerProcessor, DeletingRemovesEveryTimerWithTheId) {
    add("a", 7, 1);
    add("b", 8, 2);
    add("c", 7, 3);
    add("d", 9, 4);
    add("e", 7, 5);
    timers.del_timer(7);
    pass_after(10);
    EXPECT_THAT(fired, ElementsAre("b", "d"));
}

TEST_F(TimerProcessor, DeletingAnUnknownIdIsNoError) {
    add("a", 7, 1);
    timers.del_timer(8);
    pass_after(1);
    EXPECT_THAT(fired, ElementsAre("a"));
}

TEST_F(TimerProcessor, ATimeoutOfZeroFiresOnTheNextPassNotInTheCurrentOne) {
    timers.add_timer([this] { add("added", 2, 0); }, 1, 1);
    pass_after(1);
    EXPECT_THAT(fired, IsEmpty());
    timers.process_once();
    EXPECT_THAT(fired, ElementsAre("added"));
}

TEST_F(TimerProcessor, ACallbackMayRearmItsOwnId) {
    int count = 0;
    timer_callback_type rearm = [&] {
        ++count;
        timers.del_timer(1);
        timers.add_timer(rearm, 1, 2);
    };
    timers.add_timer(rearm, 1, 2);
    for (int i = 0; i < 3; ++i)
        pass_after(2);
    EXPECT_EQ(count, 3);
}

TEST_F(TimerProcessor, ATimerAlreadyDueFiresEvenIfAnEarlierCallbackDeletesItsId) {
    timers.add_timer([this] { timers.del_timer(2); }, 1, 1);
    add("due", 2, 1);
    add("not yet", 2, 9);
    pass_after(1);
    EXPECT_THAT(fired, ElementsAre("due"));
    pass_after(10);
    EXPECT_THAT(fired, ElementsAre("due"));
}

TEST_F(TimerProcessor, DeadlinesAreWholeSeconds) {
    clock.advance_ms(900);
    add("one", 1, 1);
    clock.advance_ms(99);
    timers.process_once();
    EXPECT_THAT(fired, IsEmpty());
    clock.advance_ms(1);
    timers.process_once();
    EXPECT_THAT(fired, ElementsAre("one"));
}

TEST_F(TimerProcessor, ProcessSleepsUntilTheNextDeadlineAndFiresIt) {
    add("later", 2, 9);
    add("one", 1, 4);
    timers.process();
    EXPECT_THAT(clock.sleeps(), ElementsAre(4000));
    EXPECT_THAT(fired, ElementsAre("one"));
}

TEST_F(TimerProcessor, ProcessFiresATimerDueRightNow) {
    add("one", 1, 0);
    timers.process();
    EXPECT_THAT(clock.sleeps(), ElementsAre(0));
    EXPECT_THAT(fired, ElementsAre("one"));
}

TEST_F(TimerProcessor, ProcessWithoutTimersReturnsAtOnce) {
    timers.process();
    EXPECT_THAT(clock.sleeps(), IsEmpty());
}

TEST_F(TimerProcessor, ProcessFiresNothingWhenEveryTimerIsOverdue) {
    add("one", 1, 1);
    add("two", 2, 2);
    clock.advance_ms(3000);
    timers.process();
    EXPECT_THAT(clock.sleeps(), IsEmpty());
    EXPECT_THAT(fired, IsEmpty());
    timers.process_once();
    EXPECT_THAT(fired, ElementsAre("one", "two"));
}

TEST_F(TimerProcessor, ProcessSleepsForTheNextTimerAndFiresTheOverdueOnesToo) {
    add("overdue", 1, 1);
    add("ahead", 2, 5);
    clock.advance_ms(3000);
    timers.process();
    EXPECT_THAT(clock.sleeps(), ElementsAre(2000));
    EXPECT_THAT(fired, ElementsAre("overdue", "ahead"));
}

TEST_F(TimerProcessor, ProcessSleepsOnAfterASignal) {
    add("one", 1, 4);
    clock.interrupt_select_after(1500);
    timers.process();
    EXPECT_THAT(clock.sleeps(), ElementsAre(1500, 2500));
    EXPECT_THAT(fired, ElementsAre("one"));
}

TEST_F(TimerProcessor, DelayWithConditionAsksOnceASecondAndIsNeverTrue) {
    int calls = 0;
    EXPECT_FALSE(timers.delay_with_condition([&] { return ++calls < 4; }));
    EXPECT_EQ(calls, 4);
    EXPECT_THAT(clock.sleeps(), ElementsAre(1000, 1000, 1000));
}

TEST_F(TimerProcessor, DelayWithConditionAsksBeforeTheFirstSleep) {
    EXPECT_FALSE(timers.delay_with_condition([] { return false; }));
    EXPECT_THAT(clock.sleeps(), IsEmpty());
}

TEST_F(TimerProcessor, AnEmptyConditionRaises) {
    EXPECT_THROW(timers.delay_with_condition({}), std::bad_function_call);
    EXPECT_THROW(timers.delay_with_periodic(1, {}), std::bad_function_call);
}

TEST_F(TimerProcessor, DelayWithPeriodicAsksEvery100MillisecondsForTheWholeDelay) {
    int calls = 0;
    EXPECT_FALSE(timers.delay_with_periodic(3, [&] {
        ++calls;
        return true;
    }));
    EXPECT_EQ(calls, 30);
    EXPECT_THAT(clock.sleeps(), SizeIs(30));
    EXPECT_THAT(clock.sleeps(), Each(100));
}

TEST_F(TimerProcessor, DelayWithPeriodicEndsEarlyWhenTheConditionFails) {
    int calls = 0;
    EXPECT_FALSE(timers.delay_with_periodic(3, [&] { return ++calls < 5; }));
    EXPECT_EQ(calls, 5);
    EXPECT_EQ(clock.now_ms(), 100500);
}

TEST_F(TimerProcessor, DelayWithPeriodicOfZeroSecondsStillAsksOnce) {
    int calls = 0;
    EXPECT_FALSE(timers.delay_with_periodic(0, [&] {
        ++calls;
        return true;
    }));
    EXPECT_EQ(calls, 1);
}

TEST(TimeMonotonic, ReadsTheClockAndReturnsItsWholeSeconds) {
    const SleepClock clock(12345);
    timespec ts{};
    EXPECT_EQ(time_monotonic(ts), 12);
    EXPECT_EQ(ts.tv_sec, 12);
    EXPECT_EQ(ts.tv_nsec, 345000000);
}

TEST(TimerDescList, NextEventIsTheFirstThatIsNotBeforeNow) {
    timer_desc_list list;
    EXPECT_TRUE(list.empty());
    for (const std::time_t timeout : {30, 10, 20})
        list.insert({[] {}, static_cast<int>(timeout), timeout});
    EXPECT_FALSE(list.empty());
    EXPECT_EQ(list.get_next_event(5)->id, 10);
    EXPECT_EQ(list.get_next_event(10)->id, 10);
    EXPECT_EQ(list.get_next_event(11)->id, 20);
    EXPECT_EQ(list.get_next_event(30)->id, 30);
    EXPECT_EQ(list.get_next_event(31), nullptr);
}

}  // namespace
