// CMutexSyncGuard: counting, tracing, names, and the mutex shared with another process.
#include "tessel/base/MutexSyncGuard.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/TestSupport.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Mutex.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;
using TesselTest::DebugOutputCapture;

extern char** environ;

namespace {

const std::string kExe = Tessel::Platform::GetExecutableName();
const std::string kNotInitialized = kExe + "CMutexSyncGuard::TryLock: Mutex not initialized!\n";

std::string uniqueName(const char* suffix) {
    return "Global\\TesselTest." + std::to_string(GetCurrentProcessId()) + "." + suffix;
}

// The trace of a refused lock, with the handle's digits left open.
std::regex refusal(const std::string& name, unsigned timeout, DWORD result) {
    std::string escaped;
    for (const char c : name) {
        if (std::string("\\.()[]{}*+?^$|").find(c) != std::string::npos) {
            escaped += '\\';
        }
        escaped += c;
    }
    return std::regex(kExe + "CMutexSyncGuard::TryLock: Could not aquire mutex '" + escaped +
                      "'\\(0x[0-9a-f]+\\)', timeout " + std::to_string(timeout) +
                      ", WaitForObject returned " + std::to_string(static_cast<int>(result)) +
                      "\n");
}

// Whether another thread of this process can acquire the named mutex at once, through a
// handle of its own; it releases it again.
DWORD otherThreadWaitsFor(const std::string& name) {
    return std::async(std::launch::async,
                      [&] {
                          HANDLE handle = OpenMutexA(SYNCHRONIZE, FALSE, name.c_str());
                          if (handle == nullptr) {
                              return WAIT_FAILED;
                          }
                          const DWORD result = WaitForSingleObject(handle, 0);
                          if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) {
                              ReleaseMutex(handle);
                          }
                          CloseHandle(handle);
                          return result;
                      })
        .get();
}

// Releases one acquisition of the named mutex by the calling thread, through a handle of its
// own: how a test ends a hold that the guard did not count. The handle is opened on another
// thread: opening takes the platform's table of names, under which a mutex created with an
// initial owner was locked, and the thread sanitizer would take the reverse order here for a
// possible deadlock (it cannot be one: creation locks only a mutex that nobody else can see).
bool releaseUncountedHold(const std::string& name) {
    HANDLE handle = std::async(std::launch::async, [&] {
                        return OpenMutexA(SYNCHRONIZE, FALSE, name.c_str());
                    }).get();
    const bool released = handle != nullptr && ReleaseMutex(handle) != FALSE;
    CloseHandle(handle);
    return released;
}

// The tessel_mutex_peer program, as a process of its own: it takes the named mutex and
// reports that on a pipe; "hold" keeps it until told, "die" is killed while holding it.
class MutexPeer {
  public:
    MutexPeer(const char* mode, const std::string& name) {
        int report[2];
        int command[2];
        if (::pipe2(report, O_CLOEXEC) != 0 || ::pipe2(command, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe2";
            return;
        }
        m_report = report[0];
        m_command = command[1];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, report[1], 3);
        posix_spawn_file_actions_adddup2(&actions, command[0], 4);
        const std::string program = TESSEL_MUTEX_PEER;
        std::vector<char*> argv{const_cast<char*>(program.c_str()), const_cast<char*>(mode),
                                const_cast<char*>(name.c_str()), nullptr};
        const int rc =
            ::posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(report[1]);
        ::close(command[0]);
        if (rc != 0) {
            ADD_FAILURE() << "posix_spawn " << program << ": " << rc;
            m_pid = -1;
        }
    }

    ~MutexPeer() {
        release();
        status();
        ::close(m_report);
    }

    MutexPeer(const MutexPeer&) = delete;
    MutexPeer& operator=(const MutexPeer&) = delete;

    // Whether the peer reported that it holds the mutex, within 5 s.
    bool holds() {
        pollfd entry{m_report, POLLIN, 0};
        char held = 0;
        return ::poll(&entry, 1, 5000) == 1 && ::read(m_report, &held, 1) == 1 && held == 'L';
    }

    // Tells a holding peer to release the mutex and end: the end of its command pipe.
    void release() {
        if (m_command >= 0) {
            ::close(m_command);
            m_command = -1;
        }
    }

    // Waits for the peer's end: its exit code, or 128 + the signal that ended it.
    int status() {
        if (m_pid > 0) {
            int raw = 0;
            if (::waitpid(m_pid, &raw, 0) == m_pid) {
                m_status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
            }
            m_pid = -1;
        }
        return m_status;
    }

  private:
    pid_t m_pid = -1;
    int m_report = -1;
    int m_command = -1;
    int m_status = -1;
};

}  // namespace

TEST(MutexSyncGuard, WithoutMutexEveryLockFailsAndIsTraced) {
    DebugOutputCapture trace;
    CMutexSyncGuard guard;
    EXPECT_FALSE(guard.IsValid());
    EXPECT_FALSE(guard.LockRead());
    EXPECT_FALSE(guard.LockWrite());
    EXPECT_FALSE(guard.TryLockRead());
    EXPECT_FALSE(guard.TryLockWrite());
    EXPECT_FALSE(guard.TryLockWrite(100u));
    guard.UnlockRead();
    guard.UnlockWrite();
    EXPECT_EQ(guard.GetLockCount(), 0u);
    EXPECT_EQ(guard.GetOwningThread(), 0u);
    EXPECT_EQ(trace.texts(), std::vector<std::string>(5, kNotInitialized));
}

TEST(MutexSyncGuard, CountsNestedHoldsAndForgetsTheOwnerWithTheLastOne) {
    CMutexSyncGuard guard;
    ASSERT_TRUE(guard.Create(false, nullptr, nullptr));
    ASSERT_TRUE(guard.IsValid());
    const unsigned long self = GetCurrentThreadId();
    struct Step {
        bool lock;
        unsigned long count;
        unsigned long owner;
    };
    const Step steps[] = {{true, 1, self},  {true, 2, self},  {true, 3, self},
                          {false, 2, self}, {false, 1, self}, {true, 2, self},
                          {false, 1, self}, {false, 0, 0},    {false, 0, 0}};
    int i = 0;
    for (const Step& step : steps) {
        if (step.lock) {
            EXPECT_TRUE(i % 2 == 0 ? guard.LockWrite() : guard.TryLockRead()) << "step " << i;
        } else {
            guard.UnlockWrite();
        }
        EXPECT_EQ(guard.GetLockCount(), step.count) << "step " << i;
        EXPECT_EQ(guard.GetOwningThread(), step.owner) << "step " << i;
        ++i;
    }
}

TEST(MutexSyncGuard, RefusalsAreTracedWithNameHandleTimeoutAndResult) {
    const std::string name = uniqueName("Trace");
    CMutexSyncGuard guard(false, name.c_str(), nullptr);
    ASSERT_TRUE(guard.IsValid());
    CMutexSyncGuard unnamed;
    ASSERT_TRUE(unnamed.Create(false, nullptr, nullptr));

    // Another thread holds both until told.
    std::promise<void> holding;
    std::promise<void> finish;
    std::thread holder([&] {
        guard.LockWrite();
        unnamed.LockWrite();
        holding.set_value();
        finish.get_future().wait();
        unnamed.UnlockWrite();
        guard.UnlockWrite();
    });
    holding.get_future().wait();
    {
        DebugOutputCapture trace;
        EXPECT_FALSE(guard.TryLockWrite());
        EXPECT_FALSE(guard.TryLockRead());
        EXPECT_FALSE(guard.TryLockWrite(30u));
        EXPECT_FALSE(unnamed.TryLockWrite());
        const std::vector<std::string> texts = trace.texts();
        ASSERT_EQ(texts.size(), 4u);
        EXPECT_TRUE(std::regex_match(texts[0], refusal(name, 0, WAIT_TIMEOUT))) << texts[0];
        EXPECT_TRUE(std::regex_match(texts[1], refusal(name, 0, WAIT_TIMEOUT))) << texts[1];
        EXPECT_TRUE(std::regex_match(texts[2], refusal(name, 30, WAIT_TIMEOUT))) << texts[2];
        EXPECT_TRUE(std::regex_match(texts[3], refusal("Not defined", 0, WAIT_TIMEOUT)))
            << texts[3];
    }
    finish.set_value();
    holder.join();
    EXPECT_TRUE(guard.TryLockWrite(5000u));
    guard.UnlockWrite();
}

TEST(MutexSyncGuard, InitialOwnershipIsNotCounted) {
    const std::string name = uniqueName("InitialOwner");
    CMutexSyncGuard guard;
    ASSERT_TRUE(guard.Create(true, name.c_str(), nullptr));
    EXPECT_EQ(guard.GetLockCount(), 0u);
    EXPECT_EQ(guard.GetOwningThread(), 0u);
    EXPECT_EQ(otherThreadWaitsFor(name), WAIT_TIMEOUT) << "owned by the creator";
    ASSERT_TRUE(guard.LockWrite());
    EXPECT_EQ(guard.GetLockCount(), 1u);
    guard.UnlockWrite();
    guard.UnlockWrite();  // surplus: the initial ownership stays
    EXPECT_EQ(otherThreadWaitsFor(name), WAIT_TIMEOUT);
    ASSERT_TRUE(releaseUncountedHold(name));
    EXPECT_EQ(otherThreadWaitsFor(name), WAIT_OBJECT_0);
}

TEST(MutexSyncGuard, NamedMutexKeepsAnotherProcessOut) {
    const std::string name = uniqueName("Shared");
    MutexPeer peer("hold", name);
    ASSERT_TRUE(peer.holds());
    DebugOutputCapture trace;
    CMutexSyncGuard guard(false, name.c_str(), nullptr);
    ASSERT_TRUE(guard.IsValid());
    EXPECT_FALSE(guard.TryLockWrite());
    EXPECT_FALSE(guard.TryLockWrite(50u));
    EXPECT_EQ(guard.GetLockCount(), 0u);
    peer.release();
    EXPECT_TRUE(guard.TryLockWrite(10000u));
    EXPECT_EQ(guard.GetLockCount(), 1u);
    EXPECT_EQ(guard.GetOwningThread(), GetCurrentThreadId());
    EXPECT_EQ(peer.status(), 0);
    guard.UnlockWrite();
    EXPECT_EQ(trace.texts().size(), 2u);
}

TEST(MutexSyncGuard, OwnerProcessDiesTheNextLockerGetsItWithTheCountOneShort) {
    const std::string name = uniqueName("Abandoned");
    CMutexSyncGuard guard(false, name.c_str(), nullptr);  // the name outlives the peer
    ASSERT_TRUE(guard.IsValid());
    {
        MutexPeer peer("die", name);
        ASSERT_TRUE(peer.holds());
        ASSERT_EQ(peer.status(), 128 + SIGKILL);
    }
    DebugOutputCapture trace;
    ASSERT_TRUE(guard.LockWrite()) << "an abandoned mutex is granted";
    EXPECT_EQ(guard.GetLockCount(), 0u) << "the abandoned hold is not counted";
    EXPECT_EQ(guard.GetOwningThread(), GetCurrentThreadId());
    EXPECT_TRUE(trace.texts().empty());

    // A nested hold counts and is released; the abandoned one stays.
    ASSERT_TRUE(guard.TryLockWrite());
    EXPECT_EQ(guard.GetLockCount(), 1u);
    guard.UnlockWrite();
    EXPECT_EQ(guard.GetLockCount(), 0u);
    EXPECT_EQ(guard.GetOwningThread(), 0u);
    guard.UnlockWrite();  // at a count of zero: does nothing
    EXPECT_EQ(otherThreadWaitsFor(name), WAIT_TIMEOUT) << "still held by this thread";

    ASSERT_TRUE(releaseUncountedHold(name));
    EXPECT_EQ(otherThreadWaitsFor(name), WAIT_OBJECT_0);
}

TEST(MutexSyncGuard, CreateAgainClosesTheFormerMutex) {
    const std::string first = uniqueName("First");
    const std::string second = uniqueName("Second");
    CMutexSyncGuard guard;
    ASSERT_TRUE(guard.Create(false, first.c_str(), nullptr));
    ASSERT_TRUE(guard.Create(false, second.c_str(), nullptr));
    SetLastError(0);
    EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, first.c_str()), nullptr)
        << "the first mutex's last handle was closed";
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);

    ASSERT_TRUE(guard.Create(false, nullptr, nullptr));
    EXPECT_TRUE(guard.IsValid());
}

TEST(MutexSyncGuard, NameThatDoesNotFitIsAnInvalidParameter) {
    TesselTest::InvalidParameterThrows throws;
    CMutexSyncGuard guard;
    const std::string fits(259, 'n');
    EXPECT_NO_THROW(guard.Create(false, fits.c_str(), nullptr));
    const std::string tooLong(260, 'n');
    EXPECT_THROW(guard.Create(false, tooLong.c_str(), nullptr), TesselTest::InvalidParameterError);
}
