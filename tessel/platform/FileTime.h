// The system time as a file time, and file times between UTC, local time and calendar form.
//
// A FILETIME counts 100 ns ticks since 1601-01-01 00:00 UTC (Clock.h); a "local" file time
// counts the same ticks from 1601-01-01 00:00 of the local clock.
//
// Thread safety: the functions hold no state and may be called from any thread.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// The current system time (UTC) in *fileTime.
TESSEL_API void GetSystemTimeAsFileTime(FILETIME* fileTime);

// fileTime as a calendar date and time of the same clock, wDayOfWeek included. FALSE with
// ERROR_INVALID_PARAMETER for a null argument or a time of 0x8000000000000000 ticks or more.
TESSEL_API BOOL FileTimeToSystemTime(const FILETIME* fileTime, SYSTEMTIME* systemTime);

// The local file time localFileTime turned into UTC with the offset of the process's time
// zone (TZ, else /etc/localtime) as it is now, daylight saving included, as the platform does:
// the offset in force at the given time itself is not looked up. FALSE with
// ERROR_INVALID_PARAMETER for a null argument or a result before 1601.
TESSEL_API BOOL LocalFileTimeToFileTime(const FILETIME* localFileTime, FILETIME* fileTime);

}  // namespace Tessel::Platform
