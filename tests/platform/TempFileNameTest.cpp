// Temporary file names: unique files made on request, names formed, and the failures.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "tessel/platform/File.h"
#include "tessel/platform/LastError.h"

namespace {

using namespace Tessel::Platform;
namespace fs = std::filesystem;

class TempFileName : public testing::Test {
  protected:
    void SetUp() override {
        char folder[] = "/tmp/tessel-tempname-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(folder));
        m_folder = folder;
    }
    void TearDown() override { fs::remove_all(m_folder); }

    std::string m_folder;
};

TEST_F(TempFileName, EveryCallMakesANewEmptyFileUnderItsNumber) {
    const std::regex form(m_folder + "/tvw([0-9A-F]{1,4})\\.tmp");
    std::set<UINT> numbers;
    for (int i = 0; i < 1000; ++i) {
        char name[260];
        const UINT number = GetTempFileNameA(i % 2 ? m_folder.c_str() : (m_folder + "/").c_str(),
                                             "tvwxyz", 0, name);
        std::cmatch match;
        ASSERT_TRUE(std::regex_match(name, match, form)) << name;
        EXPECT_EQ(std::stoul(match[1].str(), nullptr, 16), number);
        EXPECT_TRUE(numbers.insert(number).second) << number;
        EXPECT_EQ(fs::file_size(name), 0u);
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(m_folder), fs::directory_iterator()), 1000);
}

TEST_F(TempFileName, AGivenNumberFormsTheNameAloneAndFailuresLeaveItEmpty) {
    const struct {
        std::string path;
        UINT unique, result;
        const char* name;  // below m_folder; nullptr: empty
        DWORD error;
    } cases[] = {
        {"", 0x1001F, 0x1001F, "/tvw1F.tmp", ERROR_SUCCESS},  // the low 16 bits, 3 characters
        {"/missing", 0, 0, nullptr, ERROR_PATH_NOT_FOUND},
        {"/" + std::string(260, 'd'), 7, 0, nullptr, ERROR_BUFFER_OVERFLOW},
    };
    for (const auto& c : cases) {
        char name[260] = "former";
        SetLastError(ERROR_SUCCESS);
        EXPECT_EQ(GetTempFileNameA((m_folder + c.path).c_str(), "tvwxyz", c.unique, name),
                  c.result);
        EXPECT_EQ(std::string(name), c.name != nullptr ? m_folder + c.name : "");
        EXPECT_EQ(GetLastError(), c.error) << c.path;
    }
    EXPECT_TRUE(fs::is_empty(m_folder));  // a given number makes no file
    char name[260];
    EXPECT_EQ(GetTempFileNameA(nullptr, "tvw", 0, name), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

}  // namespace
