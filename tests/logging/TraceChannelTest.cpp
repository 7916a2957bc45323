// The trace channel: category bits from the registry, debug strings, wait and error reports,
// scope guards.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/LogCapture.h"
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

// Sets value to flags in the registry and makes it the channel's source.
void useFlags(const char* value, unsigned long flags) {
    REG::WriteLong(kKey, value, static_cast<long>(flags));
    CTraceUtil::SetRegistryKey(kKey, value);
}

TEST(TraceChannel, CategoryBitsComeFromTheRegistryWithoutRestart) {
    TesselTest::DebugOutputCapture capture;
    CTraceUtil::OutputString(0xFFFFFFFF, "lost\n");  // nothing until a key is named
    EXPECT_FALSE(CTraceUtil::IsCategorySet(1));
    EXPECT_TRUE(capture.texts().empty());

    REG::WriteLong(kKey, "Flags", 0x4);
    EXPECT_TRUE(CTraceUtil::SetRegistryKey(kKey, "Flags"));
    EXPECT_TRUE(CTraceUtil::IsCategorySet(0x4));
    EXPECT_FALSE(CTraceUtil::IsCategorySet(0x6));  // all bits must be set
    CTraceUtil::OutputString(0x2, "not traced\n");
    CTraceUtil::OutputString(0x6, "traced\n");  // any bit suffices
    ASSERT_EQ(capture.texts().size(), 1u);
    const std::string line = capture.texts()[0];
    const std::string prefix = std::to_string(Tessel::Platform::GetCurrentProcessId()) + "/" +
                               std::to_string(Tessel::Platform::GetCurrentThreadId()) + " ";
    EXPECT_EQ(line.rfind(prefix, 0), 0u) << line;
    EXPECT_NE(line.find(": traced\n"), std::string::npos) << line;

    // A change in the registry takes effect at the next call.
    REG::WriteLong(kKey, "Flags", 0x2);
    ASSERT_TRUE(TesselTest::eventually([] { return CTraceUtil::IsCategorySet(0x2); }));
    CTraceUtil::OutputString(0x2, "now traced\n");
    ASSERT_EQ(capture.texts().size(), 2u);
    EXPECT_NE(capture.texts()[1].find(": now traced\n"), std::string::npos);

    // A trace guard writes start and end under its category.
    {
        CTraceGuard guard(2, "Epoch");
        CTraceGuard silent(16, "Other");
    }
    ASSERT_EQ(capture.texts().size(), 4u);
    EXPECT_NE(capture.texts()[2].find(": Epoch start\n"), std::string::npos);
    EXPECT_NE(capture.texts()[3].find(": Epoch end\n"), std::string::npos);
}

TEST(TraceChannel, WaitResultsAreReported) {
    useFlags("Wait", CTraceUtil::WAIT_AND_ERROR_CATEGORY);
    const std::pair<unsigned int, const char*> cases[] = {
        {1, nullptr},  // nothing reported
        {258, "Pool: Timeout interval elapsed."},
        {129, "Pool: Mutex was not released"},
        {130, "Pool: Undefined return value."},
    };
    for (const auto& [result, expected] : cases) {
        SCOPED_TRACE(result);
        TesselTest::DebugOutputCapture capture;
        const TesselTest::LogCapture log;
        CTraceUtil::CheckWaitForObjectRetVal(result, "Pool", true, false, 2);
        if (expected == nullptr) {
            EXPECT_TRUE(capture.texts().empty());
            EXPECT_EQ(log.text(), "");
        } else {
            EXPECT_NE(capture.joined().find(expected), std::string::npos) << capture.joined();
            EXPECT_NE(log.text().find(expected), std::string::npos) << log.text();
        }
    }
    // A failed wait outputs the error text alone; the name reaches only the log.
    TesselTest::DebugOutputCapture capture;
    Tessel::Platform::SetLastError(Tessel::Platform::ERROR_INVALID_HANDLE);
    const TesselTest::LogCapture log;
    CTraceUtil::CheckWaitForObjectRetVal(0xFFFFFFFF, "Pool", true, false, 1);
    EXPECT_NE(capture.joined().find(": The handle is invalid.\r\n"), std::string::npos);
    EXPECT_EQ(capture.joined().find("Pool"), std::string::npos);
    EXPECT_NE(log.text().find("[CTraceUtil::CheckWaitForObjectRetVal] Error=Pool: The handle is "
                              "invalid.\r\n, Error code=6"),
              std::string::npos)
        << log.text();
}

TEST(TraceChannel, LastErrorPerThread) {
    std::string text;
    unsigned int first = 1, second = 1;
    EXPECT_FALSE(CErrorUtil::GetLast(text, &first, &second));
    EXPECT_EQ(first, 0u);

    useFlags("Errors", 1);
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

TEST(TraceUtil, ExeNameAndDebugStrings) {
    char name[64];
    EXPECT_EQ(CTraceUtil::GetExeName(name, sizeof name), name);
    EXPECT_STREQ(name, "tessel_logging_tests");  // no folder, no extension
    char small[7];
    CTraceUtil::GetExeName(small, sizeof small);
    EXPECT_STREQ(small, "tessel");

    TesselTest::DebugOutputCapture capture;
    CTraceUtil::DebugStringF("CMutexSyncGuard::TryLock: Mutex not initialized!\n");
    CTraceUtil::DebugStringF("%s=%d", "count", 3);
    CTraceUtil::DebugStringF("%s", std::string(5000, 'x').c_str());  // cut at 2047 characters
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{
                  "tessel_logging_testsCMutexSyncGuard::TryLock: Mutex not initialized!\n",
                  "tessel_logging_testscount=3", "tessel_logging_tests" + std::string(2047, 'x')}));
}

TEST(TraceUtil, TextsOfErrorNumbers) {
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
    CTraceUtil::getLastErrorString(text, sizeof text, "Open", false);
    EXPECT_STREQ(text, "Open: The system cannot find the file specified.\r\n");
}

TEST(TraceScopes, TimeMeasurementLevelsAndLogGuardLines) {
    const std::pair<double, ILogging::LogLevels> cases[] = {
        {2.5, ILogging::Warn},  {2.0, ILogging::Info},  {3.5, ILogging::Error},
        {1.0, ILogging::Trace}, {0.0, ILogging::Trace},
    };
    for (const auto& [seconds, level] : cases) {
        EXPECT_EQ(VelkorLogScopedTimeMeasurement::LevelFor(seconds, 1, 2, 3), level) << seconds;
    }
    const TesselTest::LogCapture measured;
    { VelkorLogScopedTimeMeasurement measure("Scope", -1, 100, 200, "work"); }
    EXPECT_NE(measured.text().find(" info [Scope] work seconds: "), std::string::npos);

    // A guard writes both lines or, below the level, neither.
    const TesselTest::LogCapture guarded;
    { VelkorLogGuard guard("Guard", ILogging::Warn, "step"); }
    { VelkorLogGuard guard("Guard", ILogging::Trace, "filtered"); }
    const std::string written = guarded.text();
    EXPECT_NE(written.find(" warning [Guard] step start\n"), std::string::npos) << written;
    EXPECT_NE(written.find(" warning [Guard] step end seconds: "), std::string::npos) << written;
    EXPECT_EQ(written.find("filtered"), std::string::npos) << written;
}

}  // namespace
