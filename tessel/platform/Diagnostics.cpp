#include "tessel/platform/Diagnostics.h"

#include <unistd.h>

#include <atomic>

namespace Tessel::Platform {
void StandardErrorReporter(const char* category, const std::string& message) {
    const std::string line = std::string(category) + ": " + message + "\n";
    const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
}

namespace {
std::atomic<ErrorReporter> g_reporter{&StandardErrorReporter};
}  // namespace

void ReportError(const char* category, const std::string& message) {
    g_reporter.load(std::memory_order_acquire)(category, message);
}

ErrorReporter SetErrorReporter(ErrorReporter reporter) {
    return g_reporter.exchange(reporter != nullptr ? reporter : &StandardErrorReporter,
                               std::memory_order_acq_rel);
}

}  // namespace Tessel::Platform
