#include "tessel/host/Version.h"

#include <charconv>

CVersion::CVersion(unsigned major, unsigned minor, unsigned build, unsigned revision)
    : m_Parts{major, minor, build, revision} {}

CVersion::CVersion(const std::string& text) {
    std::size_t start = 0;
    for (std::uint32_t& part : m_Parts) {
        if (start > text.size()) {
            break;
        }
        std::size_t end = text.find('.', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const char* first = text.data() + start;
        const char* last = text.data() + end;
        std::uint32_t number = 0;
        const auto [stop, error] = std::from_chars(first, last, number);
        if (error == std::errc() && stop == last) {
            part = number;
        }
        start = end + 1;
    }
}

int CVersion::CompareTo(const CVersion& other) const {
    for (int i = 0; i < 4; ++i) {
        if (m_Parts[i] != other.m_Parts[i]) {
            return m_Parts[i] > other.m_Parts[i] ? 1 : -1;
        }
    }
    return 0;
}

std::string CVersion::ToString() const {
    return std::to_string(m_Parts[0]) + "." + std::to_string(m_Parts[1]) + "." +
           std::to_string(m_Parts[2]) + "." + std::to_string(m_Parts[3]);
}
