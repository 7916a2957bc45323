#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/WaitProbe.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Mutex.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;
using namespace TesselTest;

namespace {

// The name without its "Global\" prefix, the form in which it names the segment.
std::string uniqueKey(const char* suffix) {
    return "TesselTest." + std::to_string(GetCurrentProcessId()) + "." + suffix;
}

std::string segmentPath(const std::string& key) {
    return "/dev/shm/tessel.mutex." + key;
}

bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

// A pipe that carries 32-bit values between a test and its child processes.
class Channel {
  public:
    Channel() { EXPECT_EQ(::pipe(m_fds), 0); }
    ~Channel() {
        ::close(m_fds[0]);
        ::close(m_fds[1]);
    }
    bool send(std::uint32_t value) {
        return ::write(m_fds[1], &value, sizeof value) == sizeof value;
    }
    // The next value, or 0xFFFFFFFF after 5 s.
    std::uint32_t receive() {
        pollfd entry{m_fds[0], POLLIN, 0};
        std::uint32_t value = 0xFFFFFFFFu;
        if (::poll(&entry, 1, 5000) == 1 &&
            ::read(m_fds[0], &value, sizeof value) != sizeof value) {
            value = 0xFFFFFFFFu;
        }
        return value;
    }

  private:
    int m_fds[2] = {-1, -1};
};

// Runs body in a forked child, which ends with body's result and never returns here.
template <typename Body>
pid_t spawnChild(Body body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(body());
    }
    return pid;
}

int exitCodeOf(pid_t pid) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

}  // namespace

TEST(Mutex, OwnerMayAcquireAgainAndMustReleaseEachTime) {
    HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
    // Another thread: a zero-time test, and a release that it may not make.
    auto probe = [&] {
        AsyncCall call([&] {
            if (ReleaseMutex(mutex) || GetLastError() != ERROR_NOT_OWNER) {
                return DWORD{0xBAD};
            }
            const DWORD result = WaitForSingleObject(mutex, 0);
            if (result == WAIT_OBJECT_0) {
                ReleaseMutex(mutex);
            }
            return result;
        });
        EXPECT_TRUE(call.finishes());
        return call.result();
    };
    for (int held = 3; held > 0; --held) {
        EXPECT_EQ(probe(), WAIT_TIMEOUT) << held << " acquisitions outstanding";
        EXPECT_TRUE(ReleaseMutex(mutex));
    }
    EXPECT_EQ(probe(), WAIT_OBJECT_0);
    EXPECT_FALSE(ReleaseMutex(mutex));
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
    CloseHandle(mutex);
}

TEST(Mutex, ThreadThatEndsOwningItAbandonsIt) {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE held = CreateMutexA(nullptr, TRUE, nullptr);
    {
        AsyncCall owner([&] { return WaitForSingleObject(mutex, 0); });
        ASSERT_TRUE(owner.finishes());
        EXPECT_EQ(owner.result(), WAIT_OBJECT_0);
    }
    // A wait for all that cannot complete (the second mutex is held here) takes the first
    // and gives it back; the abandonment is still reported to the next owner.
    const HANDLE objects[] = {mutex, held};
    AsyncCall all([&] { return WaitForMultipleObjects(2, objects, TRUE, 0); });
    ASSERT_TRUE(all.finishes());
    EXPECT_EQ(all.result(), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(mutex, 1000), WAIT_ABANDONED);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);  // owned, count 2
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex));
    AsyncCall next([&] {
        const DWORD result = WaitForSingleObject(mutex, 1000);
        ReleaseMutex(mutex);
        return result;
    });
    ASSERT_TRUE(next.finishes());
    EXPECT_EQ(next.result(), WAIT_OBJECT_0);
    ReleaseMutex(held);
    CloseHandle(mutex);
    CloseHandle(held);
}

TEST(Mutex, NamedMutexExistsWhileAHandleIsOpen) {
    const std::string key = uniqueKey("named");
    const std::string name = "Global\\" + key;
    HANDLE first = CreateMutexA(nullptr, FALSE, name.c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_TRUE(exists(segmentPath(key)));

    HANDLE second = CreateMutexA(nullptr, TRUE, key.c_str());  // the same name
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_FALSE(ReleaseMutex(second));  // opened, not taken
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
    HANDLE opened = OpenMutexA(SYNCHRONIZE, FALSE, name.c_str());
    ASSERT_NE(opened, nullptr);

    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
    AsyncCall other([&] { return WaitForSingleObject(opened, 0); });
    ASSERT_TRUE(other.finishes());
    EXPECT_EQ(other.result(), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(second));  // any handle of the object

    CloseHandle(first);
    CloseHandle(second);
    EXPECT_TRUE(exists(segmentPath(key)));
    CloseHandle(opened);
    EXPECT_FALSE(exists(segmentPath(key)));
    EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, name.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);

    // Separators and '%' are escaped, so that distinct names stay distinct.
    HANDLE odd = CreateMutexA(nullptr, FALSE, ("Local\\" + uniqueKey("a/b\\c%d")).c_str());
    EXPECT_TRUE(exists(segmentPath(uniqueKey("a%2Fb%5Cc%25d"))));
    HANDLE plain = CreateMutexA(nullptr, FALSE, uniqueKey("a_b_c_d").c_str());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    CloseHandle(odd);
    CloseHandle(plain);
}

TEST(Mutex, AnotherProcessOpensItByNameAndItsDeathAbandonsIt) {
    const std::string name = "Global\\" + uniqueKey("shared");
    Channel toChild;
    Channel toParent;
    // Forked before the mutex exists, so that the child finds it by its name only.
    const pid_t child = spawnChild([&] {
        if (toChild.receive() != 1) {
            return 10;
        }
        HANDLE mutex = OpenMutexA(SYNCHRONIZE, FALSE, name.c_str());
        if (mutex == nullptr) {
            return 11;
        }
        toParent.send(WaitForSingleObject(mutex, 0));
        toParent.send(WaitForSingleObject(mutex, 5000));
        toParent.send(WaitForSingleObject(mutex, 0));
        return 0;  // ends holding it twice
    });
    ASSERT_GT(child, 0);
    HANDLE mutex = CreateMutexA(nullptr, TRUE, name.c_str());
    ASSERT_NE(mutex, nullptr);
    toChild.send(1);
    EXPECT_EQ(toParent.receive(), WAIT_TIMEOUT);  // held here
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(toParent.receive(), WAIT_OBJECT_0);
    EXPECT_EQ(toParent.receive(), WAIT_OBJECT_0);
    EXPECT_EQ(exitCodeOf(child), 0);

    EXPECT_EQ(WaitForSingleObject(mutex, 5000), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_FALSE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(mutex);
}

TEST(Mutex, ProcessesCreatingOneNameAtOnceGetOneMutex) {
    const std::string key = uniqueKey("race");
    constexpr int kChildren = 4;
    Channel start;
    Channel results;
    Channel finish;
    std::vector<pid_t> children;
    for (int i = 0; i < kChildren; ++i) {
        children.push_back(spawnChild([&] {
            start.receive();
            HANDLE mutex = CreateMutexA(nullptr, FALSE, key.c_str());
            results.send(mutex != nullptr ? GetLastError() : 0x10000u | GetLastError());
            finish.receive();  // keep it open until every child has created
            return CloseHandle(mutex) ? 0 : 1;
        }));
    }
    for (int i = 0; i < kChildren; ++i) {
        start.send(1);
    }
    int created = 0;
    int existing = 0;
    for (int i = 0; i < kChildren; ++i) {
        const std::uint32_t error = results.receive();
        created += error == ERROR_SUCCESS ? 1 : 0;
        existing += error == ERROR_ALREADY_EXISTS ? 1 : 0;
    }
    EXPECT_EQ(created, 1);
    EXPECT_EQ(existing, kChildren - 1);
    for (int i = 0; i < kChildren; ++i) {
        finish.send(1);
    }
    for (pid_t child : children) {
        EXPECT_EQ(exitCodeOf(child), 0);
    }
    EXPECT_FALSE(exists(segmentPath(key)));  // the last one removed the name
}

TEST(Mutex, RemnantsOfDeadProcessesAreNotExistingMutexes) {
    const std::string key = uniqueKey("remnant");
    // A process that dies holding the only handle (and the mutex) leaves its segment behind.
    const pid_t child = spawnChild([&] {
        HANDLE mutex = CreateMutexA(nullptr, TRUE, key.c_str());
        return mutex != nullptr && GetLastError() == ERROR_SUCCESS ? 0 : 1;
    });
    ASSERT_EQ(exitCodeOf(child), 0);
    EXPECT_TRUE(exists(segmentPath(key)));
    EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, key.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(exists(segmentPath(key)));

    // A creator that died before it sized its segment.
    const std::string segment = "/tessel.mutex." + key;
    const int fd = ::shm_open(segment.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ::close(fd);
    HANDLE mutex = CreateMutexA(nullptr, FALSE, key.c_str());
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);  // a new mutex, not abandoned
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(mutex);
    EXPECT_FALSE(exists(segmentPath(key)));
}

TEST(Mutex, BadHandlesAndNamesFail) {
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (HANDLE handle : {HANDLE{nullptr}, event}) {
        EXPECT_FALSE(ReleaseMutex(handle));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
    CloseHandle(event);
    EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, uniqueKey("missing").c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(CreateMutexA(nullptr, FALSE, std::string(250, 'x').c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
}
