// The registry shared by processes that write at once, and by a writer that is killed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/ScratchRegistry.h"
#include "tessel/platform/Registry.h"

using namespace Tessel::Platform;

namespace {

const char* const kKey = "SOFTWARE\\Reliability";

HKEY openForWriting() {
    HKEY key = nullptr;
    RegCreateKeyExA(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                    nullptr);
    return key;
}

std::string valueName(int writer, int index) {
    return "w" + std::to_string(writer) + "_" + std::to_string(index);
}

// Writes 1,000 distinct values; the exit code counts the failures.
int writeThousand(void* writer) {
    HKEY key = openForWriting();
    int failures = key == nullptr ? 1000 : 0;
    const int id = *static_cast<int*>(writer);
    for (int i = 0; key != nullptr && i < 1000; ++i) {
        const DWORD value = static_cast<DWORD>(i);
        if (RegSetValueExA(key, valueName(id, i).c_str(), 0, REG_DWORD,
                           reinterpret_cast<const BYTE*>(&value), sizeof value) != ERROR_SUCCESS) {
            ++failures;
        }
    }
    RegCloseKey(key);
    return failures > 255 ? 255 : failures;
}

TEST(RegistryReliability, TwoProcessesWritingAtOnceLoseNothing) {
    TesselTest::UseScratchRegistry();
    RegCloseKey(openForWriting());
    std::vector<pid_t> children;
    int ids[2] = {1, 2};
    for (int& id : ids) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            std::exit(writeThousand(&id));
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0) << "failed writes";
    }
    HKEY key = openForWriting();
    DWORD values = 0;
    ASSERT_EQ(RegQueryInfoKeyA(key, nullptr, nullptr, &values, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(values, 2000u);
    for (int writer : ids) {
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

// Writes values 0, 1, 2, ... and reports each index on the pipe once its write returned.
int writeUntilKilled(int round, int reportFd) {
    HKEY key = openForWriting();
    for (int i = 0;; ++i) {
        const std::string text(100 + (i % 50), static_cast<char>('a' + i % 26));
        if (RegSetValueExA(key, valueName(round, i).c_str(), 0, REG_SZ,
                           reinterpret_cast<const BYTE*>(text.c_str()),
                           static_cast<DWORD>(text.size() + 1)) != ERROR_SUCCESS) {
            return 1;
        }
        if (::write(reportFd, &i, sizeof i) != sizeof i) {
            return 2;
        }
    }
}

std::string integrityCheck(const std::string& file) {
    sqlite3* db = nullptr;
    std::string result = "cannot open";
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &s, nullptr) == SQLITE_OK &&
            sqlite3_step(s) == SQLITE_ROW) {
            result = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
        }
        sqlite3_finalize(s);
    }
    sqlite3_close(db);
    return result;
}

TEST(RegistryReliability, WriterKilledTwentyTimesLosesNoReturnedWrite) {
    TesselTest::UseScratchRegistry();
    RegCloseKey(openForWriting());
    std::mt19937 random(11);
    std::uniform_int_distribution<int> delayMs(5, 60);
    for (int round = 0; round < 20; ++round) {
        int report[2];
        ASSERT_EQ(::pipe(report), 0);
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(report[0]);
            ::_exit(writeUntilKilled(round, report[1]));
        }
        ::close(report[1]);
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs(random)));
        ::kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself in round " << round;

        int acknowledged = -1;
        for (int index; ::read(report[0], &index, sizeof index) == sizeof index;) {
            acknowledged = index;
        }
        ::close(report[0]);

        EXPECT_EQ(integrityCheck(RegistryHiveFile(HKEY_LOCAL_MACHINE)), "ok") << round;
        HKEY key = openForWriting();
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
