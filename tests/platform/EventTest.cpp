#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/WaitProbe.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Mutex.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;
using namespace TesselTest;

namespace {

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

}  // namespace

TEST(Event, OperationsWithoutWaiters) {
    // S Set, R Reset, P Pulse; 1 and 0: a zero-time test must find it signalled, or not.
    struct Case {
        BOOL manualReset;
        BOOL initialState;
        const char* script;
    };
    const Case cases[] = {
        {FALSE, FALSE, "0"},   {FALSE, TRUE, "10"},  // taking it resets it
        {TRUE, FALSE, "0"},    {TRUE, TRUE, "11R0"},    {FALSE, FALSE, "SS10"},  // one signal
        {FALSE, FALSE, "SR0"}, {TRUE, FALSE, "SRR0S1"}, {FALSE, TRUE, "P0"},
        {FALSE, FALSE, "P0"},  // a pulse leaves it reset
        {TRUE, TRUE, "P0"},    {TRUE, FALSE, "P0S1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "manual " << c.manualReset << " initial "
                                        << c.initialState << " " << c.script);
        HANDLE event = CreateEventA(nullptr, c.manualReset, c.initialState, nullptr);
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        for (const char* step = c.script; *step != '\0'; ++step) {
            switch (*step) {
                case 'S':
                    EXPECT_TRUE(SetEvent(event));
                    break;
                case 'R':
                    EXPECT_TRUE(ResetEvent(event));
                    break;
                case 'P':
                    EXPECT_TRUE(PulseEvent(event));
                    break;
                default:
                    EXPECT_EQ(WaitForSingleObject(event, 0),
                              *step == '1' ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
                    break;
            }
        }
        EXPECT_TRUE(CloseHandle(event));
    }
}

TEST(Event, SetAndPulseReleaseWaitingThreadsAsTheKindRequires) {
    struct Case {
        BOOL manualReset;
        BOOL (*operation)(HANDLE);
        int released;
        DWORD afterwards;
    };
    const Case cases[] = {
        {TRUE, &SetEvent, 3, WAIT_OBJECT_0},    // all, and it stays set
        {TRUE, &PulseEvent, 3, WAIT_TIMEOUT},   // all, and it is reset
        {FALSE, &SetEvent, 1, WAIT_TIMEOUT},    // one, which took the signal
        {FALSE, &PulseEvent, 1, WAIT_TIMEOUT},  // one, and it is reset
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "manual " << c.manualReset << " set " << (c.operation == &SetEvent));
        HANDLE event = CreateEventA(nullptr, c.manualReset, FALSE, nullptr);
        Calls calls = startWaiters(event, 3);
        EXPECT_TRUE(c.operation(event));
        EXPECT_TRUE(exactlyReleased(calls, c.released));
        EXPECT_EQ(WaitForSingleObject(event, 0), c.afterwards);
        for (int i = 0; i < 3; ++i) {
            SetEvent(event);  // lets the others go
        }
        calls.clear();
        CloseHandle(event);
    }
}

TEST(Event, EachSetOfAnAutoResetEventReleasesOneWaitingThread) {
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    Calls calls = startWaiters(event, 3);
    SetEvent(event);
    SetEvent(event);  // both Sets find threads waiting: neither is lost
    EXPECT_TRUE(exactlyReleased(calls, 2));
    SetEvent(event);
    EXPECT_TRUE(exactlyReleased(calls, 3));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    calls.clear();
    CloseHandle(event);
}

TEST(Event, SetReleasesTheWaitingThreadEvenIfResetAtOnce) {
    // The Reset comes long before the woken thread runs; it was waiting at the Set, so it is
    // released all the same.
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (int round = 0; round < 20; ++round) {
        Calls calls = startWaiters(event, 1);
        SetEvent(event);
        ResetEvent(event);
        ASSERT_TRUE(calls[0]->finishes(2000ms)) << "round " << round;
        EXPECT_EQ(calls[0]->result(), WAIT_OBJECT_0);
    }
    CloseHandle(event);
}

TEST(Event, ManyHandOversLoseNoWakeUp) {
    // Two threads pass the turn back and forth through two automatic-reset events.
    HANDLE ping = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE pong = CreateEventA(nullptr, FALSE, FALSE, nullptr);
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
    CloseHandle(ping);
    CloseHandle(pong);
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

    EXPECT_EQ(OpenEventA(SYNCHRONIZE, FALSE, name.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    HANDLE fresh = CreateEventA(nullptr, FALSE, FALSE, name.c_str());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(fresh, 0), WAIT_TIMEOUT);
    CloseHandle(fresh);
}

TEST(Event, BadHandlesAndNamesFail) {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    for (HANDLE handle : {HANDLE{nullptr}, mutex}) {
        for (auto operation : {&SetEvent, &ResetEvent, &PulseEvent}) {
            SetLastError(0);
            EXPECT_FALSE(operation(handle));
            EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        }
    }
    CloseHandle(mutex);
    EXPECT_EQ(OpenEventA(SYNCHRONIZE, FALSE, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CreateEventA(nullptr, FALSE, FALSE, std::string(300, 'x').c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
}
