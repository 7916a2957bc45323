// The data logger's AddData against writing the same records with a CFileWriteBuffer directly.
//
// Every iteration writes a whole temporary file of the benchmark's argument in records of
// 100 bytes (104 with the size word), through a buffer of 64 KiB on both sides. The logger
// makes its temporary file with StartAddData and closes it with StopAddData; the baseline
// opens, fills and closes a file of its own, reserving n + 4 bytes, storing n and letting
// the record save itself behind it, as AddData does without its enabled flag and its guard.
// Both files are deleted after each iteration, and lie in a folder of TMPDIR (or /tmp), which
// is the present folder while the benchmarks run and is removed at the end.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "support/RatioReporter.h"
#include "tessel/persistence/FileWriteBuffer.h"
#include "tessel/persistence/IPersistData.h"
#include "tessel/recording/DataLogger.h"

namespace {

constexpr unsigned int kBufferSize = 64 * 1024;
constexpr std::size_t kRecordSize = 100;

// A record of 100 bytes that saves itself by one copy.
class Record : public IPersistData {
  public:
    Record() {
        for (std::size_t i = 0; i < kRecordSize; ++i) {
            m_bytes[i] = static_cast<unsigned char>(i * 7);
        }
    }
    bool loadData(const unsigned char* buffer, size_t size) override {
        if (size < kRecordSize) {
            return false;
        }
        std::memcpy(m_bytes, buffer, kRecordSize);
        return true;
    }
    void saveData(unsigned char* buffer, size_t size) const override {
        if (buffer != nullptr && size >= kRecordSize) {
            std::memcpy(buffer, m_bytes, kRecordSize);
        }
    }
    size_t getSize() const override { return kRecordSize; }

  private:
    unsigned char m_bytes[kRecordSize];
};

std::string benchFolder() {
    const char* folder = std::getenv("TMPDIR");
    std::string name = folder != nullptr && *folder != '\0' ? folder : "/tmp";
    if (name.back() != '/') {
        name += '/';
    }
    return name + "tessel_data_logger_bench_" + std::to_string(::getpid());
}

void Baseline_FileWriteBuffer(benchmark::State& state) {
    const auto records = static_cast<std::int64_t>(state.range(0));
    Record record;
    IPersistData* data = &record;
    for (auto _ : state) {
        CFileWriteBuffer writer;
        bool ok = writer.Open("baseline.tmp", kBufferSize, 0, true, 0, nullptr);
        for (std::int64_t i = 0; ok && i < records; ++i) {
            const auto n = static_cast<std::uint32_t>(data->getSize());
            unsigned char* target = nullptr;
            ok = writer.GetBuffer(n + 4, target, nullptr);
            if (ok) {
                std::memcpy(target, &n, sizeof n);
                data->saveData(target + sizeof n, n);
            }
        }
        writer.Close();
        std::filesystem::remove("baseline.tmp");
        if (!ok) {
            state.SkipWithError("write failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * records);
}

void DataLogger_AddData(benchmark::State& state) {
    const auto records = static_cast<std::int64_t>(state.range(0));
    Record record;
    for (auto _ : state) {
        CDataLogger logger;
        logger.StartAddData(kBufferSize);
        int ok = 1;
        for (std::int64_t i = 0; ok != 0 && i < records; ++i) {
            ok = logger.AddData(&record);
        }
        logger.StopAddData();
        if (ok == 0) {
            state.SkipWithError("AddData failed");
            return;
        }
    }  // the destructor deletes the temporary file
    state.SetItemsProcessed(state.iterations() * records);
}

// Each benchmark right after its baseline with the same record count, so that the load of a
// shared machine drifts as little as possible between the two.
BENCHMARK(Baseline_FileWriteBuffer)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(DataLogger_AddData)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(Baseline_FileWriteBuffer)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(DataLogger_AddData)->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    const std::string folder = benchFolder();
    std::filesystem::create_directories(folder);
    if (::chdir(folder.c_str()) != 0) {
        return 1;
    }
    // Time ratios: at most 1.25 is at least 0.8 times the baseline's throughput.
    const int result = TesselBench::RunWithRatios(
        argc, argv,
        {
            {"DataLogger_AddData/10000", "Baseline_FileWriteBuffer/10000", 1.25},
            {"DataLogger_AddData/100000", "Baseline_FileWriteBuffer/100000", 1.25},
        });
    if (::chdir("/") == 0) {
        std::filesystem::remove_all(folder);
    }
    return result;
}
