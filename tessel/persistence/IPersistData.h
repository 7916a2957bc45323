// IPersistData: binary persistence of one value.
//
// An object tells the size of its serialised form (getSize), writes itself into a buffer
// (saveData) and reads itself back from one (loadData). Serialised forms are flat: integers
// and doubles little-endian and unaligned, short 2 bytes, int, long and unsigned long 4 bytes,
// doubles IEEE 754 binary64; no type tag, no length prefix of the form itself and no padding
// unless a class says so. Objects are concatenated: a container writes its members one after
// the other and advances by each member's getSize(), which is exactly the number of bytes that
// its saveData writes.
//
// A class says what its loadData does on short or damaged input. In this library it never
// reads past the size bytes it is given and never writes past the size bytes of saveData.
//
// Lifetime: an interface without data; objects are owned by whoever made them.
// Thread safety: none of its own; an implementation says what it allows.
#pragma once

#include <cstddef>

#include "tessel/Export.h"

class TESSEL_API IPersistData {
  public:
    virtual ~IPersistData() = default;

    // Reads this object from buffer, of which size bytes are available. true if the object
    // took a value; what it holds after false is the class's to say.
    virtual bool loadData(const unsigned char* buffer, size_t size) = 0;
    // Writes this object's getSize() bytes to buffer, of which size bytes are available.
    // Writes nothing where they do not fit or buffer is null, unless the class says otherwise.
    virtual void saveData(unsigned char* buffer, size_t size) const = 0;
    // The number of bytes that saveData writes, in bytes.
    virtual size_t getSize() const = 0;

  protected:
    IPersistData() = default;
    IPersistData(const IPersistData&) = default;
    IPersistData& operator=(const IPersistData&) = default;
};
