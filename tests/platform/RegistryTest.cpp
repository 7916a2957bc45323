// The registry store against real SQLite databases in a scratch folder, with second
// processes where the behaviour is about sharing.
#include "tessel/platform/Registry.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/ScratchRegistry.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"

using namespace Tessel::Platform;

namespace {

class Registry : public testing::Test {
  protected:
    void SetUp() override { TesselTest::UseScratchRegistry(); }

    // Creates (or opens) key below HKLM with full access.
    static HKEY create(const std::string& key) {
        HKEY handle = nullptr;
        EXPECT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                  nullptr, &handle, nullptr),
                  ERROR_SUCCESS);
        return handle;
    }

    static LSTATUS setText(HKEY key, const char* name, const std::string& text) {
        return RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                              static_cast<DWORD>(text.size() + 1));
    }

    static LSTATUS setDword(HKEY key, const char* name, DWORD value) {
        return RegSetValueExA(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                              sizeof value);
    }

    static std::string text(HKEY key, const char* name) {
        char buffer[512] = {};
        DWORD size = sizeof buffer;
        DWORD type = 0;
        if (RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size) !=
            ERROR_SUCCESS) {
            return "<missing>";
        }
        return buffer;
    }

    static std::vector<std::string> valueNames(HKEY key) {
        std::vector<std::string> names;
        for (DWORD i = 0;; ++i) {
            char name[256];
            DWORD length = sizeof name;
            if (RegEnumValueA(key, i, name, &length, nullptr, nullptr, nullptr, nullptr) !=
                ERROR_SUCCESS) {
                return names;
            }
            names.emplace_back(name);
        }
    }

    static std::vector<std::string> subKeyNames(HKEY key) {
        std::vector<std::string> names;
        for (DWORD i = 0;; ++i) {
            char name[256];
            DWORD length = sizeof name;
            if (RegEnumKeyExA(key, i, name, &length, nullptr, nullptr, nullptr, nullptr) !=
                ERROR_SUCCESS) {
                return names;
            }
            names.emplace_back(name);
        }
    }
};

TEST_F(Registry, KeysAreCreatedWithTheirPathAndOpenedWithoutRegardToCase) {
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Keys\\A", 0, KEY_READ, &key),
              ERROR_FILE_NOT_FOUND);
    DWORD disposition = 0;
    ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Keys\\A\\Deep", 0, nullptr, 0,
                              KEY_ALL_ACCESS, nullptr, &key, &disposition),
              ERROR_SUCCESS);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    RegCloseKey(key);
    ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "software\\KEYS\\a\\deep", 0, nullptr, 0,
                              KEY_ALL_ACCESS, nullptr, &key, &disposition),
              ERROR_SUCCESS);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    RegCloseKey(key);

    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\keys", 0, KEY_READ, &key),
              ERROR_SUCCESS);
    EXPECT_EQ(subKeyNames(key), std::vector<std::string>{"A"});  // the case of creation
    HKEY relative = nullptr;
    EXPECT_EQ(RegOpenKeyExA(key, "a\\DEEP", 0, KEY_READ, &relative), ERROR_SUCCESS);
    RegCloseKey(relative);
    RegCloseKey(key);
    EXPECT_EQ(RegCloseKey(key), ERROR_INVALID_HANDLE);  // closed twice
}

TEST_F(Registry, ValuesKeepCreationOrderAndSubKeysSortByName) {
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
    RegCloseKey(key);
}

TEST_F(Registry, QueryReportsSizesTypesAndMisses) {
    HKEY key = create("SOFTWARE\\Query");
    ASSERT_EQ(setText(key, "Text", "hello"), ERROR_SUCCESS);
    ASSERT_EQ(setDword(key, "Number", 42), ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExA(key, "", 0, REG_SZ, reinterpret_cast<const BYTE*>("d"), 2),
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
    RegCloseKey(key);
}

TEST_F(Registry, GetValueTerminatesText) {
    HKEY key = create("SOFTWARE\\Terminate");
    ASSERT_EQ(RegSetValueExA(key, "Raw", 0, REG_SZ, reinterpret_cast<const BYTE*>("abc"), 3),
              ERROR_SUCCESS);
    char buffer[8];
    DWORD size = sizeof buffer;
    EXPECT_EQ(RegGetValueA(key, nullptr, "Raw", RRF_RT_REG_SZ, nullptr, buffer, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(size, 4u);
    EXPECT_STREQ(buffer, "abc");
    RegCloseKey(key);
}

TEST_F(Registry, AccessRightsOfTheHandleApply) {
    RegCloseKey(create("SOFTWARE\\Access"));
    HKEY readOnly = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Access", 0, KEY_READ, &readOnly),
              ERROR_SUCCESS);
    EXPECT_EQ(setText(readOnly, "x", "y"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteValueA(readOnly, "x"), ERROR_ACCESS_DENIED);
    RegCloseKey(readOnly);
}

TEST_F(Registry, DeletionRules) {
    HKEY parent = create("SOFTWARE\\Delete");
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

TEST_F(Registry, EnumerationNeedsRoomForTheName) {
    HKEY key = create("SOFTWARE\\Room");
    ASSERT_EQ(setText(key, "abcd", "x"), ERROR_SUCCESS);
    char name[8];
    DWORD length = 4;  // no room for the terminator
    EXPECT_EQ(RegEnumValueA(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr),
              ERROR_MORE_DATA);
    length = 5;
    EXPECT_EQ(RegEnumValueA(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(RegEnumValueA(key, 1, name, &length, nullptr, nullptr, nullptr, nullptr),
              ERROR_NO_MORE_ITEMS);
    RegCloseKey(key);
}

// Counts the descriptors of this process that are open on path.
int descriptorsOn(const std::string& path) {
    int count = 0;
    DIR* fds = ::opendir("/proc/self/fd");
    while (dirent* entry = ::readdir(fds)) {
        char target[PATH_MAX] = {};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (::readlink(link.c_str(), target, sizeof target - 1) > 0 && path == target) {
            ++count;
        }
    }
    ::closedir(fds);
    return count;
}

TEST_F(Registry, OneConnectionPerHiveWhateverKeysAreOpened) {
    RegCloseKey(create("SOFTWARE\\Connection"));
    const std::string file = RegistryHiveFile(HKEY_LOCAL_MACHINE);
    const int before = descriptorsOn(file);
    EXPECT_EQ(before, 1);
    for (int i = 0; i < 100; ++i) {
        HKEY key = nullptr;
        ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Connection", 0, KEY_READ, &key),
                  ERROR_SUCCESS);
        RegCloseKey(key);
    }
    EXPECT_EQ(descriptorsOn(file), before);
}

// Waits up to deadlineMs for event; the time it took, or -1.
long waitMs(HANDLE event, DWORD deadlineMs) {
    const auto start = std::chrono::steady_clock::now();
    if (WaitForSingleObject(event, deadlineMs) != WAIT_OBJECT_0) {
        return -1;
    }
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - start)
                                 .count());
}

TEST_F(Registry, ChangeNotificationsFireOnceForChangesOfAnyProcess) {
    HKEY key = create("SOFTWARE\\Notify");
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);

    // A change by another process.
    ASSERT_EQ(RegNotifyChangeKeyValue(key, FALSE, REG_NOTIFY_CHANGE_LAST_SET, event, TRUE),
              ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 50), WAIT_TIMEOUT);  // nothing changed yet
    ASSERT_EQ(TesselTest::RunProgram(
                  {TESSEL_REGISTRY_PEER, "set-dword", "SOFTWARE\\Notify", "Other", "7"}),
              0);
    const long took = waitMs(event, 5000);
    EXPECT_GE(took, 0);
    EXPECT_LT(took, 100) << "the notification took " << took << " ms";

    // One notification fires once: a second change goes unnoticed until it is armed again.
    ASSERT_EQ(setDword(key, "Own", 1), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 200), WAIT_TIMEOUT);

    // A sub-key created below the key is a name change, not a value change.
    ASSERT_EQ(RegNotifyChangeKeyValue(key, FALSE, REG_NOTIFY_CHANGE_NAME, event, TRUE),
              ERROR_SUCCESS);
    ASSERT_EQ(setDword(key, "Own", 2), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 200), WAIT_TIMEOUT);
    RegCloseKey(create("SOFTWARE\\Notify\\Sub"));
    EXPECT_GE(waitMs(event, 5000), 0);

    // A value changed deep below, for a notification on the whole sub-tree.
    ASSERT_EQ(RegNotifyChangeKeyValue(key, TRUE, REG_NOTIFY_CHANGE_LAST_SET, event, TRUE),
              ERROR_SUCCESS);
    HKEY sub = create("SOFTWARE\\Notify\\Sub");
    ASSERT_EQ(setDword(sub, "Deep", 3), ERROR_SUCCESS);
    EXPECT_GE(waitMs(event, 5000), 0);
    RegCloseKey(sub);

    // Closing the handle fires its pending notification.
    ASSERT_EQ(RegNotifyChangeKeyValue(key, FALSE, REG_NOTIFY_CHANGE_LAST_SET, event, TRUE),
              ERROR_SUCCESS);
    RegCloseKey(key);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    CloseHandle(event);
}

TEST_F(Registry, DatabaseOfRandomBytesFailsWithOneLogLine) {
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
    EXPECT_EQ(
        RegSetValueExA(HKEY_LOCAL_MACHINE, "v", 0, REG_SZ, reinterpret_cast<const BYTE*>("x"), 2),
        ERROR_BADDB);
    // The first failure comes while the log itself is built (it reads its folder from the
    // registry); its line is written once the log stands.
    const std::string log = TesselTest::LogCapture::all();
    EXPECT_NE(log.find("Registry database " + file + " is not usable"), std::string::npos) << log;
    EXPECT_EQ(log.find("not usable"), log.rfind("not usable")) << "one line only:\n" << log;
}

int writeOneValue(void*) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\ReadOnly", 0, nullptr, 0, KEY_ALL_ACCESS,
                        nullptr, &key, nullptr) != ERROR_SUCCESS) {
        return 1;
    }
    const LSTATUS rc =
        RegSetValueExA(key, "Kept", 0, REG_SZ, reinterpret_cast<const BYTE*>("yes"), 4);
    RegCloseKey(key);
    return rc == ERROR_SUCCESS ? 0 : 2;
}

// Reads and writes as a user who may not write the registry folder.
int readAndWriteWithoutPermission(void*) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
        return 10;
    }
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\ReadOnly", 0, KEY_READ | KEY_SET_VALUE,
                      &key) != ERROR_SUCCESS) {
        return 11;
    }
    char text[8] = {};
    DWORD size = sizeof text;
    if (RegQueryValueExA(key, "Kept", nullptr, nullptr, reinterpret_cast<BYTE*>(text), &size) !=
            ERROR_SUCCESS ||
        std::strcmp(text, "yes") != 0) {
        return 12;
    }
    if (RegSetValueExA(key, "New", 0, REG_SZ, reinterpret_cast<const BYTE*>("no"), 3) !=
        ERROR_ACCESS_DENIED) {
        return 13;
    }
    HKEY created = nullptr;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Fresh", 0, nullptr, 0, KEY_ALL_ACCESS,
                        nullptr, &created, nullptr) != ERROR_ACCESS_DENIED) {
        return 14;
    }
    RegCloseKey(key);
    return 0;
}

TEST_F(Registry, ReadOnlyFolderReadsButRefusesWrites) {
    // Everything happens in children, so that this process holds no connection that would
    // keep the database's shared-memory index alive.
    ASSERT_EQ(TesselTest::RunInChild(&writeOneValue, nullptr), 0);
    const std::string dir = TesselTest::UseScratchRegistry();
    const std::string root = dir.substr(0, dir.rfind('/'));
    ASSERT_EQ(::chmod(root.c_str(), 0755), 0);  // the other user may pass through
    ASSERT_EQ(::chmod(dir.c_str(), 0555), 0);
    ASSERT_EQ(::chmod(RegistryHiveFile(HKEY_LOCAL_MACHINE).c_str(), 0444), 0);
    EXPECT_EQ(TesselTest::RunInChild(&readAndWriteWithoutPermission, nullptr), 0);
    ::chmod(dir.c_str(), 0755);
}

}  // namespace
