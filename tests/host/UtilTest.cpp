#include "tessel/host/Util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

TEST(Util, CleanUnprintableStringCutsAtTheFirstControlCharacter) {
    const std::size_t none = CUtil::NO_SIZE_LIMIT;
    // The text, the size given, the result and the text afterwards.
    const std::tuple<const char*, std::size_t, int, const char*> cases[] = {
        {"line\r\n", none, 1, "line"},  // the platform's message texts
        {"no control characters ~\x7f", none, 0, "no control characters ~\x7f"},
        {"a\037b\nc", none, 1, "a"},
        {"Gr\303\274\303\237e\r\n", none, 1, "Gr\303\274\303\237e"},  // UTF-8 stays
        {"abc\n", 0, 0, "abc\n"},
        {"abc\n", 4, 0, "abc\n"},  // looks at size - 1 bytes
        {"abc\n", 5, 1, "abc"},
    };
    for (auto clean : {&CUtil::CleanUnprintableString, &CUtil::CleanUnprintableStringA}) {
        for (const auto& [text, size, result, after] : cases) {
            SCOPED_TRACE(std::string(text) + " size " + std::to_string(size));
            char buffer[32];
            std::strcpy(buffer, text);
            EXPECT_EQ(clean(buffer, size), result);
            EXPECT_STREQ(buffer, after);
            if (result == 1) {  // only the first control character changed
                EXPECT_EQ(buffer[std::strlen(after) + 1], text[std::strlen(after) + 1]);
            }
        }
    }
    EXPECT_EQ(CUtil::CleanUnprintableString(nullptr, none), 0);
}
