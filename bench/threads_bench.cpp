// The spin lock and active objects, against baselines measured in the same run.
#include <benchmark/benchmark.h>

#include <atomic>
#include <bit>
#include <cstdint>

#include "support/RatioReporter.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/platform/Handle.h"
#include "tessel/threads/ActiveObject.h"
#include "tessel/threads/LockFreeSpinLock.h"

namespace {

// --- LockFreeSpinLock: lock and unlock with a monitor element ---

std::atomic<std::uint32_t> g_word{0};
std::atomic<std::uint64_t> g_bits{0};

// What an uncontended monitored lock and unlock must do at the least: two exchanges of the
// lock word and one compare-and-swap add on the element's double.
void Baseline_ExchangePairAndCas(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(g_word.exchange(1));
        std::uint64_t expected = g_bits.load(std::memory_order_relaxed);
        while (!g_bits.compare_exchange_weak(
            expected, std::bit_cast<std::uint64_t>(std::bit_cast<double>(expected) + 0.0),
            std::memory_order_relaxed)) {
        }
        g_word.exchange(0);
    }
}
BENCHMARK(Baseline_ExchangePairAndCas);

void SpinLock_LockUnlockMonitored(benchmark::State& state) {
    CMonitorElementContainer container("Bench");
    LockFreeSpinLock spin;
    spin.initMonitor(container);
    for (auto _ : state) {
        spin.lock();
        spin.unlock();
    }
    spin.deinitMonitor();
}
BENCHMARK(SpinLock_LockUnlockMonitored);

// --- CActiveObject ---

unsigned long waitForStop(void* self);

class Worker : public CActiveObject {
  public:
    Worker() : CActiveObject("BenchWorker", &waitForStop, this, 1000) {}
    ~Worker() override { StopThread(); }
    Tessel::Platform::HANDLE stopEvent() const { return m_hStopEvent; }
};

unsigned long waitForStop(void* self) {
    Tessel::Platform::WaitForSingleObject(static_cast<Worker*>(self)->stopEvent(),
                                          Tessel::Platform::INFINITE);
    return 0;
}

void ActiveObject_IsThreadStoppedOrStopping(benchmark::State& state) {
    Worker worker;
    worker.StartThread(__FILE__, __LINE__, "bench", 0, nullptr, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(worker.IsThreadStoppedOrStopping());
    }
}
BENCHMARK(ActiveObject_IsThreadStoppedOrStopping);

void ActiveObject_StartAndStop(benchmark::State& state) {
    Worker worker;
    for (auto _ : state) {
        worker.StartThread(__FILE__, __LINE__, "bench", 0, nullptr, 0);
        worker.StopThread();
    }
}
BENCHMARK(ActiveObject_StartAndStop)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return TesselBench::RunWithRatios(
        argc, argv,
        {
            {"SpinLock_LockUnlockMonitored", "Baseline_ExchangePairAndCas", 2.0},
            {"ActiveObject_IsThreadStoppedOrStopping", "", 1.0},
            {"ActiveObject_StartAndStop", "", 15000000.0},
        });
}
