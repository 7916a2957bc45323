// The timers on real clocks: CActiveTimer, CPreciseTimer, CSystemTimer, BasicTimer and the
// stopwatch. Nothing here asserts a duration; waits are bounded only against hangs.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "tessel/platform/Clock.h"
#include "tessel/threads/ActiveTimer.h"
#include "tessel/threads/BasicTimer.h"
#include "tessel/threads/PreciseTimer.h"
#include "tessel/threads/Stopwatch.h"
#include "tessel/threads/SystemTimer.h"

using namespace std::chrono_literals;
using namespace TesselTest;

namespace {

// A subscriber of every kind of timer that counts its calls and runs an optional body.
struct Counter : IActiveTimerNotify, IPreciseTimerNotify, ISystemTimerNotify {
    void OnActiveTimer(std::function<bool()> isStopping) override {
        ++calls;
        if (onActive) {
            onActive(isStopping);
        }
    }
    void OnPreciseTimer() override {
        ++calls;
        if (onTick) {
            onTick();
        }
    }
    void OnSystemTimer(int fired) override {
        lastArgument = fired;
        OnPreciseTimer();
    }
    std::atomic<int> calls{0};
    std::atomic<int> lastArgument{0};
    std::function<void(const std::function<bool()>&)> onActive;
    std::function<void()> onTick;
};

// Order in which subscribers were called.
std::mutex g_orderLock;
std::vector<const void*> g_order;

struct OrderedCounter : Counter {
    OrderedCounter() {
        onActive = [this](const std::function<bool()>&) {
            std::lock_guard<std::mutex> guard(g_orderLock);
            g_order.push_back(this);
        };
    }
};

}  // namespace

TEST(ActiveTimerTest, TicksAtOnceThenEachIntervalCallingSubscribersInAddressOrderOnce) {
    OrderedCounter subscribers[3];
    CActiveTimer timer;
    for (OrderedCounter* s : {&subscribers[2], &subscribers[0], &subscribers[1]}) {
        EXPECT_EQ(timer.AddNotify(s), 1);
    }
    EXPECT_EQ(timer.AddNotify(&subscribers[0]), 0);
    timer.SetInterval(10);
    ASSERT_EQ(timer.SetTimerInfo("walk"), 4);
    unsigned long threadId = 0;
    ASSERT_EQ(timer.Start(&threadId), 1);
    EXPECT_NE(threadId, 0u);
    ASSERT_TRUE(eventually([&] { return subscribers[0].calls >= 3; }));
    EXPECT_TRUE(timer.IsStarted());
    timer.Stop(1);
    EXPECT_FALSE(timer.IsStarted());
    std::lock_guard<std::mutex> guard(g_orderLock);
    ASSERT_GE(g_order.size(), 9u);
    for (std::size_t i = 0; i + 3 <= g_order.size(); i += 3) {
        EXPECT_EQ(g_order[i], &subscribers[0]);
        EXPECT_EQ(g_order[i + 1], &subscribers[1]);
        EXPECT_EQ(g_order[i + 2], &subscribers[2]);
    }
}

TEST(ActiveTimerTest, StopDuringALongCallbackTurnsItsArgumentTrueAndEndsTheWalk) {
    Counter first;
    Counter second;
    std::atomic<bool> entered{false};
    std::atomic<bool> sawStop{false};
    Counter* slow = &first < &second ? &first : &second;
    Counter* after = slow == &first ? &second : &first;
    slow->onActive = [&](const std::function<bool()>& isStopping) {
        entered = true;
        while (!isStopping()) {
            std::this_thread::sleep_for(1ms);
        }
        sawStop = true;
    };
    CActiveTimer timer(60000);
    timer.AddNotify(&first);
    timer.AddNotify(&second);
    timer.Start(nullptr);
    ASSERT_TRUE(eventually([&] { return entered.load(); }));
    timer.Stop(1);
    EXPECT_TRUE(sawStop);
    EXPECT_EQ(after->calls, 0);
    EXPECT_EQ(timer.GetThreadExitCode(), 0u);
}

TEST(ActiveTimerTest, SubscriberThatStopsTheTimerOrRemovesItselfInItsCallback) {
    Counter stopper;
    Counter leaver;
    CActiveTimer timer;
    timer.SetInterval(5);
    leaver.onActive = [&](const std::function<bool()>&) { timer.RemoveNotify(&leaver); };
    timer.AddNotify(&leaver);
    ASSERT_EQ(timer.Start(nullptr), 1);
    ASSERT_TRUE(eventually([&] { return leaver.calls == 1; }));

    stopper.onActive = [&](const std::function<bool()>&) {
        timer.Stop(0);
        EXPECT_EQ(timer.IsThreadStarted(), 1);  // the walk goes on to its end
    };
    timer.AddNotify(&stopper);
    ASSERT_TRUE(eventually([&] { return timer.GetThreadExitCode() == 0; }));
    EXPECT_EQ(stopper.calls, 1);
    EXPECT_EQ(leaver.calls, 1);
    EXPECT_EQ(timer.IsThreadStarted(), 1);
    EXPECT_FALSE(timer.IsStarted());
    timer.Stop(1);
    EXPECT_EQ(timer.IsThreadStarted(), 0);
    // A new start runs anew.
    timer.RemoveNotify(&stopper);
    timer.AddNotify(&leaver);
    ASSERT_EQ(timer.Start(nullptr), 1);
    ASSERT_TRUE(eventually([&] { return leaver.calls == 2; }));
}

TEST(ActiveTimerTest, PauseContinueAndIntervalChangesOnARunningTimer) {
    Counter counter;
    CActiveTimer timer;
    timer.SetInterval(3600000);  // the first tick at once, the next in an hour
    timer.AddNotify(&counter);
    timer.Continue(0);  // not paused, not started: nothing
    ASSERT_EQ(timer.Start(nullptr), 1);
    ASSERT_TRUE(eventually([&] { return counter.calls == 1; }));
    timer.Pause();
    timer.Continue(1);
    ASSERT_TRUE(eventually([&] { return counter.calls == 2; }));
    timer.SetDelayAfterStart(1);
    timer.SetInterval(2);  // set anew: ticks from now on every 2 ms
    EXPECT_EQ(timer.GetInterval(), 2u);
    ASSERT_TRUE(eventually([&] { return counter.calls >= 6; }));
    timer.Pause();
    const int paused = counter.calls;
    std::this_thread::sleep_for(10ms);
    EXPECT_LE(counter.calls, paused + 1);  // a tick may have been under way
}

TEST(ActiveTimerTest, DestructionWhileTickingAndFirstTickAtADateInThePast) {
    Counter counter;
    {
        CActiveTimer timer;
        timer.SetInterval(1);
        Tessel::Platform::SYSTEMTIME past{2001, 9, 0, 9, 1, 46, 40, 0};
        timer.SetTimeToStart(past);
        timer.AddNotify(&counter);
        timer.Start(nullptr);
        ASSERT_TRUE(eventually([&] { return counter.calls >= 2; }));
    }
    const int calls = counter.calls;
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(counter.calls, calls);
    EXPECT_EQ(CWaitableTimer::Delay2DueTime(1000).QuadPart, -10000000);
}

TEST(PreciseTimerTest, PeriodicOneShotRestartFromTheCallbackAndASecondStart) {
    Counter periodic;
    CPreciseTimer timer;
    ASSERT_TRUE(timer.Start(1, false, &periodic));
    EXPECT_FALSE(timer.Start(1, false, &periodic));
    ASSERT_TRUE(eventually([&] { return periodic.calls >= 5; }));
    timer.Stop();
    const int calls = periodic.calls;
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(periodic.calls, calls);

    // A one-shot fires once; started again from its callback, it fires once more.
    std::atomic<int> restarts{0};
    Counter oneShot;
    CPreciseTimer again;
    oneShot.onTick = [&] {
        if (restarts++ == 0) {
            EXPECT_TRUE(again.Start(1, true, &oneShot));
        }
    };
    ASSERT_TRUE(again.Start(2, true, &oneShot));
    ASSERT_TRUE(eventually([&] { return oneShot.calls == 2; }));
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(oneShot.calls, 2);
    EXPECT_FALSE(again.Start(0, true, &oneShot));  // a delay the platform refuses
    EXPECT_TRUE(again.Start(1, true, &oneShot));
}

TEST(SystemTimerTest, TicksOnThePoolUntilStoppedAndRefusesBadStarts) {
    Counter counter;
    CSystemTimer timer;
    EXPECT_FALSE(timer.Start(0, 0, &counter, 0));
    EXPECT_FALSE(timer.Start(1, 1, nullptr, 0));
    ASSERT_TRUE(timer.Start(0, 1, &counter, 0));
    EXPECT_FALSE(timer.Start(0, 1, &counter, 0));
    ASSERT_TRUE(eventually([&] { return counter.calls >= 3; }));
    EXPECT_EQ(counter.lastArgument, 1);
    timer.Stop();
    const int calls = counter.calls;
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(counter.calls, calls);

    // A one-shot stays a running timer until Stop.
    Counter once;
    ASSERT_TRUE(timer.Start(1, 0, &once, 0));
    ASSERT_TRUE(eventually([&] { return once.calls == 1; }));
    EXPECT_FALSE(timer.Start(1, 0, &once, 0));
    timer.Stop();
    EXPECT_TRUE(timer.Start(1, 0, &once, 0));
}

TEST(BasicTimerTest, TicksOnTheContextStopCancelsAndAStoppedContextEndsIt) {
    boost::asio::io_context context;
    auto work = boost::asio::make_work_guard(context);
    std::thread runner([&] { context.run(); });
    Counter counter;
    std::atomic<bool> stoppedSeen{false};
    counter.onActive = [&](const std::function<bool()>& isStopping) {
        if (counter.calls == 2) {
            context.stop();
            stoppedSeen = isStopping();
        }
    };
    {
        BasicTimer cancelled("cancelled", context, 1s);
        cancelled.setNotify(&counter);
        cancelled.start();
        cancelled.stop();
    }
    BasicTimer timer("ticks", context, 0s);
    timer.setNotify(&counter);
    timer.startAfter(0s);
    runner.join();
    EXPECT_EQ(counter.calls, 2);  // none from the cancelled timer, none after the stop
    EXPECT_TRUE(stoppedSeen);
}

TEST(StopwatchTest, RunsAddUpRestartDropsAndNothingChangesTwice) {
    Tessel::CStopwatch watch;
    EXPECT_EQ(Tessel::CStopwatch::m_nFrequency, 1000000000);
    EXPECT_DOUBLE_EQ(Tessel::CStopwatch::m_dTickFrequency, 0.01);
    watch.Stop();
    EXPECT_EQ(watch.GetElapsedTicks(), 0);
    watch.Start();
    const long long running = watch.GetElapsedTicks();
    ASSERT_TRUE(eventually([&] { return watch.GetElapsedMilliseconds() >= 2; }));
    EXPECT_GT(watch.GetElapsedTicks(), running);  // grows without a Stop
    watch.Start();                                // changes nothing
    watch.Stop();
    const long long first = watch.GetElapsedTicks();
    EXPECT_EQ(watch.GetElapsedTicks(), first);
    watch.Start();
    watch.Stop();
    EXPECT_GE(watch.GetElapsedTicks(), first);  // the runs add up
    watch.Restart();
    EXPECT_TRUE(watch.IsRunning());
    EXPECT_LT(watch.GetElapsedTicks(), first);
    watch.Reset();
    EXPECT_FALSE(watch.IsRunning());
    EXPECT_EQ(watch.GetElapsedMilliseconds(), 0);
}
