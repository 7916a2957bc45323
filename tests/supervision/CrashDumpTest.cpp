// The crash handlers end to end: a real process (tessel_crash_peer) dies by each cause and
// leaves its pair of dump files, its log lines and the status of its death; gdb opens the
// core and shows the function that failed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/TestSupport.h"
#include "tessel/host/Registry.h"
#include "tessel/host/TempDirectory.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorProcess.h"
#include "tessel/platform/CrashHandling.h"

namespace {

using namespace TesselTest;
using testing::HasSubstr;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::string contents(const fs::path& file) {
    std::stringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

// The files a dead peer left in its temp folder.
struct Death {
    int status = -1;
    fs::path small, full;  // the .dmp and the _FULLMEM.dmp; empty if missing
    std::string log;       // all its log files
};

// Starts the peers with their causes, each with a temp folder of its own, all at once, and
// waits for their ends.
std::vector<Death> die(const std::vector<std::string>& causes) {
    std::vector<std::unique_ptr<ChildProcess>> peers;
    std::vector<fs::path> folders;
    for (std::size_t i = 0; i < causes.size(); ++i) {
        folders.push_back(fs::path(std::getenv("TMPDIR")) / ("peer" + std::to_string(i)));
        fs::remove_all(folders.back());
        fs::create_directories(folders.back());
        ChildOptions options;
        options.environment["TMPDIR"] = folders.back().string() + "/";
        options.captureError = true;
        peers.push_back(std::make_unique<ChildProcess>(
            std::vector<std::string>{TESSEL_CRASH_PEER, causes[i]}, options));
    }
    std::vector<Death> deaths;
    const std::regex name("tessel_crash_peer_[0-9]{14}(_FULLMEM)?\\.dmp");
    for (std::size_t i = 0; i < causes.size(); ++i) {
        Death death;
        death.status = peers[i]->finish(std::chrono::seconds(150));
        for (const auto& entry : fs::recursive_directory_iterator(folders[i])) {
            const std::string file = entry.path().filename().string();
            if (std::regex_match(file, name)) {
                (file.find("_FULLMEM") != std::string::npos ? death.full : death.small) =
                    entry.path();
            } else if (entry.path().parent_path().filename() == "log") {
                death.log += contents(entry.path());
            }
        }
        deaths.push_back(death);
    }
    return deaths;
}

bool isCore(const fs::path& file) {
    const std::string head = contents(file).substr(0, 18);
    return head.size() == 18 &&
           head.compare(0, 4,
                        "\x7f"
                        "ELF") == 0 &&
           head[16] == 4;  // ET_CORE
}

struct Cause {
    std::string name;
    int signal;          // that ended the peer
    const char* report;  // in the compact report
    const char* log;     // in the log, besides the two lines of every dump
    const char* frame;   // in gdb's backtrace of the core
};

void PrintTo(const Cause& cause, std::ostream* out) {
    *out << cause.name;
}

class CrashDump : public testing::TestWithParam<Cause> {
  protected:
    void SetUp() override {
        if (kSanitized) {
            GTEST_SKIP() << "the sanitizer owns the fatal signals in this build";
        }
    }
};

TEST_P(CrashDump, EndsInBothDumpsTheLogLineAndTheSignal) {
    const Cause& cause = GetParam();
    const Death death = die({cause.name})[0];
    EXPECT_EQ(death.status, 128 + cause.signal);
    ASSERT_FALSE(death.small.empty()) << death.log;
    EXPECT_THAT(contents(death.small), HasSubstr(cause.report));
    EXPECT_THAT(death.log, HasSubstr("[custom_minidump::MiniDumpHelper::UnhandledExceptionHandler]"
                                     " Dump generation started (Type[0x41106], Default[0x41106])"));
    EXPECT_THAT(death.log, HasSubstr("see dmp file in temp dir ["));
    EXPECT_THAT(death.log, HasSubstr(cause.log));
    if (!Tessel::Platform::IsProcessCoreWriterAvailable()) {
        return;  // without gcore only the report is written
    }
    ASSERT_FALSE(death.full.empty());
    ASSERT_TRUE(isCore(death.full));
    const std::string bt = RunCaptured("gdb -batch -ex bt " TESSEL_CRASH_PEER " " +
                                       death.full.string() + " 2>/dev/null");
    EXPECT_THAT(bt, HasSubstr(cause.frame));
}

INSTANTIATE_TEST_SUITE_P(
    Causes, CrashDump,
    testing::Values(
        Cause{"segv", SIGSEGV, "SIGSEGV", "StdException[no]", "CrashBySegmentationFault"},
        Cause{"fpe", SIGFPE, "SIGFPE", "StdException[no]", "CrashByDivisionByZero"},
        Cause{"abort", SIGABRT, "SIGABRT", "StdException[no]", "CrashByAbort"},
        Cause{"exception", SIGABRT, "0xC0000025", "StdException[boom]", "CrashByException"},
        Cause{"purevirtual", SIGSEGV, "SIGSEGV",
              "[CExceptionHandlerVelkor::PureVirtualFuncCallHandler] Unexpected error, will "
              "create a dump and exit now.",
              "CrashByPureVirtualCall"},
        Cause{"invalid", SIGSEGV, "SIGSEGV",
              "[CExceptionHandlerVelkor::InvalidParameterHandler] InvalidParameterHandler: "
              "Invalid parameter detected, will create a dump and exit now.",
              "CrashByInvalidParameter"},
        Cause{"overflow", SIGSEGV, "SIGSEGV", "StdException[no]", "CrashByStackOverflow"}),
    ParamName());

TEST(CrashDumps, AForeignExceptionEndsWithoutADump) {
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizer owns the fatal signals in this build";
    }
    const Death death = die({"foreign"})[0];
    EXPECT_EQ(death.status, 128 + SIGABRT);
    EXPECT_TRUE(death.small.empty() && death.full.empty());
}

// Two processes crash at once: the guard lets one write at a time, and both pairs are whole.
// The dump type below DebugService decides the second file: without full memory a report.
TEST(CrashDumps, TwoAtOnceBothCompleteAndTheRegistryTypeDecidesTheSecondFile) {
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizer owns the fatal signals in this build";
    }
    ASSERT_TRUE(
        REG::WriteLong("SOFTWARE\\Tarvo Works\\GPS Velkor\\DebugService", "MiniDumpType", 0x1104));
    for (const Death& death : die({"segv", "fpe"})) {
        ASSERT_FALSE(death.full.empty()) << death.log;
        EXPECT_FALSE(isCore(death.full));
        EXPECT_THAT(contents(death.full), HasSubstr("Fault address"));
        EXPECT_THAT(death.log, HasSubstr("Type[0x1104], Default[0x41106]"));
    }
}

// The process metrics count the dump files of their temp directory, these among them.
TEST(CrashDumps, TheProcessMetricsCountTheNewDumps) {
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizer owns the fatal signals in this build";
    }
    const Death death = die({"abort"})[0];
    ASSERT_FALSE(death.small.empty());
    CTempDirectory::SetTempDirectory(death.small.parent_path().string() + "/");
    MonitorProcess monitor;
    monitor.start();
    CMonitorElement* count =
        MonitorElementDatabase::getInstance().findOrAdd("/Server/DumpCount", "");
    const double expected = Tessel::Platform::IsProcessCoreWriterAvailable() ? 2.0 : 1.0;
    EXPECT_TRUE(eventually([&] { return count->get() == expected; }, 10s, 20ms));
}

}  // namespace
