// Free text helpers of the namespace Tessel: UTF-8 conversion, print-style formatting of
// texts of any length, and string resources.
//
// Thread safety: all functions may be called from any thread.
#pragma once

#include <string>

#include "tessel/Export.h"
#include "tessel/platform/Resources.h"

namespace Tessel {

// The UTF-8 text utf8 as a wide string (one wchar_t per code point). Invalid input is not
// reported: each invalid or cut-short sequence (the longest start of a valid one, or one
// byte) becomes U+FFFD, as are encoded surrogates and overlong forms. "" gives "".
TESSEL_API std::wstring DecodeUtf8(const std::string& utf8);

// The wide string text in UTF-8. A value that is no Unicode scalar value (a surrogate, above
// U+10FFFF) becomes U+FFFD, not reported. "" gives "".
TESSEL_API std::string EncodeUtf8(const std::wstring& text);

// format printed with the arguments, as long as the print is: nothing is cut. format is a
// printf format; the platform's size prefixes ("%I64d", "%I32u", "%Iu") are understood.
// A format that cannot be printed gives "". The format is not checked at compile time, since
// those prefixes are no standard printf.
TESSEL_API std::string Format(const char* format, ...);
// The same print into result, replacing its content.
TESSEL_API void Format(std::string& result, const char* format, ...);

// String resource id of module (null: the program); "" when there is none.
TESSEL_API std::string LoadStringA(Platform::HINSTANCE module, unsigned int id);
// The same into result, replacing its content.
TESSEL_API void LoadStringA(std::string& result, Platform::HINSTANCE module, unsigned int id);

}  // namespace Tessel
