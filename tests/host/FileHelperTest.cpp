#include "tessel/host/FileHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/regex.hpp>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "tessel/host/DiskSpaceUtil.h"
#include "tessel/host/Registry.h"
#include "tessel/host/TempDirectory.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/Drive.h"
#include "tessel/platform/ExecutableVersion.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/PendingDeletions.h"
#include "tessel/platform/Registry.h"

TESSEL_EXECUTABLE_VERSION("5.12.3.4711")

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using Names = std::vector<std::string>;

// A folder in the temp directory with a file of each name.
std::string scratch(const std::string& folder, const Names& files = {}) {
    const std::string path = CTempDirectory::GetTempDirectoryCurrentUser() + folder;
    fs::create_directories(path);
    for (const std::string& name : files) {
        std::ofstream(path + "/" + name) << "x";
    }
    return path;
}

TEST(DirectoryCreate, DriveRootsLengthsNestedPathsInBothFormsAndOnlyTheLastLevelCounts) {
    EXPECT_TRUE(CFileHelper::DirectoryCreate("C:"));
    EXPECT_TRUE(CFileHelper::DirectoryCreate("X:\\"));
    EXPECT_FALSE(CFileHelper::DirectoryCreate(nullptr));
    const std::string folder = scratch("create", {"file"});
    const std::string base = folder + "/";
    const TesselTest::LogCapture refused;
    EXPECT_FALSE(
        CFileHelper::DirectoryCreate((base + std::string(259 - base.size(), 'a')).c_str()));
    EXPECT_EQ(refused.text(), "");  // refused without a log line
    const std::string fits = base + std::string(258 - base.size(), 'b');
    EXPECT_TRUE(CFileHelper::DirectoryCreate(fits.c_str()));
    EXPECT_TRUE(fs::is_directory(fits));

    EXPECT_TRUE(CFileHelper::DirectoryCreate((base + "a/b/c").c_str()));
    EXPECT_TRUE(fs::is_directory(base + "a/b/c"));
    EXPECT_TRUE(CFileHelper::DirectoryCreate((base + "a/b/c").c_str()));  // exists
    EXPECT_TRUE(CFileHelper::DirectoryCreate((folder + "\\d\\e/f").c_str()));
    EXPECT_TRUE(fs::is_directory(base + "d/e/f"));

    const TesselTest::LogCapture failed;
    EXPECT_FALSE(CFileHelper::DirectoryCreate((folder + "\\file\\leaf").c_str()));
    EXPECT_FALSE(CFileHelper::DirectoryCreateA((base + "file/leaf").c_str()));
    EXPECT_THAT(failed.text(), HasSubstr("[CFileHelper::DirectoryCreate] Failed to create dir \"" +
                                         base + "file/leaf\" with error 20"));
    EXPECT_THAT(failed.text(), HasSubstr("[CFileHelper::DirectoryCreateA] Failed to create " +
                                         base + "file/leaf : "));
}

TEST(FindFiles, WildcardsOfThePlatformAndWholeNameExpressions) {
    const std::string base = scratch("find", {"Station.LOG", "station_2.log", "noext", "a.b.c"});
    fs::create_directories(base + "/folder.log");
    const std::pair<const char*, Names> cases[] = {
        {"*.log", {"Station.LOG", "station_2.log"}},
        {"*.*", {"Station.LOG", "a.b.c", "noext", "station_2.log"}},
        {"station?2.*", {"station_2.log"}},
        {"*.c", {"a.b.c"}},
        {"nothing*", {}},
    };
    for (const auto& [pattern, expected] : cases) {
        Names names;
        EXPECT_EQ(CFileHelper::FindFiles(base, pattern, &names), !expected.empty()) << pattern;
        EXPECT_THAT(names, testing::UnorderedElementsAreArray(expected)) << pattern;
    }
    Names kept{"kept"};
    EXPECT_FALSE(CFileHelper::FindFiles(base + "/missing", "*.*", &kept));
    EXPECT_EQ(kept, Names{"kept"});
    EXPECT_TRUE(CFileHelper::FindFilesA(base, "*.LOG", nullptr));

    const std::string logs =
        scratch("regex", {"App_2021-05-27.log", "App_2021-05-27.3.log", "App_x.log", "xApp_1.log"});
    Names names{"emptied"};
    EXPECT_TRUE(CFileHelper::FindFiles(logs, std::string("App_[0-9.-]*[.]log"), names));
    EXPECT_THAT(names, testing::UnorderedElementsAre("App_2021-05-27.3.log", "App_2021-05-27.log"));
    EXPECT_THROW(CFileHelper::FindFiles(logs, std::string("(unclosed"), names), boost::regex_error);
}

TEST(TempDirectory, FromTheRegistryNormalised) {
    REG::Write("SOFTWARE\\Tarvo Works\\GPS Velkor", "TempPath", "\\srv\\velkor\\temp");
    REG::Write("SOFTWARE\\Tarvo Works\\GPS Velkor\\ONDREL", "TempPath", "/srv/ondrel");
    EXPECT_EQ(CTempDirectory::GetTempDirectory(), "/srv/velkor/temp/");
    EXPECT_EQ(CTempDirectory::GetOndrelTempDirectory(), "/srv/ondrel/");
    char buffer[8];
    EXPECT_EQ(CTempDirectory::GetTempDirectory(sizeof buffer, buffer), -1);
    EXPECT_STREQ(buffer, "/srv/ve");
    CTempDirectory::SetTempDirectory("as given");
    EXPECT_EQ(CTempDirectory::GetTempDirectory(), "as given");
}

TEST(TempDirectory, DefaultIsTheUsersTempFolder) {
    const char* tmp = std::getenv("TMPDIR");
    ASSERT_NE(tmp, nullptr);
    EXPECT_EQ(CTempDirectory::GetTempDirectoryCurrentUser(), std::string(tmp) + "/");
    EXPECT_EQ(CTempDirectory::GetTempDirectory(), std::string(tmp) + "/");
    EXPECT_EQ(CTempDirectory::GetOndrelTempDirectory(), "");
    char buffer[260];
    EXPECT_EQ(GetTempDirectory(sizeof buffer, buffer), static_cast<int>(std::strlen(tmp) + 1));
}

// The bytes of a value of the pending deletions' key, "missing" where it does not exist.
std::string pendingValue(const char* name) {
    namespace P = Tessel::Platform;
    P::HKEY key = nullptr;
    if (P::RegOpenKeyExA(P::HKEY_LOCAL_MACHINE, P::kPendingDeletionsKey, 0, P::KEY_ALL_ACCESS,
                         &key) != 0) {
        return "missing";
    }
    char data[1024];
    P::DWORD size = sizeof data;
    const bool found = P::RegQueryValueExA(key, name, nullptr, nullptr,
                                           reinterpret_cast<P::BYTE*>(data), &size) == 0;
    P::RegCloseKey(key);
    return found ? std::string(data, size) : "missing";
}

// Sets the last write (and access) time of path to daysAgo days before now.
void age(const std::string& path, int daysAgo) {
    const struct timespec now = {std::time(nullptr) - daysAgo * 86400L, 0};
    const struct timespec times[2] = {now, now};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// The file names of a folder, sorted; folders end in '/'.
Names listing(const std::string& folder) {
    Names names;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        names.push_back(fs::relative(entry.path(), folder).string() +
                        (entry.is_directory() ? "/" : ""));
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A filter with the cut-off daysAgo days before now (0: a zero cut-off) and patterns.
Tessel::Platform::WIN32_FIND_DATAA filterOf(const char* patterns, int daysAgo) {
    Tessel::Platform::WIN32_FIND_DATAA filter{};
    std::strcpy(filter.cFileName, patterns);
    filter.ftLastWriteTime =
        daysAgo == 0 ? 0 : Tessel::Platform::GetSystemTimeTicks() - daysAgo * 864000000000LL;
    return filter;
}

TEST(GetPartOfFilename, EveryPartOfDrivePathsUncPathsAndPlainNamesWithBothSeparators) {
    using F = CFileHelper;
    struct Case {
        const char* path;
        F::EPartOfFilename part;
        const char* expected;
    };
    const Case cases[] = {
        {"C:\\dir\\sub\\name.ext", F::PartDrive, "C"},
        {"C:\\dir\\sub\\name.ext", F::PartDirectory, "/dir/sub"},
        {"C:/dir/sub/name.ext", F::PartDriveAndDirectory, "C:/dir/sub"},
        {"C:\\dir/sub\\name.ext", F::PartPathWithoutExtension, "C:/dir/sub/name"},
        {"C:\\dir\\sub\\name.ext", F::PartBaseName, "name"},
        {"C:/dir/sub/name.ext", F::PartFileName, "name.ext"},
        {"C:\\dir\\sub\\name.ext", F::PartExtension, "ext"},
        {"\\\\server\\share\\dir\\f.txt", F::PartDrive, "//server/share"},
        {"//server/share/dir/f.txt", F::PartDirectory, "/dir"},
        {"//server/share/f.txt", F::PartDirectory, "/"},
        {"\\\\server\\share", F::PartDrive, ""},
        {"/mnt/data/x.dat", F::PartDrive, ""},
        {"/mnt/data/x.dat", F::PartDirectory, "/mnt/data"},
        {"/x.dat", F::PartDriveAndDirectory, "/"},
        {"x.dat", F::PartDriveAndDirectory, ""},
        {"C:name.ext", F::PartBaseName, "name"},
        {"C:", F::PartDirectory, ""},
        {"C:\\", F::PartDirectory, "/"},
        {"dir.d\\name", F::PartPathWithoutExtension, "dir.d/name"},
        {"dir.d/name", F::PartExtension, ""},
        {"dir.d\\name", F::PartBaseName, "name"},
        {"a.tar.gz", F::PartBaseName, "a.tar"},
        {"a", F::PartDrive, ""},
        {"", F::PartFileName, ""},
        {"name.ext", static_cast<F::EPartOfFilename>(7), ""},
    };
    for (const Case& c : cases) {
        std::string result = "stale";
        CFileHelper::GetPartOfFilename(c.path, c.part, result);
        EXPECT_EQ(result, c.expected) << c.path << " part " << c.part;
    }
}

TEST(DeleteFiles, PatternListsTimeCutOffsRecursionAndExclusions) {
    const std::string base = scratch("delete", {"a.log", "b.LOG", "c.tmp", "d.txt"}) + "/";
    fs::create_directories(base + "sub/deeper");
    fs::create_directories(base + "kept");
    std::ofstream(base + "sub/e.log") << "x";
    std::ofstream(base + "kept/f.log") << "x";
    for (const char* old : {"a.log", "c.tmp", "d.txt", "sub/e.log", "kept/f.log"}) {
        age(base + old, 10);
    }
    // A zero cut-off with the time check deletes nothing.
    Tessel::Platform::WIN32_FIND_DATAA filter = filterOf("*.log,*.tmp", 0);
    bool any = false;
    EXPECT_TRUE(CFileHelper::DeleteFiles(base.c_str(), &filter, true, nullptr, true, &any));
    EXPECT_FALSE(any);
    // Old files of both patterns, also below, except in the excluded folder; empty folders go.
    filter = filterOf("*.log,*.tmp", 5);
    std::vector<std::string> excluded{base + "KEPT"};
    EXPECT_TRUE(CFileHelper::DeleteFiles(base.c_str(), &filter, true, &excluded, true, &any));
    EXPECT_TRUE(any);
    EXPECT_EQ(listing(base), (Names{"b.LOG", "d.txt", "kept/", "kept/f.log"}));
    // Without a filter: every file, only at the top without recursion.
    EXPECT_TRUE(CFileHelper::DeleteFiles2(base.substr(0, base.size() - 1).c_str(), nullptr, false,
                                          false, nullptr));
    EXPECT_EQ(listing(base), (Names{"kept/", "kept/f.log"}));
    EXPECT_FALSE(CFileHelper::DeleteFiles((base + "missing").c_str(), nullptr, true, nullptr, false,
                                          nullptr));
    EXPECT_FALSE(CFileHelper::DeleteFiles("", nullptr, true, nullptr, false, nullptr));

    // By days: only the matching old ones, not below.
    const std::string days = scratch("days", {"old.log", "new.log", "old.txt"}) + "/";
    age(days + "old.log", 3);
    age(days + "old.txt", 3);
    EXPECT_FALSE(CFileHelper::DeleteFilesOlderThanDays(days, 2, {"*.dat"}));
    EXPECT_TRUE(CFileHelper::DeleteFilesOlderThanDays(days, 2, {"*.dat", "*.log"}));
    EXPECT_EQ(listing(days), (Names{"new.log", "old.txt"}));
    EXPECT_FALSE(CFileHelper::DeleteFilesOlderThanDays(days, 2, {}));
}

TEST(DeleteFiles, TreesAndDirectoriesGoAsTheirFlagsSay) {
    const std::string base = scratch("tree", {"top.txt"}) + "/";
    fs::create_directories(base + "a/b");
    fs::create_directories(base + "empty");
    std::ofstream(base + "a/b/f") << "x";
    // Files kept: only the empty subdirectory goes, and the folder itself stays.
    EXPECT_TRUE(CFileHelper::DeletePath(base.c_str(), 1, 1));
    EXPECT_EQ(listing(base), (Names{"a/", "a/b/", "a/b/f", "top.txt"}));
    EXPECT_FALSE(CFileHelper::DirectoryDelete(base.c_str(), 1, 0));  // not empty
    // A link to a folder elsewhere goes as a link; what it points to stays.
    const std::string outside = scratch("outside", {"keep"});
    fs::create_directory_symlink(outside, base + "a/link");
    EXPECT_TRUE(CFileHelper::DirectoryDelete(base.c_str(), 0, 1));
    EXPECT_EQ(listing(base), Names{});
    EXPECT_TRUE(fs::exists(outside + "/keep"));
    EXPECT_TRUE(CFileHelper::DirectoryDelete(base.c_str(), 0, 0));
    EXPECT_FALSE(fs::exists(base));
    EXPECT_FALSE(CFileHelper::DirectoryDelete(nullptr, 0, 0));

    // Expired directories: only those last written before the cut-off.
    const std::string expiring = scratch("expiring") + "/";
    fs::create_directories(expiring + "old");
    fs::create_directories(expiring + "new");
    age(expiring + "old", 10);
    bool removed = false;
    const Tessel::Platform::FILETIME cutOff =
        Tessel::Platform::ToFileTime(static_cast<std::uint64_t>(filterOf("", 5).ftLastWriteTime));
    EXPECT_TRUE(
        CFileHelper::RemoveExpiredDirectories(expiring, cutOff, true, true, nullptr, &removed));
    EXPECT_TRUE(removed);
    EXPECT_EQ(listing(expiring), Names{"new/"});

    // A file and the empty folders above it, up to the first that is not empty.
    const std::string nested = scratch("nested", {"stays"}) + "/";
    fs::create_directories(nested + "x/y");
    std::ofstream(nested + "x/y/file") << "x";
    EXPECT_TRUE(CFileHelper::DeleteFileAndPath((nested + "x\\y\\file").c_str()));
    EXPECT_EQ(listing(nested), Names{"stays"});
    EXPECT_TRUE(CFileHelper::DeleteFileAndPath((nested + "gone").c_str()));
}

TEST(DeleteFileSecure, WithoutRetriesTheFileIsMarkedForTheNextBootAndDeletedAfterIt) {
    const std::string base = scratch("secure", {"busy.dat", "free.dat"});
    CFileHelper::DeleteFileSecure(base + "/busy.dat", 0, false, "");
    EXPECT_TRUE(fs::exists(base + "/busy.dat"));
    namespace P = Tessel::Platform;
    ASSERT_FALSE(P::CurrentBootId().empty());
    EXPECT_EQ(pendingValue(P::kPendingDeletionsBootIdValue), P::CurrentBootId() + '\0');
    EXPECT_EQ(pendingValue(P::kPendingDeletionsValue), base + "/busy.dat" + '\0' + '\0');

    // The same boot: nothing happens; another boot: the file goes, and the record.
    EXPECT_EQ(P::ProcessPendingDeletions(), 0);
    REG::Write(P::HKEY_LOCAL_MACHINE, P::kPendingDeletionsKey, P::kPendingDeletionsBootIdValue,
               "an earlier boot");
    EXPECT_EQ(P::ProcessPendingDeletions(), 1);
    EXPECT_FALSE(fs::exists(base + "/busy.dat"));
    EXPECT_EQ(pendingValue(P::kPendingDeletionsValue), "missing");

    // With retries the file goes at once, and with it the empty folders up to the root.
    fs::create_directories(base + "/Data/A/B");
    std::ofstream(base + "/Data/A/B/f") << "x";
    CFileHelper::DeleteFileSecure(base + "\\Data\\A\\B\\f", 3, true, base + "/DATA/");
    EXPECT_EQ(listing(base), (Names{"Data/", "free.dat"}));
}

TEST(DeleteEmptyDirectoryUntilRootPath, StopsAtTheRootIgnoringCaseAndAtFolderThatHoldSomething) {
    const std::string base = scratch("upwards");
    fs::create_directories(base + "/Data/A/B");
    CFileHelper::DeleteEmptyDirectoryUntilRootPath(base + "\\Data\\A\\B", base + "/data/");
    EXPECT_EQ(listing(base), Names{"Data/"});
    fs::create_directories(base + "/Data/A/B");
    std::ofstream(base + "/Data/A/note") << "x";
    CFileHelper::DeleteEmptyDirectoryUntilRootPath(base + "/Data/A/B/", "/");
    EXPECT_EQ(listing(base), (Names{"Data/", "Data/A/", "Data/A/note"}));
    CFileHelper::DeleteEmptyDirectoryUntilRootPath("", base);  // nothing
}

TEST(CountFilesAndDirectories, DirectoriesGoOnFromTheCallersValue) {
    const std::string base = scratch("count");
    int files = 7;
    int directories = 5;
    EXPECT_TRUE(CFileHelper::CountFilesAndDirectories(base, files, directories));
    EXPECT_EQ(files, 0);
    EXPECT_EQ(directories, 5);
    std::ofstream(base + "/one") << "x";
    std::ofstream(base + "/two") << "x";
    fs::create_directories(base + "/sub");
    EXPECT_TRUE(CFileHelper::CountFilesAndDirectories(base, files, directories));
    EXPECT_EQ(files, 2);
    EXPECT_EQ(directories, 6);
    EXPECT_FALSE(CFileHelper::CountFilesAndDirectories(base + "/missing", files, directories));
    EXPECT_FALSE(CFileHelper::CountFilesAndDirectories("", files, directories));
}

TEST(CopyFile, EqualPathsOverwriteAndDeletingTheSource) {
    const std::string base = scratch("copy", {"source"}) + "/";
    const TesselTest::LogCapture log;
    EXPECT_FALSE(
        CFileHelper::copyFile((base + "source").c_str(), (base + "source").c_str(), true, true));
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(fs::exists(base + "source"));
    EXPECT_TRUE(
        CFileHelper::copyFile((base + "source").c_str(), (base + "copy").c_str(), false, false));
    EXPECT_FALSE(
        CFileHelper::copyFile((base + "source").c_str(), (base + "copy").c_str(), false, false));
    EXPECT_THAT(log.text(), HasSubstr("[CFileHelper::copyFile] Failed to copy \"" + base +
                                      "source\" -> \"" + base + "copy\""));
    EXPECT_TRUE(
        CFileHelper::copyFile((base + "source").c_str(), (base + "copy").c_str(), true, true));
    EXPECT_EQ(listing(base), Names{"copy"});
}

TEST(FileNames, ReplacementsChecksAndTrailingSeparators) {
    std::string name = "a*b?c/d\\e:f";
    EXPECT_EQ(CFileHelper::ReplaceInvalidFilenameCharactersStd(name, "", 1), 4u);
    EXPECT_EQ(name, "abcde:f");
    name = "x*y";
    EXPECT_EQ(CFileHelper::ReplaceInvalidFilenameCharactersStd(name, "--", 1), 1u);
    EXPECT_EQ(name, "x--y");
    char text[] = "Station*\xc3\xa4?.log";
    EXPECT_EQ(CFileHelper::ReplaceInvalidFilenameCharacters(text, '_', 1), 2u);
    EXPECT_STREQ(text, "Station_\xc3\xa4_.log");
    EXPECT_EQ(CFileHelper::ReplaceInvalidFilenameCharacters(text, '_', 1 | 4 | 8), 0u);
    EXPECT_TRUE(CFileHelper::IsValidFileName("back\\slash"));
    EXPECT_FALSE(CFileHelper::IsValidFileName("a[1]"));
    char path[260] = "/srv/data";
    CFileHelper::EnsureTrailingBackslash(path);
    CFileHelper::EnsureTrailingBackslash(path);
    EXPECT_STREQ(path, "/srv/data/");
}

TEST(MakePath, EveryLevelInOrderWithBothSeparators) {
    const std::string base = scratch("make", {"file"});
    EXPECT_TRUE(CFileHelper::MakePath((base + "\\one/two\\\\three\\").c_str(), 0));
    EXPECT_TRUE(fs::is_directory(base + "/one/two/three"));
    EXPECT_FALSE(CFileHelper::MakePath((base + "/file/below").c_str(), 0));
    EXPECT_FALSE(CFileHelper::MakePath(nullptr, 0));
    EXPECT_TRUE(CFileHelper::MakePath("", 0));
    EXPECT_FALSE(CFileHelper::MakePath("Q:\\no\\such\\drive", 0));
}

TEST(TextFile, TimestampedLinesAppendedOrOverwrittenAndTheStaleHandle) {
    const std::string file = scratch("text") + "/lines.txt";
    {
        CFileHelper missing(file.c_str(), false, false);
        EXPECT_FALSE(missing.isFileOpen());
        EXPECT_FALSE(missing.WriteLine("x", false, true));
    }
    {
        CFileHelper writer(file.c_str(), true, false);
        ASSERT_TRUE(writer.isFileOpen());
        EXPECT_TRUE(writer.WriteLine("first", true, true));
        EXPECT_FALSE(CFileHelper().OpenFile(file.c_str(), true, false));  // no sharing
    }
    {
        CFileHelper appender(file.c_str(), true, false);
        EXPECT_TRUE(appender.WriteLine("second", false, false));
        const Tessel::Platform::HANDLE handle = appender.GetHandle();
        appender.CloseFile(false);
        EXPECT_FALSE(appender.isFileOpen());
        EXPECT_EQ(appender.GetHandle(), handle);
        EXPECT_FALSE(appender.WriteLine("third", false, false));
    }
    std::ifstream in(file, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_TRUE(boost::regex_match(
        text,
        boost::regex("\\d\\d\\.\\d\\d\\.\\d{4} \\d\\d:\\d\\d:\\d\\d\\.\\d{3} first\r\nsecond")))
        << text;
    CFileHelper overwriter(file.c_str(), false, true);
    unsigned char bytes[] = {1, 2, 3};
    EXPECT_TRUE(overwriter.Write(bytes, 3));
    overwriter.CloseFile(true);
    EXPECT_EQ(fs::file_size(file), 3u);

    // A text that fills the buffer exactly gets a bigger one; a longer one stays cut.
    std::string formatted = "stale";
    EXPECT_EQ(GMB::Format(formatted, "%s", std::string(1026, 'a').c_str()), 0);
    EXPECT_EQ(formatted.size(), 1026u);
    GMB::Format(formatted, "%s-%04d", std::string(3000, 'a').c_str(), 7);
    EXPECT_EQ(formatted.size(), 1031u);
}

TEST(NetworkDrives, UniversalNamesFromTheMountTableAndLocalPathsUnchanged) {
    const std::vector<Tessel::Platform::MountEntry> table = Tessel::Platform::ParseMountInfo(
        "22 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "40 22 0:50 / /mnt/Station\\040Share rw - cifs //FileServer/Recordings rw\n"
        "41 22 0:51 / /mnt/archive rw - nfs4 archive:/export/gnss rw\n");
    const std::pair<const char*, const char*> cases[] = {
        {"/mnt/Station Share/2024/day.dat", "//FileServer/Recordings/2024/day.dat"},
        {"\\mnt\\archive\\a\\..\\b\\", "//archive/export/gnss/b/"},
        {"/mnt/archive", "//archive/export/gnss"},
    };
    for (const auto& [path, expected] : cases) {
        std::string name;
        EXPECT_EQ(Tessel::Platform::UniversalNameOf(table, path, name), 0u) << path;
        EXPECT_EQ(name, expected);
    }
    std::string name;
    EXPECT_EQ(Tessel::Platform::UniversalNameOf(table, "/mnt/archived", name),
              Tessel::Platform::ERROR_NOT_CONNECTED);
    EXPECT_EQ(Tessel::Platform::DriveTypeOf(table, "/mnt/archive/"),
              Tessel::Platform::DRIVE_REMOTE);
    EXPECT_EQ(Tessel::Platform::DriveTypeOf(table, "\\\\FileServer\\Recordings"),
              Tessel::Platform::DRIVE_REMOTE);
    EXPECT_EQ(Tessel::Platform::DriveTypeOf(table, "/mnt"), Tessel::Platform::DRIVE_NO_ROOT_DIR);
    EXPECT_EQ(Tessel::Platform::DriveTypeOf(table, "/"), Tessel::Platform::DRIVE_FIXED);

    // This machine's temp folder is local.
    const std::string local = scratch("local");
    char buffer[300];
    Tessel::Platform::DWORD size = sizeof buffer;
    EXPECT_EQ(Tessel::Platform::WNetGetUniversalNameA(local.c_str(), 1, buffer, &size),
              Tessel::Platform::ERROR_NOT_CONNECTED);
    std::string path = local;
    std::string error;
    std::string result;
    EXPECT_TRUE(
        CFileHelper::ValidateNetworkDrives(false, path.data(), false, error, result, false));
    EXPECT_EQ(result, local);
    EXPECT_TRUE(CFileHelper::ValidateNetworkDrives(true, path.data(), false, error, result, false));
    std::string tooLong(300, 'x');
    EXPECT_FALSE(
        CFileHelper::ValidateNetworkDrives(false, tooLong.data(), true, error, result, true));
    EXPECT_EQ(error, "Path name is not vaild.");
}

TEST(CheckFreeDiskSpace, AFolderThatCannotBeWrittenAndACriticalDiskWithTheirTexts) {
    std::string message;
    bool changed = false;
    bool stop = false;
    CDiskSpace::StateType state = CDiskSpace::StateNormal;
    EXPECT_FALSE(
        CFileHelper::CheckFreeDiskSpace("relative\\folder", message, changed, stop, &state));
    EXPECT_EQ(state, CDiskSpace::StateFailed);
    EXPECT_EQ(message, "Cannot write to drive or folder 'relative\\folder'.");
    EXPECT_TRUE(changed);
    EXPECT_TRUE(stop);
    const std::string folder = scratch("space");
    EXPECT_FALSE(
        CFileHelper::CheckFreeDiskSpace(folder + "/missing", message, changed, stop, &state));
    EXPECT_EQ(message, "Cannot write to drive or folder '" + folder + "/missing'.");
    EXPECT_TRUE(CFileHelper::CheckFreeDiskSpace(folder.c_str()));

    // Critical, by a minimum above all the disk has: the space in units of 1,024,000 bytes.
    std::string disk;
    unsigned long long total = 0;
    unsigned long long available = 0;
    CDiskSpaceUtil::CheckDiskSpaceState(folder, &disk, &total, &available, nullptr);
    CDiskSpaceUtil::SetGeneralDefaultLowLimit(total + 1);
    EXPECT_FALSE(CFileHelper::CheckFreeDiskSpace(folder, message, changed, stop, &state));
    EXPECT_EQ(state, CDiskSpace::StateCritical);
    EXPECT_TRUE(changed);
    EXPECT_FALSE(stop);
    EXPECT_THAT(message, testing::MatchesRegex("Drive: " + disk +
                                               ", Total : " + std::to_string(total / 1024000) +
                                               "MB, Free : [0-9]+MB\\. Product creation "
                                               "stopped for this drive\\."));
}

TEST(FileVersion, TheVersionSectionOfAnElfFile) {
    std::string version;
    unsigned long build = 0;
    bool debug = true;
    ASSERT_TRUE(CFileHelper::GetFileVersion("/proc/self/exe", version, build, debug));
    EXPECT_EQ(version, "5.12.3");
    EXPECT_EQ(build, 4711u);
#ifdef NDEBUG
    EXPECT_FALSE(debug);
#else
    EXPECT_TRUE(debug);
#endif
    const std::string base = scratch("version", {"plain.txt"});
    EXPECT_FALSE(CFileHelper::GetFileVersion((base + "/plain.txt").c_str(), version, build, debug));
    EXPECT_FALSE(CFileHelper::GetFileVersion((base + "/missing").c_str(), version, build, debug));
}

}  // namespace
