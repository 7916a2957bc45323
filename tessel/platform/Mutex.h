// Recursive kernel mutexes, unnamed or named and shared between processes.
//
// A mutex is a robust, recursive pthread mutex. A named one lives in POSIX shared memory, so
// that other processes open it by its name. When the owner dies holding it, the next thread
// to acquire it gets WAIT_ABANDONED (128) from the wait and owns it from then on. The owning
// thread may acquire it again; each acquisition needs a ReleaseMutex.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Creates a mutex, owned by the caller when initialOwner is TRUE. A name of an existing
// mutex opens it instead (ownership is then not taken) and sets last error
// ERROR_ALREADY_EXISTS. Names may contain '\' (as "Global\Name"). Null with the last error
// set on failure.
TESSEL_API HANDLE CreateMutexA(SECURITY_ATTRIBUTES* attributes, BOOL initialOwner,
                               const char* name);

// Opens an existing named mutex. Null with ERROR_FILE_NOT_FOUND if there is none.
TESSEL_API HANDLE OpenMutexA(DWORD desiredAccess, BOOL inheritHandle, const char* name);

// Releases one acquisition. FALSE with ERROR_NOT_OWNER when the caller does not own it.
TESSEL_API BOOL ReleaseMutex(HANDLE mutex);

}  // namespace Tessel::Platform
