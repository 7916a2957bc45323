// EncryptDecrypt: a simple scrambler for text, by byte offsets.
//
// Encrypt adds (i modulo period) plus offset to the byte at index i, modulo 256; Decrypt
// subtracts it. Both work up to the text's NUL, found anew by each call: a byte that becomes
// zero shortens the text for the next call, which then does not restore the rest. Not a
// cipher: it keeps text out of plain sight and nothing more.
//
// A value type: copying copies the two fields. Thread safety: calls on one object may run on
// several threads at once (the fields are only read); the texts are the caller's.
#pragma once

#include "tessel/Export.h"

class TESSEL_API EncryptDecrypt {
  public:
    // Offset and period both set to the library's fixed constant.
    EncryptDecrypt();

    // Scramble and restore text in place. 0 for a null text, else 1 (also for an empty one).
    int Encrypt(char* text);
    int Decrypt(char* text);

  private:
    unsigned char m_ucOffset;
    unsigned char m_ucPeriod;
};
