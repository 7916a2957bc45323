#include "tessel/platform/MessageQueue.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <iterator>
#include <thread>
#include <vector>

#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"
#include "support/WaitProbe.h"
#include "tessel/base/Handle.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;
using PlatformTest::failureOf;
using namespace TesselTest;
using Tessel::CHandle;

namespace {

// Makes the calling thread's queue.
void makeQueue() {
    MSG message;
    PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE);
}

bool post(UINT message, WPARAM wParam = 0, LPARAM lParam = 0) {
    return PostThreadMessageA(GetCurrentThreadId(), message, wParam, lParam) != FALSE;
}

// The numbers of the messages that pass the filter, taken out of the queue.
std::vector<UINT> takeAll(HWND window = nullptr, UINT minMessage = 0, UINT maxMessage = 0) {
    std::vector<UINT> numbers;
    MSG message;
    while (PeekMessageA(&message, window, minMessage, maxMessage, PM_REMOVE) != FALSE) {
        numbers.push_back(message.message);
    }
    return numbers;
}

CHandle manualEvent() {
    return CHandle(CreateEventA(nullptr, TRUE, FALSE, nullptr));
}

std::atomic<int> g_calls{0};
std::atomic<LPARAM> g_lastArgument{0};

void countCall(LPARAM argument) {
    g_calls.fetch_add(1);
    g_lastArgument.store(argument);
}

TEST(MessageQueue, PostingNeedsTheQueueOfALiveThread) {
    std::atomic<DWORD> tid{0};
    std::atomic<BOOL> withoutQueue{TRUE};
    std::atomic<BOOL> withQueue{FALSE};
    std::atomic<DWORD> error{0};
    std::thread([&] {
        tid = GetCurrentThreadId();
        withoutQueue = PostThreadMessageA(tid, WM_USER, 0, 0);
        error = GetLastError();
        makeQueue();
        withQueue = PostThreadMessageA(tid, WM_USER, 0, 0);
    }).join();
    EXPECT_FALSE(withoutQueue);
    EXPECT_EQ(error, ERROR_INVALID_THREAD_ID);
    EXPECT_TRUE(withQueue);
    for (const DWORD gone : {tid.load(), 0x7FFFFFF0u}) {  // a thread that has ended, or none
        SetLastError(0);
        EXPECT_EQ(failureOf(PostThreadMessageA(gone, WM_USER, 0, 0)), ERROR_INVALID_THREAD_ID);
    }
}

TEST(MessageQueue, MessagesComeInTheOrderPostedWithTheirWords) {
    makeQueue();
    const DWORD before = GetTickCount();
    ASSERT_TRUE(post(WM_USER + 1, 11, -11));
    ASSERT_TRUE(post(WM_USER + 2, 22, -22));
    const DWORD after = GetTickCount();

    MSG message{};
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(message.message, WM_USER + 1);
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE | PM_NOYIELD));
    EXPECT_EQ(message.message, WM_USER + 1) << "PM_NOREMOVE leaves the message in the queue";
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.hwnd, nullptr);
    EXPECT_EQ(message.message, WM_USER + 1);
    EXPECT_EQ(message.wParam, 11u);
    EXPECT_EQ(message.lParam, -11);
    EXPECT_LE(message.time - before, after - before);
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE | PM_NOYIELD));
    EXPECT_EQ(message.message, WM_USER + 2);
    EXPECT_EQ(message.wParam, 22u);
    EXPECT_EQ(message.lParam, -22);
    EXPECT_FALSE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));

    SetLastError(0);
    EXPECT_EQ(failureOf(PeekMessageA(nullptr, nullptr, 0, 0, PM_REMOVE)), ERROR_INVALID_PARAMETER);
}

TEST(MessageQueue, FilterTakesWhatPassesAndLeavesTheRestInItsOrder) {
    const HWND threadMessages = reinterpret_cast<HWND>(static_cast<std::intptr_t>(-1));
    const HWND someWindow = reinterpret_cast<HWND>(static_cast<std::intptr_t>(0x1000));
    const std::vector<UINT> posted{WM_USER, WM_USER + 1, WM_APP, WM_QUIT};
    const struct {
        const char* name;
        HWND window;
        UINT minMessage;
        UINT maxMessage;
        std::vector<UINT> taken;
    } cases[] = {
        {"any window, any number", nullptr, 0, 0, posted},
        {"thread messages only", threadMessages, 0, 0, posted},
        {"a window has none", someWindow, 0, 0, {}},
        {"range, inclusive", nullptr, WM_USER + 1, WM_APP, {WM_USER + 1, WM_APP}},
        {"a single number", nullptr, WM_QUIT, WM_QUIT, {WM_QUIT}},
        {"range without messages", nullptr, 1, 2, {}},
    };
    makeQueue();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const UINT number : posted) {
            ASSERT_TRUE(post(number));
        }
        EXPECT_EQ(takeAll(c.window, c.minMessage, c.maxMessage), c.taken);
        std::vector<UINT> rest;
        std::copy_if(posted.begin(), posted.end(), std::back_inserter(rest), [&](UINT number) {
            return std::find(c.taken.begin(), c.taken.end(), number) == c.taken.end();
        });
        EXPECT_EQ(takeAll(), rest);
    }
}

TEST(MessageQueue, DispatchRunsTheCallbackOfItsMessageOnly) {
    makeQueue();
    ASSERT_TRUE(PostThreadCallback(GetCurrentThreadId(), &countCall, 42));
    ASSERT_TRUE(post(WM_USER, 1, 2));
    MSG message;
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, WM_TESSEL_CALLBACK);
    EXPECT_EQ(TranslateMessage(&message), FALSE);
    EXPECT_EQ(g_calls, 0) << "nothing runs before the dispatch";
    EXPECT_EQ(DispatchMessageA(&message), 0);
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(g_lastArgument, 42);

    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(DispatchMessageA(&message), 0);
    EXPECT_EQ(DispatchMessageA(nullptr), 0);
    MSG empty{nullptr, WM_TESSEL_CALLBACK, 0, 0, 0};
    EXPECT_EQ(DispatchMessageA(&empty), 0);
    EXPECT_EQ(g_calls, 1);

    SetLastError(0);
    EXPECT_EQ(failureOf(PostThreadCallback(GetCurrentThreadId(), nullptr, 0)),
              ERROR_INVALID_PARAMETER);
}

TEST(MessageQueue, WaitEndsForAMessagePostedByAnotherThread) {
    CHandle event = manualEvent();
    const HANDLE objects[] = {event};
    std::atomic<DWORD> waiter{0};
    AsyncCall call([&] {
        makeQueue();
        waiter = GetCurrentThreadId();
        return MsgWaitForMultipleObjects(1, objects, FALSE, INFINITE, QS_ALLINPUT);
    });
    ASSERT_TRUE(call.blocked(SYS_ppoll));
    EXPECT_FALSE(call.done());
    ASSERT_TRUE(PostThreadMessageA(waiter, WM_USER, 0, 0));
    ASSERT_TRUE(call.finishes());
    EXPECT_EQ(call.result(), WAIT_OBJECT_0 + 1);
}

TEST(MessageQueue, WaitResultsForObjectsTimeOutAndCountZero) {
    CHandle unsignalled = manualEvent();
    CHandle signalled = manualEvent();
    SetEvent(signalled);
    const HANDLE both[] = {unsignalled, signalled};
    makeQueue();
    EXPECT_EQ(MsgWaitForMultipleObjects(2, both, FALSE, 0, QS_ALLINPUT), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);
    EXPECT_EQ(MsgWaitForMultipleObjects(0, nullptr, FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);

    // A signalled object takes precedence over a message.
    ASSERT_TRUE(post(WM_USER));
    EXPECT_EQ(MsgWaitForMultipleObjects(2, both, FALSE, 0, QS_ALLINPUT), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 0, QS_ALLINPUT), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(MsgWaitForMultipleObjects(0, nullptr, FALSE, 0, QS_ALLINPUT), WAIT_OBJECT_0);
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 0, QS_POSTMESSAGE), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 20, QS_KEY | QS_TIMER), WAIT_TIMEOUT)
        << "a wake mask without posted messages ignores them";
}

TEST(MessageQueue, WaitEndsOnlyForMessagesThatTheThreadHasNotLookedAt) {
    CHandle event = manualEvent();
    const HANDLE objects[] = {event};
    makeQueue();
    ASSERT_TRUE(post(WM_USER));
    for (int wait = 0; wait < 2; ++wait) {  // the wait itself is no look at the queue
        EXPECT_EQ(MsgWaitForMultipleObjects(1, objects, FALSE, 0, QS_ALLINPUT), WAIT_OBJECT_0 + 1);
    }
    // A look that leaves the message (a filter that passes it over, or PM_NOREMOVE) counts.
    MSG message;
    EXPECT_FALSE(PeekMessageA(&message, nullptr, WM_APP, WM_APP, PM_REMOVE));
    EXPECT_EQ(MsgWaitForMultipleObjects(1, objects, FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);
    ASSERT_TRUE(post(WM_USER + 1));
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(MsgWaitForMultipleObjects(1, objects, FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);
    EXPECT_EQ(takeAll(), (std::vector<UINT>{WM_USER, WM_USER + 1}));
}

TEST(MessageQueue, QueueHoldsAtMost10000Messages) {
    makeQueue();
    for (int i = 0; i < 10000; ++i) {
        ASSERT_TRUE(post(WM_USER, static_cast<WPARAM>(i))) << i;
    }
    SetLastError(0);
    EXPECT_EQ(failureOf(post(WM_USER)), ERROR_NOT_ENOUGH_QUOTA);
    MSG message;
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.wParam, 0u);
    EXPECT_TRUE(post(WM_USER)) << "room for one again";
}

TEST(MessageQueue, ManyPostersOneReceiverLoseNothingAndKeepEachPostersOrder) {
    constexpr int kPosters = 4;
    constexpr int kPerPoster = 2000;
    makeQueue();
    std::vector<std::thread> posters;
    for (int p = 0; p < kPosters; ++p) {
        posters.emplace_back([p, receiver = GetCurrentThreadId()] {
            for (int i = 0; i < kPerPoster; ++i) {
                while (!PostThreadMessageA(receiver, WM_USER, static_cast<WPARAM>(p), i)) {
                    std::this_thread::yield();  // the queue is full for a moment
                }
            }
        });
    }
    std::vector<int> received(kPosters, 0);
    bool inOrder = true;
    // Ten seconds without a message end the wait: something was lost.
    for (int total = 0; total < kPosters * kPerPoster &&
                        MsgWaitForMultipleObjects(0, nullptr, FALSE, 10000, QS_ALLINPUT) == 0;) {
        MSG message;
        while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
            const int poster = static_cast<int>(message.wParam);
            inOrder = inOrder && message.lParam == received[poster]++;
            ++total;
        }
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(received, std::vector<int>(kPosters, kPerPoster));
}

TEST(MessageQueue, ForkedChildStartsWithAnEmptyQueueOfItsOwn) {
    makeQueue();
    ASSERT_TRUE(post(WM_USER));
    EXPECT_EQ(RunInChild([] {
                  MSG message;
                  if (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
                      return 1;  // the parent's message
                  }
                  return post(WM_USER + 7) && takeAll() == std::vector<UINT>{WM_USER + 7} ? 0 : 2;
              }),
              0);
    EXPECT_EQ(takeAll(), std::vector<UINT>{WM_USER}) << "the parent keeps its own";
}

}  // namespace
