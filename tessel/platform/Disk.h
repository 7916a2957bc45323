// The space of a disk, and the disk that holds a path.
//
// A disk is a mounted file system (Mounts.h): a local one is named by its mount point, a
// network one also by its universal name "//server/share" ('\' separators are accepted).
//
// Thread safety: the functions hold no state and may be called from any thread.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// The bytes of the file system that holds directory (a folder, or a universal name of a
// mounted network share such as "//server/share/" or "\\server\share\"; null means the
// current folder): *freeBytesAvailable the bytes free for an unprivileged caller,
// *totalBytes the size, *totalFreeBytes all free bytes (each only where not null). FALSE
// with the last error set on failure: ERROR_PATH_NOT_FOUND for a folder that does not exist,
// ERROR_BAD_NETPATH (53) for a universal name that no mounted share has,
// ERROR_ACCESS_DENIED, ...
TESSEL_API BOOL GetDiskFreeSpaceExA(const char* directory, ULARGE_INTEGER* freeBytesAvailable,
                                    ULARGE_INTEGER* totalBytes, ULARGE_INTEGER* totalFreeBytes);

// The mount point of the file system that holds the existing file or folder fileName
// (symbolic links resolved), as "/" or "/srv/data", into buffer of size characters with its
// NUL. FALSE with the last error set: ERROR_INVALID_PARAMETER for a null or empty name or a
// relative one, ERROR_FILE_NOT_FOUND or ERROR_PATH_NOT_FOUND where it does not exist,
// ERROR_INSUFFICIENT_BUFFER where the mount point does not fit.
TESSEL_API BOOL GetVolumePathNameA(const char* fileName, char* buffer, DWORD size);

}  // namespace Tessel::Platform
