// The guard interface, the critical-section guard, the two guards that lock nothing and the
// scoped holder CReadWriteLock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <functional>
#include <future>
#include <memory>
#include <ostream>
#include <thread>
#include <type_traits>

#include "support/WaitProbe.h"
#include "support/TestSupport.h"
#include "tessel/base/CriticalSectionSyncGuard.h"
#include "tessel/base/DummySyncGuard.h"
#include "tessel/base/ISyncGuard.h"
#include "tessel/base/MutexSyncGuard.h"
#include "tessel/base/ReadWriteLock.h"
#include "tessel/base/ReaderWriterSyncGuard.h"
#include "tessel/base/VelkorPseudoReaderWriterLock.h"

using ::testing::InSequence;
using ::testing::Return;
using ::testing::StrictMock;

// Copying as each class declares it.
static_assert(std::is_abstract_v<ISyncGuard>);
static_assert(std::has_virtual_destructor_v<ISyncGuard>);
static_assert(!std::is_copy_constructible_v<CCriticalSectionSyncGuard>);
static_assert(!std::is_copy_assignable_v<CCriticalSectionSyncGuard>);
static_assert(!std::is_copy_constructible_v<CMutexSyncGuard>);
static_assert(!std::is_copy_assignable_v<CMutexSyncGuard>);
static_assert(std::is_copy_constructible_v<CDummySyncGuard>);
static_assert(std::is_copy_assignable_v<CDummySyncGuard>);
static_assert(std::is_copy_constructible_v<CVelkorPseudoReaderWriterLock>);
static_assert(std::is_copy_assignable_v<CVelkorPseudoReaderWriterLock>);
static_assert(std::is_copy_constructible_v<CReaderWriterSyncGuard>);
static_assert(std::is_copy_assignable_v<CReaderWriterSyncGuard>);
static_assert(!std::is_copy_constructible_v<CReadWriteLock>);
static_assert(!std::is_copy_assignable_v<CReadWriteLock>);

namespace {

// Runs call on a thread of its own and returns its result.
bool onOtherThread(const std::function<bool()>& call) {
    return std::async(std::launch::async, call).get();
}

// A probe from another thread: whether it can take the write lock (released again at once).
bool otherThreadGetsWriteLock(ISyncGuard& guard) {
    return onOtherThread([&] {
        if (!guard.TryLockWrite()) {
            return false;
        }
        guard.UnlockWrite();
        return true;
    });
}

bool otherThreadGetsReadLock(ISyncGuard& guard) {
    return onOtherThread([&] {
        if (!guard.TryLockRead()) {
            return false;
        }
        guard.UnlockRead();
        return true;
    });
}

struct GuardKind {
    const char* name;
    std::function<std::unique_ptr<ISyncGuard>()> make;
    bool exclusive;  // holding it keeps other threads out
};

void PrintTo(const GuardKind& kind, std::ostream* out) {
    *out << kind.name;
}

std::unique_ptr<ISyncGuard> makeUnnamedMutexGuard() {
    auto guard = std::make_unique<CMutexSyncGuard>();
    EXPECT_TRUE(guard->Create(false, nullptr, nullptr));
    return guard;
}

class SyncGuardKinds : public ::testing::TestWithParam<GuardKind> {
  protected:
    // The mutex guard traces every refused probe; keep that out of the system log.
    TesselTest::DebugOutputCapture m_trace;
};

}  // namespace

TEST_P(SyncGuardKinds, OneThreadMayHoldItSeveralTimesAndNeedsOneUnlockPerHold) {
    const auto guard = GetParam().make();
    const bool exclusive = GetParam().exclusive;
    EXPECT_TRUE(guard->LockWrite());
    EXPECT_TRUE(guard->LockRead());
    EXPECT_TRUE(guard->TryLockWrite());
    EXPECT_TRUE(guard->TryLockRead());
    EXPECT_EQ(otherThreadGetsWriteLock(*guard), !exclusive);
    EXPECT_EQ(otherThreadGetsReadLock(*guard), !exclusive) << "read and write are one lock";
    guard->UnlockRead();
    guard->UnlockWrite();
    guard->UnlockRead();
    EXPECT_EQ(otherThreadGetsWriteLock(*guard), !exclusive) << "one hold is still outstanding";
    guard->UnlockWrite();
    EXPECT_TRUE(otherThreadGetsWriteLock(*guard));
    EXPECT_TRUE(otherThreadGetsReadLock(*guard));
}

TEST_P(SyncGuardKinds, SurplusUnlockDoesNothing) {
    const auto guard = GetParam().make();
    guard->UnlockWrite();  // on a guard that was never held
    guard->UnlockRead();
    EXPECT_TRUE(otherThreadGetsWriteLock(*guard));

    ASSERT_TRUE(guard->LockWrite());
    guard->UnlockWrite();
    guard->UnlockWrite();  // one more than held
    guard->UnlockRead();
    EXPECT_TRUE(otherThreadGetsWriteLock(*guard));
    ASSERT_TRUE(guard->LockWrite()) << "still usable by the same thread";
    EXPECT_EQ(otherThreadGetsWriteLock(*guard), !GetParam().exclusive);
    guard->UnlockWrite();
}

TEST_P(SyncGuardKinds, DestroyedWhileHeldReleasesWhatItHolds) {
    // A critical section deleted while entered shows under the thread sanitizer, a mutex
    // closed while held as a leak under the address sanitizer; many times over.
    for (int i = 0; i < 200; ++i) {
        auto guard = GetParam().make();
        ASSERT_TRUE(guard->LockWrite());
        ASSERT_TRUE(guard->LockWrite());
        ASSERT_TRUE(guard->LockRead());
        guard.reset();
    }
}

INSTANTIATE_TEST_SUITE_P(
    SyncGuard, SyncGuardKinds,
    ::testing::Values(GuardKind{"CriticalSection",
                                [] { return std::make_unique<CCriticalSectionSyncGuard>(); }, true},
                      GuardKind{"UnnamedMutex", &makeUnnamedMutexGuard, true},
                      GuardKind{"Dummy", [] { return std::make_unique<CDummySyncGuard>(); }, false},
                      GuardKind{"PseudoReaderWriter",
                                [] { return std::make_unique<CVelkorPseudoReaderWriterLock>(); },
                                false}),
    TesselTest::ParamName());

TEST(SyncGuard, CriticalSectionGuardKeepsOtherThreadsWaitingUntilReleased) {
    CCriticalSectionSyncGuard guard;
    ASSERT_TRUE(guard.LockWrite());
    TesselTest::AsyncCall waiter([&] {
        guard.LockRead();
        guard.UnlockRead();
        return Tessel::Platform::DWORD{1};
    });
    ASSERT_TRUE(waiter.blocked(SYS_futex));
    EXPECT_FALSE(waiter.done());
    guard.UnlockWrite();
    ASSERT_TRUE(waiter.finishes());
    EXPECT_EQ(waiter.result(), 1u);
}

// --- CReadWriteLock ---

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

// Expectations on the side of the guard that a holder of the given mode uses.
struct Side {
    bool read;
    const char* name;
};

void PrintTo(const Side& side, std::ostream* out) {
    *out << side.name;
}

class ReadWriteLockSides : public ::testing::TestWithParam<Side> {
  protected:
    auto& expectLock(StrictMock<MockGuard>& guard) {
        return GetParam().read ? EXPECT_CALL(guard, LockRead()) : EXPECT_CALL(guard, LockWrite());
    }
    auto& expectTryLock(StrictMock<MockGuard>& guard) {
        return GetParam().read ? EXPECT_CALL(guard, TryLockRead())
                               : EXPECT_CALL(guard, TryLockWrite());
    }
    auto& expectUnlock(StrictMock<MockGuard>& guard) {
        return GetParam().read ? EXPECT_CALL(guard, UnlockRead())
                               : EXPECT_CALL(guard, UnlockWrite());
    }
};

}  // namespace

TEST_P(ReadWriteLockSides, LockNowHoldsUntilTheEndOfTheScope) {
    StrictMock<MockGuard> guard;
    InSequence order;
    expectLock(guard).WillOnce(Return(true));
    expectUnlock(guard).Times(1);
    CReadWriteLock lock(guard, GetParam().read, true);
}

TEST_P(ReadWriteLockSides, WithoutLockNowItHoldsNothingAndItsEndDoesNothing) {
    StrictMock<MockGuard> guard;  // any call fails the test
    CReadWriteLock lock(guard, GetParam().read, false);
    lock.Unlock();
}

TEST_P(ReadWriteLockSides, EveryGrantedHoldIsEndedOnceAndRefusalsAreNotCounted) {
    StrictMock<MockGuard> guard;
    InSequence order;
    expectLock(guard).WillOnce(Return(true));
    expectTryLock(guard).WillOnce(Return(false));
    expectLock(guard).WillOnce(Return(false));
    expectTryLock(guard).WillOnce(Return(true));
    expectUnlock(guard).Times(2);
    {
        CReadWriteLock lock(guard, GetParam().read, false);
        EXPECT_TRUE(lock.Lock());
        EXPECT_FALSE(lock.TryLock());
        EXPECT_FALSE(lock.Lock());
        EXPECT_TRUE(lock.TryLock());
    }
}

TEST_P(ReadWriteLockSides, UnlockEndsOneHoldAndSurplusUnlocksDoNothing) {
    StrictMock<MockGuard> guard;
    InSequence order;
    expectLock(guard).WillOnce(Return(true));
    expectUnlock(guard).Times(1);
    CReadWriteLock lock(guard, GetParam().read, true);
    lock.Unlock();
    lock.Unlock();
    lock.Unlock();
}

TEST_P(ReadWriteLockSides, RefusedLockNowLeavesNothingToRelease) {
    StrictMock<MockGuard> guard;
    expectLock(guard).WillOnce(Return(false));
    CReadWriteLock lock(guard, GetParam().read, true);
}

INSTANTIATE_TEST_SUITE_P(ReadWriteLock, ReadWriteLockSides,
                         ::testing::Values(Side{true, "Read"}, Side{false, "Write"}),
                         TesselTest::ParamName());

TEST(ReadWriteLock, FailedLockOfAnUnusableGuardIsNotCounted) {
    TesselTest::DebugOutputCapture trace;
    CMutexSyncGuard guard;  // no mutex: every lock fails
    CReadWriteLock lock(guard, true, true);
    EXPECT_FALSE(lock.Lock());
    EXPECT_FALSE(lock.TryLock());
}
