#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/TestSupport.h"
#include "tessel/logging/TraceUtil.h"

namespace {

TEST(TraceUtil, ExeNameHasNoFolderAndNoExtension) {
    char name[64];
    EXPECT_EQ(CTraceUtil::GetExeName(name, sizeof name), name);
    EXPECT_STREQ(name, "tessel_logging_tests");
    char small[7];
    CTraceUtil::GetExeName(small, sizeof small);
    EXPECT_STREQ(small, "tessel");
}

TEST(TraceUtil, DebugStringJoinsExeNameAndText) {
    TesselTest::DebugOutputCapture capture;
    CTraceUtil::DebugStringF("CMutexSyncGuard::TryLock: Mutex not initialized!\n");
    CTraceUtil::DebugStringF("%s=%d", "count", 3);
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{
                  "tessel_logging_testsCMutexSyncGuard::TryLock: Mutex not initialized!\n",
                  "tessel_logging_testscount=3"}));
}

TEST(TraceUtil, DebugStringCutsLongTextAt2047Characters) {
    TesselTest::DebugOutputCapture capture;
    const std::string longText(5000, 'x');
    CTraceUtil::DebugStringF("%s", longText.c_str());
    ASSERT_EQ(capture.texts().size(), 1u);
    EXPECT_EQ(capture.texts()[0], "tessel_logging_tests" + std::string(2047, 'x'));
}

}  // namespace
