#include "tessel/crypto/CryptFunctions.h"

#include <cstring>
#include <string>
#include <type_traits>

#include "tessel/crypto/CryptRC4V2.h"
#include "tessel/host/Registry.h"
#include "tessel/platform/CheckedPrint.h"

// GetCrypt hands its size to the registry's binary read as it is.
static_assert(std::is_same_v<std::size_t, unsigned long>);

namespace {

// Ciphers length bytes of data with the machine password.
void CipherWithMachinePassword(unsigned char* data, std::size_t length) {
    const std::string password = CCryptBase::GenerateMachinePassword(nullptr);
    CCryptRC4V2 cipher;
    cipher.EncryptData(reinterpret_cast<const unsigned char*>(password.data()),
                       static_cast<int>(password.size()), data, length);
}

}  // namespace

extern "C" {

int Crypt(char* buffer, std::size_t size) {
    if (buffer == nullptr && size > 0) {
        return 0;
    }
    CipherWithMachinePassword(reinterpret_cast<unsigned char*>(buffer), size);
    return 1;
}

int Crypt2(const char* text, char* buffer, std::size_t* size) {
    if (text == nullptr || buffer == nullptr || size == nullptr) {
        return 0;
    }
    Tessel::Platform::sprintf_s(buffer, *size, "%s", text);
    return Crypt(buffer, *size);
}

int GetCrypt(const char* key, const char* name, unsigned char* buffer, std::size_t* size) {
    if (buffer == nullptr || size == nullptr) {
        return 0;
    }
    if (key != nullptr && key[0] != '\0' &&
        REG::Get(key, name != nullptr ? name : "", buffer, size) == 0) {
        return 0;
    }
    CipherWithMachinePassword(buffer, *size);
    buffer[*size] = 0;
    buffer[*size + 1] = 0;
    return 1;
}

int WriteCrypt(const char* key, const char* name, char* text) {
    if (text == nullptr) {
        return 0;
    }
    const std::size_t length = std::strlen(text);
    CipherWithMachinePassword(reinterpret_cast<unsigned char*>(text), length);
    return REG::Write(key != nullptr ? key : "", name != nullptr ? name : "",
                      reinterpret_cast<const unsigned char*>(text),
                      static_cast<unsigned long>(length))
               ? 1
               : 0;
}

}  // extern "C"
