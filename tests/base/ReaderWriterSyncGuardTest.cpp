// CReaderWriterSyncGuard: sharing, exclusion, writers first, the writer's second lock, copies,
// and a stress of readers and writers under an invariant.
#include "tessel/base/ReaderWriterSyncGuard.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <ostream>
#include <thread>
#include <vector>

#include "support/WaitProbe.h"
#include "support/TestSupport.h"
#include "tessel/base/ReadWriteLock.h"
#include "tessel/platform/Types.h"

using Tessel::Platform::DWORD;
using TesselTest::AsyncCall;
using TesselTest::eventually;

namespace {

bool onOtherThread(const std::function<bool()>& call) {
    return std::async(std::launch::async, call).get();
}

// Whether another thread gets the read (or write) lock at once; it gives it back.
bool otherThreadReads(CReaderWriterSyncGuard& guard) {
    return onOtherThread([&] {
        const bool locked = guard.TryLockRead();
        if (locked) {
            guard.UnlockRead();
        }
        return locked;
    });
}

bool otherThreadWrites(CReaderWriterSyncGuard& guard) {
    return onOtherThread([&] {
        const bool locked = guard.TryLockWrite();
        if (locked) {
            guard.UnlockWrite();
        }
        return locked;
    });
}

// A guard that is never destroyed: after a thread asked twice for the write lock, the writer
// section stays entered for good, and a section may not be deleted while it is entered.
CReaderWriterSyncGuard& guardKeptForever() {
    static std::vector<std::unique_ptr<CReaderWriterSyncGuard>>* kept =
        new std::vector<std::unique_ptr<CReaderWriterSyncGuard>>;
    kept->push_back(std::make_unique<CReaderWriterSyncGuard>());
    return *kept->back();
}

struct HeldCase {
    const char* name;
    std::function<void(CReaderWriterSyncGuard&)> take;
    std::function<void(CReaderWriterSyncGuard&)> give;
    bool othersRead;
    bool othersWrite;
};

void PrintTo(const HeldCase& c, std::ostream* out) {
    *out << c.name;
}

class ReaderWriterHeld : public ::testing::TestWithParam<HeldCase> {};

}  // namespace

TEST_P(ReaderWriterHeld, OthersGetWhatTheHolderLeaves) {
    const HeldCase& c = GetParam();
    CReaderWriterSyncGuard guard;
    c.take(guard);
    EXPECT_EQ(otherThreadReads(guard), c.othersRead);
    EXPECT_EQ(otherThreadWrites(guard), c.othersWrite);
    c.give(guard);
    EXPECT_TRUE(otherThreadReads(guard));
    EXPECT_TRUE(otherThreadWrites(guard));
}

INSTANTIATE_TEST_SUITE_P(
    ReaderWriterSyncGuard, ReaderWriterHeld,
    ::testing::Values(
        HeldCase{"Nothing", [](CReaderWriterSyncGuard&) {}, [](CReaderWriterSyncGuard&) {}, true,
                 true},
        HeldCase{"LockRead", [](CReaderWriterSyncGuard& g) { ASSERT_TRUE(g.LockRead()); },
                 [](CReaderWriterSyncGuard& g) { g.UnlockRead(); }, true, false},
        HeldCase{"TwoReads",
                 [](CReaderWriterSyncGuard& g) {
                     ASSERT_TRUE(g.LockRead());
                     ASSERT_TRUE(g.TryLockRead());
                 },
                 [](CReaderWriterSyncGuard& g) {
                     g.UnlockRead();
                     g.UnlockRead();
                 },
                 true, false},
        HeldCase{"LockWrite", [](CReaderWriterSyncGuard& g) { ASSERT_TRUE(g.LockWrite()); },
                 [](CReaderWriterSyncGuard& g) { g.UnlockWrite(); }, false, false},
        HeldCase{"TryLockWrite", [](CReaderWriterSyncGuard& g) { ASSERT_TRUE(g.TryLockWrite()); },
                 [](CReaderWriterSyncGuard& g) { g.UnlockWrite(); }, false, false},
        HeldCase{"SurplusUnlockRead", [](CReaderWriterSyncGuard& g) { g.UnlockRead(); },
                 [](CReaderWriterSyncGuard&) {}, true, true}),
    TesselTest::ParamName());

TEST(ReaderWriterSyncGuard, ReadLockIsNotReentrantForAWriter) {
    CReaderWriterSyncGuard guard;
    ASSERT_TRUE(guard.LockWrite());
    EXPECT_FALSE(guard.TryLockRead()) << "the writer itself is kept out of the read lock";
    guard.UnlockWrite();
    EXPECT_TRUE(guard.TryLockRead());
    EXPECT_FALSE(guard.TryLockWrite()) << "a reader is kept out of the write lock";
    guard.UnlockRead();
}

TEST(ReaderWriterSyncGuard, WritersHavePriorityOverNewReaders) {
    CReaderWriterSyncGuard guard;
    ASSERT_TRUE(guard.LockRead());  // the reader inside

    std::atomic<bool> writerIn{false};
    std::atomic<bool> readerInWhileWriterIn{false};
    std::atomic<bool> newReaderIn{false};
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    AsyncCall writer([&] {
        const bool locked = guard.LockWrite();
        writerIn = true;
        readerInWhileWriterIn = newReaderIn.load();
        released.wait();
        guard.UnlockWrite();
        return DWORD{locked ? 1u : 0u};
    });
    ASSERT_TRUE(writer.blocked(SYS_ppoll)) << "the writer waits for the reader inside";
    EXPECT_FALSE(writerIn);

    // A reader that arrives now is held at the door, although only a reader is inside.
    EXPECT_FALSE(otherThreadReads(guard));
    AsyncCall reader([&] {
        const bool locked = guard.LockRead();
        newReaderIn = true;
        guard.UnlockRead();
        return DWORD{locked ? 1u : 0u};
    });
    ASSERT_TRUE(reader.blocked(SYS_ppoll));
    EXPECT_FALSE(reader.done());

    guard.UnlockRead();  // the reader inside leaves: the writer goes first
    ASSERT_TRUE(eventually([&] { return writerIn.load(); }));
    EXPECT_FALSE(readerInWhileWriterIn);
    EXPECT_FALSE(reader.done());
    release.set_value();
    ASSERT_TRUE(writer.finishes());
    ASSERT_TRUE(reader.finishes());
    EXPECT_EQ(writer.result(), 1u);
    EXPECT_EQ(reader.result(), 1u);
}

TEST(ReaderWriterSyncGuard, SecondLockWriteByTheWriterReturnsFalseWithoutDeadlock) {
    CReaderWriterSyncGuard& guard = guardKeptForever();
    AsyncCall writer([&] {
        if (!guard.LockWrite()) {
            return DWORD{0xBAD};
        }
        return DWORD{guard.LockWrite() ? 1u : 0u};
    });
    ASSERT_TRUE(writer.finishes(std::chrono::seconds(10)));
    EXPECT_EQ(writer.result(), 0u);
    EXPECT_FALSE(otherThreadReads(guard)) << "the first hold stands";
    EXPECT_FALSE(otherThreadWrites(guard));
}

TEST(ReaderWriterSyncGuard, ScopedHolderDoesNotCountTheWritersSecondLock) {
    CReaderWriterSyncGuard& guard = guardKeptForever();
    AsyncCall writer([&] {
        CReadWriteLock lock(guard, false, true);
        CReadWriteLock again(guard, false, false);
        return DWORD{again.Lock() ? 1u : 0u};
    });
    ASSERT_TRUE(writer.finishes(std::chrono::seconds(10)));
    EXPECT_EQ(writer.result(), 0u);
    EXPECT_TRUE(otherThreadReads(guard)) << "the one counted hold was ended";
    EXPECT_FALSE(otherThreadWrites(guard))
        << "the writer section stays entered by the thread that asked twice";
}

TEST(ReaderWriterSyncGuard, TryLockWriteByTheWriterBreaksIntoADebuggerAndReturnsFalse) {
    CReaderWriterSyncGuard& guard = guardKeptForever();
    AsyncCall writer([&] {
        if (!guard.LockWrite()) {
            return DWORD{0xBAD};
        }
        // No debugger is attached: the break does nothing visible.
        return DWORD{guard.TryLockWrite() ? 1u : 0u};
    });
    ASSERT_TRUE(writer.finishes(std::chrono::seconds(10)));
    EXPECT_EQ(writer.result(), 0u);
    EXPECT_FALSE(otherThreadReads(guard));
}

TEST(ReaderWriterSyncGuard, LockWriteOfAThreadThatGotTheLockByTryLockWriteWaitsForItsRelease) {
    CReaderWriterSyncGuard guard;
    std::atomic<bool> first{false};
    AsyncCall writer([&] {
        first = guard.TryLockWrite();
        return DWORD{guard.LockWrite() ? 1u : 0u};
    });
    ASSERT_TRUE(eventually([&] { return first.load(); }));
    ASSERT_TRUE(writer.blocked(SYS_ppoll)) << "not recorded as the writer: it waits";
    EXPECT_FALSE(writer.done());
    guard.UnlockWrite();  // from another thread: not checked
    ASSERT_TRUE(writer.finishes());
    EXPECT_EQ(writer.result(), 1u);
    EXPECT_FALSE(otherThreadReads(guard));
    guard.UnlockWrite();
    EXPECT_TRUE(otherThreadReads(guard));
}

TEST(ReaderWriterSyncGuard, SurplusUnlockReadDrivesTheCountBelowZeroWhichStillMeansNoReaders) {
    CReaderWriterSyncGuard guard;
    guard.UnlockRead();
    guard.UnlockRead();  // the count is -2
    EXPECT_TRUE(otherThreadWrites(guard));
    ASSERT_TRUE(guard.LockRead());  // -1, but announced: "no readers" is reset
    EXPECT_FALSE(otherThreadWrites(guard));
    guard.UnlockRead();
    EXPECT_TRUE(otherThreadWrites(guard));
}

TEST(ReaderWriterSyncGuard, CopiesShareTheLock) {
    CReaderWriterSyncGuard original;
    CReaderWriterSyncGuard copy(original);
    CReaderWriterSyncGuard assigned;
    assigned = original;
    assigned = assigned;

    ASSERT_TRUE(original.LockRead());
    EXPECT_FALSE(otherThreadWrites(copy));
    EXPECT_FALSE(otherThreadWrites(assigned));
    original.UnlockRead();
    ASSERT_TRUE(copy.LockWrite());
    EXPECT_FALSE(otherThreadReads(original));
    EXPECT_FALSE(otherThreadReads(assigned));
    copy.UnlockWrite();
    EXPECT_TRUE(otherThreadReads(original));

    // Each copy may end on its own; the last one frees what they share.
    auto* early = new CReaderWriterSyncGuard(original);
    delete early;
    EXPECT_TRUE(otherThreadWrites(original));
}

TEST(ReaderWriterSyncGuard, DestroyedWhateverItsState) {
    for (int i = 0; i < 100; ++i) {
        auto* guard = new CReaderWriterSyncGuard;
        switch (i % 3) {
            case 0:
                ASSERT_TRUE(guard->LockRead());
                break;
            case 1:
                ASSERT_TRUE(guard->LockWrite());
                break;
            default:
                guard->UnlockRead();
                break;
        }
        delete guard;
    }
}

TEST(ReaderWriterSyncGuard, StressOfReadersAndWritersKeepsTheInvariant) {
    constexpr int kReaders = 4;
    constexpr int kWriters = 2;
    constexpr int kReadsEach = 20000;
    constexpr int kWritesEach = 6000;

    CReaderWriterSyncGuard guard;
    std::atomic<int> readersInside{0};
    std::atomic<int> writersInside{0};
    std::atomic<int> violations{0};
    // Written by writers only, under the write lock; read by readers under the read lock.
    // Plain data, so that the thread sanitizer checks the lock's happens-before edges.
    long first = 0;
    long second = 0;

    auto read = [&] {
        readersInside.fetch_add(1);
        if (writersInside.load() != 0) {
            violations.fetch_add(1);
        }
        const long a = first;
        std::this_thread::yield();
        const long b = second;
        if (a != b) {
            violations.fetch_add(1);
        }
        readersInside.fetch_sub(1);
    };
    auto write = [&] {
        if (writersInside.fetch_add(1) != 0 || readersInside.load() != 0) {
            violations.fetch_add(1);
        }
        ++first;
        std::this_thread::yield();
        ++second;
        writersInside.fetch_sub(1);
    };

    std::vector<std::thread> threads;
    for (int r = 0; r < kReaders; ++r) {
        threads.emplace_back([&, r] {
            for (int i = 0; i < kReadsEach; ++i) {
                switch ((i + r) % 3) {
                    case 0:
                        guard.LockRead();
                        read();
                        guard.UnlockRead();
                        break;
                    case 1:
                        if (guard.TryLockRead()) {
                            read();
                            guard.UnlockRead();
                        }
                        break;
                    default: {
                        CReadWriteLock lock(guard, true, true);
                        read();
                        break;
                    }
                }
            }
        });
    }
    std::atomic<long> writes{0};
    for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([&, w] {
            for (int i = 0; i < kWritesEach; ++i) {
                if ((i + w) % 2 == 0) {
                    if (guard.LockWrite()) {
                        write();
                        writes.fetch_add(1);
                        guard.UnlockWrite();
                    } else {
                        violations.fetch_add(1);  // never the writer already
                    }
                } else if (guard.TryLockWrite()) {
                    write();
                    writes.fetch_add(1);
                    guard.UnlockWrite();
                }
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(violations.load(), 0);
    EXPECT_GE(writes.load(), static_cast<long>(kWriters * kWritesEach / 2));
    ASSERT_TRUE(guard.TryLockWrite());
    EXPECT_EQ(first, writes.load());
    EXPECT_EQ(second, writes.load());
    guard.UnlockWrite();
    EXPECT_TRUE(otherThreadReads(guard));
}
