// The message-pumping waits: results, time-outs, the messages they dispatch, the array consumed.
#include "tessel/base/WaitProcMsg.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "support/WaitProbe.h"
#include "tessel/base/Event.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/MessageQueue.h"
#include "tessel/platform/Mutex.h"

using namespace Tessel;
using namespace Tessel::Platform;
using namespace TesselTest;
using Clock = std::chrono::steady_clock;

// Makes the calling thread's queue; true if it is empty.
static bool queueEmpty() {
    MSG message;
    return PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE) == FALSE;
}

static std::atomic<int> g_dispatched{0};
static std::atomic<DWORD> g_dispatchedOn{0};

// A posted callback: counts, notes its thread, and sets the event it is given, if any.
static void dispatched(LPARAM event) {
    g_dispatchedOn = GetCurrentThreadId();
    g_dispatched.fetch_add(1);
    if (event != 0) {
        SetEvent(reinterpret_cast<HANDLE>(event));
    }
}

TEST(WaitProcMsg, SingleResultsAndTheQueuePumpedBeforeTheWait) {
    CEvent signalled(TRUE, TRUE);
    EXPECT_EQ(WaitForSingleObjectProcMsg(signalled, nullptr, 0), 1);
    EXPECT_EQ(WaitForSingleObjectProcMsg(signalled, nullptr, INFINITE), 1);
    EXPECT_EQ(WaitForSingleObjectProcMsg(signalled, nullptr, 0x1FFFFFFFFul), 1);
    EXPECT_EQ(WaitForSingleObjectProcMsg(nullptr, nullptr, 1000), 0) << "a failed wait";
    CEvent event(TRUE, FALSE);
    const auto start = Clock::now();
    EXPECT_EQ(WaitForSingleObjectProcMsg(event, nullptr, 100), 0);
    EXPECT_GE(Clock::now() - start, 90ms);

    queueEmpty();
    ASSERT_TRUE(PostThreadCallback(GetCurrentThreadId(), &dispatched, 0));
    ASSERT_TRUE(PostThreadCallback(GetCurrentThreadId(), &dispatched, 0));
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER, 0, 0));
    EXPECT_EQ(WaitForSingleObjectProcMsg(event, nullptr, 0), 0) << "one look at the object";
    EXPECT_EQ(g_dispatched, 2);
    EXPECT_TRUE(queueEmpty()) << "every message was taken out and dispatched";
}

TEST(WaitProcMsg, MessagesAreDispatchedOnTheWaitingThreadAndDoNotRestartTheTimeout) {
    for (const DWORD timeoutMs : {INFINITE, DWORD{300}}) {
        SCOPED_TRACE(timeoutMs);
        CEvent event(TRUE, FALSE);
        std::atomic<DWORD> waiter{0};
        const auto start = Clock::now();
        AsyncCall wait([&] {
            queueEmpty();
            waiter = GetCurrentThreadId();
            return static_cast<DWORD>(WaitForSingleObjectProcMsg(event, nullptr, timeoutMs));
        });
        ASSERT_TRUE(wait.blocked());
        // A message every 10 ms (setting the event for the endless wait) restarts no time-out.
        const HANDLE set = timeoutMs == INFINITE ? static_cast<HANDLE>(event) : nullptr;
        const auto postAndLook = [&] {
            PostThreadCallback(waiter, &dispatched, reinterpret_cast<LPARAM>(set));
            return wait.done();
        };
        EXPECT_TRUE(eventually(postAndLook, 5000ms, 10ms));
        EXPECT_EQ(wait.result(), timeoutMs == INFINITE ? 1u : 0u);
        EXPECT_GE(Clock::now() - start, timeoutMs == INFINITE ? 0ms : 290ms);
        EXPECT_EQ(g_dispatchedOn.load(), waiter.load()) << "dispatched on the waiting thread";
    }
}

TEST(WaitProcMsg, AbandonedMutexIsTakenAndWaitedForOnceMore) {
    for (const bool multiple : {false, true}) {
        SCOPED_TRACE(multiple ? "multiple" : "single");
        const CHandle mutex(CreateMutexA(nullptr, FALSE, nullptr));
        std::thread([&] { WaitForSingleObject(mutex, 0); }).join();  // abandons it
        CEvent other(TRUE, FALSE);
        HANDLE objects[] = {mutex, other};
        // The single wait takes it as a message and waits again; the multiple one reads it as a
        // time-out, drops other at once, and takes the mutex again. Either way it is held twice.
        AsyncCall wait([&] {
            const int result = multiple
                                   ? WaitForMultipleObjectsProcMsg(objects, 2, nullptr, INFINITE)
                                   : WaitForSingleObjectProcMsg(mutex, nullptr, 1000);
            return DWORD{result == 1 && ReleaseMutex(mutex) && ReleaseMutex(mutex) &&
                         !ReleaseMutex(mutex) && GetLastError() == ERROR_NOT_OWNER};
        });
        const bool finished = wait.finishes();
        other.Set();  // ends a wait that went on for other
        EXPECT_TRUE(finished) << "other is not waited for";
        EXPECT_TRUE(wait.finishes());
        EXPECT_EQ(wait.result(), 1u);
    }
}

TEST(WaitProcMsg, MultipleConsumesItsArray) {
    CEvent a(TRUE, FALSE), b(TRUE, FALSE);
    HANDLE objects[] = {a, b};
    // Nothing to wait for: 0 at once (a wait for ever would not end), without pumping.
    queueEmpty();
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER, 0, 0));
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(nullptr, 1, nullptr, INFINITE), 0);
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, 0, nullptr, INFINITE), 0);
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, -1, nullptr, INFINITE), 0);
    EXPECT_FALSE(queueEmpty());

    // A time-out drops the last entry, moves nothing, and the rest waits as long again.
    for (const int count : {1, 2}) {
        const auto start = Clock::now();
        EXPECT_EQ(WaitForMultipleObjectsProcMsg(objects, count, nullptr, 100), 1);
        EXPECT_GE(Clock::now() - start, count * 90ms);
        EXPECT_EQ(std::to_array(objects), (std::array<HANDLE, 2>{a, b}));
    }

    // Signalled entries are taken out (index 0 each time: b and c move down over a, then c over
    // b); a failed wait is index -1: all move down, the first to the caller's storage before.
    CEvent c(TRUE, TRUE);
    a.Set();
    b.Set();
    HANDLE signalled[] = {a, b, c};
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(signalled, 3, nullptr, 0), 1);
    EXPECT_EQ(std::to_array(signalled), (std::array<HANDLE, 3>{c, c, c}));
    const auto invalid = reinterpret_cast<HANDLE>(std::uintptr_t{0x10});
    HANDLE storage[] = {reinterpret_cast<HANDLE>(std::uintptr_t{0x20}), invalid, a};
    EXPECT_EQ(WaitForMultipleObjectsProcMsg(storage + 1, 2, nullptr, 1000), 1);
    EXPECT_EQ(std::to_array(storage), (std::array<HANDLE, 3>{invalid, a, a}));
}

TEST(WaitProcMsg, MultipleWaitsUntilEveryObjectHasBeenSignalled) {
    CEvent a(TRUE, FALSE), b(TRUE, TRUE), c(TRUE, FALSE);
    HANDLE objects[] = {a, b, c};
    AsyncCall wait([&] {
        return static_cast<DWORD>(WaitForMultipleObjectsProcMsg(objects, 3, nullptr, INFINITE));
    });
    ASSERT_TRUE(wait.blocked());
    EXPECT_FALSE(wait.done()) << "b was taken; a and c are outstanding";
    c.Set();
    a.Set();
    ASSERT_TRUE(wait.finishes());
    EXPECT_EQ(wait.result(), 1u);
}
