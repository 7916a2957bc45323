// Fields of packed records: fixed-width values at byte offsets, little-endian and unaligned,
// as the records of time-indexed data files keep them. Both functions copy bytes and never
// form a misaligned pointer; the caller keeps offset + sizeof(Field) within its record.
#pragma once

#include <bit>
#include <cstring>

namespace Tessel {

static_assert(std::endian::native == std::endian::little,
              "packed records are kept in the byte order of their files");

// The value of type Field in the bytes at at.
template <class Field>
Field LoadPackedField(const unsigned char* at) {
    Field value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

// Writes value into the bytes at at.
template <class Field>
void StorePackedField(unsigned char* at, Field value) {
    std::memcpy(at, &value, sizeof value);
}

}  // namespace Tessel
