#include "tessel/platform/Strings.h"

#include <cstdint>

namespace Tessel::Platform {

namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;
constexpr std::uint32_t kLastCodePoint = 0x10FFFF;

bool isHighSurrogate(std::uint32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLowSurrogate(std::uint32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

}  // namespace

CStringW WideToUtf16(const wchar_t* text, std::size_t length) {
    CStringW result;
    if (text == nullptr) {
        return result;
    }
    result.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
        std::uint32_t c = static_cast<std::uint32_t>(text[i]);
        if (c > kLastCodePoint) {
            c = kReplacement;
        }
        if (c < 0x10000) {
            result += static_cast<char16_t>(c);
        } else {
            c -= 0x10000;
            result += static_cast<char16_t>(0xD800 + (c >> 10));
            result += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        }
    }
    return result;
}

std::size_t Utf16Length(const wchar_t* text, std::size_t length) {
    std::size_t units = 0;
    for (std::size_t i = 0; text != nullptr && i < length; ++i) {
        const std::uint32_t c = static_cast<std::uint32_t>(text[i]);
        units += c >= 0x10000 && c <= kLastCodePoint ? 2 : 1;
    }
    return units;
}

std::wstring Utf16ToWide(const char16_t* text, std::size_t length) {
    std::wstring result;
    if (text == nullptr) {
        return result;
    }
    result.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
        const std::uint32_t unit = text[i];
        if (isHighSurrogate(unit) && i + 1 < length && isLowSurrogate(text[i + 1])) {
            const std::uint32_t low = text[++i];
            result += static_cast<wchar_t>(0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
        } else {
            result += static_cast<wchar_t>(unit);
        }
    }
    return result;
}

}  // namespace Tessel::Platform
