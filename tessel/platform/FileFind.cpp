#include "tessel/platform/FileFind.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tessel/platform/Clock.h"
#include "tessel/platform/LastError.h"

namespace Tessel::Platform {

struct FileSearch {
    DIR* dir;
    std::string folder;
    std::string pattern;
    FINDEX_INFO_LEVELS level;
    bool everything;  // the pattern is "*.*" or "*"
};

FIND_HANDLE const INVALID_FIND_HANDLE =
    reinterpret_cast<FIND_HANDLE>(static_cast<std::uintptr_t>(-1));

namespace {

int lower(char c) {
    return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : static_cast<unsigned char>(c);
}

// The classic iterative match with one saved star position.
bool matches(const char* pattern, const char* name) {
    const char* star = nullptr;
    const char* resume = nullptr;
    while (*name != '\0') {
        if (*pattern == '*') {
            star = pattern++;
            resume = name;
        } else if (*pattern == '?' || (*pattern != '\0' && lower(*pattern) == lower(*name))) {
            ++pattern;
            ++name;
        } else if (star != nullptr) {
            pattern = star + 1;
            name = ++resume;
        } else {
            return false;
        }
    }
    while (*pattern == '*') {
        ++pattern;
    }
    return *pattern == '\0';
}

std::int64_t ticksOf(const struct timespec& time) {
    return kUnixEpochInSystemTicks + static_cast<std::int64_t>(time.tv_sec) * 10000000LL +
           time.tv_nsec / 100;
}

// Fills data from the entry of the search's folder.
void fill(const FileSearch& search, const dirent& entry, WIN32_FIND_DATAA* data) {
    if (search.level == FindExInfoNamesAndTypes) {
        // Only the name and the folder bit; the stat is saved where the listing tells the type.
        data->dwFileAttributes = 0;
        data->nFileSize = 0;
        data->ftLastWriteTime = 0;
        data->ftCreationTime = 0;
        data->ftLastAccessTime = 0;
        const std::size_t length = std::min(std::strlen(entry.d_name), MAX_PATH - 1);
        std::memcpy(data->cFileName, entry.d_name, length);
        data->cFileName[length] = '\0';
        bool folder = entry.d_type == DT_DIR;
        bool link = entry.d_type == DT_LNK;
        if (entry.d_type == DT_UNKNOWN || link) {
            struct stat info;
            folder = ::fstatat(::dirfd(search.dir), entry.d_name, &info, 0) == 0 &&
                     S_ISDIR(info.st_mode);
            link = link ||
                   (::fstatat(::dirfd(search.dir), entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                    S_ISLNK(info.st_mode));
        }
        data->dwFileAttributes = (folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL) |
                                 (link ? FILE_ATTRIBUTE_REPARSE_POINT : 0);
        return;
    }
    std::memset(data, 0, sizeof *data);
    std::strncpy(data->cFileName, entry.d_name, MAX_PATH - 1);
    struct stat info;
    if (::fstatat(::dirfd(search.dir), entry.d_name, &info, 0) == 0) {
        data->dwFileAttributes =
            S_ISDIR(info.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
        if ((info.st_mode & 0222) == 0) {
            data->dwFileAttributes |= FILE_ATTRIBUTE_READONLY;
        }
        struct stat own;
        if (::fstatat(::dirfd(search.dir), entry.d_name, &own, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISLNK(own.st_mode)) {
            data->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        }
        data->nFileSize = static_cast<std::uint64_t>(info.st_size);
        data->ftLastWriteTime = ticksOf(info.st_mtim);
        data->ftCreationTime = ticksOf(info.st_ctim);
        data->ftLastAccessTime = ticksOf(info.st_atim);
    }
}

bool next(FileSearch& search, WIN32_FIND_DATAA* data) {
    while (const dirent* entry = ::readdir(search.dir)) {
        if (search.everything || matches(search.pattern.c_str(), entry->d_name)) {
            fill(search, *entry, data);
            return true;
        }
    }
    return false;
}

}  // namespace

bool MatchesWildcard(const char* pattern, const char* name) {
    if (std::strcmp(pattern, "*.*") == 0) {
        return true;
    }
    return matches(pattern, name);
}

FIND_HANDLE FindFirstFileA(const char* path, WIN32_FIND_DATAA* data) {
    return FindFirstFileExA(path, FindExInfoStandard, data, FindExSearchNameMatch, nullptr, 0);
}

FIND_HANDLE FindFirstFileExA(const char* path, FINDEX_INFO_LEVELS infoLevel, void* findData,
                             FINDEX_SEARCH_OPS searchOp, void* searchFilter, DWORD /*flags*/) {
    auto* data = static_cast<WIN32_FIND_DATAA*>(findData);
    if (path == nullptr || data == nullptr || searchFilter != nullptr ||
        (infoLevel != FindExInfoStandard && infoLevel != FindExInfoBasic &&
         infoLevel != FindExInfoNamesAndTypes) ||
        (searchOp != FindExSearchNameMatch && searchOp != FindExSearchLimitToDirectories)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_FIND_HANDLE;
    }
    std::string text(path);
    for (char& c : text) {
        if (c == '\\') {
            c = '/';
        }
    }
    const std::size_t slash = text.rfind('/');
    std::string folder = slash == std::string::npos ? std::string(".")
                         : slash == 0               ? std::string(1, '/')
                                                    : text.substr(0, slash);
    std::string pattern = slash == std::string::npos ? text : text.substr(slash + 1);
    const bool everything = pattern == "*.*" || pattern == "*";
    auto* search = new (std::nothrow)
        FileSearch{nullptr, std::move(folder), std::move(pattern), infoLevel, everything};
    if (search == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_FIND_HANDLE;
    }
    search->dir = ::opendir(search->folder.c_str());
    if (search->dir == nullptr) {
        SetLastError(errno == ENOENT || errno == ENOTDIR ? ERROR_PATH_NOT_FOUND
                                                         : ErrnoToError(errno));
        delete search;
        return INVALID_FIND_HANDLE;
    }
    if (!next(*search, data)) {
        ::closedir(search->dir);
        delete search;
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_FIND_HANDLE;
    }
    return search;
}

BOOL FindNextFileA(FIND_HANDLE search, WIN32_FIND_DATAA* data) {
    if (search == nullptr || search == INVALID_FIND_HANDLE || data == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (!next(*search, data)) {
        SetLastError(ERROR_NO_MORE_FILES);
        return FALSE;
    }
    return TRUE;
}

BOOL FindClose(FIND_HANDLE search) {
    if (search == nullptr || search == INVALID_FIND_HANDLE) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    ::closedir(search->dir);
    delete search;
    return TRUE;
}

int _mkdir(const char* path) {
    return ::mkdir(path, 0777);
}

DWORD GetTempPathA(DWORD size, char* buffer) {
    const char* tmp = std::getenv("TMPDIR");
    std::string path = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
    if (path.back() != '/') {
        path += '/';
    }
    if (buffer == nullptr || path.size() + 1 > size) {
        return static_cast<DWORD>(path.size() + 1);
    }
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return static_cast<DWORD>(path.size());
}

}  // namespace Tessel::Platform
