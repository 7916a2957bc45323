#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tessel/logging/ILogging.h"
#include "tessel/platform/Process.h"

namespace {

std::string captured(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

TEST(StandardErrorLogging, LineHasTheLibraryForm) {
    ILogging& log = ILogging::getInstance();
    const std::string text = captured([&] { log.log("CFoo::Bar", ILogging::Warn, "it {} stays"); });
    const std::regex form(
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} P\[(\d+)\] T\[(\d+)\] warning \[CFoo::Bar\] it \{\} stays\n)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, form)) << text;
    EXPECT_EQ(match[1], std::to_string(Tessel::Platform::GetCurrentProcessId()));
    EXPECT_EQ(match[2], std::to_string(Tessel::Platform::GetCurrentThreadId()));
}

TEST(StandardErrorLogging, LevelsFilterAndNameTheLine) {
    ILogging& log = ILogging::getInstance();
    EXPECT_EQ(log.getLogLevel(), ILogging::Info);
    struct {
        ILogging::LogLevels level;
        const char* name;  // empty: not written at minimum level Info
    } const cases[] = {
        {ILogging::Trace, ""},        {ILogging::Info, " info "}, {ILogging::Warn, " warning "},
        {ILogging::Error, " error "}, {ILogging::Off, ""},
    };
    for (const auto& c : cases) {
        const std::string text = captured([&] { log.log(c.level, "message"); });
        if (*c.name == '\0') {
            EXPECT_EQ(text, "") << c.level;
        } else {
            EXPECT_NE(text.find(std::string(c.name) + "message\n"), std::string::npos) << text;
        }
    }
    log.setLogLevel(ILogging::Off);
    EXPECT_FALSE(log.shouldLogLevel(ILogging::Error));
    EXPECT_EQ(captured([&] { log.log(ILogging::Error, "x"); }), "");
    log.setLogLevel(ILogging::Trace);
    EXPECT_TRUE(log.shouldLogLevel(ILogging::Trace));
    EXPECT_FALSE(log.shouldLogLevel(ILogging::Off));
}

TEST(StandardErrorLogging, LevelTexts) {
    EXPECT_STREQ(ILogging::toString(ILogging::Trace), "trace");
    EXPECT_STREQ(ILogging::toString(ILogging::Info), "info");
    EXPECT_STREQ(ILogging::toString(ILogging::Warn), "warn");
    EXPECT_STREQ(ILogging::toString(ILogging::Error), "error");
    EXPECT_STREQ(ILogging::toString(ILogging::Off), "off");
    EXPECT_STREQ(ILogging::toString(static_cast<ILogging::LogLevels>(17)), "info");
}

TEST(StandardErrorLogging, ConcurrentLinesStayWhole) {
    ILogging& log = ILogging::getInstance();
    const std::string text = captured([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&log, t] {
                for (int i = 0; i < 200; ++i) {
                    log.log("T", ILogging::Info, std::string(100, static_cast<char>('a' + t)));
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    });
    std::size_t lines = 0;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = text.find('\n', start);
        ASSERT_NE(end, std::string::npos);
        const std::string line = text.substr(start, end - start);
        const std::string tail = line.substr(line.size() - 100);
        EXPECT_EQ(tail, std::string(100, tail[0])) << line;
        ++lines;
        start = end + 1;
    }
    EXPECT_EQ(lines, 800u);
}

}  // namespace
