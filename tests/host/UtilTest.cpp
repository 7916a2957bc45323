#include "tessel/host/Util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <tuple>

#include "support/ChildProcess.h"

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

TEST(Util, CompWithWildCardMatchesStarAndQuestionMark) {
    const std::tuple<const char*, const char*, int> cases[] = {
        {"a*c?", "abbcd", 1}, {"a?c", "abbc", 0},     {"*", "", 1},     {"", "", 1},
        {"", "a", 0},         {"a**", "a", 1},        {"?", "", 0},     {"*b", "abc", 0},
        {"a*b", "aXbXb", 1},  {"a*b?d", "abxbcd", 1}, {"A*", "abc", 0}, {"*.log", "x.log.1", 0},
    };
    for (const auto& [pattern, text, result] : cases) {
        EXPECT_EQ(CUtil::CompWithWildCard(pattern, text), result) << pattern << " " << text;
    }
    EXPECT_EQ(CUtil::CompWithWildCard(nullptr, "a"), 0);
}

TEST(Util, Base64EncodeGivesTheStandardForm) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},        {"f", "Zg=="},          {"fo", "Zm8="},
        {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {std::string("\xff\xfe\0", 3), "//4A"},
    };
    for (const auto& [data, encoded] : cases) {
        EXPECT_EQ(CUtil::Base64Encode(data), encoded);
    }
}

TEST(Util, MilliSecToTimespanWStringSplitsIntoFields) {
    EXPECT_EQ(CUtil::MilliSecToTimespanWString(0), L"00:00:00.000");
    EXPECT_EQ(CUtil::MilliSecToTimespanWString(3723004), L"01:02:03.004");
    EXPECT_EQ(CUtil::MilliSecToTimespanWString(360000999), L"100:00:00.999");
}

TEST(Util, WideAndNarrowTextConvertAndCutAtCharacters) {
    EXPECT_EQ(CUtil::AnsiToWString("Gr\303\274\303\237e"), L"Gr\u00fc\u00dfe");
    EXPECT_EQ(CUtil::AnsiToWString(nullptr), L"");
    wchar_t wide[] = L"Gr\u00fc\u00dfe";
    // The size given, and the text copied: a cut never splits a character.
    for (const auto& [size, copied] : {std::pair<int, const char*>{20, "Gr\303\274\303\237e"},
                                       {4, "Gr"},
                                       {5, "Gr\303\274"},
                                       {1, ""}}) {
        char buffer[20] = "untouched";
        CUtil::CopyBSTR2TCHAR(wide, buffer, size);
        EXPECT_STREQ(buffer, copied);
    }
    char text[5];
    CUtil::GetSendEventText(text, sizeof(text));
    EXPECT_STREQ(text, "Send");
    char description[20];
    CUtil::GetSendEventDesc(description, sizeof(description));
    EXPECT_STREQ(description, "Send email.");
}

TEST(Util, DataDispatchersAreFoundByBothKeys) {
    CUtil::addDataDispatcherInfo({"rinex", 7, 3});
    EXPECT_TRUE(CUtil::hasDataDispatcher(7, 3));
    EXPECT_FALSE(CUtil::hasDataDispatcher(3, 7));
    EXPECT_FALSE(CUtil::hasDataDispatcher(7 + (1UL << 32), 3));  // no cut to 32 bits
    CUtil::setApplicationName("Station");
    EXPECT_EQ(CUtil::getApplicationName(), "Station");
}

TEST(Util, SleepNoCpuUsageWaitsTheWholeTime) {
    const auto start = std::chrono::steady_clock::now();
    CUtil::SleepNoCpuUsage(30);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

TEST(Util, IsUserInteractiveFollowsTheControllingTerminal) {
    // In a new session, whether the process is interactive before and after it takes a
    // terminal; false is kept for the session.
    for (const bool askFirst : {true, false}) {
        EXPECT_EQ(TesselTest::RunInChild([askFirst] {
                      setsid();
                      const int before = askFirst && CUtil::IsUserInteractive() ? 1 : 0;
                      const int master = posix_openpt(O_RDWR | O_NOCTTY);
                      grantpt(master);
                      unlockpt(master);
                      open(ptsname(master), O_RDWR);  // becomes the session's terminal
                      return before + (CUtil::IsUserInteractive() ? 2 : 0);
                  }),
                  askFirst ? 0 : 2);
    }
}
