#include "tessel/monitoring/MonitorElement.h"

#include <fmt/format.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/MonitorElementObserver.h"
#include "tessel/platform/Clock.h"

namespace {

std::uint64_t bitsOf(double v) {
    return std::bit_cast<std::uint64_t>(v);
}
double doubleOf(std::uint64_t bits) {
    return std::bit_cast<double>(bits);
}

// toupper of the "C" locale as a table: the filter match runs once per element per request
// and must not pay a library call per character.
struct UpperTable {
    unsigned char map[256];
    constexpr UpperTable() : map() {
        for (int c = 0; c < 256; ++c) {
            map[c] = static_cast<unsigned char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
        }
    }
};
constexpr UpperTable kUpper;

inline int upper(char c) {
    return kUpper.map[static_cast<unsigned char>(c)];
}

// The value truncated towards zero. NaN and values outside the 64-bit range give the
// integer indefinite value, as the processor's conversion does.
std::int64_t truncateToInt64(double v) {
    if (!(v > -9223372036854775808.0 && v < 9223372036854775808.0)) {
        return INT64_MIN;
    }
    return static_cast<std::int64_t>(v);
}

void logRefusedName(const char* scope, const std::string& name) {
    ILogging::getInstance().log(
        scope, ILogging::Error,
        fmt::format("Monitor element name ({}) refused: a name must be shorter than {} bytes "
                    "and have at most {} path elements.",
                    name, CMonitorElement::MAX_NAME_LENGTH, CMonitorElement::MAX_PATH_ELEMENTS));
}

}  // namespace

CMonitorElement::CMonitorElement() : m_value(0), m_llStartTime(0), m_llStopTime(0) {
    std::memset(&m_identifier, 0, sizeof m_identifier);
    std::memset(m_szUnit, 0, sizeof m_szUnit);
}

CMonitorElement::CMonitorElement(const std::string& name, const std::string& unit)
    : CMonitorElement() {
    if (IsValidName(name)) {
        Parse(name, m_identifier);
    } else {
        logRefusedName("CMonitorElement::CMonitorElement", name);
    }
    std::memcpy(m_szUnit, unit.data(), std::min<std::size_t>(unit.size(), MAX_UNIT_SIZE));
}

CMonitorElement::CMonitorElement(const CMonitorElement& other)
    : m_value(0),
      m_llStartTime(other.m_llStartTime.load(std::memory_order_relaxed)),
      m_llStopTime(other.m_llStopTime.load(std::memory_order_relaxed)),
      m_identifier(other.m_identifier) {
    std::memcpy(m_szUnit, other.m_szUnit, sizeof m_szUnit);
    m_value.exchange(other.m_value.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

CMonitorElement CMonitorElement::operator=(const CMonitorElement& other) {
    if (this != &other) {
        m_identifier = other.m_identifier;
        std::memcpy(m_szUnit, other.m_szUnit, sizeof m_szUnit);
        m_value.exchange(other.m_value.load(std::memory_order_relaxed), std::memory_order_relaxed);
        m_llStartTime.store(other.m_llStartTime.load(std::memory_order_relaxed),
                            std::memory_order_relaxed);
        m_llStopTime.store(other.m_llStopTime.load(std::memory_order_relaxed),
                           std::memory_order_relaxed);
    }
    return *this;
}

bool CMonitorElement::IsValidName(const std::string& name) {
    if (name.size() >= MAX_NAME_LENGTH) {
        return false;
    }
    std::uint64_t elements = 1;
    for (char c : name) {
        if (c == DELIMITER) {
            ++elements;
        }
    }
    return elements <= MAX_PATH_ELEMENTS;
}

// Element boundaries keep the positions they have in name: a leading, doubled or trailing
// delimiter yields an empty path element. The caller has checked the limits.
void CMonitorElement::Parse(const std::string& name, CMonitorElementIdentifier& identifier) {
    std::memset(&identifier, 0, sizeof identifier);
    identifier.m_ucElementCount = 1;
    for (unsigned char i = 0; i < name.size(); ++i) {
        if (name[i] == DELIMITER) {
            identifier.m_aElementOffsets[identifier.m_ucElementCount++] = i + 1;
        } else {
            identifier.m_szText[i] = name[i];
        }
    }
}

void CMonitorElement::set(double v) {
    m_value.exchange(bitsOf(v), std::memory_order_relaxed);
}

void CMonitorElement::reset() {
    set(0.0);
}

void CMonitorElement::add(double delta) {
    std::uint64_t expected = m_value.load(std::memory_order_relaxed);
    while (!m_value.compare_exchange_weak(expected, bitsOf(doubleOf(expected) + delta),
                                          std::memory_order_relaxed)) {
    }
}

void CMonitorElement::increment(std::uint64_t n) {
    add(static_cast<double>(n));
}

void CMonitorElement::decrement(std::uint64_t n) {
    add(-static_cast<double>(n));
}

CMonitorElement& CMonitorElement::operator++() {
    add(1.0);
    return *this;
}

CMonitorElement& CMonitorElement::operator--() {
    add(-1.0);
    return *this;
}

void CMonitorElement::setRatio(double part, double whole) {
    set(whole > 0.0 ? part / whole * 100.0 : 0.0);
}

void CMonitorElement::start() {
    m_llStartTime.store(Tessel::Platform::GetSystemTimeTicks(), std::memory_order_relaxed);
}

void CMonitorElement::stop() {
    const std::int64_t stopTime = Tessel::Platform::GetSystemTimeTicks();
    m_llStopTime.store(stopTime, std::memory_order_relaxed);
    set(static_cast<double>(stopTime - m_llStartTime.load(std::memory_order_relaxed)) / 10000000.0);
}

void CMonitorElement::synchronize(CMonitorElement& other) {
    set(other.get());
    m_llStartTime.store(other.m_llStartTime.load(std::memory_order_relaxed),
                        std::memory_order_relaxed);
    m_llStopTime.store(other.m_llStopTime.load(std::memory_order_relaxed),
                       std::memory_order_relaxed);
}

double CMonitorElement::get() const {
    return doubleOf(m_value.load(std::memory_order_relaxed));
}

double CMonitorElement::getTimeDiffFromStart() const {
    return static_cast<double>(Tessel::Platform::GetSystemTimeTicks() -
                               m_llStartTime.load(std::memory_order_relaxed)) /
           10000000.0;
}

std::string CMonitorElement::getPathElement(unsigned char index) const {
    if (index >= m_identifier.m_ucElementCount) {
        return std::string();
    }
    return std::string(m_identifier.m_szText + m_identifier.m_aElementOffsets[index]);
}

std::string CMonitorElement::getPath() const {
    std::string path;
    for (unsigned char i = 0; i < m_identifier.m_ucElementCount; ++i) {
        if (i > 0) {
            path += DELIMITER;
        }
        path += m_identifier.m_szText + m_identifier.m_aElementOffsets[i];
    }
    return path;
}

// The text that printIdentifier writes, built without a stream: this runs once per rendered
// element of every monitor request.
std::string CMonitorElement::getIdentifier(std::uint64_t skip) const {
    std::string text = getPath();
    if (skip != 0 && skip < text.size()) {
        text.erase(0, skip);
    }
    return text;
}

std::string CMonitorElement::getUnit() const {
    return std::string(m_szUnit);
}

void CMonitorElement::iterateIdentifier(const IdentifierVisitor& visitor) const {
    for (unsigned char i = 0; i < m_identifier.m_ucElementCount; ++i) {
        if (!visitor(i, m_identifier.m_ucElementCount,
                     m_identifier.m_szText + m_identifier.m_aElementOffsets[i])) {
            return;
        }
    }
}

// A single forward scan without recursion or backtracking beyond one saved pattern index.
// States: Literal compares pattern and path; OneStar skips inside the current path element
// up to the stop character; TwoStar skips across path elements up to it; TwoStarRun
// compares the pattern run that follows a double star. A failed run restarts the pattern
// after the double star but does not move back in the path, so a partial run is not
// re-examined from its second character; that simplification is part of the language.
bool CMonitorElement::match(const std::string& filter) const {
    if (filter.size() >= MAX_NAME_LENGTH) {
        return false;
    }
    enum class State { Literal, OneStar, TwoStar, TwoStarRun };
    const char* pattern = filter.c_str();
    const std::size_t length = std::strlen(pattern);  // a NUL ends the pattern
    if (length != filter.size()) {
        return false;
    }
    const CMonitorElementIdentifier& id = m_identifier;

    State state = State::Literal;
    const unsigned count = id.m_ucElementCount;
    unsigned e = 0;                     // path element
    const char* element = id.m_szText;  // its text
    std::size_t p = 0;                  // position in it
    std::size_t i = 0;                  // pattern index
    int s = 0;                          // stop character
    std::size_t r = 0;                  // pattern index to resume a failed run at
    const auto nextElement = [&] {
        ++e;
        p = 0;
        element = id.m_szText + (e < count ? id.m_aElementOffsets[e] : 0);
    };
    while (i < length && e < count) {
        const int c = upper(element[p]);
        switch (state) {
            case State::Literal:
                if (pattern[i] == WILDCARD) {
                    const char next = pattern[i + 1];
                    if (next == '\0') {
                        return true;  // a trailing star accepts all that remains
                    }
                    if (next == WILDCARD) {
                        if (pattern[i + 2] == '\0') {
                            return true;
                        }
                        s = upper(pattern[i + 2]);
                        i += 2;
                        state = State::TwoStar;
                    } else if (next == DELIMITER) {
                        s = 0;
                        i += 1;
                        state = State::OneStar;
                    } else {
                        s = upper(next);
                        i += 1;
                        state = State::OneStar;
                    }
                } else if (pattern[i] == DELIMITER) {
                    if (c != 0) {
                        return false;
                    }
                    nextElement();
                    ++i;
                } else {
                    if (upper(pattern[i]) != c) {
                        return false;
                    }
                    ++i;
                    ++p;
                }
                break;
            case State::OneStar:
                if (c == s) {
                    state = State::Literal;  // Literal compares this same character
                } else if (c == 0) {
                    return false;
                } else {
                    ++p;
                }
                break;
            case State::TwoStar:
                if (c == s) {
                    r = i;
                    state = State::TwoStarRun;
                } else if (c == 0) {
                    nextElement();
                } else {
                    ++p;
                }
                break;
            case State::TwoStarRun:
                if (pattern[i] == WILDCARD) {
                    state = State::Literal;
                } else if (upper(pattern[i]) == c) {
                    ++i;
                    ++p;
                } else {
                    i = r;
                    state = State::TwoStar;
                }
                break;
        }
    }
    return e + 1 == count && element[p] == '\0';
}

bool CMonitorElement::update(CMonitorElementObserver& observer) {
    if (!match(observer.m_filter)) {
        return false;
    }
    observer.updateElement(*this);
    return true;
}

void CMonitorElement::setRootName(const std::string& root) const {
    std::string path = root;
    for (unsigned char i = 1; i < m_identifier.m_ucElementCount; ++i) {
        path += DELIMITER;
        path += m_identifier.m_szText + m_identifier.m_aElementOffsets[i];
    }
    if (!IsValidName(path)) {
        logRefusedName("CMonitorElement::setRootName", path);
        return;
    }
    Parse(path, m_identifier);
}

bool CMonitorElement::Less(const CMonitorElementIdentifier& a, const CMonitorElementIdentifier& b) {
    const unsigned n = std::min(a.m_ucElementCount, b.m_ucElementCount);
    for (unsigned i = 0; i < n; ++i) {
        const int difference =
            std::strcmp(a.m_szText + a.m_aElementOffsets[i], b.m_szText + b.m_aElementOffsets[i]);
        if (difference != 0) {
            return difference < 0;
        }
    }
    return a.m_ucElementCount < b.m_ucElementCount;
}

bool CMonitorElement::operator==(const CMonitorElement& other) const {
    return !Less(m_identifier, other.m_identifier) && !Less(other.m_identifier, m_identifier);
}

bool CMonitorElement::operator()(const CMonitorElement& a, const CMonitorElement& b) const {
    return Less(a.m_identifier, b.m_identifier);
}

void CMonitorElement::printIdentifier(std::ostream& stream) const {
    stream << getPath();
}

// The fractional part decides: only a strictly positive one prints as a floating-point
// number. A negative value with a fraction has a negative fractional part and prints
// truncated, so -1.5 prints as -1. Width < 0 means no field width.
void CMonitorElement::printNumber(std::ostream& stream, int width) const {
    const double value = get();
    double integral;
    if (std::modf(value, &integral) > 0.0) {
        stream << std::fixed;
        if (width >= 0) {
            stream << std::setw(width);
        }
        stream << std::setprecision(6) << value;
    } else {
        if (width >= 0) {
            stream << std::setw(width);
        }
        stream << truncateToInt64(value);
    }
}

void CMonitorElement::printCounter(std::ostream& stream) const {
    printNumber(stream, 20);
    stream << ' ' << m_szUnit;
}

void CMonitorElement::printCounterForJSON(std::ostream& stream, bool valueOnly) const {
    if (valueOnly) {
        stream << '"';
        printNumber(stream, -1);
        stream << '"';
        return;
    }
    stream << "[\"";
    printNumber(stream, -1);
    stream << "\",\"" << m_szUnit << "\"]";
}

void CMonitorElement::printCounterForPRTG(std::ostream& stream) const {
    printNumber(stream, -1);
}
