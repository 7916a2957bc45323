#include "tessel/supervision/WatchdogMessage.h"

#include <bit>
#include <cstring>

// The record goes out in memory order, and the watchdog reads it little-endian.
static_assert(std::endian::native == std::endian::little);

CWatchdogMessage::CWatchdogMessage() {
    Clear();
}

CWatchdogMessage& CWatchdogMessage::operator=(const CWatchdogMessage& other) {
    if (this != &other) {
        std::memcpy(static_cast<void*>(this), &other, sizeof(CWatchdogMessage));
    }
    return *this;
}

CWatchdogMessage& CWatchdogMessage::operator=(CWatchdogMessage&& other) {
    return *this = static_cast<const CWatchdogMessage&>(other);
}

void CWatchdogMessage::Clear() {
    std::memset(static_cast<void*>(this), 0, sizeof(CWatchdogMessage));
}
