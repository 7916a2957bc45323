// CReaderWriterSyncGuard beyond the guard contract: reader count, writers first, copies.
#include "tessel/base/ReaderWriterSyncGuard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <tuple>

#include "support/WaitProbe.h"
#include "tessel/base/ReadWriteLock.h"
#include "tessel/platform/Types.h"

using namespace TesselTest;
using Tessel::Platform::DWORD;

constexpr bool kRead = true;
constexpr bool kWrite = false;

// Whether another thread gets the read (or write) lock at once; it gives it back.
static bool otherThreadGets(ISyncGuard& guard, bool read) {
    const auto probe = [&] { return CReadWriteLock(guard, read, false).TryLock(); };
    return std::async(std::launch::async, probe).get();
}

TEST(ReaderWriterSyncGuard, EveryReaderOfOneThreadCountsAndKeepsWritersOut) {
    CReaderWriterSyncGuard guard;
    ASSERT_TRUE(guard.LockRead());
    ASSERT_TRUE(guard.TryLockRead());
    EXPECT_FALSE(guard.TryLockWrite()) << "a reader is kept out of the write lock";
    guard.UnlockRead();
    EXPECT_FALSE(otherThreadGets(guard, kWrite)) << "one reader is still inside";
    guard.UnlockRead();
    EXPECT_TRUE(otherThreadGets(guard, kWrite));
}

TEST(ReaderWriterSyncGuard, WritersHavePriorityOverNewReaders) {
    CReaderWriterSyncGuard guard;
    ASSERT_TRUE(guard.LockRead());  // the reader inside
    std::atomic<bool> newReaderIn{false};
    AsyncCall writer([&] {
        CReadWriteLock lock(guard, kWrite, false);
        return DWORD{lock.Lock() && !newReaderIn};
    });
    ASSERT_TRUE(writer.blocked()) << "the writer waits for the reader inside";
    EXPECT_FALSE(writer.done());

    // A reader that arrives now is held at the door, although only a reader is inside.
    EXPECT_FALSE(otherThreadGets(guard, kRead));
    AsyncCall reader([&] {
        CReadWriteLock lock(guard, kRead, false);
        newReaderIn = lock.Lock();
        return DWORD{newReaderIn};
    });
    ASSERT_TRUE(reader.blocked());
    EXPECT_FALSE(reader.done());
    guard.UnlockRead();  // the reader inside leaves
    ASSERT_TRUE(writer.finishes() && reader.finishes());
    EXPECT_EQ(writer.result(), 1u) << "the writer went first";
    EXPECT_EQ(reader.result(), 1u);
}

TEST(ReaderWriterSyncGuard, WritersSecondLockFailsAtOnceAndKeepsOtherWritersOut) {
    // How the writer asks again; whether other threads may read afterwards.
    const std::tuple<const char*, std::function<bool(CReaderWriterSyncGuard&)>, bool> cases[] = {
        {"LockWrite", [](CReaderWriterSyncGuard& g) { return g.LockWrite() && !g.LockWrite(); },
         false},
        // No debugger is attached: its break does nothing visible.
        {"TryLockWrite",
         [](CReaderWriterSyncGuard& g) { return g.LockWrite() && !g.TryLockWrite(); }, false},
        // The holder does not count the failed hold, and ends the one it has.
        {"ScopedHolder",
         [](CReaderWriterSyncGuard& g) {
             CReadWriteLock lock(g, kWrite, true);
             CReadWriteLock again(g, kWrite, false);
             return !again.Lock();
         },
         true},
    };
    // Never destroyed: the writer section stays entered for good, and a section must not be
    // deleted while it is entered.
    static auto* const kept = new CReaderWriterSyncGuard[3];
    int i = 0;
    for (const auto& [name, askAgain, othersRead] : cases) {
        SCOPED_TRACE(name);
        CReaderWriterSyncGuard& guard = kept[i++];
        AsyncCall writer([&] { return DWORD{askAgain(guard)}; });
        ASSERT_TRUE(writer.finishes());
        EXPECT_EQ(writer.result(), 1u) << "the second lock failed";
        EXPECT_EQ(otherThreadGets(guard, kRead), othersRead);
        EXPECT_FALSE(otherThreadGets(guard, kWrite));
    }
}

TEST(ReaderWriterSyncGuard, LockWriteOfAThreadThatGotTheLockByTryLockWriteWaitsForItsRelease) {
    CReaderWriterSyncGuard guard;
    std::atomic<bool> first{false};
    AsyncCall writer([&] {
        first = guard.TryLockWrite();
        return DWORD{guard.LockWrite()};
    });
    ASSERT_TRUE(eventually([&] { return first.load(); }));
    ASSERT_TRUE(writer.blocked()) << "not recorded as the writer: it waits";
    EXPECT_FALSE(writer.done());
    guard.UnlockWrite();  // from another thread: not checked
    ASSERT_TRUE(writer.finishes());
    EXPECT_EQ(writer.result(), 1u);
    EXPECT_FALSE(otherThreadGets(guard, kRead));
    guard.UnlockWrite();
    EXPECT_TRUE(otherThreadGets(guard, kRead));
}

TEST(ReaderWriterSyncGuard, CopiesShareTheLock) {
    CReaderWriterSyncGuard original;
    CReaderWriterSyncGuard copy(original);
    CReaderWriterSyncGuard assigned;
    assigned = original;
    assigned = assigned;

    ASSERT_TRUE(original.LockRead());
    EXPECT_FALSE(otherThreadGets(copy, kWrite) || otherThreadGets(assigned, kWrite));
    original.UnlockRead();
    ASSERT_TRUE(copy.LockWrite());
    EXPECT_FALSE(otherThreadGets(original, kRead) || otherThreadGets(assigned, kRead));
    copy.UnlockWrite();
    EXPECT_TRUE(otherThreadGets(original, kRead));

    // Each copy may end on its own; the last one frees what they share.
    std::make_unique<CReaderWriterSyncGuard>(original).reset();
    EXPECT_TRUE(otherThreadGets(original, kWrite));
}
