// The process core beside what it is made of.
#include <benchmark/benchmark.h>
#include <json-c/json.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "LockdepMutex.h"
#include "json_reader.h"
#include "safe_queue.h"
#include "timer_processor.h"

namespace {

buffer_info_ptr make_message() {
    auto message = std::make_shared<buffer_info_t>();
    message->append("{}", 2);
    return message;
}

template <typename Mutex>
void take_and_release(benchmark::State& state) {
    Mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        benchmark::ClobberMemory();
        mutex.unlock();
    }
}
BENCHMARK(take_and_release<std::mutex>)->Name("lock_plain");
BENCHMARK(take_and_release<LockdepMutex>)->Name("lock_wrapper");
BENCHMARK(take_and_release<std::recursive_mutex>)->Name("lock_plain_recursive");
BENCHMARK(take_and_release<LockdepRecursiveMutex>)->Name("lock_wrapper_recursive");

// Each thread puts one message in and takes one out.
void queue(benchmark::State& state) {
    static safe_queue shared;
    const buffer_info_ptr message = make_message();
    const auto discard = [](const buffer_info_ptr& item) { benchmark::DoNotOptimize(item.get()); };
    for (auto _ : state) {
        shared.enqueue(message);
        shared.dequeue(discard);
    }
}
BENCHMARK(queue)->Name("queue_1_producer")->UseRealTime();
BENCHMARK(queue)->Name("queue_4_producers")->Threads(4)->UseRealTime();

// To wake a thread that waits, and to be woken by it: what two workers on a message's way cost when
// nothing keeps them awake.
void wake_up(benchmark::State& state) {
    const int there = eventfd(0, EFD_CLOEXEC);
    const int back = eventfd(0, EFD_CLOEXEC);
    std::uint64_t value = 1;
    std::thread other([&] {
        std::uint64_t one = 1;
        while (read(there, &one, sizeof one) > 0 && one == 1)
            if (write(back, &one, sizeof one) < 0)
                return;
    });
    for (auto _ : state) {
        if (write(there, &value, sizeof value) < 0 || read(back, &value, sizeof value) < 0)
            state.SkipWithError("no event");
    }
    value = 2;  // ends the other
    if (write(there, &value, sizeof value) < 0)
        std::terminate();
    other.join();
    close(there);
    close(back);
}
BENCHMARK(wake_up)->Name("thread_there_and_back")->UseRealTime();

// A timer that is removed and armed again among others, as the ping timer is.
void timers(benchmark::State& state) {
    timer_processor processor;
    const timer_callback_type nothing = [] {};
    const int count = static_cast<int>(state.range(0));
    for (int id = 0; id < count; id++)
        processor.add_timer(nothing, id, 1000 + id % 60);
    for (auto _ : state) {
        processor.del_timer(0);
        processor.add_timer(nothing, 0, 1030);
        processor.process_once();
    }
}
BENCHMARK(timers)->Arg(7)->Arg(1000);

}  // namespace
