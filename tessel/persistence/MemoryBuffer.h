// CMemoryBuffer: the library's growable byte array.
//
// Owns its bytes, held in a vector: growth, capacity and copying are the vector's. Bytes that
// an operation adds without a value of their own (Allocate, growth by TruncateTo of
// CMemoryBufferPersist) are zero. GetBuffer() is null while the buffer is empty, so callers
// must be ready for a null pointer; ZeroMem on an empty buffer does nothing.
//
// Allocate is the one operation that turns an allocation failure into a result; all others
// let std::bad_alloc pass.
//
// Copying copies the bytes; moving takes them over and leaves the source empty.
//
// Thread safety: none; one thread at a time per object.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <vector>

#include "tessel/Export.h"

class TESSEL_API CMemoryBuffer {
  public:
    // An allocator that leaves new bytes uninitialised where the vector grows without a value
    // (resize), so that the buffer fills them itself only once: with zeros where its contract
    // says so, or with the bytes copied in.
    template <class T>
    struct DefaultInitAllocator : std::allocator<T> {
        template <class U>
        struct rebind {
            using other = DefaultInitAllocator<U>;
        };
        DefaultInitAllocator() noexcept = default;
        template <class U>
        DefaultInitAllocator(const DefaultInitAllocator<U>&) noexcept {}
        template <class U>
        void construct(U* p) noexcept {
            ::new (static_cast<void*>(p)) U;
        }
        template <class U, class... Args>
        void construct(U* p, Args&&... args) {
            ::new (static_cast<void*>(p)) U(static_cast<Args&&>(args)...);
        }
    };
    using Bytes = std::vector<unsigned char, DefaultInitAllocator<unsigned char>>;

    CMemoryBuffer() = default;
    CMemoryBuffer(const CMemoryBuffer& source) = default;
    CMemoryBuffer(CMemoryBuffer&& source) noexcept = default;
    CMemoryBuffer& operator=(const CMemoryBuffer& source) = default;
    CMemoryBuffer& operator=(CMemoryBuffer&& source) noexcept = default;
    virtual ~CMemoryBuffer();

    // Drops the old content and makes the buffer size bytes long, all zero. 1 on success, 0
    // if the storage could not be allocated (the buffer is then empty). Allocate(0) gives 1
    // and an empty buffer.
    int Allocate(size_t size);
    // Appends size bytes from data; true. With data null and size 0: true, nothing changed;
    // with data null and size not 0, or data given and size 0: false, nothing changed.
    bool AddBack(const unsigned char* data, size_t size);
    // Becomes a copy of other; assignment to itself does nothing.
    void Assign(const CMemoryBuffer& other);
    // Becomes a copy of the size bytes at data. false, nothing changed, if data is null or
    // size is 0; false and empty if the storage could not be allocated.
    bool Assign(const unsigned char* data, size_t size);
    // Size 0; the capacity is kept.
    void Clear();
    // Size 0; the storage is released.
    void Free();

    // The first byte; null when the buffer is empty.
    unsigned char* GetBuffer() { return m_vecBuffer.empty() ? nullptr : m_vecBuffer.data(); }
    const unsigned char* GetBuffer() const {
        return m_vecBuffer.empty() ? nullptr : m_vecBuffer.data();
    }
    // The bytes held.
    size_t GetSize() const { return m_vecBuffer.size(); }
    // The bytes that the storage can hold without growing.
    size_t GetCapacity() const { return m_vecBuffer.capacity(); }
    // true when no byte is held.
    bool IsEmpty() const { return m_vecBuffer.empty(); }

    // Drops the first count bytes. count 0 does nothing; count at least the size empties the
    // buffer and keeps the capacity; otherwise the remaining bytes move into storage of
    // exactly their size.
    void RemoveFront(size_t count);
    // Makes the capacity the size; an empty buffer releases its storage.
    void ShrinkToFit();
    // Exchanges the storage with other.
    void Swap(CMemoryBuffer& other) noexcept;
    // Sets every byte held to 0.
    void ZeroMem();

  protected:
    // Growth by resize leaves the new bytes for the operation to fill.
    Bytes m_vecBuffer;
};
