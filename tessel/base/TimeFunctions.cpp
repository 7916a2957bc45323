#include "tessel/base/TimeFunctions.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <stdexcept>

#include "tessel/platform/Clock.h"

namespace TIME {
namespace {

// The difference host clock minus UTC, in units of DELTA_UTC_UNIT.
std::atomic<std::int32_t> s_deltaUtcUnits{0};

// Milliseconds in a day, the divisor of the Modified Julian Date.
constexpr double kMillisecondsPerDay = 86400000.0;

// The epoch of the Modified Julian Date, 1858-11-17 00:00.
const boost::posix_time::ptime& mjdEpoch() {
    static const boost::posix_time::ptime epoch(boost::gregorian::date(1858, 11, 17));
    return epoch;
}

// Touches the epoch while the library loads, so that it is made at library start and never
// on a time-critical path.
const bool s_epochMade = (mjdEpoch(), true);

}  // namespace

double GetDeltaUTCTime() {
    return s_deltaUtcUnits.load() * DELTA_UTC_UNIT;
}

void SetDeltaUTCTime(double seconds) {
    // Written so that a NaN also takes the zero.
    if (!(std::fabs(seconds) <= MAX_DELTA_UTC)) {
        seconds = 0.0;
    }
    s_deltaUtcUnits.store(static_cast<std::int32_t>(seconds / DELTA_UTC_UNIT));
}

boost::posix_time::ptime GetCurrentDateTimeUTC() {
    using namespace std::chrono;

    // Calendar time in whole seconds, broken down into UTC date and time of day.
    const std::time_t now = std::time(nullptr);
    if (now == static_cast<std::time_t>(-1)) {
        throw std::runtime_error("could not convert calendar time to UTC time");
    }
    const sys_seconds instant{seconds{now}};
    const sys_days day = floor<days>(instant);
    const year_month_day date{day};
    if (!date.ok()) {
        throw std::runtime_error("could not convert calendar time to UTC time");
    }
    const hh_mm_ss<seconds> timeOfDay{instant - day};

    const boost::posix_time::ptime utc(
        boost::gregorian::date(static_cast<unsigned short>(static_cast<int>(date.year())),
                               static_cast<unsigned short>(static_cast<unsigned>(date.month())),
                               static_cast<unsigned short>(static_cast<unsigned>(date.day()))),
        boost::posix_time::hours(timeOfDay.hours().count()) +
            boost::posix_time::minutes(timeOfDay.minutes().count()) +
            boost::posix_time::seconds(timeOfDay.seconds().count()));

    const auto deltaMs = static_cast<std::int64_t>(GetDeltaUTCTime() * 1000.0);
    return utc - boost::posix_time::milliseconds(deltaMs);
}

std::string GetCurrentDateTimeAsString() {
    Tessel::Platform::SYSTEMTIME local;
    Tessel::Platform::GetLocalTime(&local);
    char text[64];
    std::snprintf(text, sizeof(text), "%02d.%02d.%04d %02d:%02d:%02d.%03d", local.wDay,
                  local.wMonth, local.wYear, local.wHour, local.wMinute, local.wSecond,
                  local.wMilliseconds);
    return text;
}

double ToMjd(const boost::posix_time::ptime& time) {
    // A special time gives a special duration, whose tick count stands for it in the sum.
    const boost::posix_time::time_duration sinceEpoch = time - mjdEpoch();
    return static_cast<double>(sinceEpoch.total_milliseconds()) / kMillisecondsPerDay;
}

}  // namespace TIME
