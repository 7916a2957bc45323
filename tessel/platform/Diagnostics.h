// Reports of the library's lower layers: the platform layer and the host services below the
// logging facade.
//
// The logging facade itself reads the registry and makes its folder through the file helpers,
// so those layers do not call ILogging: they hand their lines to one process-wide report hook.
// The default hook writes lines of level Warn and Error to standard error as
// "<category>: <message>" and drops the rest. The logging layer installs, when the library is
// loaded, a hook that forwards each line to ILogging at its level; lines that come while the
// logger itself is being built wait until it stands.
//
// Thread safety: every function may be called from any thread. A hook is installed with one
// atomic exchange; a report that runs at that moment uses the old hook or the new one.
#pragma once

#include <string>

#include "tessel/Export.h"

namespace Tessel::Platform {

// The levels of a report, with the numbers of ILogging's levels.
enum class ReportLevel : int { Trace = 0, Info = 1, Warn = 2, Error = 3 };

struct ReportHook {
    // Writes one line.
    void (*report)(ReportLevel level, const char* category, const std::string& message);
    // True if a line of this level would be written: callers ask before they build a text
    // that costs something.
    bool (*wants)(ReportLevel level);
};

// Reports message under category at level, through the hook in force.
TESSEL_API void Report(ReportLevel level, const char* category, const std::string& message);

// Report at level Error.
TESSEL_API void ReportError(const char* category, const std::string& message);

// True if the hook in force writes lines of level.
TESSEL_API bool IsReported(ReportLevel level);

// The default hook's writer: "<category>: <message>" to standard error, with one write.
TESSEL_API void StandardErrorReport(ReportLevel level, const char* category,
                                    const std::string& message);

// Installs hook, which must live as long as the process, or the default hook when hook is
// null; returns the hook that was in force.
TESSEL_API const ReportHook* SetReportHook(const ReportHook* hook);

}  // namespace Tessel::Platform
