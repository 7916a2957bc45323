#include "tessel/platform/Clock.h"

#include <time.h>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {

std::uint64_t GetTickCount64() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000u +
           static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
}

DWORD GetTickCount() {
    return static_cast<DWORD>(GetTickCount64());
}

std::int64_t GetSystemTimeTicks() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return kUnixEpochInSystemTicks + static_cast<std::int64_t>(ts.tv_sec) * 10000000LL +
           ts.tv_nsec / 100;
}

namespace {

void fill(const timespec& ts, const struct tm& parts, SYSTEMTIME* local) {
    local->wYear = static_cast<std::uint16_t>(parts.tm_year + 1900);
    local->wMonth = static_cast<std::uint16_t>(parts.tm_mon + 1);
    local->wDayOfWeek = static_cast<std::uint16_t>(parts.tm_wday);
    local->wDay = static_cast<std::uint16_t>(parts.tm_mday);
    local->wHour = static_cast<std::uint16_t>(parts.tm_hour);
    local->wMinute = static_cast<std::uint16_t>(parts.tm_min);
    local->wSecond = static_cast<std::uint16_t>(parts.tm_sec);
    local->wMilliseconds = static_cast<std::uint16_t>(ts.tv_nsec / 1000000);
}

}  // namespace

void GetLocalTime(SYSTEMTIME* local) {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm parts;
    localtime_r(&ts.tv_sec, &parts);
    fill(ts, parts, local);
}

void GetSystemTime(SYSTEMTIME* utc) {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm parts;
    gmtime_r(&ts.tv_sec, &parts);
    fill(ts, parts, utc);
}

namespace {

// Days from 1970-01-01 to the given date of the proleptic Gregorian calendar.
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
    year -= month <= 2 ? 1 : 0;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const auto yearOfEra = static_cast<unsigned>(year - era * 400);
    const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + static_cast<std::int64_t>(dayOfEra) - 719468;
}

unsigned daysInMonth(unsigned year, unsigned month) {
    static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : kDays[month - 1];
}

}  // namespace

BOOL SystemTimeToFileTime(const SYSTEMTIME* time, FILETIME* fileTime) {
    if (time == nullptr || fileTime == nullptr || time->wYear < 1601 || time->wYear > 30827 ||
        time->wMonth < 1 || time->wMonth > 12 || time->wDay < 1 ||
        time->wDay > daysInMonth(time->wYear, time->wMonth) || time->wHour > 23 ||
        time->wMinute > 59 || time->wSecond > 59 || time->wMilliseconds > 999) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const std::int64_t seconds = daysFromCivil(time->wYear, time->wMonth, time->wDay) * 86400 +
                                 time->wHour * 3600 + time->wMinute * 60 + time->wSecond;
    *fileTime = ToFileTime(static_cast<std::uint64_t>(kUnixEpochInSystemTicks + seconds * 10000000 +
                                                      time->wMilliseconds * 10000LL));
    return TRUE;
}

BOOL QueryPerformanceCounter(LARGE_INTEGER* count) {
    if (count == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    count->QuadPart = static_cast<std::int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
    return TRUE;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER* frequency) {
    if (frequency == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    frequency->QuadPart = 1000000000LL;
    return TRUE;
}

}  // namespace Tessel::Platform
