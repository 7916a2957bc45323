// The process-wide handler for invalid parameters.
//
// A text that does not fit a fixed buffer, or a bad argument to a checked runtime function,
// is never a silent overrun: the checked function calls the current handler. The default
// handler writes one line naming the fault to standard error and to the debugger output and
// aborts the process. The crash handlers install one that leads into the dump path; a test
// may install one that throws. If a handler returns, the checked function fails with its
// documented error result.
#pragma once

#include "tessel/Export.h"

namespace Tessel::Platform {

// expression: the failed check; function, file, line: where it was made. Any may be null.
using InvalidParameterHandler = void (*)(const char* expression, const char* function,
                                         const char* file, unsigned int line);

// Installs handler, or the default one when handler is null; returns the one before.
TESSEL_API InvalidParameterHandler SetInvalidParameterHandler(InvalidParameterHandler handler);

// The handler in force.
TESSEL_API InvalidParameterHandler GetInvalidParameterHandler();

// Calls the handler in force with the given description.
TESSEL_API void InvokeInvalidParameter(const char* expression, const char* function,
                                       const char* file, unsigned int line);

// The default handler: reports and aborts.
[[noreturn]] TESSEL_API void DefaultInvalidParameterHandler(const char* expression,
                                                            const char* function, const char* file,
                                                            unsigned int line);

}  // namespace Tessel::Platform
