// CTraceUtil: the raw debug channel of the low-level classes.
//
// DebugString writes "<executable name><text>" to the debugger output, unfiltered. Used by
// classes that sit below the logging facade.
#pragma once

#include <cstdarg>

#include "tessel/Export.h"

class TESSEL_API CTraceUtil {
  public:
    // Prints format with arguments (printf style, cut at 2047 characters) behind the
    // executable's name and passes the text to the debugger output. Nothing is written if
    // memory for the text cannot be had.
    static void DebugString(const char* format, std::va_list arguments)
        __attribute__((format(printf, 1, 0)));

    // Printf-style convenience form of DebugString.
    static void DebugStringF(const char* format, ...) __attribute__((format(printf, 1, 2)));

    // Writes the executable's file name without folder and extension into target, cut to
    // targetSize - 1 characters and NUL-terminated. Returns target.
    static char* GetExeName(char* target, unsigned int targetSize);
};
