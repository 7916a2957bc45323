// Events of the process and of the machine, and the waits for them and for mutexes.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/PlatformTest.h"
#include "support/WaitProbe.h"
#include "tessel/base/Handle.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Mutex.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/SystemEvent.h"

using namespace Tessel::Platform;
using namespace TesselTest;
using PlatformTest::failureOf;
using Tessel::CHandle;

namespace {

CHandle autoEvent(bool set = false) {
    return CHandle(CreateEventA(nullptr, FALSE, set ? TRUE : FALSE, nullptr));
}

CHandle manualEvent(bool set = false) {
    return CHandle(CreateEventA(nullptr, TRUE, set ? TRUE : FALSE, nullptr));
}

long long elapsedMs(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 since)
        .count();
}

using Calls = std::vector<std::unique_ptr<AsyncCall>>;

// Starts count threads that wait on event (long enough, yet so that a failing test ends in
// time), and returns once all of them sleep.
Calls startWaiters(HANDLE event, int count) {
    Calls calls;
    for (int i = 0; i < count; ++i) {
        calls.push_back(
            std::make_unique<AsyncCall>([event] { return WaitForSingleObject(event, 10000); }));
    }
    for (auto& call : calls) {
        EXPECT_TRUE(call->blocked());
    }
    return calls;
}

// Whether exactly expected calls have returned WAIT_OBJECT_0, and no more return for a while.
bool exactlyReleased(const Calls& calls, int expected) {
    auto released = [&] {
        int count = 0;
        for (const auto& call : calls) {
            count += call->done() && call->result() == WAIT_OBJECT_0 ? 1 : 0;
        }
        return count;
    };
    if (!eventually([&] { return released() >= expected; })) {
        return false;
    }
    std::this_thread::sleep_for(100ms);
    return released() == expected;
}

// Applies S (Set), R (Reset) or P (Pulse) to event.
BOOL apply(char operation, HANDLE event) {
    switch (operation) {
        case 'S':
            return SetEvent(event);
        case 'R':
            return ResetEvent(event);
        default:
            return PulseEvent(event);
    }
}

// --- events ---

TEST(Event, OperationsWithoutWaiters) {
    // S Set, R Reset, P Pulse; 1 and 0: a zero-time test must find it signalled, or not.
    const struct {
        BOOL manualReset;
        BOOL initialState;
        const char* script;
    } cases[] = {
        {FALSE, FALSE, "0"},   {FALSE, TRUE, "10"},  // taking it resets it
        {TRUE, FALSE, "0"},    {TRUE, TRUE, "11R0"},    {FALSE, FALSE, "SS10"},  // one signal
        {FALSE, FALSE, "SR0"}, {TRUE, FALSE, "SRR0S1"}, {FALSE, TRUE, "P0"},
        {FALSE, FALSE, "P0"},  // a pulse leaves it reset
        {TRUE, TRUE, "P0"},    {TRUE, FALSE, "P0S1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "manual " << c.manualReset << " initial "
                                        << c.initialState << " " << c.script);
        HANDLE event = CreateEventA(nullptr, c.manualReset, c.initialState, nullptr);
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        for (const char* step = c.script; *step != '\0'; ++step) {
            if (*step != '0' && *step != '1') {
                EXPECT_TRUE(apply(*step, event));
            } else {
                EXPECT_EQ(WaitForSingleObject(event, 0),
                          *step == '1' ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
            }
        }
        EXPECT_TRUE(CloseHandle(event));
    }
}

TEST(Event, SetAndPulseReleaseWaitingThreadsAsTheKindRequires) {
    // Three threads wait; then the operations (S Set, P Pulse) in turn.
    const struct {
        BOOL manualReset;
        const char* operations;
        int released;
        DWORD afterwards;
    } cases[] = {
        {TRUE, "S", 3, WAIT_OBJECT_0},   // all, and it stays set
        {TRUE, "P", 3, WAIT_TIMEOUT},    // all, and it is reset
        {TRUE, "SR", 3, WAIT_TIMEOUT},   // all, reset long before they run: they were waiting
        {FALSE, "S", 1, WAIT_TIMEOUT},   // one, which took the signal
        {FALSE, "P", 1, WAIT_TIMEOUT},   // one, and it is reset
        {FALSE, "SS", 2, WAIT_TIMEOUT},  // both Sets find threads waiting: neither is lost
        {FALSE, "SSS", 3, WAIT_TIMEOUT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "manual " << c.manualReset << " " << c.operations);
        CHandle event(CreateEventA(nullptr, c.manualReset, FALSE, nullptr));
        Calls calls = startWaiters(event, 3);
        for (const char* operation = c.operations; *operation != '\0'; ++operation) {
            EXPECT_TRUE(apply(*operation, event));
        }
        EXPECT_TRUE(exactlyReleased(calls, c.released));
        EXPECT_EQ(WaitForSingleObject(event, 0), c.afterwards);
        for (int i = 0; i < 3; ++i) {
            SetEvent(event);  // lets the others go
        }
    }
}

TEST(Event, ManyHandOversLoseNoWakeUp) {
    // Two threads pass the turn back and forth through two automatic-reset events.
    CHandle ping = autoEvent();
    CHandle pong = autoEvent();
    constexpr int kRounds = 2000;
    AsyncCall partner([&] {
        for (int i = 0; i < kRounds; ++i) {
            if (WaitForSingleObject(ping, 5000) != WAIT_OBJECT_0) {
                return DWORD{1};
            }
            SetEvent(pong);
        }
        return DWORD{0};
    });
    for (int i = 0; i < kRounds; ++i) {
        SetEvent(ping);
        ASSERT_EQ(WaitForSingleObject(pong, 5000), WAIT_OBJECT_0) << "round " << i;
    }
    ASSERT_TRUE(partner.finishes());
    EXPECT_EQ(partner.result(), 0u);
}

TEST(Event, NamedEventIsSharedUntilItsLastHandleCloses) {
    const std::string name = "Global\\TesselTest." + std::to_string(GetCurrentProcessId());
    HANDLE first = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    HANDLE second = CreateEventA(nullptr, FALSE, TRUE, name.c_str());  // settings ignored
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    // Without its "Global\" prefix the name is the same.
    HANDLE opened = OpenEventA(SYNCHRONIZE, FALSE, name.substr(7).c_str());
    ASSERT_NE(opened, nullptr);
    EXPECT_NE(first, second);

    SetEvent(first);
    EXPECT_TRUE(CloseHandle(first));
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(opened, 0), WAIT_OBJECT_0);  // manual reset, as created
    EXPECT_TRUE(CloseHandle(second));
    EXPECT_TRUE(CloseHandle(opened));

    EXPECT_EQ(failureOf(OpenEventA(SYNCHRONIZE, FALSE, name.c_str())), ERROR_FILE_NOT_FOUND);
    CHandle fresh(CreateEventA(nullptr, FALSE, FALSE, name.c_str()));
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(fresh, 0), WAIT_TIMEOUT);
}

// --- waits ---

std::atomic<int> g_signals{0};

void countSignal(int) {
    ++g_signals;
}

TEST(Wait, TimeoutsExpireInFullEvenUnderSignalsAndInfiniteWaitsEndWhenSignalled) {
    struct sigaction action {};
    action.sa_handler = &countSignal;  // no SA_RESTART: the waits see EINTR
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    CHandle event = autoEvent();
    CHandle mutex(CreateMutexA(nullptr, TRUE, nullptr));  // held by this thread throughout
    const HANDLE both[] = {event, mutex};
    const struct {
        const char* what;
        DWORD (*wait)(const HANDLE* objects, DWORD timeout);
    } cases[] = {
        {"event", [](const HANDLE* o, DWORD t) { return WaitForSingleObject(o[0], t); }},
        {"mutex", [](const HANDLE* o, DWORD t) { return WaitForSingleObject(o[1], t); }},
        {"any", [](const HANDLE* o, DWORD t) { return WaitForMultipleObjects(2, o, FALSE, t); }},
        {"all", [](const HANDLE* o, DWORD t) { return WaitForMultipleObjects(2, o, TRUE, t); }},
    };
    for (const auto& c : cases) {
        for (DWORD timeout : {0u, 30u, 200u}) {
            SCOPED_TRACE(testing::Message() << c.what << " " << timeout << " ms");
            std::atomic<pthread_t> waiter{};
            const auto start = std::chrono::steady_clock::now();
            AsyncCall call([&] {
                waiter = ::pthread_self();
                return c.wait(both, timeout);
            });
            ASSERT_TRUE(eventually([&] { return waiter.load() != pthread_t{}; }));
            while (!call.done()) {
                ::pthread_kill(waiter.load(), SIGUSR1);
                std::this_thread::sleep_for(5ms);
            }
            EXPECT_EQ(call.result(), WAIT_TIMEOUT);
            EXPECT_GE(elapsedMs(start), static_cast<long long>(timeout));
        }
    }
    EXPECT_GT(g_signals.load(), 0);
    ::sigaction(SIGUSR1, &previous, nullptr);
    ReleaseMutex(mutex);

    AsyncCall call([&] { return WaitForSingleObject(event, INFINITE); });
    ASSERT_TRUE(call.blocked());
    EXPECT_FALSE(call.done());
    SetEvent(event);
    ASSERT_TRUE(call.finishes());
    EXPECT_EQ(call.result(), WAIT_OBJECT_0);
}

TEST(Wait, BadHandlesArgumentsAndNamesFail) {
    HANDLE event = CreateEventA(nullptr, FALSE, TRUE, nullptr);
    CHandle mutex(CreateMutexA(nullptr, FALSE, nullptr));
    for (HANDLE handle : {HANDLE{nullptr}, HANDLE{mutex}}) {
        for (auto operation : {&SetEvent, &ResetEvent, &PulseEvent}) {
            SetLastError(0);
            EXPECT_EQ(failureOf(operation(handle)), ERROR_INVALID_HANDLE);
        }
    }
    EXPECT_EQ(failureOf(OpenEventA(SYNCHRONIZE, FALSE, nullptr)), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(failureOf(CreateEventA(nullptr, FALSE, FALSE, std::string(300, 'x').c_str())),
              ERROR_FILENAME_EXCED_RANGE);
    const std::string tooLong(108, 'n');
    EXPECT_EQ(failureOf(CreateSystemEvent(nullptr)), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(failureOf(CreateSystemEvent("")), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(failureOf(CreateSystemEvent(tooLong.c_str())), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(failureOf(SetSystemEvent(tooLong.c_str())), ERROR_FILENAME_EXCED_RANGE);
    CHandle longest(CreateSystemEvent(tooLong.substr(1).c_str()));
    EXPECT_NE(longest, nullptr);

    const HANDLE withNull[] = {event, nullptr};
    HANDLE many[MAXIMUM_WAIT_OBJECTS + 1];
    std::fill(std::begin(many), std::end(many), event);
    const struct {
        DWORD count;
        const HANDLE* handles;
        BOOL waitAll;
        DWORD error;
    } cases[] = {
        {2, withNull, FALSE, ERROR_INVALID_HANDLE},
        {0, many, FALSE, ERROR_INVALID_PARAMETER},
        {MAXIMUM_WAIT_OBJECTS + 1, many, FALSE, ERROR_INVALID_PARAMETER},
        {1, nullptr, FALSE, ERROR_INVALID_PARAMETER},
        {2, many, TRUE, ERROR_INVALID_PARAMETER},  // one object cannot be acquired twice
    };
    for (const auto& c : cases) {
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
    EXPECT_EQ(failureOf(CloseHandle(event)), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(CloseHandle(nullptr));
}

TEST(Wait, ZeroTimeWaitsOnSeveralEvents) {
    // The automatic-reset events set before, the result, and those still set afterwards.
    const struct {
        const char* before;
        BOOL waitAll;
        DWORD result;
        const char* after;
    } cases[] = {
        {"011", FALSE, WAIT_OBJECT_0 + 1, "001"},  // the lowest index, and only it, is taken
        {"100", FALSE, WAIT_OBJECT_0, "000"},     {"000", FALSE, WAIT_TIMEOUT, "000"},
        {"110", TRUE, WAIT_TIMEOUT, "110"},  // nothing is taken unless all are there
        {"111", TRUE, WAIT_OBJECT_0, "000"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.before << " all " << c.waitAll);
        CHandle owners[3] = {autoEvent(c.before[0] == '1'), autoEvent(c.before[1] == '1'),
                             autoEvent(c.before[2] == '1')};
        const HANDLE events[] = {owners[0], owners[1], owners[2]};
        EXPECT_EQ(WaitForMultipleObjects(3, events, c.waitAll, 0), c.result);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(WaitForSingleObject(events[i], 0),
                      c.after[i] == '1' ? WAIT_OBJECT_0 : WAIT_TIMEOUT)
                << "event " << i;
        }
    }
}

TEST(Wait, AnyGivesBackTheSignalsItDidNotUse) {
    // Both Sets may be handed to the one waiting thread before it looks; it takes one, and
    // the other event must stay signalled.
    CHandle first = autoEvent();
    CHandle second = autoEvent();
    const HANDLE events[] = {first, second};
    AsyncCall call([&] { return WaitForMultipleObjects(2, events, FALSE, 5000); });
    ASSERT_TRUE(call.blocked());
    SetEvent(events[1]);
    SetEvent(events[0]);
    ASSERT_TRUE(call.finishes());
    ASSERT_LE(call.result(), WAIT_OBJECT_0 + 1);
    const DWORD other = 1 - call.result();
    EXPECT_EQ(WaitForSingleObject(events[other], 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(events[1 - other], 0), WAIT_TIMEOUT);
}

TEST(Wait, PulseUnusedByItsFirstWaiterReachesTheNextOne) {
    CHandle manual = manualEvent();
    CHandle pulsed = autoEvent();
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
}

TEST(Wait, AllWaitsForTheLastObjectAndThenTakesThemTogether) {
    CHandle first = autoEvent();
    CHandle manual = manualEvent();
    CHandle mutex(CreateMutexA(nullptr, TRUE, nullptr));
    const HANDLE objects[] = {first, manual, mutex};
    AsyncCall call([&] {
        const DWORD result = WaitForMultipleObjects(3, objects, TRUE, 5000);
        if (result == WAIT_OBJECT_0) {
            ReleaseMutex(objects[2]);
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
}

// Processor time used by the calling thread, in milliseconds.
DWORD threadCpuMs() {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return static_cast<DWORD>((usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
                              (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000);
}

TEST(Wait, WaitingThreadsDoNotSpin) {
    CHandle manualSet = manualEvent(true);
    CHandle unset = autoEvent();
    CHandle autoSet = autoEvent(true);
    CHandle mutex(CreateMutexA(nullptr, TRUE, nullptr));  // held here throughout
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
}

// --- system events ---

std::string uniqueName() {
    return PlatformTest::uniqueName("Global\\tessel-test-event");
}

TEST(SystemEvent, SetByNameReleasesOneWaitOfAnyHandleAndResetsItself) {
    const std::string name = uniqueName();
    HANDLE first = CreateSystemEvent(name.c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    HANDLE second = CreateSystemEvent(name.c_str());
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_NE(first, second);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);

    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);
    // Two Sets before a wait set the event once.
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(first, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_TIMEOUT);

    // The name lives until its last handle is closed.
    EXPECT_EQ(CloseHandle(first), TRUE);
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(CloseHandle(second), TRUE);
    EXPECT_EQ(failureOf(SetSystemEvent(name.c_str())), ERROR_FILE_NOT_FOUND);
}

TEST(SystemEvent, WakesAThreadThatWaitsAlsoAmongOtherObjects) {
    const std::string name = uniqueName();
    CHandle event(CreateSystemEvent(name.c_str()));
    ASSERT_NE(event, nullptr);
    AsyncCall single([&] { return WaitForSingleObject(event, INFINITE); });
    ASSERT_TRUE(single.blocked());
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    ASSERT_TRUE(single.finishes());
    EXPECT_EQ(single.result(), WAIT_OBJECT_0);

    CHandle other = autoEvent();
    const HANDLE both[2] = {other, event};
    AsyncCall any([&] { return WaitForMultipleObjects(2, both, FALSE, INFINITE); });
    ASSERT_TRUE(any.blocked());
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    ASSERT_TRUE(any.finishes());
    EXPECT_EQ(any.result(), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(SetEvent(other), TRUE);
    EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

TEST(SystemEvent, NameHeldElsewhereGivesAHandleThatNeverSignals) {
    // A socket bound to the name outside the event table stands for another process.
    const std::string name = uniqueName();
    const std::string key = name.substr(std::strlen("Global\\"));
    const int holder = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(PlatformTest::bindAbstract(holder, key), 0);
    HANDLE event = CreateSystemEvent(name.c_str());
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    char byte = 0;
    EXPECT_EQ(::recv(holder, &byte, 1, MSG_DONTWAIT), 1);  // the holder got the Set
    EXPECT_EQ(CloseHandle(event), TRUE);
    ::close(holder);
}

}  // namespace
