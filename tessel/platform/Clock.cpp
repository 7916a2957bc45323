#include "tessel/platform/Clock.h"

#include <time.h>

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

}  // namespace Tessel::Platform
