// The data logger against the disk: runs of records turned into text files, pauses and stops
// from another thread, the watchdog notices, and files that cannot be made or written.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/Bytes.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "tessel/platform/Process.h"
#include "tessel/recording/DataLogger.h"
#include "tessel/supervision/WatchdogClient.h"

using namespace TesselTest;
namespace fs = std::filesystem;

namespace {

// A record that saves the bytes it is given.
struct Record : IPersistData {
    explicit Record(Bytes saved) : bytes(std::move(saved)) {}
    bool loadData(const unsigned char*, size_t) override { return false; }
    void saveData(unsigned char* to, size_t) const override {
        std::copy(bytes.begin(), bytes.end(), to);
    }
    size_t getSize() const override { return bytes.size(); }
    Bytes bytes;
};

// Renders a record as its length, ':' and its raw bytes.
struct Renderer : IDataLog {
    void GetHeadText(CStringA& text) override { text = "HEAD\n"; }
    void GetRecordText(const unsigned char* data, unsigned int length, CStringA& text) override {
        text = std::to_string(length) + ":" + std::string(data, data + length);
    }
};

// Record i: its number in 8 bytes, then i % 13 bytes that depend on it; every 5th is empty.
Bytes recordBytes(std::uint64_t i) {
    Bytes bytes(i % 5 == 4 ? 0 : 8 + i % 13, static_cast<unsigned char>(i * 7));
    if (!bytes.empty()) {
        std::memcpy(bytes.data(), &i, std::min<std::size_t>(bytes.size(), 8));
    }
    return bytes;
}

// The text of the first `rendered` of the records `all`, each followed by the size word of the
// next one where there is one.
std::string expectedText(const std::vector<Bytes>& all, std::size_t rendered) {
    std::string text = "HEAD\n";
    for (std::size_t i = 0; i < rendered; ++i) {
        std::string bytes(all[i].begin(), all[i].end());
        const auto next = static_cast<std::uint32_t>(i + 1 < all.size() ? all[i + 1].size() : 0);
        bytes.append(reinterpret_cast<const char*>(&next), i + 1 < all.size() ? 4 : 0);
        text += std::to_string(bytes.size()) + ":" + bytes;
    }
    return text;
}

class DataLoggerTest : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(m_dir);
        ASSERT_EQ(::chdir(m_dir.c_str()), 0);
        ::setenv("TESSEL_APP_DIR", m_dir.c_str(), 1);
    }

    // Adds records 0 to count - 1, each accepted; returns them.
    static std::vector<Bytes> add(CDataLogger& logger, std::uint64_t count) {
        std::vector<Bytes> added;
        for (std::uint64_t i = 0; i < count; ++i) {
            Record record(recordBytes(i));
            EXPECT_EQ(logger.AddData(&record), 1);
            added.push_back(record.bytes);
        }
        return added;
    }

    std::string text(const std::string& name) const {
        const Bytes bytes = ReadFile(m_dir + "/" + name);
        return std::string(bytes.begin(), bytes.end());
    }

    long tempFiles() const {
        return std::count_if(fs::directory_iterator(m_dir), {}, [](const fs::directory_entry& e) {
            return e.path().filename().string().rfind("tvw", 0) == 0;
        });
    }

    const std::string m_dir = std::string(std::getenv("TMPDIR")) + "/datalogger";
    Renderer m_renderer;
};

// The watchdog is told of the long conversion every 6002 records walked.
TEST_F(DataLoggerTest, ManyRecordsComeBackInOrderThroughACopyWhileTheWatchdogHears) {
#ifndef TESSEL_FAKE_WATCHDOG_DIR
    GTEST_SKIP() << "built without the fake watchdog";
#else
    const std::string log = m_dir + "/watchdog.log";
    ::setenv("TESSEL_FAKE_WATCHDOG_LOG", log.c_str(), 1);
    ::setenv("PATH", (TESSEL_FAKE_WATCHDOG_DIR ":" + std::string(std::getenv("PATH"))).c_str(), 1);
    CWatchdogClient owner;
    ASSERT_EQ(owner.CreateWatchdog(0, 10, 60, 0), 1);
    CDataLogger logger;
    std::vector<Bytes> added;
    {
        CDataLogger first;
        first.StartAddData(4096);
        added = add(first, 20000);
        logger = first;  // takes the run over: the end of first leaves the temporary file alone
    }
    ASSERT_EQ(logger.CreateLogFile("records.txt", m_renderer), 1);
    EXPECT_EQ(tempFiles(), 1);
    logger.CloseLogFile("TAIL\n");
    EXPECT_EQ(tempFiles(), 0);
    EXPECT_EQ(text("records.txt"), expectedText(added, added.size()) + "TAIL\n");

    owner.ShutdownWatchdog();
    ASSERT_TRUE(eventually([&] { return text("watchdog.log").find("end ") != std::string::npos; },
                           10s, 10ms));
    const std::string all = text("watchdog.log");
    const std::regex notice("type=2 size=280 thread=" +
                            std::to_string(Tessel::Platform::GetCurrentThreadId()) + " data=0 ");
    // At 6002, 12004 and 18006 of the 19999 records walked before the last one.
    EXPECT_EQ(std::distance(std::sregex_iterator(all.begin(), all.end(), notice), {}), 3);
#endif
}

// Short runs, step by step: a record size, or one of the actions below.
TEST_F(DataLoggerTest, RunsKeepExactlyTheAcceptedRecords) {
    constexpr int kPause = -1, kResume = -2, kNull = -3;
    const struct {
        std::vector<int> steps;
        int created;  // result of CreateLogFile
    } cases[] = {
        {{}, 0},  // no records: the head stands
        {{5}, 1}, {{0}, 1}, {{3, kPause, 4, 5, kResume, 200, 0, 1}, 1}, {{kNull, 2, kNull}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.steps));
        CDataLogger logger;
        logger.StartAddData(64);
        std::vector<Bytes> kept;
        for (const int step : c.steps) {
            if (step == kPause || step == kResume) {
                logger.EnableAddData(step == kResume);
                EXPECT_EQ(logger.CanAddData(), step == kResume);
                continue;
            }
            Record record(Bytes(std::max(step, 0), static_cast<unsigned char>(step)));
            const int accepted = logger.AddData(step == kNull ? nullptr : &record);
            EXPECT_EQ(accepted, step != kNull && logger.CanAddData());
            if (accepted == 1) {
                kept.push_back(record.bytes);
            }
        }
        EXPECT_EQ(logger.CreateLogFile("run.txt", m_renderer), c.created);
        logger.CloseLogFile("");
        EXPECT_EQ(text("run.txt"), expectedText(kept, kept.size()));
    }
}

TEST_F(DataLoggerTest, PausesAndAStopFromAnotherThreadLoseNoAcceptedRecord) {
    CDataLogger logger;
    logger.StartAddData(1024);
    std::vector<Bytes> accepted;
    std::atomic<std::size_t> count{0};
    std::atomic<bool> stopped{false};
    std::thread control([&] {
        for (int i = 0; i < 20000; ++i) {
            logger.EnableAddData(i % 2);
        }
        logger.EnableAddData(1);
        for (const std::size_t before = count; count < before + 1000;) {
            std::this_thread::yield();
        }
        logger.StopAddData();
        logger.EnableAddData(1);  // no file any more: adds fail all the same
        stopped = true;
    });
    for (std::uint64_t i = 0; !stopped; ++i) {
        Record record(recordBytes(i));
        if (logger.AddData(&record) == 1) {
            accepted.push_back(record.bytes);
            ++count;
        }
    }
    control.join();
    Record late(recordBytes(1));
    EXPECT_EQ(logger.AddData(&late), 0);
    ASSERT_EQ(logger.CreateLogFile("threads.txt", m_renderer), 1);
    logger.CloseLogFile("");
    EXPECT_EQ(text("threads.txt"), expectedText(accepted, accepted.size()));
}

TEST_F(DataLoggerTest, FilesThatCannotBeMadeOrWrittenFailWithALogLine) {
    LogCapture capture;
    {
        // A present folder that is gone: no temporary file, so no adding.
        fs::create_directories(m_dir + "/gone");
        ASSERT_EQ(::chdir((m_dir + "/gone").c_str()), 0);
        fs::remove(m_dir + "/gone");
        CDataLogger logger;
        logger.StartAddData(64);
        Record record(recordBytes(0));
        EXPECT_EQ(logger.AddData(&record), 0);
        ASSERT_EQ(::chdir(m_dir.c_str()), 0);
    }
    // A text file below a regular file, and one on a full disk.
    std::ofstream(m_dir + "/plain") << "x";
    for (const std::string& dir : {m_dir + "/plain/sub", std::string("/dev")}) {
        ::setenv("TESSEL_APP_DIR", dir.c_str(), 1);
        CDataLogger logger;
        logger.StartAddData(4096);
        add(logger, 20000);
        EXPECT_EQ(logger.CreateLogFile("full", m_renderer), dir == "/dev");  // the walk ends
        logger.CloseLogFile("");
        EXPECT_EQ(tempFiles(), 0);
    }
    const std::string log = capture.text();
    for (const char* line : {"[CDataLogger::StartAddData] Cannot make a temporary file",
                             "[CDataLogger::CreateLogFile] Cannot open the log file ",
                             "[CDataLogger::CreateLogFile] Cannot write a record's text to the "
                             "log file /dev/full: There is not enough space on the disk."}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
}

// The temporary file reaches the size limit of the process in the middle of a flush: the
// records wholly before the limit come back; the adds that flush fail from there, logged once.
TEST_F(DataLoggerTest, ASizeLimitStopsTheAddsAndKeepsTheRecordsBeforeIt) {
    constexpr std::size_t kRecord = 100, kLimit = 1000 * kRecord + 50;
    LogCapture capture;
    CDataLogger logger;
    logger.StartAddData(40 * kRecord);
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    rlimit limit{kLimit, old.rlim_max};
    ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    std::vector<Bytes> added;
    std::vector<std::uint64_t> refused;
    for (std::uint64_t i = 0; i < 1200; ++i) {
        Record record(Bytes(kRecord - 4, static_cast<unsigned char>(i)));
        std::memcpy(record.bytes.data(), &i, 8);
        added.push_back(record.bytes);
        if (logger.AddData(&record) == 0) {
            refused.push_back(i);
        }
    }
    logger.StopAddData();
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    EXPECT_EQ(refused, (std::vector<std::uint64_t>{1040, 1081, 1122, 1163}));
    ASSERT_EQ(logger.CreateLogFile("limited.txt", m_renderer), 1);
    logger.CloseLogFile("");
    added.resize(kLimit / kRecord + 1);  // the size word of the torn record is whole
    EXPECT_EQ(text("limited.txt"), expectedText(added, kLimit / kRecord));
    const std::string log = capture.text();
    const auto first = log.find("[CDataLogger::AddData] Cannot reserve 100 bytes");
    EXPECT_NE(first, std::string::npos);
    EXPECT_EQ(log.find("[CDataLogger::AddData]", first + 1), std::string::npos);
}

}  // namespace
