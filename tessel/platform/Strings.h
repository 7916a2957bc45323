// The string classes of the library's signatures, and wide text in UTF-16.
//
// CStringA is the narrow string, UTF-8 text; CStringW is the wide string, held as UTF-16 code
// units. wchar_t is 4 bytes on this platform (one UTF-32 code point per character), while
// wide text that the library stores or sends is UTF-16, so CStringW is a string of char16_t
// and wchar_t text is converted where it meets it. The aliases live in the global namespace,
// where host code written against the library's signatures (const CStringA&) looks for them.
//
// The conversions keep every code unit that has no counterpart as it is: an unpaired
// surrogate travels unchanged both ways. A wchar_t value beyond U+10FFFF, which UTF-16 cannot
// express, becomes U+FFFD.
//
// Thread safety: the functions hold no state and may be called from any thread.
#pragma once

#include <cstddef>
#include <string>

#include "tessel/Export.h"

using CStringA = std::string;
using CStringW = std::u16string;

namespace Tessel::Platform {

// The UTF-16 form of the length characters of text (null with length 0 gives an empty
// string); a character above U+FFFF becomes a surrogate pair.
TESSEL_API CStringW WideToUtf16(const wchar_t* text, std::size_t length);
inline CStringW WideToUtf16(const std::wstring& text) {
    return WideToUtf16(text.data(), text.size());
}

// The number of UTF-16 code units of the length characters of text, without converting them.
TESSEL_API std::size_t Utf16Length(const wchar_t* text, std::size_t length);

// The wchar_t form of the length code units of text; a surrogate pair becomes one character.
TESSEL_API std::wstring Utf16ToWide(const char16_t* text, std::size_t length);
inline std::wstring Utf16ToWide(const CStringW& text) {
    return Utf16ToWide(text.data(), text.size());
}

}  // namespace Tessel::Platform
