#include "tessel/persistence/TesselString.h"

#include <cstring>

// 0x21 to 0x7E, with the grave accent in the apostrophe's place (after '&').
const char CTesselString::s_szPrintingAsciiChars[95] =
    "!\"#$%&`()*+,-./"
    "0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`abcdefghijklmnopqrstuvwxyz{|}~";

void CTesselString::TCharToAscii(const char* source, char* target) {
    if (source == nullptr || target == nullptr) {
        return;
    }
    std::strcpy(target, source);
}

void CTesselString::TCharToAscii(const char* source, char* target, unsigned int maxLength) {
    if (source == nullptr || target == nullptr) {
        return;
    }
    unsigned int length = 0;
    while (length < maxLength && source[length] != '\0') {
        target[length] = source[length];
        ++length;
    }
    target[length] = '\0';
}

const char* CTesselString::getPrintingAsciiChars() {
    return s_szPrintingAsciiChars;
}
