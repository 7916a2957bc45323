// VelkorLogScopedTimeMeasurement: one log line with the time a scope took, at the level that
// time earns.
//
// The destructor logs "<text> seconds: <elapsed>" under the category at Error if the time is
// above the error limit, else Warn above the warning limit, else Info above the info limit,
// else Trace (each test strictly greater). Limits are in seconds. Copying is plain.
#pragma once

#include <cstdint>
#include <string>

#include "tessel/Export.h"
#include "tessel/logging/ILogging.h"

class TESSEL_API VelkorLogScopedTimeMeasurement {
  public:
    VelkorLogScopedTimeMeasurement(const std::string& category, double infoLimit, double warnLimit,
                                   double errorLimit, const std::string& text);
    ~VelkorLogScopedTimeMeasurement();

    // The level that a scope of seconds earns under the given limits.
    static ILogging::LogLevels LevelFor(double seconds, double infoLimit, double warnLimit,
                                        double errorLimit);

  private:
    std::string m_category;
    std::string m_text;
    std::int64_t m_startTime;  // system time in ticks of 100 ns
    double m_infoLimit;
    double m_warnLimit;
    double m_errorLimit;
};
