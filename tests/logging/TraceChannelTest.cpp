// The trace channel: category bits, debug strings, wait and error reports, scope guards.
#include <gmock/gmock.h>
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

using testing::HasSubstr;

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

    REG::WriteLong(kKey, "Flags", 0x4);
    EXPECT_TRUE(CTraceUtil::SetRegistryKey(kKey, "Flags"));
    EXPECT_TRUE(CTraceUtil::IsCategorySet(0x4));
    EXPECT_FALSE(CTraceUtil::IsCategorySet(0x6));  // all bits must be set
    CTraceUtil::OutputString(0x2, "not traced\n");
    CTraceUtil::OutputString(0x6, "traced\n");  // any bit suffices

    // A change in the registry takes effect at the next call.
    REG::WriteLong(kKey, "Flags", 0x2);
    ASSERT_TRUE(TesselTest::eventually([] { return CTraceUtil::IsCategorySet(0x2); }));
    CTraceUtil::OutputString(0x2, "now traced\n");

    // A trace guard writes start and end under its category.
    {
        CTraceGuard guard(2, "Epoch");
        CTraceGuard silent(16, "Other");
    }
    const std::string prefix = std::to_string(Tessel::Platform::GetCurrentProcessId()) + "/" +
                               std::to_string(Tessel::Platform::GetCurrentThreadId());
    EXPECT_THAT(capture.texts(),
                testing::ElementsAre(testing::MatchesRegex(prefix + " .+: traced\n"),
                                     HasSubstr(": now traced\n"), HasSubstr(": Epoch start\n"),
                                     HasSubstr(": Epoch end\n")));
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
        const testing::Matcher<std::string> reported =
            expected != nullptr ? HasSubstr(expected)
                                : testing::Matcher<std::string>(testing::IsEmpty());
        EXPECT_THAT(capture.joined(), reported);
        EXPECT_THAT(log.text(), reported);
    }
    // A failed wait outputs the error text alone; the name reaches only the log.
    TesselTest::DebugOutputCapture capture;
    Tessel::Platform::SetLastError(Tessel::Platform::ERROR_INVALID_HANDLE);
    const TesselTest::LogCapture log;
    CTraceUtil::CheckWaitForObjectRetVal(0xFFFFFFFF, "Pool", true, false, 1);
    EXPECT_THAT(capture.joined(), HasSubstr(": The handle is invalid.\r\n"));
    EXPECT_THAT(capture.joined(), testing::Not(HasSubstr("Pool")));
    EXPECT_THAT(log.text(), HasSubstr("[CTraceUtil::CheckWaitForObjectRetVal] Error=Pool: The "
                                      "handle is invalid.\r\n, Error code=6"));
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
    EXPECT_THAT(
        capture.texts(),
        testing::ElementsAre(HasSubstr(": CLastError::SetLast 'port busy', [9800], [2]\n")));

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
    CTraceUtil::DebugStringF("%s=%d", "count", 3);
    CTraceUtil::DebugStringF("%s", std::string(5000, 'x').c_str());  // cut at 2047 characters
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{"tessel_logging_testscount=3",
                                        "tessel_logging_tests" + std::string(2047, 'x')}));
}

TEST(TraceUtil, TextsOfErrorNumbers) {
    char text[256];
    CTraceUtil::getLastErrorString(12002, text, sizeof text);
    EXPECT_STREQ(text, "The operation timed out\r\n");  // the internet texts
    CTraceUtil::getLastErrorString(12157, text, sizeof text);
    EXPECT_STREQ(text, "");  // the system's texts, which have none for it

    EXPECT_EQ(CTraceUtil::GetWindowsErrorMsg(0x80070005), "[80070005]: Access is denied.\r\n");
    EXPECT_EQ(CTraceUtil::GetWindowsErrorMsg(0x80040201), "[80040201]: IDispatch error #1");
    EXPECT_EQ(CTraceUtil::GetWindowsErrorMsg(0x80040200), "[80040200]: Unknown error 0x80040200");

    Tessel::Platform::SetLastError(2);
    CTraceUtil::getLastErrorString(text, sizeof text, "Open", false);
    EXPECT_STREQ(text, "Open: The system cannot find the file specified.\r\n");
}

TEST(TraceScopes, TimeMeasurementLevelsAndLogGuardLines) {
    const std::pair<double, ILogging::LogLevels> cases[] = {
        {2.5, ILogging::Warn},
        {2.0, ILogging::Info},
        {3.5, ILogging::Error},
        {1.0, ILogging::Trace},
    };
    for (const auto& [seconds, level] : cases) {
        EXPECT_EQ(VelkorLogScopedTimeMeasurement::LevelFor(seconds, 1, 2, 3), level) << seconds;
    }
    const TesselTest::LogCapture measured;
    { VelkorLogScopedTimeMeasurement measure("Scope", -1, 100, 200, "work"); }
    EXPECT_THAT(measured.text(), HasSubstr(" info [Scope] work seconds: "));

    // A guard writes both lines or, below the level, neither.
    const TesselTest::LogCapture guarded;
    { VelkorLogGuard guard("Guard", ILogging::Warn, "step"); }
    { VelkorLogGuard guard("Guard", ILogging::Trace, "filtered"); }
    EXPECT_THAT(guarded.text(), HasSubstr(" warning [Guard] step start\n"));
    EXPECT_THAT(guarded.text(), HasSubstr(" warning [Guard] step end seconds: "));
    EXPECT_THAT(guarded.text(), testing::Not(HasSubstr("filtered")));
}

}  // namespace
