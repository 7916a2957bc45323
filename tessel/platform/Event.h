// Events with manual or automatic reset.
//
// An event is an atomic state word and a list of the threads that wait for it; each waiting
// thread sleeps in poll on its own eventfd. A manual-reset event stays signalled until Reset,
// and SetEvent releases every thread waiting at that moment (even if the event is reset again
// before they run). An automatic-reset event releases one waiter per Set and resets itself in
// doing so; a Set while nobody waits leaves it signalled until one thread takes it.
// PulseEvent releases the threads waiting at that moment (all for manual reset, one for
// automatic reset) and leaves the event reset; a thread that begins to wait later is not
// released. Testing an event with a time-out of 0, resetting it, and setting an event that
// is already set cost no system call.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Creates an event. A name makes it findable by OpenEventA in this process; creating a name
// that exists returns a new handle to the existing event (manualReset and initialState are
// then ignored) with last error ERROR_ALREADY_EXISTS, a new event sets ERROR_SUCCESS. The
// prefixes "Global\" and "Local\" are dropped: there is one name space. The name lives
// until its last handle is closed. Returns null with the last error set on failure
// (ERROR_FILENAME_EXCED_RANGE for a name longer than MAX_PATH).
TESSEL_API HANDLE CreateEventA(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                               const char* name);

// Opens a named event of this process. Null with ERROR_FILE_NOT_FOUND if there is none,
// ERROR_INVALID_PARAMETER for a null name.
TESSEL_API HANDLE OpenEventA(DWORD desiredAccess, BOOL inheritHandle, const char* name);

// FALSE with ERROR_INVALID_HANDLE when event is not an open event handle.
TESSEL_API BOOL SetEvent(HANDLE event);
TESSEL_API BOOL ResetEvent(HANDLE event);
TESSEL_API BOOL PulseEvent(HANDLE event);

}  // namespace Tessel::Platform
