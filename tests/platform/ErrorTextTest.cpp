#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tessel/host/Util.h"
#include "tessel/platform/ErrorText.h"
#include "tessel/platform/LastError.h"

using namespace Tessel::Platform;

namespace {

constexpr DWORD kFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;

// The text of error, or "" with the last error set.
std::string textOf(DWORD error, DWORD flags = kFlags) {
    char buffer[256] = "old";
    const DWORD written = FormatMessageA(flags, nullptr, error, 0, buffer, 256, nullptr);
    EXPECT_EQ(written, std::strlen(buffer)) << error;
    return buffer;
}

}  // namespace

TEST(ErrorText, SystemTexts) {
    const struct {
        DWORD error;
        const char* text;
    } cases[] = {
        {2, "The system cannot find the file specified.\r\n"},
        {5, "Access is denied.\r\n"},
        {8, "Not enough memory resources are available to process this command.\r\n"},
        {183, "Cannot create a file when that file already exists.\r\n"},
        {259, "No more data is available.\r\n"},
        {1018,
         "Illegal operation attempted on a registry key that has been marked for deletion.\r\n"},
        {1460, "This operation returned because the timeout period expired.\r\n"},
        {1630, "Data of this type is not supported.\r\n"},
        {0x80070005u, "Access is denied.\r\n"},  // in HRESULT form
    };
    for (const auto& c : cases) {
        SetLastError(12345);
        EXPECT_EQ(textOf(c.error), c.text);
        EXPECT_EQ(GetLastError(), 12345u);  // success leaves it alone
    }
    // Every error number that the platform layer reports has a one-line text.
    for (DWORD error :
         {0,   1,   2,   3,   4,    5,    6,    8,    14,   21,   29,   30,   32,   33,
          38,  50,  80,  87,  109,  112,  122,  123,  145,  170,  183,  206,  234,  259,
          288, 317, 995, 997, 1009, 1010, 1011, 1012, 1013, 1018, 1060, 1224, 1460, 1630}) {
        char text[256];
        ASSERT_GT(FormatMessageA(kFlags, nullptr, error, 0, text, 256, nullptr), 2u) << error;
        EXPECT_EQ(CUtil::CleanUnprintableString(text, sizeof(text)), 1) << error;
        EXPECT_EQ(text[std::strlen(text) - 1], '.') << error;
    }
}

TEST(ErrorText, FailuresEmptyTheBufferAndSetTheLastError) {
    const struct {
        DWORD flags, error, size, lastError;
    } cases[] = {
        {kFlags, ERROR_ACCESS_DENIED, 20, 0},  // "Access is denied.\r\n" and its NUL fit
        {kFlags, ERROR_ACCESS_DENIED, 19, ERROR_INSUFFICIENT_BUFFER},
        {kFlags, ERROR_ACCESS_DENIED, 0, ERROR_INSUFFICIENT_BUFFER},
        {kFlags, 7, 64, ERROR_MR_MID_NOT_FOUND},
        {kFlags, 0x80070007u, 64, ERROR_MR_MID_NOT_FOUND},
        {FORMAT_MESSAGE_FROM_SYSTEM, ERROR_MR_MID_NOT_FOUND, 200, ERROR_INVALID_PARAMETER},  // %1
        {FORMAT_MESSAGE_IGNORE_INSERTS, ERROR_ACCESS_DENIED, 64, ERROR_INVALID_PARAMETER},
        {kFlags | FORMAT_MESSAGE_ALLOCATE_BUFFER, ERROR_ACCESS_DENIED, 64, ERROR_INVALID_PARAMETER},
    };
    for (const auto& c : cases) {
        char buffer[256];
        std::memset(buffer, 'X', sizeof(buffer));
        SetLastError(0);
        const DWORD written = FormatMessageA(c.flags, nullptr, c.error, 0, buffer, c.size, nullptr);
        EXPECT_EQ(GetLastError(), c.lastError) << c.error << " size " << c.size;
        EXPECT_EQ(written, c.lastError == 0 ? c.size - 1 : 0) << c.error << " size " << c.size;
        if (c.lastError != 0) {
            EXPECT_EQ(buffer[0], c.size > 0 ? '\0' : 'X');
            EXPECT_EQ(buffer[1], 'X');
        }
    }
    EXPECT_EQ(textOf(ERROR_FILE_NOT_FOUND, FORMAT_MESSAGE_FROM_SYSTEM),
              "The system cannot find the file specified.\r\n");
}
