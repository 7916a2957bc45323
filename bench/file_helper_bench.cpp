// The wild-card search of the file helpers against a raw readdir and fnmatch loop over the
// same folder of 100,000 files, measured in the same run.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/host/FileHelper.h"

namespace {

constexpr int kFiles = 100000;
constexpr int kFewEvery = 100;  // one file in a hundred is an event log

std::string& folder() {
    static std::string path;
    return path;
}

// Makes the folder with kFiles empty files: most "sample_N.dat", a few "Event_N.LOG".
void createFiles() {
    folder() = "/tmp/tessel_file_bench_" + std::to_string(::getpid());
    std::filesystem::create_directories(folder());
    char name[64];
    for (int i = 0; i < kFiles; ++i) {
        std::snprintf(name, sizeof name,
                      i % kFewEvery == 0 ? "/Event_%06d.LOG" : "/sample_%06d.dat", i);
        const int fd = ::open((folder() + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

// The names of the files of the folder that match pattern, ignoring case.
std::vector<std::string> rawSearch(const char* pattern) {
    std::vector<std::string> names;
    DIR* dir = ::opendir(folder().c_str());
    if (dir == nullptr) {
        return names;
    }
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_type != DT_DIR && ::fnmatch(pattern, entry->d_name, FNM_CASEFOLD) == 0) {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(dir);
    return names;
}

void Raw_ManyMatch(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<std::string> names = rawSearch("*.dat");
        benchmark::DoNotOptimize(names.data());
        if (names.size() != kFiles - kFiles / kFewEvery) {
            state.SkipWithError("wrong count");
        }
    }
}

void FindFiles_ManyMatch(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<std::string> names;
        CFileHelper::FindFiles(folder(), "*.dat", &names);
        benchmark::DoNotOptimize(names.data());
        if (names.size() != kFiles - kFiles / kFewEvery) {
            state.SkipWithError("wrong count");
        }
    }
}

void Raw_FewMatch(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<std::string> names = rawSearch("event_*.log");
        benchmark::DoNotOptimize(names.data());
        if (names.size() != kFiles / kFewEvery) {
            state.SkipWithError("wrong count");
        }
    }
}

void FindFiles_FewMatch(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<std::string> names;
        CFileHelper::FindFiles(folder(), "event_*.log", &names);
        benchmark::DoNotOptimize(names.data());
        if (names.size() != kFiles / kFewEvery) {
            state.SkipWithError("wrong count");
        }
    }
}

BENCHMARK(Raw_ManyMatch)->Unit(benchmark::kMillisecond);
BENCHMARK(FindFiles_ManyMatch)->Unit(benchmark::kMillisecond);
BENCHMARK(Raw_FewMatch)->Unit(benchmark::kMillisecond);
BENCHMARK(FindFiles_FewMatch)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    createFiles();
    const int result = TesselBench::RunWithRatios(argc, argv,
                                                  {{"FindFiles_ManyMatch", "Raw_ManyMatch", 1.5},
                                                   {"FindFiles_FewMatch", "Raw_FewMatch", 1.5}});
    std::error_code error;
    std::filesystem::remove_all(folder(), error);
    return result;
}
