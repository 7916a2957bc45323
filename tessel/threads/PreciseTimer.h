// CPreciseTimer: a millisecond timer, periodic or one-shot.
//
// Ticks come from a timer event of the platform (tessel/platform/MultimediaTimer.h), which
// runs its callback on a thread of its own with the precision of the kernel's
// high-resolution timers; the callback is the subscriber's OnPreciseTimer. One timer runs at
// a time: Start on a running timer fails and leaves it running. A one-shot timer is done when
// it fires, so it may be started again, also from its own callback.
//
// The resolution given to the constructor is clamped to what the platform supports and kept
// for the destructor's timeEndPeriod; timeBeginPeriod gets the value as it was passed.
//
// Copying copies the members one by one (the timer id included) and does not call
// timeBeginPeriod again; a copy of a running timer is not for use.
//
// Thread safety: Start and Stop belong to the owner's thread, or to the callback. Stop waits
// for a callback that is running on another thread, so the owner must not hold a lock that
// the callback takes while it stops the timer. The subscriber is not owned.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>

#include "tessel/Export.h"
#include "tessel/platform/MultimediaTimer.h"
#include "tessel/threads/IPreciseTimerNotify.h"

class TESSEL_API CPreciseTimer {
  public:
    // A stopped timer with resolutionMs (clamped) as its resolution.
    explicit CPreciseTimer(unsigned int resolutionMs = 1);
    CPreciseTimer(const CPreciseTimer& source);
    CPreciseTimer& operator=(const CPreciseTimer& source);
    // Stop, then timeEndPeriod with the clamped resolution.
    virtual ~CPreciseTimer();

    // Starts ticking after delayMs (1 to 1000000), then every delayMs unless oneShot.
    // false if the timer runs already, or if the platform refuses the event.
    bool Start(unsigned int delayMs, bool oneShot, IPreciseTimerNotify* notify);
    // Ends the ticks: no callback begins after this, and one running on another thread has
    // returned. Forgets the subscriber.
    void Stop();

  protected:
    // Ends the timer event, if one runs.
    void Reset();
    // The event's callback; user is the timer.
    static void TimeFunc(unsigned int timerId, unsigned int message, std::size_t user, std::size_t,
                         std::size_t);

  private:
    // Stands for an event that Start has asked for and whose id it has not yet stored.
    static constexpr unsigned int kStarting = ~0u;

    // Held by Start from asking for the event until its id is stored; a tick that finds the
    // id not yet stored takes it to wait for that. Copies get a lock of their own.
    std::mutex m_startLock;

    // The running event's id, 0 when none. The callback compares it with its own id to drop
    // a late tick; acquire-release, so that the callback that sees its id also sees the
    // subscriber and mode stored before.
    std::atomic<unsigned int> m_uTimerId{0};
    // A one-shot event that has fired and whose callback may still run: Stop waits for it,
    // so that a timer is never destroyed under its own callback. Acquire-release, as above.
    std::atomic<unsigned int> m_uFiredId{0};
    unsigned int m_uResolution;
    bool m_bOneShot = false;
    Tessel::Platform::TIMECAPS m_caps{};
    IPreciseTimerNotify* m_pNotify = nullptr;
};
