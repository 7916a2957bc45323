// The watchdog client against the fake watchdog program (tools/tessel-fake-watchdog), started
// by the client as a real second process found on PATH. The fake records its command line and
// every message in a file before it answers: a message is recorded once its send returned.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/TestSupport.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Process.h"
#include "tessel/supervision/WatchdogClient.h"
#include "tessel/threads/ActiveObject.h"

using namespace std::chrono_literals;
using Tessel::Platform::FALSE;
using namespace std::string_literals;
using Strings = std::vector<std::string>;
using Type = CWatchdogMessage::enumWatchDogMessageType;

namespace {

// Opens the protected side of the client to the tests.
class TestClient : public CWatchdogClient {
  public:
    using CWatchdogClient::SendMessageA;
    HANDLE event() const { return m_hEvent; }
};

std::string pid() {
    return std::to_string(Tessel::Platform::GetCurrentProcessId());
}

long currentThread() {
    return static_cast<long>(Tessel::Platform::GetCurrentThreadId());
}

// A message as the fake records it, less its raw bytes.
std::string message(int type, long long thread, long long data, const std::string& text) {
    return "type=" + std::to_string(type) + " size=280 thread=" + std::to_string(thread) +
           " data=" + std::to_string(data) + " text=" + text;
}

class WatchdogClientTest : public testing::Test {
  protected:
    void SetUp() override { ::setenv("TESSEL_FAKE_WATCHDOG_LOG", m_log.c_str(), 1); }

    void TearDown() override {
        // Every watchdog started must be gone, so that none outlives the test.
        EXPECT_TRUE(TesselTest::eventually(
            [this] { return lines("TarvoWD.exe").size() == lines("end ").size(); }, 10s, 10ms))
            << "a watchdog did not end";
    }

    // The recorded lines that begin with prefix ("" for all).
    std::vector<std::string> lines(const std::string& prefix = "") const {
        std::vector<std::string> found;
        std::ifstream in(m_log);
        for (std::string line; std::getline(in, line);) {
            if (line.rfind(prefix, 0) == 0) {
                found.push_back(line);
            }
        }
        return found;
    }

    // The messages recorded so far, each less its raw bytes.
    std::vector<std::string> messages() const {
        std::vector<std::string> found = lines("type=");
        for (std::string& line : found) {
            const std::size_t raw = line.find(" raw=");
            line.erase(raw, line.find(" text=") - raw);
        }
        return found;
    }

    bool watchdogEnded() const {
        return TesselTest::eventually(
            [this] { return !lines().empty() && lines().back().rfind("end ", 0) == 0; }, 10s, 10ms);
    }

    const std::string m_dir = std::getenv("TMPDIR");
    const std::string m_log = m_dir + "/watchdog.log";
};

// The tests that need the fake watchdog first on PATH.
class WithFake : public WatchdogClientTest {
  protected:
    void SetUp() override {
        WatchdogClientTest::SetUp();
#ifdef TESSEL_FAKE_WATCHDOG_DIR
        ::setenv("PATH", (TESSEL_FAKE_WATCHDOG_DIR ":"s + std::getenv("PATH")).c_str(), 1);
#else
        GTEST_SKIP() << "built without the fake watchdog";
#endif
    }
};

TEST(WatchdogMessage, CopyAndClearCoverTheWholeRecord) {
    CWatchdogMessage message;
    const unsigned char zeros[sizeof message] = {};
    EXPECT_EQ(std::memcmp(&message, zeros, sizeof zeros), 0);
    // Assignment copies all 280 bytes, padding included; Clear zeroes them.
    CWatchdogMessage filled;
    std::memset(static_cast<void*>(&filled), 0x5A, sizeof filled);
    message = filled;
    EXPECT_EQ(std::memcmp(&message, &filled, sizeof filled), 0);
    CWatchdogMessage moved;
    moved = std::move(filled);
    EXPECT_EQ(std::memcmp(&moved, &message, sizeof message), 0);
    message.Clear();
    EXPECT_EQ(std::memcmp(&message, zeros, sizeof zeros), 0);
}

TEST(WatchdogSimpleHandle, ClosesAndCopiesTheRawHandle) {
    using Tessel::Platform::CloseHandle;
    using Tessel::Platform::HANDLE;
    CWatchdogClient::CSimpleHandle empty;
    EXPECT_EQ(static_cast<HANDLE>(empty), nullptr);
    empty.Close();  // nothing held: nothing happens

    HANDLE first = Tessel::Platform::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE second = Tessel::Platform::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    {
        CWatchdogClient::CSimpleHandle owner(first);
        CWatchdogClient::CSimpleHandle copy;
        copy = owner;  // both own first now
        EXPECT_EQ(static_cast<HANDLE>(copy), first);
        copy.Attach(second);  // first stays open
        EXPECT_EQ(static_cast<HANDLE>(copy), second);
        owner.Close();
        EXPECT_EQ(static_cast<HANDLE>(owner), nullptr);
        EXPECT_EQ(CloseHandle(first), FALSE);  // closed by Close
    }
    EXPECT_EQ(CloseHandle(second), FALSE);  // closed by the destructor of copy
}

TEST_F(WatchdogClientTest, SlowWithoutAWatchdogNothingIsSentAndCreateFails) {
    ::setenv("PATH", m_dir.c_str(), 1);  // only a folder without TarvoWD.exe
    {
        TestClient client;
        for (int type = 0; type <= 5; ++type) {  // no window: nothing is sent
            EXPECT_EQ(client.SendMessageA(static_cast<Type>(type), currentThread(), "x", 1), 0);
        }
        // The program is not found: a failure, but the client keeps the event.
        EXPECT_EQ(client.CreateWatchdog(0, 10, 60, 0), 0);
        EXPECT_NE(client.event(), nullptr);
        EXPECT_EQ(client.CreateWatchdog(0, 10, 60, 0), 1);
    }
    // A program that ends without setting the start event: the client waits its 2000 ms.
    const std::string program = m_dir + "/TarvoWD.exe";
    std::ofstream(program) << "#!/bin/sh\nexit 0\n";
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
    TestClient client;
    EXPECT_EQ(client.CreateWatchdog(1, 10, 60, 0), 0);
    EXPECT_EQ(client.event(), nullptr);  // given up again
}

TEST_F(WithFake, EachTypeCarriesItsThreadDataAndTheFormerText) {
    const long self = currentThread();
    long other = 0;
    void* idle = reinterpret_cast<void*>(&CWatchdogClient::APCIdleHandler);
    {
        TestClient client;
        ASSERT_EQ(client.CreateWatchdog(0, 10, 60, 0), 1);
        ASSERT_EQ(client.SendMessageA(CWatchdogMessage::eWatchDogLongOperationIsOk, 0x01020304,
                                      "layout", 0x1122334455667788LL),
                  1);
        // Thread id, padding, data, and the text with its NUL, all little-endian.
        const std::string line = lines("type=").at(0);
        EXPECT_EQ(line.substr(line.find(" raw=") + 5, 46),
                  "04030201000000008877665544332211" + "6c61796f757400"s);
        EXPECT_EQ(line.find(" text="), line.find(" raw=") + 5 + 2 * 280);
        client.SetWatchdogThreadInfo("Main", 0);
        client.SetWatchdogThreadInfo("Worker", 5);
        client.NotifyWatchdogThisThreadClosing();
        client.NotifyWatchdogThreadClosing(4242);
        client.NotifyWatchdogLongOperationIsOk(77);
        client.SetWatchdogThreadIdleHandler(idle);
        client.NotifyUnhandledExceptionHandlerCalled();
        std::thread([&other] {
            other = currentThread();
            CWatchdogClient::APCIdleHandler(0);
        }).join();
        client.ShutdownWatchdog();
    }
    ASSERT_TRUE(watchdogEnded());
    EXPECT_EQ(lines("TarvoWD.exe"), Strings{"TarvoWD.exe /P " + pid() + " /H /I 10 /T 60 /B 0"});
    EXPECT_NE(other, self);
    EXPECT_EQ(messages(),
              (Strings{
                  message(2, 0x01020304, 0x1122334455667788LL, "layout"),
                  message(0, self, 1, "Main"),
                  message(0, self, 2, "Worker"),
                  message(1, self, 0, "Worker"),
                  message(1, 4242, 0, "Worker"),
                  message(2, self, 77, "Worker"),
                  message(4, self, reinterpret_cast<std::intptr_t>(idle), "Worker"),
                  message(5, self, 0, "Worker"),
                  message(2, other, 0, ""),  // the idle routine's own client has an empty record
                  message(3, 0, 0, "Worker"),
              }));
    EXPECT_EQ(lines().back(), "end shutdown");
}

TEST_F(WithFake, OnlyAnOwnerShutsDownAndASecondCreateMakesAnOwnerWithoutAWatchdog) {
    TestClient owner;
    ASSERT_EQ(owner.CreateWatchdog(1, 1, 2, 3), 1);  // shown: no /H
    const CWatchdogClient::HANDLE event = owner.event();
    EXPECT_EQ(owner.CreateWatchdog(0, 10, 60, 0), 1);
    EXPECT_EQ(owner.event(), event);
    const std::string longest(259, 'n');
    {
        TestClient other;  // holds no event
        other.ShutdownWatchdog();
        EXPECT_EQ(other.SendMessageA(CWatchdogMessage::eWatchDogShutdown, 0, nullptr, 0), 0);
        // The window is there all the same: other messages go through, if their text fits.
        TesselTest::InvalidParameterThrows throws;
        other.SetWatchdogThreadInfo(longest.c_str(), 0);
        EXPECT_THROW(other.SetWatchdogThreadInfo((longest + "n").c_str(), 0),
                     TesselTest::InvalidParameterError);
    }
    const Strings info{message(0, currentThread(), 1, longest)};
    EXPECT_EQ(messages(), info);
    {
        TestClient second;
        EXPECT_EQ(second.CreateWatchdog(0, 10, 60, 0), 0);
        EXPECT_NE(second.event(), nullptr);
        EXPECT_EQ(second.CreateWatchdog(0, 10, 60, 0), 1);  // held: no second watchdog
        EXPECT_EQ(messages(), info);
        // Holding the event makes it an owner: its destruction says goodbye.
    }
    ASSERT_TRUE(watchdogEnded());
    EXPECT_EQ(lines("TarvoWD.exe"), Strings{"TarvoWD.exe /P " + pid() + " /I 1 /T 2 /B 3"});
    EXPECT_EQ(messages(), (Strings{info[0], message(3, 0, 0, "")}));
}

// A worker that never stops by itself is ended by force, after the watchdog was told.
unsigned long neverStop(void*) {
    while (true) {
        std::this_thread::sleep_for(10ms);
    }
    return 0;
}

TEST_F(WithFake, SlowForcedStopTellsTheWatchdogFirst) {
    CWatchdogClient owner;
    ASSERT_EQ(owner.CreateWatchdog(0, 10, 60, 0), 1);
    CActiveObject stubborn("Stubborn", &neverStop, nullptr, 100);
    unsigned long id = 0;
    ASSERT_EQ(stubborn.StartThread(__FILE__, __LINE__, "test", 0, &id, 0), 1);
    EXPECT_EQ(stubborn.StopThread(), 1);
    EXPECT_EQ(messages(), Strings{message(1, static_cast<long long>(id), 0, "")});  // closing
    EXPECT_EQ(stubborn.GetThreadExitCode(), 0xFFFFFFFFu);
}

}  // namespace
