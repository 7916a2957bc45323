// Searching a folder by the platform's wild-card rules, and the process's temp folder.
//
// A pattern matches a name as the platform's file search does: '*' any run of characters,
// '?' any one character, case ignored (ASCII), and "*.*" every name, with or without a point.
//
// Thread safety: a search handle belongs to one thread; the functions are thread-safe.
#pragma once

#include <cstdint>
#include <string>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

inline constexpr std::size_t MAX_PATH = 260;

struct WIN32_FIND_DATAA {
    DWORD dwFileAttributes;
    std::uint64_t nFileSize;
    std::int64_t ftLastWriteTime;  // 100 ns ticks since 1601
    char cFileName[MAX_PATH];
};

struct FileSearch;
using FIND_HANDLE = FileSearch*;

// INVALID: no search (nothing found, or an error; the last error tells: 2 for no match, 3 for
// a missing folder).
TESSEL_API extern FIND_HANDLE const INVALID_FIND_HANDLE;

// Starts a search of "<folder>/<pattern>" ('\' or '/' separate) and fills data with the first
// entry that matches, "." and ".." included as the platform lists them.
TESSEL_API FIND_HANDLE FindFirstFileA(const char* path, WIN32_FIND_DATAA* data);
// The next entry; FALSE with ERROR_NO_MORE_FILES (18) at the end.
TESSEL_API BOOL FindNextFileA(FIND_HANDLE search, WIN32_FIND_DATAA* data);
TESSEL_API BOOL FindClose(FIND_HANDLE search);

// True if name matches pattern by the rules above.
TESSEL_API bool MatchesWildcard(const char* pattern, const char* name);

// Creates the folder path (one level). 0 on success, -1 with the error number in errno, as
// the C runtime's _mkdir does; EEXIST for an existing folder.
TESSEL_API int _mkdir(const char* path);

// The current user's temp folder, ending in '/': TMPDIR where it is set, else /tmp/. Copied
// into buffer of size characters; returns the length, or the size needed when it does not fit.
TESSEL_API DWORD GetTempPathA(DWORD size, char* buffer);

}  // namespace Tessel::Platform
