#include "tessel/logging/StandardErrorLogging.h"

#include <fmt/format.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "tessel/platform/Process.h"

namespace {

// The level names that log lines carry.
const char* lineLevelName(ILogging::LogLevels level) {
    switch (level) {
        case ILogging::Trace:
            return "trace";
        case ILogging::Warn:
            return "warning";
        case ILogging::Error:
            return "error";
        case ILogging::Off:
            return "off";
        case ILogging::Info:
        default:
            return "info";
    }
}

}  // namespace

std::string StandardErrorLogging::formatLine(LogLevels level, const std::string& message) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    return fmt::format("{}.{:03d} P[{}] T[{}] {} {}", stamp, now.tv_nsec / 1000000,
                       Tessel::Platform::GetCurrentProcessId(),
                       Tessel::Platform::GetCurrentThreadId(), lineLevelName(level), message);
}

void StandardErrorLogging::write(LogLevels level, const std::string& message) {
    std::string line = formatLine(level, message);
    line += '\n';
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        const ssize_t n = ::write(STDERR_FILENO, data, left);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        data += n;
        left -= static_cast<std::size_t>(n);
    }
}

void StandardErrorLogging::log(const std::string& category, LogLevels level,
                               const std::string& message) {
    if (shouldLogLevel(level) && isLoggerActive(category)) {
        write(level, fmt::format("[{}] {}", category, message));
    }
}

void StandardErrorLogging::log(LogLevels level, const std::string& message) {
    if (shouldLogLevel(level)) {
        write(level, message);
    }
}

bool StandardErrorLogging::shouldLogLevel(LogLevels level) {
    return level != Off && static_cast<int>(level) >= static_cast<int>(getLogLevel());
}

bool StandardErrorLogging::isLoggerActive(const std::string&) {
    return true;
}

ILogging::LogLevels StandardErrorLogging::getLogLevel() const {
    return m_minimumLevel.load(std::memory_order_relaxed);
}

void StandardErrorLogging::setLogLevel(LogLevels level) {
    m_minimumLevel.store(level, std::memory_order_relaxed);
}
