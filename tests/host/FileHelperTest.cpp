#include "tessel/host/FileHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/regex.hpp>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "tessel/host/Registry.h"
#include "tessel/host/TempDirectory.h"

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

}  // namespace
