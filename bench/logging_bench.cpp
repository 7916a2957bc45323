// The log against a raw spdlog logger on a file, measured in the same run.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "support/RatioReporter.h"
#include "tessel/logging/ILogging.h"
#include "tessel/logging/VelkorLogConfiguration.h"

namespace {

std::string g_folder;

const std::string kText = "Epoch 1234 of station STA1 received, 312 bytes, latency 45 ms";

void Log_BelowMinimumLevel(benchmark::State& state) {
    ILogging& log = ILogging::getInstance();  // minimum level Info
    for (auto _ : state) {
        log.log("Station::Feed", ILogging::Trace, kText);
    }
}
BENCHMARK(Log_BelowMinimumLevel);

// What the log writes for one message, through spdlog's plain file sink with the same pattern
// and a flush at every message.
void Raw_SpdlogFileSink(benchmark::State& state) {
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_st>(g_folder + "/raw.log", true);
    spdlog::logger raw("Raw", sink);
    raw.set_pattern("%Y-%m-%d %H:%M:%S.%e P[%P] T[%t] %l %v", spdlog::pattern_time_type::local);
    raw.flush_on(spdlog::level::trace);
    raw.set_level(spdlog::level::trace);
    const std::string text = "[Station::Feed] " + kText;
    for (auto _ : state) {
        raw.log(spdlog::level::info, spdlog::string_view_t(text));
    }
}
BENCHMARK(Raw_SpdlogFileSink);

void Log_Written(benchmark::State& state) {
    ILogging& log = ILogging::getInstance();
    for (auto _ : state) {
        log.log("Station::Feed", ILogging::Info, kText);
    }
}
BENCHMARK(Log_Written);

// The category test with three wildcard patterns, the one that matches tried last.
void Log_CategoryFilterOfThreePatterns(benchmark::State& state) {
    VelkorLogConfiguration configuration;
    for (const char* pattern : {"CActive*::Stop*", "Net*", "Sta?ion*"}) {
        configuration.addCategoryPattern(pattern);
    }
    const std::string category = "Station::Feed";
    for (auto _ : state) {
        benchmark::DoNotOptimize(configuration.isActive(category));
    }
}
BENCHMARK(Log_CategoryFilterOfThreePatterns);

}  // namespace

int main(int argc, char** argv) {
    char folder[] = "/tmp/tessel-bench-log-XXXXXX";
    if (::mkdtemp(folder) == nullptr) {
        return 1;
    }
    g_folder = folder;
    ::setenv("TMPDIR", folder, 1);
    ::setenv("TESSEL_REGISTRY_DIR", (g_folder + "/registry").c_str(), 1);
    ::setenv("TESSEL_APP_DIR", folder, 1);  // no VelkorLog.config there: the defaults
    const int rc = TesselBench::RunWithRatios(
        argc, argv,
        {
            {"Log_BelowMinimumLevel", "", 50.0},
            // At least 0.8 of the raw throughput: at most 1.25 of its time per message.
            {"Log_Written", "Raw_SpdlogFileSink", 1.25},
            {"Log_CategoryFilterOfThreePatterns", "", 2000.0},
        });
    std::error_code ignored;
    std::filesystem::remove_all(g_folder, ignored);
    return rc;
}
