// Error reports of the platform layer.
//
// The platform layer sits below the logging facade (which itself reads the registry), so it
// does not call ILogging directly: it hands its error lines to one process-wide reporter.
// The default reporter writes each line to standard error as "<category>: <message>". The
// logging layer installs, when the library is loaded, a reporter that forwards to ILogging
// at level Error, and falls back to the default while the logger itself is being built, so
// that nothing logs into a logger that does not exist yet.
#pragma once

#include <string>

#include "tessel/Export.h"

namespace Tessel::Platform {

using ErrorReporter = void (*)(const char* category, const std::string& message);

// Reports an error line of the platform layer.
TESSEL_API void ReportError(const char* category, const std::string& message);

// The default reporter.
TESSEL_API void StandardErrorReporter(const char* category, const std::string& message);

// Installs reporter, or the standard-error one when reporter is null; returns the one before.
TESSEL_API ErrorReporter SetErrorReporter(ErrorReporter reporter);

}  // namespace Tessel::Platform
