// Crypt, Crypt2, GetCrypt, WriteCrypt: text ciphered with the machine password, in buffers and
// in registry values.
//
// Each call ciphers with a fresh CCryptRC4V2 and CCryptBase::GenerateMachinePassword(null)
// as the key, of which EncryptData uses the first 16 bytes: what one machine ciphered, another
// machine (another name) cannot read. Ciphering and deciphering are the same operation. The
// registry values (below the local machine hive, REG) are binary and hold the ciphered bytes
// without a NUL. The functions carry plain C names.
//
// Thread safety: all may be called from any thread; the buffers are the caller's.
#pragma once

#include <cstddef>

#include "tessel/Export.h"

extern "C" {

// Ciphers size bytes of buffer in place. 1; 0 for a null buffer with a size above 0.
TESSEL_API int Crypt(char* buffer, std::size_t size);

// Prints text with "%s" into buffer of *size bytes, then ciphers all *size bytes of it (not
// only the text's length: the NUL and the rest of the buffer as well). A text that does not
// fit calls the invalid-parameter handler; if that returns, the empty buffer is ciphered.
// Crypt's result; 0 for a null text, buffer or size.
TESSEL_API int Crypt2(const char* text, char* buffer, std::size_t* size);

// With a key that is not empty (null counts as empty): reads the binary value name of key
// into buffer, whose capacity *size gives; *size becomes the length read; a failed read gives
// 0. With an empty key the buffer's first *size bytes are taken as they are. Then deciphers
// the *size bytes and writes two zero bytes behind them, at buffer[*size] and
// buffer[*size + 1]: the buffer needs two bytes of room beyond *size. 1 on success; 0 for a
// null buffer or size.
TESSEL_API int GetCrypt(const char* key, const char* name, unsigned char* buffer,
                        std::size_t* size);

// Ciphers text in place over its strlen length, destroying the caller's text, and stores the
// result as the binary value name of key. 1 when the value was written, else 0 (also for a
// null text).
TESSEL_API int WriteCrypt(const char* key, const char* name, char* text);

}  // extern "C"
