// CPersistDataFile: a version word and the objects, replaced as a whole by each Save.
#include "tessel/persistence/PersistDataFile.h"

#include <cstring>
#include <string>

#include "tessel/persistence/MemoryBuffer.h"
#include "tessel/platform/File.h"
#include "tessel/platform/Process.h"

namespace Platform = Tessel::Platform;

namespace {

constexpr size_t kVersionBytes = 2;
// The most that one ReadFile or WriteFile call moves.
constexpr size_t kChunkBytes = 0x40000000u;
// Appended to the name for the file that Save writes before it replaces the old one.
constexpr const char* kSavingSuffix = ".tmp";

// Copies text into name, a buffer of 256 characters, cut to fit.
void copyName(char (&name)[256], const std::string& text) {
    const size_t length = text.size() < sizeof name ? text.size() : sizeof name - 1;
    std::memcpy(name, text.data(), length);
    name[length] = '\0';
}

// Reads size bytes at the start of file into bytes; false on failure or a short read.
bool readWhole(Platform::HANDLE file, unsigned char* bytes, size_t size) {
    Platform::LARGE_INTEGER start{};
    if (!Platform::SetFilePointerEx(file, start, nullptr, Platform::FILE_BEGIN)) {
        return false;
    }
    for (size_t done = 0; done < size;) {
        const size_t chunk = size - done < kChunkBytes ? size - done : kChunkBytes;
        Platform::DWORD read = 0;
        if (!Platform::ReadFile(file, bytes + done, static_cast<Platform::DWORD>(chunk), &read,
                                nullptr) ||
            read != chunk) {
            return false;
        }
        done += chunk;
    }
    return true;
}

// Writes size bytes from bytes at the file position; false on failure.
bool writeWhole(Platform::HANDLE file, const unsigned char* bytes, size_t size) {
    for (size_t done = 0; done < size;) {
        const size_t chunk = size - done < kChunkBytes ? size - done : kChunkBytes;
        Platform::DWORD written = 0;
        if (!Platform::WriteFile(file, bytes + done, static_cast<Platform::DWORD>(chunk), &written,
                                 nullptr) ||
            written != chunk) {
            return false;
        }
        done += chunk;
    }
    return true;
}

// Opens name for reading and writing, shared with nobody, written through.
Platform::HANDLE openExclusive(const char* name, Platform::DWORD creationDisposition) {
    return Platform::CreateFileA(
        name, Platform::GENERIC_READ | Platform::GENERIC_WRITE, 0, nullptr, creationDisposition,
        Platform::FILE_ATTRIBUTE_NORMAL | Platform::FILE_FLAG_WRITE_THROUGH, nullptr);
}

}  // namespace

CPersistDataFile::CPersistDataFile(const char* fileName) : m_szFileName{} {
    copyName(m_szFileName, fileName != nullptr ? fileName : "");
    std::string name(m_szFileName);
    for (char& c : name) {
        if (c == '\\') {
            c = '/';
        }
    }
    if (name.find('/') == std::string::npos) {
        std::string folder = Platform::GetApplicationDirectory();
        if (folder.empty() || folder.back() != '/') {
            folder += '/';
        }
        name = folder + name;
    }
    copyName(m_szFileName, name);
    Open(Platform::OPEN_EXISTING);
}

CPersistDataFile::CPersistDataFile(CPersistDataFile& source) : m_hFile(source.m_hFile) {
    std::memcpy(m_szFileName, source.m_szFileName, sizeof m_szFileName);
}

CPersistDataFile& CPersistDataFile::operator=(CPersistDataFile& source) {
    if (this != &source) {
        m_hFile = source.m_hFile;
        std::memcpy(m_szFileName, source.m_szFileName, sizeof m_szFileName);
    }
    return *this;
}

CPersistDataFile::~CPersistDataFile() = default;

bool CPersistDataFile::Open(unsigned long creationDisposition) {
    Platform::HANDLE file =
        openExclusive(m_szFileName, static_cast<Platform::DWORD>(creationDisposition));
    if (file == Platform::INVALID_HANDLE_VALUE) {
        return false;
    }
    Tessel::CHandle opened(file);
    m_hFile = opened;
    return true;
}

int CPersistDataFile::Load(IPersistData** items, unsigned int count) {
    if (items == nullptr || count == 0 || m_hFile == nullptr) {
        return 0;
    }
    const std::uint64_t fileSize = GetFileSizeEx();
    if (fileSize < kVersionBytes) {
        return 0;
    }
    CMemoryBuffer content;
    if (content.Allocate(static_cast<size_t>(fileSize)) == 0 ||
        !readWhole(m_hFile, content.GetBuffer(), content.GetSize())) {
        return 0;
    }
    const unsigned char* bytes = content.GetBuffer();
    const size_t size = content.GetSize();
    std::uint16_t version;
    std::memcpy(&version, bytes, kVersionBytes);
    if (version != FILE_VERSION) {
        Delete();
        return 1;
    }
    size_t position = kVersionBytes;
    for (unsigned int i = 0; i < count; ++i) {
        if (items[i] == nullptr) {
            continue;
        }
        // Past the end of the file an object is handed the end and 0 bytes.
        const size_t at = position < size ? position : size;
        items[i]->loadData(bytes + at, size - at);
        position += items[i]->getSize();
    }
    return 1;
}

int CPersistDataFile::Save(IPersistData** items, unsigned int count) {
    if (items == nullptr || count == 0) {
        return 0;
    }
    size_t total = kVersionBytes;
    for (unsigned int i = 0; i < count; ++i) {
        if (items[i] != nullptr) {
            total += items[i]->getSize();
        }
    }
    if (total <= kVersionBytes) {
        Delete();
        return 0;
    }
    // Holding the file keeps every other writer out while the new content is made.
    if (m_hFile == nullptr && !Open(Platform::OPEN_ALWAYS)) {
        return 0;
    }
    CMemoryBuffer content;
    if (content.Allocate(total + 1) == 0) {
        return 0;
    }
    unsigned char* bytes = content.GetBuffer();
    const std::uint16_t version = FILE_VERSION;
    std::memcpy(bytes, &version, kVersionBytes);
    size_t position = kVersionBytes;
    for (unsigned int i = 0; i < count; ++i) {
        if (items[i] == nullptr) {
            continue;
        }
        items[i]->saveData(bytes + position, total + 1 - position);
        position += items[i]->getSize();
    }

    // The new content goes to a file of its own, which then replaces the old one in one step.
    const std::string savingName = std::string(m_szFileName) + kSavingSuffix;
    Platform::HANDLE saving = openExclusive(savingName.c_str(), Platform::CREATE_ALWAYS);
    if (saving == Platform::INVALID_HANDLE_VALUE) {
        return 0;
    }
    Tessel::CHandle newFile(saving);
    if (!writeWhole(newFile, bytes, position) || !Platform::SetEndOfFile(newFile) ||
        !Platform::MoveFileExA(
            savingName.c_str(), m_szFileName,
            Platform::MOVEFILE_REPLACE_EXISTING | Platform::MOVEFILE_WRITE_THROUGH)) {
        newFile.Close();
        Platform::DeleteFileA(savingName.c_str());
        return 0;
    }
    m_hFile = newFile;
    return 1;
}

void CPersistDataFile::Delete() {
    m_hFile.Close();
    Platform::DeleteFileA(m_szFileName);
}

std::uint64_t CPersistDataFile::GetFileSizeEx() const {
    if (m_hFile == nullptr) {
        return 0;
    }
    Platform::LARGE_INTEGER size{};
    if (!Platform::GetFileSizeEx(m_hFile, &size) || size.QuadPart < 0) {
        return 0;
    }
    return static_cast<std::uint64_t>(size.QuadPart);
}
