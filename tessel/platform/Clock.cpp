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

}  // namespace Tessel::Platform
