// CMemoryBufferPersist: the byte array with its 32-bit length prefix.
#include "tessel/persistence/MemoryBufferPersist.h"

#include <cstdint>
#include <cstring>
#include <new>

namespace {

constexpr size_t kLengthBytes = 4;

}  // namespace

CMemoryBufferPersist& CMemoryBufferPersist::operator=(const CMemoryBuffer& source) {
    Assign(source);
    return *this;
}

CMemoryBufferPersist::~CMemoryBufferPersist() = default;

bool CMemoryBufferPersist::loadData(const unsigned char* buffer, size_t size) {
    if (buffer == nullptr || getDataSize() + kLengthBytes > size) {
        return false;
    }
    std::uint32_t length;
    std::memcpy(&length, buffer, kLengthBytes);
    if (length > size - kLengthBytes) {
        return false;
    }
    if (length > m_vecBuffer.capacity()) {
        // New storage, taken over only once it is had, so that a failure keeps the old bytes.
        Bytes bytes;
        try {
            bytes.reserve(length);
        } catch (const std::bad_alloc&) {
            return false;
        }
        m_vecBuffer.swap(bytes);
    }
    m_vecBuffer.resize(length);
    if (length != 0) {
        std::memcpy(m_vecBuffer.data(), buffer + kLengthBytes, length);
    }
    return true;
}

void CMemoryBufferPersist::saveData(unsigned char* buffer, size_t size) const {
    const size_t dataSize = getDataSize();
    if (buffer == nullptr || dataSize + kLengthBytes > size) {
        return;
    }
    const auto length = static_cast<std::uint32_t>(dataSize);
    std::memcpy(buffer, &length, kLengthBytes);
    if (dataSize != 0) {
        std::memcpy(buffer + kLengthBytes, m_vecBuffer.data(), dataSize);
    }
}

size_t CMemoryBufferPersist::getSize() const {
    return getDataSize() + kLengthBytes;
}

size_t CMemoryBufferPersist::getDataSize() const {
    return m_vecBuffer.size();
}

void CMemoryBufferPersist::TruncateTo(size_t size) {
    const size_t oldSize = m_vecBuffer.size();
    m_vecBuffer.resize(size);
    if (size > oldSize) {
        std::memset(m_vecBuffer.data() + oldSize, 0, size - oldSize);
    }
}
