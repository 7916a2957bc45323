// The stack of another thread of this process, captured while it runs, and symbolised.
//
// CaptureThreadStack sends a real-time signal (GetStackTraceSignal) to the thread with
// tgkill. The signal's handler, installed once for the process with SA_SIGINFO|SA_RESTART|
// SA_ONSTACK, unwinds the interrupted stack into a buffer prepared in advance, leaves out
// its own frames (everything before the interrupted instruction) and signals completion;
// the caller waits for that up to its time-out. The handler allocates nothing and takes no
// lock. A handler that runs after the caller has given up (the thread had the signal
// blocked, or was slow) finds its request withdrawn and writes nothing; a request is
// identified by a token that the handler claims with a compare-and-swap.
//
// Only threads of this process can be traced: Linux gives no way of reading the stack of a
// running thread of another process short of attaching a debugger to it.
//
// Side effect on the traced thread: a blocking call that the system does not restart after
// a handler (poll, nanosleep, epoll_wait, ...) returns EINTR once, as for any signal.
//
// Thread safety: any thread may ask; one capture runs at a time, the others wait for it.
// A thread may trace itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// The most frames a capture keeps.
inline constexpr std::size_t kMaxStackFrames = 128;

// The signal that asks a thread for its stack: SIGRTMIN + 4.
TESSEL_API int GetStackTraceSignal();

// Captures the stack of thread threadId of process processId into addresses: first the
// instruction at which the thread was interrupted, then the return address of each caller,
// at most kMaxStackFrames. (Under a run-time that defers signal delivery, such as the
// sanitizers, the handler may run after the thread has moved on; the frames of that later
// point then follow the interrupted instruction.) Waits up to timeoutMs for the thread. FALSE, with
// addresses empty, when processId is not this process, threadId is 0 or no thread of this process,
// or the thread did not answer in time.
TESSEL_API BOOL CaptureThreadStack(long processId, long threadId,
                                   std::vector<std::uintptr_t>& addresses, DWORD timeoutMs = 1000);

// What is known about the code at one address of a captured stack.
struct StackFrameInfo {
    std::uintptr_t address = 0;
    std::string name;      // demangled function name; empty if unknown
    std::string file;      // source file; empty if unknown
    std::size_t line = 0;  // source line; 0 if unknown
};

// Looks up name, file and line of each address (Boost.Stacktrace with libbacktrace, which
// reads the debug information of the executable and the libraries). The first address is
// taken as it is; the others are return addresses, looked up one byte earlier so that they
// name the call and not the instruction after it. The lookups run on one thread of this
// layer ("StackSymbols", started at the first call and kept to the end of the process),
// because the backend keeps its symbol tables per thread and never frees them; callers
// wait for it one at a time. Empty when the lookup failed as a whole.
TESSEL_API std::vector<StackFrameInfo> DescribeStack(const std::vector<std::uintptr_t>& addresses);

}  // namespace Tessel::Platform
