// The calling thread's last error number and the mapping from Linux errno values.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Returns the error number that the last failing platform operation of the calling thread
// stored. Thread-local; never reset by a successful operation unless it says so.
TESSEL_API DWORD GetLastError();

// Stores error as the calling thread's last error.
TESSEL_API void SetLastError(DWORD error);

// Returns the platform error number that stands for the errno value e (ENOENT gives 2,
// EACCES 5, EEXIST 183, ...). Values without a counterpart give ERROR_INVALID_FUNCTION.
TESSEL_API DWORD ErrnoToError(int e);

// Stores ErrnoToError(e) as the last error and returns it.
TESSEL_API DWORD SetLastErrorFromErrno(int e);

// The HRESULT form of an error number: 0x80070000 | low 16 bits for a positive error,
// the value itself otherwise.
constexpr std::int32_t HresultFromError(DWORD error) {
    return static_cast<std::int32_t>(error) <= 0
               ? static_cast<std::int32_t>(error)
               : static_cast<std::int32_t>((error & 0x0000FFFFu) | 0x80070000u);
}

}  // namespace Tessel::Platform
