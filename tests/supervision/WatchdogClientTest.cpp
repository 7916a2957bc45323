// The watchdog client against the fake watchdog program (tools/tessel-fake-watchdog), started
// by the client as a real second process found on PATH. The fake records its command line and
// every message it receives in a log file before it answers, so that a message is in the log
// once its send has returned.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/ScratchRegistry.h"
#include "support/TestSupport.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Process.h"
#include "tessel/supervision/WatchdogClient.h"
#include "tessel/supervision/WatchdogMessage.h"
#include "tessel/threads/ActiveObject.h"

using Tessel::Platform::FALSE;
using Tessel::Platform::GetCurrentProcessId;
using Tessel::Platform::GetCurrentThreadId;

namespace {

// Opens the protected side of the client to the tests.
class TestClient : public CWatchdogClient {
  public:
    using CWatchdogClient::SendMessageA;
    HANDLE event() const { return m_hEvent; }
    const CWatchdogMessage* message() const { return m_pMessage; }
};

long currentThread() {
    return static_cast<long>(GetCurrentThreadId());
}

// One message as the fake recorded it.
struct Received {
    std::uint64_t type = 0;
    std::size_t size = 0;
    long long thread = 0;
    long long data = 0;
    std::vector<unsigned char> raw;
    std::string text;
};

std::string field(const std::string& line, const std::string& name) {
    const std::size_t at = line.find(" " + name + "=");
    if (at == std::string::npos) {
        return std::string();
    }
    const std::size_t begin = at + name.size() + 2;
    return line.substr(begin, line.find(' ', begin) - begin);
}

Received parseMessage(const std::string& line) {
    Received message;
    EXPECT_EQ(line.rfind("type=", 0), 0u) << line;
    message.type = std::stoull(line.substr(5, line.find(' ') - 5));
    message.size = std::stoul(field(line, "size"));
    message.thread = std::stoll(field(line, "thread"));
    message.data = std::stoll(field(line, "data"));
    const std::string raw = field(line, "raw");
    for (std::size_t i = 0; i + 1 < raw.size(); i += 2) {
        message.raw.push_back(
            static_cast<unsigned char>(std::stoul(raw.substr(i, 2), nullptr, 16)));
    }
    const std::size_t text = line.find(" text=");
    message.text = text == std::string::npos ? std::string() : line.substr(text + 6);
    return message;
}

bool isCommandLine(const std::string& line) {
    return line.rfind("TarvoWD.exe", 0) == 0;
}

bool isEnd(const std::string& line) {
    return line.rfind("end ", 0) == 0;
}

class WatchdogClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/tessel-watchdog-XXXXXX";
        ASSERT_NE(::mkdtemp(name), nullptr);
        m_dir = name;
        m_log = m_dir + "/watchdog.log";
        ::setenv("TESSEL_FAKE_WATCHDOG_LOG", m_log.c_str(), 1);
        const char* path = std::getenv("PATH");
        m_savedPath = path != nullptr ? path : "";
    }

    void TearDown() override {
        // Every watchdog started must be gone, so that the next test may start its own.
        if (!waitFor([this] {
                std::size_t started = 0, ended = 0;
                for (const std::string& line : logLines()) {
                    started += isCommandLine(line) ? 1 : 0;
                    ended += isEnd(line) ? 1 : 0;
                }
                return started == ended;
            })) {
            ADD_FAILURE() << "a watchdog did not end";
        }
        ::setenv("PATH", m_savedPath.c_str(), 1);
        ::unsetenv("TESSEL_FAKE_WATCHDOG_LOG");
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }

    // Puts folder first on PATH.
    void searchFirst(const std::string& folder) {
        ::setenv("PATH", (folder + ":" + m_savedPath).c_str(), 1);
    }

    // Puts the fake watchdog first on PATH; false if the build has none.
    bool useFake() {
#ifdef TESSEL_FAKE_WATCHDOG_DIR
        searchFirst(TESSEL_FAKE_WATCHDOG_DIR);
        return true;
#else
        return false;
#endif
    }

    std::vector<std::string> logLines() const {
        std::vector<std::string> lines;
        std::ifstream in(m_log);
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    // The messages recorded so far.
    std::vector<Received> messages() const {
        std::vector<Received> result;
        for (const std::string& line : logLines()) {
            if (line.rfind("type=", 0) == 0) {
                result.push_back(parseMessage(line));
            }
        }
        return result;
    }

    std::vector<std::string> commandLines() const {
        std::vector<std::string> result;
        for (const std::string& line : logLines()) {
            if (isCommandLine(line)) {
                result.push_back(line);
            }
        }
        return result;
    }

    // Waits, for at most 10 seconds, until condition holds.
    template <typename Condition>
    static bool waitFor(Condition condition) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!condition()) {
            if (std::chrono::steady_clock::now() >= end) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }

    bool watchdogEnded() const {
        return waitFor([this] {
            const std::vector<std::string> lines = logLines();
            return !lines.empty() && isEnd(lines.back());
        });
    }

    std::string m_dir;
    std::string m_log;
    std::string m_savedPath;
};

std::string pidText() {
    return std::to_string(GetCurrentProcessId());
}

}  // namespace

TEST(WatchdogMessage, RecordLayout) {
    EXPECT_EQ(sizeof(CWatchdogMessage), 280u);
    EXPECT_EQ(offsetof(CWatchdogMessage, m_lThreadId), 0u);
    EXPECT_EQ(offsetof(CWatchdogMessage, m_llData), 8u);
    EXPECT_EQ(offsetof(CWatchdogMessage, m_szText), 16u);
    EXPECT_EQ(sizeof(CWatchdogMessage::m_szText), 260u);

    CWatchdogMessage message;
    const unsigned char zeros[280] = {};
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

    EXPECT_EQ(CWatchdogMessage::eWatchDogThreadInfo, 0);
    EXPECT_EQ(CWatchdogMessage::eWatchDogThreadClosing, 1);
    EXPECT_EQ(CWatchdogMessage::eWatchDogLongOperationIsOk, 2);
    EXPECT_EQ(CWatchdogMessage::eWatchDogShutdown, 3);
    EXPECT_EQ(CWatchdogMessage::eWatchDogThreadIdleHandler, 4);
    EXPECT_EQ(CWatchdogMessage::eWatchDogUnhandledException, 5);
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

TEST_F(WatchdogClientTest, WithoutWatchdogEverythingIsSilent) {
    searchFirst(m_dir);  // no TarvoWD.exe anywhere before the usual folders
    {
        TestClient client;
        client.SetWatchdogThreadInfo("quiet", 1);
        client.NotifyWatchdogThisThreadClosing();
        client.NotifyWatchdogThreadClosing(42);
        client.NotifyWatchdogLongOperationIsOk(7);
        client.SetWatchdogThreadIdleHandler(
            reinterpret_cast<void*>(&CWatchdogClient::APCIdleHandler));
        client.NotifyUnhandledExceptionHandlerCalled();
        client.ShutdownWatchdog();
        CWatchdogClient::APCIdleHandler(0);
        for (int type = 0; type <= 5; ++type) {
            EXPECT_EQ(
                client.SendMessageA(static_cast<CWatchdogMessage::enumWatchDogMessageType>(type),
                                    currentThread(), "x", 1),
                0);
        }
    }
    EXPECT_FALSE(std::filesystem::exists(m_log));
}

TEST_F(WatchdogClientTest, ProgramNotFoundFailsButKeepsTheEvent) {
    ::setenv("PATH", m_dir.c_str(), 1);  // only a folder without TarvoWD.exe
    TestClient client;
    EXPECT_EQ(client.CreateWatchdog(0, 10, 60, 0), 0);
    EXPECT_NE(client.event(), nullptr);
    EXPECT_EQ(client.CreateWatchdog(0, 10, 60, 0), 1);
    EXPECT_EQ(client.SendMessageA(CWatchdogMessage::eWatchDogShutdown, 0, nullptr, 0), 0);
}

TEST_F(WatchdogClientTest, WatchdogThatNeverGetsReadySlow) {
    // A program that ends without setting the start event: the client waits its 2000 ms.
    const std::string program = m_dir + "/TarvoWD.exe";
    {
        std::ofstream script(program);
        script << "#!/bin/sh\nexit 0\n";
    }
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
    searchFirst(m_dir);
    TestClient client;
    EXPECT_EQ(client.CreateWatchdog(1, 10, 60, 0), 0);
    EXPECT_EQ(client.event(), nullptr);  // given up again
}

TEST_F(WatchdogClientTest, HiddenWatchdogGetsSwitchH) {
    if (!useFake()) {
        GTEST_SKIP() << "built without the fake watchdog";
    }
    {
        CWatchdogClient client;
        ASSERT_EQ(client.CreateWatchdog(0, 10, 60, 0), 1);
    }
    ASSERT_TRUE(watchdogEnded());
    const std::vector<std::string> lines = logLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "TarvoWD.exe /P " + pidText() + " /H /I 10 /T 60 /B 0");
}

TEST_F(WatchdogClientTest, ShownWatchdogGetsNoSwitch) {
    if (!useFake()) {
        GTEST_SKIP() << "built without the fake watchdog";
    }
    {
        CWatchdogClient client;
        ASSERT_EQ(client.CreateWatchdog(1, 1, 2, 3), 1);
    }
    ASSERT_TRUE(watchdogEnded());
    const std::vector<std::string> lines = logLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "TarvoWD.exe /P " + pidText() + " /I 1 /T 2 /B 3");
}

TEST_F(WatchdogClientTest, RecordArrivesWithItsLayout) {
    if (!useFake()) {
        GTEST_SKIP() << "built without the fake watchdog";
    }
    TestClient client;
    ASSERT_EQ(client.CreateWatchdog(0, 10, 60, 0), 1);
    ASSERT_EQ(client.SendMessageA(CWatchdogMessage::eWatchDogLongOperationIsOk, 0x01020304,
                                  "layout", 0x1122334455667788LL),
              1);
    const std::vector<Received> received = messages();
    ASSERT_EQ(received.size(), 1u);
    const Received& message = received.front();
    EXPECT_EQ(message.type, 2u);
    EXPECT_EQ(message.size, 280u);
    ASSERT_EQ(message.raw.size(), 280u);
    const std::vector<unsigned char> head{0x04, 0x03, 0x02, 0x01, 0,    0,    0,    0,
                                          0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
    EXPECT_EQ(std::vector<unsigned char>(message.raw.begin(), message.raw.begin() + 16), head);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&message.raw[16])), "layout");
    EXPECT_EQ(message.thread, 0x01020304);
    EXPECT_EQ(message.data, 0x1122334455667788LL);
    EXPECT_EQ(message.text, "layout");
}

TEST_F(WatchdogClientTest, EachTypeCarriesItsThreadDataAndText) {
    if (!useFake()) {
        GTEST_SKIP() << "built without the fake watchdog";
    }
    const long self = currentThread();
    long other = 0;
    void* idle = reinterpret_cast<void*>(&CWatchdogClient::APCIdleHandler);
    {
        CWatchdogClient client;
        ASSERT_EQ(client.CreateWatchdog(0, 10, 60, 0), 1);
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

    struct Expected {
        std::uint64_t type;
        long long thread;
        long long data;
        std::string text;
    };
    const std::vector<Expected> expected{
        {0, self, 1, "Main"},
        {0, self, 2, "Worker"},
        {1, self, 0, "Worker"},
        {1, 4242, 0, "Worker"},
        {2, self, 77, "Worker"},
        {4, self, static_cast<long long>(reinterpret_cast<std::intptr_t>(idle)), "Worker"},
        {5, self, 0, "Worker"},
        {2, other, 0, ""},  // the idle routine's own client has an empty record
        {3, 0, 0, "Worker"},
    };
    const std::vector<Received> received = messages();
    ASSERT_EQ(received.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE("message " + std::to_string(i));
        EXPECT_EQ(received[i].type, expected[i].type);
        EXPECT_EQ(received[i].size, 280u);
        EXPECT_EQ(received[i].thread, expected[i].thread);
        EXPECT_EQ(received[i].data, expected[i].data);
        EXPECT_EQ(received[i].text, expected[i].text);
    }
    EXPECT_NE(other, self);
    EXPECT_EQ(logLines().back(), "end shutdown");
}

TEST_F(WatchdogClientTest, LaterMessagesCarryTheFormerText) {
    if (!useFake()) {
        GTEST_SKIP() << "built without the fake watchdog";
    }
    TestClient client;
    ASSERT_EQ(client.CreateWatchdog(0, 10, 60, 0), 1);
    client.SetWatchdogThreadInfo("Poller", 0);
    client.NotifyWatchdogLongOperationIsOk(5);
    EXPECT_STREQ(client.message()->m_szText, "Poller");

    const std::vector<Received> received = messages();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[1].type, 2u);
    EXPECT_EQ(received[1].data, 5);
    EXPECT_EQ(received[1].text, "Poller");
}

TEST_F(WatchdogClientTest, CreateTwiceStartsOneWatchdog) {
    if (!useFake()) {
        GTEST_SKIP() << "built without the fake watchdog";
    }
    {
        TestClient client;
        ASSERT_EQ(client.CreateWatchdog(0, 10, 60, 0), 1);
        const CWatchdogClient::HANDLE event = client.event();
        EXPECT_EQ(client.CreateWatchdog(0, 10, 60, 0), 1);
        EXPECT_EQ(client.event(), event);
    }
    ASSERT_TRUE(watchdogEnded());
    EXPECT_EQ(commandLines().size(), 1u);
}

TEST_F(WatchdogClientTest, SecondClientFindsTheEventAndHoldsIt) {
    if (!useFake()) {
        GTEST_SKIP() << "built without the fake watchdog";
    }
    TestClient owner;
    ASSERT_EQ(owner.CreateWatchdog(0, 10, 60, 0), 1);
    {
        TestClient second;
        EXPECT_EQ(second.CreateWatchdog(0, 10, 60, 0), 0);
        EXPECT_NE(second.event(), nullptr);
        EXPECT_EQ(second.CreateWatchdog(0, 10, 60, 0), 1);  // held: no second watchdog
        EXPECT_EQ(messages().size(), 0u);
        // Holding the event makes it an owner: its destruction says goodbye.
    }
    ASSERT_TRUE(watchdogEnded());
    EXPECT_EQ(commandLines().size(), 1u);
    const std::vector<Received> received = messages();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].type, 3u);
    // The watchdog is gone: the first owner's goodbye finds no window.
    EXPECT_EQ(owner.SendMessageA(CWatchdogMessage::eWatchDogShutdown, 0, nullptr, 0), 0);
}

TEST_F(WatchdogClientTest, OnlyTheOwnerShutsDown) {
    if (!useFake()) {
        GTEST_SKIP() << "built without the fake watchdog";
    }
    TestClient owner;
    ASSERT_EQ(owner.CreateWatchdog(0, 10, 60, 0), 1);
    {
        TestClient other;
        other.ShutdownWatchdog();
        EXPECT_EQ(other.SendMessageA(CWatchdogMessage::eWatchDogShutdown, 0, nullptr, 0), 0);
        // The window is there all the same: other messages go through.
        EXPECT_EQ(other.SendMessageA(CWatchdogMessage::eWatchDogLongOperationIsOk, currentThread(),
                                     nullptr, 9),
                  1);
    }
    std::vector<Received> received = messages();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].type, 2u);
    EXPECT_EQ(received[0].data, 9);

    owner.ShutdownWatchdog();
    ASSERT_TRUE(watchdogEnded());
    received = messages();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[1].type, 3u);
    EXPECT_EQ(received[1].thread, 0);
    EXPECT_EQ(received[1].data, 0);
    // Gone now: sends find no window and record nothing.
    EXPECT_EQ(owner.SendMessageA(CWatchdogMessage::eWatchDogThreadInfo, currentThread(), "late", 1),
              0);
    EXPECT_EQ(messages().size(), 2u);
}

TEST_F(WatchdogClientTest, TextThatDoesNotFitIsAnInvalidParameter) {
    if (!useFake()) {
        GTEST_SKIP() << "built without the fake watchdog";
    }
    TesselTest::InvalidParameterThrows throws;
    CWatchdogClient client;
    ASSERT_EQ(client.CreateWatchdog(0, 10, 60, 0), 1);
    const std::string longest(259, 'n');
    client.SetWatchdogThreadInfo(longest.c_str(), 0);
    EXPECT_THROW(client.SetWatchdogThreadInfo((longest + "n").c_str(), 0),
                 TesselTest::InvalidParameterError);
    const std::vector<Received> received = messages();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].text, longest);
}

// A worker that never stops by itself is ended in the second stage of its stop, and the
// watchdog is told first that the thread closes.
static unsigned long neverStop(void*) {
    while (true) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
}

TEST_F(WatchdogClientTest, SlowForcedStopTellsTheWatchdogFirst) {
    if (!useFake()) {
        GTEST_SKIP() << "built without the fake watchdog";
    }
    TesselTest::UseScratchRegistry();
    CWatchdogClient owner;
    ASSERT_EQ(owner.CreateWatchdog(0, 10, 60, 0), 1);
    CActiveObject stubborn("Stubborn", &neverStop, nullptr, 100);
    unsigned long id = 0;
    ASSERT_EQ(stubborn.StartThread(__FILE__, __LINE__, "test", 0, &id, 0), 1);
    TesselTest::LogCapture logCapture1;
    EXPECT_EQ(stubborn.StopThread(), 1);
    logCapture1.text();
    const std::vector<Received> received = messages();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].type, 1u);  // thread closing
    EXPECT_EQ(received[0].thread, static_cast<long long>(id));
    EXPECT_EQ(stubborn.GetThreadExitCode(), 0xFFFFFFFFu);
}
