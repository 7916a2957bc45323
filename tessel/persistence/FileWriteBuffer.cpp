#include "tessel/persistence/FileWriteBuffer.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "tessel/host/FileHelper.h"
#include "tessel/persistence/FileReadBuffer.h"
#include "tessel/persistence/detail/PathParts.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/File.h"
#include "tessel/platform/LastError.h"

namespace P = Tessel::Platform;

namespace {

// Bytes that Append copies at a time: 512 KiB.
constexpr size_t kAppendChunk = 0x80000;

// The largest count that one read or write of the platform takes.
constexpr size_t kLargestTransfer = 0x80000000u;

// Opens fileName for reading and writing with the disposition; null when it fails.
P::HANDLE openFile(const char* fileName, unsigned long shareMode, P::DWORD disposition) {
    const P::HANDLE file = P::CreateFileA(fileName, P::GENERIC_READ | P::GENERIC_WRITE,
                                          static_cast<P::DWORD>(shareMode), nullptr, disposition,
                                          P::FILE_ATTRIBUTE_NORMAL, nullptr);
    return file == P::INVALID_HANDLE_VALUE ? nullptr : file;
}

bool seek(P::HANDLE file, std::int64_t distance, P::DWORD method) {
    P::LARGE_INTEGER to;
    to.QuadPart = distance;
    return P::SetFilePointerEx(file, to, nullptr, method) != P::FALSE;
}

}  // namespace

CFileWriteBuffer::CFileWriteBuffer(CFileWriteBuffer& source)
    : m_hFile(source.m_hFile), m_Buffer(source.m_Buffer), m_ui32Used(source.m_ui32Used) {
    std::memcpy(m_szFileName, source.m_szFileName, sizeof m_szFileName);
}

CFileWriteBuffer& CFileWriteBuffer::operator=(CFileWriteBuffer& source) {
    if (this != &source) {
        Close();
        m_hFile = source.m_hFile;
        m_Buffer = source.m_Buffer;
        m_ui32Used = source.m_ui32Used;
        std::memcpy(m_szFileName, source.m_szFileName, sizeof m_szFileName);
    }
    return *this;
}

CFileWriteBuffer::~CFileWriteBuffer() {
    Close();
}

bool CFileWriteBuffer::Open(const char* fileName, unsigned int bufferSize, unsigned int /*unused*/,
                            bool truncate, unsigned long shareMode, unsigned int* header) {
    Close();
    m_Buffer.Free();
    m_ui32Used = 0;
    if (fileName == nullptr || *fileName == '\0') {
        return false;
    }
    const std::string folder = Tessel::Persistence::Detail::FolderOf(fileName);
    if (!folder.empty() && !CFileHelper::DirectoryCreate(folder.c_str())) {
        return false;
    }
    if (P::sprintf_s(m_szFileName, sizeof m_szFileName, "%s", fileName) < 0) {
        return false;
    }

    P::HANDLE file = truncate ? nullptr : openFile(fileName, shareMode, P::OPEN_EXISTING);
    if (file == nullptr) {
        file = openFile(fileName, shareMode, P::CREATE_ALWAYS);
        if (file == nullptr && P::GetLastError() == P::ERROR_USER_MAPPED_FILE) {
            // A reader maps the file: it keeps its contents, and the writes go behind them.
            file = openFile(fileName, shareMode, P::OPEN_ALWAYS);
        }
        if (file == nullptr) {
            return false;
        }
    }
    Tessel::CHandle opened(file);
    if (m_Buffer.Allocate(bufferSize) == 0) {
        return false;  // opened closes the file
    }

    m_hFile = opened;
    const size_t size = GetFileSizeEx();
    if (size > 0) {
        if (header != nullptr && size >= 4) {
            std::uint32_t word;
            P::DWORD read = 0;
            if (P::ReadFile(m_hFile, &word, sizeof word, &read, nullptr) != P::FALSE &&
                read == sizeof word) {
                *header = word;
            }
        }
        seek(m_hFile, 0, P::FILE_END);
    } else if (header != nullptr) {
        const std::uint32_t word = *header;
        unsigned char bytes[sizeof word];
        std::memcpy(bytes, &word, sizeof word);
        WriteUnbuffered(bytes, sizeof bytes);
    }
    return true;
}

bool CFileWriteBuffer::GetBuffer(unsigned int size, unsigned char*& data, bool* /*unused*/) {
    if (!IsOpen()) {
        return false;
    }
    if (size > m_Buffer.GetSize() - m_ui32Used) {
        if (!WriteBufferToFile()) {
            return false;
        }
        if (size > m_Buffer.GetSize()) {
            m_Buffer.Allocate(size);
            if (m_Buffer.GetSize() < size) {
                return false;  // the buffer could not grow: never a reservation past its end
            }
        }
    }
    data = m_Buffer.GetBuffer() + m_ui32Used;
    m_ui32Used += size;
    return true;
}

bool CFileWriteBuffer::WriteToBuffer(const unsigned char* data, unsigned int size, bool* unused) {
    if (data == nullptr) {
        return false;
    }
    if (IsOpen() && size <= m_Buffer.GetSize() - m_ui32Used) {
        // The common case, as GetBuffer would take it, without the call.
        if (size != 0) {
            std::memcpy(m_Buffer.GetBuffer() + m_ui32Used, data, size);
        }
        m_ui32Used += size;
        return true;
    }
    unsigned char* target = nullptr;
    if (!GetBuffer(size, target, unused)) {
        return false;
    }
    if (size != 0) {
        std::memcpy(target, data, size);
    }
    return true;
}

bool CFileWriteBuffer::WriteBufferToFile() {
    if (m_ui32Used == 0) {
        return true;
    }
    P::DWORD written = 0;
    const bool wrote =
        P::WriteFile(m_hFile, m_Buffer.GetBuffer(), m_ui32Used, &written, nullptr) != P::FALSE;
    const bool all = wrote && written == m_ui32Used;
    m_ui32Used = 0;
    return all;
}

void CFileWriteBuffer::FlushBuffer() {
    if (IsOpen()) {
        WriteBufferToFile();
    }
}

void CFileWriteBuffer::Close() {
    if (IsOpen()) {
        WriteBufferToFile();
        m_hFile.Close();
    }
}

bool CFileWriteBuffer::Append(CFileWriteBuffer* other) {
    if (other == nullptr || !IsOpen()) {
        return false;
    }
    WriteBufferToFile();
    if (other->m_Buffer.GetSize() == other->m_ui32Used) {
        P::DWORD written = 0;
        const bool wrote = P::WriteFile(m_hFile, other->m_Buffer.GetBuffer(), other->m_ui32Used,
                                        &written, nullptr) != P::FALSE;
        const bool all = wrote && written == other->m_ui32Used;
        other->Close();
        return all;
    }
    other->Close();
    CFileReadBuffer reader;
    if (!reader.Open(other->m_szFileName, 0, nullptr)) {
        return false;
    }
    const size_t size = reader.GetSize();
    for (size_t offset = 0; offset < size; offset += kAppendChunk) {
        const size_t chunk = std::min(kAppendChunk, size - offset);
        unsigned char* data = nullptr;
        if (!reader.GetBuffer(offset, chunk, data)) {
            break;
        }
        P::DWORD written = 0;
        if (P::WriteFile(m_hFile, data, static_cast<P::DWORD>(chunk), &written, nullptr) ==
                P::FALSE &&
            written == chunk) {
            break;
        }
    }
    return true;
}

bool CFileWriteBuffer::GetFilePosition(size_t& position) {
    WriteBufferToFile();
    P::LARGE_INTEGER distance;
    distance.QuadPart = 0;
    P::LARGE_INTEGER at;
    if (P::SetFilePointerEx(m_hFile, distance, &at, P::FILE_CURRENT) == P::FALSE ||
        at.LowPart == 0xFFFFFFFFu) {
        return false;
    }
    position = static_cast<size_t>(at.QuadPart);
    return true;
}

bool CFileWriteBuffer::SetFilePosition(std::int64_t distance, unsigned long method) {
    return seek(m_hFile, distance, static_cast<P::DWORD>(method));
}

bool CFileWriteBuffer::WriteAtFilePosition(const size_t& position, const unsigned char* data,
                                           size_t size) {
    if (data == nullptr) {
        return false;
    }
    WriteBufferToFile();
    if (!seek(m_hFile, static_cast<std::int64_t>(position), P::FILE_BEGIN)) {
        return false;
    }
    const auto count = static_cast<P::DWORD>(size);
    P::DWORD written = 0;
    const bool all =
        P::WriteFile(m_hFile, data, count, &written, nullptr) != P::FALSE && written == count;
    if (!seek(m_hFile, 0, P::FILE_END)) {
        return false;
    }
    return all;
}

bool CFileWriteBuffer::WriteUnbuffered(const unsigned char* data, size_t size) {
    if (data == nullptr || size == 0) {
        return false;
    }
    for (size_t done = 0; done < size;) {
        const auto count = static_cast<P::DWORD>(std::min(kLargestTransfer, size - done));
        P::DWORD written = 0;
        if (P::WriteFile(m_hFile, data + done, count, &written, nullptr) == P::FALSE ||
            written != count) {
            return false;
        }
        done += count;
    }
    return true;
}

bool CFileWriteBuffer::Read(unsigned char* data, unsigned long size) {
    size_t done = 0;
    do {
        const auto count = static_cast<P::DWORD>(std::min<size_t>(kLargestTransfer, size - done));
        P::DWORD read = 0;
        if (P::ReadFile(m_hFile, data + done, count, &read, nullptr) == P::FALSE || read != count) {
            return false;
        }
        done += count;
    } while (done < size);
    return true;
}

bool CFileWriteBuffer::GetFileName(char* target, size_t targetSize) const {
    return P::sprintf_s(target, targetSize, "%s", m_szFileName) >= 0 && m_szFileName[0] != '\0';
}

bool CFileWriteBuffer::GetFileNameA(char* target, size_t targetSize) const {
    return GetFileName(target, targetSize);
}

size_t CFileWriteBuffer::GetFileSizeEx() const {
    if (!IsOpen()) {
        return 0;
    }
    P::LARGE_INTEGER size;
    if (P::GetFileSizeEx(m_hFile, &size) == P::FALSE) {
        return 0;
    }
    return static_cast<size_t>(size.QuadPart);
}
