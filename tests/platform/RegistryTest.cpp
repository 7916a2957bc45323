// The registry store against real SQLite databases in the test process's scratch folder, with
// second processes where the behaviour is about sharing.
#include "tessel/platform/Registry.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"

using namespace Tessel::Platform;

namespace {

LSTATUS open(HKEY parent, const char* path, HKEY* key, REGSAM access = KEY_READ) {
    return RegOpenKeyExA(parent, path, 0, access, key);
}

LSTATUS create(const char* path, HKEY* key, DWORD* disposition = nullptr) {
    return RegCreateKeyExA(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key,
                           disposition);
}

// Creates (or opens) path below HKLM with full access.
HKEY create(const char* path) {
    HKEY key = nullptr;
    EXPECT_EQ(create(path, &key), ERROR_SUCCESS) << path;
    return key;
}

// Writes text as REG_SZ, with its terminator unless size says otherwise.
LSTATUS setText(HKEY key, const std::string& name, const std::string& text, DWORD size = 0) {
    return RegSetValueExA(key, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                          size != 0 ? size : static_cast<DWORD>(text.size() + 1));
}

LSTATUS setDword(HKEY key, const std::string& name, DWORD value) {
    return RegSetValueExA(key, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                          sizeof value);
}

// Value name of key, read into a buffer of size bytes, with its type and size.
LSTATUS query(HKEY key, const char* name, DWORD* type, void* data, DWORD* size) {
    return RegQueryValueExA(key, name, nullptr, type, static_cast<BYTE*>(data), size);
}

std::string text(HKEY key, const char* name) {
    char buffer[512] = {};
    DWORD size = sizeof buffer;
    return query(key, name, nullptr, buffer, &size) == ERROR_SUCCESS ? buffer : "<missing>";
}

LSTATUS valueName(HKEY key, DWORD index, char* name, DWORD* length) {
    return RegEnumValueA(key, index, name, length, nullptr, nullptr, nullptr, nullptr);
}

LSTATUS subKeyName(HKEY key, DWORD index, char* name, DWORD* length) {
    return RegEnumKeyExA(key, index, name, length, nullptr, nullptr, nullptr, nullptr);
}

// The names that enumerate gives for key, in its order.
std::vector<std::string> namesOf(HKEY key, LSTATUS (*enumerate)(HKEY, DWORD, char*, DWORD*)) {
    std::vector<std::string> names;
    char name[256];
    for (DWORD i = 0, length = sizeof name; enumerate(key, i, name, &length) == ERROR_SUCCESS;
         ++i, length = sizeof name) {
        names.emplace_back(name);
    }
    return names;
}

using Names = std::vector<std::string>;

TEST(Registry, KeysAndValuesAreFoundWithoutRegardToCaseInTheirOrdersOverOneConnection) {
    HKEY key = nullptr;
    EXPECT_EQ(open(HKEY_LOCAL_MACHINE, "SOFTWARE\\Keys\\A", &key), ERROR_FILE_NOT_FOUND);
    DWORD disposition = 0;
    ASSERT_EQ(create("SOFTWARE\\Keys\\A\\Deep", &key, &disposition), ERROR_SUCCESS);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    RegCloseKey(key);
    ASSERT_EQ(create("software\\KEYS\\a\\deep", &key, &disposition), ERROR_SUCCESS);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    RegCloseKey(key);

    ASSERT_EQ(open(HKEY_LOCAL_MACHINE, "Software\\keys", &key), ERROR_SUCCESS);
    EXPECT_EQ(namesOf(key, &subKeyName), Names{"A"});  // the case of creation
    HKEY relative = nullptr;
    EXPECT_EQ(open(key, "a\\DEEP", &relative), ERROR_SUCCESS);
    RegCloseKey(relative);
    RegCloseKey(key);
    EXPECT_EQ(RegCloseKey(key), ERROR_INVALID_HANDLE);  // closed twice

    // Values keep the order of their creation, sub-keys sort by name.
    key = create("SOFTWARE\\Order");
    for (const char* name : {"zeta", "Alpha", "mid"}) {
        ASSERT_EQ(setText(key, name, name), ERROR_SUCCESS);
    }
    ASSERT_EQ(setText(key, "ALPHA", "replaced"), ERROR_SUCCESS);  // same value, same place
    EXPECT_EQ(namesOf(key, &valueName), (Names{"zeta", "Alpha", "mid"}));
    EXPECT_EQ(text(key, "alpha"), "replaced");
    for (const char* sub : {"SOFTWARE\\Order\\b", "SOFTWARE\\Order\\C", "SOFTWARE\\Order\\a"}) {
        RegCloseKey(create(sub));
    }
    EXPECT_EQ(namesOf(key, &subKeyName), (Names{"a", "b", "C"}));
    // An enumeration needs room for the name and its terminator.
    char name[8];
    DWORD length = 4;
    EXPECT_EQ(valueName(key, 0, name, &length), ERROR_MORE_DATA);
    length = 5;
    EXPECT_EQ(valueName(key, 0, name, &length), ERROR_SUCCESS);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(valueName(key, 3, name, &length), ERROR_NO_MORE_ITEMS);
    RegCloseKey(key);
    const std::string hive = RegistryHiveFile(HKEY_LOCAL_MACHINE);
    EXPECT_EQ(std::ranges::count(PlatformTest::descriptorTargets(), hive), 1)
        << "one connection, however many keys were opened";
}

TEST(Registry, ValuesAreQueriedWithSizesAndTypesAndWrittenOrDeletedByTheRules) {
    HKEY key = create("SOFTWARE\\Query");
    ASSERT_EQ(setText(key, "Text", "hello"), ERROR_SUCCESS);
    ASSERT_EQ(setDword(key, "Number", 42), ERROR_SUCCESS);
    ASSERT_EQ(setText(key, "", "d"), ERROR_SUCCESS);
    ASSERT_EQ(setText(key, "Raw", "abc", 3), ERROR_SUCCESS);  // without its terminator

    DWORD type = 0, size = 0;
    EXPECT_EQ(query(key, "Text", &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(size, 6u);
    char small[3];
    size = sizeof small;
    EXPECT_EQ(query(key, "Text", &type, small, &size), ERROR_MORE_DATA);
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(query(key, "Nothing", &type, small, &size), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(text(key, nullptr), "d");  // the default value

    DWORD number = 0;
    size = sizeof number;
    EXPECT_EQ(RegGetValueA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Query", "Number", RRF_RT_DWORD, &type,
                           &number, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(number, 42u);
    EXPECT_EQ(RegGetValueA(key, nullptr, "Text", RRF_RT_DWORD, &type, &number, &size),
              ERROR_UNSUPPORTED_TYPE);
    char buffer[8];
    size = sizeof buffer;
    EXPECT_EQ(RegGetValueA(key, nullptr, "Raw", RRF_RT_REG_SZ, nullptr, buffer, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(size, 4u);
    EXPECT_STREQ(buffer, "abc");  // terminated

    // Access rights, and the rules of deletion.
    HKEY readOnly = nullptr;
    ASSERT_EQ(open(HKEY_LOCAL_MACHINE, "SOFTWARE\\Query", &readOnly), ERROR_SUCCESS);
    EXPECT_EQ(setText(readOnly, "x", "y"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteValueA(readOnly, "x"), ERROR_ACCESS_DENIED);
    RegCloseKey(readOnly);

    RegCloseKey(create("SOFTWARE\\Query\\Child\\Grandchild"));
    EXPECT_EQ(RegDeleteKeyA(key, "Child"), ERROR_ACCESS_DENIED);  // has a sub-key
    EXPECT_EQ(RegDeleteKeyA(key, "Missing"), ERROR_FILE_NOT_FOUND);
    HKEY grandchild = nullptr;
    ASSERT_EQ(open(key, "Child\\Grandchild", &grandchild, KEY_ALL_ACCESS), ERROR_SUCCESS);
    ASSERT_EQ(setText(grandchild, "v", "1"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteKeyExA(key, "child\\grandchild", KEY_WOW64_32KEY, 0), ERROR_SUCCESS);
    // The handle outlives its key.
    EXPECT_EQ(setText(grandchild, "v", "2"), ERROR_KEY_DELETED);
    EXPECT_EQ(text(grandchild, "v"), "<missing>");
    RegCloseKey(grandchild);
    EXPECT_EQ(RegDeleteKeyA(key, "Child"), ERROR_SUCCESS);
    EXPECT_TRUE(namesOf(key, &subKeyName).empty());

    ASSERT_EQ(setText(key, "gone", "1"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteValueA(key, "GONE"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteValueA(key, "gone"), ERROR_FILE_NOT_FOUND);
    RegCloseKey(key);
}

TEST(Registry, ChangeNotificationsFireOnceForChangesOfAnyProcess) {
    HKEY key = create("SOFTWARE\\Notify");
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    auto notify = [&](BOOL subtree, DWORD filter) {
        return RegNotifyChangeKeyValue(key, subtree, filter, event, TRUE) == ERROR_SUCCESS;
    };
    // A change by another process.
    ASSERT_TRUE(notify(FALSE, REG_NOTIFY_CHANGE_LAST_SET));
    EXPECT_EQ(WaitForSingleObject(event, 50), WAIT_TIMEOUT);  // nothing changed yet
    const std::vector<std::string> peer{TESSEL_REGISTRY_PEER, "set-dword", "SOFTWARE\\Notify",
                                        "Other", "7"};
    ASSERT_EQ(TesselTest::Run(peer).status, 0);
    EXPECT_EQ(WaitForSingleObject(event, 5000), WAIT_OBJECT_0);
    // One notification fires once: a second change goes unnoticed until it is armed again.
    ASSERT_EQ(setDword(key, "Own", 1), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 200), WAIT_TIMEOUT);

    // A sub-key created below the key is a name change, not a value change.
    ASSERT_TRUE(notify(FALSE, REG_NOTIFY_CHANGE_NAME));
    ASSERT_EQ(setDword(key, "Own", 2), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 200), WAIT_TIMEOUT);
    HKEY sub = create("SOFTWARE\\Notify\\Sub");
    EXPECT_EQ(WaitForSingleObject(event, 5000), WAIT_OBJECT_0);
    // A value changed deep below, for a notification on the whole sub-tree.
    ASSERT_TRUE(notify(TRUE, REG_NOTIFY_CHANGE_LAST_SET));
    ASSERT_EQ(setDword(sub, "Deep", 3), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 5000), WAIT_OBJECT_0);
    RegCloseKey(sub);
    // Closing the handle fires its pending notification.
    ASSERT_TRUE(notify(FALSE, REG_NOTIFY_CHANGE_LAST_SET));
    RegCloseKey(key);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    CloseHandle(event);
}

TEST(Registry, DatabaseThatIsNoneFailsWithOneLogLine) {
    const std::string file = RegistryHiveFile(HKEY_LOCAL_MACHINE);
    std::ofstream(file, std::ios::binary) << std::string(8192, '\x5A');
    HKEY key = nullptr;
    EXPECT_EQ(open(HKEY_LOCAL_MACHINE, "SOFTWARE", &key), ERROR_BADDB);
    EXPECT_EQ(create("SOFTWARE\\X", &key), ERROR_BADDB);
    EXPECT_EQ(setText(HKEY_LOCAL_MACHINE, "v", "x"), ERROR_BADDB);
    // The first failure comes while the log is built; its line is written once the log stands.
    const std::string log = TesselTest::LogCapture::all();
    EXPECT_NE(log.find("Registry database " + file + " is not usable"), std::string::npos) << log;
    EXPECT_EQ(log.find("not usable"), log.rfind("not usable")) << "one line only:\n" << log;
}

TEST(Registry, ReadOnlyFolderReadsButRefusesWrites) {
    // All in children (ending through exit), so no connection here keeps the shared index alive.
    ASSERT_EQ(TesselTest::RunInChild(
                  []() -> int { std::exit(setText(create("SOFTWARE\\ReadOnly"), "Kept", "yes")); }),
              0);
    const std::string dir = RegistryDirectory();
    ASSERT_EQ(::chmod(dir.substr(0, dir.rfind('/')).c_str(), 0755), 0);  // others pass through
    ASSERT_EQ(::chmod(dir.c_str(), 0555), 0);
    ASSERT_EQ(::chmod(RegistryHiveFile(HKEY_LOCAL_MACHINE).c_str(), 0444), 0);
    // Reads and writes as a user who may not write the registry folder.
    EXPECT_EQ(TesselTest::RunInChild([] {
                  if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
                      return 10;
                  }
                  HKEY key = nullptr;
                  HKEY created = nullptr;
                  return open(HKEY_LOCAL_MACHINE, "SOFTWARE\\ReadOnly", &key,
                              KEY_READ | KEY_SET_VALUE) != ERROR_SUCCESS
                             ? 11
                         : text(key, "Kept") != "yes"                                 ? 12
                         : setText(key, "New", "no") != ERROR_ACCESS_DENIED           ? 13
                         : create("SOFTWARE\\Fresh", &created) != ERROR_ACCESS_DENIED ? 14
                                                                                      : 0;
              }),
              0);
    ::chmod(dir.c_str(), 0755);
}

const char* const kShared = "SOFTWARE\\Reliability";

std::string valueName(int writer, int index) {
    return std::to_string(writer) + "_" + std::to_string(index);
}

TEST(RegistryReliability, TwoProcessesWritingAtOnceLoseNothing) {
    // Each writes 1,000 distinct values and counts its failures.
    auto writeAll = [](int writer) {
        HKEY key = create(kShared);
        int failures = 0;
        for (int i = 0; i < 1000; ++i) {
            failures += setDword(key, valueName(writer, i), static_cast<DWORD>(i)) != 0;
        }
        RegCloseKey(key);
        return failures;
    };
    RegCloseKey(create(kShared));
    const pid_t child = ::fork();
    if (child == 0) {
        std::exit(writeAll(2) != 0 ? 1 : 0);
    }
    EXPECT_EQ(writeAll(1), 0);
    EXPECT_EQ(TesselTest::WaitForChild(child, std::chrono::seconds(60)), 0) << "failed writes";
    HKEY key = create(kShared);
    DWORD values = 0;
    ASSERT_EQ(RegQueryInfoKeyA(key, nullptr, nullptr, &values, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(values, 2000u);
    for (int writer : {1, 2}) {
        for (int i = 0; i < 1000; ++i) {
            DWORD value = 0, size = sizeof value;
            ASSERT_EQ(query(key, valueName(writer, i).c_str(), nullptr, &value, &size),
                      ERROR_SUCCESS);
            EXPECT_EQ(value, static_cast<DWORD>(i));
        }
    }
    RegCloseKey(key);
}

std::string integrityCheck(const std::string& file) {
    sqlite3* db = nullptr;
    sqlite3_stmt* statement = nullptr;
    std::string result = "cannot check";
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        result = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return result;
}

TEST(RegistryReliability, WriterKilledTwentyTimesLosesNoReturnedWrite) {
    RegCloseKey(create(kShared));
    // Shared with the writer: the index of its last write that returned.
    int* shared = static_cast<int*>(
        ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    std::atomic_ref<int> acknowledged(*shared);
    std::mt19937 random(11);
    std::uniform_int_distribution<int> delayMs(5, 60);
    for (int round = 0; round < 20; ++round) {
        acknowledged = -1;
        const pid_t pid = ::fork();
        if (pid == 0) {  // writes values 0, 1, 2, ... until it is killed
            HKEY key = create(kShared);
            for (int i = 0;; ++i) {
                const std::string value(100 + (i % 50), static_cast<char>('a' + i % 26));
                if (setText(key, valueName(round, i), value) != ERROR_SUCCESS) {
                    ::_exit(1);
                }
                acknowledged = i;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs(random)));  // a random point
        ::kill(pid, SIGKILL);
        ASSERT_EQ(TesselTest::WaitForChild(pid, std::chrono::seconds(10)), 128 + SIGKILL)
            << "the writer stopped by itself in round " << round;

        EXPECT_EQ(integrityCheck(RegistryHiveFile(HKEY_LOCAL_MACHINE)), "ok") << round;
        HKEY key = create(kShared);
        for (int i = 0; i <= acknowledged; ++i) {
            DWORD size = 0;
            ASSERT_EQ(query(key, valueName(round, i).c_str(), nullptr, nullptr, &size),
                      ERROR_SUCCESS)
                << "round " << round << ", value " << i;
            EXPECT_EQ(size, 101u + i % 50);
        }
        RegCloseKey(key);
    }
    ::munmap(shared, sizeof(int));
}

}  // namespace
