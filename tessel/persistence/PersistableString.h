// CPersistableString: a narrow string that saves and loads itself, and the string
// serialisation of the library.
//
// The object is a CStringA (it derives from it and adds no data) and an IPersistData whose
// three operations forward to the static operations below on the object's own text. The
// statics are also how other classes serialise strings: narrow strings (CStringA, which is
// std::string), wide strings in UTF-16 (CStringW) and wchar_t strings (std::wstring, 4 bytes
// a character here, converted to and from UTF-16 as Tessel::Platform::WideToUtf16 does).
//
// Serialised form of a narrow string of L characters, L + 5 bytes:
//
//   offset 0,     4 bytes: L, unsigned 32-bit (the terminator not counted)
//   offset 4,     L bytes: the characters
//   offset 4 + L, 1 byte:  the terminating zero
//
// and of a wide string of L UTF-16 code units, 2L + 6 bytes:
//
//   offset 0,      4 bytes:  L, unsigned 32-bit, in code units
//   offset 4,      2L bytes: the code units
//   offset 4 + 2L, 2 bytes:  the terminating zero
//
// An empty string is saved as its 4 length bytes alone, although getSize reports 5 (6 for a
// wide one): the byte(s) behind stay as the buffer had them, and a container that advances by
// getSize skips them. A reader must not look at them.
//
// Saving (the statics and CPersistableString::saveData):
//  - a null buffer, or a size below 4, is reported through the invalid-parameter handler (a
//    too small buffer is cleared over its size bytes first); if the handler returns, nothing
//    is written;
//  - otherwise L is written, and for L > 0 the text with its terminator into the size - 4
//    bytes left. A narrow text is copied whole, L + 1 bytes, even with a zero inside it; a wide
//    text is copied up to its first zero code unit and its terminator. Where that does not fit
//    the room is cleared and the handler is called.
//
// Loading: if the length at the start is 0 the string becomes empty; otherwise it becomes the
// zero-terminated text at offset 4. The length is a flag and no more: the text ends at its
// terminator, whatever the length says, so a text with a zero inside it loads shorter. The
// load fails (false, the string unchanged) for a null buffer, for fewer than 4 bytes, and for
// a text whose terminator does not lie within the size bytes given: a text beyond the input
// fails the load.
//
// The narrow and the wide forms are not interchangeable: a narrow form read by a wide load, or
// the reverse, gives another text or fails.
//
// Lifetime: a value; copies copy the text. Delete it through its own type or IPersistData*,
// never through CStringA*, whose destructor is not virtual.
// Thread safety: none; an object belongs to one thread at a time. The statics touch only their
// arguments.
#pragma once

#include <cstddef>
#include <string>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"
#include "tessel/platform/Strings.h"

class TESSEL_API CPersistableString : public CStringA, public IPersistData {
  public:
    CPersistableString() = default;
    CPersistableString(const CPersistableString& source) = default;
    // The text of text.
    CPersistableString(const CStringA& text) : CStringA(text) {}
    CPersistableString& operator=(const CPersistableString& source) = default;
    // Assignments of the string: from a CStringA, a const char*, a character.
    using CStringA::operator=;
    ~CPersistableString() override = default;

    // As the static loadData on this string.
    bool loadData(const unsigned char* buffer, size_t size) override;
    // As the static saveData of this string.
    void saveData(unsigned char* buffer, size_t size) const override;
    // The size of this string's form, length + 5 bytes.
    size_t getSize() const override;

    // The size of the serialised form in bytes: length + 5 for a narrow string, 2 * the UTF-16
    // length + 6 for a wide one, also when the string is empty.
    static size_t getSize(const CStringA& text);
    static size_t getSize(const CStringW& text);
    static size_t getSize(const std::wstring& text);
    // The size of the form of a narrow string of length characters: length + 5.
    static size_t getSize(const size_t& length);

    // Writes the form of text to buffer, of which size bytes are available; see above.
    static void saveData(const CStringA& text, unsigned char* buffer, size_t size);
    static void saveData(const CStringW& text, unsigned char* buffer, size_t size);
    static void saveData(const std::wstring& text, unsigned char* buffer, size_t size);

    // Sets text from the form in buffer, of which size bytes are available; true on success,
    // false with text unchanged where the form does not lie within them; see above.
    static bool loadData(CStringA& text, const unsigned char* buffer, size_t size);
    static bool loadData(CStringW& text, const unsigned char* buffer, size_t size);
    static bool loadData(std::wstring& text, const unsigned char* buffer, size_t size);
};
