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

// Error lines of the platform layer that came while the log was being built; they are
// written into the log once it stands, or to standard error if it cannot be built.
std::mutex g_pendingLock;
std::vector<std::pair<std::string, std::string>> g_pending;  // guarded by g_pendingLock
std::atomic<bool> g_anyPending{false};

std::vector<std::pair<std::string, std::string>> takePending() {
    std::lock_guard<std::mutex> lock(g_pendingLock);
    g_anyPending.store(false);
    return std::move(g_pending);
}

}  // namespace

class VelkorLogFactory {
  public:
    static std::unique_ptr<ILogging> build() {
        BuildingScope scope;
        try {
            return std::unique_ptr<ILogging>(new VelkorLog());
        } catch (...) {
            for (const auto& [category, message] : takePending()) {
                Tessel::Platform::StandardErrorReporter(category.c_str(), message);
            }
            throw;
        }
    }
};

namespace {

// Error lines of the platform layer go to the log; those that the building of the log itself
// causes wait until it stands. A report never throws: where the log cannot be had, the line
// goes to standard error.
void reportToLog(const char* category, const std::string& message) noexcept {
    try {
        if (t_building) {
            std::lock_guard<std::mutex> lock(g_pendingLock);
            g_pending.emplace_back(category, message);
            g_anyPending.store(true);
            return;
        }
        ILogging::getInstance().log(category, ILogging::Error, message);
    } catch (...) {
        Tessel::Platform::StandardErrorReporter(category, message);
    }
}

const bool g_reportingToLog = (Tessel::Platform::SetErrorReporter(&reportToLog), true);

}  // namespace

ILogging::~ILogging() = default;

ILogging& ILogging::getInstance() {
    static const std::unique_ptr<ILogging> instance = VelkorLogFactory::build();
    if (g_anyPending.load(std::memory_order_relaxed) && !t_building) {
        for (const auto& [category, message] : takePending()) {
            instance->log(category, ILogging::Error, message);
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
