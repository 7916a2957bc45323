// IActiveTimerNotify: the subscriber of CActiveTimer and BasicTimer.
//
// OnActiveTimer is called on each tick, on the timer's thread (CActiveTimer) or on a thread
// that runs the timer's io_context (BasicTimer). Its argument tells whether the timer is
// being stopped: a long callback polls it and returns early once it gives true.
//
// Copies and assignment copy nothing; the interface holds no state.
#pragma once

#include <functional>

#include "tessel/Export.h"

class TESSEL_API IActiveTimerNotify {
  public:
    IActiveTimerNotify() = default;
    IActiveTimerNotify(const IActiveTimerNotify&) {}
    IActiveTimerNotify& operator=(const IActiveTimerNotify&) { return *this; }
    virtual ~IActiveTimerNotify() = default;

    // One tick. isStopping() is true once the timer is being stopped.
    virtual void OnActiveTimer(std::function<bool()> isStopping) = 0;
};
