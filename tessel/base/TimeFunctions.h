// TIME: the process's offset from UTC, the local time stamp text and the Modified Julian Date.
//
// The host clock may run off true UTC (a reference station that disciplines its own time
// from GNSS knows by how much). The process keeps that difference in one number, set with
// SetDeltaUTCTime, and GetCurrentDateTimeUTC applies it. The difference is host clock minus
// true UTC, in seconds, kept as a signed 32-bit count of 50 microsecond units; a day either
// way (86400 s, 1728000000 units) fits. It starts at 0.
//
// Thread safety: every function may be called from any thread. The difference is read and
// written atomically, without a lock.
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <string>

#include "tessel/Export.h"

namespace TIME {

// The unit of the stored difference: 50 microseconds, in seconds.
inline constexpr double DELTA_UTC_UNIT = 5e-5;
// The largest difference that SetDeltaUTCTime keeps, either way, in seconds: one day.
inline constexpr double MAX_DELTA_UTC = 86400.0;

// The difference host clock minus UTC in seconds, a multiple of DELTA_UTC_UNIT.
TESSEL_API double GetDeltaUTCTime();

// Stores seconds as the difference host clock minus UTC, truncated towards zero to a whole
// number of DELTA_UTC_UNIT. A value whose magnitude exceeds MAX_DELTA_UTC, and a NaN, store 0.
TESSEL_API void SetDeltaUTCTime(double seconds);

// The current UTC time: the system clock's UTC time in whole seconds, minus the difference
// truncated to whole milliseconds. A negative difference thus moves the result forward.
// Throws std::runtime_error("could not convert calendar time to UTC time") if the system
// time cannot be read or broken down; boost::gregorian::bad_year for a year outside
// 1400..9999.
TESSEL_API boost::posix_time::ptime GetCurrentDateTimeUTC();

// The current local time as "DD.MM.YYYY hh:mm:ss.mmm" (day, month, year, hour, minute,
// second, millisecond), e.g. "07.03.2024 14:05:09.042". Does not apply the UTC difference.
TESSEL_API std::string GetCurrentDateTimeAsString();

// The Modified Julian Date of time: days since 1858-11-17 00:00, counted in whole
// milliseconds, so 2000-01-01 12:00 gives 51544.5. Not-a-date-time and positive infinity
// give 9223372036854775 / 86400000.0 (about 1.0675e8), negative infinity its negation.
TESSEL_API double ToMjd(const boost::posix_time::ptime& time);

}  // namespace TIME
