// The two clocks of the platform: the millisecond tick count and the system time.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Milliseconds of CLOCK_MONOTONIC as a 32-bit count that wraps after about 49.7 days.
// Differences of two readings taken as unsigned 32-bit values stay right across the wrap.
TESSEL_API DWORD GetTickCount();

// Milliseconds of CLOCK_MONOTONIC, not wrapping.
TESSEL_API std::uint64_t GetTickCount64();

// Ticks of 100 ns between 1601-01-01 00:00 UTC and now, the unit of the platform's
// file times. Follows the wall clock, so it may step when the clock is set.
TESSEL_API std::int64_t GetSystemTimeTicks();

// Ticks of 100 ns between 1601-01-01 and 1970-01-01, both UTC.
inline constexpr std::int64_t kUnixEpochInSystemTicks = 116444736000000000LL;

}  // namespace Tessel::Platform
