// VelkorLog: the process-wide log, behind ILogging::getInstance().
//
// Writes every message to the log files of the process: one spdlog logger named
// "DailyLogger" on one daily_size_limited_file_sink, in the folder "log/" below the temp
// directory, flushed at every message. Settings come from VelkorLog.config beside the
// executable (or in TESSEL_APP_DIR): the minimum level, the category patterns, the size limit
// of a file, how many files survive housekeeping and how often the file is looked at. Without
// the file the defaults hold: Info, every category, 52428800 bytes, 10 files, 10 minutes.
//
// startConfigurationWatcher starts a thread that re-reads the file at the interval; a change
// of any setting rebuilds the logger, and each look deletes the oldest files beyond the
// maximum number. Without the watcher the file is read once and no file is ever deleted.
//
// File names: "<application>_<yyyy-mm-dd>[.<n>].log", or with the process id
// "<application>_<pid>_<yyyy-mm-dd>[.<n>].log" when init asked for it.
//
// Failures: a malformed configuration file (boost::property_tree::xml_parser_error) or a log
// file that cannot be opened (spdlog::spdlog_ex) leaves getInstance, which tries anew at the
// next call; on the watcher thread they end the process. An invalid category expression
// throws std::regex_error out of log when it is tried.
//
// Lifetime: made at the first ILogging::getInstance, destroyed at process exit; the spdlog
// logger lives to the end of the process.
//
// Thread safety: every operation may be called from any thread. Lock order: the
// configuration's shared mutex first, the logger mutex inside it.
#pragma once

#include <cstdint>
#include <shared_mutex>
#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/logging/ConfigFileWatcher.h"
#include "tessel/logging/ILogging.h"
#include "tessel/logging/VelkorLogConfiguration.h"

class TESSEL_API VelkorLog : public ILogging {
  public:
    ~VelkorLog() override;
    VelkorLog(const VelkorLog&) = delete;
    VelkorLog& operator=(const VelkorLog&) = delete;

    // The application name of the file names (the executable's stem when empty) and whether
    // the process id is part of them. Before the first getInstance it decides the first file;
    // later it takes effect at the next rebuild.
    static void init(const std::string& applicationName, bool addProcessIdToLogFileName);
    // Start and stop the configuration watcher of the instance.
    static void startConfigurationWatcher();
    static void stopConfigurationWatcher();

    void log(const std::string& category, LogLevels level, const std::string& message) override;
    void log(LogLevels level, const std::string& message) override;
    bool shouldLogLevel(LogLevels level) override;
    bool isLoggerActive(const std::string& category) override;
    void startWatching() override;
    void stopWatching() override;
    LogLevels getLogLevel() const override;
    void setLogLevel(LogLevels level) override;
    std::uint64_t getMaxNumberFiles() const override;
    // Deletes the oldest log files of the application (all dates and process ids) beyond
    // maxNumberFiles; 0 deletes nothing. Failures are logged at Warn.
    void deleteOldFiles(std::uint64_t maxNumberFiles) override;

    // The folder of the log files, ending in '/'.
    const std::string& getLogFolder() const { return m_logFolder; }
    // The path of the configuration file.
    const std::string& getConfigurationPath() const { return m_configPath; }

    static std::string s_applicationName;
    static bool s_addProcessIdToLogFileName;
    static const std::string s_configKeyXmlNamespace;
    static const std::string s_xmlNamespace;
    static const std::string s_configKeyWatchInterval;
    static const std::string s_configKeyMinLevel;
    static const std::string s_configKeyMaxNumberFiles;
    static const std::string s_configKeyMaxFileSize;
    static const std::string s_configKeyLoggers;
    static const std::string s_configKeyLogger;
    static const std::string s_dailyLoggerFileExtension;

  private:
    friend class VelkorLogFactory;     // ILogging::getInstance makes the one instance
    friend class VelkorLogTestAccess;  // the tests reach the private operations

    VelkorLog();

    static void load(const std::string& path, VelkorLogConfiguration& configuration);
    static void save(const std::string& path, VelkorLogConfiguration& configuration);
    std::uint32_t onWatchConfigFile();
    std::string getLoggerFilePath() const;
    std::uint64_t getCurrentFileIndex() const;
    void getExistingLoggerFiles(std::vector<std::string>& files, bool todayOnly) const;
    static bool parseFileIndex(const std::string& fileName, std::uint64_t& index);
    static bool parseProcessId(const std::string& fileName, std::uint64_t& processId);
    void buildLogger(const std::string& baseFileName, const VelkorLogConfiguration& configuration,
                     std::uint64_t startIndex);
    void write(LogLevels level, const std::string& text);

    VelkorLogConfiguration m_configuration;  // guarded by m_mutex
    ConfigFileWatcher m_watcher;
    mutable std::shared_mutex m_mutex;
    std::string m_configPath;
    std::string m_logFolder;
};
