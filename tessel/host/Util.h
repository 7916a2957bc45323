// CUtil: small static helpers shared by the rest of the library.
//
// A bag of static operations grouped by topic; it holds no state of its own here. Each
// operation states its results; none throws unless it says so.
//
// Text: narrow strings are UTF-8, and the byte operations below see a multi-byte character
// as bytes of 128 and above, which they leave alone.
#pragma once

#include <cstddef>
#include <string>

#include "tessel/Export.h"

class TESSEL_API CUtil {
  public:
    // The size argument of the text operations that means "no limit": the text ends at its
    // NUL only.
    static constexpr std::size_t NO_SIZE_LIMIT = static_cast<std::size_t>(-1);

    // --- Text ---

    // Cuts text at its first control character (a byte below 32: line breaks, tabs, ...),
    // which becomes NUL. Looks at the first min(strlen(text), size - 1) bytes only, so
    // size is the size of the buffer text lies in, in bytes, and bytes past a NUL are never
    // read; NO_SIZE_LIMIT scans to the NUL. Returns 1 if the text was cut, 0 if it was left
    // alone: it had no control character within the limit, size was 0 or text null.
    // Meant for the message texts of the platform, which end in "\r\n".
    static int CleanUnprintableString(char* text, std::size_t size);
    // The same for a narrow text; CleanUnprintableString is its general name.
    static int CleanUnprintableStringA(char* text, std::size_t size);

    // --- Satellite systems ---

    // The names of the satellite systems in mask, a set of CPrnID::PrnType bits, joined by
    // commas in the order of their bits: "Gps", "Glonass", "Transit", "Galileo", "SBAS",
    // "BeiDou", "QZSS", "GNSS". Other bits count for nothing; "" for none.
    static std::wstring SatelliteSystemToWString(long mask);
};
