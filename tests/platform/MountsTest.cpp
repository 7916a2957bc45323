#include "tessel/platform/Mounts.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tessel/platform/Disk.h"
#include "tessel/platform/LastError.h"

namespace {

using namespace Tessel::Platform;

// A table with a local disk, a CIFS share (one mounted with a blank in its path), an NFS
// export and a mount hidden by a later one on the same point.
const char* const kMountInfo =
    "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
    "27 1 254:1 / / rw,relatime shared:1 - ext4 /dev/vda1 rw\n"
    "31 27 254:2 / /srv/data rw,relatime - ext4 /dev/vdb1 rw\n"
    "40 27 0:50 / /mnt/Station\\040Share rw - cifs //FileServer/Recordings rw,vers=3.0\n"
    "41 27 0:51 / /mnt/archive rw shared:7 master:2 - nfs4 archive:/export/gnss/ rw\n"
    "42 31 0:52 / /srv/data rw - tmpfs tmpfs rw\n"
    "garbage line\n";

TEST(Mounts, ParsedTableFindsTheDiskAndTheShareOfAPath) {
    const std::vector<MountEntry> table = ParseMountInfo(kMountInfo);
    ASSERT_EQ(table.size(), 6u);
    EXPECT_EQ(table[3].mountPoint, "/mnt/Station Share");
    EXPECT_EQ(table[3].source, "//FileServer/Recordings");
    EXPECT_EQ(table[4].fsType, "nfs4");

    // The path, its mount point and the universal name of that mount.
    const struct {
        const char* path;
        const char* mountPoint;
        const char* universal;
    } cases[] = {
        {"/", "/", ""},
        {"/srv/database", "/", ""},        // a prefix, not a whole element
        {"/srv/data/x", "/srv/data", ""},  // the later mount hides the earlier
        {"/mnt/Station Share/2026/a.dat", "/mnt/Station Share", "//FileServer/Recordings"},
        {"/mnt/archive", "/mnt/archive", "//archive/export/gnss"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const MountEntry* mount = FindMountOf(table, c.path);
        ASSERT_NE(mount, nullptr);
        EXPECT_EQ(mount->mountPoint, c.mountPoint);
        EXPECT_EQ(UniversalName(*mount), c.universal);
    }
    EXPECT_EQ(FindMountOf(table, "relative/path"), nullptr);
}

TEST(Mounts, ANetworkNameFindsItsShareByTheLongestLeadingPart) {
    const std::vector<MountEntry> table = ParseMountInfo(kMountInfo);
    const struct {
        const char* name;
        const char* mountPoint;  // null: no share
    } cases[] = {
        {"//FileServer/Recordings", "/mnt/Station Share"},
        {"\\\\fileserver\\recordings\\2026\\", "/mnt/Station Share"},
        {"//archive/export/gnss/rinex", "/mnt/archive"},
        {"//archive/export", nullptr},  // the export is deeper
        {"//FileServer/", nullptr},
        {"//FileServer/RecordingsOld", nullptr},
        {"/mnt/archive", nullptr},  // a path, not a network name
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const MountEntry* mount = FindNetworkMount(table, c.name);
        if (c.mountPoint == nullptr) {
            EXPECT_EQ(mount, nullptr);
        } else {
            ASSERT_NE(mount, nullptr);
            EXPECT_EQ(mount->mountPoint, c.mountPoint);
        }
    }
}

TEST(Mounts, TheRealTableAndDiskSpace) {
    const std::vector<MountEntry> table = ReadMountTable();
    const MountEntry* proc = FindMountOf(table, "/proc/self/status");
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(proc->fsType, "proc");

    char point[256];
    ASSERT_TRUE(GetVolumePathNameA("/proc/self/status", point, sizeof point));
    EXPECT_STREQ(point, "/proc");
    EXPECT_FALSE(GetVolumePathNameA("/no/such/folder", point, sizeof point));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(GetVolumePathNameA("relative", point, sizeof point));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

    ULARGE_INTEGER available{}, total{}, totalFree{};
    ASSERT_TRUE(GetDiskFreeSpaceExA("/", &available, &total, &totalFree));
    EXPECT_GT(total.QuadPart, 0u);
    EXPECT_LE(available.QuadPart, totalFree.QuadPart);
    EXPECT_LE(totalFree.QuadPart, total.QuadPart);
    EXPECT_FALSE(GetDiskFreeSpaceExA("/no/such/folder", &available, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_FALSE(GetDiskFreeSpaceExA("//no-such-server/share/", &available, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_BAD_NETPATH);
}

}  // namespace
