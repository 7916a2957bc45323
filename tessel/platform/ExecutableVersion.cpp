#include "tessel/platform/ExecutableVersion.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {
namespace {

constexpr const char* kSectionName = ".tessel_version";
constexpr const char* kDebugSectionName = ".tessel_debug";
// A version text longer than this is no version text.
constexpr std::size_t kMaxSectionSize = 256;
// Marks a block that GetFileVersionInfoA wrote.
constexpr DWORD kBlockMagic = 0x5456424Bu;

struct VersionBlock {
    DWORD magic;
    VS_FIXEDFILEINFO fixed;
};

bool readAt(int fd, void* buffer, std::size_t size, std::uint64_t offset) {
    auto* bytes = static_cast<char*>(buffer);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, bytes + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// The contents of the section kSectionName of the ELF file open as fd; false without it.
// *debug (if not null) tells whether the file has the section kDebugSectionName.
bool readVersionSection(int fd, std::string& text, bool* debug = nullptr) {
    Elf64_Ehdr header;
    if (!readAt(fd, &header, sizeof header, 0) ||
        std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_shentsize != sizeof(Elf64_Shdr) ||
        header.e_shnum == 0 || header.e_shstrndx == SHN_UNDEF ||
        header.e_shstrndx >= header.e_shnum) {
        return false;
    }
    std::vector<Elf64_Shdr> sections(header.e_shnum);
    if (!readAt(fd, sections.data(), sections.size() * sizeof(Elf64_Shdr), header.e_shoff)) {
        return false;
    }
    const Elf64_Shdr& names = sections[header.e_shstrndx];
    std::vector<char> nameTable(names.sh_size + 1, '\0');
    if (!readAt(fd, nameTable.data(), names.sh_size, names.sh_offset)) {
        return false;
    }
    if (debug != nullptr) {
        *debug = false;
        for (const Elf64_Shdr& section : sections) {
            if (section.sh_name < names.sh_size &&
                std::strcmp(nameTable.data() + section.sh_name, kDebugSectionName) == 0) {
                *debug = true;
            }
        }
    }
    for (const Elf64_Shdr& section : sections) {
        if (section.sh_name >= names.sh_size ||
            std::strcmp(nameTable.data() + section.sh_name, kSectionName) != 0) {
            continue;
        }
        if (section.sh_type == SHT_NOBITS || section.sh_size == 0 ||
            section.sh_size > kMaxSectionSize) {
            return false;
        }
        std::vector<char> contents(section.sh_size + 1, '\0');
        if (!readAt(fd, contents.data(), section.sh_size, section.sh_offset)) {
            return false;
        }
        text.assign(contents.data());  // up to the first NUL
        return true;
    }
    return false;
}

// The version block of the file fileName; false with the last error set.
bool readBlock(const char* fileName, VersionBlock& block) {
    if (fileName == nullptr || *fileName == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const int fd = ::open(fileName, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    std::string text;
    bool debug = false;
    const bool found = readVersionSection(fd, text, &debug);
    ::close(fd);
    std::uint16_t parts[4];
    if (!found || !ParseFileVersion(text.c_str(), parts)) {
        SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
        return false;
    }
    block = VersionBlock{};
    block.magic = kBlockMagic;
    block.fixed.dwSignature = VS_FFI_SIGNATURE;
    block.fixed.dwStrucVersion = 0x00010000u;
    block.fixed.dwFileVersionMS = static_cast<DWORD>(parts[0]) << 16 | parts[1];
    block.fixed.dwFileVersionLS = static_cast<DWORD>(parts[2]) << 16 | parts[3];
    block.fixed.dwProductVersionMS = block.fixed.dwFileVersionMS;
    block.fixed.dwProductVersionLS = block.fixed.dwFileVersionLS;
    block.fixed.dwFileFlagsMask = VS_FFI_FILEFLAGSMASK;
    block.fixed.dwFileFlags = debug ? VS_FF_DEBUG : 0;
    return true;
}

}  // namespace

DWORD GetFileVersionInfoSizeA(const char* fileName, DWORD* handle) {
    if (handle != nullptr) {
        *handle = 0;
    }
    VersionBlock block;
    return readBlock(fileName, block) ? static_cast<DWORD>(sizeof block) : 0;
}

BOOL GetFileVersionInfoA(const char* fileName, DWORD /*handle*/, DWORD length, void* data) {
    if (data == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    VersionBlock block;
    if (!readBlock(fileName, block)) {
        return FALSE;
    }
    if (length < sizeof block) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::memcpy(data, &block, sizeof block);
    return TRUE;
}

BOOL VerQueryValueA(const void* block, const char* subBlock, void** buffer, UINT* length) {
    if (block == nullptr || subBlock == nullptr || buffer == nullptr || length == nullptr ||
        (std::strcmp(subBlock, "\\") != 0 && std::strcmp(subBlock, "/") != 0)) {
        return FALSE;
    }
    DWORD magic;
    std::memcpy(&magic, block, sizeof magic);
    if (magic != kBlockMagic) {
        return FALSE;
    }
    auto* bytes = static_cast<const char*>(block) + offsetof(VersionBlock, fixed);
    *buffer = const_cast<char*>(bytes);
    *length = sizeof(VS_FIXEDFILEINFO);
    return TRUE;
}

BOOL ParseFileVersion(const char* text, std::uint16_t parts[4]) {
    if (text == nullptr) {
        return FALSE;
    }
    std::uint16_t parsed[4];
    const char* p = text;
    for (int i = 0; i < 4; ++i) {
        if (i > 0) {
            if (*p != '.') {
                return FALSE;
            }
            ++p;
        }
        if (*p < '0' || *p > '9') {
            return FALSE;
        }
        unsigned long value = 0;
        while (*p >= '0' && *p <= '9') {
            value = value * 10 + static_cast<unsigned long>(*p - '0');
            if (value > 0xFFFF) {
                return FALSE;
            }
            ++p;
        }
        parsed[i] = static_cast<std::uint16_t>(value);
    }
    if (*p != '\0') {
        return FALSE;
    }
    std::memcpy(parts, parsed, sizeof parsed);
    return TRUE;
}

BOOL GetExecutableFileVersion(std::uint16_t parts[4]) {
    const int fd = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    std::string text;
    const bool found = readVersionSection(fd, text);
    ::close(fd);
    if (!found || !ParseFileVersion(text.c_str(), parts)) {
        SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
        return FALSE;
    }
    return TRUE;
}

}  // namespace Tessel::Platform
