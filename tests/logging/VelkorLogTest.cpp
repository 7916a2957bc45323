// The log as a process sees it; each test builds it afresh in a process of its own.
#include "tessel/logging/VelkorLog.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/details/os.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <unistd.h>
#include <utime.h>

#include <boost/property_tree/xml_parser.hpp>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "tessel/host/TempDirectory.h"
#include "tessel/platform/Process.h"

// The private operations of the log, for the tests.
class VelkorLogTestAccess {
  public:
    static void load(const std::string& path, VelkorLogConfiguration& configuration) {
        VelkorLog::load(path, configuration);
    }
    static bool parseFileIndex(const std::string& name, std::uint64_t& index) {
        return VelkorLog::parseFileIndex(name, index);
    }
    static bool parseProcessId(const std::string& name, std::uint64_t& id) {
        return VelkorLog::parseProcessId(name, id);
    }
};

namespace {

namespace fs = std::filesystem;
using TesselTest::eventually;
using testing::HasSubstr;

VelkorLog& velkorLog() {
    return dynamic_cast<VelkorLog&>(ILogging::getInstance());
}

std::string today() {
    const std::tm date = spdlog::details::os::localtime();
    return fmt::format("{:04d}-{:02d}-{:02d}", date.tm_year + 1900, date.tm_mon + 1, date.tm_mday);
}

class Log : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(m_appDir);
        fs::create_directories(m_logDir);
        ::setenv("TESSEL_APP_DIR", m_appDir.c_str(), 1);
    }

    // Writes the configuration file aside and renames it: a watcher never reads half of it.
    void configure(const std::string& body) {
        const std::string path = m_appDir + "/VelkorLog.config";
        std::ofstream(path + ".new")
            << "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<velkorlogging>" << body
            << "</velkorlogging>\n";
        fs::rename(path + ".new", path);
    }

    void touch(const std::string& name, std::time_t modified) {
        std::ofstream(m_logDir + name) << "old\n";
        const utimbuf times{modified, modified};
        ::utime((m_logDir + name).c_str(), &times);
    }

    const std::string m_appDir = CTempDirectory::GetTempDirectoryCurrentUser() + "app";
    const std::string m_logDir = CTempDirectory::GetTempDirectory() + "log/";
};

TEST_F(Log, DefaultsWithoutAConfigurationFile) {
    VelkorLog::init("App", false);
    VelkorLog& log = velkorLog();
    EXPECT_EQ(log.getLogLevel(), ILogging::Info);
    EXPECT_EQ(log.getMaxNumberFiles(), 10u);
    EXPECT_TRUE(log.isLoggerActive("Anything::At::All"));
    EXPECT_FALSE(log.shouldLogLevel(ILogging::Trace));
    EXPECT_TRUE(log.shouldLogLevel(ILogging::Info));
    EXPECT_EQ(log.getLogFolder(), m_logDir);
    EXPECT_EQ(log.getConfigurationPath(), m_appDir + "/VelkorLog.config");
    EXPECT_FALSE(fs::exists(log.getConfigurationPath()));  // no file is made

    const TesselTest::LogCapture capture;
    log.log("Cat", ILogging::Warn, "written");
    EXPECT_TRUE(fs::exists(m_logDir + "App_" + today() + ".log"));
    EXPECT_THAT(
        capture.text(),
        HasSubstr(" P[" + std::to_string(Tessel::Platform::GetCurrentProcessId()) + "] T["));
    EXPECT_THAT(capture.text(), HasSubstr("] warning [Cat] written"));

    log.setLogLevel(ILogging::Off);
    const TesselTest::LogCapture off;
    for (ILogging::LogLevels level :
         {ILogging::Trace, ILogging::Info, ILogging::Warn, ILogging::Error, ILogging::Off}) {
        log.log("Cat", level, "x");
        log.log(level, "y");
        EXPECT_FALSE(log.shouldLogLevel(level));
    }
    EXPECT_EQ(off.text(), "");
}

TEST_F(Log, SettingsFromTheFileAndCategoriesFilterOnlyTheThreeArgumentLog) {
    configure(
        "<watchintervalminutes>3</watchintervalminutes><minlevel>warn</minlevel>"
        "<maxnumberfiles>4</maxnumberfiles><maxfilesize>0</maxfilesize>"
        "<loggers><logger>Net*</logger><logger>a?c</logger></loggers>");
    VelkorLog::init("App", false);
    EXPECT_EQ(velkorLog().getLogLevel(), ILogging::Warn);
    EXPECT_EQ(velkorLog().getMaxNumberFiles(), 4u);
    const TesselTest::LogCapture capture;
    velkorLog().log("Network", ILogging::Warn, "passes");
    velkorLog().log("Other", ILogging::Warn, "filtered");
    velkorLog().log(ILogging::Warn, "uncategorised");
    EXPECT_THAT(capture.text(), HasSubstr("[Network] passes"));
    EXPECT_THAT(capture.text(), testing::Not(HasSubstr("filtered")));
    EXPECT_THAT(capture.text(), HasSubstr(" warning uncategorised"));
}

TEST(LogConfiguration, LevelTextsMatchExactlyAndBadNumbersKeepTheDefault) {
    const std::pair<const char*, ILogging::LogLevels> cases[] = {
        {"trace", ILogging::Trace}, {"info", ILogging::Info}, {"warn", ILogging::Warn},
        {"error", ILogging::Error}, {"off", ILogging::Off},   {"Error", ILogging::Info},
    };
    const std::string file = CTempDirectory::GetTempDirectoryCurrentUser() + "levels.config";
    for (const auto& [text, level] : cases) {
        std::ofstream(file) << "<velkorlogging><minlevel>" << text
                            << "</minlevel><maxfilesize>lots</maxfilesize></velkorlogging>";
        VelkorLogConfiguration configuration;
        VelkorLogTestAccess::load(file, configuration);
        EXPECT_EQ(configuration.m_minLevel, level) << text;
        EXPECT_EQ(configuration.m_maxFileSize, 52428800u);
    }
}

TEST(LogConfiguration, CategoryPatterns) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"Net*", "Network", true}, {"Net*", "xNetwork", false}, {"a?c", "abc", true},
        {"a?c", "ac", false},      {"a.c", "a.c", true},        {"a.c", "abc", false},
        {"a.c*", "abc", true},  // a point stays the expression's any character
    };
    for (const auto& [pattern, category, active] : cases) {
        VelkorLogConfiguration configuration;
        configuration.addCategoryPattern(pattern);
        EXPECT_EQ(configuration.isActive(category), active) << pattern << " " << category;
    }
    VelkorLogConfiguration broken;
    broken.addCategoryPattern("(*");  // loads; its use throws
    EXPECT_THROW(broken.isActive("x"), std::regex_error);
}

TEST_F(Log, MalformedFileAtStartLeavesGetInstanceAndIsTriedAgain) {
    configure("<minlevel>trace</minlevel><unclosed>");
    EXPECT_THROW(ILogging::getInstance(), boost::property_tree::xml_parser_error);
    configure("<minlevel>trace</minlevel>");
    EXPECT_EQ(ILogging::getInstance().getLogLevel(), ILogging::Trace);
}

TEST_F(Log, LiveReloadChangesTheLevelAndOnlyAChangeRebuilds) {
    const std::string settings =
        "<watchintervalminutes>0</watchintervalminutes><maxnumberfiles>1</maxnumberfiles>";
    configure(settings + "<minlevel>info</minlevel>");
    touch("App_2001-01-01.log", std::time(nullptr) - 1000);  // beyond the one file kept
    VelkorLog::init("App", false);
    VelkorLog& log = velkorLog();
    const spdlog::logger* before = spdlog::default_logger_raw();
    VelkorLog::startConfigurationWatcher();
    // Every look at the file keeps house: the old file gone, the same settings were read.
    EXPECT_TRUE(eventually([&] { return !fs::exists(m_logDir + "App_2001-01-01.log"); }));
    EXPECT_EQ(spdlog::default_logger_raw(), before);

    configure(settings + "<minlevel>trace</minlevel>");
    EXPECT_TRUE(eventually([&] { return log.shouldLogLevel(ILogging::Trace); }));
    EXPECT_TRUE(eventually([&] { return spdlog::default_logger_raw() != before; }));
    VelkorLog::stopConfigurationWatcher();
    const TesselTest::LogCapture capture;
    log.log("Cat", ILogging::Trace, "now written");
    EXPECT_THAT(capture.text(), HasSubstr(" trace [Cat] now written"));
    VelkorLog::stopConfigurationWatcher();  // nothing runs: nothing happens
}

TEST_F(Log, RestartAppendsToTheHighestIndexOfTheDay) {
    for (const char* index : {"", ".2", ".7"}) {
        touch("App_" + today() + index + ".log", std::time(nullptr));
    }
    touch("App_2001-01-01.9.log", std::time(nullptr));  // another day does not count
    VelkorLog::init("App", false);
    velkorLog().log(ILogging::Error, "appended");
    std::ifstream in(m_logDir + "App_" + today() + ".7.log");
    std::string first, second;
    std::getline(in, first);
    std::getline(in, second);
    EXPECT_EQ(first, "old");
    EXPECT_THAT(second, HasSubstr(" error appended"));
}

TEST_F(Log, ProcessIdFormCountsOnlyItsOwnFiles) {
    touch("App_1_" + today() + ".3.log", std::time(nullptr));
    VelkorLog::init("App", true);
    velkorLog().log(ILogging::Error, "own file");
    const std::string own = m_logDir + "App_" +
                            std::to_string(Tessel::Platform::GetCurrentProcessId()) + "_" +
                            today() + ".log";
    EXPECT_TRUE(fs::exists(own)) << own;
    EXPECT_EQ(fs::file_size(m_logDir + "App_1_" + today() + ".3.log"), 4u);
}

TEST_F(Log, HousekeepingKeepsTheNewestFilesAcrossDatesAndProcesses) {
    VelkorLog::init("App", true);
    const std::time_t now = std::time(nullptr);
    std::vector<std::string> names;
    for (int i = 0; i < 12; ++i) {
        names.push_back("App_" + std::to_string(100 + i % 3) + "_2020-01-" +
                        std::to_string(10 + i) + (i % 2 ? ".1" : "") + ".log");
        touch(names.back(), now - 1000 + i * 10);  // names[0] is the oldest
    }
    touch("Other_1_2020-01-01.log", now - 5000);  // another application: not counted
    VelkorLog& log = velkorLog();                 // adds its own file, the newest
    log.deleteOldFiles(10);
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(fs::exists(m_logDir + names[i]), i >= 3) << names[i];
    }
    EXPECT_TRUE(fs::exists(m_logDir + "Other_1_2020-01-01.log"));
    log.deleteOldFiles(0);  // turns housekeeping off
    EXPECT_TRUE(fs::exists(m_logDir + names[3]));
}

TEST(LogFileNames, ParseIndexAndProcessId) {
    VelkorLog::s_applicationName = "App";
    using Number = std::optional<std::uint64_t>;
    // The index and the process id found in a name, nullopt for none.
    const std::tuple<const char*, Number, Number> cases[] = {
        {"App_2021-05-27.log", std::nullopt, 2021},
        {"App_4711_2021-05-27.12.log", 12, 4711},
        {"App_x.log", std::nullopt, std::nullopt},
        {"App_", std::nullopt, std::nullopt},
    };
    const auto parsed = [](auto parse, const char* name) {
        std::uint64_t found = 0;
        return parse(name, found) ? Number(found) : std::nullopt;
    };
    for (const auto& [name, index, process] : cases) {
        EXPECT_EQ(parsed(&VelkorLogTestAccess::parseFileIndex, name), index) << name;
        EXPECT_EQ(parsed(&VelkorLogTestAccess::parseProcessId, name), process) << name;
    }
    std::uint64_t index = 0;
    EXPECT_THROW(VelkorLogTestAccess::parseFileIndex("App_1.99999999999999999999.log", index),
                 std::out_of_range);
}

TEST_F(Log, UnwritableLogFolderLeavesGetInstanceWithTheSinksMessage) {
    // The folders up to the log folder may be passed through; the log folder not written.
    const std::string temp = CTempDirectory::GetTempDirectoryCurrentUser();
    const std::string root = temp.substr(0, temp.rfind('/', temp.size() - 2));
    const fs::perms readable = fs::perms::group_read | fs::perms::group_exec |
                               fs::perms::others_read | fs::perms::others_exec;
    for (const std::string& folder : {root, temp, m_appDir}) {
        fs::permissions(folder, fs::perms::owner_all | readable);
    }
    fs::permissions(m_logDir, fs::perms::owner_read | fs::perms::owner_exec | readable);
    // Built as a user who may not write the log folder: 0 when getInstance throws the message.
    const auto build = [] {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
            return 10;
        }
        try {
            ILogging::getInstance();
        } catch (const spdlog::spdlog_ex& e) {
            return std::string(e.what()).find("Failed opening file ") != std::string::npos ? 0 : 12;
        }
        return 11;
    };
    EXPECT_EQ(TesselTest::RunInChild(build), 0);
    fs::permissions(m_logDir, fs::perms::owner_all);
}

// Every message of four threads arrives once, each thread's in order, across 64 KiB files.
TEST_F(Log, SlowNoMessageIsLostAcrossRotations) {
    configure("<maxfilesize>65536</maxfilesize>");
    VelkorLog::init("Flood", false);
    constexpr int kThreads = 4, kMessages = 40000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int n = 0; n < kMessages; ++n) {
                ILogging::getInstance().log(ILogging::Info,
                                            "m " + std::to_string(t) + " " + std::to_string(n));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    // The files in the order written: by index within today's date.
    std::map<std::uint64_t, std::string> files;
    for (const auto& entry : fs::directory_iterator(m_logDir)) {
        std::uint64_t index = 0;  // no index: the day's first file
        VelkorLogTestAccess::parseFileIndex(entry.path().filename().string(), index);
        files[index] = entry.path().string();
    }
    EXPECT_GT(files.size(), 100u);
    std::vector<int> next(kThreads, 0);
    for (const auto& [index, path] : files) {
        std::ifstream in(path);
        for (std::string line; std::getline(in, line);) {
            int thread = 0, number = 0;
            ASSERT_EQ(std::sscanf(line.c_str(), "%*s %*s %*s %*s info m %d %d", &thread, &number),
                      2)
                << line;
            ASSERT_EQ(number, next[thread]) << "thread " << thread << " in " << path;
            ++next[thread];
        }
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kMessages));
}

}  // namespace
