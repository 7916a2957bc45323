#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "support/TestSupport.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;

namespace {

TEST(Process, ThreadIdsAreKernelIdsAndDifferPerThread) {
    const DWORD mine = GetCurrentThreadId();
    EXPECT_EQ(mine, static_cast<DWORD>(::gettid()));
    DWORD other = 0;
    std::thread([&other] { other = GetCurrentThreadId(); }).join();
    EXPECT_NE(other, mine);
    EXPECT_EQ(GetCurrentProcessId(), static_cast<DWORD>(::getpid()));
}

TEST(Process, ForkedChildHasItsOwnThreadId) {
    const DWORD parent = GetCurrentThreadId();
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const DWORD ids[2] = {GetCurrentThreadId(), static_cast<DWORD>(::gettid())};
        const ssize_t n = ::write(fds[1], ids, sizeof ids);
        ::_exit(n == sizeof ids ? 0 : 1);
    }
    DWORD ids[2] = {};
    ASSERT_EQ(::read(fds[0], ids, sizeof ids), static_cast<ssize_t>(sizeof ids));
    ::close(fds[0]);
    ::close(fds[1]);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(ids[0], ids[1]);
    EXPECT_NE(ids[0], parent);
}

TEST(Process, ApplicationDirectoryFollowsTesselAppDir) {
    const std::string exe = GetExecutablePath();
    ASSERT_FALSE(exe.empty());
    const std::string folder = exe.substr(0, exe.rfind('/'));
    const std::string name = exe.substr(exe.rfind('/') + 1);

    ::unsetenv("TESSEL_APP_DIR");
    EXPECT_EQ(GetApplicationDirectory(), folder);
    EXPECT_EQ(GetModulePath(), exe);

    ::setenv("TESSEL_APP_DIR", "/opt/station/", 1);
    EXPECT_EQ(GetApplicationDirectory(), "/opt/station");
    EXPECT_EQ(GetModulePath(), "/opt/station/" + name);
    ::unsetenv("TESSEL_APP_DIR");
}

TEST(Process, ModuleFileNameCutsToTheBuffer) {
    ::setenv("TESSEL_APP_DIR", "/opt", 1);
    char buffer[260];
    const DWORD length = GetModuleFileNameA(buffer, sizeof buffer);
    EXPECT_EQ(std::string(buffer), GetModulePath());
    EXPECT_EQ(length, std::strlen(buffer));
    char small[6];
    EXPECT_EQ(GetModuleFileNameA(small, sizeof small), 6u);
    EXPECT_STREQ(small, "/opt/");
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    ::unsetenv("TESSEL_APP_DIR");
}

TEST(DebugOutput, SinkIsReplaceable) {
    {
        TesselTest::DebugOutputCapture capture;
        OutputDebugStringA("first");
        OutputDebugStringA(nullptr);
        OutputDebugStringA("second");
        EXPECT_EQ(capture.texts(), (std::vector<std::string>{"first", "second"}));
    }
    // Back to the default sink.
    EXPECT_EQ(SetDebugOutputSink(nullptr), &SyslogDebugOutputSink);
}

TEST(DebugOutput, NoDebuggerUnderTest) {
    // The suite is not run under a tracer; gdb would make this true.
    EXPECT_FALSE(IsDebuggerPresent());
}

TEST(LastError, ErrnoValuesMapToPlatformNumbers) {
    struct {
        int e;
        DWORD error;
    } const cases[] = {
        {ENOENT, ERROR_FILE_NOT_FOUND},
        {ENOTDIR, ERROR_PATH_NOT_FOUND},
        {EACCES, ERROR_ACCESS_DENIED},
        {EEXIST, ERROR_ALREADY_EXISTS},
        {EINVAL, ERROR_INVALID_PARAMETER},
        {ENOSPC, ERROR_DISK_FULL},
        {0, ERROR_SUCCESS},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SetLastErrorFromErrno(c.e), c.error) << c.e;
        EXPECT_EQ(GetLastError(), c.error);
    }
    EXPECT_EQ(HresultFromError(ERROR_ACCESS_DENIED), static_cast<std::int32_t>(0x80070005u));
    EXPECT_EQ(HresultFromError(0), 0);
}

}  // namespace
