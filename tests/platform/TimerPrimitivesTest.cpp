// Waitable timers, timer events and timer queues of the platform layer, and the conversion of
// dates to file times.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/Eventually.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/MultimediaTimer.h"
#include "tessel/platform/TimerQueue.h"
#include "tessel/platform/WaitableTimer.h"

using namespace Tessel::Platform;
using namespace TesselTest;

namespace {

LARGE_INTEGER due(std::int64_t value) {
    LARGE_INTEGER result;
    result.QuadPart = value;
    return result;
}

}  // namespace

TEST(WaitableTimerTest, AutomaticResetReleasesOneWaitPerExpiryManualResetStays) {
    HANDLE automatic = CreateWaitableTimerA(nullptr, FALSE, nullptr);
    HANDLE manual = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    ASSERT_NE(automatic, nullptr);
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT);  // not set: never signalled
    const LARGE_INTEGER soon = due(-10000);                      // 1 ms from now
    ASSERT_TRUE(SetWaitableTimer(automatic, &soon, 0, nullptr, nullptr, FALSE));
    ASSERT_TRUE(SetWaitableTimer(manual, &soon, 0, nullptr, nullptr, FALSE));
    const HANDLE both[2] = {automatic, manual};
    EXPECT_EQ(WaitForMultipleObjectsEx(2, both, TRUE, INFINITE, TRUE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObjectEx(manual, 0, TRUE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);

    // Periodic; a cancel keeps an expiry that nobody took, setting anew drops it.
    ASSERT_TRUE(SetWaitableTimer(automatic, &soon, 1, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(automatic, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic, INFINITE), WAIT_OBJECT_0);
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    ASSERT_TRUE(CancelWaitableTimer(automatic));
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic, 5), WAIT_TIMEOUT);
    const LARGE_INTEGER later = due(-36000000000LL);  // an hour
    ASSERT_TRUE(SetWaitableTimer(manual, &later, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_TIMEOUT);
    CloseHandle(automatic);
    CloseHandle(manual);
}

TEST(WaitableTimerTest, AbsoluteDueTimesNamesAndRefusals) {
    HANDLE timer = CreateWaitableTimerA(nullptr, TRUE, "Global\\TesselTimer");
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    HANDLE second = CreateWaitableTimerA(nullptr, FALSE, "TesselTimer");
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    HANDLE opened = OpenWaitableTimerA(SYNCHRONIZE, FALSE, "Local\\TesselTimer");
    ASSERT_NE(opened, nullptr);

    // Now on the wall clock, and a date long past, are due at once; 0 too.
    for (const std::int64_t value : {GetSystemTimeTicks(), std::int64_t{1}, std::int64_t{0}}) {
        const LARGE_INTEGER when = due(value);
        ASSERT_TRUE(SetWaitableTimer(second, &when, 0, nullptr, nullptr, FALSE));
        EXPECT_EQ(WaitForSingleObject(opened, 5000), WAIT_OBJECT_0) << value;
    }
    const LARGE_INTEGER tomorrow = due(GetSystemTimeTicks() + 864000000000LL);
    ASSERT_TRUE(SetWaitableTimer(timer, &tomorrow, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(opened, 0), WAIT_TIMEOUT);

    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    EXPECT_FALSE(SetWaitableTimer(event, &tomorrow, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(SetWaitableTimer(timer, &tomorrow, -1, nullptr, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(SetWaitableTimer(
        timer, &tomorrow, 0, [](void*, DWORD, DWORD) {}, nullptr, 0));
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    for (HANDLE handle : {timer, second, opened, event}) {
        CloseHandle(handle);
    }
    EXPECT_EQ(OpenWaitableTimerA(SYNCHRONIZE, FALSE, "TesselTimer"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST(ClockTest, SystemTimeToFileTimeCountsFrom1601AndRefusesImpossibleDates) {
    struct Row {
        SYSTEMTIME time;
        bool valid;
        std::uint64_t ticks;
    };
    const Row rows[] = {
        {{1601, 1, 0, 1, 0, 0, 0, 0}, true, 0},
        {{1970, 1, 4, 1, 0, 0, 0, 1}, true, kUnixEpochInSystemTicks + 10000},
        {{2000, 2, 2, 29, 23, 59, 59, 999}, true, 125963423999990000ULL},
        {{2001, 2, 0, 29, 0, 0, 0, 0}, false, 0},
        {{1600, 12, 0, 31, 0, 0, 0, 0}, false, 0},
        {{2024, 13, 0, 1, 0, 0, 0, 0}, false, 0},
        {{2024, 1, 0, 1, 24, 0, 0, 0}, false, 0},
    };
    for (const Row& row : rows) {
        FILETIME fileTime{0, 0};
        EXPECT_EQ(SystemTimeToFileTime(&row.time, &fileTime), row.valid ? TRUE : FALSE)
            << row.time.wYear << "-" << row.time.wMonth << "-" << row.time.wDay;
        if (row.valid) {
            EXPECT_EQ(FromFileTime(fileTime), row.ticks);
        }
    }
}

TEST(TimerEventTest, RangeOneShotEndsItselfAndKillFromTheCallbackReturns) {
    TIMECAPS caps{};
    ASSERT_EQ(timeGetDevCaps(&caps, sizeof caps), TIMERR_NOERROR);
    EXPECT_EQ(timeBeginPeriod(0), TIMERR_NOCANDO);
    auto count = [](UINT, UINT, std::size_t user, std::size_t, std::size_t) {
        ++*reinterpret_cast<std::atomic<int>*>(user);
    };
    std::atomic<int> calls{0};
    const auto user = reinterpret_cast<std::size_t>(&calls);
    EXPECT_EQ(timeSetEvent(0, 0, count, user, TIME_ONESHOT), 0u);
    EXPECT_EQ(timeSetEvent(caps.wPeriodMax + 1, 0, count, user, TIME_ONESHOT), 0u);
    const MMRESULT once = timeSetEvent(1, 0, count, user, TIME_ONESHOT);
    ASSERT_NE(once, 0u);
    ASSERT_TRUE(eventually([&] { return calls == 1; }));
    ASSERT_TRUE(eventually([&] { return timeKillEvent(once) == MMSYSERR_INVALPARAM; }));

    // A periodic event that kills itself from its callback.
    static std::atomic<UINT> s_seen{0};
    auto killSelf = [](UINT id, UINT, std::size_t counter, std::size_t, std::size_t) {
        ++*reinterpret_cast<std::atomic<int>*>(counter);
        s_seen = id;
        EXPECT_EQ(timeKillEvent(id), TIMERR_NOERROR);
    };
    const MMRESULT self = timeSetEvent(1, 0, killSelf, user, TIME_PERIODIC | TIME_KILL_SYNCHRONOUS);
    ASSERT_TRUE(eventually([&] { return calls == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(s_seen, self);
    EXPECT_EQ(timeKillEvent(self), MMSYSERR_INVALPARAM);
}

TEST(TimerQueueTest, CallbacksNeverOverlapDeletionWaitsOrSignalsAndQueuesGoTogether) {
    struct Slow {
        std::atomic<int> running{0};
        std::atomic<int> overlaps{0};
        std::atomic<int> calls{0};
        HANDLE self = nullptr;
        std::atomic<BOOL> selfDelete{TRUE};
        std::atomic<DWORD> selfError{0};
    } slow;
    auto callback = [](void* parameter, BOOL) {
        auto* s = static_cast<Slow*>(parameter);
        s->overlaps += s->running++ != 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
        if (++s->calls == 5) {
            s->selfDelete = DeleteTimerQueueTimer(nullptr, s->self, INVALID_HANDLE_VALUE);
            s->selfError = GetLastError();
        }
        --s->running;
    };
    ASSERT_TRUE(CreateTimerQueueTimer(&slow.self, nullptr, callback, &slow, 0, 1, 0));
    ASSERT_TRUE(eventually([&] { return slow.calls >= 5 && slow.running == 0; }));
    EXPECT_EQ(slow.overlaps, 0);
    EXPECT_FALSE(slow.selfDelete);  // a callback cannot wait for itself
    EXPECT_EQ(slow.selfError, ERROR_IO_PENDING);
    EXPECT_FALSE(DeleteTimerQueueTimer(nullptr, slow.self, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

    // A queue's timers go with it; the completion event is set once no callback runs.
    HANDLE queue = CreateTimerQueue();
    std::atomic<int> ticks{0};
    auto tick = [](void* parameter, BOOL) { ++*static_cast<std::atomic<int>*>(parameter); };
    HANDLE timers[2];
    for (HANDLE& timer : timers) {
        ASSERT_TRUE(CreateTimerQueueTimer(&timer, queue, tick, &ticks, 1, 1, WT_EXECUTEDEFAULT));
    }
    ASSERT_TRUE(eventually([&] { return ticks >= 4; }));
    HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(DeleteTimerQueueEx(queue, done));
    EXPECT_EQ(WaitForSingleObject(done, 0), WAIT_OBJECT_0);
    const int after = ticks;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(ticks, after);
    EXPECT_FALSE(DeleteTimerQueueTimer(queue, timers[0], nullptr));
    EXPECT_FALSE(DeleteTimerQueueEx(queue, nullptr));
    EXPECT_FALSE(CreateTimerQueueTimer(&timers[0], queue, tick, &ticks, 1, 1, 0));
    CloseHandle(done);
}
