// ISystemTimerNotify: the subscriber of CSystemTimer.
//
// OnSystemTimer is called on each tick on a thread of the library's timer pool, which is not a
// thread of the application: the callback synchronises with the rest of its object itself.
// Copies and assignment copy nothing; the interface holds no state.
#pragma once

#include "tessel/Export.h"

class TESSEL_API ISystemTimerNotify {
  public:
    ISystemTimerNotify() = default;
    ISystemTimerNotify(const ISystemTimerNotify&) {}
    ISystemTimerNotify& operator=(const ISystemTimerNotify&) { return *this; }
    virtual ~ISystemTimerNotify() = default;

    // One tick; timerOrWaitFired is what the timer pool hands over, 1 for a timer.
    virtual void OnSystemTimer(int timerOrWaitFired) = 0;
};
