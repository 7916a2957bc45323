// The status text through sd_notify.
#include "tessel/platform/ServiceStatus.h"

#include <systemd/sd-daemon.h>

#include <string>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {

BOOL SetServiceStatusText(const char* text) {
    if (text == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    // Each line of a notification is an assignment of its own.
    std::string state = "STATUS=";
    for (const char* c = text; *c != '\0'; ++c) {
        state += (*c == '\n' || *c == '\r') ? ' ' : *c;
    }
    const int sent = ::sd_notify(0, state.c_str());
    if (sent > 0) {
        return TRUE;
    }
    if (sent == 0) {
        SetLastError(ERROR_NOT_SUPPORTED);
    } else {
        SetLastErrorFromErrno(-sent);
    }
    return FALSE;
}

}  // namespace Tessel::Platform
