// Print into fixed-size buffers, checked.
//
// sprintf_s never writes past its buffer: output that does not fit, with its terminating
// NUL, empties the buffer and calls the invalid-parameter handler; if the handler returns,
// the result is -1. _snprintf_s with _TRUNCATE is the counted print that cuts instead: it
// writes what fits, always NUL-terminated, and returns -1 when it had to cut.
//
// ToPosixFormat turns a format written for the platform's print functions into one that
// vsnprintf understands.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

#include "tessel/Export.h"

namespace Tessel::Platform {

// Passed as count to _snprintf_s: write as much as fits and cut the rest.
inline constexpr std::size_t _TRUNCATE = static_cast<std::size_t>(-1);

// Returns the number of characters written without the NUL, or -1 after the handler.
TESSEL_API int sprintf_s(char* buffer, std::size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
TESSEL_API int vsprintf_s(char* buffer, std::size_t size, const char* format,
                          std::va_list arguments) __attribute__((format(printf, 3, 0)));

// Writes at most count characters (or as many as fit for _TRUNCATE) and a NUL. Returns the
// number of characters written, or -1 when the output was cut at count or at the buffer
// end. A count of size or more whose output does not fit the buffer
// is an invalid parameter, as is a null buffer or format.
TESSEL_API int _snprintf_s(char* buffer, std::size_t size, std::size_t count, const char* format,
                           ...) __attribute__((format(printf, 4, 5)));
TESSEL_API int _vsnprintf_s(char* buffer, std::size_t size, std::size_t count, const char* format,
                            std::va_list arguments) __attribute__((format(printf, 4, 0)));

// format with the platform's size prefixes of a conversion rewritten for vsnprintf: "I64"
// becomes "ll" ("%I64d" -> "%lld", also before i, u, o, x, X), "I32" is dropped ("%I32d" ->
// "%d"), and a plain "I" before d, i, u, o, x or X becomes "z" ("%Iu" -> "%zu"). Flags,
// width and precision stay in place; "%%" and every other text are copied unchanged. A null
// format gives an empty text.
TESSEL_API std::string ToPosixFormat(const char* format);

}  // namespace Tessel::Platform
