// Starting another program, as CreateProcessA does.
//
// The command line is split at blanks (spaces and tabs) into the program and its arguments;
// quotes have no meaning here. The program is looked for on PATH unless an application name
// gives its path. The new process gets descriptors 0 to 2 of the caller and no others, an
// empty signal mask, and the default action for every signal; the other inheritance, the
// creation flags and the start-up information are accepted and change nothing.
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

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

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

}  // namespace Tessel::Platform
