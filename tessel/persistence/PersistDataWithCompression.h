// CPersistDataWithCompression: another persistable object, held compressed.
//
// Wraps an IPersistData, which it does not own, and persists that object's serialised form
// compressed as one LZ4 block. Frame:
//
//   offset 0  1 byte   compression type, low byte (0: LZ4)
//   offset 1  4 bytes  original size, the wrapped object's getSize(), low 32 bits
//   offset 5  4 bytes  compressed size n      } the form of a CMemoryBufferPersist
//   offset 9  n bytes  the LZ4 block          }
//
// getSize() is 9 + n. For saving, the object is compressed once, by the constructor; later
// changes of the object do not reach the frame. A type other than LZ4 compresses nothing: its
// frame holds type, original size and n = 0, and does not load.
//
// For loading, loadData reads a frame, expands the block and hands the expanded bytes to the
// wrapped object's loadData, whose result it returns. Checks on the frame: a compressed size
// beyond the input fails the load, so does an original size that the block cannot expand to
// (more than 255 times the compressed size) and a block that does not expand to exactly the
// original size. A load is refused where the frame held before it (9 bytes for a fresh
// object) is larger than the input.
//
// Copying copies type, original size and the compressed bytes, and shares the pointer to the
// wrapped object, which must outlive every copy that saves or loads.
//
// Thread safety: none per object; the compressor keeps its state on the calling thread's
// stack, so that separate objects work in parallel.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"
#include "tessel/persistence/MemoryBufferPersist.h"

class TESSEL_API CPersistDataWithCompression : public IPersistData {
  public:
    // The compression types; the frame stores the low byte.
    enum eCompressionType : std::int32_t {
        LZ4 = 0,  // one LZ4 block, as LZ4_compress_default makes it
    };

    // For saving: keeps data and type and compresses data at once. data may be null, which
    // gives an empty frame of original size 0.
    CPersistDataWithCompression(const IPersistData* data, eCompressionType type);
    // For loading into data: type and original size come from loadData.
    explicit CPersistDataWithCompression(IPersistData* data);
    CPersistDataWithCompression(const CPersistDataWithCompression& source) = default;
    CPersistDataWithCompression& operator=(const CPersistDataWithCompression& source) = default;
    ~CPersistDataWithCompression() override;

    // Reads a frame and loads the wrapped object from its expanded block; that object's
    // result, or false if buffer is null, getSize() exceeds size, the frame is short or
    // damaged as said above, the type is not LZ4, or there is no object.
    bool loadData(const unsigned char* buffer, size_t size) override;
    // Writes the frame; nothing if buffer is null or getSize() exceeds size.
    void saveData(unsigned char* buffer, size_t size) const override;
    // 9 + the compressed size, in bytes.
    size_t getSize() const override;

    // The compression type held.
    eCompressionType GetCompressionType() const { return m_eCompressionType; }
    // The size of the wrapped object's serialised form, in bytes.
    std::uint64_t GetOriginalSize() const { return m_ullOriginalSize; }

  protected:
    // Serialises the wrapped object and compresses it into the compressed buffer. Does
    // nothing without an object; leaves the compressed buffer empty for a type other than
    // LZ4 and for a form of more than 0x7E000000 bytes, which one block cannot hold.
    virtual void Compress();

  private:
    eCompressionType m_eCompressionType = LZ4;
    std::uint64_t m_ullOriginalSize = 0;
    CMemoryBufferPersist m_compressedBuffer;
    IPersistData* m_pData = nullptr;
};
