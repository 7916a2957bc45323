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

// One entry of a search. The times are 100 ns ticks since 1601-01-01 UTC; ftCreationTime is
// the time of the last status change (Linux keeps no creation time in struct stat). A
// symbolic link counts as what it points to (FILE_ATTRIBUTE_DIRECTORY for a folder) and has
// FILE_ATTRIBUTE_REPARSE_POINT besides, as the platform's links have: a walk through a tree
// that must not leave it (a recursive delete) does not enter such a folder.
struct WIN32_FIND_DATAA {
    DWORD dwFileAttributes;
    std::uint64_t nFileSize;
    std::int64_t ftLastWriteTime;
    char cFileName[MAX_PATH];
    std::int64_t ftCreationTime;
    std::int64_t ftLastAccessTime;
};

// What FindFirstFileExA fills in.
enum FINDEX_INFO_LEVELS {
    FindExInfoStandard = 0,  // every field
    FindExInfoBasic = 1,     // the same here: there are no short names
    // The name, FILE_ATTRIBUTE_DIRECTORY and FILE_ATTRIBUTE_REPARSE_POINT only; the other
    // fields are zero. The entry's type
    // comes from the folder listing, so an entry is looked at (stat) only where the listing
    // does not tell (a symbolic link, which counts as what it points to, or a file system
    // without types). For searches that want names: much cheaper on large folders.
    FindExInfoNamesAndTypes = 0x100,
};

// How FindFirstFileExA selects; both match names by the pattern (the limit to folders is a
// hint, as on the platform, and returns files too).
enum FINDEX_SEARCH_OPS {
    FindExSearchNameMatch = 0,
    FindExSearchLimitToDirectories = 1,
};

// Flags of FindFirstFileExA; accepted and without effect.
inline constexpr DWORD FIND_FIRST_EX_CASE_SENSITIVE = 0x1;
inline constexpr DWORD FIND_FIRST_EX_LARGE_FETCH = 0x2;

struct FileSearch;
using FIND_HANDLE = FileSearch*;

// INVALID: no search (nothing found, or an error; the last error tells: 2 for no match, 3 for
// a missing folder).
TESSEL_API extern FIND_HANDLE const INVALID_FIND_HANDLE;

// Starts a search of "<folder>/<pattern>" ('\' or '/' separate) and fills data with the first
// entry that matches, "." and ".." included as the platform lists them.
TESSEL_API FIND_HANDLE FindFirstFileA(const char* path, WIN32_FIND_DATAA* data);
// FindFirstFileA with a choice of what is filled in: infoLevel one of FINDEX_INFO_LEVELS,
// findData a WIN32_FIND_DATAA, searchOp one of FINDEX_SEARCH_OPS, searchFilter null, flags
// ignored. FindNextFileA goes on with the same level. ERROR_INVALID_PARAMETER for an unknown
// level or search operation, a non-null filter, or a null path or findData.
TESSEL_API FIND_HANDLE FindFirstFileExA(const char* path, FINDEX_INFO_LEVELS infoLevel,
                                        void* findData, FINDEX_SEARCH_OPS searchOp,
                                        void* searchFilter, DWORD flags);
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
