// Identity of the calling process and thread, the processors it may use, and where the executable
// lives.
#pragma once

#include <cstddef>
#include <string>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// The kernel's id of the calling thread (gettid), cached per thread. It is the number that
// log lines print as the thread id.
TESSEL_API DWORD GetCurrentThreadId();

// The id of the calling process.
TESSEL_API DWORD GetCurrentProcessId();

// The number of processors that the calling thread may run on (its affinity mask, which a new
// thread inherits), or the processors online where the mask cannot be read; at least 1. It
// stands in for the processor count of the platform's system information when a pool is sized.
TESSEL_API DWORD GetNumberOfUsableProcessors();

// The absolute path of the running executable, read from /proc/self/exe.
TESSEL_API std::string GetExecutablePath();

// The executable's file name without folder and extension ("tessel-host" for
// /usr/bin/tessel-host, "TarvoWD" for .../TarvoWD.exe).
TESSEL_API std::string GetExecutableName();

// The folder in which files kept beside the executable are looked for: the value of the
// environment variable TESSEL_APP_DIR where it is set and not empty, else the folder of the
// executable. No trailing '/'.
TESSEL_API std::string GetApplicationDirectory();

// The path that stands for the executable in path computations: the application directory,
// '/', and the executable's file name. Files "beside the executable" are thereby found in
// TESSEL_APP_DIR where that is set.
TESSEL_API std::string GetModulePath();

// GetModulePath() copied into buffer of size characters, NUL-terminated. Returns the length
// copied without the NUL; a path that does not fit is cut to size - 1 characters, and the
// result is then size with last error ERROR_INSUFFICIENT_BUFFER, as the platform does.
TESSEL_API DWORD GetModuleFileNameA(char* buffer, DWORD size);

}  // namespace Tessel::Platform
