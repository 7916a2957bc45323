// Events with manual or automatic reset.
//
// An event is an eventfd with an atomic state word. A manual-reset event stays signalled
// until Reset and releases every waiter; an automatic-reset event releases one waiter and
// resets itself in doing so. PulseEvent releases the threads waiting at that moment (all for
// manual reset, one for automatic reset) and leaves the event reset. Testing an event with a
// time-out of 0, and setting an event that is already set, cost no system call.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Creates an event. A name makes it findable by OpenEventA in this process; creating a name
// that exists returns a new handle to the existing event with last error
// ERROR_ALREADY_EXISTS. Returns null with the last error set on failure.
TESSEL_API HANDLE CreateEventA(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                               const char* name);

// Opens a named event of this process. Null with ERROR_FILE_NOT_FOUND if there is none.
TESSEL_API HANDLE OpenEventA(DWORD desiredAccess, BOOL inheritHandle, const char* name);

TESSEL_API BOOL SetEvent(HANDLE event);
TESSEL_API BOOL ResetEvent(HANDLE event);
TESSEL_API BOOL PulseEvent(HANDLE event);

}  // namespace Tessel::Platform
