// CMutexSyncGuard: counting, tracing, names, and the mutex shared with another process.
#include "tessel/base/MutexSyncGuard.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <future>
#include <regex>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TestSupport.h"
#include "tessel/base/ReadWriteLock.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Mutex.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;
using namespace TesselTest;

const std::string kExe = GetExecutableName();

static std::string uniqueName(const char* suffix) {
    return "Global\\TesselTest." + std::to_string(GetCurrentProcessId()) + "." + suffix;
}

// The trace of a lock refused after timeout ms, with the handle's digits left out.
static std::string refusal(const std::string& name, unsigned timeout) {
    return kExe + "CMutexSyncGuard::TryLock: Could not aquire mutex '" + name + "'(0x)', timeout " +
           std::to_string(timeout) + ", WaitForObject returned " + std::to_string(WAIT_TIMEOUT) +
           "\n";
}

// Whether another thread gets the guard's mutex at once; it gives it back.
static bool otherThreadGets(ISyncGuard& guard) {
    const auto probe = [&] { return CReadWriteLock(guard, false, false).TryLock(); };
    return std::async(std::launch::async, probe).get();
}

// Ends one hold of the named mutex that the guard did not count, through a handle of its own
// (opened on another thread: the thread sanitizer would see a false lock-order inversion).
static bool releaseUncountedHold(const std::string& name) {
    HANDLE handle = std::async(std::launch::async, [&] {
                        return OpenMutexA(SYNCHRONIZE, FALSE, name.c_str());
                    }).get();
    const bool released = handle != nullptr && ReleaseMutex(handle) != FALSE;
    CloseHandle(handle);
    return released;
}

TEST(MutexSyncGuard, LocksFailAndAreTracedUntilCreateWhichClosesAFormerMutex) {
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
    {
        CReadWriteLock lock(guard, true, true);  // a failed hold is not counted
        EXPECT_FALSE(lock.Lock());
        EXPECT_FALSE(lock.TryLock());
    }
    const std::string notInitialized = kExe + "CMutexSyncGuard::TryLock: Mutex not initialized!\n";
    EXPECT_EQ(trace.texts(), std::vector<std::string>(8, notInitialized));

    const std::string first = uniqueName("First");
    ASSERT_TRUE(guard.Create(false, first.c_str(), nullptr));
    ASSERT_TRUE(guard.Create(false, uniqueName("Second").c_str(), nullptr));
    SetLastError(0);
    EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, first.c_str()), nullptr) << "the first one is gone";
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    ASSERT_TRUE(guard.Create(false, nullptr, nullptr));
    EXPECT_TRUE(guard.IsValid());

    InvalidParameterThrows throws;
    EXPECT_NO_THROW(guard.Create(false, std::string(259, 'n').c_str(), nullptr));
    EXPECT_THROW(guard.Create(false, std::string(260, 'n').c_str(), nullptr),
                 InvalidParameterError);
}

TEST(MutexSyncGuard, CountsNestedHoldsButNotTheInitialOwnership) {
    DebugOutputCapture trace;
    const std::string name = uniqueName("Count");
    CMutexSyncGuard guard;
    ASSERT_TRUE(guard.Create(true, name.c_str(), nullptr));
    EXPECT_FALSE(otherThreadGets(guard)) << "owned by the creator";
    // Lock (LockWrite or TryLockRead) or Unlock; the count after it (owner: this thread unless 0).
    const std::string steps = "-LLLUULUUU";
    const unsigned long counts[] = {0, 1, 2, 3, 2, 1, 2, 1, 0, 0};
    for (std::size_t i = 0; i < steps.size(); ++i) {
        SCOPED_TRACE(i);
        if (steps[i] == 'L') {
            EXPECT_TRUE(i % 2 == 0 ? guard.LockWrite() : guard.TryLockRead());
        } else if (steps[i] == 'U') {
            guard.UnlockWrite();
        }
        EXPECT_EQ(guard.GetLockCount(), counts[i]);
        EXPECT_EQ(guard.GetOwningThread(), counts[i] != 0 ? GetCurrentThreadId() : 0);
    }
    EXPECT_FALSE(otherThreadGets(guard)) << "the initial ownership stays";
    ASSERT_TRUE(releaseUncountedHold(name));
    EXPECT_TRUE(otherThreadGets(guard));
}

TEST(MutexSyncGuard, NamedMutexIsSharedWithAnotherProcessAndAbandonedWhenItDies) {
    const std::string name = uniqueName("Shared");
    CMutexSyncGuard named(false, name.c_str(), nullptr);  // the name outlives the peers
    CMutexSyncGuard unnamed;
    ASSERT_TRUE(unnamed.Create(false, nullptr, nullptr));
    ASSERT_TRUE(unnamed.LockWrite());
    ChildProcess holder({TESSEL_MUTEX_PEER, "hold", name});
    ASSERT_EQ(holder.readLine(milliseconds(5000)), "locked");
    DebugOutputCapture trace;
    EXPECT_FALSE(named.TryLockWrite());
    EXPECT_FALSE(named.TryLockRead());
    EXPECT_FALSE(named.TryLockWrite(30u));
    EXPECT_EQ(named.GetLockCount(), 0u);
    EXPECT_FALSE(otherThreadGets(unnamed));
    std::vector<std::string> texts = trace.texts();
    for (std::string& text : texts) {
        text = std::regex_replace(text, std::regex(R"(\(0x[0-9a-f]+\))"), "(0x)");
    }
    EXPECT_EQ(texts, (std::vector<std::string>{refusal(name, 0), refusal(name, 0),
                                               refusal(name, 30), refusal("Not defined", 0)}));
    holder.closeInput();  // the peer releases it and ends
    EXPECT_TRUE(named.TryLockWrite(10000u));
    EXPECT_EQ(named.GetLockCount(), 1u);
    EXPECT_EQ(named.GetOwningThread(), GetCurrentThreadId());
    EXPECT_EQ(holder.finish(), 0);
    named.UnlockWrite();

    ChildProcess dying({TESSEL_MUTEX_PEER, "die", name});
    ASSERT_EQ(dying.readLine(milliseconds(5000)), "locked");
    ASSERT_EQ(dying.finish(), 128 + SIGKILL);
    ASSERT_TRUE(named.LockWrite()) << "an abandoned mutex is granted";
    EXPECT_EQ(named.GetLockCount(), 0u) << "the abandoned hold is not counted";
    EXPECT_EQ(named.GetOwningThread(), GetCurrentThreadId());
    EXPECT_EQ(trace.texts().size(), 4u) << "and not traced";
    // A nested hold counts and is released; the abandoned one stays.
    ASSERT_TRUE(named.TryLockWrite());
    EXPECT_EQ(named.GetLockCount(), 1u);
    named.UnlockWrite();
    EXPECT_EQ(named.GetLockCount(), 0u);
    EXPECT_EQ(named.GetOwningThread(), 0u);
    named.UnlockWrite();  // at a count of zero: does nothing
    EXPECT_FALSE(otherThreadGets(named)) << "still held by this thread";
    ASSERT_TRUE(releaseUncountedHold(name));
    EXPECT_TRUE(otherThreadGets(named));
}
