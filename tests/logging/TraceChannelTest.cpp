// The trace channel: category bits from the registry, wait and error reports, scope guards.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "support/LogCapture.h"
#include "support/ScratchRegistry.h"
#include "support/TestSupport.h"
#include "tessel/host/Registry.h"
#include "tessel/logging/ErrorUtil.h"
#include "tessel/logging/ILogging.h"
#include "tessel/logging/TraceGuard.h"
#include "tessel/logging/TraceUtil.h"
#include "tessel/logging/VelkorLogGuard.h"
#include "tessel/logging/VelkorLogScopedTimeMeasurement.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/Types.h"

namespace {

const char* const kKey = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Trace";

class TraceChannel : public testing::Test {
  protected:
    void SetUp() override { TesselTest::UseScratchRegistry(); }

    // Sets the flags in the registry and waits until the channel has taken them.
    static void setFlags(unsigned long flags) {
        REG::WriteLong(kKey, "Flags", static_cast<long>(flags));
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (std::chrono::steady_clock::now() < deadline) {
            if (CTraceUtil::IsCategorySet(flags)) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        FAIL() << "the flags " << flags << " were not taken";
    }
};

TEST_F(TraceChannel, NothingIsTracedUntilAKeyIsNamed) {
    TesselTest::DebugOutputCapture capture;
    CTraceUtil::OutputString(0xFFFFFFFF, "lost\n");
    EXPECT_FALSE(CTraceUtil::IsCategorySet(1));
    EXPECT_TRUE(capture.texts().empty());
}

TEST_F(TraceChannel, CategoryBitsComeFromTheRegistryWithoutRestart) {
    REG::WriteLong(kKey, "Flags", 0x4);
    EXPECT_TRUE(CTraceUtil::SetRegistryKey(kKey, "Flags"));
    EXPECT_TRUE(CTraceUtil::IsCategorySet(0x4));
    EXPECT_FALSE(CTraceUtil::IsCategorySet(0x6));  // all bits must be set

    TesselTest::DebugOutputCapture capture;
    CTraceUtil::OutputString(0x2, "not traced\n");
    CTraceUtil::OutputString(0x6, "traced\n");  // any bit suffices
    ASSERT_EQ(capture.texts().size(), 1u);
    const std::string line = capture.texts()[0];
    const std::string prefix = std::to_string(Tessel::Platform::GetCurrentProcessId()) + "/" +
                               std::to_string(Tessel::Platform::GetCurrentThreadId()) + " ";
    EXPECT_EQ(line.rfind(prefix, 0), 0u) << line;
    EXPECT_NE(line.find(": traced\n"), std::string::npos) << line;

    setFlags(0x2);  // a change in the registry takes effect at the next call
    CTraceUtil::OutputString(0x2, "now traced\n");
    EXPECT_NE(capture.joined().find(": now traced\n"), std::string::npos);
}

TEST_F(TraceChannel, WaitResultsAreReported) {
    REG::WriteLong(kKey, "Wait", static_cast<long>(CTraceUtil::WAIT_AND_ERROR_CATEGORY));
    CTraceUtil::SetRegistryKey(kKey, "Wait");
    struct {
        unsigned int result;
        const char* expected;  // null: nothing reported
    } const cases[] = {
        {1, nullptr},
        {258, "Pool: Timeout interval elapsed."},
        {129, "Pool: Mutex was not released"},
        {130, "Pool: Undefined return value."},
    };
    for (const auto& c : cases) {
        TesselTest::DebugOutputCapture capture;
        TesselTest::LogCapture logCapture1;
        CTraceUtil::CheckWaitForObjectRetVal(c.result, "Pool", true, false, 2);
        const std::string log = logCapture1.text();
        if (c.expected == nullptr) {
            EXPECT_TRUE(capture.texts().empty()) << c.result;
            EXPECT_EQ(log, "");
        } else {
            EXPECT_NE(capture.joined().find(c.expected), std::string::npos) << c.result;
            EXPECT_NE(log.find(c.expected), std::string::npos) << log;
        }
    }
    // A failed wait outputs the error text alone; the name reaches only the log.
    TesselTest::DebugOutputCapture capture;
    Tessel::Platform::SetLastError(Tessel::Platform::ERROR_INVALID_HANDLE);
    TesselTest::LogCapture logCapture2;
    CTraceUtil::CheckWaitForObjectRetVal(0xFFFFFFFF, "Pool", true, false, 1);
    const std::string log = logCapture2.text();
    EXPECT_NE(capture.joined().find(": The handle is invalid.\r\n"), std::string::npos);
    EXPECT_EQ(capture.joined().find("Pool"), std::string::npos);
    EXPECT_NE(log.find("[CTraceUtil::CheckWaitForObjectRetVal] Error=Pool: The handle is "
                       "invalid.\r\n, Error code=6"),
              std::string::npos)
        << log;
}

TEST_F(TraceChannel, TraceGuardWritesStartAndEnd) {
    REG::WriteLong(kKey, "Guard", 8);
    CTraceUtil::SetRegistryKey(kKey, "Guard");
    TesselTest::DebugOutputCapture capture;
    {
        CTraceGuard guard(8, "Epoch");
        CTraceGuard silent(16, "Other");
    }
    ASSERT_EQ(capture.texts().size(), 2u);
    EXPECT_NE(capture.texts()[0].find(": Epoch start\n"), std::string::npos);
    EXPECT_NE(capture.texts()[1].find(": Epoch end\n"), std::string::npos);
}

TEST(TraceErrors, TextsOfErrorNumbers) {
    char text[256];
    CTraceUtil::getLastErrorString(12002, text, sizeof text);
    EXPECT_STREQ(text, "The operation timed out\r\n");  // the internet texts
    CTraceUtil::getLastErrorString(12157, text, sizeof text);
    EXPECT_STREQ(text, "");  // the system's texts, which have none for it
    CTraceUtil::getLastErrorString(5, text, sizeof text);
    EXPECT_STREQ(text, "Access is denied.\r\n");

    EXPECT_EQ(CTraceUtil::GetWindowsErrorMsg(5), "[5]: Access is denied.\r\n");
    EXPECT_EQ(CTraceUtil::GetWindowsErrorMsg(0x80070005), "[80070005]: Access is denied.\r\n");
    EXPECT_EQ(CTraceUtil::GetWindowsErrorMsg(0x80040201), "[80040201]: IDispatch error #1");
    EXPECT_EQ(CTraceUtil::GetWindowsErrorMsg(0x80040200), "[80040200]: Unknown error 0x80040200");

    Tessel::Platform::SetLastError(2);
    char target[64];
    CTraceUtil::getLastErrorString(target, sizeof target, "Open", false);
    EXPECT_STREQ(target, "Open: The system cannot find the file specified.\r\n");
}

TEST(TraceScopes, TimeMeasurementLevels) {
    struct {
        double seconds;
        ILogging::LogLevels level;
    } const cases[] = {
        {2.5, ILogging::Warn},  {2.0, ILogging::Info},  {3.5, ILogging::Error},
        {1.0, ILogging::Trace}, {0.0, ILogging::Trace},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(VelkorLogScopedTimeMeasurement::LevelFor(c.seconds, 1, 2, 3), c.level)
            << c.seconds;
    }
    TesselTest::LogCapture logCapture3;
    { VelkorLogScopedTimeMeasurement measure("Scope", -1, 100, 200, "work"); }
    EXPECT_NE(logCapture3.text().find(" info [Scope] work seconds: "), std::string::npos);
}

TEST(TraceScopes, LogGuardWritesBothLinesOrNeither) {
    TesselTest::LogCapture logCapture4;
    { VelkorLogGuard guard("Guard", ILogging::Warn, "step"); }
    const std::string written = logCapture4.text();
    EXPECT_NE(written.find(" warning [Guard] step start\n"), std::string::npos) << written;
    EXPECT_NE(written.find(" warning [Guard] step end seconds: "), std::string::npos) << written;

    TesselTest::LogCapture logCapture5;
    { VelkorLogGuard guard("Guard", ILogging::Trace, "filtered"); }  // below the level
    EXPECT_EQ(logCapture5.text(), "");
}

}  // namespace

namespace {

TEST_F(TraceChannel, LastErrorPerThread) {
    std::string text;
    unsigned int first = 1, second = 1;
    EXPECT_FALSE(CErrorUtil::GetLast(text, &first, &second));
    EXPECT_EQ(first, 0u);

    REG::WriteLong(kKey, "Errors", 1);
    CTraceUtil::SetRegistryKey(kKey, "Errors");
    TesselTest::DebugOutputCapture capture;
    CErrorUtil::SetLast(1, "port busy", 9800, 2);
    CErrorUtil::SetLast(0, "port closed", 9801, 3);  // no trace
    EXPECT_TRUE(CErrorUtil::GetLast(text, &first, nullptr));
    EXPECT_EQ(text, "port closed");
    EXPECT_EQ(first, 9801u);
    ASSERT_EQ(capture.texts().size(), 1u);
    EXPECT_NE(capture.texts()[0].find(": CLastError::SetLast 'port busy', [9800], [2]\n"),
              std::string::npos);

    std::thread([] {
        std::string other;
        EXPECT_FALSE(CErrorUtil::GetLast(other, nullptr, nullptr));  // each thread its own
    }).join();

    Tessel::Platform::RegisterStringResource(nullptr, 17, "from a resource");
    CErrorUtil::SetLastByRes(0, nullptr, 17, 1, 2);
    EXPECT_TRUE(CErrorUtil::GetLast(text, nullptr, &second));
    EXPECT_EQ(text, "from a resource");
    EXPECT_EQ(second, 2u);
}

}  // namespace
