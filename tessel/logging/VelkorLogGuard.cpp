#include "tessel/logging/VelkorLogGuard.h"

#include <fmt/format.h>

#include "tessel/platform/Clock.h"

VelkorLogGuard::VelkorLogGuard(const std::string& category, ILogging::LogLevels level,
                               const std::string& text)
    : m_category(category),
      m_level(level),
      m_text(text),
      m_startTime(Tessel::Platform::GetSystemTimeTicks()) {
    ILogging::getInstance().log(m_category, m_level, m_text + " start");
}

VelkorLogGuard::~VelkorLogGuard() {
    const double seconds =
        static_cast<double>(Tessel::Platform::GetSystemTimeTicks() - m_startTime) / 10000000.0;
    ILogging::getInstance().log(m_category, m_level,
                                fmt::format("{} end seconds: {}", m_text, seconds));
}
