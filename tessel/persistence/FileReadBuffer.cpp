#include "tessel/persistence/FileReadBuffer.h"

#include <cstring>

#include "tessel/platform/File.h"
#include "tessel/platform/FileMapping.h"
#include "tessel/platform/SystemInfo.h"

namespace P = Tessel::Platform;

namespace {

P::DWORD high(std::uint64_t value) {
    return static_cast<P::DWORD>(value >> 32);
}

P::DWORD low(std::uint64_t value) {
    return static_cast<P::DWORD>(value);
}

}  // namespace

CFileReadBuffer::CFileReadBuffer() {
    P::SYSTEM_INFO info;
    P::GetSystemInfo(&info);
    m_ui64Granularity = info.dwAllocationGranularity;
}

CFileReadBuffer::CFileReadBuffer(CFileReadBuffer& source)
    : m_hMapping(source.m_hMapping),
      m_ui64WindowStart(source.m_ui64WindowStart),
      m_ui64WindowEnd(source.m_ui64WindowEnd),
      m_ui64FileSize(source.m_ui64FileSize),
      m_ui64Granularity(source.m_ui64Granularity),
      m_pView(source.m_pView) {}

CFileReadBuffer& CFileReadBuffer::operator=(CFileReadBuffer& source) {
    if (this != &source) {
        Close();
        m_hMapping = source.m_hMapping;
        m_ui64WindowStart = source.m_ui64WindowStart;
        m_ui64WindowEnd = source.m_ui64WindowEnd;
        m_ui64FileSize = source.m_ui64FileSize;
        m_ui64Granularity = source.m_ui64Granularity;
        m_pView = source.m_pView;
    }
    return *this;
}

CFileReadBuffer::~CFileReadBuffer() {
    Close();
}

bool CFileReadBuffer::Open(const char* fileName, unsigned long shareMode, unsigned int* header) {
    Close();
    Tessel::CHandle file(P::CreateFileA(fileName, P::GENERIC_READ, static_cast<P::DWORD>(shareMode),
                                        nullptr, P::OPEN_EXISTING, P::FILE_ATTRIBUTE_NORMAL,
                                        nullptr));
    if (file == P::INVALID_HANDLE_VALUE) {
        file.Detach();
        return false;
    }
    size_t size = 0;
    if (!GetFileSizeEx(file, size)) {
        return false;
    }
    Tessel::CHandle mapping(P::CreateFileMappingA(file, nullptr, P::PAGE_READONLY, 0, 0, nullptr));
    if (mapping == nullptr) {
        return false;
    }
    if (header != nullptr && size >= 8) {
        void* first = P::MapViewOfFile(mapping, P::FILE_MAP_READ, 0, 0, 8);
        if (first == nullptr) {
            return false;
        }
        std::uint32_t word;
        std::memcpy(&word, first, sizeof word);
        *header = word;
        P::UnmapViewOfFile(first);
    }
    m_hMapping = mapping;
    m_ui64FileSize = size;
    return true;  // file closes here; the mapping keeps the file open
}

bool CFileReadBuffer::GetBuffer(size_t offset, size_t length, unsigned char*& data) {
    if (m_hMapping == nullptr) {
        return false;
    }
    // Compared without forming offset + length, which may wrap.
    if (offset >= m_ui64WindowStart && offset <= m_ui64WindowEnd &&
        length <= m_ui64WindowEnd - offset) {
        data = m_pView + (offset - m_ui64WindowStart);
        return true;
    }
    if (offset > m_ui64FileSize || length > m_ui64FileSize - offset) {
        return false;
    }
    if (m_pView != nullptr) {
        P::UnmapViewOfFile(m_pView);
        m_pView = nullptr;
    }
    m_ui64WindowStart = 0;
    m_ui64WindowEnd = 0;
    const std::uint64_t start = offset - offset % m_ui64Granularity;
    std::uint64_t end = offset + length;  // at most the file size
    const std::uint64_t beyond = end % m_ui64Granularity;
    if (beyond != 0) {
        const std::uint64_t up = m_ui64Granularity - beyond;
        end = m_ui64FileSize - end < up ? m_ui64FileSize : end + up;
    }
    void* view = P::MapViewOfFile(m_hMapping, P::FILE_MAP_READ, high(start), low(start),
                                  static_cast<size_t>(end - start));
    if (view == nullptr) {
        return false;
    }
    m_pView = static_cast<unsigned char*>(view);
    m_ui64WindowStart = start;
    m_ui64WindowEnd = end;
    data = m_pView + (offset - start);
    return true;
}

bool CFileReadBuffer::GetFileSizeEx(Tessel::CHandle& file, size_t& size) const {
    P::LARGE_INTEGER value;
    if (!P::GetFileSizeEx(file, &value)) {
        return false;
    }
    size = static_cast<size_t>(value.QuadPart);
    return true;
}

void CFileReadBuffer::Close() {
    m_ui64WindowStart = 0;
    m_ui64WindowEnd = 0;
    if (m_pView != nullptr) {
        P::UnmapViewOfFile(m_pView);
        m_pView = nullptr;
    }
    m_hMapping.Close();
}
