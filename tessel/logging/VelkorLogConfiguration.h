// VelkorLogConfiguration: the settings of the log, as VelkorLog.config gives them.
//
// A value object: watch interval (minutes, 10), minimum level (Info), maximum number of files
// (10), maximum file size (52428800 bytes, 0 for no limit), and the table of category
// patterns. A pattern with '?' or '*' is a regular expression ('?' any one character, '*'
// any run) in which other characters keep their meaning in expressions; one without is a
// plain name. Two configurations are equal when their patterns and the four numbers are.
//
// Thread safety: none; VelkorLog guards its configuration.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <regex>
#include <string>

#include "tessel/Export.h"
#include "tessel/logging/ILogging.h"

class TESSEL_API VelkorLogConfiguration {
  public:
    // One category pattern: the expression made from it (empty for a plain name) and, made
    // once, the compiled expression (null for a plain name, or for an expression that does not
    // compile, which throws when it is used).
    struct CategoryPattern {
        std::string expression;
        std::shared_ptr<const std::regex> compiled;
    };

    VelkorLogConfiguration() = default;

    // Puts all fields back to the defaults.
    void reset();
    // Adds pattern to the table, replacing an equal one.
    void addCategoryPattern(const std::string& pattern);
    // True if category passes the table: an empty table lets every category pass; an
    // expression must match the whole category, a plain name must equal it. A pattern whose
    // expression is not valid throws std::regex_error when it is tried.
    bool isActive(const std::string& category) const;

    bool operator==(const VelkorLogConfiguration& other) const;
    bool operator!=(const VelkorLogConfiguration& other) const { return !(*this == other); }

    std::uint32_t m_watchIntervalMinutes = 10;
    ILogging::LogLevels m_minLevel = ILogging::Info;
    std::uint64_t m_maxNumberFiles = 10;
    std::uint64_t m_maxFileSize = 52428800;
    std::map<std::string, CategoryPattern> m_loggers;  // by the pattern as configured
};
