// Paths as text: canonical form, root, universal names, trailing separator, character classes.
//
// '/' and '\' both separate on input; results separate with '/'. A path is absolute when it
// begins with '/', universal (the platform's UNC form) when it begins with two separators,
// "//server/share/..." or "\\server\share\...". A path that begins with a letter and a colon
// ("C:\dir") is understood as a drive path of the platform the library was designed for; no
// such drive exists here. The root of an absolute path is the mount point of the file system
// that holds it (Mounts.h): the drive of a path, in the platform's terms.
//
// Thread safety: the functions hold no state and may be called from any thread.
#pragma once

#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/platform/Mounts.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Character classes of PathGetCharTypeA, as flags.
inline constexpr UINT GCT_INVALID = 0x0;
inline constexpr UINT GCT_LFNCHAR = 0x1;    // valid in a long file name
inline constexpr UINT GCT_SHORTCHAR = 0x2;  // valid in a short (8.3) file name
inline constexpr UINT GCT_WILD = 0x4;       // a wild card
inline constexpr UINT GCT_SEPARATOR = 0x8;  // separates path elements

// Writes source with "." elements dropped and each ".." element taking away the element before
// it (never the root; a ".." at the start of a relative path is dropped) into destination,
// which holds MAX_PATH (260) characters. Separators become '/', runs of them one; a trailing
// separator stays. Purely textual: nothing is looked up. A relative path that comes to nothing
// gives "". FALSE with ERROR_INVALID_PARAMETER for a null argument, ERROR_FILENAME_EXCED_RANGE
// (206) where source or the result does not fit MAX_PATH.
TESSEL_API BOOL PathCanonicalizeA(char* destination, const char* source);

// Cuts path to its root, in place: "//server/share" (or "//server" where no share follows)
// for a universal name, "C:/" (or "C:" without a separator behind it) for a drive path, the
// mount point of the current mount table for an absolute path. TRUE then; FALSE for a
// relative path, which becomes "". Null gives FALSE.
TESSEL_API BOOL PathStripToRootA(char* path);

// The root of path as PathStripToRootA cuts it, with the mount points of table; "" for a
// relative path.
TESSEL_API std::string PathRootOf(const std::vector<MountEntry>& table, const char* path);

// TRUE where path begins with two separators, '/' or '\' (so "//server/share" and
// "\\server\share"), but not with the platform's "\\?\" prefix unless "\\?\UNC\" follows.
TESSEL_API BOOL PathIsUNCA(const char* path);

// Appends '/' to path (a buffer of MAX_PATH characters) unless it is empty or ends in '/' or
// '\'. Returns the address of its terminating NUL; null where path is null or the separator
// would not fit.
TESSEL_API char* PathAddBackslashA(char* path);

// The classes of ch in a Linux file name: '/' and '\' GCT_SEPARATOR, NUL GCT_INVALID, '*' and
// '?' GCT_WILD, every other byte (control characters and the bytes of UTF-8 sequences among
// them) GCT_LFNCHAR | GCT_SHORTCHAR: a name has no short form here, so what a long name may
// hold a short one may too.
TESSEL_API UINT PathGetCharTypeA(unsigned char ch);

}  // namespace Tessel::Platform
