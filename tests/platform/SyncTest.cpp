// Kernel objects and the waits for them: events of the process and of the machine, mutexes
// unnamed and named across processes, the critical section, and the threads' message queues.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"
#include "support/WaitProbe.h"
#include "tessel/base/Handle.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/CriticalSection.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/MessageQueue.h"
#include "tessel/platform/Mutex.h"
#include "tessel/platform/SystemEvent.h"

using namespace Tessel::Platform;
using namespace TesselTest;
using PlatformTest::failureOf;
using Tessel::CHandle;

namespace {

CHandle newEvent(BOOL manualReset, BOOL initialState = FALSE) {
    return CHandle(CreateEventA(nullptr, manualReset, initialState, nullptr));
}

// What body returns when run on a thread of its own.
DWORD onAnotherThread(std::function<DWORD()> body) {
    AsyncCall call(std::move(body));
    EXPECT_TRUE(call.finishes());
    return call.result();
}

using Calls = std::vector<std::unique_ptr<AsyncCall>>;

// Whether exactly expected calls have returned WAIT_OBJECT_0, and no more return for a while.
bool exactlyReleased(const Calls& calls, int expected) {
    auto released = [&] {
        return std::ranges::count_if(calls, [](const auto& call) {
            return call->done() && call->result() == WAIT_OBJECT_0;
        });
    };
    if (!eventually([&] { return released() >= expected; })) {
        return false;
    }
    std::this_thread::sleep_for(100ms);
    return released() == expected;
}

TEST(Event, SetResetAndPulseWithAndWithoutWaitingThreads) {
    // W: a thread begins to wait (and sleeps); S Set, R Reset, P Pulse; =n: exactly n waiting
    // threads have been released; 1 and 0: a zero-time test finds it signalled, or not.
    const struct {
        BOOL manualReset;
        BOOL initialState;
        const char* script;
    } cases[] = {
        {FALSE, FALSE, "0"},        {FALSE, TRUE, "10"},     // taking it resets it
        {TRUE, TRUE, "11R0"},       {FALSE, FALSE, "SS10"},  // one signal
        {FALSE, FALSE, "SR0"},      {TRUE, FALSE, "SRR0S1"},
        {FALSE, TRUE, "P0"},        {FALSE, FALSE, "P0"},      // a pulse leaves it reset
        {TRUE, TRUE, "P0"},         {TRUE, FALSE, "WWWS=31"},  // all, and it stays set
        {TRUE, FALSE, "WWWP=30"},                              // all, and it is reset
        {TRUE, FALSE, "WWWSR=30"},   // all, reset long before they run: they were waiting
        {FALSE, FALSE, "WWWS=10"},   // one, which took the signal
        {FALSE, FALSE, "WWWP=10"},   // one, and it is reset
        {FALSE, FALSE, "WWWSS=20"},  // both Sets find threads waiting: neither is lost
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "manual " << c.manualReset << " initial "
                                        << c.initialState << " " << c.script);
        CHandle event(CreateEventA(nullptr, c.manualReset, c.initialState, nullptr));
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        Calls waiters;
        for (const char* step = c.script; *step != '\0'; ++step) {
            if (*step == 'W') {
                waiters.push_back(std::make_unique<AsyncCall>(
                    [handle = HANDLE{event}] { return WaitForSingleObject(handle, 10000); }));
                EXPECT_TRUE(waiters.back()->blocked());
            } else if (*step == '=') {
                EXPECT_TRUE(exactlyReleased(waiters, *++step - '0'));
            } else if (*step == '0' || *step == '1') {
                EXPECT_EQ(WaitForSingleObject(event, 0),
                          *step == '1' ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
            } else {
                EXPECT_TRUE((*step == 'S'   ? SetEvent
                             : *step == 'R' ? ResetEvent
                                            : PulseEvent)(event));
            }
        }
        for (std::size_t i = 0; i < waiters.size(); ++i) {
            SetEvent(event);  // lets the others go
        }
        waiters.clear();
        EXPECT_TRUE(CloseHandle(event.Detach()));
    }
}

TEST(Event, ManyHandOversLoseNoWakeUp) {
    // Two threads pass the turn back and forth through two automatic-reset events.
    CHandle ping = newEvent(FALSE);
    CHandle pong = newEvent(FALSE);
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

std::atomic<int> g_signals{0};

TEST(Wait, TimeoutsExpireInFullEvenUnderSignals) {
    struct sigaction action {};
    action.sa_handler = [](int) { ++g_signals; };  // no SA_RESTART: the waits see EINTR
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    CHandle event = newEvent(FALSE);
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
        for (DWORD timeout : {0u, 500u}) {
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
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(timeout));
        }
    }
    EXPECT_GT(g_signals.load(), 0);
    ::sigaction(SIGUSR1, &previous, nullptr);
    ReleaseMutex(mutex);
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
    EXPECT_EQ(failureOf(ReleaseMutex(event)), ERROR_INVALID_HANDLE);
    EXPECT_EQ(failureOf(ReleaseMutex(nullptr)), ERROR_INVALID_HANDLE);
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
    std::ranges::fill(many, event);
    auto waitFailure = [](DWORD count, const HANDLE* handles, BOOL waitAll) {
        SetLastError(0);
        return failureOf(WaitForMultipleObjects(count, handles, waitAll, 0), WAIT_FAILED);
    };
    EXPECT_EQ(waitFailure(2, withNull, FALSE), ERROR_INVALID_HANDLE);
    EXPECT_EQ(waitFailure(0, many, FALSE), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(waitFailure(MAXIMUM_WAIT_OBJECTS + 1, many, FALSE), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(waitFailure(1, nullptr, FALSE), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(waitFailure(2, many, TRUE), ERROR_INVALID_PARAMETER);  // one object, twice
    EXPECT_EQ(failureOf(WaitForSingleObject(nullptr, 0), WAIT_FAILED), ERROR_INVALID_HANDLE);
    EXPECT_EQ(WaitForSingleObject(reinterpret_cast<HANDLE>(std::intptr_t{-1}), 0), WAIT_FAILED);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);  // none of the above took it
    EXPECT_TRUE(CloseHandle(event));
    EXPECT_EQ(failureOf(CloseHandle(event)), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(CloseHandle(nullptr));
}

TEST(Wait, AnyTakesTheLowestSignalledIndexAndPassesOnReleasesItDidNotUse) {
    CHandle first = newEvent(FALSE);
    CHandle second = newEvent(FALSE, TRUE);
    CHandle third = newEvent(FALSE, TRUE);
    const HANDLE events[] = {first, second, third};
    EXPECT_EQ(WaitForMultipleObjects(3, events, FALSE, 0), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(third, 0), WAIT_OBJECT_0);

    // Both Sets may reach the one waiter before it looks: it takes one, the other stays set.
    AsyncCall call([&] { return WaitForMultipleObjects(2, events, FALSE, 5000); });
    ASSERT_TRUE(call.blocked());
    SetEvent(events[1]);
    SetEvent(events[0]);
    ASSERT_TRUE(call.finishes());
    ASSERT_LE(call.result(), WAIT_OBJECT_0 + 1);
    const DWORD other = 1 - call.result();
    EXPECT_EQ(WaitForSingleObject(events[other], 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(events[1 - other], 0), WAIT_TIMEOUT);

    // A pulse that its first waiter leaves (for a lower index) reaches the next one.
    CHandle manual = newEvent(TRUE);
    const HANDLE pulsed = first;
    const HANDLE both[] = {manual, pulsed};
    AsyncCall firstWaiter([&] { return WaitForMultipleObjects(2, both, FALSE, 5000); });
    ASSERT_TRUE(firstWaiter.blocked());
    AsyncCall nextWaiter([&] { return WaitForSingleObject(pulsed, 5000); });
    ASSERT_TRUE(nextWaiter.blocked());
    SetEvent(manual);
    PulseEvent(pulsed);
    ASSERT_TRUE(firstWaiter.finishes());
    ASSERT_TRUE(nextWaiter.finishes());
    EXPECT_EQ(firstWaiter.result(), WAIT_OBJECT_0);
    EXPECT_EQ(nextWaiter.result(), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(pulsed, 0), WAIT_TIMEOUT);
}

TEST(Wait, AllWaitsForTheLastObjectAndThenTakesThemTogether) {
    CHandle first = newEvent(FALSE);
    CHandle manual = newEvent(TRUE);
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
    CHandle manualSet = newEvent(TRUE, TRUE);
    CHandle unset = newEvent(FALSE);
    CHandle autoSet = newEvent(FALSE, TRUE);
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

TEST(SystemEvent, SetByNameReleasesOneWaitAndResetsItselfWhileTheNameLivesHereOrElsewhere) {
    const std::string key = PlatformTest::uniqueName("tessel-test-event");
    const std::string name = "Global\\" + key;
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

    // It wakes a thread that waits for it among other objects, and waits for all take it.
    CHandle other = newEvent(FALSE);
    const HANDLE both[2] = {other, second};
    AsyncCall any([&] { return WaitForMultipleObjects(2, both, FALSE, INFINITE); });
    ASSERT_TRUE(any.blocked());
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    ASSERT_TRUE(any.finishes());
    EXPECT_EQ(any.result(), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(SetEvent(other), TRUE);
    EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);

    // The name lives until its last handle is closed.
    EXPECT_EQ(CloseHandle(first), TRUE);
    EXPECT_EQ(SetSystemEvent(name.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(CloseHandle(second), TRUE);
    EXPECT_EQ(failureOf(SetSystemEvent(name.c_str())), ERROR_FILE_NOT_FOUND);

    // A name held by another process (a socket bound outside the table) never signals.
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

// A name of the test's own; without "Global\" it also names the shared-memory segment.
std::string uniqueKey() {
    return PlatformTest::uniqueName("TesselTest.mutex");
}

bool segmentExists(const std::string& key) {
    return ::access(("/dev/shm/tessel.mutex." + key).c_str(), F_OK) == 0;
}

TEST(Mutex, OnlyItsOwnerReleasesItAndAThreadThatEndsOwningItAbandonsIt) {
    HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(onAnotherThread([&] { return failureOf(ReleaseMutex(mutex)); }), ERROR_NOT_OWNER);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(onAnotherThread([&] { return WaitForSingleObject(mutex, 0); }), WAIT_TIMEOUT)
        << "the creator's acquisition is outstanding";
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(failureOf(ReleaseMutex(mutex)), ERROR_NOT_OWNER);

    EXPECT_EQ(onAnotherThread([&] { return WaitForSingleObject(mutex, 0); }), WAIT_OBJECT_0);
    // A wait for all that cannot complete gives it back, abandonment and all, to the next owner.
    HANDLE held = CreateMutexA(nullptr, TRUE, nullptr);
    const HANDLE objects[] = {mutex, held};
    EXPECT_EQ(onAnotherThread([&] { return WaitForMultipleObjects(2, objects, TRUE, 0); }),
              WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(mutex, 1000), WAIT_ABANDONED);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);  // owned, count 2
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(onAnotherThread([&] {
                  const DWORD result = WaitForSingleObject(mutex, 1000);
                  ReleaseMutex(mutex);
                  return result;
              }),
              WAIT_OBJECT_0);
    ReleaseMutex(held);
    CloseHandle(mutex);
    CloseHandle(held);
}

TEST(Mutex, NamedMutexExistsWhileAHandleIsOpenAndRacingCreatorsShareOne) {
    const std::string key = uniqueKey();
    const std::string name = "Global\\" + key;
    HANDLE first = CreateMutexA(nullptr, FALSE, name.c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_TRUE(segmentExists(key));
    HANDLE second = CreateMutexA(nullptr, TRUE, key.c_str());  // the same name
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(failureOf(ReleaseMutex(second)), ERROR_NOT_OWNER);  // opened, not taken
    HANDLE opened = OpenMutexA(SYNCHRONIZE, FALSE, name.c_str());
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
    EXPECT_EQ(onAnotherThread([&] { return WaitForSingleObject(opened, 0); }), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(second));  // any handle of the object

    CloseHandle(first);
    CloseHandle(second);
    EXPECT_TRUE(segmentExists(key));
    CloseHandle(opened);
    EXPECT_FALSE(segmentExists(key));
    EXPECT_EQ(failureOf(OpenMutexA(SYNCHRONIZE, FALSE, name.c_str())), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(failureOf(CreateMutexA(nullptr, FALSE, std::string(250, 'x').c_str())),
              ERROR_FILENAME_EXCED_RANGE);

    // Separators and '%' are escaped, so that distinct names stay distinct.
    HANDLE odd = CreateMutexA(nullptr, FALSE, ("Local\\" + key + "a/b\\c%d").c_str());
    EXPECT_TRUE(segmentExists(key + "a%2Fb%5Cc%25d"));
    HANDLE plain = CreateMutexA(nullptr, FALSE, (key + "a_b_c_d").c_str());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    CloseHandle(odd);
    CloseHandle(plain);

    // Of processes that create the name at once, one makes the mutex and the others open it.
    constexpr int kChildren = 4;
    // Shared with the children: the start, and how many of them have created the mutex.
    int* shared = static_cast<int*>(::mmap(nullptr, 2 * sizeof(int), PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    std::atomic_ref<int> start(shared[0]);
    std::atomic_ref<int> created(shared[1]);
    std::vector<pid_t> children;
    for (int i = 0; i < kChildren; ++i) {
        children.push_back(::fork());
        if (children.back() == 0) {
            eventually([&] { return start.load() == 1; }, 10000ms, 0ms);
            HANDLE mutex = CreateMutexA(nullptr, FALSE, key.c_str());
            const DWORD error = GetLastError();
            ++created;
            // Keeps it open until every child has created.
            eventually([&] { return created.load() == kChildren; });
            ::_exit(mutex == nullptr || !CloseHandle(mutex) ? 9
                    : error == ERROR_SUCCESS                ? 0
                    : error == ERROR_ALREADY_EXISTS         ? 1
                                                            : 2);
        }
    }
    start = 1;
    std::vector<int> statuses;
    for (pid_t child : children) {
        statuses.push_back(WaitForChild(child, 10000ms));
    }
    EXPECT_EQ(std::count(statuses.begin(), statuses.end(), 0), 1);
    EXPECT_EQ(std::count(statuses.begin(), statuses.end(), 1), kChildren - 1);
    EXPECT_FALSE(segmentExists(key));  // the last one removed the name
    ::munmap(shared, 2 * sizeof(int));
}

TEST(Mutex, ProcessesThatDieAbandonItOrLeaveRemnantsThatAreNoMutexes) {
    const std::string key = uniqueKey();
    HANDLE mutex = CreateMutexA(nullptr, TRUE, key.c_str());
    ASSERT_NE(mutex, nullptr);
    EXPECT_TRUE(ReleaseMutex(mutex));
    // One that finds it by name and dies owning it twice leaves one abandoned acquisition.
    EXPECT_EQ(RunInChild([&] {
                  HANDLE opened = OpenMutexA(SYNCHRONIZE, FALSE, key.c_str());
                  WaitForSingleObject(opened, 0);
                  return WaitForSingleObject(opened, 0) == WAIT_OBJECT_0 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(WaitForSingleObject(mutex, 5000), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(failureOf(ReleaseMutex(mutex)), ERROR_NOT_OWNER);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(mutex);

    // One that dies holding the only handle (and the mutex) leaves its segment behind.
    ASSERT_EQ(RunInChild([&] {
                  mutex = CreateMutexA(nullptr, TRUE, key.c_str());
                  return mutex != nullptr && GetLastError() == ERROR_SUCCESS ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(segmentExists(key));
    EXPECT_EQ(failureOf(OpenMutexA(SYNCHRONIZE, FALSE, key.c_str())), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(segmentExists(key));

    // A creator that died before it sized its segment.
    const int fd = ::shm_open(("/tessel.mutex." + key).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ::close(fd);
    mutex = CreateMutexA(nullptr, FALSE, key.c_str());
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);  // a new mutex, not abandoned
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(mutex);
    EXPECT_FALSE(segmentExists(key));
}

TEST(CriticalSection, WaiterSpinsAsSetThenSleepsUntilTheOwnersLastLeave) {
    // No spin phase, and one of 4000 rounds (flag bits above the count are ignored).
    for (DWORD spinCount : {0u, 0x80000FA0u}) {
        SCOPED_TRACE(spinCount);
        CRITICAL_SECTION section;
        ASSERT_TRUE(spinCount == 0 ? InitializeCriticalSectionAndSpinCount(&section, spinCount)
                                   : InitializeCriticalSectionEx(&section, spinCount, 0));
        EnterCriticalSection(&section);
        EXPECT_TRUE(TryEnterCriticalSection(&section));
        AsyncCall enter([&] {
            EnterCriticalSection(&section);
            LeaveCriticalSection(&section);
            return DWORD{0};
        });
        ASSERT_TRUE(enter.blocked(SYS_futex));
        LeaveCriticalSection(&section);
        auto tryElsewhere = [&] { return static_cast<DWORD>(TryEnterCriticalSection(&section)); };
        EXPECT_EQ(onAnotherThread(tryElsewhere), 0u) << "one entry outstanding";
        EXPECT_FALSE(enter.done());
        LeaveCriticalSection(&section);
        EXPECT_TRUE(enter.finishes());
        DeleteCriticalSection(&section);
    }
}

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

std::atomic<LPARAM> g_argumentsRun{0};  // the sum over the posted callbacks that ran

TEST(MessageQueue, PostingNeedsTheQueueOfALiveThreadWithRoomInIt) {
    DWORD tid = 0;
    DWORD withoutQueue = 0;
    BOOL withQueue = FALSE;
    std::thread([&] {
        tid = GetCurrentThreadId();
        withoutQueue = failureOf(PostThreadMessageA(tid, WM_USER, 0, 0));
        makeQueue();
        withQueue = PostThreadMessageA(tid, WM_USER, 0, 0);
    }).join();
    EXPECT_EQ(withoutQueue, ERROR_INVALID_THREAD_ID);
    EXPECT_TRUE(withQueue);
    for (const DWORD gone : {tid, 0x7FFFFFF0u}) {  // a thread that has ended, or none
        SetLastError(0);
        EXPECT_EQ(failureOf(PostThreadMessageA(gone, WM_USER, 0, 0)), ERROR_INVALID_THREAD_ID);
    }

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

TEST(MessageQueue, MessagesComeInTheOrderPostedAndOnlyCallbacksRunOnDispatch) {
    makeQueue();
    const DWORD before = GetTickCount();
    ASSERT_TRUE(post(WM_USER + 1, 11, -11));
    ASSERT_TRUE(post(WM_USER + 2, 22, -22));
    const DWORD after = GetTickCount();

    MSG message{};
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE | PM_NOYIELD));
    EXPECT_EQ(message.message, WM_USER + 1);
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.hwnd, nullptr);
    EXPECT_EQ(message.message, WM_USER + 1) << "PM_NOREMOVE left it in the queue";
    EXPECT_EQ(message.wParam, 11u);
    EXPECT_EQ(message.lParam, -11);
    EXPECT_LE(message.time - before, after - before);
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, WM_USER + 2);
    EXPECT_EQ(message.wParam, 22u);
    EXPECT_EQ(message.lParam, -22);
    EXPECT_FALSE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    SetLastError(0);
    EXPECT_EQ(failureOf(PeekMessageA(nullptr, nullptr, 0, 0, PM_REMOVE)), ERROR_INVALID_PARAMETER);

    ASSERT_TRUE(PostThreadCallback(
        GetCurrentThreadId(), [](LPARAM argument) { g_argumentsRun += argument; }, 42));
    ASSERT_TRUE(post(WM_USER, 1, 2));
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, WM_TESSEL_CALLBACK);
    EXPECT_EQ(TranslateMessage(&message), FALSE);
    EXPECT_EQ(g_argumentsRun, 0) << "nothing runs before the dispatch";
    EXPECT_EQ(DispatchMessageA(&message), 0);
    EXPECT_EQ(g_argumentsRun, 42);
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(DispatchMessageA(&message), 0);
    EXPECT_EQ(DispatchMessageA(nullptr), 0);
    MSG empty{nullptr, WM_TESSEL_CALLBACK, 0, 0, 0};
    EXPECT_EQ(DispatchMessageA(&empty), 0);
    EXPECT_EQ(g_argumentsRun, 42);
    SetLastError(0);
    EXPECT_EQ(failureOf(PostThreadCallback(GetCurrentThreadId(), nullptr, 0)),
              ERROR_INVALID_PARAMETER);
}

TEST(MessageQueue, FilterTakesWhatPassesAndLeavesTheRestInItsOrderAndForksStartEmpty) {
    const HWND threadMessages = reinterpret_cast<HWND>(static_cast<std::intptr_t>(-1));
    const HWND someWindow = reinterpret_cast<HWND>(static_cast<std::intptr_t>(0x1000));
    const std::vector<UINT> all{WM_USER, WM_USER + 1, WM_APP, WM_QUIT};
    const struct {
        HWND window;
        UINT minMessage;
        UINT maxMessage;
        std::vector<UINT> taken;
        std::vector<UINT> left;
    } cases[] = {
        {nullptr, 0, 0, all, {}},
        {threadMessages, 0, 0, all, {}},
        {someWindow, 0, 0, {}, all},  // a window has none
        {nullptr, WM_USER + 1, WM_APP, {WM_USER + 1, WM_APP}, {WM_USER, WM_QUIT}},
        {nullptr, WM_QUIT, WM_QUIT, {WM_QUIT}, {WM_USER, WM_USER + 1, WM_APP}},
    };
    makeQueue();
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.window << " " << c.minMessage << "-" << c.maxMessage);
        for (const UINT number : all) {
            ASSERT_TRUE(post(number));
        }
        EXPECT_EQ(takeAll(c.window, c.minMessage, c.maxMessage), c.taken);
        EXPECT_EQ(takeAll(), c.left) << "the rest stays, in its order";
    }

    // A forked child starts with an empty queue of its own.
    ASSERT_TRUE(post(WM_USER));
    EXPECT_EQ(RunInChild([] {
                  const bool empty = takeAll().empty();
                  post(WM_USER + 7);
                  return empty && takeAll() == std::vector<UINT>{WM_USER + 7} ? 0 : 1;
              }),
              0);
    EXPECT_EQ(takeAll(), std::vector<UINT>{WM_USER}) << "the parent keeps its own";
}

TEST(MessageQueue, WaitResultsAndMessagesThatTheThreadHasNotLookedAt) {
    CHandle unsignalled = newEvent(TRUE);
    CHandle signalled = newEvent(TRUE);
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
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 20, QS_KEY | QS_TIMER), WAIT_TIMEOUT)
        << "a wake mask without posted messages ignores them";

    // Only a look at the queue ends a message's turn, also one that passes it over or leaves it.
    MSG message;
    EXPECT_FALSE(PeekMessageA(&message, nullptr, WM_APP, WM_APP, PM_REMOVE));
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);
    ASSERT_TRUE(post(WM_USER + 1));
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(MsgWaitForMultipleObjects(1, both, FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);
    EXPECT_EQ(takeAll(), (std::vector<UINT>{WM_USER, WM_USER + 1}));
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

}  // namespace
