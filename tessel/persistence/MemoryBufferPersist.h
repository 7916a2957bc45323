// CMemoryBufferPersist: a CMemoryBuffer that persists itself with a 32-bit length prefix.
//
// Serialised form: the data size n as a 32-bit little-endian number (the low 32 bits of
// getDataSize()), then the n bytes. getSize() is getDataSize() + 4.
//
// loadData refuses, as saveData does, where the form of the data held before the call does
// not fit size: a buffer holding 100 bytes does not load from 50 bytes of input, whatever
// length they state. A length in the input beyond the bytes that follow it fails the load,
// and so does a length whose storage cannot be allocated; the buffer then keeps its old
// content.
//
// Copying copies the bytes. Thread safety: none; one thread at a time per object.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"
#include "tessel/persistence/MemoryBuffer.h"

class TESSEL_API CMemoryBufferPersist : public IPersistData, public CMemoryBuffer {
  public:
    CMemoryBufferPersist() = default;
    CMemoryBufferPersist(const CMemoryBufferPersist& source) = default;
    CMemoryBufferPersist& operator=(const CMemoryBufferPersist& source) = default;
    // Becomes a copy of the bytes of source.
    CMemoryBufferPersist& operator=(const CMemoryBuffer& source);
    ~CMemoryBufferPersist() override;

    // false if buffer is null, if getSize() of the data held now exceeds size, if size
    // cannot hold the 4-byte length, or if the length exceeds the size - 4 bytes after it.
    // Otherwise the buffer becomes the n bytes that follow the length; true.
    bool loadData(const unsigned char* buffer, size_t size) override;
    // Writes the length and the bytes; nothing if buffer is null or getSize() exceeds size.
    void saveData(unsigned char* buffer, size_t size) const override;
    // getDataSize() + 4.
    size_t getSize() const override;

    // The bytes held, as GetSize().
    virtual size_t getDataSize() const;

    // Makes the buffer size bytes long: a smaller size cuts, a larger one appends zero bytes.
    void TruncateTo(size_t size);
};
