#include <gtest/gtest.h>
#include <time.h>

#include "tessel/platform/Clock.h"

using namespace Tessel::Platform;

TEST(Clock, SystemTimeCountsFrom1601InHundredNanoseconds) {
    const std::int64_t before = static_cast<std::int64_t>(::time(nullptr));
    const std::int64_t ticks = GetSystemTimeTicks();
    const std::int64_t after = static_cast<std::int64_t>(::time(nullptr));
    const std::int64_t seconds = (ticks - kUnixEpochInSystemTicks) / 10000000;
    EXPECT_GE(seconds, before);
    EXPECT_LE(seconds, after);
}

TEST(Clock, TickCountIsTheLowWordOfTheMillisecondClock) {
    const std::uint64_t wide = GetTickCount64();
    const DWORD narrow = GetTickCount();
    EXPECT_LE(static_cast<DWORD>(narrow - static_cast<DWORD>(wide)), 1000u);
}
