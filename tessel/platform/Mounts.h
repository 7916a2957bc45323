// The mount table: which file system holds a path, and the network shares among them.
//
// A Linux path has no drive letter. Where the library asks for the drive of a path, the drive
// is the mount point of the file system that holds it. A CIFS (SMB) or NFS mount is a network
// drive; its universal name is "//server/share", as a UNC name is "\\server\share" on the
// platform the library was designed for: the source of a CIFS mount as it stands
// ("//server/share"), that of an NFS mount turned round ("server:/export" gives
// "//server/export").
//
// The table comes from /proc/self/mountinfo, read anew at each ReadMountTable, so that a
// mount made while the process runs is seen.
//
// Thread safety: the functions hold no state and may be called from any thread.
#pragma once

#include <string>
#include <vector>

#include "tessel/Export.h"

namespace Tessel::Platform {

struct MountEntry {
    std::string mountPoint;  // absolute, without a trailing '/' except for "/" itself
    std::string source;      // "/dev/vda1", "//server/share", "server:/export", "tmpfs", ...
    std::string fsType;      // "ext4", "cifs", "nfs4", "tmpfs", ...
};

// The entries of a mountinfo text (the format of /proc/<pid>/mountinfo), in the order of the
// text, with the octal escapes of the kernel ("\040" for a blank) decoded. Lines that do not
// have the format are skipped.
TESSEL_API std::vector<MountEntry> ParseMountInfo(const std::string& text);

// The entries of /proc/self/mountinfo; empty if it cannot be read.
TESSEL_API std::vector<MountEntry> ReadMountTable();

// The entry whose mount point is the longest prefix (by whole path elements) of path, an
// absolute path without "." or ".." elements; of several mounts on one point the last, which
// hides the others. Null when path is not absolute or the table has no root.
TESSEL_API const MountEntry* FindMountOf(const std::vector<MountEntry>& table,
                                         const std::string& path);

// True for the types of network file systems: cifs, smb3, smbfs, nfs, nfs4.
TESSEL_API bool IsNetworkFileSystem(const std::string& fsType);

// "//server/share" of a network mount, with '/' separators; "" for a local one or a source
// that names no server.
TESSEL_API std::string UniversalName(const MountEntry& mount);

// The network mount whose universal name is the longest leading part, by whole elements, of
// name ("//server/share/dir" or "\\server\share\dir"; case ignored); of equal ones the last of
// the table. Null if there is none, or if name does not begin with a server and a share.
TESSEL_API const MountEntry* FindNetworkMount(const std::vector<MountEntry>& table,
                                              const std::string& name);

}  // namespace Tessel::Platform
