// CPersistDataWithCompression: the wrapped object's form as one LZ4 block.
//
// The block is made by LZ4_compress_default, whose state (the 16 KiB hash table) lives on the
// calling thread's stack, and expanded by LZ4_decompress_safe into exactly the original size.
// The block before it is cut to size and the expanded bytes are held only for the duration of
// one call, in storage that is not cleared first, as every byte of it is written before it is
// read.
#include "tessel/persistence/PersistDataWithCompression.h"

#include <lz4.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr size_t kTypeBytes = 1;
constexpr size_t kOriginalSizeBytes = 4;
constexpr size_t kHeaderBytes = kTypeBytes + kOriginalSizeBytes;

// The largest input of one block, and the room that its compressed form may need: the rule
// of LZ4_compressBound.
constexpr std::uint64_t kMaxInputSize = 0x7E000000u;
std::uint64_t compressBound(std::uint64_t size) {
    return size > kMaxInputSize ? 0 : size + size / 255 + 16;
}

// An LZ4 block expands each of its bytes to at most 255 bytes.
constexpr std::uint64_t kMaxExpansion = 255;

// Storage of size bytes, not cleared; null if it cannot be had.
std::unique_ptr<unsigned char[]> scratch(std::uint64_t size) {
    return std::unique_ptr<unsigned char[]>(new (std::nothrow) unsigned char[size != 0 ? size : 1]);
}

}  // namespace

CPersistDataWithCompression::CPersistDataWithCompression(const IPersistData* data,
                                                         eCompressionType type)
    : m_eCompressionType(type), m_pData(const_cast<IPersistData*>(data)) {
    Compress();
}

CPersistDataWithCompression::CPersistDataWithCompression(IPersistData* data) : m_pData(data) {}

CPersistDataWithCompression::~CPersistDataWithCompression() = default;

void CPersistDataWithCompression::Compress() {
    if (m_pData == nullptr) {
        return;
    }
    // Cleared first, so that an object that writes less than its size leaves zeros.
    CMemoryBuffer form;
    if (form.Allocate(m_pData->getSize()) == 0) {
        m_ullOriginalSize = 0;
        m_compressedBuffer.Clear();
        return;
    }
    const size_t size = form.GetSize();
    m_pData->saveData(form.GetBuffer(), size);
    m_ullOriginalSize = size;
    if (m_eCompressionType != LZ4) {
        return;
    }
    const std::uint64_t bound = compressBound(size);
    if (bound == 0) {
        m_compressedBuffer.Clear();
        return;
    }
    // The block goes to scratch storage of the bound and then into the buffer at its real
    // size, so that the buffer is never cleared or held at the bound.
    std::unique_ptr<unsigned char[]> block = scratch(bound);
    if (block == nullptr) {
        m_compressedBuffer.Clear();
        return;
    }
    const int written = LZ4_compress_default(reinterpret_cast<const char*>(form.GetBuffer()),
                                             reinterpret_cast<char*>(block.get()),
                                             static_cast<int>(size), static_cast<int>(bound));
    m_compressedBuffer.Clear();
    if (written > 0) {
        m_compressedBuffer.AddBack(block.get(), static_cast<size_t>(written));
    }
}

bool CPersistDataWithCompression::loadData(const unsigned char* buffer, size_t size) {
    if (buffer == nullptr || getSize() > size) {
        return false;
    }
    const auto type = static_cast<eCompressionType>(buffer[0]);
    std::uint32_t originalSize;
    std::memcpy(&originalSize, buffer + kTypeBytes, kOriginalSizeBytes);
    m_eCompressionType = type;
    m_ullOriginalSize = originalSize;
    if (!m_compressedBuffer.loadData(buffer + kHeaderBytes, size - kHeaderBytes) || type != LZ4 ||
        m_pData == nullptr) {
        return false;
    }
    // A block of blockSize bytes cannot expand beyond 255 times that, nor hold more than one
    // block's input: a frame that says otherwise is damaged.
    const size_t blockSize = m_compressedBuffer.GetSize();
    if (blockSize == 0 || blockSize > kMaxInputSize + kMaxInputSize / 255 + 16 ||
        originalSize > kMaxInputSize || originalSize > kMaxExpansion * blockSize) {
        return false;
    }
    std::unique_ptr<unsigned char[]> form = scratch(originalSize);
    if (form == nullptr) {
        return false;
    }
    const int expanded =
        LZ4_decompress_safe(reinterpret_cast<const char*>(m_compressedBuffer.GetBuffer()),
                            reinterpret_cast<char*>(form.get()), static_cast<int>(blockSize),
                            static_cast<int>(originalSize));
    if (expanded < 0 || static_cast<std::uint32_t>(expanded) != originalSize) {
        return false;
    }
    return m_pData->loadData(originalSize != 0 ? form.get() : nullptr, originalSize);
}

void CPersistDataWithCompression::saveData(unsigned char* buffer, size_t size) const {
    const size_t frameSize = getSize();
    if (buffer == nullptr || frameSize > size) {
        return;
    }
    buffer[0] = static_cast<unsigned char>(m_eCompressionType & 0xFF);
    const auto originalSize = static_cast<std::uint32_t>(m_ullOriginalSize);
    std::memcpy(buffer + kTypeBytes, &originalSize, kOriginalSizeBytes);
    m_compressedBuffer.saveData(buffer + kHeaderBytes, size - kHeaderBytes);
}

size_t CPersistDataWithCompression::getSize() const {
    return m_compressedBuffer.getSize() + kHeaderBytes;
}
