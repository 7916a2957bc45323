// The process and its threads: identity, folders, debugger output, clocks, thread priorities,
// names and termination, the start of other programs; error numbers and their texts, and
// checked printing into fixed buffers.
#include "tessel/platform/Process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
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
#include "tessel/host/Util.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/ErrorText.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/ProcessStart.h"
#include "tessel/platform/Thread.h"

using namespace Tessel::Platform;
using PlatformTest::failureOf;
using TesselTest::InvalidParameterError;

namespace {

TEST(Process, ThreadIdsAreKernelIdsOfTheirOwnInEveryThreadAndChildAndHandlesAreDescriptors) {
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

    const DWORD before = GetProcessHandleCount();
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    EXPECT_EQ(GetProcessHandleCount(), before + 2);
    ::close(fds[0]);
    ::close(fds[1]);
    EXPECT_EQ(GetProcessHandleCount(), before);
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

TEST(Thread, NamesAreKeptToFifteenCharactersAndPrioritiesBecomeNiceValuesOfTheThread) {
    TesselTest::ParkedThread parked;
    const DWORD id = static_cast<DWORD>(parked.id());
    EXPECT_TRUE(SetThreadName(id, "CActiveTimerWorker"));
    EXPECT_EQ(GetThreadName(id), "CActiveTimerWor");
    EXPECT_FALSE(SetThreadName(0x7FFFFFF0, "nobody"));
    EXPECT_EQ(GetThreadName(0x7FFFFFF0), "");

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
    const auto targets = PlatformTest::descriptorTargets(std::to_string(information.dwProcessId));
    EXPECT_EQ(std::ranges::count(targets, marker), 0);
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

// --- error numbers and texts, checked print ---

constexpr DWORD kFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;

TEST(LastError, ErrnoValuesMapToPlatformNumbers) {
    EXPECT_EQ(SetLastErrorFromErrno(ENOENT), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(SetLastErrorFromErrno(ENOTDIR), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(SetLastErrorFromErrno(EACCES), ERROR_ACCESS_DENIED);
    EXPECT_EQ(SetLastErrorFromErrno(EEXIST), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(SetLastErrorFromErrno(EINVAL), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SetLastErrorFromErrno(ENOSPC), ERROR_DISK_FULL);
    EXPECT_EQ(SetLastErrorFromErrno(0), ERROR_SUCCESS);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(HresultFromError(ERROR_ACCESS_DENIED), static_cast<std::int32_t>(0x80070005u));
    EXPECT_EQ(HresultFromError(0), 0);
}

TEST(ErrorText, SystemTextsEndInCrLfAndLeaveTheLastErrorAndFailuresSetIt) {
    const struct {
        DWORD error;
        const char* text;
    } cases[] = {
        {2, "The system cannot find the file specified.\r\n"},
        {1460, "This operation returned because the timeout period expired.\r\n"},
        {0x80070005u, "Access is denied.\r\n"},  // in HRESULT form
    };
    for (const auto& c : cases) {
        char buffer[256];
        SetLastError(12345);
        EXPECT_EQ(FormatMessageA(kFlags, nullptr, c.error, 0, buffer, 256, nullptr),
                  std::strlen(c.text));
        EXPECT_STREQ(buffer, c.text);
        EXPECT_EQ(GetLastError(), 12345u);  // success leaves it alone
    }
    // Every error number that the platform layer reports has a one-line text.
    for (DWORD error :
         {0,   1,   2,   3,   4,    5,    6,    8,    14,   21,   29,   30,   32,   33,
          38,  50,  80,  87,  109,  112,  122,  123,  145,  170,  183,  206,  234,  259,
          288, 317, 995, 997, 1009, 1010, 1011, 1012, 1013, 1018, 1060, 1224, 1460, 1630}) {
        char text[256];
        ASSERT_GT(FormatMessageA(kFlags, nullptr, error, 0, text, 256, nullptr), 2u) << error;
        EXPECT_EQ(CUtil::CleanUnprintableString(text, sizeof(text)), 1) << error;
        EXPECT_EQ(text[std::strlen(text) - 1], '.') << error;
    }

    // Failures empty the buffer where there is room, and set the last error.
    const struct {
        DWORD flags, error, size, lastError;
    } failures[] = {
        {kFlags, ERROR_ACCESS_DENIED, 20, 0},  // "Access is denied.\r\n" and its NUL fit
        {FORMAT_MESSAGE_FROM_SYSTEM, ERROR_ACCESS_DENIED, 20, 0},  // no inserts to ignore
        {kFlags, ERROR_ACCESS_DENIED, 19, ERROR_INSUFFICIENT_BUFFER},
        {kFlags, ERROR_ACCESS_DENIED, 0, ERROR_INSUFFICIENT_BUFFER},
        {kFlags, 7, 64, ERROR_MR_MID_NOT_FOUND},
        {FORMAT_MESSAGE_FROM_SYSTEM, ERROR_MR_MID_NOT_FOUND, 200, ERROR_INVALID_PARAMETER},  // %1
        {FORMAT_MESSAGE_IGNORE_INSERTS, ERROR_ACCESS_DENIED, 64, ERROR_INVALID_PARAMETER},
        {kFlags | FORMAT_MESSAGE_ALLOCATE_BUFFER, ERROR_ACCESS_DENIED, 64, ERROR_INVALID_PARAMETER},
    };
    for (const auto& c : failures) {
        SCOPED_TRACE(testing::Message() << c.flags << " " << c.error << " size " << c.size);
        char buffer[256];
        std::memset(buffer, 'X', sizeof(buffer));
        SetLastError(0);
        const DWORD written = FormatMessageA(c.flags, nullptr, c.error, 0, buffer, c.size, nullptr);
        EXPECT_EQ(GetLastError(), c.lastError);
        EXPECT_EQ(written, c.lastError == 0 ? c.size - 1 : 0);
        if (c.lastError != 0) {
            EXPECT_EQ(buffer[0], c.size > 0 ? '\0' : 'X');
            EXPECT_EQ(buffer[1], 'X');
        }
    }
}

// --- checked print ---

void ignoringHandler(const char*, const char*, const char*, unsigned int) {}

TEST(CheckedPrint, TextThatDoesNotFitIsAnInvalidParameterUnlessACountedPrintMayCutIt) {
    char buffer[8];
    EXPECT_EQ(sprintf_s(buffer, sizeof buffer, "%s%d", "ab", 1234), 6);
    EXPECT_STREQ(buffer, "ab1234");
    EXPECT_EQ(sprintf_s(buffer, sizeof buffer, "%s", "1234567"), 7);  // exactly fits
    {
        TesselTest::InvalidParameterThrows throws;
        std::memset(buffer, 'z', sizeof buffer);
        EXPECT_THROW(sprintf_s(buffer, sizeof buffer, "%s", "12345678"), InvalidParameterError);
        EXPECT_EQ(buffer[0], '\0');  // emptied, and nothing written past the end
        EXPECT_THROW(sprintf_s(nullptr, 4, "x"), InvalidParameterError);
        EXPECT_THROW(sprintf_s(buffer, 0, "x"), InvalidParameterError);
        // So is a count past the buffer for output that does not fit.
        EXPECT_EQ(_snprintf_s(buffer, 4, 10, "%s", "ab"), 2);
        EXPECT_THROW(_snprintf_s(buffer, 4, 10, "%s", "abcdef"), InvalidParameterError);
    }
    // A handler that returns gives -1.
    const InvalidParameterHandler previous = SetInvalidParameterHandler(&ignoringHandler);
    EXPECT_EQ(sprintf_s(buffer, 4, "%s", "toolong"), -1);
    EXPECT_STREQ(buffer, "");
    SetInvalidParameterHandler(previous);
    EXPECT_EQ(GetInvalidParameterHandler(), previous);

    // A counted print may cut the text instead: to the buffer, or at the count.
    EXPECT_EQ(_snprintf_s(buffer, sizeof buffer, _TRUNCATE, "%s", "abcdefg"), 7);
    EXPECT_EQ(_snprintf_s(buffer, sizeof buffer, _TRUNCATE, "%s", "abcdefgh"), -1);
    EXPECT_STREQ(buffer, "abcdefg");
    EXPECT_EQ(_snprintf_s(buffer, sizeof buffer, 3, "%s", "abcdef"), -1);
    EXPECT_STREQ(buffer, "abc");
}

TEST(CheckedPrint, DefaultHandlerAborts) {
    EXPECT_DEATH(
        {
            char buffer[4];
            sprintf_s(buffer, sizeof buffer, "%s", "toolong");
        },
        "Invalid parameter");
}

}  // namespace
