// The descriptor behind a file handle (private to the library).
//
// Lets the other file services of the platform layer (mapped views) work on the descriptor of
// a handle that CreateFileA made, and lets them make file handles of descriptors of their own
// (the modem of the telephony functions). The descriptor stays owned by the handle: the caller
// neither closes it nor keeps it beyond the handle's CloseHandle.
#pragma once

#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Makes a file handle of the open descriptor fd, which it takes over (CloseHandle closes it,
// and so does a failure here), with access GENERIC_READ and/or GENERIC_WRITE. A descriptor of
// a character device makes a stream handle (File.h). INVALID_HANDLE_VALUE with the last error
// set on failure.
HANDLE MakeFileHandle(int fd, DWORD access);

// The descriptor of the file handle, or -1 with ERROR_INVALID_HANDLE for a handle that is not
// an open file handle.
int FileDescriptorOf(HANDLE file);

// The access that the handle was opened with: GENERIC_READ and/or GENERIC_WRITE; 0 for a handle
// that is not an open file handle.
DWORD FileAccessOf(HANDLE file);

}  // namespace Tessel::Platform
