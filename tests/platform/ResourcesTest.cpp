// Modules, the library's string resources, and formats written for the platform's print.
#include <gtest/gtest.h>

#include <string>

#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Resources.h"

namespace {

using namespace Tessel::Platform;

TEST(Modules, TheProgramIsTheNullModuleAndTheLibraryHasItsOwn) {
    static const int inProgram = 0;
    EXPECT_EQ(ModuleFromAddress(&inProgram), nullptr);
    ASSERT_NE(LibraryModule(), nullptr);
    EXPECT_EQ(ModuleFromAddress(reinterpret_cast<const void*>(&LoadStringA)), LibraryModule());
}

TEST(Modules, TheLibraryTextsAreResourcesOfTheLibraryOnly) {
    char text[128];
    ASSERT_EQ(LoadStringA(LibraryModule(), 6008, text, sizeof text), 43);
    EXPECT_STREQ(text, "Drive: %s, Total : %I64dMB, Free : %I64dMB.");
    EXPECT_EQ(LoadStringA(LibraryModule(), 6000, text, sizeof text), 57);
    EXPECT_EQ(LoadStringA(LibraryModule(), 6010, text, sizeof text), 37);
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(LoadStringA(LibraryModule(), 6004, text, sizeof text), 0);
    EXPECT_EQ(GetLastError(), ERROR_RESOURCE_NAME_NOT_FOUND);
    EXPECT_EQ(LoadStringA(nullptr, 6008, text, sizeof text), 0);
}

TEST(PosixFormat, SizePrefixesAreRewrittenAndAllElseKept) {
    const struct {
        const char* format;
        const char* expected;
    } cases[] = {
        {"Total : %I64dMB", "Total : %lldMB"},
        {"%I64u %I64x %I64X %-12I64d %08.3I64i", "%llu %llx %llX %-12lld %08.3lli"},
        {"%I32d %I32u %5I32x", "%d %u %5x"},
        {"%Id %Iu %*Ix", "%zd %zu %*zx"},
        {"100%% %%I64d %%%I64d", "100%% %%I64d %%%lld"},
        {"%s I64d %lld %zu %I %I64s", "%s I64d %lld %zu %I %I64s"},
        {"trailing %", "trailing %"},
        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ToPosixFormat(c.format), c.expected) << c.format;
    }
    EXPECT_EQ(ToPosixFormat(nullptr), "");
}

}  // namespace
