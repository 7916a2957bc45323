// Error numbers and their texts, and checked printing into fixed buffers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/TestSupport.h"
#include "tessel/host/Util.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/ErrorText.h"
#include "tessel/platform/LastError.h"

using namespace Tessel::Platform;
using TesselTest::InvalidParameterError;

namespace {

constexpr DWORD kFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;

TEST(LastError, ErrnoValuesMapToPlatformNumbers) {
    const struct {
        int e;
        DWORD error;
    } cases[] = {
        {ENOENT, ERROR_FILE_NOT_FOUND},
        {ENOTDIR, ERROR_PATH_NOT_FOUND},
        {EACCES, ERROR_ACCESS_DENIED},
        {EEXIST, ERROR_ALREADY_EXISTS},
        {EINVAL, ERROR_INVALID_PARAMETER},
        {ENOSPC, ERROR_DISK_FULL},
        {0, ERROR_SUCCESS},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SetLastErrorFromErrno(c.e), c.error) << c.e;
        EXPECT_EQ(GetLastError(), c.error);
    }
    EXPECT_EQ(HresultFromError(ERROR_ACCESS_DENIED), static_cast<std::int32_t>(0x80070005u));
    EXPECT_EQ(HresultFromError(0), 0);
}

TEST(ErrorText, SystemTextsEndInCrLfAndLeaveTheLastError) {
    const struct {
        DWORD error;
        const char* text;
    } cases[] = {
        {2, "The system cannot find the file specified.\r\n"},
        {1460, "This operation returned because the timeout period expired.\r\n"},
        {0x80070005u, "Access is denied.\r\n"},  // in HRESULT form
    };
    for (const auto& c : cases) {
        char buffer[256];
        SetLastError(12345);
        EXPECT_EQ(FormatMessageA(kFlags, nullptr, c.error, 0, buffer, 256, nullptr),
                  std::strlen(c.text));
        EXPECT_STREQ(buffer, c.text);
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
        {FORMAT_MESSAGE_FROM_SYSTEM, ERROR_ACCESS_DENIED, 20, 0},  // no inserts to ignore
        {kFlags, ERROR_ACCESS_DENIED, 19, ERROR_INSUFFICIENT_BUFFER},
        {kFlags, ERROR_ACCESS_DENIED, 0, ERROR_INSUFFICIENT_BUFFER},
        {kFlags, 7, 64, ERROR_MR_MID_NOT_FOUND},
        {kFlags, 0x80070007u, 64, ERROR_MR_MID_NOT_FOUND},
        {FORMAT_MESSAGE_FROM_SYSTEM, ERROR_MR_MID_NOT_FOUND, 200, ERROR_INVALID_PARAMETER},  // %1
        {FORMAT_MESSAGE_IGNORE_INSERTS, ERROR_ACCESS_DENIED, 64, ERROR_INVALID_PARAMETER},
        {kFlags | FORMAT_MESSAGE_ALLOCATE_BUFFER, ERROR_ACCESS_DENIED, 64, ERROR_INVALID_PARAMETER},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.flags << " " << c.error << " size " << c.size);
        char buffer[256];
        std::memset(buffer, 'X', sizeof(buffer));
        SetLastError(0);
        const DWORD written = FormatMessageA(c.flags, nullptr, c.error, 0, buffer, c.size, nullptr);
        EXPECT_EQ(GetLastError(), c.lastError);
        EXPECT_EQ(written, c.lastError == 0 ? c.size - 1 : 0);
        if (c.lastError != 0) {
            EXPECT_EQ(buffer[0], c.size > 0 ? '\0' : 'X');
            EXPECT_EQ(buffer[1], 'X');
        }
    }
}

// --- checked print ---

void ignoringHandler(const char*, const char*, const char*, unsigned int) {}

TEST(CheckedPrint, TextThatDoesNotFitIsAnInvalidParameter) {
    char buffer[8];
    EXPECT_EQ(sprintf_s(buffer, sizeof buffer, "%s%d", "ab", 1234), 6);
    EXPECT_STREQ(buffer, "ab1234");
    EXPECT_EQ(sprintf_s(buffer, sizeof buffer, "%s", "1234567"), 7);  // exactly fits
    {
        TesselTest::InvalidParameterThrows throws;
        std::memset(buffer, 'z', sizeof buffer);
        EXPECT_THROW(sprintf_s(buffer, sizeof buffer, "%s", "12345678"), InvalidParameterError);
        EXPECT_EQ(buffer[0], '\0');  // emptied, and nothing written past the end
        EXPECT_THROW(sprintf_s(nullptr, 4, "x"), InvalidParameterError);
        EXPECT_THROW(sprintf_s(buffer, 0, "x"), InvalidParameterError);
        // So is a count past the buffer for output that does not fit.
        EXPECT_EQ(_snprintf_s(buffer, 4, 10, "%s", "ab"), 2);
        EXPECT_THROW(_snprintf_s(buffer, 4, 10, "%s", "abcdef"), InvalidParameterError);
    }
    // A handler that returns gives -1.
    const InvalidParameterHandler previous = SetInvalidParameterHandler(&ignoringHandler);
    EXPECT_EQ(sprintf_s(buffer, 4, "%s", "toolong"), -1);
    EXPECT_STREQ(buffer, "");
    SetInvalidParameterHandler(previous);
    EXPECT_EQ(GetInvalidParameterHandler(), previous);
}

TEST(CheckedPrint, DefaultHandlerAborts) {
    EXPECT_DEATH(
        {
            char buffer[4];
            sprintf_s(buffer, sizeof buffer, "%s", "toolong");
        },
        "Invalid parameter");
}

TEST(CheckedPrint, CountedPrintCuts) {
    const struct {
        std::size_t count;
        const char* text;
        int result;
        const char* written;
    } cases[] = {
        {_TRUNCATE, "abc", 3, "abc"},
        {_TRUNCATE, "abcdefgh", -1, "abcdefg"},  // cut to the buffer
        {_TRUNCATE, "abcdefg", 7, "abcdefg"},
        {3, "abcdef", -1, "abc"},  // cut at count
        {3, "ab", 2, "ab"},
    };
    for (const auto& c : cases) {
        char buffer[8];
        EXPECT_EQ(_snprintf_s(buffer, sizeof buffer, c.count, "%s", c.text), c.result) << c.text;
        EXPECT_STREQ(buffer, c.written);
    }
}

}  // namespace
