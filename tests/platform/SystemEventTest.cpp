#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/SystemEvent.h"

using namespace Tessel::Platform;

namespace {

// A name of this test process's own.
std::string uniqueName(const char* what) {
    static std::atomic<int> counter{0};
    return std::string("Global\\tessel-test-") + what + "-" +
           std::to_string(GetCurrentProcessId()) + "-" + std::to_string(counter++);
}

}  // namespace

TEST(SystemEvent, SetByNameReleasesOneWaitAndResetsItself) {
    const std::string name = uniqueName("set");
    HANDLE event = CreateSystemEvent(name.c_str());
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);

    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);

    // Two Sets before a wait set the event once.
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_EQ(CloseHandle(event), TRUE);
}

TEST(SystemEvent, WakesAThreadThatWaits) {
    const std::string name = uniqueName("wake");
    HANDLE event = CreateSystemEvent(name.c_str());
    ASSERT_NE(event, nullptr);
    std::atomic<DWORD> result{WAIT_FAILED};
    std::thread waiter([&] { result = WaitForSingleObject(event, INFINITE); });
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    waiter.join();
    EXPECT_EQ(result.load(), WAIT_OBJECT_0);

    // Among other objects, too.
    HANDLE other = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE both[2] = {other, event};
    std::atomic<DWORD> any{WAIT_FAILED};
    std::thread anyWaiter([&] { any = WaitForMultipleObjects(2, both, FALSE, INFINITE); });
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    anyWaiter.join();
    EXPECT_EQ(any.load(), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(SetEvent(other), TRUE);
    EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    CloseHandle(other);
    CloseHandle(event);
}

TEST(SystemEvent, SecondCreateInTheProcessSharesTheEvent) {
    const std::string name = uniqueName("shared");
    HANDLE first = CreateSystemEvent(name.c_str());
    ASSERT_NE(first, nullptr);
    HANDLE second = CreateSystemEvent(name.c_str());
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_NE(first, second);

    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);

    // The name lives until its last handle is closed.
    EXPECT_EQ(CloseHandle(first), TRUE);
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(CloseHandle(second), TRUE);
    EXPECT_EQ(SetSystemEvent(name.c_str()), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST(SystemEvent, NameHeldElsewhereGivesAHandleThatNeverSignals) {
    // A socket bound to the name outside the event table stands for another process.
    const std::string name = uniqueName("foreign");
    const std::string key = name.substr(std::strlen("Global\\"));
    const int holder = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(holder, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, key.data(), key.size());
    ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address),
                     static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + key.size())),
              0);

    HANDLE event = CreateSystemEvent(name.c_str());
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    char byte = 0;
    EXPECT_EQ(::recv(holder, &byte, 1, MSG_DONTWAIT), 1);  // the holder got the Set
    EXPECT_EQ(CloseHandle(event), TRUE);
    ::close(holder);
}

TEST(SystemEvent, RefusesBadNames) {
    EXPECT_EQ(CreateSystemEvent(nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CreateSystemEvent(""), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CreateSystemEvent(std::string(108, 'n').c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(SetSystemEvent(std::string(108, 'n').c_str()), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);

    HANDLE longest = CreateSystemEvent(std::string(107, 'n').c_str());
    EXPECT_NE(longest, nullptr);
    CloseHandle(longest);
}
