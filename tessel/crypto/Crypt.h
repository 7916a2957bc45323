// CCrypt: ciphers data in place through the platform's CryptoAPI, with an RC4 key derived
// from the MD5 of the library's fixed password.
//
// The key is the same for every object and every machine: neither the constructor's extra
// text nor the machine's name enter it. Encrypt and Decrypt each acquire a context of their
// own, so a call ciphers from the start of the stream, and deciphering is ciphering again.
// When no context can be had, both leave the data as it is and report success: callers
// cannot tell plain from ciphered output by the result.
//
// Lifetime: the password is copied with the object. Thread safety: objects can be used side by
// side on several threads; one object's calls do not touch its state.
#pragma once

#include <string>

#include "tessel/Export.h"

class TESSEL_API CCrypt {
  public:
    // Sets the internal key password and prepares the user's key container
    // (SetupCryptoClient, whose result is not looked at).
    CCrypt();
    explicit CCrypt(const char* extra);
    CCrypt(const CCrypt&) = default;
    CCrypt& operator=(const CCrypt&) = default;
    virtual ~CCrypt();

    // Ciphers *length bytes of buffer in place; *length stays. 0 for a null buffer or length,
    // or when hashing, key derivation or ciphering fail; 1 otherwise, also when no context
    // can be acquired (the buffer then stays plain).
    int Encrypt(unsigned char* buffer, unsigned long* length);
    // Runs SetupCryptoClient, then deciphers as Encrypt ciphers: 1 when deciphering succeeded
    // or no context could be acquired, 0 otherwise.
    int Decrypt(unsigned char* buffer, unsigned long* length);

    // Makes sure the current user's default key container exists with a signature and an
    // exchange key pair. 1 on success; 0 when the container cannot be opened or created
    // (logged at error level under "CCrypt::SetupCryptoClient" as "key container corrupted")
    // or a key pair cannot be had.
    static int SetupCryptoClient();

  private:
    // Sets the internal key password: always the fixed password text, whatever extra is.
    void GenerateInternalKeyPassword(const char* extra);

    std::string m_strInternalKeyPassword;
};
