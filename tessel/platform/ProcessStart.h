// Starting another program, as CreateProcessA does, and ending it, as TerminateProcess does.
//
// The command line is split into the program and its arguments by the rules of the C runtime
// of the platform the library was designed for. Blanks (spaces and tabs) separate arguments
// outside double quotes; double quotes group and are removed. 2n backslashes followed by a
// double quote give n backslashes and the quote groups; 2n+1 backslashes followed by a double
// quote give n backslashes and a literal quote; two double quotes inside a quotation give one
// literal quote; every other backslash is literal. The program word itself follows the
// runtime's simpler rule for it: quotes group and are removed, backslashes are always
// literal. A program whose name ends in ".bat" or ".cmd" (any case) is a batch file: it runs
// as "/bin/sh <program> <arguments>". Otherwise the program is looked for on PATH unless an
// application name gives its path. The new process gets descriptors 0 to 2 of the caller and
// no others, an empty signal mask, and the default action for every signal. Of the creation
// flags only CREATE_NEW_PROCESS_GROUP counts: the process then leads a process group of its
// own, which its children join. The other inheritance and the start-up information are
// accepted and change nothing.
//
// The process handle is signalled when the process has ended; it is a waitable object like
// any other, closed with CloseHandle; it is null on a kernel without pidfds (before 5.3), where
// the process is started all the same. There is no thread handle on Linux: hThread is null,
// and dwThreadId is the id of the process's first thread, which is its process id. Nobody
// needs to wait for the process for it to be reaped: a small detached thread per started
// process collects its exit status, so that no zombie remains, whether or not the handles are
// kept or closed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Creation flag: the new process leads a process group of its own (see TerminateProcess).
inline constexpr DWORD CREATE_NEW_PROCESS_GROUP = 0x00000200u;

// Start-up flag and show state of the platform's start-up information; accepted and unused.
inline constexpr DWORD STARTF_USESHOWWINDOW = 0x00000001u;
inline constexpr std::uint16_t SW_SHOW = 5;

// The start-up information of the platform, in its layout of 0x68 bytes; accepted and unused.
struct STARTUPINFOA {
    DWORD cb;
    char* lpReserved;
    char* lpDesktop;
    char* lpTitle;
    DWORD dwX;
    DWORD dwY;
    DWORD dwXSize;
    DWORD dwYSize;
    DWORD dwXCountChars;
    DWORD dwYCountChars;
    DWORD dwFillAttribute;
    DWORD dwFlags;
    std::uint16_t wShowWindow;
    std::uint16_t cbReserved2;
    std::uint8_t* lpReserved2;
    HANDLE hStdInput;
    HANDLE hStdOutput;
    HANDLE hStdError;
};
static_assert(sizeof(STARTUPINFOA) == 0x68);

// What CreateProcessA hands back.
struct PROCESS_INFORMATION {
    HANDLE hProcess;
    HANDLE hThread;
    DWORD dwProcessId;
    DWORD dwThreadId;
};

// The words of commandLine, split by the quoting rules of the file comment; the first is the
// program. An empty or blank text gives none.
TESSEL_API std::vector<std::string> SplitCommandLine(const char* commandLine);

// Starts commandLine (see the file comment). applicationName, when not null, is the path of
// the program, which is then not looked for on PATH; the command line still gives all the
// arguments, its first word included. environment, when not null, is the new environment as
// a block of "name=value" texts, each ended by a NUL and the block by a second NUL; null
// passes the caller's. currentDirectory, when not null, is the new process's working folder.
// TRUE and *information filled on success; FALSE with the last error set otherwise:
// ERROR_FILE_NOT_FOUND when the program is not found, ERROR_ACCESS_DENIED when it may not be
// run, ERROR_INVALID_PARAMETER for an empty command line or a null information.
TESSEL_API BOOL CreateProcessA(const char* applicationName, char* commandLine,
                               SECURITY_ATTRIBUTES* processAttributes,
                               SECURITY_ATTRIBUTES* threadAttributes, BOOL inheritHandles,
                               DWORD creationFlags, void* environment, const char* currentDirectory,
                               STARTUPINFOA* startupInfo, PROCESS_INFORMATION* information);

// Ends the process of process at once (SIGKILL). A process started with
// CREATE_NEW_PROCESS_GROUP takes its whole process group with it: every process of the group,
// its background children included, even when the process itself has ended already, so that
// nothing it started outlives it. exitCode is accepted and unused: a killed process has no
// exit code on Linux. TRUE when the signal was sent, or when the process and its group have
// ended already; FALSE with ERROR_INVALID_HANDLE for a handle that is not a process's,
// ERROR_ACCESS_DENIED where the signal is refused.
TESSEL_API BOOL TerminateProcess(HANDLE process, UINT exitCode);

}  // namespace Tessel::Platform
