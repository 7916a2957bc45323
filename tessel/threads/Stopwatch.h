// Tessel::CStopwatch: an elapsed-time meter on the high-resolution counter.
//
// Measures the time between Start and Stop, summed over runs, in raw counter ticks
// (GetElapsedTicks) or in milliseconds. The counter is the platform's performance counter:
// nanoseconds of the monotonic clock here, so m_nFrequency is 1e9. Without such a counter
// the tick count in milliseconds would stand in, and GetElapsedMilliseconds would then report
// a ten-thousandth of the true time; that is how the class is defined.
//
// The class-wide values are set by the first construction, behind a compare-and-swap; a
// thread that constructs at the same moment may read them before they are set, so construct
// the first stopwatch early. Reading a stopwatch is one counter read and allocates nothing.
//
// Thread safety: an object is not for use by several threads. Copies copy the three members.
#pragma once

#include <atomic>
#include <cstdint>

#include "tessel/Export.h"

namespace Tessel {

class TESSEL_API CStopwatch {
  public:
    CStopwatch();
    CStopwatch(const CStopwatch&) = default;
    CStopwatch& operator=(const CStopwatch&) = default;
    virtual ~CStopwatch() = default;

    // Starts a run unless one runs; the time goes on from what elapsed before.
    void Start();
    // Ends the run, adding its time; does nothing when stopped.
    void Stop();
    // Stopped, nothing elapsed.
    void Reset();
    // Nothing elapsed, and a run starts now.
    void Restart();
    bool IsRunning() const { return m_bIsRunning; }

    // Raw counter ticks elapsed, the running run included.
    long long GetElapsedTicks() const { return GetRawElapsedTicks(); }
    // Milliseconds elapsed, the running run included, truncated.
    long long GetElapsedMilliseconds() const;

    // 1 once the class-wide values are set. Changed from 0 by a compare-and-swap, whose
    // winner alone sets the values; sequentially consistent, which a once-only flag affords.
    static std::atomic<long> m_bInitialized;
    // Whether the high-resolution counter exists.
    static bool m_bIsHighResolution;
    // Counter ticks per second, or 10000000 without the counter.
    static long long m_nFrequency;
    // 100 ns ticks per counter tick: 1e7 / frequency, or 1.0 without the counter.
    static double m_dTickFrequency;
    static const long long m_nTicksPerMillisecond = 10000;
    static const long long m_nTicksPerSecond = 10000000;

  private:
    long long GetRawElapsedTicks() const;
    // Elapsed time in 100 ns ticks.
    long long GetElapsedDateTimeTicks() const;
    static long long GetTimestamp();
    static void Initialize();

    long long m_nElapsed = 0;  // raw ticks of the former runs
    long long m_nStartTimeStamp = 0;
    bool m_bIsRunning = false;
};

}  // namespace Tessel
