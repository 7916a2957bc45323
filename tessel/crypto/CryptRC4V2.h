// CCryptRC4V2: RC4 over data in place, with a key of at most 16 bytes.
//
// Each EncryptDataV2 keys the cipher afresh: no stream continues from one call to the next, and
// ciphering and deciphering are the same call. EncryptData pads a short key with zero bytes to
// 16 bytes first, so that it is not RC4 with the short key itself. The registry functions
// (CryptFunctions.h) use it with the machine password as the key. MakeTest1 to MakeTest5
// check the cipher against the published RC4 test vectors; the library does not run them on
// its own.
//
// Lifetime: the working state lives in the object; copying copies it as it stands.
// Thread safety: one object serves one thread at a time.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/crypto/CryptBase.h"

class TESSEL_API CCryptRC4V2 : public CCryptBase {
  public:
    CCryptRC4V2();
    CCryptRC4V2(const CCryptRC4V2&) = default;
    CCryptRC4V2& operator=(const CCryptRC4V2&) = default;
    ~CCryptRC4V2() override;

    // A key shorter than 16 bytes (a negative length counts as 0) is copied into a zeroed
    // 16-byte field that EncryptDataV2 then uses; a longer one goes to EncryptDataV2 as it is.
    // Always 0.
    unsigned long EncryptData(const unsigned char* key, int keyLength, unsigned char* data,
                              std::size_t length) override;
    // RC4 with the first min(keyLength, 16) bytes of key over length bytes of data, in place.
    // A key length below 1 leaves the data as it is. Always 0.
    virtual unsigned long EncryptDataV2(const unsigned char* key, int keyLength,
                                        unsigned char* data, std::size_t length);

    // The published vectors: key 01 23 45 67 89 AB CD EF over its own eight bytes; the same
    // key over eight zero bytes; eight zero bytes over eight zero bytes; key EF 01 23 45 over
    // ten zero bytes; key 01 23 45 67 89 AB CD EF over 512 bytes of 01. True when the output
    // matches.
    bool MakeTest1();
    bool MakeTest2();
    bool MakeTest3();
    bool MakeTest4();
    bool MakeTest5();

  protected:
    // The RC4 working state: the permutation and the two stream indices.
    struct rc4_key {
        unsigned char state[256];
        unsigned char x;
        unsigned char y;
    };

    // Runs EncryptDataV2 with key over a zero-terminated copy of inputLength bytes of input
    // and compares the result with as many bytes of expected.
    virtual bool MakeTest(const unsigned char* key, std::size_t keyLength,
                          const unsigned char* input, std::size_t inputLength,
                          const unsigned char* expected);

    // The key schedule over keyLength (1 to 256) bytes of key; x and y start at 0.
    void prepare_key(unsigned char* key, int keyLength, struct rc4_key* state);
    // XORs the next length bytes of the keystream into data; a length below 1 does nothing.
    void rc4(unsigned char* data, int length, struct rc4_key* state);
    void swap_byte(unsigned char* a, unsigned char* b);

    struct rc4_key rc4_key;
};
