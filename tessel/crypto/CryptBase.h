// CCryptBase: the base of the library's self-contained ciphers, and the machine password
// that their keys come from.
//
// The machine password is the library's fixed password text followed by the machine's name
// (or by a caller's text), made at each call and never stored. Text ciphered with it on one
// machine can therefore not be read on another.
//
// Thread safety: GenerateMachinePassword may be called from any thread.
#pragma once

#include <cstddef>
#include <string>

#include "tessel/Export.h"

class TESSEL_API CCryptBase {
  public:
    CCryptBase() = default;
    CCryptBase(const CCryptBase&) = default;
    CCryptBase& operator=(const CCryptBase&) = default;
    virtual ~CCryptBase();

    // Ciphers length bytes of data in place with keyLength bytes of key. The base does
    // nothing and returns 0.
    virtual unsigned long EncryptData(const unsigned char* key, int keyLength, unsigned char* data,
                                      std::size_t length);

    // The fixed password text followed by extra; with extra null, followed by the machine's
    // name (at most 254 characters), or the password text alone when the name cannot be had.
    static std::string GenerateMachinePassword(const char* extra);
};
