// ILogging: the process-wide logging interface of the library.
//
// Every subsystem reports through ILogging::getInstance() under a category made of class
// and function name, such as "CMonitorElementContainer::clear". The instance is created at
// the first call (safe against concurrent first calls; a construction that throws is tried
// anew at the next call) and lives until the process exits.
//
// Thread safety: every operation may be called from any thread at any time.
#pragma once

#include <cstdint>
#include <string>

#include "tessel/Export.h"

class TESSEL_API ILogging {
  public:
    // The levels, from the most verbose. A message is written when its level is at least the
    // configured minimum; Off as a minimum writes nothing, Off as a message level never.
    enum LogLevels {
        Trace = 0,
        Info = 1,
        Warn = 2,
        Error = 3,
        Off = 4,
    };

    ILogging() = default;
    ILogging(const ILogging&) = default;
    ILogging& operator=(const ILogging&) = default;
    virtual ~ILogging();

    // Writes "[category] message" when the level passes and the category is active.
    virtual void log(const std::string& category, LogLevels level, const std::string& message) = 0;
    // Writes message when the level passes; categories do not apply.
    virtual void log(LogLevels level, const std::string& message) = 0;
    // False for Off; otherwise true when level >= the configured minimum level.
    virtual bool shouldLogLevel(LogLevels level) = 0;
    // True when messages of category are written.
    virtual bool isLoggerActive(const std::string& category) = 0;
    // Starts and stops watching the logging configuration for changes.
    virtual void startWatching() = 0;
    virtual void stopWatching() = 0;
    virtual LogLevels getLogLevel() const = 0;
    virtual void setLogLevel(LogLevels level) = 0;
    // How many log files are kept, and the housekeeping that deletes the older ones.
    virtual std::uint64_t getMaxNumberFiles() const = 0;
    virtual void deleteOldFiles(std::uint64_t maxNumberFiles) = 0;

    // The process-wide instance.
    static ILogging& getInstance();

    // The text of a level in the configuration file: "trace", "info", "warn", "error", "off";
    // any other value gives "info".
    static const char* toString(LogLevels level);
};
