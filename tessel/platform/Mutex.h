// Recursive kernel mutexes, unnamed or named and shared between processes.
//
// A mutex is a robust, recursive pthread mutex. A named one lives in POSIX shared memory
// (/dev/shm/tessel.mutex.<name>, with '/', '\' and '%' written as %2F, %5C and %25), so that
// other processes open it by its name. The prefixes "Global\" and "Local\" are dropped:
// there is one name space, as for a service on the platform. The name exists while some
// process has a handle to it: the last CloseHandle in the last process removes it, and one
// left behind by a process that died is removed by the next process that opens the name.
// (A process that closes its last handle while one of its threads owns the mutex keeps it
// until it exits.)
//
// When the owner dies holding the mutex (its thread ends, or its process), the next thread
// to acquire it gets WAIT_ABANDONED (128) from the wait and owns it from then on. The owning
// thread may acquire it again; each acquisition needs a ReleaseMutex. A wait on a single
// mutex sleeps in the kernel; a wait on several objects that include a mutex tries it again
// every few milliseconds (at most 10).
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Creates a mutex, owned by the caller when initialOwner is TRUE, and sets last error
// ERROR_SUCCESS. A name of an existing mutex opens it instead (ownership is then not taken)
// and sets last error ERROR_ALREADY_EXISTS. Names may contain '\' (as "Global\Name"). Null
// with the last error set on failure (ERROR_FILENAME_EXCED_RANGE for a name that is too
// long; ERROR_ACCESS_DENIED when another user's mutex may not be opened).
TESSEL_API HANDLE CreateMutexA(SECURITY_ATTRIBUTES* attributes, BOOL initialOwner,
                               const char* name);

// Opens an existing named mutex. Null with ERROR_FILE_NOT_FOUND if there is none.
TESSEL_API HANDLE OpenMutexA(DWORD desiredAccess, BOOL inheritHandle, const char* name);

// Releases one acquisition. FALSE with ERROR_NOT_OWNER when the caller does not own it.
TESSEL_API BOOL ReleaseMutex(HANDLE mutex);

}  // namespace Tessel::Platform
