#include "tessel/host/Registry.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/ScratchRegistry.h"
#include "tessel/logging/ILogging.h"

using namespace Tessel::Platform;

namespace {

class Reg : public testing::Test {
  protected:
    void SetUp() override { TesselTest::UseScratchRegistry(); }

    // Stores raw bytes of a type, bypassing REG's conventions.
    static void raw(const std::string& key, const char* name, DWORD type, const void* data,
                    DWORD size) {
        HKEY handle = nullptr;
        ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                  nullptr, &handle, nullptr),
                  ERROR_SUCCESS);
        ASSERT_EQ(RegSetValueExA(handle, name, 0, type, static_cast<const BYTE*>(data), size),
                  ERROR_SUCCESS);
        RegCloseKey(handle);
    }

    static DWORD typeOf(const std::string& key, const char* name) {
        DWORD type = REG_NONE;
        return RegGetValueA(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_ANY, &type, nullptr,
                            nullptr) == ERROR_SUCCESS
                   ? type
                   : 0xFFFFFFFFu;
    }
};

const char* const kKey = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Test";

TEST_F(Reg, MissPlantsTheDefaultOnlyWhenAsked) {
    EXPECT_EQ(REG::Get(kKey, "Port", "9800"), "9800");
    EXPECT_EQ(typeOf(kKey, "Port"), 0xFFFFFFFFu);  // not planted
    EXPECT_EQ(REG::Get(kKey, "Port", "9800", false, true), "9800");
    EXPECT_EQ(REG::Get(kKey, "Port", "1"), "9800");  // planted, and read back
    EXPECT_EQ(REG::Get(kKey, "Nothing", nullptr), "");
}

TEST_F(Reg, StringReadMisses) {
    const std::string longText(256, 'x');  // 257 bytes with the terminator
    raw(kKey, "Long", REG_SZ, longText.c_str(), 257);
    EXPECT_EQ(REG::Get(kKey, "Long", "short"), "short");
    EXPECT_EQ(REG::Get(kKey, "Long", "short", false, true), "short");
    EXPECT_EQ(REG::Get(kKey, "Long", "other"), "short");  // overwritten by the default

    const std::string fits(255, 'y');
    raw(kKey, "Fits", REG_SZ, fits.c_str(), 256);
    EXPECT_EQ(REG::Get(kKey, "Fits", "d"), fits);

    const DWORD number = 5;
    raw(kKey, "Dword", REG_DWORD, &number, 4);
    EXPECT_EQ(REG::Get(kKey, "Dword", "7", false, true), "7");
    EXPECT_EQ(typeOf(kKey, "Dword"), REG_SZ);

    raw(kKey, "Unterminated", REG_SZ, "abc", 3);
    EXPECT_EQ(REG::Get(kKey, "Unterminated", "d"), "d");
    raw(kKey, "Expand", REG_EXPAND_SZ, "%TEMP%", 7);
    EXPECT_EQ(REG::Get(kKey, "Expand", "d"), "%TEMP%");  // not expanded
    raw(kKey, "Empty", REG_SZ, "", 1);
    EXPECT_EQ(REG::Get(kKey, "Empty", "d", false, true), "");
    raw(kKey, "NoBytes", REG_SZ, "", 0);
    EXPECT_EQ(REG::Get(kKey, "NoBytes", "d"), "");
}

TEST_F(Reg, NumbersAndFlagsAreKeptAsText) {
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
    REG::Get(kKey, "Long", "d", buffer, sizeof buffer);
    EXPECT_STREQ(buffer, "42");
    REG::Write(kKey, "Wide", "123456");
    REG::Get(kKey, "Wide", "d", buffer, sizeof buffer);
    EXPECT_STREQ(buffer, "123");  // cut to the buffer
}

TEST_F(Reg, WriteCutsTrailingBlanksInTheCallersBuffer) {
    char text[] = "value  ";
    EXPECT_TRUE(REG::Write(kKey, "Blanks", text));
    EXPECT_STREQ(text, "value");
    EXPECT_EQ(REG::Get(kKey, "Blanks", "d"), "value");
    const char* constant = "kept \t";
    REG::Write(kKey, "Constant", constant);
    EXPECT_EQ(REG::Get(kKey, "Constant", "d"), "kept");
}

TEST_F(Reg, WriteWithTimeStamp) {
    REG::Write(kKey, "Stamped", "started", true);
    const std::string stored = REG::Get(kKey, "Stamped", "");
    EXPECT_TRUE(std::regex_match(
        stored, std::regex(R"(started <\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d\.\d{3}>)")))
        << stored;
}

TEST_F(Reg, PrioGetTakesTheFirstNonEmptyText) {
    const std::string first = std::string(kKey) + "\\First";
    const std::string second = std::string(kKey) + "\\Second";
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

TEST_F(Reg, DwordValues) {
    EXPECT_TRUE(REG::WriteLong(kKey, "Dword", -2));
    EXPECT_EQ(REG::GetLong(kKey, "Dword", 0), -2);
    EXPECT_EQ(typeOf(kKey, "Dword"), REG_DWORD);

    REG::Write(kKey, "Text", "12");
    EXPECT_EQ(REG::GetLong(kKey, "Text", 99), 99);
    EXPECT_EQ(typeOf(kKey, "Text"), REG_SZ);  // no repair
    EXPECT_EQ(REG::GetLong(kKey, "Text", 99, true), 99);
    EXPECT_EQ(typeOf(kKey, "Text"), REG_DWORD);  // repaired
    EXPECT_EQ(REG::GetLong(kKey, "Text", 0), 99);

    const std::string missingKey = std::string(kKey) + "\\NotThere";
    EXPECT_EQ(REG::GetLong(missingKey, "V", 4, true), 4);
    EXPECT_EQ(REG::GetLong(missingKey, "V", 0), 4);
    // A missing value in an existing key: the delete fails, so nothing is written.
    EXPECT_EQ(REG::GetLong(kKey, "Absent", 6, true), 6);
    EXPECT_EQ(typeOf(kKey, "Absent"), 0xFFFFFFFFu);
}

TEST_F(Reg, BinaryValuesAndTheirTraceMessages) {
    const unsigned char data[] = {0, 1, 2, 0xFF};
    EXPECT_TRUE(REG::Write(kKey, "Bytes", data, sizeof data));
    unsigned char read[8] = {};
    unsigned long size = sizeof read;
    EXPECT_EQ(REG::Get(kKey, "Bytes", read, &size), 1);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(std::memcmp(read, data, 4), 0);

    ILogging::getInstance().setLogLevel(ILogging::Trace);
    TesselTest::LogCapture logCapture1;
    size = sizeof read;
    EXPECT_EQ(REG::Get(kKey, "NoBytes", read, &size), 0);
    size = 2;
    EXPECT_EQ(REG::Get(kKey, "Bytes", read, &size), 0);
    const std::string log = logCapture1.text();
    EXPECT_NE(log.find("trace [REG::Get] REG::Get(BYTE),(" + std::string(kKey) +
                       ", NoBytes)failed: The system cannot find the file specified.\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find(", Bytes)failed: More data is available.\n"), std::string::npos) << log;

    ILogging::getInstance().setLogLevel(ILogging::Info);
    TesselTest::LogCapture logCapture2;
    size = sizeof read;
    EXPECT_EQ(REG::Get(kKey, "NoBytes", read, &size), 0);
    EXPECT_EQ(logCapture2.text(), "");
}

TEST_F(Reg, Listings) {
    const std::string base = "SOFTWARE\\Tarvo Works\\Listing";
    REG::CreateSubKey(base + "\\Beta");
    REG::CreateSubKey(base + "\\alpha");
    std::vector<std::string> names{"kept"};
    EXPECT_TRUE(REG::GetSubDir("Listing", names));
    EXPECT_EQ(names, (std::vector<std::string>{"kept", "alpha", "Beta"}));
    EXPECT_FALSE(REG::GetSubDir("NoSuchKey", names));

    // Each name is fetched with room for the length of its predecessor.
    const std::string falling = base + "\\Falling";
    for (const char* name : {"abcd", "abc", "ab"}) {
        REG::Write(falling, name, "x");
    }
    names.clear();
    EXPECT_TRUE(REG::GetKeyValues(falling, names));
    EXPECT_EQ(names, (std::vector<std::string>{"abcd", "abc", "ab"}));
    const std::string rising = base + "\\Rising";
    for (const char* name : {"ab", "abcd"}) {
        REG::Write(rising, name, "x");
    }
    names.clear();
    EXPECT_TRUE(REG::GetKeyValues(rising, names));
    EXPECT_EQ(names, std::vector<std::string>{"ab"});
    EXPECT_FALSE(REG::GetKeyValues(base + "\\Missing", names));
}

TEST_F(Reg, Deletions) {
    const std::string key = std::string(kKey) + "\\Del";
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
    std::vector<std::string> names;
    EXPECT_FALSE(REG::GetKeyValues(key, names));
    EXPECT_FALSE(REG::GetKeyValues(key + "\\A\\B\\C", names));
}

TEST_F(Reg, EventHelperReadsOnlyAfterAChange) {
    REG::CRegistryDWord record{false, 3, "SOFTWARE\\Tarvo Works\\GPS Velkor\\DebugService",
                               "Watched"};
    REG::CreateSubKey(record.m_strKey);  // a notification needs the key to exist
    REG::CRegistryKeyDWordEventHelper helper(record);
    unsigned long value = 3;
    // The first call reads; the value is missing, so the default stands.
    EXPECT_FALSE(helper.GetRegistryValue(value));
    EXPECT_EQ(value, 3u);

    ASSERT_EQ(TesselTest::RunProgram(
                  {TESSEL_REGISTRY_PEER, "set-dword", record.m_strKey, "Watched", "8"}),
              0);
    const auto start = std::chrono::steady_clock::now();
    bool changed = false;
    while (!changed && std::chrono::steady_clock::now() - start < std::chrono::seconds(5)) {
        changed = helper.GetRegistryValue(value);
        if (!changed) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    ASSERT_TRUE(changed);
    EXPECT_LT(took.count(), 100) << "noticed after " << took.count() << " ms";
    EXPECT_EQ(value, 8u);
    EXPECT_FALSE(helper.GetRegistryValue(value));  // only the first call after the change

    // A missing value with the create flag is written back.
    REG::CRegistryDWord created{true, 11, "SOFTWARE\\Tarvo Works\\GPS Velkor\\Created", "V"};
    REG::CRegistryKeyDWordEventHelper creator(created);
    unsigned long current = 0;
    EXPECT_TRUE(creator.GetRegistryValue(current));
    EXPECT_EQ(current, 11u);
    EXPECT_EQ(REG::GetLong("SOFTWARE\\Tarvo Works\\GPS Velkor\\Created", "V", 0), 11);

    // A copy takes over the watch.
    REG::CRegistryKeyDWordEventHelper moved(helper);
    REG::WriteLong(record.m_strKey, "Watched", 9);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!moved.GetRegistryValue(value) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    EXPECT_EQ(value, 9u);
    EXPECT_FALSE(helper.GetRegistryValue(value));  // the source has no event any more
}

}  // namespace
