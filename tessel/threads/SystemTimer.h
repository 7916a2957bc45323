// CSystemTimer: cheap ticks on the library's timer pool.
//
// A timer of the process's default timer queue (tessel/platform/TimerQueue.h): the
// subscriber's OnSystemTimer runs on a pool thread after the due time, then every period (0:
// once). A timer runs from a successful Start until Stop, a one-shot included. Its callbacks
// never overlap.
//
// Copying copies the members (the timer handle included); a copy of a running timer is not
// for use.
//
// Thread safety: Start and Stop belong to the owner's thread. Stop waits for a callback that
// is running, so it must not be called from the callback, nor while holding a lock that the
// callback takes. The subscriber is not owned.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"
#include "tessel/threads/ISystemTimerNotify.h"

class TESSEL_API CSystemTimer {
  public:
    using HANDLE = Tessel::Platform::HANDLE;

    CSystemTimer() = default;
    CSystemTimer(const CSystemTimer& source) = default;
    CSystemTimer& operator=(const CSystemTimer& source) = default;
    // Stop.
    virtual ~CSystemTimer();

    // Starts ticking: first after dueTimeMs, then every periodMs (0: once); flags are the
    // timer queue's WT_* flags. false if the timer runs already, if both times are 0, without
    // a subscriber, or if the platform refuses the timer.
    bool Start(unsigned int dueTimeMs, unsigned int periodMs, ISystemTimerNotify* notify,
               unsigned long flags);
    // Ends the ticks and waits for a running callback; forgets the subscriber.
    void Stop();

  protected:
    // The timer's callback; parameter is the timer.
    static void TimerFunc(void* parameter, int timerOrWaitFired);

  private:
    HANDLE m_hTimerQueue = nullptr;  // always null: the default queue serves
    HANDLE m_hTimer = nullptr;
    ISystemTimerNotify* m_pNotify = nullptr;
};
