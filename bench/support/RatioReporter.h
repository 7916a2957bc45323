// Ratios of benchmark times against baselines measured in the same run.
//
// The machines that run the benchmarks are shared, so absolute times drift; what is
// reported is each benchmark's time divided by its baseline's, from one run of the program.
// A program lists its pairs and calls RunWithRatios from main.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace TesselBench {

struct Ratio {
    std::string benchmark;  // run name, as Google Benchmark prints it
    std::string baseline;   // run name of the baseline; empty: an absolute limit
    double limit;           // the ratio (or, without a baseline, the nanoseconds) not to exceed
};

// Passes every run on to the console and remembers its real time per iteration in ns.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        // With repetitions the median of a benchmark's runs stands for it, else its run.
        for (const Run& run : runs) {
            const double ns = run.GetAdjustedRealTime() *
                              benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                              benchmark::GetTimeUnitMultiplier(run.time_unit);
            if (run.error_occurred) {
                continue;
            }
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                m_times[run.run_name.str()] = ns;
                m_medians[run.run_name.str()] = true;
            } else if (run.run_type == Run::RT_Iteration && !m_medians[run.benchmark_name()]) {
                m_times[run.benchmark_name()] = ns;
            }
        }
    }

    // Prints one line per ratio; returns the number of ratios over their limits.
    int PrintRatios(const std::vector<Ratio>& ratios) const {
        int over = 0;
        std::printf("\n%-58s %12s %12s %8s %8s\n", "benchmark / baseline", "ns", "base ns", "ratio",
                    "limit");
        for (const Ratio& r : ratios) {
            const auto value = m_times.find(r.benchmark);
            const auto base = r.baseline.empty() ? m_times.end() : m_times.find(r.baseline);
            if (value == m_times.end() || (!r.baseline.empty() && base == m_times.end())) {
                std::printf("%-58s not run\n", r.benchmark.c_str());
                continue;
            }
            const double baseNs = r.baseline.empty() ? 1.0 : base->second;
            const double ratio = value->second / baseNs;
            const bool ok = ratio <= r.limit;
            over += ok ? 0 : 1;
            std::printf("%-58s %12.2f %12s %8.3f %8.3f %s\n", r.benchmark.c_str(), value->second,
                        r.baseline.empty() ? "-" : std::to_string(baseNs).c_str(), ratio, r.limit,
                        ok ? "ok" : "OVER");
            if (!r.baseline.empty()) {
                std::printf("    baseline: %s\n", r.baseline.c_str());
            }
        }
        return over;
    }

  private:
    std::map<std::string, double> m_times;
    std::map<std::string, bool> m_medians;
};

// Runs the registered benchmarks and prints the ratios. Returns 0 (figures are reported,
// not enforced: timing belongs in notes, not in pass/fail decisions).
inline int RunWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios(ratios);
    benchmark::Shutdown();
    return 0;
}

}  // namespace TesselBench
