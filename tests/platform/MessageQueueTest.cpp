#include "tessel/platform/MessageQueue.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ostream>
#include <thread>
#include <vector>

#include "support/WaitProbe.h"
#include "support/ScratchRegistry.h"
#include "support/TestSupport.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;
using namespace TesselTest;

namespace {

const HWND kThreadMessages = reinterpret_cast<HWND>(static_cast<std::intptr_t>(-1));
const HWND kSomeWindow = reinterpret_cast<HWND>(static_cast<std::intptr_t>(0x1000));

// Makes the calling thread's queue.
void makeQueue() {
    MSG message;
    PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE);
}

// The numbers of the messages that pass the filter, taken out of the queue.
std::vector<UINT> takeAll(HWND window, UINT minMessage, UINT maxMessage) {
    std::vector<UINT> numbers;
    MSG message;
    while (PeekMessageA(&message, window, minMessage, maxMessage, PM_REMOVE) != FALSE) {
        numbers.push_back(message.message);
    }
    return numbers;
}

// Closes an event at the end of a test.
class ScopedEvent {
  public:
    ScopedEvent() : m_handle(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
    ~ScopedEvent() { CloseHandle(m_handle); }
    ScopedEvent(const ScopedEvent&) = delete;
    ScopedEvent& operator=(const ScopedEvent&) = delete;
    HANDLE get() const { return m_handle; }
    const HANDLE* address() const { return &m_handle; }

  private:
    HANDLE m_handle;
};

std::atomic<int> g_calls{0};
std::atomic<LPARAM> g_lastArgument{0};
std::atomic<DWORD> g_callingThread{0};

void countCall(LPARAM argument) {
    g_calls.fetch_add(1);
    g_lastArgument.store(argument);
    g_callingThread.store(GetCurrentThreadId());
}

}  // namespace

TEST(MessageQueue, PostingToAThreadWithoutQueueFails) {
    std::atomic<DWORD> tid{0};
    std::atomic<BOOL> posted{TRUE};
    std::atomic<DWORD> error{0};
    std::thread([&] {
        tid = GetCurrentThreadId();
        posted = PostThreadMessageA(tid, WM_USER, 0, 0);
        error = GetLastError();
    }).join();
    EXPECT_EQ(posted, FALSE);
    EXPECT_EQ(error, ERROR_INVALID_THREAD_ID);

    SetLastError(0);
    EXPECT_EQ(PostThreadMessageA(0x7FFFFFF0u, WM_USER, 0, 0), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_THREAD_ID);
}

TEST(MessageQueue, MessagesComeInTheOrderPostedWithTheirWords) {
    makeQueue();
    const DWORD self = GetCurrentThreadId();
    const DWORD before = GetTickCount();
    ASSERT_TRUE(PostThreadMessageA(self, WM_USER + 1, 11, -11));
    ASSERT_TRUE(PostThreadMessageA(self, WM_USER + 2, 22, -22));
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
    EXPECT_FALSE(PeekMessageA(nullptr, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

namespace {

struct FilterCase {
    const char* name;
    HWND window;
    UINT minMessage;
    UINT maxMessage;
    std::vector<UINT> taken;
};

void PrintTo(const FilterCase& c, std::ostream* out) {
    *out << c.name;
}

}  // namespace

class MessageQueueFilter : public ::testing::TestWithParam<FilterCase> {};

TEST_P(MessageQueueFilter, TakesWhatPassesAndLeavesTheRest) {
    const FilterCase& c = GetParam();
    makeQueue();
    const std::vector<UINT> posted{WM_USER, WM_USER + 1, WM_APP, WM_QUIT};
    for (const UINT number : posted) {
        ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), number, 0, 0));
    }
    EXPECT_EQ(takeAll(c.window, c.minMessage, c.maxMessage), c.taken);
    std::vector<UINT> rest;
    for (const UINT number : posted) {
        if (std::find(c.taken.begin(), c.taken.end(), number) == c.taken.end()) {
            rest.push_back(number);
        }
    }
    EXPECT_EQ(takeAll(nullptr, 0, 0), rest) << "the rest stays, in its order";
}

INSTANTIATE_TEST_SUITE_P(
    MessageQueue, MessageQueueFilter,
    ::testing::Values(
        FilterCase{"AnyWindowAnyNumber", nullptr, 0, 0, {WM_USER, WM_USER + 1, WM_APP, WM_QUIT}},
        FilterCase{
            "ThreadMessagesOnly", kThreadMessages, 0, 0, {WM_USER, WM_USER + 1, WM_APP, WM_QUIT}},
        FilterCase{"AWindowHasNone", kSomeWindow, 0, 0, {}},
        FilterCase{"RangeInclusive", nullptr, WM_USER + 1, WM_APP, {WM_USER + 1, WM_APP}},
        FilterCase{"SingleNumber", nullptr, WM_QUIT, WM_QUIT, {WM_QUIT}},
        FilterCase{"RangeWithoutMessages", nullptr, 1, 2, {}}),
    TesselTest::ParamName());

TEST(MessageQueue, DispatchRunsTheCallbackOfItsMessageOnly) {
    makeQueue();
    g_calls = 0;
    ASSERT_TRUE(PostThreadCallback(GetCurrentThreadId(), &countCall, 42));
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER, 1, 2));
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
    EXPECT_FALSE(PostThreadCallback(GetCurrentThreadId(), nullptr, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(MessageQueue, WaitEndsForAMessagePostedByAnotherThread) {
    ScopedEvent event;
    std::atomic<bool> ready{false};
    std::atomic<DWORD> waiter{0};
    AsyncCall call([&] {
        makeQueue();
        waiter = GetCurrentThreadId();
        ready = true;
        return MsgWaitForMultipleObjects(1, event.address(), FALSE, INFINITE, QS_ALLINPUT);
    });
    ASSERT_TRUE(eventually([&] { return ready.load(); }));
    ASSERT_TRUE(call.blocked(SYS_ppoll));
    EXPECT_FALSE(call.done());
    ASSERT_TRUE(PostThreadMessageA(waiter, WM_USER, 0, 0));
    ASSERT_TRUE(call.finishes());
    EXPECT_EQ(call.result(), WAIT_OBJECT_0 + 1);
}

TEST(MessageQueue, WaitResultsForObjectsTimeOutAndCountZero) {
    ScopedEvent unsignalled;
    ScopedEvent signalled;
    SetEvent(signalled.get());
    const HANDLE both[] = {unsignalled.get(), signalled.get()};
    makeQueue();
    EXPECT_EQ(MsgWaitForMultipleObjects(2, both, FALSE, 0, QS_ALLINPUT), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);
    EXPECT_EQ(MsgWaitForMultipleObjects(0, nullptr, FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);

    // A signalled object takes precedence over a message.
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER, 0, 0));
    EXPECT_EQ(MsgWaitForMultipleObjects(2, both, FALSE, 0, QS_ALLINPUT), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 0, QS_ALLINPUT), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(MsgWaitForMultipleObjects(0, nullptr, FALSE, 0, QS_ALLINPUT), WAIT_OBJECT_0);
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 0, QS_POSTMESSAGE), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 20, QS_KEY | QS_TIMER), WAIT_TIMEOUT)
        << "a wake mask without posted messages ignores them";
}

TEST(MessageQueue, WaitEndsOnlyForMessagesThatTheThreadHasNotLookedAt) {
    ScopedEvent event;
    makeQueue();
    const DWORD self = GetCurrentThreadId();
    ASSERT_TRUE(PostThreadMessageA(self, WM_USER, 0, 0));
    EXPECT_EQ(MsgWaitForMultipleObjects(1, event.address(), FALSE, 0, QS_ALLINPUT),
              WAIT_OBJECT_0 + 1);
    EXPECT_EQ(MsgWaitForMultipleObjects(1, event.address(), FALSE, 0, QS_ALLINPUT),
              WAIT_OBJECT_0 + 1)
        << "the wait itself is no look at the queue";

    // A look that leaves the message (PM_NOREMOVE, or a filter that passes it over) counts.
    MSG message;
    EXPECT_FALSE(PeekMessageA(&message, nullptr, WM_APP, WM_APP, PM_REMOVE));
    EXPECT_EQ(MsgWaitForMultipleObjects(1, event.address(), FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);
    ASSERT_TRUE(PostThreadMessageA(self, WM_USER + 1, 0, 0));
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(MsgWaitForMultipleObjects(1, event.address(), FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);
    EXPECT_EQ(takeAll(nullptr, 0, 0), (std::vector<UINT>{WM_USER, WM_USER + 1}));
}

TEST(MessageQueue, QueueEndsWithItsThread) {
    std::atomic<DWORD> tid{0};
    std::atomic<BOOL> postedWhileAlive{FALSE};
    std::thread([&] {
        makeQueue();
        tid = GetCurrentThreadId();
        postedWhileAlive = PostThreadMessageA(tid, WM_USER, 0, 0);
    }).join();
    EXPECT_TRUE(postedWhileAlive);
    SetLastError(0);
    EXPECT_EQ(PostThreadMessageA(tid, WM_USER, 0, 0), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_THREAD_ID);
}

TEST(MessageQueue, QueueHoldsAtMost10000Messages) {
    makeQueue();
    const DWORD self = GetCurrentThreadId();
    for (int i = 0; i < 10000; ++i) {
        ASSERT_TRUE(PostThreadMessageA(self, WM_USER, static_cast<WPARAM>(i), 0)) << i;
    }
    SetLastError(0);
    EXPECT_FALSE(PostThreadMessageA(self, WM_USER, 0, 0));
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_QUOTA);
    MSG message;
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.wParam, 0u);
    EXPECT_TRUE(PostThreadMessageA(self, WM_USER, 0, 0)) << "room for one again";
}

TEST(MessageQueue, ManyPostersOneReceiverLoseNothingAndKeepEachPostersOrder) {
    constexpr int kPosters = 4;
    constexpr int kPerPoster = 2000;
    std::atomic<DWORD> receiver{0};
    std::vector<int> received(kPosters, 0);
    bool inOrder = true;
    std::thread receiving([&] {
        makeQueue();
        receiver = GetCurrentThreadId();
        int total = 0;
        while (total < kPosters * kPerPoster) {
            if (MsgWaitForMultipleObjects(0, nullptr, FALSE, 10000, QS_ALLINPUT) != WAIT_OBJECT_0) {
                break;  // ten seconds without a message: something was lost
            }
            MSG message;
            while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
                const int poster = static_cast<int>(message.wParam);
                inOrder = inOrder && message.lParam == received[poster];
                ++received[poster];
                ++total;
            }
        }
    });
    ASSERT_TRUE(eventually([&] { return receiver.load() != 0; }));
    std::vector<std::thread> posters;
    for (int p = 0; p < kPosters; ++p) {
        posters.emplace_back([&, p] {
            for (int i = 0; i < kPerPoster; ++i) {
                while (!PostThreadMessageA(receiver, WM_USER, static_cast<WPARAM>(p), i)) {
                    std::this_thread::yield();  // the queue is full for a moment
                }
            }
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    receiving.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(received, std::vector<int>(kPosters, kPerPoster));
}

TEST(MessageQueue, ForkedChildStartsWithAnEmptyQueueOfItsOwn) {
    makeQueue();
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER, 0, 0));
    const int status = RunInChild(
        [](void*) {
            MSG message;
            if (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
                return 1;  // the parent's message
            }
            if (!PostThreadMessageA(GetCurrentThreadId(), WM_USER + 7, 0, 0)) {
                return 2;
            }
            if (!PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE) ||
                message.message != WM_USER + 7) {
                return 3;
            }
            return 0;
        },
        nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(takeAll(nullptr, 0, 0), std::vector<UINT>{WM_USER}) << "the parent keeps its own";
}
