// Timer queues: callbacks after a due time, once or periodically, run by a small pool of
// threads that the library keeps for all queues of the process.
//
// One dispatcher thread keeps the due times of all queue timers on the monotonic clock and
// hands each expiry to the pool (two to four threads, by the number of processors), which
// starts with the first timer and lives as long as the process. A timer's callbacks never
// overlap: an expiry that comes while the timer's previous callback still runs is dropped,
// and a periodic timer keeps the rhythm of its first expiry. A one-shot timer (period 0, or
// WT_EXECUTEONLYONCE) stays a timer until it is deleted. The null queue is the default queue
// of the process; CreateTimerQueue makes further ones, which group timers for
// DeleteTimerQueueEx.
//
// Timer and queue handles belong to these functions only: they are not kernel objects, and
// CloseHandle and the waits do not accept them.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// The callback: the parameter given at creation, and TRUE (a timer always fired).
using WAITORTIMERCALLBACK = void (*)(void* parameter, BOOL timerOrWaitFired);

// Flags of CreateTimerQueueTimer. Only WT_EXECUTEONLYONCE changes anything here; the others
// are accepted, since every callback runs on the pool.
inline constexpr DWORD WT_EXECUTEDEFAULT = 0x00;
inline constexpr DWORD WT_EXECUTEONLYONCE = 0x08;
inline constexpr DWORD WT_EXECUTELONGFUNCTION = 0x10;
inline constexpr DWORD WT_EXECUTEINTIMERTHREAD = 0x20;
inline constexpr DWORD WT_EXECUTEINPERSISTENTTHREAD = 0x80;

// A new timer queue; null with ERROR_NOT_ENOUGH_MEMORY.
TESSEL_API HANDLE CreateTimerQueue();

// Makes a timer on queue (null: the default queue) that calls callback(parameter, TRUE)
// after dueTimeMs, then every periodMs (0: once), and stores its handle in *newTimer. FALSE
// with ERROR_INVALID_PARAMETER for a null newTimer or callback, or an unknown queue; with
// the error of the system when the pool's threads cannot be started.
TESSEL_API BOOL CreateTimerQueueTimer(HANDLE* newTimer, HANDLE queue, WAITORTIMERCALLBACK callback,
                                      void* parameter, DWORD dueTimeMs, DWORD periodMs,
                                      DWORD flags);

// Deletes timer: no callback of it begins after this call. completionEvent says what happens
// to a callback that is running: INVALID_HANDLE_VALUE waits for it to return (except when
// the call comes from that callback, which cannot be waited for: then FALSE with
// ERROR_IO_PENDING); an event handle is set when it has returned (at once if none runs),
// and null does not wait. Without a wait, FALSE with ERROR_IO_PENDING tells that a callback
// was still running. FALSE with ERROR_INVALID_PARAMETER for an unknown timer.
TESSEL_API BOOL DeleteTimerQueueTimer(HANDLE queue, HANDLE timer, HANDLE completionEvent);

// Deletes queue and all its timers. With INVALID_HANDLE_VALUE or an event handle the call
// waits for running callbacks (except one that makes this call) and then sets the event;
// with null it does not wait. FALSE with ERROR_INVALID_PARAMETER for an unknown or null
// queue.
TESSEL_API BOOL DeleteTimerQueueEx(HANDLE queue, HANDLE completionEvent);

}  // namespace Tessel::Platform
