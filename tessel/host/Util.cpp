#include "tessel/host/Util.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "tessel/host/StringFormat.h"

std::vector<CUtil::DataDispatcherInfo> CUtil::s_AvailableDataDispatchers;
boost::mutex CUtil::s_AvailableDispatchersGuard;
std::string CUtil::s_applicationName;
Tessel::Platform::HWINSTA CUtil::s_CurrentWindowStation = 0;
bool CUtil::s_IsUserNonInteractive = false;

namespace {

// Copies text into buffer of size bytes, cut to size - 1 bytes, NUL-terminated.
void copyBounded(const char* text, char* buffer, int size) {
    if (buffer == nullptr || size < 1) {
        return;
    }
    const std::size_t length = std::min(std::strlen(text), static_cast<std::size_t>(size) - 1);
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
}

}  // namespace

int CUtil::CleanUnprintableString(char* text, std::size_t size) {
    return CleanUnprintableStringA(text, size);
}

int CUtil::CleanUnprintableStringA(char* text, std::size_t size) {
    if (text == nullptr || size == 0) {
        return 0;
    }
    // One pass up to the NUL or the last byte of the buffer, whichever comes first.
    const std::size_t limit = size - 1;
    for (std::size_t i = 0; i < limit && text[i] != '\0'; ++i) {
        if (static_cast<unsigned char>(text[i]) < 32) {
            text[i] = '\0';
            return 1;
        }
    }
    return 0;
}

std::wstring CUtil::SatelliteSystemToWString(long mask) {
    static constexpr const wchar_t* kNames[] = {L"Gps",  L"Glonass", L"Transit", L"Galileo",
                                                L"SBAS", L"BeiDou",  L"QZSS",    L"GNSS"};
    std::wstring text;
    for (unsigned bit = 0; bit < 8; ++bit) {
        if ((mask & (1L << bit)) != 0) {
            if (!text.empty()) {
                text += L',';
            }
            text += kNames[bit];
        }
    }
    return text;
}

int CUtil::CompWithWildCard(const char* pattern, const char* text) {
    if (pattern == nullptr || text == nullptr) {
        return 0;
    }
    // Up to the first '*' the pattern must match byte for byte.
    while (*text != '\0' && *pattern != '*') {
        if (*pattern != *text && *pattern != '?') {
            return 0;
        }
        ++pattern;
        ++text;
    }
    // From then on, a mismatch goes back to the last '*' and lets it swallow one more byte.
    const char* star = nullptr;
    const char* resume = nullptr;
    while (*text != '\0') {
        if (*pattern == '*') {
            if (*++pattern == '\0') {
                return 1;
            }
            star = pattern;
            resume = text + 1;
        } else if (*pattern == *text || *pattern == '?') {
            ++pattern;
            ++text;
        } else {
            pattern = star;
            text = resume++;
        }
    }
    while (*pattern == '*') {
        ++pattern;
    }
    return *pattern == '\0' ? 1 : 0;
}

std::string CUtil::Base64Encode(const std::string& data) {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    encoded.reserve((data.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < data.size(); i += 3) {
        const unsigned group = static_cast<unsigned char>(data[i]) << 16 |
                               static_cast<unsigned char>(data[i + 1]) << 8 |
                               static_cast<unsigned char>(data[i + 2]);
        encoded += kAlphabet[group >> 18];
        encoded += kAlphabet[(group >> 12) & 63];
        encoded += kAlphabet[(group >> 6) & 63];
        encoded += kAlphabet[group & 63];
    }
    if (i < data.size()) {
        const bool two = i + 1 < data.size();
        const unsigned group = static_cast<unsigned char>(data[i]) << 16 |
                               (two ? static_cast<unsigned char>(data[i + 1]) << 8 : 0u);
        encoded += kAlphabet[group >> 18];
        encoded += kAlphabet[(group >> 12) & 63];
        encoded += two ? kAlphabet[(group >> 6) & 63] : '=';
        encoded += '=';
    }
    return encoded;
}

std::wstring CUtil::AnsiToWString(const char* text) {
    return text == nullptr ? std::wstring() : Tessel::DecodeUtf8(text);
}

void CUtil::CopyBSTR2TCHAR(wchar_t* source, char* target, int size) {
    if (target == nullptr || size < 1) {
        return;
    }
    const std::string utf8 = source == nullptr ? std::string() : Tessel::EncodeUtf8(source);
    std::size_t length = std::min(utf8.size(), static_cast<std::size_t>(size) - 1);
    // A cut inside a character goes back to its lead byte: continuation bytes are 10xxxxxx.
    if (length < utf8.size()) {
        while (length > 0 && (static_cast<unsigned char>(utf8[length]) & 0xC0) == 0x80) {
            --length;
        }
    }
    std::memcpy(target, utf8.data(), length);
    target[length] = '\0';
}

std::wstring CUtil::MilliSecToTimespanWString(long ms) {
    const long hours = ms / 3600000;
    const long minutes = ms % 3600000 / 60000;
    const long seconds = ms % 60000 / 1000;
    const long milliseconds = ms % 1000;
    wchar_t text[64];
    std::swprintf(text, sizeof(text) / sizeof(text[0]), L"%02ld:%02ld:%02ld.%03ld", hours, minutes,
                  seconds, milliseconds);
    return text;
}

void CUtil::SleepNoCpuUsage(unsigned long ms) {
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms));
}

bool CUtil::IsUserInteractive() {
    namespace P = Tessel::Platform;
    const P::HWINSTA station = P::GetProcessWindowStation();
    if (station != s_CurrentWindowStation) {
        s_CurrentWindowStation = station;
        P::USEROBJECTFLAGS flags{};
        P::DWORD needed = 0;
        if (P::GetUserObjectInformationA(station, P::UOI_FLAGS, &flags, sizeof(flags), &needed) &&
            (flags.dwFlags & P::WSF_VISIBLE) == 0) {
            s_IsUserNonInteractive = true;
        }
    }
    return !s_IsUserNonInteractive;
}

void CUtil::GetSendEventText(char* text, int size) {
    copyBounded("Send email", text, size);
}

void CUtil::GetSendEventDesc(char* text, int size) {
    copyBounded("Send email.", text, size);
}

std::string CUtil::getApplicationName() {
    return s_applicationName;
}

void CUtil::setApplicationName(const std::string& name) {
    s_applicationName = name;
}

void CUtil::addDataDispatcherInfo(const DataDispatcherInfo& info) {
    boost::mutex::scoped_lock lock(s_AvailableDispatchersGuard);
    s_AvailableDataDispatchers.push_back(info);
}

bool CUtil::hasDataDispatcher(unsigned long dispatcherType, unsigned int dispatcherId) {
    boost::mutex::scoped_lock lock(s_AvailableDispatchersGuard);
    return std::any_of(s_AvailableDataDispatchers.begin(), s_AvailableDataDispatchers.end(),
                       [&](const DataDispatcherInfo& info) {
                           return info.dispatcherType == dispatcherType &&
                                  info.dispatcherId == dispatcherId;
                       });
}
