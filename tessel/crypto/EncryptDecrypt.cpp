#include "tessel/crypto/EncryptDecrypt.h"

#include <cstddef>
#include <cstring>

namespace {

// Offset and period of every scrambler.
constexpr unsigned char kConstant = 13;

}  // namespace

EncryptDecrypt::EncryptDecrypt() : m_ucOffset(kConstant), m_ucPeriod(kConstant) {}

int EncryptDecrypt::Encrypt(char* text) {
    if (text == nullptr) {
        return 0;
    }
    const std::size_t length = std::strlen(text);
    for (std::size_t i = 0; i < length; ++i) {
        text[i] =
            static_cast<char>(static_cast<unsigned char>(text[i]) + i % m_ucPeriod + m_ucOffset);
    }
    return 1;
}

int EncryptDecrypt::Decrypt(char* text) {
    if (text == nullptr) {
        return 0;
    }
    const std::size_t length = std::strlen(text);
    for (std::size_t i = 0; i < length; ++i) {
        text[i] =
            static_cast<char>(static_cast<unsigned char>(text[i]) - i % m_ucPeriod - m_ucOffset);
    }
    return 1;
}
