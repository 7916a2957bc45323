#include "tessel/platform/WindowStation.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {

HWINSTA GetProcessWindowStation() {
    return static_cast<HWINSTA>(::getsid(0));
}

BOOL GetUserObjectInformationA(HWINSTA station, int index, void* info, DWORD length,
                               DWORD* lengthNeeded) {
    if (lengthNeeded != nullptr) {
        *lengthNeeded = sizeof(USEROBJECTFLAGS);
    }
    if (index != UOI_FLAGS || info == nullptr || station != GetProcessWindowStation()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (length < sizeof(USEROBJECTFLAGS)) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    USEROBJECTFLAGS flags{};
    // /dev/tty opens only for a process with a controlling terminal (ENXIO otherwise).
    const int terminal = ::open("/dev/tty", O_RDONLY | O_NOCTTY | O_CLOEXEC);
    if (terminal >= 0) {
        ::close(terminal);
        flags.dwFlags = WSF_VISIBLE;
    }
    std::memcpy(info, &flags, sizeof(flags));
    return TRUE;
}

}  // namespace Tessel::Platform
