#include "tessel/logging/VelkorLogScopedTimeMeasurement.h"

#include <fmt/format.h>

#include "tessel/platform/Clock.h"

VelkorLogScopedTimeMeasurement::VelkorLogScopedTimeMeasurement(const std::string& category,
                                                               double infoLimit, double warnLimit,
                                                               double errorLimit,
                                                               const std::string& text)
    : m_category(category),
      m_text(text),
      m_startTime(Tessel::Platform::GetSystemTimeTicks()),
      m_infoLimit(infoLimit),
      m_warnLimit(warnLimit),
      m_errorLimit(errorLimit) {}

VelkorLogScopedTimeMeasurement::~VelkorLogScopedTimeMeasurement() {
    const double seconds =
        static_cast<double>(Tessel::Platform::GetSystemTimeTicks() - m_startTime) / 10000000.0;
    ILogging::getInstance().log(m_category,
                                LevelFor(seconds, m_infoLimit, m_warnLimit, m_errorLimit),
                                fmt::format("{} seconds: {}", m_text, seconds));
}

ILogging::LogLevels VelkorLogScopedTimeMeasurement::LevelFor(double seconds, double infoLimit,
                                                             double warnLimit, double errorLimit) {
    if (seconds > errorLimit) {
        return ILogging::Error;
    }
    if (seconds > warnLimit) {
        return ILogging::Warn;
    }
    if (seconds > infoLimit) {
        return ILogging::Info;
    }
    return ILogging::Trace;
}
