// The rotation rule of the log's file sink, with message times given by the test.
#include "tessel/logging/DailySizeLimitedFileSink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

using Clock = spdlog::log_clock;
using Sink = daily_size_limited_file_sink_st;
namespace fs = std::filesystem;
using namespace std::string_literals;

class SinkTest : public testing::Test {
  protected:
    SinkTest() { fs::create_directories(m_folder); }

    // A sink on the files "App_<date>[.<index>].log".
    std::unique_ptr<Sink> make(std::uint64_t limit, std::uint64_t index) {
        auto sink = std::make_unique<Sink>(m_folder + "App_.log", limit, index, 0, 0);
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

    std::string name(Clock::time_point day, std::uint64_t index) const {
        return Sink::fileName(m_folder + "App_.log",
                              spdlog::details::os::localtime(Clock::to_time_t(day)), index);
    }

    const std::string m_folder = std::getenv("TMPDIR") + "/sink/"s;
};

// The first moment of the next local day.
Clock::time_point tomorrow() {
    std::tm date = spdlog::details::os::localtime(std::time(nullptr));
    date.tm_mday += 1;
    date.tm_hour = date.tm_min = date.tm_sec = 0;
    date.tm_isdst = -1;
    return Clock::from_time_t(std::mktime(&date));
}

TEST(SinkFileName, CarriesTheDateWithItsZeros) {
    std::tm date{};
    date.tm_year = 2021 - 1900;
    date.tm_mon = 4;
    date.tm_mday = 7;
    EXPECT_EQ(Sink::fileName("/l/A_4711_.log", date, 3), "/l/A_4711_2021-05-07.3.log");
}

TEST_F(SinkTest, LimitIsExceededOnlyAboveItAlsoAfterARestart) {
    const auto now = Clock::now();
    {
        auto sink = make(100, 0);
        write(*sink, 90);
        write(*sink, 10);  // 100 is not above 100
        EXPECT_EQ(sink->fileIndex(), 0u);
        write(*sink, 150);  // the message opens the next file and is written whole
        EXPECT_EQ(sink->fileIndex(), 1u);
        EXPECT_EQ(sink->currentSize(), 150u);
        write(*sink, 2);  // over the limit again: the next file
        EXPECT_EQ(sink->fileIndex(), 2u);
    }
    EXPECT_EQ(fs::file_size(name(now, 0)), 100u);
    EXPECT_EQ(fs::file_size(name(now, 1)), 150u);

    // A restart appends and counts the present size.
    auto restarted = make(100, 2);
    EXPECT_EQ(restarted->currentSize(), 2u);
    write(*restarted, 98);
    EXPECT_EQ(restarted->fileIndex(), 2u);
    write(*restarted, 1);  // 101 > 100
    EXPECT_EQ(restarted->fileIndex(), 3u);
    EXPECT_EQ(restarted->currentSize(), 1u);
    EXPECT_EQ(fs::file_size(name(now, 2)), 100u);
}

TEST_F(SinkTest, MessageTimeDecidesTheDayAndTheDayRuleWins) {
    auto sink = make(10, 5);
    write(*sink, 10, tomorrow() - std::chrono::seconds(1));  // not the clock's time
    EXPECT_EQ(sink->filename(), name(Clock::now(), 5));
    write(*sink, 20, tomorrow());  // above the limit too: the new date starts at index 0
    EXPECT_EQ(sink->fileIndex(), 0u);
    EXPECT_EQ(sink->filename(), name(tomorrow(), 0));
    EXPECT_EQ(fs::file_size(name(tomorrow(), 0)), 20u);
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
        EXPECT_THAT(e.what(), testing::MatchesRegex("Failed opening file .* for writing.*"));
    }
}

}  // namespace
