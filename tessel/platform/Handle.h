// Kernel object handles and the waits on them.
//
// A HANDLE names one kernel object of the platform layer: an event (Event.h), a mutex
// (Mutex.h), and later timers, threads and processes. Waits return the platform's results:
// WAIT_OBJECT_0 + i when object i was signalled (and, for an automatic-reset event or a
// mutex, acquired), WAIT_ABANDONED_0 + i when mutex i was acquired from an owner that died,
// WAIT_TIMEOUT when the time ran out, WAIT_FAILED with the last error set on a bad argument.
// A time-out of 0 only tests, INFINITE waits for ever; finite time-outs are measured on the
// monotonic clock, and signals delivered to the waiting thread neither end nor shorten them.
// All functions are thread-safe.
//
// Each CreateX or OpenX returns a handle of its own, also for an object that was already
// open; closing one leaves the others valid. Using a handle after CloseHandle, or closing it
// while another thread waits on it, is an error of the caller, as on the platform: only
// CloseHandle itself recognises a handle that is not open.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Closes handle and frees the object when this was its last handle. FALSE with
// ERROR_INVALID_HANDLE for a null or unknown handle, and for one that was closed already.
TESSEL_API BOOL CloseHandle(HANDLE handle);

// Waits up to timeoutMs for handle to be signalled.
TESSEL_API DWORD WaitForSingleObject(HANDLE handle, DWORD timeoutMs);

// Waits up to timeoutMs for one of count handles (waitAll FALSE: the lowest index that is
// signalled wins, and only that object is acquired) or for all of them at once (waitAll TRUE:
// they are acquired together, never some of them). count is 1 to MAXIMUM_WAIT_OBJECTS;
// otherwise, or with a null array, WAIT_FAILED with ERROR_INVALID_PARAMETER, as for one
// object given twice to a wait for all. With waitAll, the result is WAIT_ABANDONED_0 + i when
// mutex i (the lowest such index) was acquired from an owner that died.
TESSEL_API DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll,
                                        DWORD timeoutMs);

// The alertable forms of the two waits. This platform queues no asynchronous procedure calls
// to threads, so an alertable wait is the plain one and never returns WAIT_IO_COMPLETION.
TESSEL_API DWORD WaitForSingleObjectEx(HANDLE handle, DWORD timeoutMs, BOOL alertable);
TESSEL_API DWORD WaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, BOOL waitAll,
                                          DWORD timeoutMs, BOOL alertable);

}  // namespace Tessel::Platform
