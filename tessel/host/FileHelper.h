// CFileHelper: the file operations of the library, and GMB, its text file functions.
//
// Mostly static operations on paths, directories and file names: directory creation, file
// searches by wild card (the platform's rules: '*', '?', case ignored, "*.*" every name) or by
// regular expression (Perl syntax, whole file name), deletion of files by pattern list and
// age, removal of directory trees, name pieces and checks, file versions, copies, the disk
// space check and the check of network drives. Paths may separate with '\' or '/'; paths that
// the operations make separate with '/'. A drive of the platform the library was designed
// for is a mount point here (tessel/platform/Drive.h), a UNC name "//server/share".
//
// An object owns one open text or binary file through a platform file handle (GMB). Copies of
// an object share the handle, and each closes it at its end; CloseFile clears the open flag
// but keeps the stale handle value (GetHandle).
//
// Failures are results (false, or nothing for the operations without a result) and, where
// said, an error line in the log under the operation's category; nothing throws, except the
// regular expression form of FindFiles.
//
// Thread safety: the static operations hold no state and may be called from any thread; the
// platform's own rules apply to concurrent changes of one directory. An object belongs to
// one thread at a time.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/host/DiskSpace.h"
#include "tessel/platform/FileFind.h"
#include "tessel/platform/Types.h"

// The text file functions under CFileHelper's file object. Files are opened for reading and
// writing, with no sharing (an exclusive lock: a second open of the file fails) and no
// buffering of their own.
namespace GMB {

// Opens path. overwrite true: a new empty file, replacing an existing one (whatever create
// says); overwrite false and create true: the existing file, positioned at its end, or a new
// one; both false: the existing file only, at its start. The invalid handle on failure.
TESSEL_API Tessel::Platform::HANDLE OpenTextFile(const char* path, bool create, bool overwrite);

// Writes, with timestamp true, the local time as "dd.mm.yyyy hh:mm:ss.mmm " first, then text,
// then with newline true "\r\n". The writes' results are not examined: always true.
TESSEL_API bool WriteToFile(Tessel::Platform::HANDLE file, const char* text, bool timestamp,
                            bool newline);

// Closes file, after flushing it to the device with flush true; the invalid handle is ignored.
TESSEL_API void CloseTextFile(Tessel::Platform::HANDLE file, bool flush);

// Prints format into result (emptied first) with the legacy bounded print on a buffer of
// strlen(format) + 1024 bytes, doubled while the text fills it exactly; a text that does not
// fit the buffer stays cut at its size. Returns 0.
TESSEL_API int Format(std::string& result, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace GMB

class TESSEL_API CFileHelper {
  public:
    // The piece of a path that GetPartOfFilename selects (for "C:\dir\sub\name.ext").
    enum EPartOfFilename {
        PartDrive = 0,                 // "C"; "//server/share" for a UNC path
        PartDirectory = 1,             // "/dir/sub"
        PartDriveAndDirectory = 2,     // "C:/dir/sub"
        PartPathWithoutExtension = 3,  // "C:/dir/sub/name"
        PartBaseName = 4,              // "name"
        PartFileName = 5,              // "name.ext"
        PartExtension = 6,             // "ext"
    };

    // The invalid handle, not open.
    CFileHelper();
    // As OpenFile.
    CFileHelper(const char* path, bool create, bool overwrite);
    // CloseFile(true).
    virtual ~CFileHelper();
    CFileHelper(const CFileHelper&) = default;
    CFileHelper& operator=(const CFileHelper&) = default;

    // GMB::OpenTextFile; true, and open, exactly when the handle is valid.
    bool OpenFile(const char* path, bool create, bool overwrite);
    // GMB::CloseTextFile(handle, flush) where the handle is valid and open; clears the open
    // flag always.
    void CloseFile(bool flush);
    // Reads count bytes; true only if all arrived. Does not look at the open flag.
    bool Read(unsigned char* buffer, unsigned int count);
    // Writes count bytes; true only if all went out. Does not look at the open flag.
    bool Write(unsigned char* buffer, unsigned int count);
    // False if not open, else GMB::WriteToFile.
    bool WriteLine(const char* text, bool timestamp, bool newline);
    Tessel::Platform::HANDLE GetHandle() const { return m_hFile; }
    bool isFileOpen() const { return m_bOpen; }

    // fopen of path in mode; a null stream is logged under "CFileHelper::Open".
    static FILE* Open(const char* path, const char* mode);
    // fclose's result.
    static int Close(FILE* stream);

    // True when the status of path can be read: a plain file counts too.
    static bool DirExist(const char* path);

    // Makes path level by level from its root; the second argument is not used. False where a
    // level could not be created (also a null path); an empty path gives true.
    static bool MakePath(const char* path, unsigned int unused);

    // Makes path a directory with the rights of the owner and others added (add_perms |
    // owner_all | others_all). False on failure, logged under
    // "CFileHelper::AddFolderPermissions".
    static bool AddFolderPermissions(const std::string& path);

    // Makes the directory path with all the directories above it. True if it exists afterwards;
    // only the failure of the last directory counts (an earlier level may fail where the user
    // may not list it). A path of 259 or more characters gives false; a path of fewer than four
    // characters with a colon (a drive root) gives true at once. Failures are logged under
    // "CFileHelper::DirectoryCreate" (or ...A).
    static bool DirectoryCreate(const char* path);
    static bool DirectoryCreateA(const char* path);

    // Removes the file path, trying up to retries times 100 ms apart; a file that stays is
    // marked for deletion at the next boot (MoveFileExA). With removeEmptyParents, a file that
    // is gone takes the empty directories above it with it, up to rootPath
    // (DeleteEmptyDirectoryUntilRootPath). Nothing happens for an empty path.
    static void DeleteFileSecure(const std::string& path, int retries, bool removeEmptyParents,
                                 const std::string& rootPath);
    // Removes path and the directories above it while they are empty, stopping before
    // rootPath (compared ignoring case and one trailing separator) or at a file system root.
    // Errors end the walk and are logged under "CFileHelper::DeleteEmptyDirectoryUntilRootPath".
    static void DeleteEmptyDirectoryUntilRootPath(const std::string& path,
                                                  const std::string& rootPath);
    // Deletes the file path, then its directory and those above while they are empty. False
    // only where the file could not be deleted for another reason than being missing.
    static bool DeleteFileAndPath(const char* path);

    // Deletes the files below path that match the comma-separated patterns of
    // filter->cFileName (all without a filter or with an empty list), with checkTime only
    // those whose last write time lies before filter->ftLastWriteTime (a zero cut-off keeps
    // all). recursive: first the subdirectories, except excludedDirectories (full paths,
    // case ignored), are emptied the same way and removed where they became empty.
    // *anyDeleted (if given) is set when a file was deleted. False for an empty path or a
    // directory that cannot be listed; failed deletions are logged under
    // "CFileHelper::DeleteFiles" and do not change the result.
    static bool DeleteFiles(const char* path, Tessel::Platform::WIN32_FIND_DATAA* filter,
                            bool recursive, std::vector<std::string>* excludedDirectories,
                            bool checkTime, bool* anyDeleted);
    // DeleteFiles without exclusions.
    static bool DeleteFiles2(const char* path, Tessel::Platform::WIN32_FIND_DATAA* filter,
                             bool recursive, bool checkTime, bool* anyDeleted);
    // Deletes the files directly in path that match one of patterns and were last written
    // before the UTC midnight days days ago (less up to seven minutes). True when a file was
    // deleted.
    static bool DeleteFilesOlderThanDays(const std::string& path, int days,
                                         const std::vector<std::string>& patterns);
    // Deletes the files of the tree path last written before the start of the week (counted
    // from 1601) weeks weeks ago.
    static void Cleanup(const char* path, unsigned int weeks);
    // keepFiles 0: the files of the tree are deleted first. removeSubdirectories non-zero: the
    // subdirectories are removed (RemoveDirectories) and path stays; else path itself is
    // removed if empty. The result of that removal; false for a null path.
    static bool DeletePath(const char* path, int keepFiles, int removeSubdirectories);
    static bool DirectoryDelete(const char* path, int keepFiles, int removeSubdirectories);
    // Removes the subdirectories of path (never path itself), with their contents unless
    // keepFiles; with filter and checkTime only those last written before its cut-off. A
    // directory that cannot be removed is emptied of its subdirectories and tried again when
    // that removed one (*anyRemoved). False for an empty path or one that cannot be listed.
    static bool RemoveDirectories(const char* path, Tessel::Platform::WIN32_FIND_DATAA* filter,
                                  bool keepFiles, bool removeSubdirectories,
                                  std::vector<std::string>* excludedDirectories, bool checkTime,
                                  bool* anyRemoved);
    // RemoveDirectories with the cut-off cutOff; excludedDirectories is not used.
    static bool RemoveExpiredDirectories(const std::string& path,
                                         const Tessel::Platform::FILETIME& cutOff, bool keepFiles,
                                         bool removeSubdirectories,
                                         std::vector<std::string>* excludedDirectories,
                                         bool* anyRemoved);

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
    // Counts the entries of path into files (zeroed first) and directories (not zeroed: it
    // goes on from the caller's value). False for an empty path or one that cannot be listed.
    static bool CountFilesAndDirectories(const std::string& path, int& files, int& directories);

    // The piece part of path into result ('/' separators), empty where there is none.
    static void GetPartOfFilename(const char* path, EPartOfFilename part, std::string& result);
    // "?|><:/*\"+,;=[]": the characters that IsValidFileName rejects.
    static std::string GetNotAllowedChars();
    // True when name holds none of GetNotAllowedChars.
    static bool IsValidFileName(const char* name);
    // Replaces each character of name (UTF-8 aware) whose PathGetCharTypeA classes share no
    // flag with allowedTypes by replacement; returns the count. 0 for a null or empty name.
    static unsigned int ReplaceInvalidFilenameCharacters(char* name, char replacement,
                                                         unsigned int allowedTypes);
    // The same byte by byte, with a text as replacement (which may be empty or longer).
    static unsigned int ReplaceInvalidFilenameCharactersStd(std::string& name,
                                                            const std::string& replacement,
                                                            unsigned int allowedTypes);
    // Appends '/' unless path ends in a separator; path holds MAX_PATH characters.
    static void EnsureTrailingBackslash(char* path);

    // The version of the file: version "a.b.c", build d of a.b.c.d, debug whether it is a
    // debug build. False where it has none.
    static bool GetFileVersion(const char* path, std::string& version, unsigned long& build,
                               bool& debug);

    // Copies from to to (an existing one only with overwrite), then with deleteSource deletes
    // from and returns whether that worked. False for equal paths (nothing logged) and failed
    // copies (logged under "CFileHelper::copyFile").
    static bool copyFile(const char* from, const char* to, bool overwrite, bool deleteSource);

    // The disk space state of the disk under path (the current directory for an empty path)
    // turned into a message of the library's texts 6008-6010. stateChanged: the state differs
    // from the last one (or the folder cannot be written); stopProduct: nothing may be written
    // there. *state (if not null) receives the state. True for normal and low space.
    static bool CheckFreeDiskSpace(const std::string& path, std::string& message,
                                   bool& stateChanged, bool& stopProduct,
                                   CDiskSpace::StateType* state);
    static bool CheckFreeDiskSpace(const char* path);

    // Checks path as a folder that a service may use: false with error (texts 6005, 6007) for
    // a path that cannot be made canonical, and under the local system account for a network
    // drive unless allowNetworkDrives. Otherwise true; outside remote GUI mode and the local
    // system account resultPath receives the universal name of a path on a network mount,
    // else path as given.
    static bool ValidateNetworkDrives(bool localSystemAccount, char* path, bool remoteGui,
                                      std::string& error, std::string& resultPath,
                                      bool allowNetworkDrives);

  private:
    Tessel::Platform::HANDLE m_hFile;
    bool m_bOpen;
};
