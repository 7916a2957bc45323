// Compression frames against raw LZ4 on the same bytes, measured in the same run.
//
// The data: 1 MiB of station records, one line per satellite and epoch as a reference
// station logs them, each a little different from the one before (the epoch's time, ranges
// drifting at a steady rate, signal levels that seldom change).
#include <benchmark/benchmark.h>
#include <lz4.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/persistence/MemoryBufferPersist.h"
#include "tessel/persistence/PersistDataWithCompression.h"

namespace {

constexpr size_t kDataSize = 1024 * 1024;

std::vector<unsigned char> StationRecords() {
    std::vector<unsigned char> bytes;
    bytes.reserve(kDataSize + 128);
    std::mt19937 random(42);
    std::uint64_t ranges[12];
    std::uint64_t rates[12];
    unsigned levels[12];
    for (int k = 0; k < 12; ++k) {
        ranges[k] = 20000000000ull + random() % 5000000000ull;
        rates[k] = 600000 + random() % 200000;
        levels[k] = 38 + random() % 10;
    }
    char line[96];
    for (unsigned epoch = 0; bytes.size() < kDataSize; ++epoch) {
        for (unsigned prn = 0; prn < 12; ++prn) {
            // Ranges drift at their satellite's rate with a little noise; signal levels
            // change seldom.
            ranges[prn] += rates[prn] + random() % 16;
            if (random() % 32 == 0) {
                levels[prn] = levels[prn] + random() % 3 - 1;
            }
            const int n = std::snprintf(
                line, sizeof line, "STN0042,2024-06-11T%02u:%02u:%02u,G%02u,%llu.%03llu,%u.0\n",
                epoch / 3600 % 24, epoch / 60 % 60, epoch % 60, prn + 1,
                static_cast<unsigned long long>(ranges[prn] / 1000),
                static_cast<unsigned long long>(ranges[prn] % 1000), levels[prn]);
            bytes.insert(bytes.end(), line, line + n);
        }
    }
    bytes.resize(kDataSize);
    return bytes;
}

// The wrapped object and its serialised form, the bytes that the frame compresses.
struct Data {
    Data() {
        const std::vector<unsigned char> records = StationRecords();
        buffer.Assign(records.data(), records.size());
        form.resize(buffer.getSize());
        buffer.saveData(form.data(), form.size());
        block.resize(static_cast<size_t>(LZ4_compressBound(static_cast<int>(form.size()))));
        const int n = LZ4_compress_default(
            reinterpret_cast<const char*>(form.data()), reinterpret_cast<char*>(block.data()),
            static_cast<int>(form.size()), static_cast<int>(block.size()));
        block.resize(static_cast<size_t>(n));
        CPersistDataWithCompression frameObject(&buffer, CPersistDataWithCompression::LZ4);
        frame.resize(frameObject.getSize());
        frameObject.saveData(frame.data(), frame.size());
    }

    CMemoryBufferPersist buffer;
    std::vector<unsigned char> form;
    std::vector<unsigned char> block;
    std::vector<unsigned char> frame;
};

const Data& data() {
    static const Data instance;
    return instance;
}

void Baseline_LZ4CompressDefault(benchmark::State& state) {
    const Data& d = data();
    std::vector<char> out(static_cast<size_t>(LZ4_compressBound(static_cast<int>(d.form.size()))));
    for (auto _ : state) {
        benchmark::DoNotOptimize(LZ4_compress_default(reinterpret_cast<const char*>(d.form.data()),
                                                      out.data(), static_cast<int>(d.form.size()),
                                                      static_cast<int>(out.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(d.form.size()));
    state.counters["ratio"] = static_cast<double>(d.form.size()) / d.block.size();
}
BENCHMARK(Baseline_LZ4CompressDefault)->Unit(benchmark::kMicrosecond);

void Frame_Compress(benchmark::State& state) {
    const Data& d = data();
    for (auto _ : state) {
        CPersistDataWithCompression frame(&d.buffer, CPersistDataWithCompression::LZ4);
        benchmark::DoNotOptimize(frame.getSize());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(d.form.size()));
}
BENCHMARK(Frame_Compress)->Unit(benchmark::kMicrosecond);

void Baseline_LZ4DecompressSafe(benchmark::State& state) {
    const Data& d = data();
    std::vector<char> out(d.form.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(LZ4_decompress_safe(reinterpret_cast<const char*>(d.block.data()),
                                                     out.data(), static_cast<int>(d.block.size()),
                                                     static_cast<int>(out.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(d.form.size()));
}
BENCHMARK(Baseline_LZ4DecompressSafe)->Unit(benchmark::kMicrosecond);

void Frame_Load(benchmark::State& state) {
    const Data& d = data();
    CMemoryBufferPersist target;
    CPersistDataWithCompression loader(&target);
    for (auto _ : state) {
        if (!loader.loadData(d.frame.data(), d.frame.size())) {
            state.SkipWithError("the frame does not load");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(d.form.size()));
}
BENCHMARK(Frame_Load)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    // At least 0.8 of the raw throughput: at most 1.25 times the raw time.
    return TesselBench::RunWithRatios(argc, argv,
                                      {
                                          {"Frame_Compress", "Baseline_LZ4CompressDefault", 1.25},
                                          {"Frame_Load", "Baseline_LZ4DecompressSafe", 1.25},
                                      });
}
