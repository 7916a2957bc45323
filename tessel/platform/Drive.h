// Drives: the kind of file system under a root, and the universal name of a path on a share.
//
// A drive is a mounted file system (Mounts.h), named by its mount point, or for a network
// share also by its universal name "//server/share". A CIFS or NFS mount is a network drive
// (DRIVE_REMOTE); a path on it has the universal name of the share followed by the rest of the
// path below the mount point, which is what the platform's mapped network drives give.
//
// Thread safety: the functions hold no state and may be called from any thread.
#pragma once

#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/platform/Mounts.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Drive types of GetDriveTypeA.
inline constexpr UINT DRIVE_UNKNOWN = 0;
inline constexpr UINT DRIVE_NO_ROOT_DIR = 1;  // not the root of a drive
inline constexpr UINT DRIVE_REMOVABLE = 2;
inline constexpr UINT DRIVE_FIXED = 3;
inline constexpr UINT DRIVE_REMOTE = 4;  // a network drive
inline constexpr UINT DRIVE_CDROM = 5;
inline constexpr UINT DRIVE_RAMDISK = 6;

// Information levels of WNetGetUniversalNameA.
inline constexpr DWORD UNIVERSAL_NAME_INFO_LEVEL = 1;
inline constexpr DWORD REMOTE_NAME_INFO_LEVEL = 2;

struct UNIVERSAL_NAME_INFOA {
    char* lpUniversalName;  // points into the caller's buffer, behind this record
};

inline constexpr DWORD ERROR_INVALID_LEVEL = 124;
inline constexpr DWORD ERROR_BAD_DEVICE = 1200;
inline constexpr DWORD ERROR_NOT_CONNECTED = 2250;

// The type of the drive whose root is rootPathName, from the current mount table: null means
// the drive of the current folder. A root is a mount point ("/", "/srv/data", with or without
// a trailing separator) or the universal name of a mounted share ("//server/share",
// "\\server\share\"). DRIVE_REMOTE for CIFS and NFS, DRIVE_RAMDISK for tmpfs and ramfs,
// DRIVE_CDROM for iso9660 and udf, DRIVE_FIXED for the others; DRIVE_NO_ROOT_DIR for a path
// that is no mount point (a folder below one, a relative path, a drive letter, a share that
// is not mounted).
TESSEL_API UINT GetDriveTypeA(const char* rootPathName);

// GetDriveTypeA with the mount points of table; rootPathName must not be null.
TESSEL_API UINT DriveTypeOf(const std::vector<MountEntry>& table, const char* rootPathName);

// The universal name of localPath, an absolute path (existing paths have their symbolic links
// resolved first), from the current mount table. infoLevel must be UNIVERSAL_NAME_INFO_LEVEL:
// buffer then receives a UNIVERSAL_NAME_INFOA followed by the name it points to,
// "//server/share/rest" with '/' separators. *bufferSize gives the size of buffer in bytes.
// Returns ERROR_SUCCESS; ERROR_MORE_DATA with *bufferSize set to the size needed;
// ERROR_NOT_CONNECTED for a path on a local file system; ERROR_BAD_DEVICE for a relative path,
// a drive path or a name that is universal already; ERROR_NOT_SUPPORTED for
// REMOTE_NAME_INFO_LEVEL, ERROR_INVALID_LEVEL for other levels; ERROR_INVALID_PARAMETER for a
// null argument.
TESSEL_API DWORD WNetGetUniversalNameA(const char* localPath, DWORD infoLevel, void* buffer,
                                       DWORD* bufferSize);

// The universal name of the absolute path localPath (taken as text: '\' or '/' separators,
// "." and ".." resolved, no links followed) with the mounts of table, into name. The results
// of WNetGetUniversalNameA: ERROR_SUCCESS, ERROR_NOT_CONNECTED, ERROR_BAD_DEVICE.
TESSEL_API DWORD UniversalNameOf(const std::vector<MountEntry>& table, const char* localPath,
                                 std::string& name);

}  // namespace Tessel::Platform
