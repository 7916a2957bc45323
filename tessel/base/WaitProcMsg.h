// WaitForSingleObjectProcMsg, WaitForMultipleObjectsProcMsg: waits that keep the calling
// thread's message queue moving.
//
// A thread that owns a message queue (tessel/platform/MessageQueue.h) and has to wait for an
// object must not let its messages pile up meanwhile: these waits take the messages for window
// (null: all of the thread's messages) out of the queue and dispatch them before they wait, and
// again whenever a new one arrives, on the waiting thread. Time spent dispatching counts against
// the time-out, which is measured in milliseconds of the tick count; a time-out of 0xFFFFFFFF
// (INFINITE) waits for ever. Time-outs above 0xFFFFFFFF count as INFINITE.
//
// Thread safety: both functions work on the calling thread's queue and may be called from any
// thread.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

// Waits until object is signalled (and, for an automatic-reset event or a mutex, taken): 1. 0
// when the time ran out or the wait failed (an invalid handle). A mutex given up by an owner
// that ended counts as a message: it is taken, and the wait goes on for it once more, so that
// the caller ends up holding it twice. A time-out of 0 dispatches what is in the queue, tests
// the object once and returns.
TESSEL_API int WaitForSingleObjectProcMsg(Tessel::Platform::HANDLE object,
                                          Tessel::Platform::HWND window, unsigned long timeoutMs);

// Waits for all count objects, one after the other in whatever order they are signalled, by
// taking each signalled one out of the array, which it overwrites: the entries behind it move
// down, and the count shrinks until it reaches 0. Returns 1 then; 0 at once for a null array or
// a count of 0 or less.
//
// It never reports a time-out. When the time runs out, the result is read as the index of an
// entry past the end: the last entry of the array is dropped without anything moving, and the
// rest is waited for with the same time left as before. The function thus returns 1 after at
// most one time-out per object; callers that need to tell a time-out from success use
// WaitForSingleObjectProcMsg. A mutex given up by an owner that ended is read the same way: it
// is taken, and the last entry is dropped. A failed wait (an invalid handle) is read as the
// index -1: every entry moves down by one, the first one to objects[-1], which the caller must
// therefore own; so the caller has to hand in valid handles.
TESSEL_API int WaitForMultipleObjectsProcMsg(Tessel::Platform::HANDLE* objects, int count,
                                             Tessel::Platform::HWND window,
                                             unsigned long timeoutMs);
