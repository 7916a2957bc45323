// The two clocks of the platform: the millisecond tick count and the system time, the
// latter also as local calendar date and time of day.
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

// A calendar date and time of day, as the platform hands it out.
struct SYSTEMTIME {
    std::uint16_t wYear;          // e.g. 2024
    std::uint16_t wMonth;         // 1 (January) to 12
    std::uint16_t wDayOfWeek;     // 0 (Sunday) to 6
    std::uint16_t wDay;           // 1 to 31
    std::uint16_t wHour;          // 0 to 23
    std::uint16_t wMinute;        // 0 to 59
    std::uint16_t wSecond;        // 0 to 59 (60 only where the C library reports a leap second)
    std::uint16_t wMilliseconds;  // 0 to 999
};

// The current date and time in the process's time zone (TZ, else /etc/localtime), daylight
// saving included, to the millisecond (truncated).
TESSEL_API void GetLocalTime(SYSTEMTIME* local);

// The current date and time in UTC, to the millisecond (truncated).
TESSEL_API void GetSystemTime(SYSTEMTIME* utc);

// time, read as UTC, in 100 ns ticks since 1601-01-01 UTC; wDayOfWeek is ignored. FALSE with
// ERROR_INVALID_PARAMETER for a field out of its range (a day past the end of its month, a
// year before 1601 or after 30827) or a null argument.
TESSEL_API BOOL SystemTimeToFileTime(const SYSTEMTIME* time, FILETIME* fileTime);

// The high-resolution counter: nanoseconds of CLOCK_MONOTONIC, so its frequency is 1e9 per
// second. Both always succeed (TRUE) with a non-null argument.
TESSEL_API BOOL QueryPerformanceCounter(LARGE_INTEGER* count);
TESSEL_API BOOL QueryPerformanceFrequency(LARGE_INTEGER* frequency);

}  // namespace Tessel::Platform
