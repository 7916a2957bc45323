// Threads of the process: priorities, names, forced termination and the handle count.
//
// Priorities are the platform's values (THREAD_PRIORITY_*) and map to nice values of the
// kernel thread: IDLE 19, LOWEST 10, BELOW_NORMAL 5, NORMAL 0, ABOVE_NORMAL -5, HIGHEST -10,
// TIME_CRITICAL -20. Raising a priority needs the right to do so; a refusal is ignored.
//
// Forced termination is a cancellation of the thread, which takes effect at its next
// cancellation point (a sleep, a wait, a read). A thread that never reaches one cannot be
// ended.
#pragma once

#include <pthread.h>

#include <string>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

inline constexpr int THREAD_PRIORITY_IDLE = -15;
inline constexpr int THREAD_PRIORITY_LOWEST = -2;
inline constexpr int THREAD_PRIORITY_BELOW_NORMAL = -1;
inline constexpr int THREAD_PRIORITY_NORMAL = 0;
inline constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 1;
inline constexpr int THREAD_PRIORITY_HIGHEST = 2;
inline constexpr int THREAD_PRIORITY_TIME_CRITICAL = 15;

// Sets the priority of thread threadId (a kernel thread id of this process). TRUE also when
// the system refused a raise; FALSE with the last error set for an unknown thread or a
// priority outside the platform's values.
TESSEL_API BOOL SetThreadPriority(DWORD threadId, int priority);

// The nice value that stands for priority.
TESSEL_API int NiceValueOfPriority(int priority);

// Names thread threadId of this process; the kernel keeps the first 15 characters. FALSE
// for an unknown thread.
TESSEL_API BOOL SetThreadName(DWORD threadId, const char* name);

// The kernel's name of thread threadId of this process, or "" for an unknown thread.
TESSEL_API std::string GetThreadName(DWORD threadId);

// Asks thread to end at its next cancellation point. exitCode is not kept by the system;
// callers record it themselves. FALSE if the thread no longer exists.
TESSEL_API BOOL TerminateThread(pthread_t thread, DWORD exitCode);

// The number of open descriptors of the process, its count of handles.
TESSEL_API DWORD GetProcessHandleCount();

}  // namespace Tessel::Platform
