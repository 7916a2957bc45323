#include "tessel/logging/ILogging.h"

#include "tessel/logging/VelkorLog.h"
#include "tessel/platform/Diagnostics.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

// True on the thread that builds the instance, while it does so.
thread_local bool t_building = false;

struct BuildingScope {
    BuildingScope() { t_building = true; }
    ~BuildingScope() { t_building = false; }
};

}  // namespace

namespace {

// Lines of the lower layers that came while the log was being built; they are written into
// the log once it stands, or to standard error if it cannot be built.
struct PendingLine {
    Tessel::Platform::ReportLevel level;
    std::string category;
    std::string message;
};
std::mutex g_pendingLock;
std::vector<PendingLine> g_pending;  // guarded by g_pendingLock
// A hint for getInstance, read relaxed: the lines themselves are taken under g_pendingLock.
std::atomic<bool> g_anyPending{false};

std::vector<PendingLine> takePending() {
    std::lock_guard<std::mutex> lock(g_pendingLock);
    g_anyPending.store(false);
    return std::move(g_pending);
}

ILogging::LogLevels logLevelOf(Tessel::Platform::ReportLevel level) {
    return static_cast<ILogging::LogLevels>(static_cast<int>(level));
}

}  // namespace

class VelkorLogFactory {
  public:
    static std::unique_ptr<ILogging> build() {
        BuildingScope scope;
        try {
            return std::unique_ptr<ILogging>(new VelkorLog());
        } catch (...) {
            for (const PendingLine& line : takePending()) {
                Tessel::Platform::StandardErrorReport(line.level, line.category.c_str(),
                                                      line.message);
            }
            throw;
        }
    }
};

namespace {

// Lines of the lower layers go to the log at their level; those that the building of the log
// itself causes wait until it stands. A report never throws: where the log cannot be had, the
// line goes to standard error.
void reportToLog(Tessel::Platform::ReportLevel level, const char* category,
                 const std::string& message) noexcept {
    try {
        if (t_building) {
            std::lock_guard<std::mutex> lock(g_pendingLock);
            g_pending.push_back(PendingLine{level, category, message});
            g_anyPending.store(true);
            return;
        }
        ILogging::getInstance().log(category, logLevelOf(level), message);
    } catch (...) {
        Tessel::Platform::StandardErrorReport(level, category, message);
    }
}

// While the log is being built its level is not known yet: every line is kept, and the log
// filters it when it is written.
bool logWants(Tessel::Platform::ReportLevel level) noexcept {
    try {
        return t_building || ILogging::getInstance().shouldLogLevel(logLevelOf(level));
    } catch (...) {
        return level >= Tessel::Platform::ReportLevel::Error;
    }
}

const Tessel::Platform::ReportHook kLogHook{&reportToLog, &logWants};
const bool g_reportingToLog = (Tessel::Platform::SetReportHook(&kLogHook), true);

}  // namespace

ILogging::~ILogging() = default;

ILogging& ILogging::getInstance() {
    static const std::unique_ptr<ILogging> instance = VelkorLogFactory::build();
    if (g_anyPending.load(std::memory_order_relaxed) && !t_building) {
        for (const PendingLine& line : takePending()) {
            instance->log(line.category, logLevelOf(line.level), line.message);
        }
    }
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
