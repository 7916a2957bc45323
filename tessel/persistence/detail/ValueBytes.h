// Bounded reads and writes of the persistable values' serialised forms.
//
// Numbers are little-endian and unaligned, copied with memcpy. Every read names the bytes it
// needs and fails when they do not lie within the input; the writes that follow the runtime's
// checked copy report a buffer that is too small through the invalid-parameter handler
// (errno EINVAL for a null buffer, ERANGE for a small one, as the checked copy sets it) and
// write nothing past it.
#pragma once

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "tessel/platform/InvalidParameter.h"

namespace Tessel::Persistence::Detail {

static_assert(std::endian::native == std::endian::little,
              "the serialised forms are little-endian and copied as they stand");

// The number at offset of a buffer of size bytes; false, with value unchanged, if buffer is
// null or the number's bytes do not lie within size.
template <class Number>
bool ReadAt(const unsigned char* buffer, size_t size, size_t offset, Number& value) {
    if (buffer == nullptr || offset > size || size - offset < sizeof(Number)) {
        return false;
    }
    std::memcpy(&value, buffer + offset, sizeof(Number));
    return true;
}

// Writes value at offset; the caller has made sure that its bytes fit.
template <class Number>
void WriteAt(unsigned char* buffer, size_t offset, Number value) {
    std::memcpy(buffer + offset, &value, sizeof(Number));
}

// Reports an invalid parameter from function, with errno set to error first.
inline void ReportInvalid(int error, const char* expression, const char* function) {
    errno = error;
    Tessel::Platform::InvokeInvalidParameter(expression, function, __FILE__, __LINE__);
}

// The checked copy of count bytes of source into target, a buffer of size bytes: true after
// the copy. A null target is reported (EINVAL); a count beyond size clears the size bytes and
// is reported (ERANGE). Both then return false, if the handler returns, with nothing copied.
inline bool CheckedCopy(unsigned char* target, size_t size, const void* source, size_t count,
                        const char* function) {
    if (target == nullptr) {
        ReportInvalid(EINVAL, "target != nullptr", function);
        return false;
    }
    if (count > size) {
        std::memset(target, 0, size);
        ReportInvalid(ERANGE, "(\"Buffer too small\", 0)", function);
        return false;
    }
    std::memcpy(target, source, count);
    return true;
}

}  // namespace Tessel::Persistence::Detail
