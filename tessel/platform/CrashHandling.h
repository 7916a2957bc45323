// The way into the dump path of a dying process: the unhandled-exception filter, the
// pure-virtual-call handler, alternate signal stacks, and the writers of the two dump files.
//
// The filter. SetUnhandledExceptionFilter installs, on its first call, one action for the
// fatal signals SIGSEGV, SIGBUS, SIGFPE, SIGILL and SIGABRT (SA_SIGINFO, SA_ONSTACK) and keeps
// the actions that were in place before it, the former actions. When such a signal arrives the
// action describes it as an exception (EXCEPTION_RECORD with the platform's code, CONTEXT with
// the signal, its code, the fault address and the registers) and calls the filter in force
// once, on the faulting thread. Whatever the filter returns, the process then ends by the
// same signal: for EXCEPTION_EXECUTE_HANDLER the default action is restored, for the other
// results the former action, and the signal is raised again. A former action that is the
// default, SIG_IGN, or a handler that FormerSignalActionFilter has already run for this fault
// counts as the default action, so that no handler sees one fault twice. Where the former
// action is a handler and the fault is one of the processor (si_code > 0, not SIGABRT), the
// signal is not sent again: the instruction faults again on return and the handler gets the
// fault as the kernel reports it. Before the default action runs, the core size limit is set
// to 0, since the process has written its dumps itself. A fault in the filter itself, on the
// same thread (an abort() in it included), ends the process at once by the default action.
// Faults of two threads are filtered one after the other, each on its own thread.
//
// Bounded wait. A filter that has not returned after 120 seconds (a hung logger, a hung
// gcore) is cut short: a kernel timer of the faulting thread sends it SIGALRM, whose action
// ends the process by the default action of the signal being filtered. The library owns the
// SIGALRM action while a filter runs; another SIGALRM in that time is dropped. A gcore that
// hangs while it holds the process stopped holds the timer's delivery up as well.
//
// One decision per death. A thread that has decided how the process ends without a signal
// (the terminate handler, which returns into abort) marks that with SetCrashDecidedOnThisThread:
// a SIGABRT on that thread then goes straight to the default action, without the filter.
//
// Exception codes: SIGSEGV EXCEPTION_ACCESS_VIOLATION, SIGBUS EXCEPTION_IN_PAGE_ERROR, SIGILL
// EXCEPTION_ILLEGAL_INSTRUCTION, SIGFPE EXCEPTION_INT_DIVIDE_BY_ZERO (FPE_INTDIV),
// EXCEPTION_INT_OVERFLOW (FPE_INTOVF) or EXCEPTION_FLT_* by its code, SIGABRT
// STATUS_FATAL_APP_EXIT. ExceptionAddress is the fault address for SIGSEGV and SIGBUS and the
// instruction pointer for the others. A memory fault carries, as on the platform, two
// parameters: the kind of access (0 read, 1 write, 8 execute) and the address. The fault
// address is null for a signal that a process sent (si_code <= 0) and for SIGABRT.
//
// Alternate stacks. A thread overflowing its stack can run the filter only on another stack:
// EnsureAlternateSignalStack gives the calling thread one (kAlternateStackSize bytes, freed when
// the thread ends). SetUnhandledExceptionFilter gives one to its caller; every thread that the
// library starts asks for one when it starts.
//
// The dump writers run inside the filter with every lock of the process in an unknown state:
// WriteCrashReport uses only async-signal-safe calls; WriteProcessCore starts gcore with
// posix_spawn and waits for it.
//
// Thread safety: all functions may be called from any thread; the filter and the pure-call
// handler are process-wide.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Exception codes of the platform.
inline constexpr DWORD EXCEPTION_ACCESS_VIOLATION = 0xC0000005u;
inline constexpr DWORD EXCEPTION_IN_PAGE_ERROR = 0xC0000006u;
inline constexpr DWORD EXCEPTION_ILLEGAL_INSTRUCTION = 0xC000001Du;
inline constexpr DWORD EXCEPTION_NONCONTINUABLE_EXCEPTION = 0xC0000025u;
inline constexpr DWORD EXCEPTION_FLT_DIVIDE_BY_ZERO = 0xC000008Eu;
inline constexpr DWORD EXCEPTION_FLT_INEXACT_RESULT = 0xC000008Fu;
inline constexpr DWORD EXCEPTION_FLT_INVALID_OPERATION = 0xC0000090u;
inline constexpr DWORD EXCEPTION_FLT_OVERFLOW = 0xC0000091u;
inline constexpr DWORD EXCEPTION_FLT_UNDERFLOW = 0xC0000093u;
inline constexpr DWORD EXCEPTION_INT_DIVIDE_BY_ZERO = 0xC0000094u;
inline constexpr DWORD EXCEPTION_INT_OVERFLOW = 0xC0000095u;
inline constexpr DWORD STATUS_FATAL_APP_EXIT = 0x40000015u;
// ExceptionFlags.
inline constexpr DWORD EXCEPTION_NONCONTINUABLE = 1;
// Results of a filter.
inline constexpr long EXCEPTION_EXECUTE_HANDLER = 1;
inline constexpr long EXCEPTION_CONTINUE_SEARCH = 0;
inline constexpr long EXCEPTION_CONTINUE_EXECUTION = -1;

struct EXCEPTION_RECORD {
    DWORD ExceptionCode = 0;
    DWORD ExceptionFlags = 0;
    EXCEPTION_RECORD* ExceptionRecord = nullptr;
    void* ExceptionAddress = nullptr;
    DWORD NumberParameters = 0;
    std::uintptr_t ExceptionInformation[15] = {};
};

// The machine state of the fault. Zeroed (Signal 0, no registers) where none is known, as
// for the record that the terminate handler makes.
struct CONTEXT {
    int Signal = 0;                // the signal number, 0 if none
    int SignalCode = 0;            // si_code
    void* FaultAddress = nullptr;  // si_addr
    bool HasRegisters = false;
    // The general registers in the order of the kernel's x86-64 signal frame (r8 ... r15, rdi,
    // rsi, rbp, rbx, rdx, rax, rcx, rsp, rip, eflags, cs/gs/fs, err, trapno, oldmask, cr2).
    std::uint64_t Registers[23] = {};
    // The kernel's ucontext_t of the signal, for the report writer; null where none.
    const void* SignalContext = nullptr;
};

struct EXCEPTION_POINTERS {
    EXCEPTION_RECORD* ExceptionRecord = nullptr;
    CONTEXT* ContextRecord = nullptr;
};

using LPTOP_LEVEL_EXCEPTION_FILTER = long (*)(EXCEPTION_POINTERS* pointers);

// Installs filter as the process's unhandled-exception filter and returns the one before
// it. The first call (and the first after a call with null) returns, instead of a filter set
// before, FormerSignalActionFilter where one of the former actions is a handler of the
// program's own, else null. null uninstalls: the former actions are restored.
TESSEL_API LPTOP_LEVEL_EXCEPTION_FILTER
SetUnhandledExceptionFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter);

// A filter that runs the former action of the signal that pointers describe where that is a
// handler of the program's own (with the signal's siginfo and context), and returns
// EXCEPTION_CONTINUE_SEARCH. Does nothing for a record without a signal.
TESSEL_API long FormerSignalActionFilter(EXCEPTION_POINTERS* pointers);

// Marks that the calling thread has decided how the process ends: its next SIGABRT skips the
// filter.
TESSEL_API void SetCrashDecidedOnThisThread();

// Gives the calling thread an alternate signal stack if it has none. FALSE if it could not be
// allocated.
inline constexpr std::size_t kAlternateStackSize = 256 * 1024;
TESSEL_API BOOL EnsureAlternateSignalStack();

// The handler of a call to a pure virtual function. Installs handler and returns the one
// before (null for the default); null restores the default, which reports "pure virtual
// method called" on standard error and aborts. A handler that returns is followed by the
// default. The library exports __cxa_pure_virtual, which takes the place of the C++ run-time's
// in every program that links the library before it (g++ does).
using PureCallHandler = void (*)();
TESSEL_API PureCallHandler SetPureCallHandler(PureCallHandler handler);

// Writes the compact crash report of the fault that pointers describes (may be null, or
// without a context) to the file path, replacing it: the signal and its code, the exception
// code, the fault address, the registers, the stack of the calling thread (symbolised where
// the symbols are at hand), the ids and names of the process's threads, /proc/self/maps and
// /proc/self/status. Only async-signal-safe calls. FALSE with the last error set if the file
// cannot be made or written.
TESSEL_API BOOL WriteCrashReport(const char* path, const EXCEPTION_POINTERS* pointers);

// Writes an ELF core of the whole process to path, replacing it, by gcore (found on PATH) in a
// child started with posix_spawn (standard streams on /dev/null, the environment as it is),
// and waits for it; gcore writes "<path>.gcore.<pid>" first, renamed to path when it has
// succeeded. The process lets any process of its account attach for that time, where Yama
// restricts attaching to ancestors. FALSE with the last error set:
// ERROR_FILE_NOT_FOUND where gcore is not at hand, ERROR_GEN_FAILURE where it failed.
TESSEL_API BOOL WriteProcessCore(const char* path);

// Whether gcore is found on PATH.
TESSEL_API BOOL IsProcessCoreWriterAvailable();

// The guard that lets one process of the machine write dumps at a time: an exclusive flock
// of the file "/tmp/<name>.lock" (a '/' in name becomes '_'), taken without a limit. The file
// is made readable and writable for every account, so that processes of different accounts
// share it. Returns a token for ReleaseCrashGuard, -1 with the last error set if the lock
// file cannot be opened or locked (the caller goes on without the guard). ReleaseCrashGuard
// unlocks before it closes, so that a child forked meanwhile does not keep the lock.
TESSEL_API int AcquireCrashGuard(const char* name);
TESSEL_API void ReleaseCrashGuard(int token);

}  // namespace Tessel::Platform
