#include "tessel/host/StringFormat.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "tessel/platform/CheckedPrint.h"

namespace Tessel {
namespace {

constexpr wchar_t kReplacement = 0xFFFD;

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::string formatV(const char* format, std::va_list arguments) {
    if (format == nullptr) {
        return std::string();
    }
    const std::string posix = Platform::ToPosixFormat(format);
    std::va_list measure;
    va_copy(measure, arguments);
    const int length = std::vsnprintf(nullptr, 0, posix.c_str(), measure);
    va_end(measure);
    if (length < 0) {
        return std::string();
    }
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), posix.c_str(), arguments);
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}
#pragma GCC diagnostic pop

}  // namespace

std::wstring DecodeUtf8(const std::string& utf8) {
    std::wstring text;
    text.reserve(utf8.size());
    const auto* bytes = reinterpret_cast<const unsigned char*>(utf8.data());
    const std::size_t size = utf8.size();
    std::size_t i = 0;
    while (i < size) {
        const unsigned char lead = bytes[i];
        if (lead < 0x80) {
            text += static_cast<wchar_t>(lead);
            ++i;
            continue;
        }
        // The number of continuation bytes and the range of the first one, which rules out
        // overlong forms, surrogates and values above U+10FFFF.
        std::size_t need = 0;
        unsigned char low = 0x80, high = 0xBF;
        char32_t value = 0;
        if (lead >= 0xC2 && lead <= 0xDF) {
            need = 1;
            value = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            need = 2;
            value = lead & 0x0F;
            low = lead == 0xE0 ? 0xA0 : 0x80;
            high = lead == 0xED ? 0x9F : 0xBF;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            need = 3;
            value = lead & 0x07;
            low = lead == 0xF0 ? 0x90 : 0x80;
            high = lead == 0xF4 ? 0x8F : 0xBF;
        } else {
            text += kReplacement;
            ++i;
            continue;
        }
        std::size_t k = 1;
        for (; k <= need; ++k) {
            if (i + k >= size) {
                break;
            }
            const unsigned char c = bytes[i + k];
            if (c < (k == 1 ? low : 0x80) || c > (k == 1 ? high : 0xBF)) {
                break;
            }
            value = (value << 6) | (c & 0x3F);
        }
        if (k <= need) {
            text += kReplacement;  // the valid start of a sequence that breaks off
        } else {
            text += static_cast<wchar_t>(value);
        }
        i += k;
    }
    return text;
}

std::string EncodeUtf8(const std::wstring& text) {
    std::string utf8;
    utf8.reserve(text.size());
    for (const wchar_t w : text) {
        char32_t c = static_cast<char32_t>(w);
        if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) {
            c = kReplacement;
        }
        appendUtf8(utf8, c);
    }
    return utf8;
}

std::string Format(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string text = formatV(format, arguments);
    va_end(arguments);
    return text;
}

void Format(std::string& result, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    result = formatV(format, arguments);
    va_end(arguments);
}

std::string LoadStringA(Platform::HINSTANCE module, unsigned int id) {
    // The platform copies a text cut to the buffer: a text that fills it may be longer.
    std::vector<char> buffer(256);
    for (;;) {
        const int length =
            Platform::LoadStringA(module, id, buffer.data(), static_cast<int>(buffer.size()));
        if (static_cast<std::size_t>(length) + 1 < buffer.size()) {
            return std::string(buffer.data(), static_cast<std::size_t>(length));
        }
        buffer.resize(buffer.size() * 2);
    }
}

void LoadStringA(std::string& result, Platform::HINSTANCE module, unsigned int id) {
    result = LoadStringA(module, id);
}

}  // namespace Tessel
