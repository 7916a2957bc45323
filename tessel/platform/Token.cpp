#include "tessel/platform/Token.h"

#include <linux/capability.h>
#include <strings.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "tessel/platform/LastError.h"
#include "tessel/platform/detail/KernelObject.h"

namespace Tessel::Platform {
namespace {

// The token: it holds nothing, the capabilities are read when they are asked for.
class TokenObject final : public Waitable {
  public:
    TokenObject() : Waitable(Kind::Other) {}
    Acquire tryAcquire(WaitRecord* /*record*/) override { return Acquire::None; }
    void undoAcquire(Acquire /*how*/, WaitRecord* /*record*/) override {}
};

struct Privilege {
    const char* name;
    DWORD capability;
};

constexpr Privilege kPrivileges[] = {
    {"SeShutdownPrivilege", CAP_SYS_BOOT},
    {"SeSystemtimePrivilege", CAP_SYS_TIME},
    {"SeTimeZonePrivilege", CAP_SYS_TIME},
    {"SeDebugPrivilege", CAP_SYS_PTRACE},
    {"SeBackupPrivilege", CAP_DAC_READ_SEARCH},
    {"SeRestorePrivilege", CAP_DAC_OVERRIDE},
    {"SeIncreaseBasePriorityPrivilege", CAP_SYS_NICE},
};

// The effective capabilities of the process, from /proc/self/status; 0 where unreadable.
std::uint64_t EffectiveCapabilities() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 7, "CapEff:") == 0) {
            return std::strtoull(line.c_str() + 7, nullptr, 16);
        }
    }
    return 0;
}

bool Holds(std::uint64_t capabilities, const LUID& luid) {
    return luid.HighPart == 0 && luid.LowPart < 64 && ((capabilities >> luid.LowPart) & 1u) != 0;
}

}  // namespace

HANDLE GetCurrentProcess() {
    return INVALID_HANDLE_VALUE;
}

BOOL OpenProcessToken(HANDLE process, DWORD /*access*/, HANDLE* token) {
    if (process != GetCurrentProcess()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (token == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *token = MakeHandle(new TokenObject);
    return *token != nullptr ? TRUE : FALSE;
}

BOOL LookupPrivilegeValueA(const char* systemName, const char* name, LUID* luid) {
    if ((systemName != nullptr && *systemName != '\0') || name == nullptr || luid == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    for (const Privilege& privilege : kPrivileges) {
        if (::strcasecmp(privilege.name, name) == 0) {
            *luid = LUID{privilege.capability, 0};
            return TRUE;
        }
    }
    SetLastError(ERROR_NO_SUCH_PRIVILEGE);
    return FALSE;
}

BOOL AdjustTokenPrivileges(HANDLE token, BOOL /*disableAll*/, const TOKEN_PRIVILEGES* newState,
                           DWORD bufferLength, TOKEN_PRIVILEGES* previousState,
                           DWORD* returnLength) {
    if (dynamic_cast<TokenObject*>(ObjectOf(token)) == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (newState == nullptr) {
        SetLastError(ERROR_SUCCESS);
        return TRUE;
    }
    const std::uint64_t capabilities = EffectiveCapabilities();
    const DWORD count = newState->PrivilegeCount;
    if (previousState != nullptr) {
        const DWORD size = static_cast<DWORD>(
            sizeof(TOKEN_PRIVILEGES) + (count > 0 ? count - 1 : 0) * sizeof(LUID_AND_ATTRIBUTES));
        if (returnLength != nullptr) {
            *returnLength = size;
        }
        if (bufferLength < size) {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return FALSE;
        }
        previousState->PrivilegeCount = count;
        for (DWORD i = 0; i < count; ++i) {
            const LUID& luid = newState->Privileges[i].Luid;
            previousState->Privileges[i] = {luid,
                                            Holds(capabilities, luid) ? SE_PRIVILEGE_ENABLED : 0};
        }
    }
    bool all = true;
    for (DWORD i = 0; i < count; ++i) {
        if ((newState->Privileges[i].Attributes & SE_PRIVILEGE_ENABLED) != 0 &&
            !Holds(capabilities, newState->Privileges[i].Luid)) {
            all = false;
        }
    }
    SetLastError(all ? ERROR_SUCCESS : ERROR_NOT_ALL_ASSIGNED);
    return TRUE;
}

}  // namespace Tessel::Platform
