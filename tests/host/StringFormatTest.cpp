// UTF-8 conversion, formatted texts of any length, and string resources.
#include "tessel/host/StringFormat.h"

#include <gtest/gtest.h>

#include <string>

#include "tessel/platform/Resources.h"

namespace {

TEST(StringFormat, Utf8RoundTripsAndInvalidBytesBecomeReplacements) {
    const struct {
        std::string utf8;
        std::wstring wide;
    } cases[] = {
        {"", L""},
        {"Gr\xC3\xBC\xC3\x9F"
         "e \xE2\x82\xAC \xF0\x9F\x9B\xB0",
         L"Gr\u00FC\u00DFe \u20AC \U0001F6F0"},
        {"a\x80"
         "b",
         L"a\uFFFD"
         "b"},                    // a stray continuation byte
        {"\xE2\x82", L"\uFFFD"},  // cut short at the end
        {"\xE2\x82"
         "x",
         L"\uFFFDx"},                                       // cut short inside
        {"\xC0\xAF", L"\uFFFD\uFFFD"},                      // overlong
        {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},            // an encoded surrogate
        {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Tessel::DecodeUtf8(c.utf8), c.wide) << c.utf8;
    }
    EXPECT_EQ(Tessel::EncodeUtf8(cases[1].wide), cases[1].utf8);
    EXPECT_EQ(Tessel::EncodeUtf8(
                  std::wstring{L'x', static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000)}),
              "x\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(StringFormat, FormatPrintsPlatformSizesAndLongTextsWhole) {
    EXPECT_EQ(
        Tessel::Format("Drive: %s, Total : %I64dMB, Free : %I64dMB.", "/srv", 5000000000LL, -1LL),
        "Drive: /srv, Total : 5000000000MB, Free : -1MB.");
    const std::string longText(5000, 'x');
    std::string result = "former";
    Tessel::Format(result, "<%s|%Iu>", longText.c_str(), std::size_t{12});
    EXPECT_EQ(result, "<" + longText + "|12>");
    EXPECT_EQ(Tessel::Format("%%"), "%");
}

TEST(StringFormat, LoadStringGivesWholeTextsAndEmptyForMissingOnes) {
    EXPECT_EQ(Tessel::LoadStringA(Tessel::Platform::LibraryModule(), 6010),
              "Cannot write to drive or folder '%s'.");
    const std::string longText(700, 'r');
    Tessel::Platform::RegisterStringResource(nullptr, 4711, longText.c_str());
    std::string result = "former";
    Tessel::LoadStringA(result, nullptr, 4711);
    EXPECT_EQ(result, longText);
    Tessel::LoadStringA(result, nullptr, 4712);
    EXPECT_EQ(result, "");
}

}  // namespace
