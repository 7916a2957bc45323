#include "tessel/host/Util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

TEST(Util, CleanUnprintableStringCutsAtTheFirstControlCharacter) {
    const std::size_t none = CUtil::NO_SIZE_LIMIT;
    const struct {
        const char* text;
        std::size_t size;
        int result;
        const char* after;
    } cases[] = {
        {"line\r\n", none, 1, "line"},  // the platform's message texts
        {"no control characters ~\x7f", none, 0, "no control characters ~\x7f"},
        {"", none, 0, ""},
        {"\nfirst", none, 1, ""},
        {"a\x1f"
         "b\nc",
         none, 1, "a"},
        {"Gr\xc3\xbc\xc3\x9f"
         "e\r\n",
         none, 1,
         "Gr\xc3\xbc\xc3\x9f"
         "e"},  // UTF-8 stays
        {"abc\n", 0, 0, "abc\n"},
        {"abc\n", 4, 0, "abc\n"},  // looks at size - 1 bytes
        {"abc\n", 5, 1, "abc"},
    };
    for (auto clean : {&CUtil::CleanUnprintableString, &CUtil::CleanUnprintableStringA}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.text) + " size " + std::to_string(c.size));
            char buffer[32];
            std::strcpy(buffer, c.text);
            EXPECT_EQ(clean(buffer, c.size), c.result);
            EXPECT_STREQ(buffer, c.after);
            if (c.result == 1) {  // only the first control character changed
                EXPECT_EQ(buffer[std::strlen(c.after) + 1], c.text[std::strlen(c.after) + 1]);
            }
        }
    }
    EXPECT_EQ(CUtil::CleanUnprintableString(nullptr, none), 0);

    // Nothing past size is read: a buffer without NUL.
    const auto unterminated = std::make_unique<char[]>(4);
    std::memcpy(unterminated.get(), "abc\n", 4);
    EXPECT_EQ(CUtil::CleanUnprintableString(unterminated.get(), 4), 0);
    EXPECT_EQ(std::memcmp(unterminated.get(), "abc\n", 4), 0);
}
