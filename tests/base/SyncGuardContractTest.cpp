// What every locking ISyncGuard promises (one typed suite), the lockless guards, CReadWriteLock.
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/TestSupport.h"
#include "support/WaitProbe.h"
#include "tessel/base/CriticalSectionSyncGuard.h"
#include "tessel/base/DummySyncGuard.h"
#include "tessel/base/MutexSyncGuard.h"
#include "tessel/base/ReadWriteLock.h"
#include "tessel/base/ReaderWriterSyncGuard.h"
#include "tessel/base/VelkorPseudoReaderWriterLock.h"
#include "tessel/platform/Process.h"
#include "tessel/threads/LockFreeSpinLock.h"

// The mutex guard, without a name and with one.
struct UnnamedMutex : CMutexSyncGuard {
    UnnamedMutex() { EXPECT_TRUE(Create(false, nullptr, nullptr)); }
};

struct NamedMutex : CMutexSyncGuard {
    NamedMutex() {
        static int count = 0;
        const auto pid = std::to_string(Tessel::Platform::GetCurrentProcessId());
        EXPECT_TRUE(Create(
            false, ("Global\\TesselTest." + pid + "." + std::to_string(++count)).c_str(), nullptr));
    }
};

constexpr bool kRead = true;
constexpr bool kWrite = false;

// Whether another thread gets the read (or write) lock at once; it gives it back.
static bool otherThreadGets(ISyncGuard& guard, bool read) {
    const auto probe = [&] { return CReadWriteLock(guard, read, false).TryLock(); };
    return std::async(std::launch::async, probe).get();
}

// Where the contracts differ: re-entry, shared reads, and where a waiter sleeps (the spin lock's
// sleep every tenth round is a timed futex wait).
template <class Guard>
class SyncGuardContract : public ::testing::Test {
  protected:
    static constexpr bool kSharedReads = std::is_same_v<Guard, CReaderWriterSyncGuard>;
    static constexpr bool kReentrant = !kSharedReads && !std::is_same_v<Guard, LockFreeSpinLock>;
    static constexpr long kWaitCall = kSharedReads ? SYS_ppoll : SYS_futex;

    TesselTest::DebugOutputCapture m_trace;  // the mutex guard's traces of refused probes
    Guard m_guard;
};

using Kinds = ::testing::Types<CCriticalSectionSyncGuard, UnnamedMutex, NamedMutex,
                               CReaderWriterSyncGuard, LockFreeSpinLock>;
TYPED_TEST_SUITE(SyncGuardContract, Kinds);

// Writes each call down (Lock, Try, Unlock; lower case: read) and grants as answers say ('1').
struct RecordingGuard : ISyncGuard {
    bool TryLockRead() override { return answer('t'); }
    bool LockRead() override { return answer('l'); }
    void UnlockRead() override { calls += 'u'; }
    bool TryLockWrite() override { return answer('T'); }
    bool LockWrite() override { return answer('L'); }
    void UnlockWrite() override { calls += 'U'; }
    bool answer(char call) {
        calls += call;
        return answers.at(answered++) == '1';
    }

    std::string calls;
    std::string answers;
    std::size_t answered = 0;
};

TYPED_TEST(SyncGuardContract, HolderKeepsOtherThreadsOutUntilItsLastUnlock) {
    ISyncGuard& guard = this->m_guard;
    guard.UnlockWrite();  // surplus unlocks of a free lock do no harm
    guard.UnlockRead();
    for (const bool read : {kWrite, kRead}) {
        for (const bool lockNow : {true, false}) {
            SCOPED_TRACE(std::string(read ? "read" : "write") + (lockNow ? ", Lock" : ", TryLock"));
            CReadWriteLock hold(guard, read, lockNow);
            ASSERT_TRUE(lockNow || hold.TryLock());
            EXPECT_FALSE(otherThreadGets(guard, kWrite));
            EXPECT_EQ(otherThreadGets(guard, kRead), read && TestFixture::kSharedReads);
            hold.Unlock();
            EXPECT_TRUE(otherThreadGets(guard, kWrite) && otherThreadGets(guard, kRead));
        }
    }
    guard.UnlockWrite();  // after holds as well
    guard.UnlockRead();
    EXPECT_TRUE(otherThreadGets(guard, kWrite));

    // Re-entry where the guard allows it; a waiter gets the lock at the last unlock.
    ASSERT_TRUE(guard.LockWrite()) << "still usable";
    if constexpr (TestFixture::kReentrant) {
        EXPECT_TRUE(guard.LockRead());
        EXPECT_TRUE(guard.TryLockWrite());
        EXPECT_TRUE(guard.TryLockRead());
        EXPECT_FALSE(otherThreadGets(guard, kRead)) << "read and write are one lock";
        guard.UnlockRead();
        guard.UnlockWrite();
        guard.UnlockRead();
    } else {
        EXPECT_FALSE(guard.TryLockRead()) << "not even for the holder";
    }
    TesselTest::AsyncCall waiter([&] {
        CReadWriteLock hold(guard, kRead, true);
        return Tessel::Platform::DWORD{1};
    });
    EXPECT_TRUE(waiter.blocked(TestFixture::kWaitCall));
    EXPECT_FALSE(waiter.done()) << "one hold is still outstanding";
    guard.UnlockWrite();
    ASSERT_TRUE(waiter.finishes());
    EXPECT_TRUE(otherThreadGets(guard, kWrite) && otherThreadGets(guard, kRead)) << "let go";
    // The fixture destroys it while held: what stays behind shows under the sanitizers.
    ASSERT_TRUE(guard.LockRead());
    ASSERT_TRUE(!TestFixture::kReentrant || (guard.LockWrite() && guard.LockRead()));
}

TYPED_TEST(SyncGuardContract, ReadersNeverSeeAWriteHalfDoneAndNoWriteIsLost) {
    long first = 0, second = 0;  // plain data: the thread sanitizer checks the lock's edges
    std::atomic<long> writes{0}, faults{0};
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 4000; ++i) {
                const bool read = (i + t) % 2 == 0, wait = (i / 2) % 2 == 0;
                CReadWriteLock hold(this->m_guard, read, false);
                if (!(wait ? hold.Lock() : hold.TryLock())) {
                    faults += wait;  // a waiting lock is always granted
                } else if (read) {
                    const long seen = first;
                    std::this_thread::yield();
                    faults += seen != second;
                } else {
                    ++first;
                    std::this_thread::yield();
                    ++second;
                    ++writes;
                }
            }
        });
    }
    threads.clear();  // joins them
    EXPECT_EQ(faults.load(), 0);
    EXPECT_GE(writes.load(), 4000) << "at least every waiting write";
    EXPECT_EQ(first, writes.load());
    EXPECT_EQ(second, writes.load());
    ASSERT_TRUE(this->m_guard.LockWrite());  // and destroyed while held
}

TEST(SyncGuard, GuardsThatLockNothingGrantEverythingToEveryThread) {
    CDummySyncGuard dummy;
    CVelkorPseudoReaderWriterLock pseudo;
    for (ISyncGuard* guard : std::initializer_list<ISyncGuard*>{&dummy, &pseudo}) {
        guard->UnlockWrite();
        EXPECT_TRUE(guard->LockWrite() && guard->LockRead());
        EXPECT_TRUE(guard->TryLockWrite() && guard->TryLockRead());
        EXPECT_TRUE(otherThreadGets(*guard, kWrite) && otherThreadGets(*guard, kRead));
        guard->UnlockRead();
    }
}

TEST(ReadWriteLock, EndsExactlyTheHoldsThatWereGrantedOnItsSide) {
    for (const bool read : {kRead, kWrite}) {
        RecordingGuard guard;
        guard.answers = "100110";
        {
            CReadWriteLock lock(guard, read, false);
            EXPECT_TRUE(lock.Lock());
            EXPECT_FALSE(lock.TryLock());
            EXPECT_FALSE(lock.Lock());
            EXPECT_TRUE(lock.TryLock());
            lock.Unlock();
            CReadWriteLock now(guard, read, true);
            now.Unlock();
            now.Unlock();  // surplus
            CReadWriteLock refused(guard, read, true);
            CReadWriteLock idle(guard, read, false);
            idle.Unlock();
        }
        EXPECT_EQ(guard.calls, read ? "ltltululu" : "LTLTULULU");  // lock ended its last hold
    }
}
