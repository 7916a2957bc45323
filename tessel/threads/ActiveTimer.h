// CActiveTimer: periodic work on a stoppable thread of its own.
//
// A CActiveObject whose thread waits for a waitable timer and, on each tick, calls every
// subscriber (IActiveTimerNotify) in the order of their addresses, one after the other. A
// slow subscriber delays the others, and ticks do not pile up: ticks that come during a walk
// count as one. Each callback gets a function that turns true as soon as the timer is being
// stopped, so that long work can end early; the walk itself ends before the next subscriber
// once a stop has begun.
//
// Set-up, in any order before Start: AddNotify, SetTimerInfo (names the thread
// "ActTimer[<info>]"), SetInterval (default 100 ms), and SetDelayAfterStart or SetTimeToStart
// (default: the first tick at once). The thread registers with the watchdog as "ActiveTimer".
//
// Stop: Stop(1) from outside stops the thread within the stop time-out (default 3000 ms) and
// the bounded stages of CActiveObject, then closes the timer. Inside a callback the thread
// cannot wait for itself: Stop(0) marks it stopped by the worker and closes the timer, the
// walk goes on to its end, and the thread ends at its next wait. The state stays started
// until Stop(1) or a new Start, which cleans up first.
//
// Thread safety: AddNotify and RemoveNotify take the subscribers guard, which the thread
// holds across each walk; when RemoveNotify returns, no callback to that subscriber runs
// (unless RemoveNotify is called from a callback, which the recursive guard allows: a
// callback may add and remove subscribers, itself included, and the walk goes on with the
// next address after its own). Pause,
// Continue and SetInterval may come from any thread. Subscribers are not owned.
#pragma once

#include <atomic>
#include <cstdint>
#include <set>

#include "tessel/Export.h"
#include "tessel/base/CriticalSectionSyncGuard.h"
#include "tessel/platform/Clock.h"
#include "tessel/threads/ActiveObject.h"
#include "tessel/threads/IActiveTimerNotify.h"
#include "tessel/threads/WaitableTimer.h"

class TESSEL_API CActiveTimer : public CActiveObject {
  public:
    // A timer with a stop time-out of 3000 ms.
    CActiveTimer();
    // A timer with the stop time-out stopTimeoutMs.
    explicit CActiveTimer(unsigned int stopTimeoutMs);
    // Stop(1), then forgets the subscribers.
    ~CActiveTimer() override;

    // Adds a subscriber: 1, or 0 if it was subscribed already.
    int AddNotify(IActiveTimerNotify* notify);
    // Removes a subscriber; on return no callback to it runs.
    void RemoveNotify(IActiveTimerNotify* notify);

    // Starts the thread; threadId (may be null) receives its id. As CActiveObject::StartThread.
    int Start(unsigned long* threadId);
    // waitForThread non-zero: the full stop, then the timer is closed. Zero, from a callback:
    // the thread ends after the walk (see above).
    void Stop(int waitForThread);

    // While started: cancels the ticks until Continue.
    void Pause();
    // After Pause, while started: ticks again, the first after delayMs.
    void Continue(unsigned int delayMs);
    // The period in milliseconds. On a running timer, the timer is set anew with the stored
    // due time, so the next tick comes at that due time.
    void SetInterval(unsigned int intervalMs);
    unsigned int GetInterval() const { return m_ulInterval.load(std::memory_order_relaxed); }
    // The first tick delayMs after the start (or after a SetInterval on a running timer).
    void SetDelayAfterStart(unsigned int delayMs);
    // The first tick at time, a date and time in UTC.
    void SetTimeToStart(const Tessel::Platform::SYSTEMTIME& time);
    // Copies text (at most 127 characters) into the timer info; the number of characters.
    // A longer text is an invalid parameter. Takes effect at the next Start.
    int SetTimerInfo(const char* text);
    const char* GetTimerInfo() const { return m_szTimerInfo; }
    // Non-zero while the thread is started and holds its timer.
    int IsStarted() const;

  protected:
    // Not for use: a new timer with the stop time-out 1000 ms that copies nothing.
    CActiveTimer(const CActiveTimer& source);

    // The thread function; parameter is the timer.
    static unsigned long TimerThread(void* parameter);

  private:
    CActiveTimer& operator=(const CActiveTimer&) = delete;

    // The ticks of one wake-up: every subscriber in turn, until a stop begins.
    void NotifySubscribers();

    std::set<IActiveTimerNotify*> m_subscribers;  // guarded by m_subscribersGuard
    // The settings, changed from any thread and read by the timer's thread when it arms the
    // timer. Relaxed: each is one value read at its next use, and the timer handle's own
    // synchronisation orders the arming itself.
    std::atomic<std::int32_t> m_lPaused{0};
    std::atomic<unsigned int> m_ulInterval{100};
    std::atomic<std::int64_t> m_dueTime{0};  // a due time as in CWaitableTimer
    CWaitableTimer m_timer;
    CCriticalSectionSyncGuard m_subscribersGuard;
    char m_szTimerInfo[128] = {};
};
