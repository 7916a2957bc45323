// custom_minidump::MiniDumpHelper: the last thing a dying process runs.
//
// Constructed once at the start of a process, before anything else of the library, it
// installs itself as the process's unhandled-exception filter (a fatal signal: SIGSEGV,
// SIGBUS, SIGFPE, SIGILL, SIGABRT; see tessel/platform/CrashHandling.h) and as its terminate
// handler. Both lead into UnhandledExceptionHandler, which writes two dump files side by side
// into the temp directory and then lets the process end:
//  - "<name>_<yyyymmddhhmmss>.dmp", the compact crash report (signal, fault address,
//    registers, the failing thread's stack, the threads, /proc/self/maps and status);
//  - "<name>_<yyyymmddhhmmss>_FULLMEM.dmp", of the configured dump type: with
//    MiniDumpWithFullMemory an ELF core of the whole process written by gcore (open it with
//    "gdb <executable> <file>"), without it a second compact report. Without gcore on PATH only
//    the first file is written and the failure is logged.
// <name> is the executable's name, cut at its first '.'. The small file comes first and is
// nearly sure to be complete even if the big one runs out of disk.
//
// The dump type of the second file is the registry value "MiniDumpType" (REG_DWORD) below
// SOFTWARE\Tarvo Works\GPS Velkor\DebugService in the local machine hive, default 0x41106;
// it is read again in the crash, so a change while the process runs counts. The type given
// to the constructor is only stored and traced.
//
// One process of the machine writes dumps at a time (a machine-wide guard); a second crash,
// in this process or another, waits for it and then writes its own pair. The handler also
// tells the watchdog (CWatchdogClient::NotifyUnhandledExceptionHandlerCalled) and logs at
// error level under "custom_minidump::MiniDumpHelper::UnhandledExceptionHandler".
//
// Lifetime: one object for the life of the process; its state is class-wide. The destructor
// restores the filter and the terminate handler that were in place before.
//
// Thread safety: the handlers run on the failing thread, with every lock of the process in
// an unknown state; they use the logger and the registry all the same. A process whose
// handler hangs is ended after 120 s by the platform (CrashHandling.h).
#pragma once

#include <exception>

#include "tessel/Export.h"
#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/Types.h"

namespace custom_minidump {

using Tessel::Platform::EXCEPTION_POINTERS;
using Tessel::Platform::HANDLE;

// What a dump holds, as flags.
enum MINIDUMP_TYPE : unsigned long {
    MiniDumpNormal = 0x0,
    MiniDumpWithDataSegs = 0x1,
    MiniDumpWithFullMemory = 0x2,
    MiniDumpWithHandleData = 0x4,
    MiniDumpWithProcessThreadData = 0x100,
    MiniDumpWithThreadInfo = 0x1000,
    MiniDumpWithTokenInformation = 0x40000,
};

// The default type of the second dump.
inline constexpr unsigned long kDefaultDumpType = 0x41106;

struct MINIDUMP_EXCEPTION_INFORMATION {
    unsigned long ThreadId;
    EXCEPTION_POINTERS* ExceptionPointers;
    int ClientPointers;
};

// Writes the dump of process processId of type into the open file file: the crash report,
// or with MiniDumpWithFullMemory the core. Non-zero on success; 0 with the last error set.
using MiniDumpWriteDumpRoutine = int (*)(HANDLE process, unsigned long processId, HANDLE file,
                                         MINIDUMP_TYPE type,
                                         MINIDUMP_EXCEPTION_INFORMATION* information,
                                         void* userStream, void* callback);

// The dump writer of this platform, the routine that UnhandledExceptionHandler hands to
// WriteDumpFile.
TESSEL_API int MiniDumpWriteDump(HANDLE process, unsigned long processId, HANDLE file,
                                 MINIDUMP_TYPE type, MINIDUMP_EXCEPTION_INFORMATION* information,
                                 void* userStream, void* callback);

class TESSEL_API MiniDumpHelper {
  public:
    // Stores and traces dumpType, finds the executable's name ("Application" if none), and
    // installs the filter and the terminate handler, keeping the former ones.
    explicit MiniDumpHelper(const unsigned long& dumpType = 0);
    // Frees the name and puts the former terminate handler and filter back.
    ~MiniDumpHelper();
    MiniDumpHelper(const MiniDumpHelper&) = delete;
    MiniDumpHelper& operator=(const MiniDumpHelper&) = delete;

    // The installed filter: the two-argument form without a standard exception.
    static long UnhandledExceptionHandler(EXCEPTION_POINTERS* pointers);
    // Writes the two dumps of the fault pointers describes (exception: the standard exception
    // that reached terminate, or null). The former filter's result where there is one;
    // otherwise EXCEPTION_EXECUTE_HANDLER (1) after both dumps, 0 where the second dump
    // failed, EXCEPTION_CONTINUE_EXECUTION (-1) where the temp directory cannot be made.
    static long UnhandledExceptionHandler(EXCEPTION_POINTERS* pointers, std::exception* exception);
    // The installed terminate handler: a non-continuable exception record (0xC0000025) for
    // the filter, with the current exception where it derives from std::exception; an
    // exception of another type ends the process without a dump. Returns into abort, whose
    // SIGABRT then writes no second pair.
    static void UnhandledStdExceptionHandler();
    // Opens path (replacing it) and lets writer write the dump of type into it. 1 on success;
    // 0 when the file cannot be made or the writer fails, both logged.
    static int WriteDumpFile(MINIDUMP_TYPE type, const char* path,
                             MINIDUMP_EXCEPTION_INFORMATION* const information,
                             MiniDumpWriteDumpRoutine writer, void* userStream, void* callback);

    static unsigned long mDumpType;
    static char* mApplicationName;
    static Tessel::Platform::LPTOP_LEVEL_EXCEPTION_FILTER m_previousFilter;
    static std::terminate_handler m_previousHandler;
};

}  // namespace custom_minidump
