// What every ISyncGuard that really locks promises, one typed suite over the critical section,
// the unnamed and the named mutex, the reader/writer guard and the spin lock, taken directly
// and through the scoped holder CReadWriteLock; the guards that lock nothing; and the holder
// against a mock guard: which side it takes, and that it ends exactly the holds it was granted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
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

using ::testing::InSequence;
using ::testing::Return;
using ::testing::StrictMock;

namespace {

constexpr bool kRead = true;
constexpr bool kWrite = false;

// Whether another thread gets the read (or write) lock at once; it gives it back.
bool otherThreadGets(ISyncGuard& guard, bool read) {
    const auto probe = [&] { return CReadWriteLock(guard, read, false).TryLock(); };
    return std::async(std::launch::async, probe).get();
}

}  // namespace

// Each guard with what its contract says: whether its holder may take it again (one unlock per
// hold), whether readers share it, and the system call in which a waiting thread sleeps.
namespace Kind {

template <bool reentrant, bool sharedReads, long waitCall>
struct Traits {
    static constexpr bool kReentrant = reentrant;
    static constexpr bool kSharedReads = sharedReads;
    static constexpr long kWaitCall = waitCall;
};

struct CriticalSection : CCriticalSectionSyncGuard, Traits<true, false, SYS_futex> {};

struct UnnamedMutex : CMutexSyncGuard, Traits<true, false, SYS_futex> {
    UnnamedMutex() { EXPECT_TRUE(Create(false, nullptr, nullptr)); }
};

struct NamedMutex : CMutexSyncGuard, Traits<true, false, SYS_futex> {
    NamedMutex() {
        static int count = 0;
        const std::string name = "Global\\TesselTest." +
                                 std::to_string(Tessel::Platform::GetCurrentProcessId()) + "." +
                                 std::to_string(++count);
        EXPECT_TRUE(Create(false, name.c_str(), nullptr));
    }
};

struct ReaderWriter : CReaderWriterSyncGuard, Traits<false, true, SYS_ppoll> {};

// Its sleep every tenth round is a timed futex wait.
struct SpinLock : LockFreeSpinLock, Traits<false, false, SYS_futex> {};

}  // namespace Kind

namespace {

template <class Guard>
class SyncGuardContract : public ::testing::Test {
  protected:
    // The mutex guard traces every refused probe; keep that out of the system log.
    TesselTest::DebugOutputCapture m_trace;
    Guard m_guard;
};

using Kinds = ::testing::Types<Kind::CriticalSection, Kind::UnnamedMutex, Kind::NamedMutex,
                               Kind::ReaderWriter, Kind::SpinLock>;
TYPED_TEST_SUITE(SyncGuardContract, Kinds);

}  // namespace

TYPED_TEST(SyncGuardContract, HolderKeepsOtherThreadsOutUntilItLetsGo) {
    ISyncGuard& guard = this->m_guard;
    guard.UnlockWrite();  // surplus unlocks of a free lock do no harm
    guard.UnlockRead();
    for (const bool read : {kWrite, kRead}) {
        for (const bool lockNow : {true, false}) {
            SCOPED_TRACE(std::string(read ? "read" : "write") + (lockNow ? ", Lock" : ", TryLock"));
            CReadWriteLock hold(guard, read, lockNow);
            ASSERT_TRUE(lockNow || hold.TryLock());
            EXPECT_FALSE(otherThreadGets(guard, kWrite));
            EXPECT_EQ(otherThreadGets(guard, kRead), read && TypeParam::kSharedReads);
            hold.Unlock();
            EXPECT_TRUE(otherThreadGets(guard, kWrite));
            EXPECT_TRUE(otherThreadGets(guard, kRead));
        }
    }
    guard.UnlockWrite();  // after holds as well
    guard.UnlockRead();
    EXPECT_TRUE(otherThreadGets(guard, kWrite));
    ASSERT_TRUE(guard.LockWrite()) << "still usable";
    EXPECT_FALSE(otherThreadGets(guard, kWrite));
    guard.UnlockWrite();
}

TYPED_TEST(SyncGuardContract, WaitingThreadGetsTheLockOnceItIsFree) {
    ISyncGuard& guard = this->m_guard;
    ASSERT_TRUE(guard.LockWrite());
    TesselTest::AsyncCall waiter([&] {
        CReadWriteLock hold(guard, kRead, true);
        return Tessel::Platform::DWORD{1};
    });
    EXPECT_TRUE(waiter.blocked(TypeParam::kWaitCall));
    EXPECT_FALSE(waiter.done());
    guard.UnlockWrite();
    ASSERT_TRUE(waiter.finishes());
    EXPECT_TRUE(otherThreadGets(guard, kWrite)) << "the waiter's holder let go at its end";
}

TYPED_TEST(SyncGuardContract, ReadersNeverSeeAWriteHalfDoneAndNoWriteIsLost) {
    // Written under the write lock, read under the read lock. Plain data, so that the thread
    // sanitizer checks the lock's happens-before edges as well.
    long first = 0;
    long second = 0;
    std::atomic<long> writes{0};
    std::atomic<int> faults{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 4000; ++i) {
                const bool read = (i + t) % 2 == 0;
                const bool wait = (i / 2) % 2 == 0;
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
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(faults.load(), 0);
    EXPECT_GE(writes.load(), 4000) << "at least every waiting write";
    EXPECT_EQ(first, writes.load());
    EXPECT_EQ(second, writes.load());
}

TYPED_TEST(SyncGuardContract, HolderTakesItAgainOnlyWhereTheGuardIsReentrant) {
    ISyncGuard& guard = this->m_guard;
    ASSERT_TRUE(guard.LockWrite());
    if constexpr (TypeParam::kReentrant) {
        EXPECT_TRUE(guard.LockRead());
        EXPECT_TRUE(guard.TryLockWrite());
        EXPECT_TRUE(guard.TryLockRead());
        EXPECT_FALSE(otherThreadGets(guard, kWrite));
        EXPECT_FALSE(otherThreadGets(guard, kRead)) << "read and write are one lock";
        guard.UnlockRead();
        guard.UnlockWrite();
        guard.UnlockRead();
    } else {
        EXPECT_FALSE(guard.TryLockRead()) << "not even for the holder";
    }
    EXPECT_FALSE(otherThreadGets(guard, kWrite)) << "one hold is still outstanding";
    guard.UnlockWrite();
    EXPECT_TRUE(otherThreadGets(guard, kWrite));
    EXPECT_TRUE(otherThreadGets(guard, kRead));
}

TYPED_TEST(SyncGuardContract, DestroyedWhileHeld) {
    // A critical section deleted while entered shows under the thread sanitizer, a mutex
    // closed while held as a leak under the address sanitizer; many times over.
    for (int i = 0; i < 100; ++i) {
        auto guard = std::make_unique<TypeParam>();
        ASSERT_TRUE(i % 2 == 0 ? guard->LockWrite() : guard->LockRead());
        if constexpr (TypeParam::kReentrant) {
            ASSERT_TRUE(guard->LockWrite());
            ASSERT_TRUE(guard->LockRead());
        }
    }
}

TEST(SyncGuard, GuardsThatLockNothingGrantEverythingToEveryThread) {
    CDummySyncGuard dummy;
    CVelkorPseudoReaderWriterLock pseudo;
    for (ISyncGuard* guard : std::initializer_list<ISyncGuard*>{&dummy, &pseudo}) {
        guard->UnlockWrite();
        EXPECT_TRUE(guard->LockWrite());
        EXPECT_TRUE(guard->LockRead());
        EXPECT_TRUE(guard->TryLockWrite());
        EXPECT_TRUE(guard->TryLockRead());
        EXPECT_TRUE(otherThreadGets(*guard, kWrite));
        EXPECT_TRUE(otherThreadGets(*guard, kRead));
        guard->UnlockRead();
        guard->UnlockWrite();
    }
}

namespace {

class MockGuard : public ISyncGuard {
  public:
    MOCK_METHOD(bool, TryLockRead, (), (override));
    MOCK_METHOD(bool, LockRead, (), (override));
    MOCK_METHOD(void, UnlockRead, (), (override));
    MOCK_METHOD(bool, TryLockWrite, (), (override));
    MOCK_METHOD(bool, LockWrite, (), (override));
    MOCK_METHOD(void, UnlockWrite, (), (override));
};

// A holder of the read or the write side, against a mock that fails the test at any call
// that is not expected.
struct Side {
    bool read;
    const char* name;
};

class ReadWriteLockSides : public ::testing::TestWithParam<Side> {
  protected:
    auto& expectLock() {
        return GetParam().read ? EXPECT_CALL(m_guard, LockRead())
                               : EXPECT_CALL(m_guard, LockWrite());
    }
    auto& expectTryLock() {
        return GetParam().read ? EXPECT_CALL(m_guard, TryLockRead())
                               : EXPECT_CALL(m_guard, TryLockWrite());
    }
    auto& expectUnlock() {
        return GetParam().read ? EXPECT_CALL(m_guard, UnlockRead())
                               : EXPECT_CALL(m_guard, UnlockWrite());
    }

    StrictMock<MockGuard> m_guard;
};

}  // namespace

TEST_P(ReadWriteLockSides, EveryGrantedHoldIsEndedOnceAndRefusalsAreNotCounted) {
    InSequence order;
    expectLock().WillOnce(Return(true));
    expectTryLock().WillOnce(Return(false));
    expectLock().WillOnce(Return(false));
    expectTryLock().WillOnce(Return(true));
    expectUnlock().Times(2);
    CReadWriteLock lock(m_guard, GetParam().read, false);
    EXPECT_TRUE(lock.Lock());
    EXPECT_FALSE(lock.TryLock());
    EXPECT_FALSE(lock.Lock());
    EXPECT_TRUE(lock.TryLock());
}

TEST_P(ReadWriteLockSides, LockNowAndUnlockEndsOneHoldAndSurplusUnlocksDoNothing) {
    InSequence order;
    expectLock().WillOnce(Return(true));
    expectUnlock().Times(1);
    CReadWriteLock lock(m_guard, GetParam().read, true);
    lock.Unlock();
    lock.Unlock();
    lock.Unlock();
}

TEST_P(ReadWriteLockSides, HolderWithoutAGrantedHoldReleasesNothing) {
    expectLock().WillOnce(Return(false));
    CReadWriteLock refused(m_guard, GetParam().read, true);
    CReadWriteLock idle(m_guard, GetParam().read, false);
    idle.Unlock();
}

INSTANTIATE_TEST_SUITE_P(ReadWriteLock, ReadWriteLockSides,
                         ::testing::Values(Side{true, "Read"}, Side{false, "Write"}),
                         TesselTest::ParamName());
