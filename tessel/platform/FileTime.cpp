#include "tessel/platform/FileTime.h"

#include <time.h>

#include <cstdint>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {
namespace {

constexpr std::int64_t kTicksPerSecond = 10000000;
constexpr std::int64_t kSecondsPerDay = 86400;

// The calendar date of a day count since 1970-01-01 (Howard Hinnant's civil_from_days).
void civilFromDays(std::int64_t days, int& year, unsigned& month, unsigned& day) {
    days += 719468;
    const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const auto dayOfEra = static_cast<unsigned>(days - era * 146097);
    const unsigned yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned monthIndex = (5 * dayOfYear + 2) / 153;
    day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
    month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    year = static_cast<int>(yearOfEra + era * 400) + (month <= 2 ? 1 : 0);
}

}  // namespace

void GetSystemTimeAsFileTime(FILETIME* fileTime) {
    if (fileTime != nullptr) {
        *fileTime = ToFileTime(static_cast<std::uint64_t>(GetSystemTimeTicks()));
    }
}

BOOL FileTimeToSystemTime(const FILETIME* fileTime, SYSTEMTIME* systemTime) {
    if (fileTime == nullptr || systemTime == nullptr ||
        FromFileTime(*fileTime) >= 0x8000000000000000ull) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const auto ticks = static_cast<std::int64_t>(FromFileTime(*fileTime)) - kUnixEpochInSystemTicks;
    // Floor division, so that times before 1970 fall on the right day.
    std::int64_t seconds = ticks / kTicksPerSecond;
    std::int64_t rest = ticks % kTicksPerSecond;
    if (rest < 0) {
        rest += kTicksPerSecond;
        --seconds;
    }
    std::int64_t days = seconds / kSecondsPerDay;
    std::int64_t secondOfDay = seconds % kSecondsPerDay;
    if (secondOfDay < 0) {
        secondOfDay += kSecondsPerDay;
        --days;
    }
    int year = 0;
    unsigned month = 0;
    unsigned day = 0;
    civilFromDays(days, year, month, day);
    systemTime->wYear = static_cast<std::uint16_t>(year);
    systemTime->wMonth = static_cast<std::uint16_t>(month);
    systemTime->wDay = static_cast<std::uint16_t>(day);
    // 1970-01-01 was a Thursday (4).
    systemTime->wDayOfWeek = static_cast<std::uint16_t>(((days % 7) + 11) % 7);
    systemTime->wHour = static_cast<std::uint16_t>(secondOfDay / 3600);
    systemTime->wMinute = static_cast<std::uint16_t>(secondOfDay / 60 % 60);
    systemTime->wSecond = static_cast<std::uint16_t>(secondOfDay % 60);
    systemTime->wMilliseconds = static_cast<std::uint16_t>(rest / 10000);
    return TRUE;
}

BOOL LocalFileTimeToFileTime(const FILETIME* localFileTime, FILETIME* fileTime) {
    if (localFileTime == nullptr || fileTime == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const time_t now = ::time(nullptr);
    struct tm local {};
    ::localtime_r(&now, &local);
    const std::int64_t offset = static_cast<std::int64_t>(local.tm_gmtoff) * kTicksPerSecond;
    const std::int64_t utc = static_cast<std::int64_t>(FromFileTime(*localFileTime)) - offset;
    if (utc < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *fileTime = ToFileTime(static_cast<std::uint64_t>(utc));
    return TRUE;
}

}  // namespace Tessel::Platform
