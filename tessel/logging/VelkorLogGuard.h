// VelkorLogGuard: log lines at the start and the end of a scope.
//
// The constructor logs "<text> start", the destructor "<text> end seconds: <elapsed>", both
// through ILogging under the guard's category and level, so a filtered category writes
// neither line. Copying is plain.
#pragma once

#include <cstdint>
#include <string>

#include "tessel/Export.h"
#include "tessel/logging/ILogging.h"

class TESSEL_API VelkorLogGuard {
  public:
    VelkorLogGuard(const std::string& category, ILogging::LogLevels level, const std::string& text);
    ~VelkorLogGuard();

  private:
    std::string m_category;
    ILogging::LogLevels m_level;
    std::string m_text;
    std::int64_t m_startTime;  // system time in ticks of 100 ns
};
