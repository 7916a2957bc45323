#include "tessel/platform/Diagnostics.h"

#include <unistd.h>

#include <atomic>

namespace Tessel::Platform {

void StandardErrorReport(ReportLevel /*level*/, const char* category, const std::string& message) {
    const std::string line = std::string(category) + ": " + message + "\n";
    const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
}

namespace {

bool wantsWarningsAndErrors(ReportLevel level) {
    return level >= ReportLevel::Warn;
}

const ReportHook kStandardErrorHook{&StandardErrorReport, &wantsWarningsAndErrors};

// Acquire on use pairs with the release of the exchange, so that a reporting thread sees the
// hook's two pointers as they were written before it was installed.
std::atomic<const ReportHook*> g_hook{&kStandardErrorHook};

}  // namespace

void Report(ReportLevel level, const char* category, const std::string& message) {
    const ReportHook* hook = g_hook.load(std::memory_order_acquire);
    if (hook->wants(level)) {
        hook->report(level, category, message);
    }
}

void ReportError(const char* category, const std::string& message) {
    Report(ReportLevel::Error, category, message);
}

bool IsReported(ReportLevel level) {
    return g_hook.load(std::memory_order_acquire)->wants(level);
}

const ReportHook* SetReportHook(const ReportHook* hook) {
    return g_hook.exchange(hook != nullptr ? hook : &kStandardErrorHook, std::memory_order_acq_rel);
}

}  // namespace Tessel::Platform
