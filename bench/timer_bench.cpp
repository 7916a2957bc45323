// The timers against a raw timerfd thread, measured in the same run.
//
// Lateness: CPreciseTimer at 1 ms for 10 s; each tick's lateness is the time from the latest
// due time of the 1 ms rhythm to the callback. Reported as the 99th percentile (the run's
// time), with the median, the maximum and the ticks missed as counters.
// Wake-up cost: the CPU time of CActiveTimer's thread per 1 ms tick, against a thread that
// blocks in read() on a timerfd.
#include <benchmark/benchmark.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/threads/ActiveTimer.h"
#include "tessel/threads/PreciseTimer.h"

namespace {

constexpr std::int64_t kPeriodNs = 1000000;
constexpr int kLatenessTicks = 10000;  // 10 s at 1 ms
constexpr int kCostWarmUp = 100;
constexpr int kCostTicks = 2000;

std::int64_t nowNs(clockid_t clock = CLOCK_MONOTONIC) {
    timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Lateness of each of ticks against the rhythm that began at start, in ns; sets the run's
// time to the 99th percentile and the counters.
void reportLateness(benchmark::State& state, std::int64_t start, std::vector<std::int64_t> ticks) {
    std::vector<double> late;
    late.reserve(ticks.size());
    for (const std::int64_t t : ticks) {
        late.push_back(static_cast<double>((t - start) % kPeriodNs));
    }
    std::sort(late.begin(), late.end());
    const auto at = [&](double q) { return late[static_cast<std::size_t>(q * (late.size() - 1))]; };
    state.SetIterationTime(at(0.99) / 1e9);
    state.counters["p50_us"] = at(0.5) / 1e3;
    state.counters["p99_us"] = at(0.99) / 1e3;
    state.counters["max_us"] = late.back() / 1e3;
    const std::int64_t span = ticks.back() - start;
    state.counters["missed"] =
        static_cast<double>(span / kPeriodNs - static_cast<std::int64_t>(ticks.size()));
}

int armedTimerfd(clockid_t clock) {
    const int fd = timerfd_create(clock, TFD_CLOEXEC);
    const itimerspec setting{{0, kPeriodNs}, {0, kPeriodNs}};
    timerfd_settime(fd, 0, &setting, nullptr);
    return fd;
}

void Baseline_TimerfdLateness(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<std::int64_t> ticks;
        ticks.reserve(kLatenessTicks);
        std::int64_t start = 0;
        std::thread thread([&] {
            prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
            start = nowNs();
            const int fd = armedTimerfd(CLOCK_MONOTONIC);
            std::uint64_t expiries;
            while (static_cast<int>(ticks.size()) < kLatenessTicks &&
                   read(fd, &expiries, sizeof expiries) == sizeof expiries) {
                ticks.push_back(nowNs());
            }
            close(fd);
        });
        thread.join();
        reportLateness(state, start, std::move(ticks));
    }
}
BENCHMARK(Baseline_TimerfdLateness)->UseManualTime()->Iterations(1)->Unit(benchmark::kMicrosecond);

struct Recorder : IPreciseTimerNotify {
    void OnPreciseTimer() override {
        if (static_cast<int>(ticks.size()) < kLatenessTicks) {
            ticks.push_back(nowNs());
        } else {
            done = true;
        }
    }
    std::vector<std::int64_t> ticks;
    std::atomic<bool> done{false};
};

void PreciseTimer_Lateness(benchmark::State& state) {
    for (auto _ : state) {
        Recorder recorder;
        recorder.ticks.reserve(kLatenessTicks);
        CPreciseTimer timer;
        const std::int64_t start = nowNs();
        timer.Start(1, false, &recorder);
        while (!recorder.done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        timer.Stop();
        reportLateness(state, start, std::move(recorder.ticks));
    }
}
BENCHMARK(PreciseTimer_Lateness)->UseManualTime()->Iterations(1)->Unit(benchmark::kMicrosecond);

// CPU time of the ticking thread per tick, over kCostTicks ticks after a warm-up.
struct CostMeter {
    // Called on each tick, on the ticking thread; true when done.
    bool tick() {
        ++count;
        if (count == kCostWarmUp) {
            begin = nowNs(CLOCK_THREAD_CPUTIME_ID);
        } else if (count == kCostWarmUp + kCostTicks) {
            end = nowNs(CLOCK_THREAD_CPUTIME_ID);
            done = true;
        }
        return done;
    }
    void report(benchmark::State& state) const {
        state.SetIterationTime(static_cast<double>(end - begin) / kCostTicks / 1e9);
    }
    int count = 0;
    std::int64_t begin = 0;
    std::int64_t end = 0;
    std::atomic<bool> done{false};
};

void Baseline_TimerfdThreadCpuPerTick(benchmark::State& state) {
    for (auto _ : state) {
        CostMeter meter;
        std::thread thread([&] {
            const int fd = armedTimerfd(CLOCK_MONOTONIC);
            std::uint64_t expiries;
            while (read(fd, &expiries, sizeof expiries) == sizeof expiries && !meter.tick()) {
            }
            close(fd);
        });
        thread.join();
        meter.report(state);
    }
}
BENCHMARK(Baseline_TimerfdThreadCpuPerTick)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMicrosecond);

struct CostSubscriber : IActiveTimerNotify {
    void OnActiveTimer(std::function<bool()>) override { meter.tick(); }
    CostMeter meter;
};

void ActiveTimer_CpuPerTick(benchmark::State& state) {
    for (auto _ : state) {
        CostSubscriber subscriber;
        CActiveTimer timer;
        timer.SetInterval(1);
        timer.AddNotify(&subscriber);
        timer.Start(nullptr);
        while (!subscriber.meter.done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        timer.Stop(1);
        subscriber.meter.report(state);
    }
}
BENCHMARK(ActiveTimer_CpuPerTick)->UseManualTime()->Iterations(3)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    return TesselBench::RunWithRatios(
        argc, argv,
        {
            {"PreciseTimer_Lateness/iterations:1/manual_time", "", 500000.0},
            {"PreciseTimer_Lateness/iterations:1/manual_time",
             "Baseline_TimerfdLateness/iterations:1/manual_time", 1e9},
            {"ActiveTimer_CpuPerTick/iterations:3/manual_time",
             "Baseline_TimerfdThreadCpuPerTick/iterations:3/manual_time", 2.0},
        });
}
