#include "tessel/logging/ILogging.h"

#include "tessel/logging/StandardErrorLogging.h"

ILogging::~ILogging() = default;

ILogging& ILogging::getInstance() {
    static StandardErrorLogging instance;
    return instance;
}

const char* ILogging::toString(LogLevels level) {
    switch (level) {
        case Trace:
            return "trace";
        case Warn:
            return "warn";
        case Error:
            return "error";
        case Off:
            return "off";
        case Info:
        default:
            return "info";
    }
}
