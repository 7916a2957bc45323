#include "tessel/platform/Path.h"

#include <gtest/gtest.h>

#include <string>

#include "tessel/platform/Drive.h"
#include "tessel/platform/FileFind.h"
#include "tessel/platform/FileTime.h"

namespace {

using namespace Tessel::Platform;

TEST(Path, CanonicalFormsRootsAndClasses) {
    const std::pair<const char*, const char*> canonical[] = {
        {"C:\\a\\.\\b\\..\\c\\", "C:/a/c/"},
        {"/a//b/../../..", "/"},
        {"\\\\srv\\share\\x\\..\\y", "//srv/share/y"},
        {"../a/./b", "a/b"},
        {"a/..", ""},
    };
    char result[MAX_PATH];
    for (const auto& [source, expected] : canonical) {
        ASSERT_TRUE(PathCanonicalizeA(result, source)) << source;
        EXPECT_STREQ(result, expected) << source;
    }
    EXPECT_FALSE(PathCanonicalizeA(result, std::string(MAX_PATH, 'a').c_str()));

    const std::vector<MountEntry> table = ParseMountInfo(
        "22 1 8:1 / / rw - ext4 /dev/sda1 rw\n23 22 8:2 / /srv/data rw - xfs /dev/sdb1 rw\n");
    const std::pair<const char*, const char*> roots[] = {
        {"/srv/data/x/y", "/srv/data"},
        {"/srv/database", "/"},
        {"\\\\srv\\share\\x", "//srv/share"},
        {"C:\\dir", "C:/"},
        {"relative/x", ""},
    };
    for (const auto& [path, root] : roots) {
        EXPECT_EQ(PathRootOf(table, path), root) << path;
    }
    char path[MAX_PATH] = "relative";
    EXPECT_FALSE(PathStripToRootA(path));
    EXPECT_STREQ(path, "");

    EXPECT_TRUE(PathIsUNCA("//srv/share"));
    EXPECT_TRUE(PathIsUNCA("\\\\srv\\share"));
    EXPECT_FALSE(PathIsUNCA("\\\\?\\C:\\x"));
    EXPECT_FALSE(PathIsUNCA("/srv"));
    EXPECT_EQ(PathGetCharTypeA('/'), GCT_SEPARATOR);
    EXPECT_EQ(PathGetCharTypeA('\\'), GCT_SEPARATOR);
    EXPECT_EQ(PathGetCharTypeA('?'), GCT_WILD);
    EXPECT_EQ(PathGetCharTypeA('\0'), GCT_INVALID);
    EXPECT_EQ(PathGetCharTypeA(':'), GCT_LFNCHAR | GCT_SHORTCHAR);
    EXPECT_EQ(DriveTypeOf(table, "C:\\"), DRIVE_NO_ROOT_DIR);
}

TEST(FileTime, CalendarFormOfFileTimes) {
    // 2024-02-29 13:45:30.123 UTC, a Thursday.
    const FILETIME time = ToFileTime(133536879301230000ull);
    SYSTEMTIME calendar{};
    ASSERT_TRUE(FileTimeToSystemTime(&time, &calendar));
    EXPECT_EQ(calendar.wYear, 2024);
    EXPECT_EQ(calendar.wMonth, 2);
    EXPECT_EQ(calendar.wDay, 29);
    EXPECT_EQ(calendar.wDayOfWeek, 4);
    EXPECT_EQ(calendar.wHour, 13);
    EXPECT_EQ(calendar.wMinute, 45);
    EXPECT_EQ(calendar.wSecond, 30);
    EXPECT_EQ(calendar.wMilliseconds, 123);
    FILETIME back{};
    ASSERT_TRUE(SystemTimeToFileTime(&calendar, &back));
    EXPECT_EQ(FromFileTime(back), FromFileTime(time));
}

}  // namespace
