// The process's access token and its privileges.
//
// A privilege of the platform stands for a Linux capability: "SeShutdownPrivilege" is
// CAP_SYS_BOOT, "SeSystemtimePrivilege" and "SeTimeZonePrivilege" CAP_SYS_TIME,
// "SeDebugPrivilege" CAP_SYS_PTRACE, "SeBackupPrivilege" CAP_DAC_READ_SEARCH,
// "SeRestorePrivilege" CAP_DAC_OVERRIDE, "SeIncreaseBasePriorityPrivilege" CAP_SYS_NICE. A
// process has a privilege when the capability is in its effective set; nothing here changes the
// set. Enabling a privilege therefore succeeds where the process holds the capability and
// reports ERROR_NOT_ALL_ASSIGNED where it does not, as the platform does for a token without
// the privilege. All functions are thread-safe.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// A locally unique identifier: here the capability's number in LowPart.
struct LUID {
    DWORD LowPart;
    LONG HighPart;
};

struct LUID_AND_ATTRIBUTES {
    LUID Luid;
    DWORD Attributes;
};

// A count and as many privileges; the array is declared with one element, callers with more
// allocate the room behind it.
struct TOKEN_PRIVILEGES {
    DWORD PrivilegeCount;
    LUID_AND_ATTRIBUTES Privileges[1];
};

inline constexpr DWORD TOKEN_QUERY = 0x0008u;
inline constexpr DWORD TOKEN_ADJUST_PRIVILEGES = 0x0020u;
inline constexpr DWORD SE_PRIVILEGE_ENABLED = 0x00000002u;
inline constexpr DWORD SE_PRIVILEGE_REMOVED = 0x00000004u;
inline constexpr const char* SE_SHUTDOWN_NAME = "SeShutdownPrivilege";

inline constexpr DWORD ERROR_NOT_ALL_ASSIGNED = 1300;
inline constexpr DWORD ERROR_NO_SUCH_PRIVILEGE = 1313;

// The pseudo handle of the calling process; it needs no closing.
TESSEL_API HANDLE GetCurrentProcess();

// Opens the token of process, which must be GetCurrentProcess() (ERROR_INVALID_HANDLE
// otherwise): *token receives a handle to close with CloseHandle.
TESSEL_API BOOL OpenProcessToken(HANDLE process, DWORD access, HANDLE* token);

// The identifier of the privilege name (see above; the name compares without case).
// systemName must be null or empty. ERROR_NO_SUCH_PRIVILEGE for an unknown name.
TESSEL_API BOOL LookupPrivilegeValueA(const char* systemName, const char* name, LUID* luid);

// "Adjusts" the privileges of newState: TRUE, with the last error ERROR_SUCCESS when the
// process holds every privilege that newState enables, ERROR_NOT_ALL_ASSIGNED when it lacks
// one. disableAll and removals change nothing. previousState, where given, receives the
// privileges of newState with their current attributes (bufferLength permitting; otherwise
// ERROR_INSUFFICIENT_BUFFER and *returnLength the size needed).
TESSEL_API BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAll,
                                      const TOKEN_PRIVILEGES* newState, DWORD bufferLength,
                                      TOKEN_PRIVILEGES* previousState, DWORD* returnLength);

}  // namespace Tessel::Platform
