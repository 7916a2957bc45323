// Starting and reaping /bin/true through CCommandLineExecutor (until its report) against raw
// posix_spawn and waitpid, measured in the same run.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include <condition_variable>
#include <mutex>

#include "support/RatioReporter.h"
#include "tessel/system/CommandLineExecutor.h"

extern char** environ;

namespace {

// Counts the reports.
struct Reports : ICommandLineExecutorNotify {
    void OnCommandLineExecuted(int /*status*/, const std::string& /*command*/,
                               const std::string& /*message*/, int /*exitCode*/,
                               ICommandLineExecutorNotifyParam* /*param*/) override {
        std::lock_guard<std::mutex> lock(mutex);
        ++count;
        changed.notify_all();
    }
    void waitFor(long target) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return count >= target; });
    }
    std::mutex mutex;
    std::condition_variable changed;
    long count = 0;
};

void Raw_SpawnAndWaitpid(benchmark::State& state) {
    char program[] = "/bin/true";
    char* const arguments[] = {program, nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        if (posix_spawn(&pid, program, nullptr, nullptr, arguments, environ) != 0) {
            state.SkipWithError("posix_spawn failed");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
    }
}
BENCHMARK(Raw_SpawnAndWaitpid)->UseRealTime();

void Executor_RunTrueUntilReport(benchmark::State& state) {
    Reports reports;
    CCommandLineExecutor executor("", &reports);
    long expected = 0;
    for (auto _ : state) {
        if (executor.Execute("/bin/true", 60000, nullptr) == 0) {
            state.SkipWithError("Execute failed");
            break;
        }
        reports.waitFor(++expected);
    }
}
BENCHMARK(Executor_RunTrueUntilReport)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    return TesselBench::RunWithRatios(
        argc, argv,
        {{"Executor_RunTrueUntilReport/real_time", "Raw_SpawnAndWaitpid/real_time", 2.0}});
}
