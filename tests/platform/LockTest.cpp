// Kernel mutexes, unnamed and named across processes, and the in-process critical section.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"
#include "support/WaitProbe.h"
#include "tessel/platform/CriticalSection.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Mutex.h"

using namespace Tessel::Platform;
using namespace TesselTest;
using PlatformTest::failureOf;

namespace {

// A name of the test's own, without the "Global\" prefix: the form in which it names the
// shared-memory segment.
std::string uniqueKey() {
    return PlatformTest::uniqueName("TesselTest.mutex");
}

bool segmentExists(const std::string& key) {
    return ::access(("/dev/shm/tessel.mutex." + key).c_str(), F_OK) == 0;
}

// What body returns when run on a thread of its own.
DWORD onAnotherThread(std::function<DWORD()> body) {
    AsyncCall call(std::move(body));
    EXPECT_TRUE(call.finishes());
    return call.result();
}

// Whether the single thread of process pid sleeps in the kernel, as a wait for a held mutex.
bool sleepsOnAMutex(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/syscall");
    long number = -1;
    return file >> number && number == SYS_futex;
}

TEST(Mutex, OwnerMayAcquireAgainAndMustReleaseEachTime) {
    HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
    // Another thread: a release that it may not make, and a zero-time test.
    auto probe = [&] {
        return onAnotherThread([&] {
            if (failureOf(ReleaseMutex(mutex)) != ERROR_NOT_OWNER) {
                return DWORD{0xBAD};
            }
            const DWORD result = WaitForSingleObject(mutex, 0);
            ReleaseMutex(mutex);
            return result;
        });
    };
    for (int held = 3; held > 0; --held) {
        EXPECT_EQ(probe(), WAIT_TIMEOUT) << held << " acquisitions outstanding";
        EXPECT_TRUE(ReleaseMutex(mutex));
    }
    EXPECT_EQ(probe(), WAIT_OBJECT_0);
    EXPECT_EQ(failureOf(ReleaseMutex(mutex)), ERROR_NOT_OWNER);
    CloseHandle(mutex);
}

TEST(Mutex, ThreadThatEndsOwningItAbandonsIt) {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE held = CreateMutexA(nullptr, TRUE, nullptr);
    EXPECT_EQ(onAnotherThread([&] { return WaitForSingleObject(mutex, 0); }), WAIT_OBJECT_0);
    // A wait for all that cannot complete (the second mutex is held here) takes the first
    // and gives it back; the abandonment is still reported to the next owner.
    const HANDLE objects[] = {mutex, held};
    EXPECT_EQ(onAnotherThread([&] { return WaitForMultipleObjects(2, objects, TRUE, 0); }),
              WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(mutex, 1000), WAIT_ABANDONED);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);  // owned, count 2
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(onAnotherThread([&] {
                  const DWORD result = WaitForSingleObject(mutex, 1000);
                  ReleaseMutex(mutex);
                  return result;
              }),
              WAIT_OBJECT_0);
    ReleaseMutex(held);
    CloseHandle(mutex);
    CloseHandle(held);
}

TEST(Mutex, NamedMutexExistsWhileAHandleIsOpen) {
    const std::string key = uniqueKey();
    const std::string name = "Global\\" + key;
    HANDLE first = CreateMutexA(nullptr, FALSE, name.c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_TRUE(segmentExists(key));
    HANDLE second = CreateMutexA(nullptr, TRUE, key.c_str());  // the same name
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(failureOf(ReleaseMutex(second)), ERROR_NOT_OWNER);  // opened, not taken
    HANDLE opened = OpenMutexA(SYNCHRONIZE, FALSE, name.c_str());
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
    EXPECT_EQ(onAnotherThread([&] { return WaitForSingleObject(opened, 0); }), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(second));  // any handle of the object

    CloseHandle(first);
    CloseHandle(second);
    EXPECT_TRUE(segmentExists(key));
    CloseHandle(opened);
    EXPECT_FALSE(segmentExists(key));
    EXPECT_EQ(failureOf(OpenMutexA(SYNCHRONIZE, FALSE, name.c_str())), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(failureOf(CreateMutexA(nullptr, FALSE, std::string(250, 'x').c_str())),
              ERROR_FILENAME_EXCED_RANGE);

    // Separators and '%' are escaped, so that distinct names stay distinct.
    HANDLE odd = CreateMutexA(nullptr, FALSE, ("Local\\" + key + "a/b\\c%d").c_str());
    EXPECT_TRUE(segmentExists(key + "a%2Fb%5Cc%25d"));
    HANDLE plain = CreateMutexA(nullptr, FALSE, (key + "a_b_c_d").c_str());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    CloseHandle(odd);
    CloseHandle(plain);

    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (HANDLE handle : {HANDLE{nullptr}, event}) {
        EXPECT_EQ(failureOf(ReleaseMutex(handle)), ERROR_INVALID_HANDLE);
    }
    CloseHandle(event);
}

TEST(Mutex, AnotherProcessOpensItByNameAndItsDeathAbandonsIt) {
    const std::string name = "Global\\" + uniqueKey();
    HANDLE mutex = CreateMutexA(nullptr, TRUE, name.c_str());
    ASSERT_NE(mutex, nullptr);
    // The child finds it by its name, waits while it is held here, and ends holding it twice.
    const pid_t child = ::fork();
    if (child == 0) {
        HANDLE opened = OpenMutexA(SYNCHRONIZE, FALSE, name.c_str());
        ::_exit(opened == nullptr                                    ? 1
                : WaitForSingleObject(opened, 0) != WAIT_TIMEOUT     ? 2
                : WaitForSingleObject(opened, 5000) != WAIT_OBJECT_0 ? 3
                : WaitForSingleObject(opened, 0) != WAIT_OBJECT_0    ? 4
                                                                     : 0);
    }
    ASSERT_GT(child, 0);
    EXPECT_TRUE(eventually([&] { return sleepsOnAMutex(child); }));
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitForChild(child, 10000ms), 0);

    EXPECT_EQ(WaitForSingleObject(mutex, 5000), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_FALSE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(mutex);
}

TEST(Mutex, ProcessesCreatingOneNameAtOnceGetOneMutex) {
    const std::string key = uniqueKey();
    constexpr int kChildren = 4;
    // Shared with the children: the start, and how many of them have created the mutex.
    int* shared = static_cast<int*>(::mmap(nullptr, 2 * sizeof(int), PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    std::atomic_ref<int> start(shared[0]);
    std::atomic_ref<int> created(shared[1]);
    std::vector<pid_t> children;
    for (int i = 0; i < kChildren; ++i) {
        children.push_back(::fork());
        if (children.back() == 0) {
            eventually([&] { return start.load() == 1; }, 10000ms, 0ms);
            HANDLE mutex = CreateMutexA(nullptr, FALSE, key.c_str());
            const DWORD error = GetLastError();
            ++created;
            // Keeps it open until every child has created.
            eventually([&] { return created.load() == kChildren; });
            ::_exit(mutex == nullptr || !CloseHandle(mutex) ? 9
                    : error == ERROR_SUCCESS                ? 0
                    : error == ERROR_ALREADY_EXISTS         ? 1
                                                            : 2);
        }
    }
    start = 1;
    std::vector<int> statuses;
    for (pid_t child : children) {
        statuses.push_back(WaitForChild(child, 10000ms));
    }
    EXPECT_EQ(std::count(statuses.begin(), statuses.end(), 0), 1);
    EXPECT_EQ(std::count(statuses.begin(), statuses.end(), 1), kChildren - 1);
    EXPECT_FALSE(segmentExists(key));  // the last one removed the name
    ::munmap(shared, 2 * sizeof(int));
}

TEST(Mutex, RemnantsOfDeadProcessesAreNotExistingMutexes) {
    const std::string key = uniqueKey();
    // A process that dies holding the only handle (and the mutex) leaves its segment behind.
    ASSERT_EQ(RunInChild([&] {
                  HANDLE mutex = CreateMutexA(nullptr, TRUE, key.c_str());
                  return mutex != nullptr && GetLastError() == ERROR_SUCCESS ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(segmentExists(key));
    EXPECT_EQ(failureOf(OpenMutexA(SYNCHRONIZE, FALSE, key.c_str())), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(segmentExists(key));

    // A creator that died before it sized its segment.
    const int fd = ::shm_open(("/tessel.mutex." + key).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ::close(fd);
    HANDLE mutex = CreateMutexA(nullptr, FALSE, key.c_str());
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);  // a new mutex, not abandoned
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(mutex);
    EXPECT_FALSE(segmentExists(key));
}

TEST(CriticalSection, OwnerEntersAgainAndOthersWaitForTheLastLeave) {
    CRITICAL_SECTION section;
    ASSERT_TRUE(InitializeCriticalSectionEx(&section, 4000, 0));
    EnterCriticalSection(&section);
    EXPECT_TRUE(TryEnterCriticalSection(&section));
    EnterCriticalSection(&section);
    auto tryElsewhere = [&] {
        return onAnotherThread([&] {
            const BOOL entered = TryEnterCriticalSection(&section);
            if (entered) {
                LeaveCriticalSection(&section);
            }
            return static_cast<DWORD>(entered);
        });
    };
    for (int held = 3; held > 1; --held) {
        EXPECT_EQ(tryElsewhere(), 0u) << held << " entries outstanding";
        LeaveCriticalSection(&section);
    }
    EXPECT_EQ(tryElsewhere(), 0u);
    AsyncCall enter([&] {
        EnterCriticalSection(&section);
        LeaveCriticalSection(&section);
        return DWORD{0};
    });
    ASSERT_TRUE(enter.blocked(SYS_futex));  // spun, then went to sleep
    EXPECT_FALSE(enter.done());
    LeaveCriticalSection(&section);
    EXPECT_TRUE(enter.finishes());
    EXPECT_NE(tryElsewhere(), 0u);
    DeleteCriticalSection(&section);
}

TEST(CriticalSection, ExcludesOtherThreadsForAnySpinCount) {
    for (DWORD spinCount : {0u, 4000u, 0x80000FA0u}) {  // the high flag bit is ignored
        SCOPED_TRACE(spinCount);
        CRITICAL_SECTION section;
        ASSERT_TRUE(InitializeCriticalSectionAndSpinCount(&section, spinCount));
        long counter = 0;  // guarded by section only
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 20000; ++i) {
                    EnterCriticalSection(&section);
                    counter = counter + 1;
                    LeaveCriticalSection(&section);
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(counter, 4 * 20000);
        DeleteCriticalSection(&section);
    }
}

}  // namespace
