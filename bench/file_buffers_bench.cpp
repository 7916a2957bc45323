// The file buffers against raw mmap and write(2) on the same file, measured in the same run.
//
// Every iteration reads or writes a whole file of 256 MiB in chunks of the benchmark's
// argument. The read baseline maps the whole file once and copies the chunks out of it; the
// mapped reader moves its 64 KiB-granular window instead. The write baseline gathers the
// chunks in a buffer of its own of the same size as the writer's and hands it to write(2)
// when the next chunk does not fit. The file lies in TMPDIR (or /tmp) and is removed at the
// end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/persistence/FileReadBuffer.h"
#include "tessel/persistence/FileWriteBuffer.h"

namespace {

constexpr std::size_t kFileSize = std::size_t{256} << 20;
constexpr unsigned int kWriteBufferSize = 64 * 1024;

std::string fileName(const char* leaf) {
    const char* folder = std::getenv("TMPDIR");
    std::string name = folder != nullptr && *folder != '\0' ? folder : "/tmp";
    if (name.back() != '/') {
        name += '/';
    }
    return name + leaf + std::to_string(::getpid());
}

const std::string& readFileName() {
    static const std::string name = fileName("tessel_file_buffers_read_");
    return name;
}

const std::string& writeFileName() {
    static const std::string name = fileName("tessel_file_buffers_write_");
    return name;
}

// The source of every chunk written, and the target of every chunk read.
std::vector<unsigned char>& chunkBytes() {
    static std::vector<unsigned char> bytes(std::size_t{1} << 20, 0x5A);
    return bytes;
}

// Writes the file to read once per run, so that it is in the page cache for both sides.
bool prepareReadFile() {
    static const bool made = [] {
        const int fd = ::open(readFileName().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0) {
            return false;
        }
        std::vector<unsigned char> block(std::size_t{1} << 20);
        for (std::size_t i = 0; i < block.size(); ++i) {
            block[i] = static_cast<unsigned char>(i * 31);
        }
        bool ok = true;
        for (std::size_t done = 0; ok && done < kFileSize; done += block.size()) {
            ok = ::write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size());
        }
        ::close(fd);
        return ok;
    }();
    return made;
}

// --- Sequential reads of the whole file ---

void Baseline_MmapMemcpy(benchmark::State& state) {
    const auto chunk = static_cast<std::size_t>(state.range(0));
    if (!prepareReadFile()) {
        state.SkipWithError("no file to read");
        return;
    }
    unsigned char* target = chunkBytes().data();
    for (auto _ : state) {
        const int fd = ::open(readFileName().c_str(), O_RDONLY);
        struct stat status;
        ::fstat(fd, &status);
        const auto size = static_cast<std::size_t>(status.st_size);
        void* view = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
        if (view == MAP_FAILED) {
            state.SkipWithError("mmap failed");
            ::close(fd);
            return;
        }
        const auto* bytes = static_cast<const unsigned char*>(view);
        for (std::size_t offset = 0; offset < size; offset += chunk) {
            const std::size_t length = std::min(chunk, size - offset);
            std::memcpy(target, bytes + offset, length);
            benchmark::ClobberMemory();
        }
        ::munmap(view, size);
        ::close(fd);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFileSize));
}

void FileReadBuffer_Sequential(benchmark::State& state) {
    const auto chunk = static_cast<std::size_t>(state.range(0));
    if (!prepareReadFile()) {
        state.SkipWithError("no file to read");
        return;
    }
    unsigned char* target = chunkBytes().data();
    for (auto _ : state) {
        CFileReadBuffer reader;
        if (!reader.Open(readFileName().c_str(), 3, nullptr)) {
            state.SkipWithError("Open failed");
            return;
        }
        const std::size_t size = reader.GetSize();
        for (std::size_t offset = 0; offset < size; offset += chunk) {
            const std::size_t length = std::min(chunk, size - offset);
            unsigned char* data = nullptr;
            if (!reader.GetBuffer(offset, length, data)) {
                state.SkipWithError("GetBuffer failed");
                return;
            }
            std::memcpy(target, data, length);
            benchmark::ClobberMemory();
        }
        reader.Close();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFileSize));
}

// --- Sequential writes of a whole file ---

void Baseline_BufferedWrite(benchmark::State& state) {
    const auto chunk = static_cast<std::size_t>(state.range(0));
    const unsigned char* source = chunkBytes().data();
    std::vector<unsigned char> buffer(kWriteBufferSize);
    for (auto _ : state) {
        const int fd = ::open(writeFileName().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        std::size_t used = 0;
        bool ok = fd >= 0;
        for (std::size_t done = 0; ok && done < kFileSize; done += chunk) {
            if (chunk > buffer.size() - used) {
                ok = ::write(fd, buffer.data(), used) == static_cast<ssize_t>(used);
                used = 0;
                if (chunk > buffer.size()) {
                    buffer.resize(chunk);
                }
            }
            std::memcpy(buffer.data() + used, source, chunk);
            used += chunk;
        }
        ok = ok && ::write(fd, buffer.data(), used) == static_cast<ssize_t>(used);
        ::close(fd);
        if (!ok) {
            state.SkipWithError("write failed");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFileSize));
}

void FileWriteBuffer_Sequential(benchmark::State& state) {
    const auto chunk = static_cast<unsigned int>(state.range(0));
    const unsigned char* source = chunkBytes().data();
    for (auto _ : state) {
        CFileWriteBuffer writer;
        bool ok = writer.Open(writeFileName().c_str(), kWriteBufferSize, 0, true, 3, nullptr);
        for (std::size_t done = 0; ok && done < kFileSize; done += chunk) {
            ok = writer.WriteToBuffer(source, chunk, nullptr);
        }
        writer.Close();
        if (!ok) {
            state.SkipWithError("write failed");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFileSize));
}
// Each benchmark right after its baseline with the same chunk size, so that the load of a
// shared machine drifts as little as possible between the two.
BENCHMARK(Baseline_MmapMemcpy)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(FileReadBuffer_Sequential)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(Baseline_MmapMemcpy)->Arg(65536)->Unit(benchmark::kMillisecond);
BENCHMARK(FileReadBuffer_Sequential)->Arg(65536)->Unit(benchmark::kMillisecond);
BENCHMARK(Baseline_MmapMemcpy)->Arg(1 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(FileReadBuffer_Sequential)->Arg(1 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(Baseline_BufferedWrite)->Arg(64)->Unit(benchmark::kMillisecond);
BENCHMARK(FileWriteBuffer_Sequential)->Arg(64)->Unit(benchmark::kMillisecond);
BENCHMARK(Baseline_BufferedWrite)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(FileWriteBuffer_Sequential)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(Baseline_BufferedWrite)->Arg(65536)->Unit(benchmark::kMillisecond);
BENCHMARK(FileWriteBuffer_Sequential)->Arg(65536)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    // Time ratios: at most 1.25 is at least 0.8 times the baseline's throughput.
    const int result = TesselBench::RunWithRatios(
        argc, argv,
        {
            {"FileReadBuffer_Sequential/4096", "Baseline_MmapMemcpy/4096", 1.25},
            {"FileReadBuffer_Sequential/65536", "Baseline_MmapMemcpy/65536", 1.25},
            {"FileReadBuffer_Sequential/1048576", "Baseline_MmapMemcpy/1048576", 1.25},
            {"FileWriteBuffer_Sequential/64", "Baseline_BufferedWrite/64", 1.25},
            {"FileWriteBuffer_Sequential/4096", "Baseline_BufferedWrite/4096", 1.25},
            {"FileWriteBuffer_Sequential/65536", "Baseline_BufferedWrite/65536", 1.25},
        });
    ::unlink(readFileName().c_str());
    ::unlink(writeFileName().c_str());
    return result;
}
