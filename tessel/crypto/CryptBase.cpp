#include "tessel/crypto/CryptBase.h"

#include "tessel/crypto/detail/Password.h"
#include "tessel/platform/Sockets.h"

CCryptBase::~CCryptBase() = default;

unsigned long CCryptBase::EncryptData(const unsigned char*, int, unsigned char*, std::size_t) {
    return 0;
}

std::string CCryptBase::GenerateMachinePassword(const char* extra) {
    std::string password = Tessel::Crypto::Detail::kPassword;
    if (extra != nullptr) {
        return password + extra;
    }
    char name[Tessel::Crypto::Detail::kComputerNameField] = {};
    Tessel::Platform::DWORD size = sizeof name;
    if (Tessel::Platform::GetComputerNameA(name, &size)) {
        password += name;
    }
    return password;
}
