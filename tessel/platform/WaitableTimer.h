// Waitable timers: kernel objects that become signalled at a due time, once or periodically.
//
// A timer is a timerfd of the process. A negative due time is relative, in units of 100 ns,
// and runs on the monotonic clock, so that setting the wall clock neither advances nor delays
// it; a positive due time is absolute, in 100 ns ticks since 1601-01-01 UTC (a FILETIME),
// and follows the wall clock. A due time of 0, or an absolute one that has passed, signals
// at once. A period in milliseconds makes the timer signal again and again after its first
// expiry.
//
// A manual-reset timer stays signalled until it is set again; an automatic-reset
// (synchronisation) timer releases one waiting thread per expiry and resets itself in doing
// so, and expiries that come while it is signalled count as one. Cancelling stops the timer
// without changing its state. A timer is waited for with the waits of Handle.h; there are no
// completion routines on this platform.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// The completion routine of SetWaitableTimer; not supported here.
using PTIMERAPCROUTINE = void (*)(void* argument, DWORD timerLowValue, DWORD timerHighValue);

// Creates a timer, not set and not signalled. A name makes it findable by OpenWaitableTimerA
// in this process; creating a name that exists returns a new handle to the existing timer
// (manualReset is then ignored) with last error ERROR_ALREADY_EXISTS; a new timer sets
// ERROR_SUCCESS. The prefixes "Global\" and "Local\" are dropped. Null with the last error
// set on failure.
TESSEL_API HANDLE CreateWaitableTimerA(SECURITY_ATTRIBUTES* attributes, BOOL manualReset,
                                       const char* name);

// Opens a named timer of this process. Null with ERROR_FILE_NOT_FOUND if there is none,
// ERROR_INVALID_PARAMETER for a null name.
TESSEL_API HANDLE OpenWaitableTimerA(DWORD desiredAccess, BOOL inheritHandle, const char* name);

// Sets timer to dueTime (see above), then every periodMs milliseconds (0: once), and resets
// its state. FALSE with ERROR_INVALID_HANDLE for a handle that is not a timer,
// ERROR_INVALID_PARAMETER for a null due time or a negative period, ERROR_NOT_SUPPORTED
// with a completion routine. resume is accepted and has no effect.
TESSEL_API BOOL SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* dueTime, LONG periodMs,
                                 PTIMERAPCROUTINE completion, void* argument, BOOL resume);

// Stops timer; its state stays as it is. FALSE with ERROR_INVALID_HANDLE for a handle that
// is not a timer.
TESSEL_API BOOL CancelWaitableTimer(HANDLE timer);

}  // namespace Tessel::Platform
