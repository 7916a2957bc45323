#include "tessel/platform/ProcessStart.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"

namespace {

using namespace Tessel::Platform;
using Words = std::vector<std::string>;

TEST(SplitCommandLine, BlanksSeparateQuotesGroupAndBackslashesEscapeOnlyQuotes) {
    const struct {
        const char* line;
        Words words;
    } cases[] = {
        {"", {}},
        {" \t ", {}},
        {"  prog \t a  b ", {"prog", "a", "b"}},
        {R"("C:\Program Files\x.exe" a)", {R"(C:\Program Files\x.exe)", "a"}},
        {R"(p "a b" "" c"d e"f)", {"p", "a b", "", "cd ef"}},
        {R"(p a\b a\\b)", {"p", R"(a\b)", R"(a\\b)"}},             // literal
        {R"(p a\"b a\\\"b)", {"p", R"(a"b)", R"(a\"b)"}},          // 2n+1: n and a quote
        {R"(p a\\"b c" a\\\\"b")", {"p", R"(a\b c)", R"(a\\b)"}},  // 2n: n and grouping
        {R"(p "a""b" "x""")", {"p", R"(a"b)", R"(x")"}},           // "" inside quotes
        {R"(p "open ended)", {"p", "open ended"}},
        {R"("dir\"prog x)", {R"(dir\prog)", "x"}},  // the program: backslashes are plain
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SplitCommandLine(c.line), c.words) << c.line;
    }
    EXPECT_EQ(SplitCommandLine(nullptr), Words{});
}

TEST(TerminateProcess, KillsTheProcessAndRefusesOtherHandles) {
    char line[] = "sleep 300";
    STARTUPINFOA startup{};
    PROCESS_INFORMATION information{};
    ASSERT_EQ(CreateProcessA(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                             &information),
              TRUE);
    EXPECT_EQ(TerminateProcess(information.hProcess, 0), TRUE);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, 60000), WAIT_OBJECT_0);
    EXPECT_EQ(TerminateProcess(information.hProcess, 0), TRUE) << "ended already";
    EXPECT_EQ(CloseHandle(information.hProcess), TRUE);
    EXPECT_EQ(TerminateProcess(nullptr, 0), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

}  // namespace
