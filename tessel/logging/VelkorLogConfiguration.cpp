#include "tessel/logging/VelkorLogConfiguration.h"

namespace {

std::string replaceAll(std::string text, char what, const std::string& by) {
    std::string result;
    for (char c : text) {
        if (c == what) {
            result += by;
        } else {
            result += c;
        }
    }
    return result;
}

}  // namespace

void VelkorLogConfiguration::reset() {
    *this = VelkorLogConfiguration();
}

void VelkorLogConfiguration::addCategoryPattern(const std::string& pattern) {
    std::string expression;
    if (pattern.find('?') != std::string::npos) {
        expression = replaceAll(pattern, '?', ".");
    }
    if (pattern.find('*') != std::string::npos) {
        expression = replaceAll(expression.empty() ? pattern : expression, '*', ".*");
    }
    CategoryPattern entry{expression, nullptr};
    if (!expression.empty()) {
        try {
            entry.compiled = std::make_shared<const std::regex>(expression, std::regex::ECMAScript);
        } catch (const std::regex_error&) {
            // Kept uncompiled: its use throws, not its load.
        }
    }
    m_loggers[pattern] = std::move(entry);
}

bool VelkorLogConfiguration::isActive(const std::string& category) const {
    if (m_loggers.empty()) {
        return true;
    }
    for (const auto& [pattern, entry] : m_loggers) {
        if (entry.expression.empty()) {
            if (pattern == category) {
                return true;
            }
        } else if (entry.compiled != nullptr) {
            if (std::regex_match(category, *entry.compiled)) {
                return true;
            }
        } else if (std::regex_match(category,
                                    std::regex(entry.expression, std::regex::ECMAScript))) {
            return true;  // not reached: the compilation throws
        }
    }
    return false;
}

bool VelkorLogConfiguration::operator==(const VelkorLogConfiguration& other) const {
    if (m_loggers.size() != other.m_loggers.size()) {
        return false;
    }
    for (auto a = m_loggers.begin(), b = other.m_loggers.begin(); a != m_loggers.end(); ++a, ++b) {
        if (a->first != b->first) {
            return false;
        }
    }
    return m_watchIntervalMinutes == other.m_watchIntervalMinutes &&
           m_minLevel == other.m_minLevel && m_maxNumberFiles == other.m_maxNumberFiles &&
           m_maxFileSize == other.m_maxFileSize;
}
