// The process's window station: whether a user can see and answer the process.
//
// A service of the platform the library was designed for runs in a window station that no
// user sees. Here the station is the process's session (getsid), and it is visible when the
// process has a controlling terminal: a program started from a shell, a terminal window or a
// remote login is interactive; a systemd service, a cron job or a daemon that has left its
// session is not, even if its output goes to a terminal file.
//
// Thread safety: the functions hold no state and may be called from any thread.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Names a window station: the id of a session; 0 is none.
using HWINSTA = std::intptr_t;

// The information classes of GetUserObjectInformationA: only the flags are known here.
inline constexpr int UOI_FLAGS = 1;
// The flag of a station that a user sees.
inline constexpr DWORD WSF_VISIBLE = 1;

struct USEROBJECTFLAGS {
    BOOL fInherit;
    BOOL fReserved;
    DWORD dwFlags;
};

// The station of the calling process. Never 0.
TESSEL_API HWINSTA GetProcessWindowStation();

// Fills info, of length bytes, with the information of class index of station: for UOI_FLAGS
// a USEROBJECTFLAGS whose dwFlags has WSF_VISIBLE when the station is the calling process's
// and the process has a controlling terminal. *lengthNeeded, if not null, receives the size of
// the record. FALSE with the last error ERROR_INVALID_PARAMETER for another class or station,
// or null info, and ERROR_INSUFFICIENT_BUFFER for a length smaller than the record.
TESSEL_API BOOL GetUserObjectInformationA(HWINSTA station, int index, void* info, DWORD length,
                                          DWORD* lengthNeeded);

}  // namespace Tessel::Platform
