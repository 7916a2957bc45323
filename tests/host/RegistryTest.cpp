#include "tessel/host/Registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "host/StoredValues.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "tessel/logging/ILogging.h"

using namespace Tessel::Platform;
using namespace HostTest;
using namespace std::string_literals;
using testing::HasSubstr;

namespace {

const char* const kKey = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Test";

TEST(Reg, StringReadsMissAndPlantTheDefaultOnlyWhenAsked) {
    // What a read gives, nullopt for a miss; REG_NONE rows are not stored at all.
    const std::tuple<const char*, DWORD, std::string, std::optional<std::string>> cases[] = {
        {"Missing", REG_NONE, "", std::nullopt},
        {"Long", REG_SZ, std::string(256, 'x') + '\0', std::nullopt},  // 257 bytes with the NUL
        {"Fits", REG_SZ, std::string(255, 'y') + '\0', std::string(255, 'y')},
        {"Dword", REG_DWORD, "\5\0\0\0"s, std::nullopt},
        {"Unterminated", REG_SZ, "abc", std::nullopt},
        {"Expand", REG_EXPAND_SZ, "%TEMP%\0"s, "%TEMP%"},  // not expanded
        {"Empty", REG_SZ, "\0"s, ""},
        {"NoBytes", REG_SZ, "", ""},
    };
    for (const auto& [name, type, bytes, read] : cases) {
        SCOPED_TRACE(name);
        const Stored before = type == REG_NONE ? std::nullopt : is(type, bytes);
        if (before) {
            setStored(kKey, name, type, bytes);
        }
        EXPECT_EQ(REG::Get(kKey, name, "e"), read.value_or("e"));
        EXPECT_EQ(stored(kKey, name), before);                                  // left alone
        EXPECT_EQ(REG::Get(kKey, name, "d", false, true), read.value_or("d"));  // plants
        EXPECT_EQ(REG::Get(kKey, name, "e"), read.value_or("d"));
        EXPECT_EQ(stored(kKey, name), read ? before : is(REG_SZ, "d\0"s));
    }
    EXPECT_EQ(REG::Get(kKey, "Nothing", nullptr), "");
}

TEST(Reg, NumbersAndFlagsAreKeptAsText) {
    EXPECT_TRUE(REG::Write(kKey, "Long", 42L));
    EXPECT_EQ(REG::Get(kKey, "Long", "x"), "42");
    EXPECT_EQ(REG::Get(kKey, "Long", 0L), 42);
    EXPECT_TRUE(REG::Write(kKey, "Double", 3.14));
    EXPECT_EQ(REG::Get(kKey, "Double", "x"), "3.140000");
    EXPECT_DOUBLE_EQ(REG::Get(kKey, "Double", 0.0), 3.14);
    EXPECT_TRUE(REG::Write(kKey, "Flag", true));
    EXPECT_EQ(REG::Get(kKey, "Flag", "x"), "TRUE");
    EXPECT_TRUE(REG::Get(kKey, "Flag", false));
    REG::Write(kKey, "Yes", "yes");
    EXPECT_FALSE(REG::Get(kKey, "Yes", true));
    REG::Write(kKey, "Lower", "true");
    EXPECT_TRUE(REG::Get(kKey, "Lower", false));
    EXPECT_EQ(REG::Get(kKey, "Missing", 17L, false, true), 17);
    EXPECT_EQ(REG::Get(kKey, "Missing", "x"), "17");
    EXPECT_DOUBLE_EQ(REG::Get(kKey, "MissingDouble", 2.5), 2.5);
    EXPECT_EQ(REG::Get(kKey, "MissingDouble", "x"), "x");  // not planted

    char buffer[4];
    REG::Write(kKey, "Wide", "123456");
    REG::Get(kKey, "Wide", "d", buffer, sizeof buffer);
    EXPECT_STREQ(buffer, "123");  // cut to the buffer
}

TEST(Reg, WriteCutsTrailingBlanksAndStamps) {
    char text[] = "value  ";
    EXPECT_TRUE(REG::Write(kKey, "Blanks", text));
    EXPECT_STREQ(text, "value");  // in the caller's buffer
    EXPECT_EQ(REG::Get(kKey, "Blanks", "d"), "value");
    const char* constant = "kept \t";
    REG::Write(kKey, "Constant", constant);
    EXPECT_EQ(REG::Get(kKey, "Constant", "d"), "kept");

    REG::Write(kKey, "Stamped", "started", true);  // the stamp's own form is the time text's
    EXPECT_THAT(REG::Get(kKey, "Stamped", ""), testing::MatchesRegex("started <[0-9.: ]+>"));
}

TEST(Reg, PrioGetTakesTheFirstNonEmptyText) {
    const std::string first = kKey + "\\First"s;
    const std::string second = kKey + "\\Second"s;
    REG::Write(first, "N", "");
    REG::Write(second, "N", "5");
    EXPECT_EQ(REG::PrioGet(first, second, "N", "d"), "5");
    EXPECT_EQ(REG::PrioGet(first, second, "N", 0L), 5);
    REG::Write(first, "N", "3");
    EXPECT_EQ(REG::PrioGet(first, second, "N", 0L), 3);
    EXPECT_EQ(REG::PrioGet(first, second, "Other", "d"), "d");
    EXPECT_EQ(REG::PrioGet(first, second, "Other", 9L), 9);
    REG::Write(second, "B", "true");
    EXPECT_TRUE(REG::PrioGet(first, second, "B", false));
    EXPECT_TRUE(REG::PrioGet(first, second, "None", true));
}

TEST(Reg, DwordValuesAndTheirRepair) {
    EXPECT_TRUE(REG::WriteLong(kKey, "Dword", -2));
    EXPECT_EQ(REG::GetLong(kKey, "Dword", 0), -2);
    EXPECT_EQ(stored(kKey, "Dword"), is(REG_DWORD, "\xfe\xff\xff\xff"s));

    REG::Write(kKey, "Text", "12");
    EXPECT_EQ(REG::GetLong(kKey, "Text", 99), 99);
    EXPECT_EQ(stored(kKey, "Text"), is(REG_SZ, "12\0"s));  // no repair
    EXPECT_EQ(REG::GetLong(kKey, "Text", 99, true), 99);
    EXPECT_EQ(stored(kKey, "Text"), is(REG_DWORD, "c\0\0\0"s));  // repaired
    EXPECT_EQ(REG::GetLong(kKey, "Text", 0), 99);

    const std::string missingKey = kKey + "\\NotThere"s;
    EXPECT_EQ(REG::GetLong(missingKey, "V", 4, true), 4);
    EXPECT_EQ(REG::GetLong(missingKey, "V", 0), 4);
    // A missing value in an existing key: the delete fails, so nothing is written.
    EXPECT_EQ(REG::GetLong(kKey, "Absent", 6, true), 6);
    EXPECT_FALSE(stored(kKey, "Absent"));
}

TEST(Reg, BinaryValuesAndTheirTraceMessages) {
    const unsigned char data[] = {0, 1, 2, 0xFF};
    EXPECT_TRUE(REG::Write(kKey, "Bytes", data, sizeof data));
    unsigned char read[8] = {};
    unsigned long size = sizeof read;
    EXPECT_EQ(REG::Get(kKey, "Bytes", read, &size), 1);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(std::memcmp(read, data, 4), 0);

    ILogging::getInstance().setLogLevel(ILogging::Trace);
    const TesselTest::LogCapture traced;
    size = sizeof read;
    EXPECT_EQ(REG::Get(kKey, "NoBytes", read, &size), 0);
    size = 2;
    EXPECT_EQ(REG::Get(kKey, "Bytes", read, &size), 0);
    EXPECT_THAT(traced.text(), HasSubstr("trace [REG::Get] REG::Get(BYTE),("s + kKey +
                                         ", NoBytes)failed: The system cannot find the file "
                                         "specified.\n"));
    EXPECT_THAT(traced.text(), HasSubstr(", Bytes)failed: More data is available.\n"));
}

TEST(Reg, ListingsAndDeletions) {
    const std::string base = "SOFTWARE\\Tarvo Works\\Listing";
    REG::CreateSubKey(base + "\\Beta");
    REG::CreateSubKey(base + "\\alpha");
    std::vector<std::string> names{"kept"};
    EXPECT_TRUE(REG::GetSubDir("Listing", names));
    EXPECT_EQ(names, (std::vector<std::string>{"kept", "alpha", "Beta"}));
    EXPECT_FALSE(REG::GetSubDir("NoSuchKey", names));

    // Each name is fetched with room for the length of its predecessor: the longer one ends it.
    for (const char* name : {"abc", "ab", "abcd", "a"}) {
        REG::Write(base + "\\Values", name, "x");
    }
    names.clear();
    EXPECT_TRUE(REG::GetKeyValues(base + "\\Values", names));
    EXPECT_EQ(names, (std::vector<std::string>{"abc", "ab"}));
    EXPECT_FALSE(REG::GetKeyValues(base + "\\Missing", names));

    const std::string key = kKey + "\\Del"s;
    REG::Write(key, "V", "1");
    EXPECT_TRUE(REG::DeleteEntry(key, "V"));
    EXPECT_FALSE(REG::DeleteEntry(key, "V"));
    EXPECT_FALSE(REG::DeleteEntry(key + "\\Missing", "V"));

    // DeleteKey removes only a sub-key of the same relative name below the key.
    EXPECT_FALSE(REG::DeleteKey(key));
    EXPECT_EQ(REG::Get(key, "Probe", "d", false, true), "d");  // the key is still there
    REG::CreateSubKey(key + "\\" + key);
    EXPECT_TRUE(REG::DeleteKey(key));

    REG::Write(key + "\\A\\B\\C", "V", "1");
    REG::Write(key + "\\A\\D", "V", "1");
    REG::RecurseDeleteKey(key);
    EXPECT_FALSE(REG::GetKeyValues(key, names));
    EXPECT_FALSE(REG::GetKeyValues(key + "\\A\\B\\C", names));
}

TEST(Reg, EventHelperReadsOnlyAfterAChange) {
    REG::CRegistryDWord record{false, 3, "SOFTWARE\\Tarvo Works\\GPS Velkor\\DebugService",
                               "Watched"};
    REG::CreateSubKey(record.m_strKey);  // a notification needs the key to exist
    REG::CRegistryKeyDWordEventHelper helper(record);
    unsigned long value = 3;
    // The first call reads; the value is missing, so the default stands.
    EXPECT_FALSE(helper.GetRegistryValue(value));
    EXPECT_EQ(value, 3u);

    // A change by another process.
    ASSERT_EQ(TesselTest::Run({TESSEL_REGISTRY_PEER, "set-dword", record.m_strKey, "Watched", "8"})
                  .status,
              0);
    ASSERT_TRUE(TesselTest::eventually([&] { return helper.GetRegistryValue(value); }));
    EXPECT_EQ(value, 8u);
    EXPECT_FALSE(helper.GetRegistryValue(value));  // only the first call after the change

    // A missing value with the create flag is written back.
    REG::CRegistryDWord created{true, 11, "SOFTWARE\\Tarvo Works\\GPS Velkor\\Created", "V"};
    REG::CRegistryKeyDWordEventHelper creator(created);
    unsigned long current = 0;
    EXPECT_TRUE(creator.GetRegistryValue(current));
    EXPECT_EQ(current, 11u);
    EXPECT_EQ(REG::GetLong(created.m_strKey, "V", 0), 11);

    // A copy takes over the watch.
    REG::CRegistryKeyDWordEventHelper moved(helper);
    REG::WriteLong(record.m_strKey, "Watched", 9);
    EXPECT_TRUE(TesselTest::eventually([&] { return moved.GetRegistryValue(value); }));
    EXPECT_EQ(value, 9u);
    EXPECT_FALSE(helper.GetRegistryValue(value));  // the source has no event any more
}

}  // namespace
