// The debugger output channel.
//
// Text written with OutputDebugStringA goes to one process-wide sink. The default sink
// sends it to syslog at debug level; a host or a test may install its own, for instance to
// capture the text. The sink is called on the writer's thread and must be safe to call from
// any thread; installing a sink is atomic with respect to writers.
#pragma once

#include <cstdarg>

#include "tessel/Export.h"

namespace Tessel::Platform {

using DebugOutputSink = void (*)(const char* text);

// Passes text (NUL-terminated, may be null: then nothing happens) to the current sink.
TESSEL_API void OutputDebugStringA(const char* text);

// Passes prefix and text joined into one text to the current sink. Nothing is written if
// memory for the joined text cannot be had; null stands for an empty text.
TESSEL_API void OutputDebugStrings(const char* prefix, const char* text);

// Prints format with arguments (cut at 2047 characters) behind the executable's name
// (GetExecutableName) and passes the text to the debugger output.
TESSEL_API void DebugPrintV(const char* format, std::va_list arguments)
    __attribute__((format(printf, 1, 0)));
// Printf-style convenience form of DebugPrintV.
TESSEL_API void DebugPrint(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Installs sink, or the default syslog sink when sink is null, and returns the one before.
TESSEL_API DebugOutputSink SetDebugOutputSink(DebugOutputSink sink);

// The default sink: syslog(LOG_DEBUG).
TESSEL_API void SyslogDebugOutputSink(const char* text);

// True when a tracer (a debugger) is attached: TracerPid of /proc/self/status is not 0.
TESSEL_API bool IsDebuggerPresent();

// Breaks into an attached debugger (SIGTRAP). Without a debugger nothing happens: a trap that
// nobody catches would end the process, which is not what the callers of this library want
// from a diagnostic break.
TESSEL_API void DebugBreak();

}  // namespace Tessel::Platform
