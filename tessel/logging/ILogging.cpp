#include "tessel/logging/ILogging.h"

#include "tessel/logging/StandardErrorLogging.h"
#include "tessel/platform/Diagnostics.h"

#include <memory>

namespace {

// True on the thread that builds the instance, while it does so.
thread_local bool t_building = false;

struct BuildingScope {
    BuildingScope() { t_building = true; }
    ~BuildingScope() { t_building = false; }
};

std::unique_ptr<ILogging> build() {
    BuildingScope scope;
    return std::make_unique<StandardErrorLogging>();
}

// Error lines of the platform layer go to the log, except those that the building of the
// log itself causes.
void reportToLog(const char* category, const std::string& message) {
    if (t_building) {
        Tessel::Platform::StandardErrorReporter(category, message);
        return;
    }
    ILogging::getInstance().log(category, ILogging::Error, message);
}

const bool g_reportingToLog = (Tessel::Platform::SetErrorReporter(&reportToLog), true);

}  // namespace

ILogging::~ILogging() = default;

ILogging& ILogging::getInstance() {
    static const std::unique_ptr<ILogging> instance = build();
    return *instance;
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
