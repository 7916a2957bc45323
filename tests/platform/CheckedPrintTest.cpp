#include <gtest/gtest.h>

#include <cstring>

#include "support/TestSupport.h"
#include "tessel/platform/CheckedPrint.h"

using namespace Tessel::Platform;

namespace {

TEST(CheckedPrint, TextThatFitsIsWritten) {
    char buffer[8];
    EXPECT_EQ(sprintf_s(buffer, sizeof buffer, "%s%d", "ab", 1234), 6);
    EXPECT_STREQ(buffer, "ab1234");
    EXPECT_EQ(sprintf_s(buffer, sizeof buffer, "%s", "1234567"), 7);  // exactly fits
}

TEST(CheckedPrint, TextThatDoesNotFitIsAnInvalidParameter) {
    TesselTest::InvalidParameterThrows throws;
    char buffer[8];
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_THROW(sprintf_s(buffer, sizeof buffer, "%s", "12345678"),
                 TesselTest::InvalidParameterError);
    EXPECT_EQ(buffer[0], '\0');  // emptied, and nothing written past the end
    EXPECT_THROW(sprintf_s(nullptr, 4, "x"), TesselTest::InvalidParameterError);
    EXPECT_THROW(sprintf_s(buffer, 0, "x"), TesselTest::InvalidParameterError);
}

void ignoringHandler(const char*, const char*, const char*, unsigned int) {}

TEST(CheckedPrint, AReturningHandlerGivesMinusOne) {
    const InvalidParameterHandler previous = SetInvalidParameterHandler(&ignoringHandler);
    char buffer[4];
    EXPECT_EQ(sprintf_s(buffer, sizeof buffer, "%s", "toolong"), -1);
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
    struct {
        std::size_t count;
        const char* text;
        int result;
        const char* written;
    } const cases[] = {
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

TEST(CheckedPrint, CountedPrintWithACountPastTheBufferIsChecked) {
    TesselTest::InvalidParameterThrows throws;
    char buffer[4];
    EXPECT_EQ(_snprintf_s(buffer, sizeof buffer, 10, "%s", "ab"), 2);
    EXPECT_THROW(_snprintf_s(buffer, sizeof buffer, 10, "%s", "abcdef"),
                 TesselTest::InvalidParameterError);
}

}  // namespace
