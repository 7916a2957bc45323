#include "tessel/platform/Disk.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tessel/platform/LastError.h"
#include "tessel/platform/Mounts.h"

namespace Tessel::Platform {

BOOL GetDiskFreeSpaceExA(const char* directory, ULARGE_INTEGER* freeBytesAvailable,
                         ULARGE_INTEGER* totalBytes, ULARGE_INTEGER* totalFreeBytes) {
    std::string folder = directory != nullptr && *directory != '\0' ? directory : ".";
    if (folder.size() > 2 && (folder[0] == '\\' || folder[0] == '/') &&
        (folder[1] == '\\' || folder[1] == '/')) {
        const std::vector<MountEntry> table = ReadMountTable();
        const MountEntry* share = FindNetworkMount(table, folder);
        if (share == nullptr) {
            SetLastError(ERROR_BAD_NETPATH);
            return FALSE;
        }
        folder = share->mountPoint;
    }
    struct statvfs space;
    if (statvfs(folder.c_str(), &space) != 0) {
        SetLastErrorFromErrno(errno == ENOENT ? ENOTDIR : errno);
        return FALSE;
    }
    const std::uint64_t unit = space.f_frsize != 0 ? space.f_frsize : space.f_bsize;
    if (freeBytesAvailable != nullptr) {
        freeBytesAvailable->QuadPart = static_cast<std::uint64_t>(space.f_bavail) * unit;
    }
    if (totalBytes != nullptr) {
        totalBytes->QuadPart = static_cast<std::uint64_t>(space.f_blocks) * unit;
    }
    if (totalFreeBytes != nullptr) {
        totalFreeBytes->QuadPart = static_cast<std::uint64_t>(space.f_bfree) * unit;
    }
    return TRUE;
}

BOOL GetVolumePathNameA(const char* fileName, char* buffer, DWORD size) {
    if (fileName == nullptr || fileName[0] != '/' || buffer == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    char resolved[PATH_MAX];
    if (realpath(fileName, resolved) == nullptr) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    const std::vector<MountEntry> table = ReadMountTable();
    const MountEntry* mount = FindMountOf(table, resolved);
    const std::string point = mount != nullptr ? mount->mountPoint : "/";
    if (point.size() + 1 > size) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::memcpy(buffer, point.c_str(), point.size() + 1);
    return TRUE;
}

}  // namespace Tessel::Platform
