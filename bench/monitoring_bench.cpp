// Monitor element updates, the filter match and a pass over the element table, each
// against a baseline measured in the same run.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/monitoring/MonitorElement.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"
#include "tessel/monitoring/MonitorProcess.h"

// Every heap allocation of the program is counted, so that a benchmark can show that the
// code it measures allocates nothing.
namespace {
std::atomic<std::uint64_t> g_allocations{0};
}

void* operator new(std::size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}
// GCC takes the free() of a replaced operator delete, once inlined next to a new-expression
// (as in every benchmark registration), for a mismatched deallocation; it is not one.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace {

// --- increment: a compare-and-swap add on a double's bits, one and two threads ---

std::atomic<std::uint64_t> g_bits{0};
CMonitorElement g_element("Bench/Root/Station/STA1/Epochs", "");

void Baseline_CasAdd(benchmark::State& state) {
    for (auto _ : state) {
        std::uint64_t expected = g_bits.load(std::memory_order_relaxed);
        while (!g_bits.compare_exchange_weak(
            expected, std::bit_cast<std::uint64_t>(std::bit_cast<double>(expected) + 1.0),
            std::memory_order_relaxed)) {
        }
    }
}
BENCHMARK(Baseline_CasAdd)->UseRealTime();
BENCHMARK(Baseline_CasAdd)->Threads(2)->UseRealTime();

void Element_Increment(benchmark::State& state) {
    for (auto _ : state) {
        g_element.increment(1);
    }
}
BENCHMARK(Element_Increment)->UseRealTime();
BENCHMARK(Element_Increment)->Threads(2)->UseRealTime();

// --- set: an atomic exchange ---

void Baseline_Exchange(benchmark::State& state) {
    double v = 0.0;
    for (auto _ : state) {
        g_bits.exchange(std::bit_cast<std::uint64_t>(v), std::memory_order_relaxed);
        v += 1.0;
    }
}
BENCHMARK(Baseline_Exchange);

void Element_Set(benchmark::State& state) {
    double v = 0.0;
    for (auto _ : state) {
        g_element.set(v);
        v += 1.0;
    }
}
BENCHMARK(Element_Set);

// --- match of a five-element path ---

void Element_Match(benchmark::State& state, const std::string& pattern) {
    const CMonitorElement element("Collector/1234/Station/STA1/Latency", "ms");
    bool matched = element.match(pattern);
    const std::uint64_t before = g_allocations.load();
    for (auto _ : state) {
        benchmark::DoNotOptimize(matched = element.match(pattern));
    }
    state.counters["allocations"] = static_cast<double>(g_allocations.load() - before);
    if (!matched) {
        state.SkipWithError("pattern does not match");
    }
}
BENCHMARK_CAPTURE(Element_Match, one_star, std::string("collector/*/Station/STA1/Latency"));
BENCHMARK_CAPTURE(Element_Match, two_stars, std::string("Collector/**latency"));
BENCHMARK_CAPTURE(Element_Match, star_and_two_stars, std::string("Coll*/**Lat*"));

// --- a pass over 10,000 elements ---

const char* const kFilter = "bench/*/Station/S0**Latency";

class CountingObserver : public CMonitorElementObserver {
  public:
    void updateElement(CMonitorElement&) override { ++count; }
    std::uint64_t count = 0;
};

std::vector<CMonitorElement>& elementsInAVector() {
    static std::vector<CMonitorElement> elements;
    return elements;
}

// 1,000 stations of 10 metrics each, in the table and, as copies, in a vector.
void populate() {
    static CMonitorElementContainer container("Station");
    static bool done = false;
    if (done) {
        return;
    }
    done = true;
    MonitorElementDatabase::init("Bench");
    const char* const metrics[] = {"Epochs", "Bytes", "Latency", "Completeness", "Gaps",
                                   "Slips",  "Sats",  "Snr",     "Multipath",    "Age"};
    for (int station = 0; station < 1000; ++station) {
        char name[32];
        std::snprintf(name, sizeof name, "S%04d", station);
        for (const char* metric : metrics) {
            CMonitorElement* element = container.add(std::string(name) + "/" + metric, "");
            elementsInAVector().push_back(*element);
        }
    }
}

void Baseline_MatchLoop(benchmark::State& state) {
    populate();
    const std::string filter = kFilter;
    for (auto _ : state) {
        std::uint64_t count = 0;
        for (const CMonitorElement& element : elementsInAVector()) {
            count += element.match(filter) ? 1 : 0;
        }
        benchmark::DoNotOptimize(count);
    }
}
BENCHMARK(Baseline_MatchLoop)->Unit(benchmark::kMicrosecond);

void Database_Update(benchmark::State& state) {
    populate();
    CountingObserver observer;
    observer.setFilter(kFilter);
    for (auto _ : state) {
        observer.count = 0;
        MonitorElementDatabase::getInstance().update(observer);
    }
    state.counters["matched"] = static_cast<double>(observer.count);
    state.counters["elements"] =
        static_cast<double>(MonitorElementDatabase::getInstance().getLocalElementCount());
}
BENCHMARK(Database_Update)->Unit(benchmark::kMicrosecond);

// --- one MonitorProcess cycle with 100 threads in the process ---
//
// The CPU time of the updating thread (its thread CPU clock) for one cycle without its
// pause, against reading /proc/self/task/*/stat once, which the cycle does as a part.

// Seconds of the calling thread's CPU clock.
double threadCpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// 100 threads that wait for the end of the program.
// The mutex and the condition are never destroyed: a condition destroyed at exit would wait
// for its waiters.
void startIdleThreads() {
    static bool started = false;
    if (started) {
        return;
    }
    started = true;
    auto* mutex = new std::mutex;
    auto* never = new std::condition_variable;
    for (int i = 0; i < 100; ++i) {
        std::thread([mutex, never] {
            std::unique_lock<std::mutex> lock(*mutex);
            never->wait(lock, [] { return false; });
        }).detach();
    }
}

void Baseline_ReadThreadStats(benchmark::State& state) {
    startIdleThreads();
    std::size_t threads = 0;
    for (auto _ : state) {
        const double start = threadCpuSeconds();
        threads = 0;
        DIR* dir = opendir("/proc/self/task");
        while (const dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') {
                continue;
            }
            const std::string path = std::string("/proc/self/task/") + entry->d_name + "/stat";
            const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            char buffer[1024];
            benchmark::DoNotOptimize(read(fd, buffer, sizeof buffer));
            close(fd);
            ++threads;
        }
        closedir(dir);
        state.SetIterationTime(threadCpuSeconds() - start);
    }
    state.counters["threads"] = static_cast<double>(threads);
}
BENCHMARK(Baseline_ReadThreadStats)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

// Runs single cycles of a monitor that is not started.
class MonitorProcessBenchAccess {
  public:
    static void updateOnce(MonitorProcess& monitor) { monitor.updateOnce(); }
};

namespace {

void MonitorProcess_Cycle(benchmark::State& state) {
    startIdleThreads();
    MonitorProcess monitor;
    MonitorProcessBenchAccess::updateOnce(monitor);  // creates the elements of every thread
    for (auto _ : state) {
        const double start = threadCpuSeconds();
        MonitorProcessBenchAccess::updateOnce(monitor);
        state.SetIterationTime(threadCpuSeconds() - start);
    }
}
BENCHMARK(MonitorProcess_Cycle)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    return TesselBench::RunWithRatios(
        argc, argv,
        {
            {"Element_Increment/real_time", "Baseline_CasAdd/real_time", 1.2},
            {"Element_Increment/real_time/threads:2", "Baseline_CasAdd/real_time/threads:2", 1.5},
            {"Element_Set", "Baseline_Exchange", 1.2},
            {"Element_Match/one_star", "", 100.0},
            {"Element_Match/two_stars", "", 100.0},
            {"Element_Match/star_and_two_stars", "", 100.0},
            {"Database_Update", "", 2000000.0},
            {"Database_Update", "Baseline_MatchLoop", 3.0},
            {"MonitorProcess_Cycle/manual_time", "", 10000000.0},
            {"MonitorProcess_Cycle/manual_time", "Baseline_ReadThreadStats/manual_time", 5.0},
        });
}
