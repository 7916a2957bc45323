#include "tessel/platform/FileMapping.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "PlatformTest.h"
#include "support/Bytes.h"
#include "tessel/platform/File.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/SystemInfo.h"

namespace {

namespace P = Tessel::Platform;
using PlatformTest::failureOf;

constexpr std::uint64_t kSpan = std::uint64_t{16} << 20;

// A file of size bytes that tell their offsets apart, opened for reading and writing.
P::HANDLE makeFile(const std::string& name, std::size_t size) {
    TesselTest::WriteFile(name, TesselTest::Pattern(size));
    return P::CreateFileA(name.c_str(), P::GENERIC_READ | P::GENERIC_WRITE,
                          P::FILE_SHARE_READ | P::FILE_SHARE_WRITE, nullptr, P::OPEN_EXISTING, 0,
                          nullptr);
}

bool holdsItsOffsets(const void* view, std::uint64_t offset, std::size_t length) {
    const auto* bytes = static_cast<const unsigned char*>(view);
    for (std::size_t i = 0; i < length; i += 4093) {
        if (bytes[i] != TesselTest::PatternAt(offset + i)) {
            return false;
        }
    }
    return true;
}

std::string scratchName() {
    return (std::filesystem::temp_directory_path() / PlatformTest::uniqueName("mapping")).string();
}

TEST(FileMapping, SectionsViewsAndTheirErrors) {
    P::SYSTEM_INFO info;
    P::GetSystemInfo(&info);
    EXPECT_EQ(info.dwAllocationGranularity, 65536u);

    const std::string name = scratchName();
    P::HANDLE file = makeFile(name, 200000);
    ASSERT_NE(file, P::INVALID_HANDLE_VALUE);
    EXPECT_EQ(failureOf(P::CreateFileMappingA(file, nullptr, 0x40, 0, 0, nullptr)),
              P::ERROR_INVALID_PARAMETER);
    EXPECT_EQ(failureOf(P::CreateFileMappingA(file, nullptr, P::PAGE_READONLY, 0, 300000, nullptr)),
              P::ERROR_NOT_ENOUGH_MEMORY);
    P::HANDLE mapping = P::CreateFileMappingA(file, nullptr, P::PAGE_READONLY, 0, 0, nullptr);
    ASSERT_NE(mapping, nullptr);
    EXPECT_TRUE(P::CloseHandle(file));  // the mapping keeps the file

    EXPECT_EQ(failureOf(P::MapViewOfFile(mapping, P::FILE_MAP_READ, 0, 4096, 10)),
              P::ERROR_MAPPED_ALIGNMENT);
    EXPECT_EQ(failureOf(P::MapViewOfFile(mapping, P::FILE_MAP_READ, 0, 131072, 70000)),
              P::ERROR_ACCESS_DENIED);
    EXPECT_EQ(failureOf(P::MapViewOfFile(mapping, P::FILE_MAP_WRITE, 0, 0, 10)),
              P::ERROR_ACCESS_DENIED);
    void* first = P::MapViewOfFile(mapping, P::FILE_MAP_READ, 0, 65536, 0);  // to the end
    void* second = P::MapViewOfFile(mapping, P::FILE_MAP_READ, 0, 65536, 100);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_TRUE(P::CloseHandle(mapping));  // the views keep the mapping
    EXPECT_TRUE(holdsItsOffsets(first, 65536, 200000 - 65536));
    EXPECT_TRUE(P::UnmapViewOfFile(first));
    EXPECT_TRUE(holdsItsOffsets(second, 65536, 100));
    EXPECT_TRUE(P::UnmapViewOfFile(second));
    EXPECT_EQ(failureOf(P::UnmapViewOfFile(second)), P::ERROR_INVALID_ADDRESS);

    P::HANDLE empty = makeFile(name + "-empty", 0);
    EXPECT_EQ(failureOf(P::CreateFileMappingA(empty, nullptr, P::PAGE_READONLY, 0, 0, nullptr)),
              P::ERROR_FILE_INVALID);
    P::HANDLE grown = P::CreateFileMappingA(empty, nullptr, P::PAGE_READWRITE, 0, 65536, nullptr);
    ASSERT_NE(grown, nullptr);  // a writable section extends the file
    auto* bytes = static_cast<unsigned char*>(P::MapViewOfFile(grown, P::FILE_MAP_WRITE, 0, 0, 0));
    ASSERT_NE(bytes, nullptr);
    bytes[65535] = 0x5A;
    EXPECT_TRUE(P::FlushViewOfFile(bytes + 65000, 0));
    EXPECT_TRUE(P::UnmapViewOfFile(bytes));
    EXPECT_TRUE(P::CloseHandle(grown));
    EXPECT_TRUE(P::CloseHandle(empty));
    EXPECT_EQ(std::filesystem::file_size(name + "-empty"), 65536u);
}

// Read-only views within a span of 16 MiB share it, others map their own, all read right.
TEST(FileMapping, ReadOnlyViewsAcrossSpans) {
    const std::string name = scratchName();
    const std::size_t size = 3 * kSpan + 12345;
    P::HANDLE file = makeFile(name, size);
    ASSERT_NE(file, P::INVALID_HANDLE_VALUE);
    P::HANDLE mapping = P::CreateFileMappingA(file, nullptr, P::PAGE_READONLY, 0, 0, nullptr);
    ASSERT_NE(mapping, nullptr);
    P::CloseHandle(file);
    std::vector<std::uint64_t> offsets = {kSpan - 65536, 2 * kSpan - 65536};  // straddle
    for (std::uint64_t offset = 0; offset < size; offset += 65536 * 37) {
        offsets.push_back(offset);
    }
    for (const std::uint64_t offset : offsets) {
        const std::size_t length = std::min<std::uint64_t>(200000, size - offset);
        void* view =
            P::MapViewOfFile(mapping, P::FILE_MAP_READ, static_cast<P::DWORD>(offset >> 32),
                             static_cast<P::DWORD>(offset), length);
        ASSERT_NE(view, nullptr) << offset;
        EXPECT_TRUE(holdsItsOffsets(view, offset, length)) << offset;
        EXPECT_TRUE(P::UnmapViewOfFile(view));
    }
    void* twice[2] = {P::MapViewOfFile(mapping, P::FILE_MAP_READ, 0, 65536, 10),
                      P::MapViewOfFile(mapping, P::FILE_MAP_READ, 0, 65536, 10)};
    EXPECT_EQ(twice[0], twice[1]);  // one span
    EXPECT_TRUE(P::UnmapViewOfFile(twice[0]));
    EXPECT_TRUE(P::UnmapViewOfFile(twice[1]));
    EXPECT_FALSE(P::UnmapViewOfFile(twice[1]));
    EXPECT_TRUE(P::CloseHandle(mapping));
}

TEST(FileMapping, AMappedSectionRefusesToBeCut) {
    const std::string name = scratchName();
    P::HANDLE file = makeFile(name, 100000);
    P::HANDLE mapping = P::CreateFileMappingA(file, nullptr, P::PAGE_READONLY, 0, 0, nullptr);
    ASSERT_NE(mapping, nullptr);
    P::LARGE_INTEGER at;
    at.QuadPart = 50000;
    ASSERT_TRUE(P::SetFilePointerEx(file, at, nullptr, P::FILE_BEGIN));
    EXPECT_EQ(failureOf(P::SetEndOfFile(file)), P::ERROR_USER_MAPPED_FILE);  // its own handle too
    EXPECT_EQ(P::CreateFileA(name.c_str(), P::GENERIC_WRITE, P::FILE_SHARE_WRITE, nullptr,
                             P::CREATE_ALWAYS, 0, nullptr),
              P::INVALID_HANDLE_VALUE);
    EXPECT_EQ(P::GetLastError(), P::ERROR_USER_MAPPED_FILE);
    EXPECT_TRUE(P::CloseHandle(mapping));
    EXPECT_TRUE(P::SetEndOfFile(file));
    EXPECT_TRUE(P::CloseHandle(file));
}

}  // namespace
