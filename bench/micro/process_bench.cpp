// The process core beside what it is made of.
#include <benchmark/benchmark.h>
#include <json-c/json.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>

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
