// WaitForSingleObjectProcMsg and WaitForMultipleObjectsProcMsg: results, time-outs, the
// messages they dispatch, and the way the second one consumes its array.
#include "tessel/base/WaitProcMsg.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "support/WaitProbe.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/MessageQueue.h"
#include "tessel/platform/Mutex.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;
using namespace std::chrono_literals;
using TesselTest::AsyncCall;
using TesselTest::eventually;
using Clock = std::chrono::steady_clock;

namespace {

class ScopedEvent {
  public:
    explicit ScopedEvent(bool signalled = false)
        : m_handle(CreateEventA(nullptr, TRUE, signalled ? TRUE : FALSE, nullptr)) {}
    ~ScopedEvent() { CloseHandle(m_handle); }
    ScopedEvent(const ScopedEvent&) = delete;
    ScopedEvent& operator=(const ScopedEvent&) = delete;
    HANDLE get() const { return m_handle; }

  private:
    HANDLE m_handle;
};

// Makes the calling thread's queue; true if it is empty.
bool queueEmpty() {
    MSG message;
    return PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE) == FALSE;
}

std::chrono::milliseconds since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

std::atomic<int> g_dispatched{0};
std::atomic<DWORD> g_dispatchedOn{0};

void countDispatch(LPARAM) {
    g_dispatchedOn = GetCurrentThreadId();
    g_dispatched.fetch_add(1);
}

void signalOnDispatch(LPARAM event) {
    countDispatch(0);
    SetEvent(reinterpret_cast<HANDLE>(event));
}

// The handle that a thread abandons: it takes the mutex and ends.
HANDLE abandonedMutex() {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    std::thread([&] { WaitForSingleObject(mutex, 0); }).join();
    return mutex;
}

}  // namespace

TEST(WaitProcMsg, SingleResults) {
    ScopedEvent signalled(true);
    EXPECT_EQ(WaitForSingleObjectProcMsg(signalled.get(), nullptr, 0), 1);
    EXPECT_EQ(WaitForSingleObjectProcMsg(signalled.get(), nullptr, INFINITE), 1);
    EXPECT_EQ(WaitForSingleObjectProcMsg(signalled.get(), nullptr, 0x1FFFFFFFFul), 1);
    EXPECT_EQ(WaitForSingleObjectProcMsg(nullptr, nullptr, 1000), 0) << "a failed wait";
    ScopedEvent event;
    const auto start = Clock::now();
    EXPECT_EQ(WaitForSingleObjectProcMsg(event.get(), nullptr, 100), 0);
    EXPECT_GE(since(start), 90ms);
}

TEST(WaitProcMsg, SingleWithTimeoutZeroPumpsOnceAndReturnsZero) {
    ScopedEvent event;
    queueEmpty();
    ASSERT_TRUE(PostThreadCallback(GetCurrentThreadId(), &countDispatch, 0));
    ASSERT_TRUE(PostThreadCallback(GetCurrentThreadId(), &countDispatch, 0));
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER, 0, 0));
    EXPECT_EQ(WaitForSingleObjectProcMsg(event.get(), nullptr, 0), 0);
    EXPECT_EQ(g_dispatched, 2);
    EXPECT_TRUE(queueEmpty()) << "every message was taken out and dispatched";
}

TEST(WaitProcMsg, MessagePostedToTheWaitingThreadIsDispatchedByTheWait) {
    ScopedEvent event;
    std::atomic<DWORD> waiter{0};
    AsyncCall wait([&] {
        queueEmpty();
        waiter = GetCurrentThreadId();
        return static_cast<DWORD>(WaitForSingleObjectProcMsg(event.get(), nullptr, INFINITE));
    });
    ASSERT_TRUE(eventually([&] { return waiter.load() != 0; }));
    ASSERT_TRUE(wait.blocked());
    ASSERT_TRUE(
        PostThreadCallback(waiter, &signalOnDispatch, reinterpret_cast<LPARAM>(event.get())));
    ASSERT_TRUE(wait.finishes());
    EXPECT_EQ(wait.result(), 1u);
    EXPECT_EQ(g_dispatchedOn.load(), waiter.load()) << "dispatched on the waiting thread";
}

TEST(WaitProcMsg, MessagesDoNotRestartTheTimeout) {
    ScopedEvent event;
    std::atomic<DWORD> waiter{0};
    const auto start = Clock::now();
    AsyncCall wait([&] {
        queueEmpty();
        waiter = GetCurrentThreadId();
        return static_cast<DWORD>(WaitForSingleObjectProcMsg(event.get(), nullptr, 300));
    });
    ASSERT_TRUE(eventually([&] { return waiter.load() != 0; }));
    // A message every 10 ms: a wait that started its time anew on each one would not end.
    const auto postAndLook = [&] {
        PostThreadCallback(waiter, &countDispatch, 0);
        return wait.done();
    };
    EXPECT_TRUE(eventually(postAndLook, 5000ms, 10ms));
    ASSERT_TRUE(wait.finishes());
    EXPECT_EQ(wait.result(), 0u);
    EXPECT_GE(since(start), 290ms);
    EXPECT_GT(g_dispatched, 0);
}

TEST(WaitProcMsg, AbandonedMutexIsTakenAndWaitedForOnceMore) {
    // The single wait takes it as a message, then waits for it again: it is held twice.
    HANDLE mutex = abandonedMutex();
    EXPECT_EQ(WaitForSingleObjectProcMsg(mutex, nullptr, 1000), 1);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_FALSE(ReleaseMutex(mutex));
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
    CloseHandle(mutex);

    // The multiple wait reads it like a time-out: the last entry (other) is dropped at once,
    // and the mutex, now held, is taken again.
    mutex = abandonedMutex();
    ScopedEvent other;
    HANDLE objects[] = {mutex, other.get()};
    AsyncCall wait([&] {
        const bool done = WaitForMultipleObjectsProcMsg(objects, 2, nullptr, INFINITE) == 1;
        return DWORD{done && ReleaseMutex(mutex) && ReleaseMutex(mutex) && !ReleaseMutex(mutex)};
    });
    const bool finished = wait.finishes();
    SetEvent(other.get());  // ends a wait that went on for other
    EXPECT_TRUE(finished) << "other is not waited for";
    EXPECT_TRUE(wait.finishes());
    EXPECT_EQ(wait.result(), 1u);
    CloseHandle(mutex);
}

TEST(WaitProcMsg, MultipleWithNoObjectsReturnsZeroAtOnceWithoutPumping) {
    ScopedEvent event;
    HANDLE objects[] = {event.get()};
    queueEmpty();
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER, 0, 0));
    // A time-out of for ever: a wait would not end.
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(nullptr, 1, nullptr, INFINITE), 0);
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, 0, nullptr, INFINITE), 0);
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, -1, nullptr, INFINITE), 0);
    EXPECT_FALSE(queueEmpty());
}

TEST(WaitProcMsg, MultipleTimesOutOncePerObjectDroppingTheLastEntry) {
    ScopedEvent a;
    ScopedEvent b;
    for (const int count : {1, 2}) {
        HANDLE objects[] = {a.get(), b.get()};
        const auto start = Clock::now();
        EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, count, nullptr, 100), 1);
        EXPECT_GE(since(start), count * 90ms) << "the same time-out again for the rest";
        EXPECT_EQ(objects[0], a.get()) << "a time-out moves nothing";
        EXPECT_EQ(objects[1], b.get());
    }
}

TEST(WaitProcMsg, MultipleMovesEntriesDownOverSignalledOnesAndOverAFailedWait) {
    ScopedEvent a(true);
    ScopedEvent b(true);
    ScopedEvent c(true);
    HANDLE objects[] = {a.get(), b.get(), c.get()};
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, 3, nullptr, 0), 1);
    // Index 0 each time: b and c move down over a, then c over b.
    EXPECT_EQ(objects[0], c.get());
    EXPECT_EQ(objects[1], c.get());
    EXPECT_EQ(objects[2], c.get());

    // A failed wait is read as index -1. The array handed in starts at storage[1];
    // storage[0] is the caller's, and is written.
    const HANDLE invalid = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0x10));
    const HANDLE before = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0x20));
    HANDLE storage[] = {before, invalid, a.get()};
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(storage + 1, 2, nullptr, 1000), 1);
    EXPECT_EQ(storage[0], invalid);
    EXPECT_EQ(storage[1], a.get());
    EXPECT_EQ(storage[2], a.get());
}

TEST(WaitProcMsg, MultipleWaitsUntilEveryObjectHasBeenSignalled) {
    ScopedEvent a;
    ScopedEvent b(true);
    HANDLE c = CreateMutexA(nullptr, TRUE, nullptr);  // held by this thread until released
    HANDLE objects[] = {a.get(), b.get(), c};
    AsyncCall wait([&] {
        return static_cast<DWORD>(WaitForMultipleObjectsProcMsg(objects, 3, nullptr, INFINITE));
    });
    ASSERT_TRUE(wait.blocked());
    ReleaseMutex(c);
    // The wait takes c; a probe of this thread that gets it first gives it back.
    EXPECT_TRUE(eventually([&] {
        if (WaitForSingleObject(c, 0) == WAIT_TIMEOUT) {
            return true;
        }
        ReleaseMutex(c);
        return false;
    }));
    EXPECT_TRUE(wait.blocked());
    EXPECT_FALSE(wait.done()) << "a is still outstanding";
    SetEvent(a.get());
    ASSERT_TRUE(wait.finishes());
    EXPECT_EQ(wait.result(), 1u);
    CloseHandle(c);
}
