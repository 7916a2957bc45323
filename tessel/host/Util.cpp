#include "tessel/host/Util.h"

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
