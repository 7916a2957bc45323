// The completion-port pool against a raw io_context run by as many threads, in the same run.
#include <benchmark/benchmark.h>

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <thread>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/threads/IOCompletionPort.h"

namespace {

constexpr int kThreads = 2;
constexpr long kHandlers = 1000000;

// Posts kHandlers handlers from the benchmark thread and waits until all have run. A handler
// only counts itself, which is how the wait knows that it ran.
void postAndWait(benchmark::State& state, boost::asio::io_context& context) {
    std::atomic<long> ran{0};
    for (auto _ : state) {
        ran.store(0, std::memory_order_relaxed);
        for (long i = 0; i < kHandlers; ++i) {
            boost::asio::post(context, [&ran] { ran.fetch_add(1, std::memory_order_relaxed); });
        }
        while (ran.load(std::memory_order_relaxed) != kHandlers) {
            std::this_thread::yield();
        }
    }
    state.SetItemsProcessed(state.iterations() * kHandlers);
}

void Baseline_IoContextPost1M(benchmark::State& state) {
    boost::asio::io_context context;
    auto work = boost::asio::make_work_guard(context);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&context] { context.run(); });
    }
    postAndWait(state, context);
    context.stop();
    for (auto& thread : threads) {
        thread.join();
    }
}
BENCHMARK(Baseline_IoContextPost1M)->Unit(benchmark::kMillisecond)->UseRealTime();

void Pool_Post1M(benchmark::State& state) {
    Tessel::CIOCompletionPort pool(kThreads);
    postAndWait(state, pool.GetIoService());
    pool.Shutdown();
}
BENCHMARK(Pool_Post1M)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    // The pool's threads hold no database sessions.
    Tessel::CIOCompletionPort::disableDatabaseChecker();
    // Throughput of at least 0.8 times the raw context's: a time of at most 1.25 times.
    return TesselBench::RunWithRatios(
        argc, argv, {{"Pool_Post1M/real_time", "Baseline_IoContextPost1M/real_time", 1.25}});
}
