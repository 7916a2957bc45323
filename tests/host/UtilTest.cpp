#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "tessel/host/Util.h"

TEST(Util, CleanUnprintableStringCutsAtTheFirstControlCharacter) {
    const std::size_t none = static_cast<std::size_t>(-1);
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
            char buffer[32];
            std::strcpy(buffer, c.text);
            EXPECT_EQ(clean(buffer, c.size), c.result) << c.text << " size " << c.size;
            EXPECT_STREQ(buffer, c.after) << c.text << " size " << c.size;
            if (c.result == 1) {  // only the first control character changed
                EXPECT_EQ(buffer[std::strlen(c.after) + 1], c.text[std::strlen(c.after) + 1]);
            }
        }
    }
    EXPECT_EQ(CUtil::CleanUnprintableString(nullptr, none), 0);
}

TEST(Util, CleanUnprintableStringReadsNoFurtherThanSizeAllows) {
    const auto buffer = std::make_unique<char[]>(4);  // no NUL
    std::memcpy(buffer.get(), "abc\n", 4);
    EXPECT_EQ(CUtil::CleanUnprintableString(buffer.get(), 4), 0);
    EXPECT_EQ(std::memcmp(buffer.get(), "abc\n", 4), 0);
}
