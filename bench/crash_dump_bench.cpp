// How long a dying process of 100 MiB takes from its fault to its end, with both dump files
// written, and the share of that taken by gcore's core of the same size. No limit: the figures
// are reported.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/platform/CrashHandling.h"
#include "tessel/supervision/MiniDumpHelper.h"

namespace {

constexpr std::size_t kResident = 100u << 20;

double now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// 100 MiB touched, so that it is resident and lands in the core.
std::vector<char>& ballast() {
    static std::vector<char> bytes(kResident, 1);
    return bytes;
}

std::string folder() {
    static const std::string dir = [] {
        std::string made = std::filesystem::temp_directory_path() / "tessel-crash-bench";
        std::filesystem::remove_all(made);
        std::filesystem::create_directories(made);
        ::setenv("TMPDIR", (made + "/").c_str(), 1);
        return made;
    }();
    return dir;
}

// A child of 100 MiB with the handlers installed faults; the time from the fault to the end of
// the child as the parent sees it.
void FaultToEnd_100MiB(benchmark::State& state) {
    folder();
    for (auto _ : state) {
        int pipe[2];
        if (::pipe(pipe) != 0) {
            state.SkipWithError("no pipe");
            return;
        }
        const pid_t child = ::fork();
        if (child == 0) {
            custom_minidump::MiniDumpHelper helper;
            benchmark::DoNotOptimize(ballast().data());
            const double fault = now();
            (void)!::write(pipe[1], &fault, sizeof fault);
            volatile int* volatile zero = nullptr;
            *zero = 1;
            ::_exit(0);
        }
        double fault = 0;
        (void)!::read(pipe[0], &fault, sizeof fault);
        int status = 0;
        ::waitpid(child, &status, 0);
        state.SetIterationTime(now() - fault);
        ::close(pipe[0]);
        ::close(pipe[1]);
        std::filesystem::remove_all(folder());
        std::filesystem::create_directories(folder());
    }
}
BENCHMARK(FaultToEnd_100MiB)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// gcore alone on a process of the same size: the share of the time above.
void Gcore_100MiB(benchmark::State& state) {
    benchmark::DoNotOptimize(ballast().data());
    const std::string core = folder() + "/core.dmp";
    for (auto _ : state) {
        if (!Tessel::Platform::WriteProcessCore(core.c_str())) {
            state.SkipWithError("gcore is not at hand");
            return;
        }
    }
    std::filesystem::remove(core);
}
BENCHMARK(Gcore_100MiB)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    // Reported, not limited: the share of gcore in the whole death.
    return TesselBench::RunWithRatios(
        argc, argv,
        {{"Gcore_100MiB/iterations:3", "FaultToEnd_100MiB/iterations:3/manual_time", 1e9}});
}
