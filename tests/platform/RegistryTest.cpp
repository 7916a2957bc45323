// The registry store against real SQLite databases in the test process's scratch folder, with
// second processes where the behaviour is about sharing.
#include "tessel/platform/Registry.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"

using namespace Tessel::Platform;

namespace {

// Creates (or opens) key below HKLM with full access.
HKEY create(const std::string& key) {
    HKEY handle = nullptr;
    EXPECT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                              nullptr, &handle, nullptr),
              ERROR_SUCCESS);
    return handle;
}

LSTATUS setText(HKEY key, const std::string& name, const std::string& text) {
    return RegSetValueExA(key, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                          static_cast<DWORD>(text.size() + 1));
}

LSTATUS setDword(HKEY key, const std::string& name, DWORD value) {
    return RegSetValueExA(key, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                          sizeof value);
}

std::string text(HKEY key, const char* name) {
    char buffer[512] = {};
    DWORD size = sizeof buffer;
    return RegQueryValueExA(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer), &size) ==
                   ERROR_SUCCESS
               ? buffer
               : "<missing>";
}

// The names that enumerate(index, name, length) gives, up to its first failure.
template <typename Enumerate>
std::vector<std::string> namesOf(Enumerate enumerate) {
    std::vector<std::string> names;
    char name[256];
    for (DWORD i = 0, length = sizeof name; enumerate(i, name, &length) == ERROR_SUCCESS;
         ++i, length = sizeof name) {
        names.emplace_back(name);
    }
    return names;
}

std::vector<std::string> valueNames(HKEY key) {
    return namesOf([key](DWORD i, char* name, DWORD* length) {
        return RegEnumValueA(key, i, name, length, nullptr, nullptr, nullptr, nullptr);
    });
}

std::vector<std::string> subKeyNames(HKEY key) {
    return namesOf([key](DWORD i, char* name, DWORD* length) {
        return RegEnumKeyExA(key, i, name, length, nullptr, nullptr, nullptr, nullptr);
    });
}

TEST(Registry, KeysAreCreatedWithTheirPathAndOpenedWithoutRegardToCase) {
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Keys\\A", 0, KEY_READ, &key),
              ERROR_FILE_NOT_FOUND);
    for (const char* path : {"SOFTWARE\\Keys\\A\\Deep", "software\\KEYS\\a\\deep"}) {
        DWORD disposition = 0;
        ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                  &key, &disposition),
                  ERROR_SUCCESS);
        EXPECT_EQ(disposition, path[0] == 'S' ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY);
        RegCloseKey(key);
    }
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\keys", 0, KEY_READ, &key),
              ERROR_SUCCESS);
    EXPECT_EQ(subKeyNames(key), std::vector<std::string>{"A"});  // the case of creation
    HKEY relative = nullptr;
    EXPECT_EQ(RegOpenKeyExA(key, "a\\DEEP", 0, KEY_READ, &relative), ERROR_SUCCESS);
    RegCloseKey(relative);
    RegCloseKey(key);
    EXPECT_EQ(RegCloseKey(key), ERROR_INVALID_HANDLE);  // closed twice
}

TEST(Registry, ValuesKeepCreationOrderAndSubKeysSortByName) {
    HKEY key = create("SOFTWARE\\Order");
    for (const char* name : {"zeta", "Alpha", "mid"}) {
        ASSERT_EQ(setText(key, name, name), ERROR_SUCCESS);
    }
    ASSERT_EQ(setText(key, "ALPHA", "replaced"), ERROR_SUCCESS);  // same value, same place
    EXPECT_EQ(valueNames(key), (std::vector<std::string>{"zeta", "Alpha", "mid"}));
    EXPECT_EQ(text(key, "alpha"), "replaced");
    for (const char* sub : {"b", "C", "a"}) {
        RegCloseKey(create(std::string("SOFTWARE\\Order\\") + sub));
    }
    EXPECT_EQ(subKeyNames(key), (std::vector<std::string>{"a", "b", "C"}));
    // An enumeration needs room for the name and its terminator.
    char name[8];
    DWORD length = 4;
    EXPECT_EQ(RegEnumValueA(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr),
              ERROR_MORE_DATA);
    length = 5;
    EXPECT_EQ(RegEnumValueA(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(RegEnumValueA(key, 3, name, &length, nullptr, nullptr, nullptr, nullptr),
              ERROR_NO_MORE_ITEMS);
    RegCloseKey(key);
}

TEST(Registry, QueryReportsSizesTypesAndMisses) {
    HKEY key = create("SOFTWARE\\Query");
    ASSERT_EQ(setText(key, "Text", "hello"), ERROR_SUCCESS);
    ASSERT_EQ(setDword(key, "Number", 42), ERROR_SUCCESS);
    ASSERT_EQ(setText(key, "", "d"), ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExA(key, "Raw", 0, REG_SZ, reinterpret_cast<const BYTE*>("abc"), 3),
              ERROR_SUCCESS);

    DWORD type = 0, size = 0;
    EXPECT_EQ(RegQueryValueExA(key, "Text", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(size, 6u);
    BYTE small[3];
    size = sizeof small;
    EXPECT_EQ(RegQueryValueExA(key, "Text", nullptr, &type, small, &size), ERROR_MORE_DATA);
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(RegQueryValueExA(key, "Nothing", nullptr, &type, small, &size), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(text(key, nullptr), "d");  // the default value

    DWORD number = 0;
    size = sizeof number;
    EXPECT_EQ(RegGetValueA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Query", "Number", RRF_RT_DWORD, &type,
                           &number, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(number, 42u);
    EXPECT_EQ(RegGetValueA(key, nullptr, "Text", RRF_RT_DWORD, &type, &number, &size),
              ERROR_UNSUPPORTED_TYPE);
    // Text stored without its terminator comes back terminated.
    char buffer[8];
    size = sizeof buffer;
    EXPECT_EQ(RegGetValueA(key, nullptr, "Raw", RRF_RT_REG_SZ, nullptr, buffer, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(size, 4u);
    EXPECT_STREQ(buffer, "abc");
    RegCloseKey(key);
}

TEST(Registry, AccessRightsAndDeletionRules) {
    HKEY parent = create("SOFTWARE\\Delete");
    HKEY readOnly = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Delete", 0, KEY_READ, &readOnly),
              ERROR_SUCCESS);
    EXPECT_EQ(setText(readOnly, "x", "y"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteValueA(readOnly, "x"), ERROR_ACCESS_DENIED);
    RegCloseKey(readOnly);

    RegCloseKey(create("SOFTWARE\\Delete\\Child\\Grandchild"));
    EXPECT_EQ(RegDeleteKeyA(parent, "Child"), ERROR_ACCESS_DENIED);  // has a sub-key
    EXPECT_EQ(RegDeleteKeyA(parent, "Missing"), ERROR_FILE_NOT_FOUND);
    HKEY grandchild = nullptr;
    ASSERT_EQ(RegOpenKeyExA(parent, "Child\\Grandchild", 0, KEY_ALL_ACCESS, &grandchild),
              ERROR_SUCCESS);
    ASSERT_EQ(setText(grandchild, "v", "1"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteKeyExA(parent, "child\\grandchild", KEY_WOW64_32KEY, 0), ERROR_SUCCESS);
    // The handle outlives its key.
    EXPECT_EQ(setText(grandchild, "v", "2"), ERROR_KEY_DELETED);
    EXPECT_EQ(text(grandchild, "v"), "<missing>");
    RegCloseKey(grandchild);
    EXPECT_EQ(RegDeleteKeyA(parent, "Child"), ERROR_SUCCESS);
    EXPECT_TRUE(subKeyNames(parent).empty());

    ASSERT_EQ(setText(parent, "gone", "1"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteValueA(parent, "GONE"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteValueA(parent, "gone"), ERROR_FILE_NOT_FOUND);
    RegCloseKey(parent);
}

// Counts the descriptors of this process that are open on path.
int descriptorsOn(const std::string& path) {
    int count = 0;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += std::filesystem::read_symlink(fd.path(), gone) == path ? 1 : 0;
    }
    return count;
}

TEST(Registry, OneConnectionPerHiveWhateverKeysAreOpened) {
    RegCloseKey(create("SOFTWARE\\Connection"));
    const std::string file = RegistryHiveFile(HKEY_LOCAL_MACHINE);
    EXPECT_EQ(descriptorsOn(file), 1);
    for (int i = 0; i < 100; ++i) {
        HKEY key = nullptr;
        ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Connection", 0, KEY_READ, &key),
                  ERROR_SUCCESS);
        RegCloseKey(key);
    }
    EXPECT_EQ(descriptorsOn(file), 1);
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
    ASSERT_EQ(TesselTest::Run({TESSEL_REGISTRY_PEER, "set-dword", "SOFTWARE\\Notify", "Other", "7"})
                  .status,
              0);
    EXPECT_EQ(WaitForSingleObject(event, 5000), WAIT_OBJECT_0);
    // One notification fires once: a second change goes unnoticed until it is armed again.
    ASSERT_EQ(setDword(key, "Own", 1), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 200), WAIT_TIMEOUT);

    // A sub-key created below the key is a name change, not a value change.
    ASSERT_TRUE(notify(FALSE, REG_NOTIFY_CHANGE_NAME));
    ASSERT_EQ(setDword(key, "Own", 2), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 200), WAIT_TIMEOUT);
    RegCloseKey(create("SOFTWARE\\Notify\\Sub"));
    EXPECT_EQ(WaitForSingleObject(event, 5000), WAIT_OBJECT_0);

    // A value changed deep below, for a notification on the whole sub-tree.
    ASSERT_TRUE(notify(TRUE, REG_NOTIFY_CHANGE_LAST_SET));
    HKEY sub = create("SOFTWARE\\Notify\\Sub");
    ASSERT_EQ(setDword(sub, "Deep", 3), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 5000), WAIT_OBJECT_0);
    RegCloseKey(sub);

    // Closing the handle fires its pending notification.
    ASSERT_TRUE(notify(FALSE, REG_NOTIFY_CHANGE_LAST_SET));
    RegCloseKey(key);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    CloseHandle(event);
}

TEST(Registry, DatabaseOfRandomBytesFailsWithOneLogLine) {
    const std::string file = RegistryHiveFile(HKEY_LOCAL_MACHINE);
    {
        std::ofstream garbage(file, std::ios::binary);
        std::mt19937 random(7);
        for (int i = 0; i < 8192; ++i) {
            garbage.put(static_cast<char>(random()));
        }
    }
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE", 0, KEY_READ, &key), ERROR_BADDB);
    EXPECT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\X", 0, nullptr, 0, KEY_ALL_ACCESS,
                              nullptr, &key, nullptr),
              ERROR_BADDB);
    EXPECT_EQ(setText(HKEY_LOCAL_MACHINE, "v", "x"), ERROR_BADDB);
    // The first failure comes while the log itself is built (it reads its folder from the
    // registry); its line is written once the log stands.
    const std::string log = TesselTest::LogCapture::all();
    EXPECT_NE(log.find("Registry database " + file + " is not usable"), std::string::npos) << log;
    EXPECT_EQ(log.find("not usable"), log.rfind("not usable")) << "one line only:\n" << log;
}

TEST(Registry, ReadOnlyFolderReadsButRefusesWrites) {
    // Everything happens in children, so that this process holds no connection that would
    // keep the database's shared-memory index alive; they end through exit, which closes it.
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
                  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\ReadOnly", 0,
                                    KEY_READ | KEY_SET_VALUE, &key) != ERROR_SUCCESS ||
                      text(key, "Kept") != "yes") {
                      return 11;
                  }
                  if (setText(key, "New", "no") != ERROR_ACCESS_DENIED) {
                      return 12;
                  }
                  HKEY created = nullptr;
                  return RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Fresh", 0, nullptr, 0,
                                         KEY_ALL_ACCESS, nullptr, &created,
                                         nullptr) == ERROR_ACCESS_DENIED
                             ? 0
                             : 13;
              }),
              0);
    ::chmod(dir.c_str(), 0755);
}

// --- several processes at once, and a writer that is killed ---

const char* const kShared = "SOFTWARE\\Reliability";

std::string valueName(int writer, int index) {
    return "w" + std::to_string(writer) + "_" + std::to_string(index);
}

TEST(RegistryReliability, TwoProcessesWritingAtOnceLoseNothing) {
    RegCloseKey(create(kShared));
    std::vector<pid_t> writers;
    for (int writer : {1, 2}) {
        writers.push_back(::fork());
        if (writers.back() == 0) {  // writes 1,000 distinct values and counts its failures
            HKEY key = create(kShared);
            int failures = 0;
            for (int i = 0; i < 1000; ++i) {
                failures += setDword(key, valueName(writer, i), static_cast<DWORD>(i)) != 0;
            }
            RegCloseKey(key);
            std::exit(failures > 0 ? 1 : 0);
        }
    }
    for (pid_t pid : writers) {
        EXPECT_EQ(TesselTest::WaitForChild(pid, std::chrono::seconds(60)), 0) << "failed writes";
    }
    HKEY key = create(kShared);
    DWORD values = 0;
    ASSERT_EQ(RegQueryInfoKeyA(key, nullptr, nullptr, &values, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(values, 2000u);
    for (int writer : {1, 2}) {
        for (int i = 0; i < 1000; ++i) {
            DWORD value = 0, size = sizeof value;
            ASSERT_EQ(RegQueryValueExA(key, valueName(writer, i).c_str(), nullptr, nullptr,
                                       reinterpret_cast<BYTE*>(&value), &size),
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
    std::mt19937 random(11);
    std::uniform_int_distribution<int> delayMs(5, 60);
    for (int round = 0; round < 20; ++round) {
        // The writer writes values 0, 1, 2, ... and reports each index once its write returned.
        int report[2];
        ASSERT_EQ(::pipe(report), 0);
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(report[0]);
            HKEY key = create(kShared);
            for (int i = 0;; ++i) {
                const std::string value(100 + (i % 50), static_cast<char>('a' + i % 26));
                if (setText(key, valueName(round, i), value) != ERROR_SUCCESS ||
                    ::write(report[1], &i, sizeof i) != sizeof i) {
                    ::_exit(1);
                }
            }
        }
        ::close(report[1]);
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs(random)));  // a random point
        ::kill(pid, SIGKILL);
        ASSERT_EQ(TesselTest::WaitForChild(pid, std::chrono::seconds(10)), 128 + SIGKILL)
            << "the writer stopped by itself in round " << round;
        int acknowledged = -1;
        for (int index; ::read(report[0], &index, sizeof index) == sizeof index;) {
            acknowledged = index;
        }
        ::close(report[0]);

        EXPECT_EQ(integrityCheck(RegistryHiveFile(HKEY_LOCAL_MACHINE)), "ok") << round;
        HKEY key = create(kShared);
        for (int i = 0; i <= acknowledged; ++i) {
            DWORD size = 0;
            ASSERT_EQ(RegQueryValueExA(key, valueName(round, i).c_str(), nullptr, nullptr, nullptr,
                                       &size),
                      ERROR_SUCCESS)
                << "round " << round << ", value " << i << " of " << acknowledged;
            EXPECT_EQ(size, 101u + i % 50);
        }
        RegCloseKey(key);
    }
}

}  // namespace
