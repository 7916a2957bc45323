// Millisecond timer events: a callback after a delay, once or periodically.
//
// Each event has a thread of its own that sleeps on a timerfd of the monotonic clock with a
// timer slack of 1 ns, so that the kernel does not defer its wake-up to group it with others.
// A periodic event keeps the rhythm of its first expiry: when callbacks fall behind, the
// ticks that were missed meanwhile give one call, not a burst. A one-shot event ends after
// its callback; its id is then invalid.
//
// The system-wide timer resolution of the platform does not exist here: timeBeginPeriod and
// timeEndPeriod check their argument and change nothing, since every event already runs at
// the precision of the kernel's high-resolution timers.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

using MMRESULT = UINT;

inline constexpr MMRESULT TIMERR_NOERROR = 0;
inline constexpr MMRESULT MMSYSERR_INVALPARAM = 11;
inline constexpr MMRESULT TIMERR_NOCANDO = 97;

// Flags of timeSetEvent.
inline constexpr UINT TIME_ONESHOT = 0;
inline constexpr UINT TIME_PERIODIC = 1;
inline constexpr UINT TIME_CALLBACK_FUNCTION = 0;
inline constexpr UINT TIME_KILL_SYNCHRONOUS = 0x100;

// The shortest and longest delay and period that events accept, in milliseconds.
struct TIMECAPS {
    UINT wPeriodMin;
    UINT wPeriodMax;
};

// The callback: event id, message (always 0), the user value, and two unused words.
using LPTIMECALLBACK = void (*)(UINT timerId, UINT message, std::size_t user, std::size_t,
                                std::size_t);

// Fills caps with 1 and 1000000 ms. MMSYSERR_INVALPARAM for a null pointer or a size smaller
// than a TIMECAPS.
TESSEL_API MMRESULT timeGetDevCaps(TIMECAPS* caps, UINT size);

// TIMERR_NOERROR for a period within the range of timeGetDevCaps, else TIMERR_NOCANDO.
TESSEL_API MMRESULT timeBeginPeriod(UINT periodMs);
TESSEL_API MMRESULT timeEndPeriod(UINT periodMs);

// Starts an event: callback(id, 0, user, 0, 0) after delayMs, and with TIME_PERIODIC every
// delayMs from then on. resolutionMs is accepted and has no effect. Returns the event's id,
// never 0; 0 for a delay outside the range of timeGetDevCaps, a null callback, or when the
// event's thread cannot be made.
TESSEL_API MMRESULT timeSetEvent(UINT delayMs, UINT resolutionMs, LPTIMECALLBACK callback,
                                 std::size_t user, UINT flags);

// Ends event timerId: no callback of it begins after this call. With TIME_KILL_SYNCHRONOUS
// the call also waits for a callback that is running, unless it comes from that callback
// itself. MMSYSERR_INVALPARAM for an id that is not running (a one-shot event that has fired
// is not).
TESSEL_API MMRESULT timeKillEvent(UINT timerId);

}  // namespace Tessel::Platform
