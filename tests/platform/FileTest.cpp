// The file functions of the platform layer: dispositions, sharing and the error numbers.
#include "tessel/platform/File.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"

namespace {

using namespace Tessel::Platform;

class FileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char folder[] = "/tmp/tessel-file-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(folder));
        m_folder = folder;
    }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    HANDLE Open(const std::string& name, DWORD disposition, DWORD share = 0) {
        return CreateFileA((m_folder + "/" + name).c_str(), GENERIC_READ | GENERIC_WRITE, share,
                           nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    }

    std::string m_folder;
};

TEST_F(FileTest, DispositionsOpenOrFailWithThePlatformsError) {
    const struct {
        DWORD disposition;
        bool exists;  // a file of 3 bytes before the open
        bool opens;
        DWORD error;
        long long size;  // after the open
    } cases[] = {{CREATE_NEW, false, true, ERROR_SUCCESS, 0},
                 {CREATE_NEW, true, false, ERROR_FILE_EXISTS, 0},
                 {CREATE_ALWAYS, true, true, ERROR_ALREADY_EXISTS, 0},
                 {OPEN_EXISTING, false, false, ERROR_FILE_NOT_FOUND, 0},
                 {OPEN_EXISTING, true, true, ERROR_SUCCESS, 3},
                 {OPEN_ALWAYS, false, true, ERROR_SUCCESS, 0},
                 {OPEN_ALWAYS, true, true, ERROR_ALREADY_EXISTS, 3},
                 {TRUNCATE_EXISTING, true, true, ERROR_SUCCESS, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "disposition " << c.disposition << ", file " << c.exists);
        std::filesystem::remove(m_folder + "/f");
        if (c.exists) {
            std::ofstream(m_folder + "/f") << "abc";
        }
        HANDLE file = Open("f", c.disposition);
        EXPECT_EQ(c.opens, file != INVALID_HANDLE_VALUE);
        EXPECT_EQ(c.error, GetLastError());
        if (file != INVALID_HANDLE_VALUE) {
            LARGE_INTEGER size{};
            EXPECT_TRUE(GetFileSizeEx(file, &size));
            EXPECT_EQ(c.size, size.QuadPart);
            CloseHandle(file);
        }
    }
}

TEST_F(FileTest, ExclusiveAndSharedHandlesKeepEachOtherOut) {
    HANDLE shared = Open("f", CREATE_NEW, FILE_SHARE_READ);
    ASSERT_NE(INVALID_HANDLE_VALUE, shared);
    HANDLE second = Open("f", OPEN_EXISTING, FILE_SHARE_READ | FILE_SHARE_WRITE);
    EXPECT_NE(INVALID_HANDLE_VALUE, second);
    EXPECT_EQ(INVALID_HANDLE_VALUE, Open("f", OPEN_EXISTING));
    EXPECT_EQ(ERROR_SHARING_VIOLATION, GetLastError());
    CloseHandle(shared);
    CloseHandle(second);
    HANDLE exclusive = Open("f", CREATE_ALWAYS);
    ASSERT_NE(INVALID_HANDLE_VALUE, exclusive);
    EXPECT_EQ(INVALID_HANDLE_VALUE, Open("f", OPEN_EXISTING, FILE_SHARE_READ));
    EXPECT_EQ(ERROR_SHARING_VIOLATION, GetLastError());
    CloseHandle(exclusive);
}

TEST_F(FileTest, PositionEndAndRename) {
    HANDLE file = Open("f", CREATE_NEW);
    ASSERT_NE(INVALID_HANDLE_VALUE, file);
    ASSERT_TRUE(WriteFile(file, "abcdef", 6, nullptr, nullptr));
    LARGE_INTEGER to{};
    to.QuadPart = -1;
    EXPECT_FALSE(SetFilePointerEx(file, to, nullptr, FILE_BEGIN));
    EXPECT_EQ(ERROR_NEGATIVE_SEEK, GetLastError());
    to.QuadPart = -2;
    LARGE_INTEGER at{};
    ASSERT_TRUE(SetFilePointerEx(file, to, &at, FILE_END));
    EXPECT_EQ(4, at.QuadPart);
    ASSERT_TRUE(SetEndOfFile(file));
    char bytes[8] = {};
    DWORD read = 7;
    EXPECT_TRUE(ReadFile(file, bytes, sizeof bytes, &read, nullptr));
    EXPECT_EQ(0u, read);
    to.QuadPart = 0;
    ASSERT_TRUE(SetFilePointerEx(file, to, nullptr, FILE_BEGIN));
    EXPECT_TRUE(ReadFile(file, bytes, sizeof bytes, &read, nullptr));
    EXPECT_EQ("abcd", std::string(bytes, read));
    CloseHandle(file);

    CloseHandle(Open("g", CREATE_NEW));
    const std::string f = m_folder + "/f";
    const std::string g = m_folder + "/g";
    EXPECT_FALSE(MoveFileExA(f.c_str(), g.c_str(), 0));
    EXPECT_EQ(ERROR_ALREADY_EXISTS, GetLastError());
    EXPECT_TRUE(
        MoveFileExA(f.c_str(), g.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH));
    EXPECT_FALSE(DeleteFileA(f.c_str()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetLastError());
    EXPECT_FALSE(DeleteFileA((m_folder + "/none/f").c_str()));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, GetLastError());
    EXPECT_EQ(INVALID_HANDLE_VALUE, Open("", OPEN_EXISTING));
    EXPECT_EQ(ERROR_ACCESS_DENIED, GetLastError());
}

}  // namespace
