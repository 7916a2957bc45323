// A Prometheus scrape of 10,000 elements (one pass of the observer in the exposition format,
// as the monitor server answers /metrics) against prometheus-cpp's text serializer writing
// 10,000 gauges with the same names, help texts and labels, in the same run.
#include <benchmark/benchmark.h>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"

namespace {

constexpr int kElements = 10000;

const std::string& pid() {
    static const std::string text = std::to_string(::getpid());
    return text;
}

// The table: "bench/<pid>/Station<i>/Latency" in ms, made once.
void fillTable() {
    static const bool filled = [] {
        for (int i = 0; i < kElements; ++i) {
            MonitorElementDatabase::getInstance()
                .findOrAdd("/bench/" + pid() + "/Station" + std::to_string(i) + "/Latency", "ms")
                ->set(40.0 + i * 0.001);
        }
        return true;
    }();
    (void)filled;
}

void Scrape_Tessel(benchmark::State& state) {
    fillTable();
    std::ostringstream out;
    CMonitorElementObserver observer(&out);
    observer.setMode(CMonitorElementObserver::Prometheus);
    observer.setFilter("**");
    for (auto _ : state) {
        out.str(std::string());
        MonitorElementDatabase::getInstance().update(observer);
        benchmark::DoNotOptimize(out.tellp());
    }
}
BENCHMARK(Scrape_Tessel)->Unit(benchmark::kMillisecond);

// The same with an observer of its own for each scrape, as a client that opens a connection
// per scrape gets.
void Scrape_TesselNewConnection(benchmark::State& state) {
    fillTable();
    std::ostringstream out;
    for (auto _ : state) {
        out.str(std::string());
        CMonitorElementObserver observer(&out);
        observer.setMode(CMonitorElementObserver::Prometheus);
        observer.setFilter("**");
        MonitorElementDatabase::getInstance().update(observer);
        benchmark::DoNotOptimize(out.tellp());
    }
}
BENCHMARK(Scrape_TesselNewConnection)->Unit(benchmark::kMillisecond);

void Baseline_PrometheusCpp(benchmark::State& state) {
    std::vector<prometheus::MetricFamily> families(kElements);
    for (int i = 0; i < kElements; ++i) {
        prometheus::MetricFamily& family = families[static_cast<std::size_t>(i)];
        family.name = "tessel_station" + std::to_string(i) + "_latency";
        family.help = "Station" + std::to_string(i) + "/Latency, in ms";
        family.type = prometheus::MetricType::Gauge;
        prometheus::ClientMetric metric;
        metric.label = {{"process", "bench"}, {"pid", pid()}};
        metric.gauge.value = 40.0 + i * 0.001;
        family.metric.push_back(metric);
    }
    const prometheus::TextSerializer serializer;
    std::ostringstream out;
    for (auto _ : state) {
        out.str(std::string());
        serializer.Serialize(out, families);
        benchmark::DoNotOptimize(out.tellp());
    }
}
BENCHMARK(Baseline_PrometheusCpp)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return TesselBench::RunWithRatios(
        argc, argv,
        {
            {"Scrape_Tessel", "Baseline_PrometheusCpp", 1.0},
            {"Scrape_TesselNewConnection", "Baseline_PrometheusCpp", 1.0},
        });
}
