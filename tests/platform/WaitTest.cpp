#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "support/WaitProbe.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Mutex.h"

using namespace Tessel::Platform;
using namespace TesselTest;

namespace {

HANDLE autoEvent(bool set) {
    return CreateEventA(nullptr, FALSE, set ? TRUE : FALSE, nullptr);
}

long long elapsedMs(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 since)
        .count();
}

// Processor time used by the calling thread, in milliseconds.
DWORD threadCpuMs() {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return static_cast<DWORD>((usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
                              (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000);
}

}  // namespace

TEST(Wait, FiniteAndZeroTimeoutsExpire) {
    HANDLE event = autoEvent(false);
    HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);  // held by this thread throughout
    const HANDLE both[] = {event, mutex};
    struct Case {
        const char* what;
        DWORD (*wait)(const HANDLE* objects, DWORD timeout);
    };
    const Case cases[] = {
        {"event", [](const HANDLE* o, DWORD t) { return WaitForSingleObject(o[0], t); }},
        {"mutex", [](const HANDLE* o, DWORD t) { return WaitForSingleObject(o[1], t); }},
        {"any", [](const HANDLE* o, DWORD t) { return WaitForMultipleObjects(2, o, FALSE, t); }},
        {"all", [](const HANDLE* o, DWORD t) { return WaitForMultipleObjects(2, o, TRUE, t); }},
    };
    for (const Case& c : cases) {
        for (DWORD timeout : {0u, 30u, 120u}) {
            SCOPED_TRACE(testing::Message() << c.what << " " << timeout << " ms");
            const auto start = std::chrono::steady_clock::now();
            AsyncCall call([&] { return c.wait(both, timeout); });
            ASSERT_TRUE(call.finishes());
            EXPECT_EQ(call.result(), WAIT_TIMEOUT);
            EXPECT_GE(elapsedMs(start), static_cast<long long>(timeout));
            EXPECT_LT(elapsedMs(start), static_cast<long long>(timeout) + 5000);
        }
    }
    ReleaseMutex(mutex);
    CloseHandle(event);
    CloseHandle(mutex);
}

TEST(Wait, InfiniteWaitEndsWhenSignalled) {
    HANDLE event = autoEvent(false);
    AsyncCall call([&] { return WaitForSingleObject(event, INFINITE); });
    ASSERT_TRUE(call.blocked());
    EXPECT_FALSE(call.done());
    SetEvent(event);
    ASSERT_TRUE(call.finishes());
    EXPECT_EQ(call.result(), WAIT_OBJECT_0);
    CloseHandle(event);
}

TEST(Wait, BadArgumentsFail) {
    HANDLE event = autoEvent(true);
    const HANDLE withNull[] = {event, nullptr};
    HANDLE many[MAXIMUM_WAIT_OBJECTS + 1];
    for (HANDLE& handle : many) {
        handle = event;
    }
    const HANDLE twice[] = {event, event};
    struct Case {
        DWORD count;
        const HANDLE* handles;
        BOOL waitAll;
        DWORD error;
    };
    const Case cases[] = {
        {2, withNull, FALSE, ERROR_INVALID_HANDLE},
        {0, many, FALSE, ERROR_INVALID_PARAMETER},
        {MAXIMUM_WAIT_OBJECTS + 1, many, FALSE, ERROR_INVALID_PARAMETER},
        {1, nullptr, FALSE, ERROR_INVALID_PARAMETER},
        {2, twice, TRUE, ERROR_INVALID_PARAMETER},  // one object cannot be acquired twice
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "count " << c.count << " all " << c.waitAll);
        SetLastError(0);
        EXPECT_EQ(WaitForMultipleObjects(c.count, c.handles, c.waitAll, 0), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), c.error);
    }
    EXPECT_EQ(WaitForSingleObject(nullptr, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(WaitForSingleObject(reinterpret_cast<HANDLE>(std::intptr_t{-1}), 0), WAIT_FAILED);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);  // none of the above took it

    EXPECT_TRUE(CloseHandle(event));
    EXPECT_FALSE(CloseHandle(event));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(CloseHandle(nullptr));
}

TEST(Wait, ZeroTimeWaitsOnSeveralEvents) {
    // The automatic-reset events set before, the result, and those still set afterwards.
    struct Case {
        const char* before;
        BOOL waitAll;
        DWORD result;
        const char* after;
    };
    const Case cases[] = {
        {"011", FALSE, WAIT_OBJECT_0 + 1, "001"},  // the lowest index, and only it, is taken
        {"100", FALSE, WAIT_OBJECT_0, "000"},     {"000", FALSE, WAIT_TIMEOUT, "000"},
        {"110", TRUE, WAIT_TIMEOUT, "110"},  // nothing is taken unless all are there
        {"111", TRUE, WAIT_OBJECT_0, "000"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.before << " all " << c.waitAll);
        HANDLE events[3];
        for (int i = 0; i < 3; ++i) {
            events[i] = autoEvent(c.before[i] == '1');
        }
        EXPECT_EQ(WaitForMultipleObjects(3, events, c.waitAll, 0), c.result);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(WaitForSingleObject(events[i], 0),
                      c.after[i] == '1' ? WAIT_OBJECT_0 : WAIT_TIMEOUT)
                << "event " << i;
            CloseHandle(events[i]);
        }
    }
}

TEST(Wait, AnyGivesBackTheSignalsItDidNotUse) {
    // Both Sets may be handed to the one waiting thread before it looks; it takes one, and
    // the other event must stay signalled.
    const HANDLE events[] = {autoEvent(false), autoEvent(false)};
    AsyncCall call([&] { return WaitForMultipleObjects(2, events, FALSE, 5000); });
    ASSERT_TRUE(call.blocked());
    SetEvent(events[1]);
    SetEvent(events[0]);
    ASSERT_TRUE(call.finishes());
    ASSERT_LE(call.result(), WAIT_OBJECT_0 + 1);
    const DWORD other = 1 - call.result();
    EXPECT_EQ(WaitForSingleObject(events[other], 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(events[1 - other], 0), WAIT_TIMEOUT);
    for (HANDLE event : events) {
        CloseHandle(event);
    }
}

TEST(Wait, PulseUnusedByItsFirstWaiterReachesTheNextOne) {
    HANDLE manual = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE pulsed = autoEvent(false);
    const HANDLE both[] = {manual, pulsed};
    AsyncCall first([&] { return WaitForMultipleObjects(2, both, FALSE, 5000); });
    ASSERT_TRUE(first.blocked());
    AsyncCall second([&] { return WaitForSingleObject(pulsed, 5000); });
    ASSERT_TRUE(second.blocked());
    SetEvent(manual);    // releases the first waiter at index 0 ...
    PulseEvent(pulsed);  // ... so the pulse must end up with the second
    ASSERT_TRUE(first.finishes());
    ASSERT_TRUE(second.finishes());
    EXPECT_EQ(first.result(), WAIT_OBJECT_0);
    EXPECT_EQ(second.result(), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(pulsed, 0), WAIT_TIMEOUT);
    CloseHandle(manual);
    CloseHandle(pulsed);
}

TEST(Wait, AllWaitsForTheLastObjectAndThenTakesThemTogether) {
    HANDLE first = autoEvent(false);
    HANDLE manual = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);
    const HANDLE objects[] = {first, manual, mutex};
    AsyncCall call([&] {
        const DWORD result = WaitForMultipleObjects(3, objects, TRUE, 5000);
        if (result == WAIT_OBJECT_0) {
            ReleaseMutex(mutex);
        }
        return result;
    });
    ASSERT_TRUE(call.blocked());
    SetEvent(first);
    SetEvent(manual);
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(call.done());                                // the mutex is still held here
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);  // and nothing was taken
    SetEvent(first);
    EXPECT_TRUE(ReleaseMutex(mutex));
    ASSERT_TRUE(call.finishes());
    EXPECT_EQ(call.result(), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
    CloseHandle(first);
    CloseHandle(manual);
    CloseHandle(mutex);
}

TEST(Wait, WaitingThreadsDoNotSpin) {
    HANDLE manualSet = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    HANDLE unset = autoEvent(false);
    HANDLE autoSet = autoEvent(true);
    HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);  // held here throughout
    // Waits for all that find some objects there and others not; the second pair take the
    // event and give it back on each try, and must not keep waking each other.
    auto waits = [&] {
        const DWORD before = threadCpuMs();
        const HANDLE partly[] = {manualSet, unset};
        const HANDLE blocked[] = {autoSet, mutex};
        WaitForMultipleObjects(2, partly, TRUE, 300);
        WaitForMultipleObjects(2, blocked, TRUE, 600);
        WaitForSingleObject(unset, 300);
        return threadCpuMs() - before;
    };
    AsyncCall first(waits);
    AsyncCall second(waits);
    ASSERT_TRUE(first.finishes());
    ASSERT_TRUE(second.finishes());
    EXPECT_LT(first.result(), 300u);  // of 1200 ms of waiting each
    EXPECT_LT(second.result(), 300u);
    EXPECT_EQ(WaitForSingleObject(autoSet, 0), WAIT_OBJECT_0);  // given back every time
    ReleaseMutex(mutex);
    for (HANDLE handle : {manualSet, unset, autoSet, mutex}) {
        CloseHandle(handle);
    }
}

namespace {
std::atomic<int> g_signals{0};
void countSignal(int) {
    ++g_signals;
}
}  // namespace

TEST(Wait, SignalsDoNotShortenOrEndAWait) {
    struct sigaction action {};
    action.sa_handler = &countSignal;  // no SA_RESTART: the waits see EINTR
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    HANDLE event = autoEvent(false);
    HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);
    const HANDLE objects[] = {event, mutex};
    std::atomic<pthread_t> waiter{};
    AsyncCall call([&] {
        waiter = ::pthread_self();
        const auto start = std::chrono::steady_clock::now();
        const DWORD first = WaitForMultipleObjects(2, objects, FALSE, 300);
        const DWORD second = WaitForSingleObject(event, 300);
        const DWORD third = WaitForSingleObject(mutex, 300);
        return first == WAIT_TIMEOUT && second == WAIT_TIMEOUT && third == WAIT_TIMEOUT &&
                       elapsedMs(start) >= 900
                   ? DWORD{0}
                   : DWORD{1};
    });
    ASSERT_TRUE(call.blocked());
    while (!call.done()) {
        ::pthread_kill(waiter.load(), SIGUSR1);
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_EQ(call.result(), 0u);
    EXPECT_GT(g_signals.load(), 0);
    ::sigaction(SIGUSR1, &previous, nullptr);
    ReleaseMutex(mutex);
    CloseHandle(event);
    CloseHandle(mutex);
}
