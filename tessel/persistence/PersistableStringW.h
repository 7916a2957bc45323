// CPersistableStringW: a wide string, in UTF-16 code units, that saves and loads itself.
//
// The object is a CStringW (it derives from it and adds no data) and an IPersistData. Its form
// and its loads are those of a wide string in CPersistableString: the length L in code units
// as 4 bytes, the 2L bytes of the code units, a terminating zero of 2 bytes; getSize is 2L + 6,
// also when the string is empty, for which saveData writes the 4 length bytes alone. A load
// fails (false, string unchanged) for a null buffer, fewer than 4 bytes, or a text whose
// terminator does not lie within the bytes given.
//
// saveData of the object does not report a null buffer or a size below 4 through the
// invalid-parameter handler, as the static CPersistableString::saveData does: it writes
// nothing then. A text that does not fit the room behind the length is reported as there.
//
// SetString takes wchar_t text, 4 bytes a character here, and holds it as UTF-16: a
// character above U+FFFF becomes a surrogate pair and counts as two.
//
// Lifetime: a value; copies copy the text. Delete it through its own type or IPersistData*,
// never through CStringW*.
// Thread safety: none; an object belongs to one thread at a time.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"
#include "tessel/platform/Strings.h"

class TESSEL_API CPersistableStringW : public CStringW, public IPersistData {
  public:
    CPersistableStringW() = default;
    CPersistableStringW(const CPersistableStringW& source) = default;
    // The text of text.
    CPersistableStringW(const CStringW& text) : CStringW(text) {}
    CPersistableStringW& operator=(const CPersistableStringW& source) = default;
    // Assignments of the string: from a CStringW, a const char16_t*, a code unit.
    using CStringW::operator=;
    ~CPersistableStringW() override = default;

    // Sets the string to text converted to UTF-16; null gives an empty string.
    void SetString(const wchar_t* text);

    // As CPersistableString::loadData on this string.
    bool loadData(const unsigned char* buffer, size_t size) override;
    // Writes this string's form; nothing for a null buffer or a size below 4 (see above).
    void saveData(unsigned char* buffer, size_t size) const override;
    // 2 * length + 6 bytes.
    size_t getSize() const override;

    // As the wide statics of CPersistableString.
    static size_t getSize(const CStringW& text);
    static void saveData(const CStringW& text, unsigned char* buffer, size_t size);
    static bool loadData(CStringW& text, const unsigned char* buffer, size_t size);
};
