// Rc4: the RC4 stream cipher, the library's own.
//
// A keyed keystream that XORs over data in place; ciphering and deciphering are the same
// operation. The stream continues from one Apply to the next until the next SetKey. Used by
// the CryptoAPI stand-in for its RC4 keys.
//
// A value type: copying copies the state as it stands, so that the copy continues the same
// stream. Thread safety: one object serves one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tessel/Export.h"

namespace Tessel::Platform {

class TESSEL_API Rc4 {
  public:
    // Keyed with a single zero byte until SetKey.
    Rc4();

    // Runs the key schedule over length bytes of key (1 to 256; longer keys use their first
    // 256 bytes, a length of 0 counts as the single zero byte) and starts the stream afresh.
    void SetKey(const unsigned char* key, std::size_t length);

    // XORs the next length bytes of the keystream into data, in place.
    void Apply(unsigned char* data, std::size_t length);

  private:
    // The permutation, one entry per word: the keystream loop then needs no byte merges.
    std::uint32_t m_state[256];
    std::uint32_t m_x = 0;  // index of the last step, 0..255
    std::uint32_t m_y = 0;
};

}  // namespace Tessel::Platform
