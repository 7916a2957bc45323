// The typed helpers of CPersistData, the compression frame and the persist file, by their bytes.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "PersistTest.h"
#include "support/ChildProcess.h"
#include "tessel/persistence/MemoryBufferPersist.h"
#include "tessel/persistence/PersistData.h"
#include "tessel/persistence/PersistDataFile.h"
#include "tessel/persistence/PersistDataWithCompression.h"
#include "tessel/platform/InvalidParameter.h"

using namespace TesselTest;

namespace {

// One value of every type that the helpers know, the text last.
class Sample : public CPersistData {
  public:
    using CPersistData::Load;
    using CPersistData::Save;

    bool loadData(const unsigned char* b, size_t n) override {
        size_t at = 0;
        return Load(b, n, at, s) && Load(b, n, at, i) && Load(b, n, at, l) && Load(b, n, at, ul) &&
               Load(b, n, at, d) && Load(b, n, at, text, sizeof text);
    }
    void saveData(unsigned char* b, size_t n) const override {
        size_t at = 0;
        (void)(Save(b, n, at, s) && Save(b, n, at, i) && Save(b, n, at, l) && Save(b, n, at, ul) &&
               Save(b, n, at, d) && Save(b, n, at, text));
    }
    size_t getSize() const override { return 2 + 4 + 4 + 4 + 8 + 4 + std::strlen(text) + 1; }

    short s = -2;
    int i = 0x01020304;
    long l = -3;
    unsigned long ul = 0xA0B0C0D0u;
    double d = 1.5;
    char text[16] = "GPS";
};

const Bytes kSampleForm = {0xFE, 0xFF,                                       // short
                           0x04, 0x03, 0x02, 0x01,                           // int
                           0xFD, 0xFF, 0xFF, 0xFF,                           // long
                           0xD0, 0xC0, 0xB0, 0xA0,                           // unsigned long
                           0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xF8, 0x3F,   // double
                           0x04, 0x00, 0x00, 0x00, 'G',  'P',  'S',  0x00};  // text

// An object with an empty form, which loads only when it is handed nothing.
struct Empty : IPersistData {
    bool loadData(const unsigned char* buffer, size_t size) override {
        return buffer == nullptr && size == 0;
    }
    void saveData(unsigned char* /*buffer*/, size_t /*size*/) const override {}
    size_t getSize() const override { return 0; }
};

// A text length that cannot be read counts as an empty text: those truncations load too.
TEST(PersistDataTest, HelpersWriteTheLayoutAndLoadItsTruncationsWhereTheyCan) {
    EXPECT_EQ(kSampleForm, Saved(Sample()));
    ForEachPrefix(kSampleForm, [](const unsigned char* input, size_t length) {
        Sample loaded;
        loaded.s = 0, loaded.i = 0, loaded.l = 0, loaded.ul = 0, loaded.d = 0, loaded.text[0] = 0;
        const bool whole = length == kSampleForm.size();
        EXPECT_EQ(whole || (length >= 22 && length < 26), loaded.loadData(input, length));
        if (whole) {
            EXPECT_EQ(kSampleForm, Saved(loaded));
        }
    });
}

TEST(PersistDataTest, TextOfLimitLengthAndOneMore) {
    for (const size_t length : {259u, 260u}) {
        const bool fits = length == 259;
        Bytes buffer(300, 0xEE);
        size_t position = 0;
        EXPECT_EQ(fits, Sample().Save(buffer.data(), buffer.size(), position,
                                      std::string(length, 'x').c_str()));
        EXPECT_EQ(fits ? 264u : 4u, position);
        EXPECT_EQ((fits ? Bytes{4, 1, 0, 0, 'x'} : Bytes{0, 0, 0, 0, 0xEE}),
                  Bytes(buffer.begin(), buffer.begin() + 5));
        EXPECT_EQ(fits ? 0 : 0xEE, buffer[263]);
    }
}

// Into a buffer of 8: a text too long for it is reported and passed over, the buffer cleared.
TEST(PersistDataTest, TextLoadChecksTheLengthAgainstTheInputAndTheBuffer) {
    const struct {
        Bytes input;
        bool result;
        size_t position;
        std::string text;
    } cases[] = {{{3, 0}, true, 0, "old"},  // the length unreadable
                 {{0, 0, 0, 0}, true, 4, "old"},
                 {{3, 0, 0, 0, 'a', 'b', 0}, true, 7, "ab"},
                 {{9, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0}, true, 13, ""},
                 {{0xFF, 0xFF, 0xFF, 0xFF, 0}, false, 4, "old"},
                 {{0x05, 0x01, 0, 0, 0}, false, 4, "old"},  // above the limit
                 {{4, 0, 0, 0, 'a', 0}, false, 4, "old"},
                 {{2, 0, 0, 0, 'a', 'b'}, false, 4, "old"}};
    static int reports = 0;
    const auto previous = Tessel::Platform::SetInvalidParameterHandler(
        [](const char*, const char*, const char*, unsigned int) { ++reports; });
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.input));
        char text[8] = "old";
        size_t position = 0;
        EXPECT_EQ(c.result, Sample().Load(HeapCopy(c.input, c.input.size()).get(), c.input.size(),
                                          position, text, sizeof text));
        EXPECT_EQ(c.position, position);
        EXPECT_EQ(c.text + std::string(8 - c.text.size(), '\0'), std::string(text, sizeof text));
    }
    Tessel::Platform::SetInvalidParameterHandler(previous);
    EXPECT_EQ(1, reports);
}

// Station-like data: records of a station that differ a little from one to the next.
Bytes StationRecords(size_t size) {
    Bytes bytes;
    std::mt19937 random(7);
    for (std::uint32_t epoch = 0; bytes.size() < size; ++epoch) {
        const std::string record = "STN0042 " + std::to_string(100000 + epoch) + " L1C " +
                                   std::to_string(20000000 + random() % 1000) + " S " +
                                   std::to_string(40 + random() % 8) + "\n";
        bytes.insert(bytes.end(), record.begin(), record.end());
    }
    bytes.resize(size);
    return bytes;
}

TEST(PersistDataWithCompressionTest, FramesOfSmallObjectsTheirTruncationsAndDamage) {
    CMemoryBufferPersist data;
    ASSERT_TRUE(data.Assign(reinterpret_cast<const unsigned char*>("abc"), 3));
    // The 7-byte form is too short for a match: one token of 7 literals, then the literals.
    const Bytes golden = {0x00, 0x07, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00,
                          0x70, 0x03, 0x00, 0x00, 0x00, 'a',  'b',  'c'};
    EXPECT_EQ(golden, Saved(CPersistDataWithCompression(&data, CPersistDataWithCompression::LZ4)));
    ForEachPrefix(golden, [&](const unsigned char* input, size_t length) {
        CMemoryBufferPersist target;
        CPersistDataWithCompression loader(&target);
        const bool whole = length == golden.size();
        ASSERT_EQ(whole, loader.loadData(input, length));
        EXPECT_EQ(whole ? Content(data) : Bytes(), Content(target));
        if (whole) {
            EXPECT_EQ(7u, loader.GetOriginalSize());
        }
    });
    // Original size one more, far more than a block expands to; compressed size beyond input.
    for (auto [offset, value] : {std::pair{1, 0x08}, {4, 0xFF}, {5, 0xFF}}) {
        Bytes damaged = golden;
        damaged[offset] = static_cast<unsigned char>(value);
        CMemoryBufferPersist target;
        CPersistDataWithCompression loader(&target);
        EXPECT_FALSE(loader.loadData(HeapCopy(damaged, damaged.size()).get(), damaged.size()))
            << offset;
    }
    // Another type compresses nothing and is not loaded.
    const Bytes typeOne = {0x01, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(typeOne, Saved(CPersistDataWithCompression(
                           &data, static_cast<CPersistDataWithCompression::eCompressionType>(1))));
    CMemoryBufferPersist target;
    CPersistDataWithCompression loader(&target);
    EXPECT_FALSE(loader.loadData(HeapCopy(typeOne, typeOne.size()).get(), typeOne.size()));

    Empty empty;
    const Bytes emptyFrame = {0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(emptyFrame,
              Saved(CPersistDataWithCompression(&empty, CPersistDataWithCompression::LZ4)));
    CPersistDataWithCompression emptyLoader(&empty);
    EXPECT_TRUE(emptyLoader.loadData(HeapCopy(emptyFrame, 10).get(), 10));
}

// Damage, random or not, never makes a load read past its input.
TEST(PersistDataWithCompressionTest, RoundTripCopiesAndRandomDamage) {
    CMemoryBufferPersist data;
    const Bytes records = StationRecords(4096);
    ASSERT_TRUE(data.Assign(records.data(), records.size()));
    CPersistDataWithCompression frame(&data, CPersistDataWithCompression::LZ4);
    EXPECT_LT(frame.getSize(), records.size() / 2);
    const Bytes saved = Saved(frame);
    EXPECT_EQ(saved, Saved(CPersistDataWithCompression(frame)));
    CMemoryBufferPersist target;
    CPersistDataWithCompression loader(&target);
    auto input = HeapCopy(saved, saved.size());
    ASSERT_TRUE(loader.loadData(input.get(), saved.size()));
    EXPECT_EQ(records, Content(target));
    // The loader now holds the whole frame and refuses a shorter input.
    EXPECT_FALSE(loader.loadData(input.get(), saved.size() - 1));

    std::mt19937 random(99);
    for (int round = 0; round < 3000; ++round) {
        Bytes damaged = saved;
        if (round % 3 == 0) {
            damaged.resize(9 + random() % 64);
            for (unsigned char& b : damaged) {
                b = static_cast<unsigned char>(random());
            }
            damaged[0] = 0;
        } else {
            for (int flips = 1 + round % 4; flips > 0; --flips) {
                damaged[random() % damaged.size()] ^=
                    static_cast<unsigned char>(1 + random() % 255);
            }
        }
        CMemoryBufferPersist damagedTarget;
        CPersistDataWithCompression damagedLoader(&damagedTarget);
        if (damagedLoader.loadData(HeapCopy(damaged, damaged.size()).get(), damaged.size())) {
            EXPECT_LE(damagedTarget.getSize(), damagedLoader.GetOriginalSize());
        }
    }
}

// Persist files live in a folder of their own, which stands for the executable's folder.
class PersistFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char folder[] = "/tmp/tessel-persist-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(folder));
        m_folder = folder;
        m_state = m_folder + "/state.dat";
        ::setenv("TESSEL_APP_DIR", folder, 1);
    }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    std::string m_folder;
    std::string m_state;
};

TEST_F(PersistFileTest, SaveWritesTheVersionAndTheObjectsBesideTheExecutable) {
    Sample sample;
    CMemoryBufferPersist buffer;
    ASSERT_TRUE(buffer.Assign(reinterpret_cast<const unsigned char*>("\x11\x22"), 2));
    IPersistData* items[] = {&sample, &buffer};
    CPersistDataFile file("state.dat");
    EXPECT_EQ(m_state, file.GetFileName());
    EXPECT_EQ(0, file.Load(items, 2));
    ASSERT_EQ(1, file.Save(items, 2));

    Bytes golden = {0x03, 0x00};
    golden.insert(golden.end(), kSampleForm.begin(), kSampleForm.end());
    golden.insert(golden.end(), {0x02, 0x00, 0x00, 0x00, 0x11, 0x22});
    EXPECT_EQ(golden, ReadFile(m_state));
    EXPECT_FALSE(std::filesystem::exists(m_state + ".tmp"));

    Sample loadedSample;
    loadedSample.i = 0;
    CMemoryBufferPersist loadedBuffer;
    IPersistData* loaded[] = {&loadedSample, &loadedBuffer};
    ASSERT_EQ(1, file.Load(loaded, 2));  // through the handle that Save made
    EXPECT_EQ(kSampleForm, Saved(loadedSample));
    EXPECT_EQ(Content(buffer), Content(loadedBuffer));

    CPersistDataFile taken(file);
    EXPECT_EQ(0u, file.GetFileSizeEx());
    EXPECT_EQ(golden.size(), taken.GetFileSizeEx());
    taken.Delete();
    EXPECT_FALSE(std::filesystem::exists(m_state));

    // Names with a folder are used as they are, cut to 255 characters.
    EXPECT_EQ(m_folder + "/sub.dat",
              CPersistDataFile((m_folder + "\\sub.dat").c_str()).GetFileName());
    EXPECT_EQ(255u, std::strlen(CPersistDataFile(std::string(400, 'n').c_str()).GetFileName()));
}

TEST_F(PersistFileTest, EmptyObjectsOrAnotherVersionDeleteTheFile) {
    WriteFile(m_state, {0x03, 0x00, 0x01});
    Empty empty;
    IPersistData* items[] = {&empty, &empty};
    EXPECT_EQ(0, CPersistDataFile("state.dat").Save(items, 2));
    EXPECT_FALSE(std::filesystem::exists(m_state));
    EXPECT_EQ(0, CPersistDataFile("state.dat").Save(nullptr, 2));
    EXPECT_EQ(0, CPersistDataFile("state.dat").Save(items, 0));

    WriteFile(m_state, {0x02, 0x00, 0x01, 0x00, 0x00, 0x00, 0x55});
    CPersistDataFile file("state.dat");
    CMemoryBufferPersist buffer;
    IPersistData* loaded[] = {&buffer};
    EXPECT_EQ(1, file.Load(loaded, 1));
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(m_state));
    EXPECT_EQ(0u, file.GetFileSizeEx());
}

TEST_F(PersistFileTest, EveryTruncationIsReadWithinTheFile) {
    const Bytes golden = {0x03, 0x00, 0x02, 0x00, 0x00, 0x00, 0xAA,
                          0xBB, 0x01, 0x00, 0x00, 0x00, 0xCC};
    ForEachPrefix(golden, [&](const unsigned char* bytes, size_t length) {
        WriteFile(m_state, Bytes(bytes, bytes + length));
        CPersistDataFile file("state.dat");
        CMemoryBufferPersist first;
        CMemoryBufferPersist second;
        IPersistData* items[] = {&first, &second};
        EXPECT_EQ(length >= 2 ? 1 : 0, file.Load(items, 2));
        EXPECT_EQ(length >= 8 ? Bytes({0xAA, 0xBB}) : Bytes(), Content(first));
        EXPECT_EQ(length == golden.size() ? Bytes({0xCC}) : Bytes(), Content(second));
    });
}

TEST_F(PersistFileTest, OneProcessWritesAnotherReads) {
    const Bytes records = StationRecords(10000);
    EXPECT_EQ(0, RunInChild([&] {
                  CMemoryBufferPersist buffer;
                  buffer.Assign(records.data(), records.size());
                  CPersistDataWithCompression frame(&buffer, CPersistDataWithCompression::LZ4);
                  IPersistData* items[] = {&frame};
                  return CPersistDataFile("state.dat").Save(items, 1) == 1 ? 0 : 1;
              }));
    CMemoryBufferPersist buffer;
    CPersistDataWithCompression frame(&buffer);
    IPersistData* items[] = {&frame};
    CPersistDataFile file("state.dat");
    ASSERT_EQ(1, file.Load(items, 1));
    EXPECT_EQ(records, Content(buffer));

    // The file is held: another process can neither read nor write it.
    EXPECT_EQ(0, RunInChild([&] {
                  CMemoryBufferPersist other;
                  IPersistData* otherItems[] = {&other};
                  CPersistDataFile second("state.dat");
                  return second.Load(otherItems, 1) + second.Save(otherItems, 1);
              }));
}

// A process killed at a random moment of its saves leaves one whole save, never parts of two.
TEST_F(PersistFileTest, KilledDuringSaveLeavesOldOrNewFile) {
    constexpr size_t kSize = 2 * 1024 * 1024;
    Bytes initial = {0x03, 0x00, 0x00, 0x00, 0x20, 0x00};  // version, length, kSize zeros
    initial.resize(6 + kSize);
    WriteFile(m_state, initial);
    std::mt19937 random(std::random_device{}());
    for (int round = 0; round < 20; ++round) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            CPersistDataFile file("state.dat");
            CMemoryBufferPersist buffer;
            buffer.Allocate(kSize);
            IPersistData* items[] = {&buffer};
            for (int value = round * 7 + 1;; ++value) {
                std::memset(buffer.GetBuffer(), value & 0xFF, kSize);
                if (file.Save(items, 1) != 1) {
                    ::_exit(3);
                }
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 40000));
        ::kill(pid, SIGKILL);
        ASSERT_EQ(128 + SIGKILL, WaitForChild(pid, std::chrono::milliseconds(60000)));

        CMemoryBufferPersist buffer;
        IPersistData* items[] = {&buffer};
        CPersistDataFile file("state.dat");
        ASSERT_EQ(1, file.Load(items, 1)) << round;
        ASSERT_EQ(kSize, buffer.GetSize()) << round;
        ASSERT_EQ(Bytes(kSize, buffer.GetBuffer()[0]), Content(buffer)) << round;
    }
}

}  // namespace
