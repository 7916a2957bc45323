// Indexed-file records, the mapped reader, the buffered and the stream writer, against the disk.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "PersistTest.h"
#include "support/ChildProcess.h"
#include "tessel/host/TempDirectory.h"
#include "tessel/persistence/FileReadBuffer.h"
#include "tessel/persistence/FileWriteBuffer.h"
#include "tessel/persistence/IndexedFileIndex.h"
#include "tessel/persistence/IndexedFileRecordHeader.h"
#include "tessel/persistence/StreamToFileWriter.h"
#include "tessel/platform/File.h"
#include "tessel/platform/LastError.h"

using namespace TesselTest;

namespace {

namespace fs = std::filesystem;
namespace P = Tessel::Platform;

constexpr unsigned long kShareAll = P::FILE_SHARE_READ | P::FILE_SHARE_WRITE;
constexpr std::size_t kWindow = 65536;

std::string path(const std::string& name) {
    return CTempDirectory::GetTempDirectory() + "filebuffers/" + name;
}

template <class Record>
Bytes bytesOf(const Record& record) {
    Bytes bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

// Records are read by copying their bytes, from a heap copy of exactly their size.
TEST(IndexedFileRecords, SavedAsTheLayoutFixesAndLoadedBack) {
    const Bytes headerBytes = {0x44, 0x33, 0x22, 0x11, 0xB2, 0xA1, 0x0F, 0x0E, 0x0D, 0x0C};
    const Bytes indexBytes = {0x02, 0x01, 0x06, 0x05, 0x04, 0x03, 0x88,
                              0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
    CIndexedFileRecordHeader header(0x11223344u);
    header.setGPSWeek(0xA1B2);
    header.setGPSMsecs(0x0C0D0E0Fu);
    EXPECT_EQ(bytesOf(header), headerBytes);
    EXPECT_EQ(bytesOf(CIndexedFileIndex(0x0102, 0x03040506u, 0x1122334455667788ull)), indexBytes);
    EXPECT_EQ(bytesOf(CIndexedFileIndex()), Bytes(14, 0));

    CIndexedFileRecordHeader loadedHeader(0);
    std::memcpy(&loadedHeader, HeapCopy(headerBytes, 10).get(), 10);
    EXPECT_EQ(loadedHeader.getSize(), 0x11223344u);
    EXPECT_EQ(loadedHeader.getGPSWeek(), 0xA1B2);
    EXPECT_EQ(loadedHeader.getGPSMsecs(), 0x0C0D0E0Fu);
    CIndexedFileIndex index;
    std::memcpy(&index, HeapCopy(indexBytes, 14).get(), 14);
    EXPECT_EQ(index.getGPSWeek(), 0x0102);
    EXPECT_EQ(index.getGPSMsecs(), 0x03040506u);
    EXPECT_EQ(index.getUi64FilePos(), 0x1122334455667788ull);
}

// Every prefix of a file with a head word: what each Open makes of it.
TEST(FileBuffers, OpenOfEveryShortFileTakesTheHeadWordOnlyWhereItIsWhole) {
    const Bytes full = {0x78, 0x56, 0x34, 0x12, 1, 2, 3, 4, 5};
    ForEachPrefix(full, [&](const unsigned char* bytes, std::size_t n) {
        const std::string name = path("prefix" + std::to_string(n));
        const Bytes prefix(bytes, bytes + n);
        WriteFile(name, prefix);
        unsigned int word = 0xAABBCCDDu;
        CFileReadBuffer reader;
        EXPECT_EQ(reader.Open(name.c_str(), kShareAll, &word), n > 0);  // empty: no mapping
        EXPECT_EQ(word, n >= 8 ? 0x12345678u : 0xAABBCCDDu);
        unsigned char* data = nullptr;
        EXPECT_EQ(reader.GetBuffer(0, 5, data), n >= 5);
        EXPECT_FALSE(reader.GetBuffer(0, n + 1, data));
        reader.Close();

        word = 0xAABBCCDDu;
        CFileWriteBuffer writer;
        ASSERT_TRUE(writer.Open(name.c_str(), 64, 0, false, kShareAll, &word));
        EXPECT_EQ(word, n >= 4 ? 0x12345678u : 0xAABBCCDDu);
        EXPECT_EQ(writer.GetFileSizeEx(), n == 0 ? 4u : n);  // only an empty file gets the word
        EXPECT_TRUE(writer.WriteToBuffer(full.data(), 1, nullptr));
        writer.Close();
        Bytes expected = n == 0 ? Bytes{0xDD, 0xCC, 0xBB, 0xAA} : prefix;
        expected.push_back(full[0]);
        EXPECT_EQ(ReadFile(name), expected);
    });
}

TEST(FileReadBuffer, ReadsEqualWhatWasWrittenAcrossWindowBoundaries) {
    const std::string name = path("windows.dat");
    const Bytes content = Pattern(5 * kWindow + 1234);
    WriteFile(name, content);
    CFileReadBuffer reader;
    ASSERT_TRUE(reader.Open(name.c_str(), 0, nullptr));
    ASSERT_EQ(reader.GetSize(), content.size());
    unsigned char* data = nullptr;
    EXPECT_TRUE(reader.GetBuffer(content.size(), 0, data));  // maps [5 * 64 KiB, end)
    auto expectRange = [&](std::size_t offset, std::size_t length) {
        ASSERT_TRUE(reader.GetBuffer(offset, length, data)) << offset << "+" << length;
        ASSERT_EQ(0, std::memcmp(data, content.data() + offset, length)) << offset;
    };
    for (const std::size_t chunk : {1000u, 4096u, 65536u, 100000u}) {  // sequential
        for (std::size_t offset = 0; offset < content.size(); offset += chunk) {
            expectRange(offset, std::min(chunk, content.size() - offset));
        }
    }
    expectRange(kWindow - 10, 20);  // straddles a boundary
    expectRange(3 * kWindow - 1, kWindow + 2);
    expectRange(0, content.size());
    expectRange(content.size() - 1, 1);
    std::mt19937 random(11);
    for (int i = 0; i < 200; ++i) {
        const std::size_t offset = random() % content.size();
        expectRange(offset, random() % (content.size() - offset + 1));
    }
}

TEST(FileReadBuffer, RangesBeyondTheEndFailAndKeepTheOldWindow) {
    const std::string name = path("ends.dat");
    const Bytes content = Pattern(2 * kWindow);
    WriteFile(name, content);
    CFileReadBuffer reader;
    unsigned char* data = nullptr;
    EXPECT_FALSE(reader.GetBuffer(0, 1, data));  // not open
    ASSERT_TRUE(reader.Open(name.c_str(), kShareAll, nullptr));
    EXPECT_FALSE(reader.GetBuffer(content.size(), 0, data));  // an empty range is not mapped
    ASSERT_TRUE(reader.GetBuffer(kWindow + 5, 10, data));
    unsigned char* const kept = data;
    EXPECT_TRUE(reader.GetBuffer(content.size(), 0, data));  // within the window
    EXPECT_FALSE(reader.GetBuffer(content.size() - 3, 4, data));
    EXPECT_FALSE(reader.GetBuffer(content.size() + 1, 0, data));
    EXPECT_FALSE(reader.GetBuffer(1, SIZE_MAX, data));  // an end that wraps
    EXPECT_FALSE(reader.GetBuffer(SIZE_MAX, 2, data));
    EXPECT_FALSE(reader.GetBuffer(kWindow + 6, SIZE_MAX - 1, data));
    EXPECT_EQ(0, std::memcmp(kept, content.data() + kWindow + 5, 10));  // still mapped

    // The size is the one of Open, also when the file grows.
    std::ofstream(name, std::ios::binary | std::ios::app) << "more";
    EXPECT_EQ(reader.GetSize(), content.size());
    EXPECT_FALSE(reader.GetBuffer(content.size(), 1, data));
    CFileReadBuffer copy(reader);  // copying moves the mapping
    EXPECT_FALSE(reader.GetBuffer(kWindow + 5, 1, data));
    EXPECT_TRUE(copy.GetBuffer(kWindow + 5, 1, data));
    EXPECT_EQ(data, kept);

    EXPECT_FALSE(CFileReadBuffer().Open(path("missing").c_str(), 0, nullptr));
}

// Cuts the file to size in a second process: 0 if refused with 1224, 1 if cut, else 2.
int cutInChild(const std::string& name, std::int64_t size) {
    return RunInChild([&] {
        Tessel::CHandle file(P::CreateFileA(name.c_str(), P::GENERIC_READ | P::GENERIC_WRITE,
                                            kShareAll, nullptr, P::OPEN_EXISTING,
                                            P::FILE_ATTRIBUTE_NORMAL, nullptr));
        P::LARGE_INTEGER to;
        to.QuadPart = size;
        if (file == P::INVALID_HANDLE_VALUE ||
            !P::SetFilePointerEx(file, to, nullptr, P::FILE_BEGIN)) {
            return 2;
        }
        return P::SetEndOfFile(file) ? 1 : P::GetLastError() == P::ERROR_USER_MAPPED_FILE ? 0 : 2;
    });
}

TEST(FileReadBuffer, AnotherProcessMayNotCutAMappedFileButMayWriteBehindIt) {
    const std::string name = path("mapped.dat");
    const Bytes content = Pattern(3 * kWindow);
    WriteFile(name, content);
    CFileReadBuffer reader;
    ASSERT_TRUE(reader.Open(name.c_str(), kShareAll, nullptr));
    unsigned char* data = nullptr;
    ASSERT_TRUE(reader.GetBuffer(2 * kWindow, kWindow, data));

    EXPECT_EQ(cutInChild(name, 0), 0);
    EXPECT_EQ(cutInChild(name, 2 * kWindow), 0);
    EXPECT_EQ(cutInChild(name, content.size() + 10), 1);
    // The writer's truncating Open keeps the contents and writes behind them.
    EXPECT_EQ(0, RunInChild([&] {
                  CFileWriteBuffer writer;
                  const bool opened = writer.Open(name.c_str(), 16, 0, true, kShareAll, nullptr);
                  return opened && writer.WriteToBuffer(ToBytes("tail").data(), 4, nullptr) ? 0 : 1;
              }));
    EXPECT_EQ(0, std::memcmp(data, content.data() + 2 * kWindow, kWindow));
    Bytes expected = content;
    expected.resize(content.size() + 10);
    expected.insert(expected.end(), {'t', 'a', 'i', 'l'});
    EXPECT_EQ(ReadFile(name), expected);

    reader.Close();
    EXPECT_EQ(cutInChild(name, 0), 1);
}

TEST(FileWriteBuffer, HeadWordOnANewFileAndBackOnReopening) {
    const std::string name = path("new/folder/head.dat");
    unsigned int word = 0x01020304u;
    CFileWriteBuffer writer;
    ASSERT_TRUE(writer.Open(name.c_str(), 8, 0, true, 0, &word));
    EXPECT_EQ(writer.GetFileSizeEx(), 4u);  // at once
    EXPECT_TRUE(writer.WriteToBuffer(ToBytes("abc").data(), 3, nullptr));
    writer.Close();
    unsigned int read = 0;
    ASSERT_TRUE(writer.Open(name.c_str(), 8, 0, false, 0, &read));
    EXPECT_EQ(read, word);
    EXPECT_TRUE(writer.WriteToBuffer(ToBytes("de").data(), 2, nullptr));
    writer.Close();
    EXPECT_EQ(ReadFile(name), (Bytes{4, 3, 2, 1, 'a', 'b', 'c', 'd', 'e'}));
    char stored[CFileWriteBuffer::kFileNameSize];
    EXPECT_TRUE(writer.GetFileName(stored, sizeof stored));
    EXPECT_EQ(stored, name);
    EXPECT_FALSE(CFileWriteBuffer().GetFileNameA(stored, sizeof stored));
    EXPECT_FALSE(writer.Open("", 8, 0, true, 0, nullptr));
}

TEST(FileWriteBuffer, AReservationBiggerThanTheBufferFlushesAndGrowsItAFailedFlushDrops) {
    const std::string name = path("grow.dat");
    CFileWriteBuffer writer;
    unsigned char* data = nullptr;
    EXPECT_FALSE(writer.GetBuffer(1, data, nullptr));  // not open
    ASSERT_TRUE(writer.Open(name.c_str(), 4096, 0, true, 0, nullptr));
    const Bytes bytes = Pattern(5000);
    ASSERT_TRUE(writer.WriteToBuffer(bytes.data(), 100, nullptr));
    ASSERT_TRUE(writer.WriteToBuffer(bytes.data(), 5000, nullptr));
    EXPECT_EQ(writer.GetFileSizeEx(), 100u);  // flushed before the big one
    writer.FlushBuffer();
    ASSERT_TRUE(writer.WriteToBuffer(bytes.data(), 3000, nullptr));
    ASSERT_TRUE(writer.WriteToBuffer(bytes.data(), 1500, nullptr));
    EXPECT_EQ(writer.GetFileSizeEx(), 5100u);  // 4500 fit the grown buffer of 5000
    EXPECT_FALSE(writer.WriteToBuffer(nullptr, 1, nullptr));
    writer.Close();
    EXPECT_EQ(ReadFile(name).size(), 9600u);

    // A failed flush drops its bytes.
    ASSERT_TRUE(writer.Open("/dev/full", 4096, 0, false, kShareAll, nullptr));
    EXPECT_TRUE(writer.WriteToBuffer(bytes.data(), 4000, nullptr));
    EXPECT_FALSE(writer.WriteToBuffer(bytes.data(), 200, nullptr));
    EXPECT_TRUE(writer.WriteToBuffer(bytes.data(), 4000, nullptr));  // the 4000 are gone
}

TEST(FileWriteBuffer, PositionedAndUnbufferedWritesAndReads) {
    const std::string name = path("positions.dat");
    CFileWriteBuffer writer;
    ASSERT_TRUE(writer.Open(name.c_str(), 64, 0, true, 0, nullptr));
    ASSERT_TRUE(writer.WriteToBuffer(ToBytes("0123456789").data(), 10, nullptr));
    EXPECT_TRUE(writer.WriteAtFilePosition(2, ToBytes("AB").data(), 2));  // pending bytes first
    std::size_t position = 0;
    EXPECT_TRUE(writer.GetFilePosition(position));
    EXPECT_EQ(position, 10u);  // back at the end
    ASSERT_TRUE(writer.WriteToBuffer(ToBytes("xy").data(), 2, nullptr));
    EXPECT_TRUE(writer.WriteUnbuffered(ToBytes("UV").data(), 2));  // overtakes the buffer
    EXPECT_FALSE(writer.WriteUnbuffered(ToBytes("UV").data(), 0));
    EXPECT_FALSE(writer.WriteAtFilePosition(0, nullptr, 1));
    writer.Close();
    EXPECT_EQ(ReadFile(name), ToBytes("01AB456789UVxy"));

    ASSERT_TRUE(writer.Open(name.c_str(), 64, 0, false, 0, nullptr));
    EXPECT_TRUE(writer.SetFilePosition(2, P::FILE_BEGIN));
    unsigned char read[4] = {};
    EXPECT_TRUE(writer.Read(read, 4));
    EXPECT_EQ(Bytes(read, read + 4), ToBytes("AB45"));
    EXPECT_TRUE(writer.SetFilePosition(-2, P::FILE_END));
    EXPECT_FALSE(writer.Read(read, 4));  // only 2 bytes left
    EXPECT_TRUE(writer.SetFilePosition(0xFFFFFFFFll, P::FILE_BEGIN));
    EXPECT_FALSE(writer.GetFilePosition(position));  // low 32 bits all ones
    EXPECT_TRUE(writer.SetFilePosition(0x100000000ll, P::FILE_BEGIN));
    EXPECT_TRUE(writer.GetFilePosition(position));
    EXPECT_EQ(position, 0x100000000ull);
}

TEST(FileWriteBuffer, AppendTakesAFullBufferStraightOrCopiesTheOtherFile) {
    const std::string name = path("append.dat");
    CFileWriteBuffer target;
    CFileWriteBuffer other;
    EXPECT_FALSE(target.Append(&other));  // not open
    ASSERT_TRUE(target.Open(name.c_str(), 64, 0, true, 0, nullptr));
    EXPECT_FALSE(target.Append(nullptr));
    ASSERT_TRUE(target.WriteToBuffer(ToBytes("head").data(), 4, nullptr));

    ASSERT_TRUE(other.Open(path("full.dat").c_str(), 8, 0, true, 0, nullptr));
    ASSERT_TRUE(other.WriteToBuffer(ToBytes("12345678").data(), 8, nullptr));
    EXPECT_TRUE(target.Append(&other));
    EXPECT_FALSE(other.IsOpen());
    EXPECT_EQ(ReadFile(path("full.dat")), ToBytes("12345678"));

    const Bytes big = Pattern(3 * 0x80000 / 2 + 77);  // three chunks
    ASSERT_TRUE(other.Open(path("big.dat").c_str(), 4096, 0, true, 0, nullptr));
    for (std::size_t offset = 0; offset < big.size(); offset += 1000) {
        const auto size =
            static_cast<unsigned int>(std::min<std::size_t>(1000, big.size() - offset));
        ASSERT_TRUE(other.WriteToBuffer(big.data() + offset, size, nullptr));
    }
    EXPECT_TRUE(target.Append(&other));
    target.Close();
    Bytes expected = ToBytes("head12345678");
    expected.insert(expected.end(), big.begin(), big.end());
    EXPECT_EQ(ReadFile(name), expected);

    ASSERT_TRUE(target.Open(name.c_str(), 64, 0, false, 0, nullptr));
    CFileWriteBuffer copy(target);  // copying moves the file
    EXPECT_FALSE(target.IsOpen());
    EXPECT_TRUE(copy.IsOpen());
}

TEST(StreamToFileWriter, InitWritesCloseAndTheResultCodes) {
    const std::string folder = path("stream/a/b");
    const std::string name = folder + "/stream.bin";
    CStreamToFileWriter writer;
    EXPECT_EQ(writer.StreamWrite(ToBytes("x").data(), 1, false), 1);  // before Open
    EXPECT_EQ(writer.Init(name.c_str()), 0);
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_TRUE(writer.IsInitialised());
    EXPECT_EQ(writer.StreamWrite(ToBytes("abc").data(), 3, false), 0);
    EXPECT_EQ(ReadFile(name), Bytes{});
    EXPECT_EQ(writer.StreamWrite(ToBytes("de").data(), 2, true), 0);
    EXPECT_EQ(ReadFile(name), ToBytes("abcde"));
    EXPECT_EQ(writer.Init(path("other.bin").c_str()), 5);  // the first file stays open
    EXPECT_FALSE(fs::exists(path("other.bin")));
    EXPECT_EQ(writer.StreamWrite(nullptr, 1, false), 1);
    EXPECT_EQ(writer.StreamWrite(ToBytes("f").data(), 1, false), 0);
    EXPECT_EQ(writer.Close(), 0);
    EXPECT_FALSE(writer.IsInitialised());
    EXPECT_EQ(ReadFile(name), ToBytes("abcdef"));
    EXPECT_EQ(writer.StreamWrite(ToBytes("g").data(), 1, false), 1);  // closed

    EXPECT_EQ(writer.Init(name.c_str()), 0);  // replaces the file
    EXPECT_EQ(writer.Close(), 0);
    EXPECT_EQ(ReadFile(name), Bytes{});
    WriteFile(path("stream/file"), ToBytes("in the way"));
    EXPECT_EQ(writer.Init(path("stream/file/sub/x.bin").c_str()), 4);
    writer.Close();
    EXPECT_EQ(writer.Init(folder.c_str()), 2);  // a folder is no file
    writer.Close();
    EXPECT_EQ(writer.Init(""), 2);
}

}  // namespace
