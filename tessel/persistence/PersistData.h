// CPersistData: the base of persistable classes, with typed read and write helpers.
//
// The three operations of IPersistData stay pure. The protected helpers read or write one
// number or one text at a byte offset, position, into a buffer of size bytes, and advance
// position by the bytes read or written. Numbers are little-endian and unaligned: short takes
// 2 bytes, int, long and unsigned long 4 (a long is kept as its low 32 bits and read back
// sign-extended), double 8.
//
// A text is a 32-bit length n, the bytes of the text with its terminating zero included,
// followed by those n bytes; n is at most 260. An empty length (0) stands for a text that was
// too long to save, and reads back as "leave the text as it is".
//
// Bounds: every helper checks that its bytes lie within buffer from position on, so that a
// read never runs past the input and a write never past the output: a number or text that
// does not fit fails (false, position unchanged). A text length beyond the bytes left fails
// the load, as does a text whose last byte is not its terminating zero; the position has then
// moved past the length word only.
//
// Thread safety: none; the helpers touch only their arguments.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"

class TESSEL_API CPersistData : public IPersistData {
  public:
    ~CPersistData() override = default;

    // The longest text length that the text helpers write or accept, zero byte included.
    static constexpr size_t MAX_TEXT_LENGTH = 260;

  protected:
    CPersistData() = default;
    CPersistData(const CPersistData&) = default;
    CPersistData& operator=(const CPersistData&) = default;

    // Reads one number at position and advances past it. false, with value and position
    // unchanged, if buffer is null or the number's bytes do not lie within size.
    bool Load(const unsigned char* buffer, size_t size, size_t& position, short& value);
    bool Load(const unsigned char* buffer, size_t size, size_t& position, int& value);
    bool Load(const unsigned char* buffer, size_t size, size_t& position, long& value);
    bool Load(const unsigned char* buffer, size_t size, size_t& position, unsigned long& value);
    bool Load(const unsigned char* buffer, size_t size, size_t& position, double& value);

    // Reads one text at position into text, a buffer of textSize bytes.
    // - false if buffer or text is null;
    // - a length that cannot be read counts as 0: true, nothing advanced, text unchanged;
    // - false if the length is negative, above 260, or beyond the bytes left after it, or if
    //   the text does not end in its zero byte (position is then past the length only);
    // - length 0: true, text unchanged, position past the length;
    // - textSize at least the length: the text with its zero copied, true, position past it;
    // - textSize too small: text cleared over its textSize bytes, the invalid-parameter
    //   handler called (the default one ends the process), and if it returns, true with the
    //   position past the text.
    bool Load(const unsigned char* buffer, size_t size, size_t& position, char* text,
              size_t textSize);

    // Writes one number at position and advances past it. false, with nothing written, if
    // buffer is null or the number's bytes do not lie within size.
    bool Save(unsigned char* buffer, size_t size, size_t& position, short value) const;
    bool Save(unsigned char* buffer, size_t size, size_t& position, int value) const;
    bool Save(unsigned char* buffer, size_t size, size_t& position, long value) const;
    bool Save(unsigned char* buffer, size_t size, size_t& position, unsigned long value) const;
    bool Save(unsigned char* buffer, size_t size, size_t& position, double value) const;

    // Writes text at position: its length n (strlen + 1) and its n bytes, and advances past
    // them; true. false with nothing written if text or buffer is null, if n exceeds size, or
    // if the 4 + n bytes do not lie within size. A text of more than 259 characters writes
    // the length 0 instead (4 bytes, position past them) and returns false.
    bool Save(unsigned char* buffer, size_t size, size_t& position, const char* text) const;
};
