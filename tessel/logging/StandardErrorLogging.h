// StandardErrorLogging: an ILogging that writes each message as one line to standard error.
//
// Lines have the library's log-line form, "%Y-%m-%d %H:%M:%S.%e P[%P] T[%t] %l %v" in local
// time, where %l is the level's name ("trace", "info", "warning", "error") and %v the
// message; the three-argument log writes "[category] message". Every line is written with a
// single write(2), so lines of concurrent threads never interleave. All categories are
// active; the minimum level starts at Info. It keeps no files, so the file operations do
// nothing and the watcher has nothing to watch.
//
// Thread safety: all operations may be called from any thread.
#pragma once

#include <atomic>

#include "tessel/Export.h"
#include "tessel/logging/ILogging.h"

class TESSEL_API StandardErrorLogging : public ILogging {
  public:
    StandardErrorLogging() = default;
    StandardErrorLogging(const StandardErrorLogging&) = delete;
    StandardErrorLogging& operator=(const StandardErrorLogging&) = delete;
    ~StandardErrorLogging() override = default;

    void log(const std::string& category, LogLevels level, const std::string& message) override;
    void log(LogLevels level, const std::string& message) override;
    bool shouldLogLevel(LogLevels level) override;
    bool isLoggerActive(const std::string& category) override;
    void startWatching() override {}
    void stopWatching() override {}
    LogLevels getLogLevel() const override;
    void setLogLevel(LogLevels level) override;
    std::uint64_t getMaxNumberFiles() const override { return 0; }
    void deleteOldFiles(std::uint64_t) override {}

    // The line that log(level, message) writes, without its line end, at the current time.
    static std::string formatLine(LogLevels level, const std::string& message);

  private:
    void write(LogLevels level, const std::string& message);

    std::atomic<LogLevels> m_minimumLevel{Info};
};
