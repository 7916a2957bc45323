// The status text that a service shows its service manager (systemd's "STATUS=").
//
// A process that systemd started as a service of type notify, or with NotifyAccess set, finds
// the manager's socket in the environment variable NOTIFY_SOCKET; `systemctl status` then
// shows the last text sent. Outside systemd there is nobody to tell. Thread-safe.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Sends text as the process's status text. The text is one line: line breaks in it become
// blanks. TRUE when the manager's socket took it; FALSE with ERROR_NOT_SUPPORTED when the
// process does not run under a service manager (NOTIFY_SOCKET not set), with
// ERROR_INVALID_PARAMETER for a null text, or with the error of the system when it could not
// be sent.
TESSEL_API BOOL SetServiceStatusText(const char* text);

}  // namespace Tessel::Platform
