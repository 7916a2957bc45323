// System events: automatic-reset events that another process sets by name.
//
// The named events of Event.h live inside one process. A system event is seen by every
// process of the machine: it is the abstract Unix datagram socket "\0<name>", bound by the
// process that creates the event, and SetSystemEvent from any process sends it one datagram.
// A datagram waiting on the socket is the signalled state; a wait that acquires the event
// takes every datagram that is waiting, so that the event resets itself and two Sets before
// one wait release one waiter, as for an automatic-reset event that is set twice.
//
// Waits go through WaitForSingleObject and WaitForMultipleObjects like those on any other
// handle; CloseHandle closes it, and the name is free again with the last handle.
//
// The prefixes "Global\" and "Local\" are dropped, as for every named object; a name is at
// most 107 bytes, the room of an abstract socket address. The name space is that of abstract
// sockets, apart from the in-process events of Event.h: an event of Event.h and a system
// event may have the same name.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Creates the system event name, not signalled. If this process holds it already, the result
// is a new handle to that event, with last error ERROR_ALREADY_EXISTS; a new event sets
// ERROR_SUCCESS.
//
// If another process holds the name, the datagrams sent to it go to that process, and no
// handle here can receive them. The result is then a handle that can be waited on and is
// never signalled, with last error ERROR_ALREADY_EXISTS: the caller learns, as it would on the
// platform, that the event exists, and keeps a handle that it may close as usual.
//
// Null with the last error set on failure: ERROR_INVALID_PARAMETER for a null or empty name,
// ERROR_FILENAME_EXCED_RANGE for one that is too long, or the mapped socket error.
TESSEL_API HANDLE CreateSystemEvent(const char* name);

// Sets the system event name, which any process may hold. TRUE when the event exists (also
// when it was set already); FALSE with ERROR_FILE_NOT_FOUND when no process holds the name,
// ERROR_INVALID_PARAMETER or ERROR_FILENAME_EXCED_RANGE for a bad name.
TESSEL_API BOOL SetSystemEvent(const char* name);

}  // namespace Tessel::Platform
