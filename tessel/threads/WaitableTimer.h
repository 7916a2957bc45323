// CWaitableTimer: the owner of one waitable timer handle.
//
// A building block for threads that wait for a tick among other handles (CActiveTimer). The
// timer is made by Create and waited for through GetHandle; SetWait arms it, CancelWait
// disarms it, Close frees it. Without a handle every operation but Create does nothing.
//
// Due times are the platform's: negative values are relative, in units of 100 ns (see
// Delay2DueTime); positive ones are absolute, in 100 ns ticks since 1601-01-01 UTC (see
// DateTime2DueTime); 0 is due at once.
//
// Copying moves: the copy constructor and the assignment take the handle of their source and
// leave it empty, as Tessel::CHandle does.
//
// Thread safety: the handle is held in an atomic, so that one thread may create or close it
// while others arm it or ask for it; closing it while another thread uses it is an error of
// the caller, as for any handle.
#pragma once

#include <atomic>

#include "tessel/Export.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/Types.h"

class TESSEL_API CWaitableTimer {
  public:
    using HANDLE = Tessel::Platform::HANDLE;
    using LARGE_INTEGER = Tessel::Platform::LARGE_INTEGER;

    CWaitableTimer() = default;
    // Takes the handle of source and leaves source empty.
    CWaitableTimer(CWaitableTimer& source);
    // Closes the handle held, then takes the one of source; assignment to itself does nothing.
    CWaitableTimer& operator=(CWaitableTimer& source);
    // As Close.
    virtual ~CWaitableTimer();

    // Makes the timer: manualReset non-zero for a timer that stays signalled, zero for one
    // that releases one wait per expiry; name null or a name shared within the process.
    // 1 at once if a handle is held; otherwise non-zero on success, 0 on failure (the last
    // error of the platform tells why).
    int Create(Tessel::Platform::SECURITY_ATTRIBUTES* attributes, int manualReset,
               const char* name);
    // Arms the timer: first expiry at dueTime, then every periodMs milliseconds (0: once).
    void SetWait(unsigned int periodMs, LARGE_INTEGER dueTime);
    // Disarms the timer.
    void CancelWait();
    // CancelWait, then closes the handle.
    void Close();

    // The relative due time of a delay in milliseconds: delayMs * -10000, in 100 ns units.
    static LARGE_INTEGER Delay2DueTime(unsigned int delayMs);
    // The absolute due time of a date and time taken as UTC; 0 (due at once) for a date that
    // the platform cannot convert.
    static LARGE_INTEGER DateTime2DueTime(const Tessel::Platform::SYSTEMTIME& time);

    // The timer handle, null when there is none; ownership stays with the object.
    HANDLE GetHandle() const { return m_hTimer.load(std::memory_order_acquire); }

  private:
    // Null when closed. Stored with release and loaded with acquire, so that a thread that
    // sees the handle also sees the object behind it.
    std::atomic<HANDLE> m_hTimer{nullptr};
};
