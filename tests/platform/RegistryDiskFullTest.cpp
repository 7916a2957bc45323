// The registry store on a file system that fills up: a small tmpfs of a child's own mount
// namespace, where the test may make one (root, mounts allowed); skipped elsewhere.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>

#include "support/ChildProcess.h"
#include "tessel/platform/Registry.h"

using namespace Tessel::Platform;

namespace {

// The child's results: 0 passed, kNoMount: no file system of its own; else the failed step.
constexpr int kNoMount = 77;
const char* const kSteps[] = {
    "passed",
    "the first write failed",
    "the disk could not be filled",
    "the write to the full disk did not fail with ERROR_DISK_FULL",
    "the value written before is gone",
    "the failed value is there",
    "the database is not intact",
    "a write after space came back failed",
    "the value written after space came back is not there",
};

LSTATUS setText(HKEY key, const char* name, const std::string& text) {
    return RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                          static_cast<DWORD>(text.size() + 1));
}

std::string text(HKEY key, const char* name) {
    std::string buffer(100000, '\0');
    DWORD size = static_cast<DWORD>(buffer.size());
    if (RegQueryValueExA(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer.data()),
                         &size) != ERROR_SUCCESS) {
        return "<missing>";
    }
    return buffer.c_str();
}

// Writes to path until the file system has no byte left; false if it never fills.
bool fill(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const std::string block(65536, 'f');
    for (std::size_t size : {block.size(), std::size_t{1}}) {
        while (::write(fd, block.data(), size) > 0) {
        }
    }
    const bool full = errno == ENOSPC;
    ::close(fd);
    return full;
}

bool intact(const std::string& file) {
    sqlite3* db = nullptr;
    sqlite3_stmt* check = nullptr;
    bool ok = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
              sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &check, nullptr) == SQLITE_OK &&
              sqlite3_step(check) == SQLITE_ROW &&
              std::string(reinterpret_cast<const char*>(sqlite3_column_text(check, 0))) == "ok";
    sqlite3_finalize(check);
    sqlite3_close(db);
    return ok;
}

int fillTheDiskUnderAWrite() {
    const std::string dir = RegistryDirectory() + "-small";
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) ||
        ::mount("tessel-test", dir.c_str(), "tmpfs", 0, "size=512k") != 0) {
        return kNoMount;
    }
    ::setenv("TESSEL_REGISTRY_DIR", dir.c_str(), 1);
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Full", 0, nullptr, 0, KEY_ALL_ACCESS,
                        nullptr, &key, nullptr) != ERROR_SUCCESS ||
        setText(key, "Kept", "before") != ERROR_SUCCESS) {
        return 1;
    }
    if (!fill(dir + "/filler")) {
        return 2;
    }
    const std::string big(65536, 'b');
    if (const LSTATUS error = setText(key, "Big", big); error != ERROR_DISK_FULL) {
        std::fprintf(stderr, "the write to the full disk gave %ld\n", static_cast<long>(error));
        return 3;
    }
    if (text(key, "Kept") != "before") {
        return 4;
    }
    if (text(key, "Big") != "<missing>") {
        return 5;
    }
    if (!intact(RegistryHiveFile(HKEY_LOCAL_MACHINE))) {
        return 6;
    }
    ::unlink((dir + "/filler").c_str());
    if (setText(key, "Big", big) != ERROR_SUCCESS) {
        return 7;
    }
    return text(key, "Big") == big && text(key, "Kept") == "before" ? 0 : 8;
}

TEST(RegistryDiskFull, WriteFailsWithItsErrorTheDatabaseStaysIntactAndLaterWritesWork) {
    const int result = TesselTest::RunInChild(&fillTheDiskUnderAWrite);
    if (result == kNoMount) {
        GTEST_SKIP() << "no small file system can be mounted here";
    }
    ASSERT_GE(result, 0);
    EXPECT_EQ(result, 0) << (result < static_cast<int>(std::size(kSteps)) ? kSteps[result]
                                                                          : "the child failed");
}

}  // namespace
