// CFileHelper: the file operations of the library.
//
// Directory creation that counts only the failure of the last directory, and file searches by
// wild card (the platform's rules: '*', '?', case ignored, "*.*" every name) or by regular
// expression (Perl syntax, whole file name). Paths may separate with '\' or '/'.
//
// Thread safety: the static operations may be called from any thread.
#pragma once

#include <string>
#include <vector>

#include "tessel/Export.h"

class TESSEL_API CFileHelper {
  public:
    // Makes path with all the directories above it. True if it exists afterwards; only the
    // failure of the last directory counts (an earlier level may fail where the user may not
    // list it). A path of 259 or more characters gives false; a path of fewer than four
    // characters with a colon (a drive root) gives true at once. Failures are logged under
    // "CFileHelper::DirectoryCreate" (or ...A).
    static bool DirectoryCreate(const char* path);
    static bool DirectoryCreateA(const char* path);

    // Adds to names (if not null) the files, not directories, of path that match the wild
    // card pattern. True if there was one. names is not emptied first.
    static bool FindFiles(const std::string& path, const std::string& pattern,
                          std::vector<std::string>* names);
    static bool FindFilesA(const std::string& path, const std::string& pattern,
                           std::vector<std::string>* names);
    // Empties names and fills it with the regular files of path whose whole name matches
    // regularExpression. True if names is not empty. Errors of the expression and of the
    // directory iteration are thrown (boost::regex_error, boost::filesystem_error).
    static bool FindFiles(const std::string& path, const std::string& regularExpression,
                          std::vector<std::string>& names);
};
