#include "tessel/host/FileHelper.h"

#include <gtest/gtest.h>

#include <boost/regex.hpp>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "tessel/host/Registry.h"
#include "tessel/host/TempDirectory.h"

namespace {

namespace fs = std::filesystem;

std::string scratch(const std::string& name) {
    const std::string folder = CTempDirectory::GetTempDirectoryCurrentUser() + name;
    fs::remove_all(folder);
    fs::create_directories(folder);
    return folder;
}

TEST(DirectoryCreate, DriveRootsAndLengths) {
    EXPECT_TRUE(CFileHelper::DirectoryCreate("C:"));
    EXPECT_TRUE(CFileHelper::DirectoryCreate("X:\\"));
    EXPECT_FALSE(CFileHelper::DirectoryCreate(nullptr));
    const std::string base = scratch("long") + "/";
    TesselTest::LogCapture capture;
    EXPECT_FALSE(
        CFileHelper::DirectoryCreate((base + std::string(259 - base.size(), 'a')).c_str()));
    EXPECT_EQ(capture.text(), "");  // refused without a log line
    const std::string fits = base + std::string(258 - base.size(), 'b');
    EXPECT_TRUE(CFileHelper::DirectoryCreate(fits.c_str()));
    EXPECT_TRUE(fs::is_directory(fits));
}

TEST(DirectoryCreate, NestedPathsInBothForms) {
    const std::string base = scratch("nested");
    EXPECT_TRUE(CFileHelper::DirectoryCreate((base + "/a/b/c").c_str()));
    EXPECT_TRUE(fs::is_directory(base + "/a/b/c"));
    EXPECT_TRUE(CFileHelper::DirectoryCreate((base + "/a/b/c").c_str()));  // exists
    EXPECT_TRUE(CFileHelper::DirectoryCreate((base + "\\d\\e/f").c_str()));
    EXPECT_TRUE(fs::is_directory(base + "/d/e/f"));
}

TEST(DirectoryCreate, OnlyTheLastLevelCounts) {
    const std::string base = scratch("last");
    std::ofstream(base + "/file") << "x";
    TesselTest::LogCapture capture;
    EXPECT_FALSE(CFileHelper::DirectoryCreate((base + "\\file\\leaf").c_str()));
    EXPECT_NE(capture.text().find("[CFileHelper::DirectoryCreate] Failed to create dir \"" + base +
                                  "/file/leaf\" with error 20"),
              std::string::npos)
        << capture.text();
    EXPECT_FALSE(CFileHelper::DirectoryCreateA((base + "/file/leaf").c_str()));
    EXPECT_NE(capture.text().find("[CFileHelper::DirectoryCreateA] Failed to create " + base +
                                  "/file/leaf : "),
              std::string::npos)
        << capture.text();
}

TEST(FindFiles, WildcardsOfThePlatform) {
    const std::string base = scratch("find");
    for (const char* name : {"Station.LOG", "station_2.log", "noext", "a.b.c"}) {
        std::ofstream(base + "/" + name) << "x";
    }
    fs::create_directories(base + "/folder.log");
    struct {
        const char* pattern;
        std::vector<std::string> names;
    } const cases[] = {
        {"*.log", {"Station.LOG", "station_2.log"}},
        {"*.*", {"Station.LOG", "a.b.c", "noext", "station_2.log"}},
        {"station?2.*", {"station_2.log"}},
        {"*.c", {"a.b.c"}},
        {"nothing*", {}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> names;
        EXPECT_EQ(CFileHelper::FindFiles(base, c.pattern, &names), !c.names.empty()) << c.pattern;
        std::sort(names.begin(), names.end());
        std::vector<std::string> expected = c.names;
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(names, expected) << c.pattern;
    }
    std::vector<std::string> kept{"kept"};
    EXPECT_FALSE(CFileHelper::FindFiles(base + "/missing", "*.*", &kept));
    EXPECT_EQ(kept, std::vector<std::string>{"kept"});
    EXPECT_TRUE(CFileHelper::FindFilesA(base, "*.LOG", nullptr));
}

TEST(FindFiles, RegularExpressionsMatchTheWholeName) {
    const std::string base = scratch("regex");
    for (const char* name :
         {"App_2021-05-27.log", "App_2021-05-27.3.log", "App_x.log", "xApp_1.log"}) {
        std::ofstream(base + "/" + name) << "x";
    }
    std::vector<std::string> names{"emptied"};
    EXPECT_TRUE(CFileHelper::FindFiles(base, std::string("App_[0-9.-]*[.]log"), names));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"App_2021-05-27.3.log", "App_2021-05-27.log"}));
    EXPECT_THROW(CFileHelper::FindFiles(base, std::string("(unclosed"), names), boost::regex_error);
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
