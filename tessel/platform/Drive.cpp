#include "tessel/platform/Drive.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "tessel/platform/FileFind.h"
#include "tessel/platform/Path.h"

namespace Tessel::Platform {
namespace {

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

UINT typeOf(const std::string& fsType) {
    if (IsNetworkFileSystem(fsType)) {
        return DRIVE_REMOTE;
    }
    if (fsType == "tmpfs" || fsType == "ramfs") {
        return DRIVE_RAMDISK;
    }
    if (fsType == "iso9660" || fsType == "udf") {
        return DRIVE_CDROM;
    }
    return DRIVE_FIXED;
}

}  // namespace

UINT DriveTypeOf(const std::vector<MountEntry>& table, const char* rootPathName) {
    if (rootPathName == nullptr) {
        return DRIVE_NO_ROOT_DIR;
    }
    if (PathIsUNCA(rootPathName)) {
        std::string share(rootPathName);
        while (share.size() > 2 && isSeparator(share.back())) {
            share.pop_back();
        }
        const MountEntry* mount = FindNetworkMount(table, share);
        // Only the share itself is a root, not a folder on it.
        return mount != nullptr && UniversalName(*mount).size() == share.size() ? DRIVE_REMOTE
                                                                                : DRIVE_NO_ROOT_DIR;
    }
    if (rootPathName[0] != '/') {
        return DRIVE_NO_ROOT_DIR;
    }
    std::string root(rootPathName);
    for (char& c : root) {
        if (c == '\\') {
            c = '/';
        }
    }
    while (root.size() > 1 && root.back() == '/') {
        root.pop_back();
    }
    const MountEntry* mount = FindMountOf(table, root);
    if (mount == nullptr || mount->mountPoint != root) {
        return DRIVE_NO_ROOT_DIR;
    }
    return typeOf(mount->fsType);
}

UINT GetDriveTypeA(const char* rootPathName) {
    const std::vector<MountEntry> table = ReadMountTable();
    if (rootPathName == nullptr) {
        char folder[PATH_MAX];
        if (::getcwd(folder, sizeof folder) == nullptr) {
            return DRIVE_UNKNOWN;
        }
        return DriveTypeOf(table, PathRootOf(table, folder).c_str());
    }
    return DriveTypeOf(table, rootPathName);
}

DWORD UniversalNameOf(const std::vector<MountEntry>& table, const char* localPath,
                      std::string& name) {
    if (localPath == nullptr || PathIsUNCA(localPath) || !isSeparator(localPath[0])) {
        return ERROR_BAD_DEVICE;
    }
    char canonical[MAX_PATH];
    if (!PathCanonicalizeA(canonical, localPath)) {
        return ERROR_BAD_DEVICE;
    }
    std::string path(canonical);
    const bool trailing = path.size() > 1 && path.back() == '/';
    if (trailing) {
        path.pop_back();
    }
    const MountEntry* mount = FindMountOf(table, path);
    if (mount == nullptr) {
        return ERROR_NOT_CONNECTED;
    }
    const std::string share = UniversalName(*mount);
    if (share.empty()) {
        return ERROR_NOT_CONNECTED;
    }
    const std::string rest =
        mount->mountPoint == "/" ? path : path.substr(mount->mountPoint.size());
    name = share + rest + (trailing ? "/" : "");
    return ERROR_SUCCESS;
}

DWORD WNetGetUniversalNameA(const char* localPath, DWORD infoLevel, void* buffer,
                            DWORD* bufferSize) {
    if (localPath == nullptr || bufferSize == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (infoLevel == REMOTE_NAME_INFO_LEVEL) {
        return ERROR_NOT_SUPPORTED;
    }
    if (infoLevel != UNIVERSAL_NAME_INFO_LEVEL) {
        return ERROR_INVALID_LEVEL;
    }
    std::string path(localPath);
    if (path[0] == '/' && !PathIsUNCA(localPath)) {
        char resolved[PATH_MAX];
        if (::realpath(localPath, resolved) != nullptr) {
            path = resolved;
        }
    }
    std::string name;
    const DWORD result = UniversalNameOf(ReadMountTable(), path.c_str(), name);
    if (result != ERROR_SUCCESS) {
        return result;
    }
    const DWORD needed = static_cast<DWORD>(sizeof(UNIVERSAL_NAME_INFOA) + name.size() + 1);
    if (buffer == nullptr || *bufferSize < needed) {
        *bufferSize = needed;
        return ERROR_MORE_DATA;
    }
    auto* info = static_cast<UNIVERSAL_NAME_INFOA*>(buffer);
    char* text = static_cast<char*>(buffer) + sizeof(UNIVERSAL_NAME_INFOA);
    std::memcpy(text, name.c_str(), name.size() + 1);
    info->lpUniversalName = text;
    return ERROR_SUCCESS;
}

}  // namespace Tessel::Platform
