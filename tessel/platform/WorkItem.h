// Work items: a function run once on a thread of a small pool that the library keeps for the
// whole process.
//
// The pool starts with the first item and lives as long as the process. It has two to four
// threads, by the number of processors, started as items arrive while none is idle; items
// beyond that wait in the order they were queued. An item queued with WT_EXECUTELONGFUNCTION
// gets a thread of its own that ends with it, so that a long wait (a dialog, a service that
// takes minutes to stop) never holds back the short items of the pool. Items run in no fixed
// order against each other, and nothing waits for them: the caller that needs to know when
// an item has ended signals that from the function. The functions are thread-safe.
//
// A forked child has no pool threads: its first item starts a new pool, and items that the
// parent had queued are not run in the child.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/TimerQueue.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

using ULONG = std::uint32_t;

// The function of a work item: it receives the context given to QueueUserWorkItem. Its result
// is not used.
using LPTHREAD_START_ROUTINE = DWORD (*)(void* context);

// Queues function(context) to run once on a pool thread. flags: WT_EXECUTEDEFAULT (0) or
// WT_EXECUTELONGFUNCTION (0x10, a thread of its own); the other WT_ flags are accepted and
// run the item on the pool. TRUE when the item is queued; FALSE with ERROR_INVALID_PARAMETER
// for a null function, or with the error of the system when no thread could be started for
// it (the item is then not run).
TESSEL_API BOOL QueueUserWorkItem(LPTHREAD_START_ROUTINE function, void* context, ULONG flags);

}  // namespace Tessel::Platform
