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
namespace fs = std::filesystem;

class Sink : public testing::Test {
  protected:
    void SetUp() override {
        char buffer[260];
        Tessel::Platform::GetTempPathA(sizeof buffer, buffer);
        m_folder = std::string(buffer) + "sink/";
        fs::remove_all(m_folder);
        fs::create_directories(m_folder);
        m_base = m_folder + "App_.log";
    }

    std::unique_ptr<daily_size_limited_file_sink_st> make(std::uint64_t limit,
                                                          std::uint64_t index) {
        auto sink = std::make_unique<daily_size_limited_file_sink_st>(m_base, limit, index, 0, 0);
        sink->set_pattern("%v");  // a message of n characters takes n + 1 bytes
        return sink;
    }

    // Writes a message of size bytes (with its line end) stamped at time.
    static void write(daily_size_limited_file_sink_st& sink, std::size_t size,
                      Clock::time_point time = Clock::now()) {
        const std::string text(size - 1, 'x');
        sink.log(spdlog::details::log_msg(time, spdlog::source_loc{}, "DailyLogger",
                                          spdlog::level::info, text));
        sink.flush();
    }

    std::string name(Clock::time_point day, std::uint64_t index) const {
        return daily_size_limited_file_sink_st::fileName(
            m_base, spdlog::details::os::localtime(Clock::to_time_t(day)), index);
    }

    static std::uintmax_t size(const std::string& file) { return fs::file_size(file); }

    // The first moment of the next local day.
    static Clock::time_point tomorrow() {
        std::time_t now = std::time(nullptr);
        std::tm date = spdlog::details::os::localtime(now);
        date.tm_mday += 1;
        date.tm_hour = date.tm_min = date.tm_sec = 0;
        date.tm_isdst = -1;
        return Clock::from_time_t(std::mktime(&date));
    }

    std::string m_folder;
    std::string m_base;
};

TEST_F(Sink, FileNamesCarryDateAndIndex) {
    std::tm date{};
    date.tm_year = 2021 - 1900;
    date.tm_mon = 4;
    date.tm_mday = 27;
    EXPECT_EQ(daily_size_limited_file_sink_st::fileName("/l/A_4711_.log", date, 0),
              "/l/A_4711_2021-05-27.log");
    EXPECT_EQ(daily_size_limited_file_sink_st::fileName("/l/A_4711_.log", date, 3),
              "/l/A_4711_2021-05-27.3.log");
    EXPECT_EQ(daily_size_limited_file_sink_st::fileName("/l/A_.log", date, 3),
              "/l/A_2021-05-27.3.log");
}

TEST_F(Sink, LimitIsExceededOnlyAboveIt) {
    auto sink = make(100, 0);
    const auto now = Clock::now();
    for (int i = 0; i < 9; ++i) {
        write(*sink, 10);
    }
    write(*sink, 10);  // 100 is not above 100
    EXPECT_EQ(sink->fileIndex(), 0u);
    EXPECT_EQ(size(name(now, 0)), 100u);
    write(*sink, 11);  // the message opens the next file
    EXPECT_EQ(sink->fileIndex(), 1u);
    EXPECT_EQ(sink->currentSize(), 11u);
    EXPECT_EQ(size(name(now, 1)), 11u);
    EXPECT_EQ(size(name(now, 0)), 100u);
}

TEST_F(Sink, NinetyPlusElevenRotates) {
    auto sink = make(100, 0);
    write(*sink, 90);
    write(*sink, 11);
    EXPECT_EQ(sink->fileIndex(), 1u);
    EXPECT_EQ(size(name(Clock::now(), 0)), 90u);
    EXPECT_EQ(size(name(Clock::now(), 1)), 11u);
}

TEST_F(Sink, OversizedMessageIsWrittenWhole) {
    auto sink = make(10, 0);
    write(*sink, 25);
    EXPECT_EQ(sink->fileIndex(), 1u);
    EXPECT_EQ(size(name(Clock::now(), 1)), 25u);
    write(*sink, 2);  // over the limit again: the next file
    EXPECT_EQ(sink->fileIndex(), 2u);
}

TEST_F(Sink, FirstMessageAfterMidnightStartsTheNewDateAtIndexZero) {
    auto sink = make(0, 5);
    EXPECT_EQ(sink->filename(), name(Clock::now(), 5));
    write(*sink, 10);
    write(*sink, 10, tomorrow() + std::chrono::seconds(1));
    EXPECT_EQ(sink->fileIndex(), 0u);
    EXPECT_EQ(sink->filename(), name(tomorrow(), 0));
    EXPECT_EQ(size(name(tomorrow(), 0)), 10u);
}

TEST_F(Sink, DayRuleWinsOverTheSizeRule) {
    auto sink = make(10, 3);
    write(*sink, 20, tomorrow());
    EXPECT_EQ(sink->fileIndex(), 0u);
    EXPECT_EQ(sink->filename(), name(tomorrow(), 0));
}

TEST_F(Sink, MessageTimeDecidesNotTheClock) {
    auto sink = make(0, 0);
    write(*sink, 10, tomorrow() - std::chrono::seconds(1));
    EXPECT_EQ(sink->filename(), name(Clock::now(), 0));
}

TEST_F(Sink, RestartAppendsAndCountsThePresentSize) {
    { write(*make(0, 2), 40); }
    auto sink = make(100, 2);
    EXPECT_EQ(sink->currentSize(), 40u);
    write(*sink, 61);  // 101 > 100
    EXPECT_EQ(sink->fileIndex(), 3u);
    EXPECT_EQ(size(name(Clock::now(), 2)), 40u);
}

TEST_F(Sink, BadRotationTimeAndUnopenableFile) {
    EXPECT_THROW(daily_size_limited_file_sink_st(m_base, 0, 0, 24, 0), spdlog::spdlog_ex);
    EXPECT_THROW(daily_size_limited_file_sink_st(m_base, 0, 0, 0, 60), spdlog::spdlog_ex);
    // A regular file where the folder should be: the open fails after its tries.
    std::ofstream(m_folder + "blocked").put('x');
    try {
        daily_size_limited_file_sink_st sink(m_folder + "blocked/App_.log", 0, 0, 0, 0);
        FAIL() << "opened";
    } catch (const spdlog::spdlog_ex& e) {
        EXPECT_NE(std::string(e.what()).find("Failed opening file "), std::string::npos)
            << e.what();
        EXPECT_NE(std::string(e.what()).find(" for writing"), std::string::npos) << e.what();
    }
}

}  // namespace
