// CMemoryBuffer: a vector of bytes whose growth leaves new bytes for the buffer to fill.
#include "tessel/persistence/MemoryBuffer.h"

#include <cstring>
#include <stdexcept>

CMemoryBuffer::~CMemoryBuffer() = default;

int CMemoryBuffer::Allocate(size_t size) {
    m_vecBuffer.clear();
    try {
        m_vecBuffer.resize(size);
    } catch (const std::bad_alloc&) {
        m_vecBuffer.clear();
        return 0;
    } catch (const std::length_error&) {
        m_vecBuffer.clear();
        return 0;
    }
    if (size != 0) {
        std::memset(m_vecBuffer.data(), 0, size);
    }
    return 1;
}

bool CMemoryBuffer::AddBack(const unsigned char* data, size_t size) {
    if (data == nullptr) {
        return size == 0;
    }
    if (size == 0) {
        return false;
    }
    const size_t oldSize = m_vecBuffer.size();
    m_vecBuffer.resize(oldSize + size);
    std::memcpy(m_vecBuffer.data() + oldSize, data, size);
    return true;
}

void CMemoryBuffer::Assign(const CMemoryBuffer& other) {
    if (&other != this) {
        m_vecBuffer = other.m_vecBuffer;
    }
}

bool CMemoryBuffer::Assign(const unsigned char* data, size_t size) {
    if (data == nullptr || size == 0) {
        return false;
    }
    // The source may lie within this buffer: copy before the storage changes.
    Bytes copy;
    try {
        copy.resize(size);
    } catch (const std::bad_alloc&) {
        m_vecBuffer.clear();
        return false;
    } catch (const std::length_error&) {
        m_vecBuffer.clear();
        return false;
    }
    std::memcpy(copy.data(), data, size);
    m_vecBuffer.swap(copy);
    return true;
}

void CMemoryBuffer::Clear() {
    m_vecBuffer.clear();
}

void CMemoryBuffer::Free() {
    Bytes().swap(m_vecBuffer);
}

void CMemoryBuffer::RemoveFront(size_t count) {
    if (count == 0) {
        return;
    }
    if (count >= m_vecBuffer.size()) {
        m_vecBuffer.clear();
        return;
    }
    Bytes rest(m_vecBuffer.begin() + static_cast<std::ptrdiff_t>(count), m_vecBuffer.end());
    m_vecBuffer.swap(rest);
}

void CMemoryBuffer::ShrinkToFit() {
    if (m_vecBuffer.empty()) {
        Free();
    } else {
        m_vecBuffer.shrink_to_fit();
    }
}

void CMemoryBuffer::Swap(CMemoryBuffer& other) noexcept {
    m_vecBuffer.swap(other.m_vecBuffer);
}

void CMemoryBuffer::ZeroMem() {
    if (!m_vecBuffer.empty()) {
        std::memset(m_vecBuffer.data(), 0, m_vecBuffer.size());
    }
}
