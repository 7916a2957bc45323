#include "tessel/platform/CheckedPrint.h"

#include <cstdio>
#include <cstring>

#include "tessel/platform/InvalidParameter.h"

namespace Tessel::Platform {
namespace {

bool isIntegerConversion(char c) {
    return c != '\0' && std::strchr("diouxX", c) != nullptr;
}

}  // namespace

std::string ToPosixFormat(const char* format) {
    std::string result;
    if (format == nullptr) {
        return result;
    }
    const char* p = format;
    while (*p != '\0') {
        if (*p != '%') {
            result += *p++;
            continue;
        }
        result += *p++;
        if (*p == '%') {
            result += *p++;
            continue;
        }
        // Flags, width and precision come before the size prefix.
        while (*p != '\0' && std::strchr("-+ #0123456789.*'", *p) != nullptr) {
            result += *p++;
        }
        if (*p != 'I') {
            continue;
        }
        if (std::strncmp(p, "I64", 3) == 0 && isIntegerConversion(p[3])) {
            result += "ll";
            p += 3;
        } else if (std::strncmp(p, "I32", 3) == 0 && isIntegerConversion(p[3])) {
            p += 3;
        } else if (isIntegerConversion(p[1])) {
            result += 'z';
            p += 1;
        }
    }
    return result;
}

int vsprintf_s(char* buffer, std::size_t size, const char* format, std::va_list arguments) {
    if (buffer == nullptr || size == 0 || format == nullptr) {
        InvokeInvalidParameter("buffer != nullptr && size > 0 && format != nullptr", "vsprintf_s",
                               __FILE__, __LINE__);
        return -1;
    }
    const int n = std::vsnprintf(buffer, size, format, arguments);
    if (n < 0 || static_cast<std::size_t>(n) >= size) {
        buffer[0] = '\0';
        InvokeInvalidParameter("(\"Buffer too small\", 0)", "vsprintf_s", __FILE__, __LINE__);
        return -1;
    }
    return n;
}

int sprintf_s(char* buffer, std::size_t size, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int n = vsprintf_s(buffer, size, format, arguments);
    va_end(arguments);
    return n;
}

int _vsnprintf_s(char* buffer, std::size_t size, std::size_t count, const char* format,
                 std::va_list arguments) {
    if (buffer == nullptr || size == 0 || format == nullptr) {
        InvokeInvalidParameter("buffer != nullptr && size > 0 && format != nullptr", "_vsnprintf_s",
                               __FILE__, __LINE__);
        return -1;
    }
    const bool truncate = count == _TRUNCATE;
    const std::size_t limit = truncate ? size : (count < size ? count + 1 : size);
    const int n = std::vsnprintf(buffer, limit, format, arguments);
    if (n < 0) {
        buffer[0] = '\0';
        return -1;
    }
    if (static_cast<std::size_t>(n) < limit) {
        return n;
    }
    // vsnprintf cut the output to limit - 1 characters: allowed when asked for.
    if (truncate || count < size) {
        return -1;
    }
    buffer[0] = '\0';
    InvokeInvalidParameter("(\"Buffer too small\", 0)", "_vsnprintf_s", __FILE__, __LINE__);
    return -1;
}

int _snprintf_s(char* buffer, std::size_t size, std::size_t count, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int n = _vsnprintf_s(buffer, size, count, format, arguments);
    va_end(arguments);
    return n;
}

}  // namespace Tessel::Platform
