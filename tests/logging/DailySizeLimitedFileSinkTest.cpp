// The rotation rule of the log's file sink, with message times given by the test.
#include "tessel/logging/DailySizeLimitedFileSink.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "tessel/platform/FileFind.h"

namespace {

using Clock = spdlog::log_clock;
using Sink = daily_size_limited_file_sink_st;
namespace fs = std::filesystem;

class SinkTest : public testing::Test {
  protected:
    void SetUp() override {
        char buffer[260];
        Tessel::Platform::GetTempPathA(sizeof buffer, buffer);
        m_folder = std::string(buffer) + "sink/";
        fs::create_directories(m_folder);
    }

    // A sink on the files "<stem><date>[.<index>].log"; a message of n characters takes n + 1
    // bytes.
    std::unique_ptr<Sink> make(std::uint64_t limit, std::uint64_t index,
                               const std::string& stem = "App_") {
        auto sink = std::make_unique<Sink>(m_folder + stem + ".log", limit, index, 0, 0);
        sink->set_pattern("%v");
        return sink;
    }

    // Writes a message of size bytes (with its line end) stamped at time.
    static void write(Sink& sink, std::size_t size, Clock::time_point time = Clock::now()) {
        const std::string text(size - 1, 'x');
        sink.log(spdlog::details::log_msg(time, spdlog::source_loc{}, "DailyLogger",
                                          spdlog::level::info, text));
        sink.flush();
    }

    std::string name(Clock::time_point day, std::uint64_t index,
                     const std::string& stem = "App_") const {
        return Sink::fileName(m_folder + stem + ".log",
                              spdlog::details::os::localtime(Clock::to_time_t(day)), index);
    }

    std::string m_folder;
};

// The first moment of the next local day.
Clock::time_point tomorrow() {
    std::tm date = spdlog::details::os::localtime(std::time(nullptr));
    date.tm_mday += 1;
    date.tm_hour = date.tm_min = date.tm_sec = 0;
    date.tm_isdst = -1;
    return Clock::from_time_t(std::mktime(&date));
}

TEST(SinkFileName, CarriesDateAndIndex) {
    std::tm date{};
    date.tm_year = 2021 - 1900;
    date.tm_mon = 4;
    date.tm_mday = 27;
    EXPECT_EQ(Sink::fileName("/l/A_4711_.log", date, 0), "/l/A_4711_2021-05-27.log");
    EXPECT_EQ(Sink::fileName("/l/A_4711_.log", date, 3), "/l/A_4711_2021-05-27.3.log");
    EXPECT_EQ(Sink::fileName("/l/A_.log", date, 3), "/l/A_2021-05-27.3.log");
}

TEST_F(SinkTest, LimitIsExceededOnlyAboveItAlsoAfterARestart) {
    const auto now = Clock::now();
    auto sink = make(100, 0);
    for (int i = 0; i < 10; ++i) {
        write(*sink, 10);  // 100 is not above 100
    }
    EXPECT_EQ(sink->fileIndex(), 0u);
    EXPECT_EQ(fs::file_size(name(now, 0)), 100u);
    write(*sink, 11);  // the message opens the next file
    EXPECT_EQ(sink->fileIndex(), 1u);
    EXPECT_EQ(sink->currentSize(), 11u);
    EXPECT_EQ(fs::file_size(name(now, 1)), 11u);
    EXPECT_EQ(fs::file_size(name(now, 0)), 100u);

    auto ninety = make(100, 0, "B_");
    write(*ninety, 90);
    write(*ninety, 11);
    EXPECT_EQ(ninety->fileIndex(), 1u);
    EXPECT_EQ(fs::file_size(name(now, 0, "B_")), 90u);
    EXPECT_EQ(fs::file_size(name(now, 1, "B_")), 11u);

    // An oversized message is written whole.
    auto small = make(10, 0, "C_");
    write(*small, 25);
    EXPECT_EQ(small->fileIndex(), 1u);
    EXPECT_EQ(fs::file_size(name(now, 1, "C_")), 25u);
    write(*small, 2);  // over the limit again: the next file
    EXPECT_EQ(small->fileIndex(), 2u);

    // A restart appends and counts the present size.
    { write(*make(0, 2, "D_"), 40); }
    auto restarted = make(100, 2, "D_");
    EXPECT_EQ(restarted->currentSize(), 40u);
    write(*restarted, 61);  // 101 > 100
    EXPECT_EQ(restarted->fileIndex(), 3u);
    EXPECT_EQ(fs::file_size(name(now, 2, "D_")), 40u);
}

TEST_F(SinkTest, MessageTimeDecidesTheDayAndTheDayRuleWins) {
    auto sink = make(0, 5);
    EXPECT_EQ(sink->filename(), name(Clock::now(), 5));
    write(*sink, 10, tomorrow() - std::chrono::seconds(1));  // not the clock's time
    EXPECT_EQ(sink->filename(), name(Clock::now(), 5));
    write(*sink, 10, tomorrow() + std::chrono::seconds(1));  // starts the new date at index 0
    EXPECT_EQ(sink->fileIndex(), 0u);
    EXPECT_EQ(sink->filename(), name(tomorrow(), 0));
    EXPECT_EQ(fs::file_size(name(tomorrow(), 0)), 10u);

    auto full = make(10, 3, "B_");
    write(*full, 20, tomorrow());
    EXPECT_EQ(full->fileIndex(), 0u);
    EXPECT_EQ(full->filename(), name(tomorrow(), 0, "B_"));
}

TEST_F(SinkTest, BadRotationTimeAndUnopenableFile) {
    EXPECT_THROW(Sink(m_folder + "App_.log", 0, 0, 24, 0), spdlog::spdlog_ex);
    EXPECT_THROW(Sink(m_folder + "App_.log", 0, 0, 0, 60), spdlog::spdlog_ex);
    // A regular file where the folder should be: the open fails after its tries.
    std::ofstream(m_folder + "blocked").put('x');
    try {
        Sink sink(m_folder + "blocked/App_.log", 0, 0, 0, 0);
        FAIL() << "opened";
    } catch (const spdlog::spdlog_ex& e) {
        EXPECT_NE(std::string(e.what()).find("Failed opening file "), std::string::npos)
            << e.what();
        EXPECT_NE(std::string(e.what()).find(" for writing"), std::string::npos) << e.what();
    }
}

}  // namespace
