// IPreciseTimerNotify: the subscriber of CPreciseTimer.
//
// OnPreciseTimer is called on each tick on the timer's own thread, which is not a thread of
// the application: the callback synchronises with the rest of its object itself. Copies and
// assignment copy nothing; the interface holds no state.
#pragma once

#include "tessel/Export.h"

class TESSEL_API IPreciseTimerNotify {
  public:
    IPreciseTimerNotify() = default;
    IPreciseTimerNotify(const IPreciseTimerNotify&) {}
    IPreciseTimerNotify& operator=(const IPreciseTimerNotify&) { return *this; }
    virtual ~IPreciseTimerNotify() = default;

    // One tick.
    virtual void OnPreciseTimer() = 0;
};
