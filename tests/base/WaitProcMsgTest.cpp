// WaitForSingleObjectProcMsg and WaitForMultipleObjectsProcMsg: results, time-outs, the
// messages they dispatch, and the way the second one consumes its array.
#include "tessel/base/WaitProcMsg.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/WaitProbe.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/MessageQueue.h"
#include "tessel/platform/Mutex.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;
using TesselTest::AsyncCall;
using TesselTest::eventually;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

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

void makeQueue() {
    MSG message;
    PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE);
}

bool queueEmpty() {
    MSG message;
    return PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE) == FALSE;
}

milliseconds since(Clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

std::atomic<int> g_dispatched{0};

void countDispatch(LPARAM) {
    g_dispatched.fetch_add(1);
}

// A callback that records the thread that runs it and then signals an event.
struct SignalOnDispatch {
    HANDLE event;
    std::atomic<DWORD> thread{0};
};

void signalOnDispatch(LPARAM argument) {
    auto* self = reinterpret_cast<SignalOnDispatch*>(argument);
    self->thread = GetCurrentThreadId();
    SetEvent(self->event);
}

// The handle that a thread abandons: it takes the mutex and ends.
HANDLE abandonedMutex() {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    std::thread([&] { WaitForSingleObject(mutex, 0); }).join();
    return mutex;
}

}  // namespace

// --- WaitForSingleObjectProcMsg ---

TEST(WaitProcMsg, SingleWithTimeoutZeroPumpsOnceAndReturnsZero) {
    ScopedEvent event;
    makeQueue();
    g_dispatched = 0;
    ASSERT_TRUE(PostThreadCallback(GetCurrentThreadId(), &countDispatch, 0));
    ASSERT_TRUE(PostThreadCallback(GetCurrentThreadId(), &countDispatch, 0));
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER, 0, 0));
    EXPECT_EQ(WaitForSingleObjectProcMsg(event.get(), nullptr, 0), 0);
    EXPECT_EQ(g_dispatched, 2);
    EXPECT_TRUE(queueEmpty()) << "every message was taken out and dispatched";
}

TEST(WaitProcMsg, SingleResults) {
    ScopedEvent signalled(true);
    EXPECT_EQ(WaitForSingleObjectProcMsg(signalled.get(), nullptr, 0), 1);
    EXPECT_EQ(WaitForSingleObjectProcMsg(signalled.get(), nullptr, INFINITE), 1);
    EXPECT_EQ(WaitForSingleObjectProcMsg(signalled.get(), nullptr, 0x1FFFFFFFFul), 1);
    EXPECT_EQ(WaitForSingleObjectProcMsg(nullptr, nullptr, 1000), 0) << "a failed wait";
}

TEST(WaitProcMsg, SingleWithFiniteTimeoutReturnsZeroAfterThatTime) {
    ScopedEvent event;
    const auto start = Clock::now();
    EXPECT_EQ(WaitForSingleObjectProcMsg(event.get(), nullptr, 100), 0);
    EXPECT_GE(since(start), milliseconds(90));
    EXPECT_LT(since(start), milliseconds(5000));
}

TEST(WaitProcMsg, MessagePostedToTheWaitingThreadIsDispatchedByTheWait) {
    ScopedEvent event;
    SignalOnDispatch callback{event.get()};
    std::atomic<DWORD> waiter{0};
    AsyncCall wait([&] {
        makeQueue();
        waiter = GetCurrentThreadId();
        return static_cast<DWORD>(WaitForSingleObjectProcMsg(event.get(), nullptr, INFINITE));
    });
    ASSERT_TRUE(eventually([&] { return waiter.load() != 0; }));
    ASSERT_TRUE(wait.blocked(SYS_ppoll));
    ASSERT_TRUE(PostThreadCallback(waiter, &signalOnDispatch, reinterpret_cast<LPARAM>(&callback)));
    ASSERT_TRUE(wait.finishes());
    EXPECT_EQ(wait.result(), 1u);
    EXPECT_EQ(callback.thread.load(), waiter.load()) << "dispatched on the waiting thread";
}

TEST(WaitProcMsg, MessagesDoNotRestartTheTimeout) {
    ScopedEvent event;
    std::atomic<DWORD> waiter{0};
    g_dispatched = 0;
    const auto start = Clock::now();
    AsyncCall wait([&] {
        makeQueue();
        waiter = GetCurrentThreadId();
        return static_cast<DWORD>(WaitForSingleObjectProcMsg(event.get(), nullptr, 300));
    });
    ASSERT_TRUE(eventually([&] { return waiter.load() != 0; }));
    // A message every 10 ms for up to 5 s: a wait that started its time anew on each message
    // would not end before the messages do.
    while (!wait.done() && since(start) < milliseconds(5000)) {
        PostThreadCallback(waiter, &countDispatch, 0);
        std::this_thread::sleep_for(milliseconds(10));
    }
    ASSERT_TRUE(wait.finishes());
    EXPECT_EQ(wait.result(), 0u);
    EXPECT_GE(since(start), milliseconds(290));
    EXPECT_LT(since(start), milliseconds(2500));
    EXPECT_GT(g_dispatched, 0);
}

TEST(WaitProcMsg, SingleTakesAnAbandonedMutexAndThenWaitsForItOnceMore) {
    HANDLE mutex = abandonedMutex();
    EXPECT_EQ(WaitForSingleObjectProcMsg(mutex, nullptr, 1000), 1);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex)) << "held twice";
    EXPECT_FALSE(ReleaseMutex(mutex));
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
    CloseHandle(mutex);
}

// --- WaitForMultipleObjectsProcMsg ---

TEST(WaitProcMsg, MultipleWithNoObjectsReturnsZeroAtOnceWithoutPumping) {
    ScopedEvent event;
    HANDLE objects[] = {event.get()};
    makeQueue();
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER, 0, 0));
    const auto start = Clock::now();
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(nullptr, 1, nullptr, 1000), 0);
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, 0, nullptr, 1000), 0);
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, -1, nullptr, 1000), 0);
    EXPECT_LT(since(start), milliseconds(500));
    EXPECT_FALSE(queueEmpty());
}

TEST(WaitProcMsg, MultipleWithOneUnsignalledObjectReturnsOneAfterTheTimeout) {
    ScopedEvent event;
    HANDLE objects[] = {event.get()};
    const auto start = Clock::now();
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, 1, nullptr, 100), 1);
    EXPECT_GE(since(start), milliseconds(90));
    EXPECT_LT(since(start), milliseconds(5000));
    EXPECT_EQ(objects[0], event.get());
}

TEST(WaitProcMsg, MultipleTimesOutOncePerObjectDroppingTheLastEntry) {
    ScopedEvent a;
    ScopedEvent b;
    HANDLE objects[] = {a.get(), b.get()};
    const auto start = Clock::now();
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, 2, nullptr, 100), 1);
    EXPECT_GE(since(start), milliseconds(180)) << "the same time-out again for the rest";
    EXPECT_LT(since(start), milliseconds(5000));
    EXPECT_EQ(objects[0], a.get()) << "a time-out moves nothing";
    EXPECT_EQ(objects[1], b.get());
}

TEST(WaitProcMsg, MultipleTakesSignalledEntriesOutOfTheArray) {
    ScopedEvent a(true);
    ScopedEvent b(true);
    ScopedEvent c(true);
    HANDLE objects[] = {a.get(), b.get(), c.get()};
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, 3, nullptr, 0), 1);
    // Index 0 each time: b and c move down over a, then c over b.
    EXPECT_EQ(objects[0], c.get());
    EXPECT_EQ(objects[1], c.get());
    EXPECT_EQ(objects[2], c.get());
}

TEST(WaitProcMsg, MultipleWaitsUntilEveryObjectHasBeenSignalled) {
    ScopedEvent a;
    ScopedEvent b(true);
    ScopedEvent c;
    HANDLE objects[] = {a.get(), b.get(), c.get()};
    AsyncCall wait([&] {
        return static_cast<DWORD>(WaitForMultipleObjectsProcMsg(objects, 3, nullptr, INFINITE));
    });
    ASSERT_TRUE(wait.blocked(SYS_ppoll));
    SetEvent(c.get());
    std::this_thread::sleep_for(milliseconds(20));  // time to take c out and wait again
    EXPECT_FALSE(wait.done()) << "a is still outstanding";
    SetEvent(a.get());
    ASSERT_TRUE(wait.finishes());
    EXPECT_EQ(wait.result(), 1u);
}

TEST(WaitProcMsg, MultipleReadsAFailedWaitAsIndexMinusOneAndMovesEveryEntryDown) {
    ScopedEvent signalled(true);
    const HANDLE invalid = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0x10));
    const HANDLE before = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0x20));
    // The array handed in starts at storage[1]; storage[0] is the caller's, and is written.
    HANDLE storage[] = {before, invalid, signalled.get()};
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(storage + 1, 2, nullptr, 1000), 1);
    EXPECT_EQ(storage[0], invalid);
    EXPECT_EQ(storage[1], signalled.get());
    EXPECT_EQ(storage[2], signalled.get());
}

TEST(WaitProcMsg, MultipleReadsAnAbandonedMutexLikeATimeOut) {
    HANDLE mutex = abandonedMutex();
    ScopedEvent other;
    HANDLE objects[] = {mutex, other.get()};
    const auto start = Clock::now();
    // The abandonment drops the last entry (other) at once; the mutex, now held, is then
    // taken again and removed.
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, 2, nullptr, 10000), 1);
    EXPECT_LT(since(start), milliseconds(5000));
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_FALSE(ReleaseMutex(mutex));
    CloseHandle(mutex);
}
