#include "tessel/logging/VelkorLog.h"

#include <fmt/format.h>
#include <spdlog/logger.h>
#include <spdlog/spdlog.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cctype>
#include <ctime>
#include <locale>
#include <map>
#include <mutex>

#include "tessel/host/FileHelper.h"
#include "tessel/host/TempDirectory.h"
#include "tessel/logging/DailySizeLimitedFileSink.h"
#include "tessel/platform/Process.h"

namespace {

// The logger and the mutex held around every call into it, its destruction and creation.
std::mutex g_loggerMutex;
std::shared_ptr<spdlog::logger> g_logger;  // guarded by g_loggerMutex

const char* const kPattern = "%Y-%m-%d %H:%M:%S.%e P[%P] T[%t] %l %v";

spdlog::level::level_enum spdlogLevel(ILogging::LogLevels level) {
    switch (level) {
        case ILogging::Trace:
            return spdlog::level::trace;
        case ILogging::Warn:
            return spdlog::level::warn;
        case ILogging::Error:
            return spdlog::level::err;
        case ILogging::Off:
            return spdlog::level::off;
        case ILogging::Info:
        default:
            return spdlog::level::info;
    }
}

std::string today() {
    const std::tm date = spdlog::details::os::localtime();
    return fmt::format("{:04d}-{:02d}-{:02d}", date.tm_year + 1900, date.tm_mon + 1, date.tm_mday);
}

// The leading decimal digits of text as a number; text starts with a digit.
std::uint64_t leadingNumber(const std::string& text) {
    return std::stoull(text);
}

}  // namespace

std::string VelkorLog::s_applicationName;
bool VelkorLog::s_addProcessIdToLogFileName = false;
const std::string VelkorLog::s_configKeyXmlNamespace = "velkorlogging.<xmlattr>.xmlns";
const std::string VelkorLog::s_xmlNamespace = "http://www.tarvoworks.com/schemas/velkorlogging";
const std::string VelkorLog::s_configKeyWatchInterval = "velkorlogging.watchintervalminutes";
const std::string VelkorLog::s_configKeyMinLevel = "velkorlogging.minlevel";
const std::string VelkorLog::s_configKeyMaxNumberFiles = "velkorlogging.maxnumberfiles";
const std::string VelkorLog::s_configKeyMaxFileSize = "velkorlogging.maxfilesize";
const std::string VelkorLog::s_configKeyLoggers = "velkorlogging.loggers";
const std::string VelkorLog::s_configKeyLogger = "velkorlogging.loggers.logger";
const std::string VelkorLog::s_dailyLoggerFileExtension = "log";

VelkorLog::VelkorLog() {
    const boost::filesystem::path executable(Tessel::Platform::GetModulePath());
    m_configPath = (executable.parent_path() / "VelkorLog.config").string();
    load(m_configPath, m_configuration);
    if (s_applicationName.empty()) {
        s_applicationName = executable.stem().string();
    }
    const std::string& temp = CTempDirectory::GetTempDirectory();
    m_logFolder =
        fmt::format("{0}{1}", temp, !temp.empty() && temp.back() == '/' ? "log/" : "/log/");
    boost::system::error_code ignored;
    boost::filesystem::create_directories(m_logFolder, ignored);
    buildLogger(getLoggerFilePath(), m_configuration, getCurrentFileIndex());
}

VelkorLog::~VelkorLog() {
    stopWatching();
}

void VelkorLog::init(const std::string& applicationName, bool addProcessIdToLogFileName) {
    s_applicationName = applicationName;
    s_addProcessIdToLogFileName = addProcessIdToLogFileName;
}

void VelkorLog::startConfigurationWatcher() {
    ILogging::getInstance().startWatching();
}

void VelkorLog::stopConfigurationWatcher() {
    ILogging::getInstance().stopWatching();
}

void VelkorLog::buildLogger(const std::string& baseFileName,
                            const VelkorLogConfiguration& configuration, std::uint64_t startIndex) {
    std::lock_guard<std::mutex> lock(g_loggerMutex);
    if (g_logger) {
        spdlog::drop_all();
        g_logger.reset();
    }
    auto sink = std::make_shared<daily_size_limited_file_sink_st>(
        baseFileName, configuration.m_maxFileSize, startIndex, 0, 0, false);
    auto logger = std::make_shared<spdlog::logger>("DailyLogger", std::move(sink));
    spdlog::register_logger(logger);
    logger->set_pattern(kPattern, spdlog::pattern_time_type::local);
    logger->flush_on(spdlog::level::trace);
    spdlog::set_default_logger(logger);
    spdlog::set_level(spdlog::level::trace);
    g_logger = std::move(logger);
}

void VelkorLog::write(LogLevels level, const std::string& text) {
    std::lock_guard<std::mutex> lock(g_loggerMutex);
    if (g_logger) {
        g_logger->log(spdlogLevel(level), spdlog::string_view_t(text));
    }
}

void VelkorLog::log(const std::string& category, LogLevels level, const std::string& message) {
    if (shouldLogLevel(level) && isLoggerActive(category)) {
        write(level, fmt::format("[{}] {}", category, message));
    }
}

void VelkorLog::log(LogLevels level, const std::string& message) {
    if (shouldLogLevel(level)) {
        write(level, message);
    }
}

bool VelkorLog::shouldLogLevel(LogLevels level) {
    if (level == Off) {
        return false;
    }
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    return static_cast<int>(level) >= static_cast<int>(m_configuration.m_minLevel);
}

bool VelkorLog::isLoggerActive(const std::string& category) {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    return m_configuration.isActive(category);
}

ILogging::LogLevels VelkorLog::getLogLevel() const {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    return m_configuration.m_minLevel;
}

// Written under the exclusive lock, so that no reader sees the level while it changes.
void VelkorLog::setLogLevel(LogLevels level) {
    std::unique_lock<std::shared_mutex> lock(m_mutex);
    m_configuration.m_minLevel = level;
}

std::uint64_t VelkorLog::getMaxNumberFiles() const {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    return m_configuration.m_maxNumberFiles;
}

void VelkorLog::startWatching() {
    std::uint32_t interval;
    {
        std::shared_lock<std::shared_mutex> lock(m_mutex);
        interval = m_configuration.m_watchIntervalMinutes;
    }
    m_watcher.start(
        m_configPath, [this] { return onWatchConfigFile(); }, interval);
}

void VelkorLog::stopWatching() {
    m_watcher.stop();
}

std::uint32_t VelkorLog::onWatchConfigFile() {
    VelkorLogConfiguration fresh;
    load(m_configPath, fresh);
    std::uint32_t interval;
    std::uint64_t maxNumberFiles;
    {
        std::unique_lock<std::shared_mutex> lock(m_mutex);
        if (fresh != m_configuration) {
            m_configuration = fresh;
            buildLogger(getLoggerFilePath(), m_configuration, getCurrentFileIndex());
        }
        interval = m_configuration.m_watchIntervalMinutes;
        maxNumberFiles = m_configuration.m_maxNumberFiles;
    }
    deleteOldFiles(maxNumberFiles);
    return interval;
}

void VelkorLog::load(const std::string& path, VelkorLogConfiguration& configuration) {
    boost::system::error_code error;
    if (!boost::filesystem::exists(path, error) || error) {
        configuration.reset();
        return;
    }
    boost::property_tree::ptree tree;
    boost::property_tree::read_xml(path, tree, 0, std::locale());
    configuration.reset();
    configuration.m_watchIntervalMinutes =
        tree.get<std::uint32_t>(s_configKeyWatchInterval, configuration.m_watchIntervalMinutes);
    const std::string level =
        tree.get<std::string>(s_configKeyMinLevel, ILogging::toString(configuration.m_minLevel));
    for (LogLevels candidate : {Trace, Info, Warn, Error, Off}) {
        if (level == ILogging::toString(candidate)) {
            configuration.m_minLevel = candidate;
        }
    }
    configuration.m_maxNumberFiles =
        tree.get<std::uint64_t>(s_configKeyMaxNumberFiles, configuration.m_maxNumberFiles);
    configuration.m_maxFileSize =
        tree.get<std::uint64_t>(s_configKeyMaxFileSize, configuration.m_maxFileSize);
    configuration.m_loggers.clear();
    const boost::property_tree::ptree empty;
    for (const auto& child : tree.get_child(s_configKeyLoggers, empty)) {
        configuration.addCategoryPattern(child.second.data());
    }
}

void VelkorLog::save(const std::string& path, VelkorLogConfiguration& configuration) {
    boost::system::error_code error;
    if (boost::filesystem::exists(path, error)) {
        return;
    }
    boost::property_tree::ptree tree;
    tree.put(s_configKeyXmlNamespace, s_xmlNamespace);
    tree.put(s_configKeyWatchInterval, configuration.m_watchIntervalMinutes);
    tree.put(s_configKeyMinLevel, ILogging::toString(configuration.m_minLevel));
    tree.put(s_configKeyMaxNumberFiles, configuration.m_maxNumberFiles);
    tree.put(s_configKeyMaxFileSize, configuration.m_maxFileSize);
    tree.add_child(s_configKeyLoggers, boost::property_tree::ptree());
    for (const auto& entry : configuration.m_loggers) {
        tree.add(s_configKeyLogger, entry.first);
    }
    boost::property_tree::write_xml(
        path, tree, std::locale(),
        boost::property_tree::xml_writer_make_settings<std::string>(' ', 4, "utf-8"));
}

std::string VelkorLog::getLoggerFilePath() const {
    if (s_addProcessIdToLogFileName) {
        return fmt::format("{}{}_{}_.{}", m_logFolder, s_applicationName,
                           Tessel::Platform::GetCurrentProcessId(), s_dailyLoggerFileExtension);
    }
    return fmt::format("{}{}_.{}", m_logFolder, s_applicationName, s_dailyLoggerFileExtension);
}

void VelkorLog::getExistingLoggerFiles(std::vector<std::string>& files, bool todayOnly) const {
    std::string expression;
    if (todayOnly) {
        expression = s_addProcessIdToLogFileName
                         ? fmt::format("{}_[0-9]*_{}[0-9.]*[.]{}", s_applicationName, today(),
                                       s_dailyLoggerFileExtension)
                         : fmt::format("{}_{}[0-9.]*[.]{}", s_applicationName, today(),
                                       s_dailyLoggerFileExtension);
    } else {
        expression =
            s_addProcessIdToLogFileName
                ? fmt::format("{}_[0-9]*_[0-9.-]*[.]{}", s_applicationName,
                              s_dailyLoggerFileExtension)
                : fmt::format("{}_[0-9.-]*[.]{}", s_applicationName, s_dailyLoggerFileExtension);
    }
    CFileHelper::FindFiles(m_logFolder, expression, files);
}

bool VelkorLog::parseFileIndex(const std::string& fileName, std::uint64_t& index) {
    const std::size_t point = fileName.find('.');
    if (fileName.empty() || point == std::string::npos) {
        return false;
    }
    const std::string rest = fileName.substr(point + 1);
    if (rest.empty() || std::isdigit(static_cast<unsigned char>(rest[0])) == 0) {
        return false;
    }
    index = leadingNumber(rest);
    return true;
}

bool VelkorLog::parseProcessId(const std::string& fileName, std::uint64_t& processId) {
    const std::string prefix = fmt::format("{}_", s_applicationName);
    if (fileName.size() <= prefix.size()) {
        return false;
    }
    const std::string rest = fileName.substr(prefix.size());
    if (std::isdigit(static_cast<unsigned char>(rest[0])) == 0) {
        return false;
    }
    processId = leadingNumber(rest);
    return true;
}

std::uint64_t VelkorLog::getCurrentFileIndex() const {
    std::vector<std::string> files;
    getExistingLoggerFiles(files, true);
    std::uint64_t result = 0;
    for (const std::string& file : files) {
        if (s_addProcessIdToLogFileName) {
            std::uint64_t processId = 0;
            if (!parseProcessId(file, processId) ||
                processId != Tessel::Platform::GetCurrentProcessId()) {
                continue;
            }
        }
        std::uint64_t index = 0;
        if (parseFileIndex(file, index)) {
            result = std::max(result, index);
        }
    }
    return result;
}

void VelkorLog::deleteOldFiles(std::uint64_t maxNumberFiles) {
    if (maxNumberFiles == 0) {
        return;
    }
    std::vector<std::string> files;
    getExistingLoggerFiles(files, false);
    if (files.size() <= maxNumberFiles) {
        return;
    }
    std::multimap<std::time_t, std::string> byAge;
    for (const std::string& name : files) {
        const std::string path = fmt::format("{}{}", m_logFolder, name);
        boost::system::error_code error;
        const std::time_t written = boost::filesystem::last_write_time(path, error);
        if (error) {
            log("VelkorLog::deleteOldFiles", Warn,
                fmt::format("could not get last write time of log file {}. Error: {}", path,
                            error.message()));
            continue;
        }
        byAge.emplace(written, path);
    }
    if (byAge.size() <= maxNumberFiles) {
        return;
    }
    std::uint64_t excess = byAge.size() - maxNumberFiles;
    for (auto entry = byAge.begin(); excess > 0; ++entry, --excess) {
        boost::system::error_code error;
        boost::filesystem::remove(entry->second, error);
        if (error) {
            log("VelkorLog::deleteOldFiles", Warn,
                fmt::format("could not remove log file {}. Error: {}", entry->second,
                            error.message()));
        }
    }
}
