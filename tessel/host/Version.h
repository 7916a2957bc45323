// CVersion: a four-part version number, "major.minor.build.revision".
//
// Four unsigned 32-bit parts in order of weight, compared part by part from the most weighty.
// A value type: copied and moved freely, no virtual operations.
//
// Thread safety: as for any value; const operations may run on several threads at once.
#pragma once

#include <cstdint>
#include <string>

#include "tessel/Export.h"

class TESSEL_API CVersion {
  public:
    // 0.0.0.0.
    CVersion() = default;
    CVersion(unsigned major, unsigned minor, unsigned build, unsigned revision);
    // The text split at its dots, the first four pieces read as decimal numbers: a piece that
    // is not wholly digits, or whose number does not fit 32 bits, counts as 0 and the others
    // are still read. Missing parts are 0, pieces after the fourth are ignored: "1.2.x.4" is
    // 1.2.0.4 and "7" is 7.0.0.0.
    explicit CVersion(const std::string& text);

    CVersion(const CVersion&) = default;
    CVersion(CVersion&&) noexcept = default;
    CVersion& operator=(const CVersion&) = default;
    CVersion& operator=(CVersion&&) noexcept = default;

    // 1 if this version is above other, -1 if below, 0 if equal.
    int CompareTo(const CVersion& other) const;
    bool Equals(const CVersion& other) const { return CompareTo(other) == 0; }

    bool operator==(const CVersion& other) const { return CompareTo(other) == 0; }
    bool operator!=(const CVersion& other) const { return CompareTo(other) != 0; }
    bool operator<(const CVersion& other) const { return CompareTo(other) < 0; }
    bool operator<=(const CVersion& other) const { return CompareTo(other) <= 0; }
    bool operator>(const CVersion& other) const { return CompareTo(other) > 0; }
    bool operator>=(const CVersion& other) const { return CompareTo(other) >= 0; }

    // The four parts in decimal joined by dots, "1.2.0.4".
    std::string ToString() const;

  private:
    std::uint32_t m_Parts[4] = {0, 0, 0, 0};  // major, minor, build, revision
};
