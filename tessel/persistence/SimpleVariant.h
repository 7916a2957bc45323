// CSimpleVariant: a tagged value, one of a 32-bit integer, a 64-bit integer, a double or a
// narrow text, or empty.
//
// The type tag says which value is held; a text is an owned zero-terminated character array
// (a copy of the text up to its first zero). Values are never converted: GetValue of one type
// on a variant of another gives 0.
//
// The C++ types of the values: long for the 32-bit integer (ValLong), long long for the 64-bit
// one (ValInt64), double, and CStringA. long is 64 bits wide on this platform but stands for the
// 32-bit integer of the serialised forms: a long beyond the 32-bit range keeps its low 32 bits.
// std::int64_t is long here too, so 64-bit values are passed as long long.
//
// Serialised form: the tag, 4 bytes, then by tag
//
//   ValEmpty   nothing                                   4 bytes in all
//   ValLong    the value, 4 bytes, signed                8
//   ValInt64   the value, 8 bytes, signed               12
//   ValDouble  the value, IEEE 754 binary64, 8 bytes    12
//   ValString  the text and its terminating zero        text length + 5; 4 without a text
//
// The text has no length field, unlike CPersistableString's form.
//
// loadData: the tags 1 to 4 set the value from offset 4 as SetValue does; any other tag,
// ValEmpty included, is taken as read (true) and leaves the variant as it was, so that a
// container advances over the variant's present size. A load fails (false, the variant
// unchanged) for a null buffer, fewer than 4 bytes, or a value or text whose bytes (the text's
// terminator) do not lie within the size bytes given: a value beyond the input fails the load.
//
// The variant is an IPersistData, not publicly: its three operations are its own, for the
// containers that hold variants, but a variant is not handed on as an IPersistData.
//
// Lifetime: a value; a copy holds its own copy of the text.
// Thread safety: none; an object belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"
#include "tessel/platform/Strings.h"

class TESSEL_API CSimpleVariant : IPersistData {
  public:
    // The type tag, 32-bit in the serialised form.
    enum VALTYPE : std::int32_t {
        ValEmpty = 0,   // no value
        ValLong = 1,    // 32-bit signed integer
        ValInt64 = 2,   // 64-bit signed integer
        ValDouble = 3,  // double
        ValString = 4,  // narrow text
    };

    // ValEmpty.
    CSimpleVariant();
    explicit CSimpleVariant(long value);
    explicit CSimpleVariant(long long value);
    explicit CSimpleVariant(double value);
    explicit CSimpleVariant(const CStringA& value);
    // The type and value of source, as Assign.
    CSimpleVariant(const CSimpleVariant& source);
    // As Assign; assignment to itself does nothing.
    CSimpleVariant& operator=(const CSimpleVariant& source);
    // Releases a held text.
    ~CSimpleVariant() override;

    VALTYPE GetType() const { return m_eType; }
    // Releases a held text; the type becomes ValEmpty.
    void Clear();

    // Releases a held text and stores the value with its type. A text is copied up to its
    // first zero into an array of its length + 1; if that cannot be allocated the variant
    // stays ValEmpty.
    void SetValue(long value);
    void SetValue(long long value);
    void SetValue(double value);
    void SetValue(const CStringA& value);

    // 1 with the value stored in value if the variant holds that type, else 0 with value
    // unchanged. The text form empties value first, whatever the type; ValString without a
    // text gives 1 and an empty value.
    int GetValue(long& value) const;
    int GetValue(long long& value) const;
    int GetValue(double& value) const;
    int GetValue(CStringA& value) const;

    // Reads the variant from buffer, of which size bytes are available; see above.
    bool loadData(const unsigned char* buffer, size_t size) override;
    // Writes the form, getSize() bytes; nothing if buffer is null or they exceed size.
    void saveData(unsigned char* buffer, size_t size) const override;
    // The size of the form in bytes, by type as in the table above.
    size_t getSize() const override;

  protected:
    // Takes type and value of source through SetValue; an unknown type gives ValEmpty.
    void Assign(const CSimpleVariant& source);

  private:
    VALTYPE m_eType = ValEmpty;
    union {
        std::int32_t lVal;
        long long i64Val;
        double dblVal;
        char* pszVal;  // owned, null or zero-terminated
    } m_Value{};
};
