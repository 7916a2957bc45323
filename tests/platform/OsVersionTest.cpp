#include "tessel/platform/OsVersion.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "PlatformTest.h"

namespace P = Tessel::Platform;

TEST(OsVersion, PrettyNameIsUnquoted) {
    const std::pair<const char*, const char*> cases[] = {
        {"NAME=x\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n",
         "Debian GNU/Linux 12 (bookworm)"},
        {"PRETTY_NAME='Single \\n'\n", "Single \\n"},
        {"PRETTY_NAME=\"A \\\"B\\\" \\\\ \\n\"", "A \"B\" \\ \\n"},
        {"PRETTY_NAME=My\\ OS\n", "My OS"},
        {"NAME=\"No pretty name\"\n", ""},
    };
    const std::string path =
        (std::filesystem::temp_directory_path() / PlatformTest::uniqueName("os-release")).string();
    for (const auto& [text, name] : cases) {
        std::ofstream(path) << text;
        EXPECT_EQ(P::OsPrettyName(path), name) << text;
    }
    EXPECT_EQ(P::OsPrettyName(path + ".missing"), "");
}
