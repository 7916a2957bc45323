// The process and its threads: identity, folders, debugger output, clocks, thread priorities,
// names and termination, and the start of other programs.
#include "tessel/platform/Process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/ParkedThread.h"
#include "support/TestSupport.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/ProcessStart.h"
#include "tessel/platform/Thread.h"

using namespace Tessel::Platform;
using PlatformTest::failureOf;

namespace {

TEST(Process, ThreadIdsAreKernelIdsOfTheirOwnInEveryThreadAndChild) {
    const DWORD mine = GetCurrentThreadId();
    EXPECT_EQ(mine, static_cast<DWORD>(::gettid()));
    EXPECT_EQ(GetCurrentProcessId(), static_cast<DWORD>(::getpid()));
    DWORD other = 0;
    std::thread([&other] { other = GetCurrentThreadId(); }).join();
    EXPECT_NE(other, mine);
    EXPECT_EQ(TesselTest::RunInChild([mine] {
                  const DWORD child = GetCurrentThreadId();
                  return child == static_cast<DWORD>(::gettid()) && child != mine ? 0 : 1;
              }),
              0);
}

TEST(Process, ApplicationDirectoryAndModulePathFollowTesselAppDir) {
    const std::string exe = GetExecutablePath();
    ASSERT_FALSE(exe.empty());
    const std::string name = exe.substr(exe.rfind('/') + 1);
    ::unsetenv("TESSEL_APP_DIR");
    EXPECT_EQ(GetApplicationDirectory(), exe.substr(0, exe.rfind('/')));
    EXPECT_EQ(GetModulePath(), exe);

    ::setenv("TESSEL_APP_DIR", "/opt/station/", 1);
    EXPECT_EQ(GetApplicationDirectory(), "/opt/station");
    EXPECT_EQ(GetModulePath(), "/opt/station/" + name);
    // The module file name is cut to the buffer.
    char buffer[260];
    EXPECT_EQ(GetModuleFileNameA(buffer, sizeof buffer), GetModulePath().size());
    EXPECT_EQ(std::string(buffer), GetModulePath());
    char small[6];
    EXPECT_EQ(GetModuleFileNameA(small, sizeof small), 6u);
    EXPECT_STREQ(small, "/opt/");
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    ::unsetenv("TESSEL_APP_DIR");
}

TEST(DebugOutput, SinkIsReplaceableAndNoDebuggerIsPresent) {
    {
        TesselTest::DebugOutputCapture capture;
        OutputDebugStringA("first");
        OutputDebugStringA(nullptr);
        OutputDebugStringA("second");
        EXPECT_EQ(capture.texts(), (std::vector<std::string>{"first", "second"}));
    }
    EXPECT_EQ(SetDebugOutputSink(nullptr), &SyslogDebugOutputSink);  // back to the default
    EXPECT_FALSE(IsDebuggerPresent());  // the suite does not run under a tracer
}

TEST(Clock, SystemTimeCountsFrom1601AndTheTickCountIsTheLowWordOfTheMillisecondClock) {
    const std::int64_t before = static_cast<std::int64_t>(::time(nullptr));
    const std::int64_t seconds = (GetSystemTimeTicks() - kUnixEpochInSystemTicks) / 10000000;
    EXPECT_GE(seconds, before);
    EXPECT_LE(seconds, static_cast<std::int64_t>(::time(nullptr)));
    const std::uint64_t wide = GetTickCount64();
    EXPECT_LE(static_cast<DWORD>(GetTickCount() - static_cast<DWORD>(wide)), 1000u);
}

// --- threads ---

TEST(Thread, NamesAreKeptToFifteenCharactersAndHandlesCountDescriptors) {
    EXPECT_TRUE(SetThreadName(GetCurrentThreadId(), "CActiveTimerWorker"));
    EXPECT_EQ(GetThreadName(GetCurrentThreadId()), "CActiveTimerWor");
    EXPECT_FALSE(SetThreadName(0x7FFFFFF0, "nobody"));
    EXPECT_EQ(GetThreadName(0x7FFFFFF0), "");

    const DWORD before = GetProcessHandleCount();
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    EXPECT_EQ(GetProcessHandleCount(), before + 2);
    ::close(fds[0]);
    ::close(fds[1]);
    EXPECT_EQ(GetProcessHandleCount(), before);
}

TEST(Thread, PrioritiesBecomeNiceValuesOfTheThread) {
    TesselTest::ParkedThread parked;
    const DWORD id = static_cast<DWORD>(parked.id());
    EXPECT_TRUE(SetThreadPriority(id, THREAD_PRIORITY_BELOW_NORMAL));
    EXPECT_EQ(::getpriority(PRIO_PROCESS, id), 5);
    EXPECT_TRUE(SetThreadPriority(id, THREAD_PRIORITY_IDLE));
    EXPECT_EQ(::getpriority(PRIO_PROCESS, id), 19);
    // A raise may be refused by the system; the call still succeeds.
    EXPECT_TRUE(SetThreadPriority(id, THREAD_PRIORITY_TIME_CRITICAL));
    EXPECT_FALSE(SetThreadPriority(id, 7));  // not a priority of the platform
    EXPECT_EQ(::getpriority(PRIO_PROCESS, GetCurrentThreadId()), 0);  // only that thread
}

TEST(Thread, TerminationEndsAThreadAtItsNextWait) {
    std::atomic<bool> started{false};
    std::thread sleeper([&] {
        started = true;
        while (true) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    ASSERT_TRUE(TesselTest::eventually([&] { return started.load(); }));
    EXPECT_TRUE(TerminateThread(sleeper.native_handle(), 0xFFFFFFFF));
    sleeper.join();  // returns because the thread was cancelled
}

// --- starting programs ---

// A new folder below the test process's temp folder.
std::string newFolder() {
    std::string pattern = std::filesystem::temp_directory_path() / "start-XXXXXX";
    return ::mkdtemp(pattern.data());
}

// Starts commandLine; the information is zeroed first.
BOOL start(std::string commandLine, PROCESS_INFORMATION& information,
           const char* environment = nullptr, const char* directory = nullptr) {
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    information = PROCESS_INFORMATION{};
    return CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0,
                          const_cast<char*>(environment), directory, &startup, &information);
}

TEST(ProcessStart, SplitsAtBlanksTakesEnvironmentAndFolderAndSignalsTheEnd) {
    const std::string dir = newFolder();
    PROCESS_INFORMATION information;
    const char environment[] = "TESSEL_ONE=1\0TESSEL_TWO=two\0";
    ASSERT_EQ(start("sh  -c\tpwd>out;env>>out", information, environment, dir.c_str()), TRUE);
    EXPECT_GT(information.dwProcessId, 0u);
    EXPECT_EQ(information.dwThreadId, information.dwProcessId);
    EXPECT_EQ(information.hThread, nullptr);
    ASSERT_NE(information.hProcess, nullptr);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, 0), WAIT_OBJECT_0);
    std::stringstream out;
    out << std::ifstream(dir + "/out").rdbuf();
    EXPECT_EQ(out.str().substr(0, out.str().find('\n')), std::filesystem::canonical(dir).string());
    EXPECT_NE(out.str().find("TESSEL_ONE=1\n"), std::string::npos);
    EXPECT_NE(out.str().find("TESSEL_TWO=two\n"), std::string::npos);
    // Reaped without anybody asking: no zombie remains.
    const std::string entry = "/proc/" + std::to_string(information.dwProcessId);
    EXPECT_TRUE(TesselTest::eventually([&] { return !std::filesystem::exists(entry); }));
    EXPECT_EQ(CloseHandle(information.hProcess), TRUE);
}

TEST(ProcessStart, InheritsOnlyTheStandardDescriptors) {
    // Two inheritable descriptors of a file of the test's own, a low and a high one.
    const std::string marker = newFolder() + "/marker";
    const int low = ::open(marker.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(low, 3);
    ASSERT_EQ(::dup2(low, 200), 200);
    PROCESS_INFORMATION information;
    ASSERT_EQ(start("sleep 30", information), TRUE);
    // The program's own start-up may open files of its own meanwhile; none is the marker.
    const std::string folder = "/proc/" + std::to_string(information.dwProcessId) + "/fd";
    std::error_code error;
    for (const auto& fd : std::filesystem::directory_iterator(folder, error)) {
        std::error_code gone;  // a descriptor closed meanwhile
        EXPECT_NE(std::filesystem::read_symlink(fd.path(), gone).string(), marker)
            << "descriptor " << fd.path().filename();
    }
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(::kill(static_cast<pid_t>(information.dwProcessId), SIGTERM), 0);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, INFINITE), WAIT_OBJECT_0);
    CloseHandle(information.hProcess);
    ::close(low);
    ::close(200);
}

TEST(ProcessStart, ReportsWhatItCannotStart) {
    PROCESS_INFORMATION information;
    EXPECT_EQ(failureOf(start("tessel-no-such-program-anywhere /x", information)),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(failureOf(start("  \t ", information)), ERROR_INVALID_PARAMETER);
    const std::string notExecutable = newFolder() + "/plain";
    std::ofstream(notExecutable) << "text\n";
    EXPECT_EQ(failureOf(start(notExecutable, information)), ERROR_ACCESS_DENIED);
}

}  // namespace
