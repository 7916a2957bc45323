// Files opened, read and written through handles, as the library's file classes expect.
//
// CreateFileA opens or creates a file and returns a handle of the platform layer, which
// CloseHandle (KernelObject.h) closes; a file handle is always signalled for a wait. Failures
// return INVALID_HANDLE_VALUE (CreateFileA) or FALSE (the others) and store the platform's
// error number as the calling thread's last error: ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND,
// ERROR_ACCESS_DENIED, ERROR_FILE_EXISTS, ERROR_SHARING_VIOLATION, ERROR_INVALID_HANDLE,
// ERROR_INVALID_PARAMETER, ERROR_DISK_FULL, ERROR_USER_MAPPED_FILE and the rest of Types.h.
//
// Sharing. A handle opened with share mode 0 holds an exclusive lock of its file (flock), any
// other share mode a shared one; a handle that cannot get its lock at once is refused with
// ERROR_SHARING_VIOLATION. So an exclusive handle keeps every other handle out, also in other
// processes, and cannot be had while another handle is open; the finer combinations of the
// share flags (read but not write, ...) are not told apart. The lock belongs to the handle and
// ends with CloseHandle; a forked child that inherits the descriptor shares it.
//
// Write-through (FILE_FLAG_WRITE_THROUGH) opens with O_DSYNC: WriteFile returns once the bytes
// are on the device. Descriptors are opened close-on-exec, so started programs inherit none.
//
// Character devices (a tty, such as the modem handle of the telephony functions) are streams:
// ReadFile and WriteFile on them make one read or write each and return what it moved, as the
// platform does for a communications device, instead of insisting on the full count.
//
// Thread safety: all functions may be called from any thread. A handle has one file position,
// shared by all threads that use it, as on the platform; reads and writes through one handle
// from several threads at once are an error of the caller.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Access rights of CreateFileA.
inline constexpr DWORD GENERIC_READ = 0x80000000u;
inline constexpr DWORD GENERIC_WRITE = 0x40000000u;

// Share modes of CreateFileA; 0 shares nothing.
inline constexpr DWORD FILE_SHARE_READ = 0x00000001u;
inline constexpr DWORD FILE_SHARE_WRITE = 0x00000002u;
inline constexpr DWORD FILE_SHARE_DELETE = 0x00000004u;

// Creation dispositions of CreateFileA.
inline constexpr DWORD CREATE_NEW = 1;         // only a file that does not exist yet
inline constexpr DWORD CREATE_ALWAYS = 2;      // a new empty file, replacing an existing one
inline constexpr DWORD OPEN_EXISTING = 3;      // only a file that exists
inline constexpr DWORD OPEN_ALWAYS = 4;        // the existing file, or a new empty one
inline constexpr DWORD TRUNCATE_EXISTING = 5;  // an existing file, emptied; needs GENERIC_WRITE

// Attributes and flags of CreateFileA. Attributes other than these and the hints for the
// cache are accepted and change nothing.
inline constexpr DWORD FILE_FLAG_WRITE_THROUGH = 0x80000000u;
inline constexpr DWORD FILE_FLAG_RANDOM_ACCESS = 0x10000000u;
inline constexpr DWORD FILE_FLAG_SEQUENTIAL_SCAN = 0x08000000u;

// Origins of SetFilePointerEx.
inline constexpr DWORD FILE_BEGIN = 0;
inline constexpr DWORD FILE_CURRENT = 1;
inline constexpr DWORD FILE_END = 2;

// Error numbers of the file functions that the common list lacks.

// Results of GetFileType.
inline constexpr DWORD FILE_TYPE_UNKNOWN = 0;
inline constexpr DWORD FILE_TYPE_DISK = 1;  // a file or a block device
inline constexpr DWORD FILE_TYPE_CHAR = 2;  // a character device: a tty, a console
inline constexpr DWORD FILE_TYPE_PIPE = 3;  // a pipe or a socket

// Flags of MoveFileExA.
inline constexpr DWORD MOVEFILE_REPLACE_EXISTING = 0x00000001u;
inline constexpr DWORD MOVEFILE_DELAY_UNTIL_REBOOT = 0x00000004u;
inline constexpr DWORD MOVEFILE_WRITE_THROUGH = 0x00000008u;

// Opens or creates the file fileName. desiredAccess: GENERIC_READ and/or GENERIC_WRITE (0
// opens for neither, which still allows the size to be asked); shareMode: see above;
// attributes: ignored; creationDisposition: CREATE_NEW to TRUNCATE_EXISTING;
// flagsAndAttributes: FILE_FLAG_WRITE_THROUGH is honoured, the rest accepted; templateFile:
// ignored. A new file gets the permissions 0666 less the umask. OPEN_ALWAYS and CREATE_ALWAYS
// on an existing file succeed with the last error ERROR_ALREADY_EXISTS, otherwise success
// leaves it ERROR_SUCCESS. INVALID_HANDLE_VALUE on failure: ERROR_INVALID_PARAMETER for a
// null or empty name or an unknown disposition, ERROR_FILE_NOT_FOUND (OPEN_EXISTING,
// TRUNCATE_EXISTING), ERROR_FILE_EXISTS (CREATE_NEW), ERROR_PATH_NOT_FOUND (missing folder),
// ERROR_ACCESS_DENIED (also for a folder), ERROR_SHARING_VIOLATION (see above),
// ERROR_USER_MAPPED_FILE where CREATE_ALWAYS or TRUNCATE_EXISTING would empty a file of which
// a section is mapped. The emptying happens only once the sharing lock is held.
TESSEL_API HANDLE CreateFileA(const char* fileName, DWORD desiredAccess, DWORD shareMode,
                              SECURITY_ATTRIBUTES* attributes, DWORD creationDisposition,
                              DWORD flagsAndAttributes, HANDLE templateFile);

// Reads up to bytesToRead bytes at the file position into buffer and advances the position by
// the bytes read, which are stored in *bytesRead (if not null). At the end of the file TRUE
// with 0 bytes; fewer bytes than asked only at the end of the file. overlapped must be null
// (ERROR_INVALID_PARAMETER otherwise), as must be buffer only when bytesToRead is 0. On a
// character device one read: it waits for data and returns what is there (a tty in raw mode
// at least one byte), 0 bytes at its end (a tty that was hung up).
TESSEL_API BOOL ReadFile(HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead,
                         void* overlapped);

// Writes bytesToWrite bytes from buffer at the file position, extending the file where it
// ends there, and advances the position; *bytesWritten (if not null) is the count written,
// which is bytesToWrite on success. overlapped must be null. FALSE on failure, among others
// ERROR_DISK_FULL; bytes written before a failure stay in the file and are counted. On a
// character device one write, whose count may be less than bytesToWrite.
TESSEL_API BOOL WriteFile(HANDLE file, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten,
                          void* overlapped);

// Moves the file position by distance bytes from moveMethod (FILE_BEGIN, FILE_CURRENT,
// FILE_END) and stores the new position in *newPosition (if not null). A position beyond the
// end is allowed; a negative one fails with ERROR_NEGATIVE_SEEK.
TESSEL_API BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* newPosition,
                                 DWORD moveMethod);

// Makes the file position the end of the file: cuts the file there or extends it with zero
// bytes. Fails with ERROR_USER_MAPPED_FILE when it would cut bytes that a mapped section of
// the file holds (FileMapping.h), also one of another process.
TESSEL_API BOOL SetEndOfFile(HANDLE file);

// The size of the file in bytes, in *size. FALSE with ERROR_INVALID_PARAMETER for a null size.
TESSEL_API BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size);

// Writes the file's data and metadata to the device (fsync).
TESSEL_API BOOL FlushFileBuffers(HANDLE file);

// Removes the file fileName. Open handles stay usable; the name is free at once, as with the
// platform's delete-on-close sharing. ERROR_FILE_NOT_FOUND if there is none,
// ERROR_ACCESS_DENIED for a folder or without the right.
TESSEL_API BOOL DeleteFileA(const char* fileName);

// Renames existingName to newName in one step: a process that opens newName finds either
// the file that was there or the renamed one, never a mixture or nothing. An existing
// newName is replaced only with MOVEFILE_REPLACE_EXISTING (else ERROR_ALREADY_EXISTS);
// MOVEFILE_WRITE_THROUGH returns only once the rename is on the device (the folder of
// newName is synced). Both names must lie on one file system (ERROR_NOT_SAME_DEVICE).
// MOVEFILE_DELAY_UNTIL_REBOOT with a null newName marks existingName for deletion at the next
// start of the machine instead (PendingDeletions.h) and touches no file; a rename at reboot
// (the flag with a newName) is not offered: ERROR_NOT_SUPPORTED.
TESSEL_API BOOL MoveFileExA(const char* existingName, const char* newName, DWORD flags);

// Copies the file existingName to newName: its bytes, its permission bits and its last write
// time. failIfExists true: an existing newName is kept and the call fails with
// ERROR_FILE_EXISTS; false: it is replaced. FALSE on failure with the last error set
// (ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED also for a folder as either
// name, ERROR_DISK_FULL, ...); a copy that failed half way is removed again.
TESSEL_API BOOL CopyFileA(const char* existingName, const char* newName, BOOL failIfExists);

// Creates the folder pathName (one level; permissions 0777 less the umask). securityAttributes:
// ignored. FALSE with ERROR_ALREADY_EXISTS where a file or folder of that name exists,
// ERROR_PATH_NOT_FOUND where the folder above is missing, ERROR_ACCESS_DENIED, ...
TESSEL_API BOOL CreateDirectoryA(const char* pathName, SECURITY_ATTRIBUTES* securityAttributes);

// Removes the empty folder pathName (a trailing separator is allowed); a symbolic link to a
// folder is removed itself, the folder it points to stays, as the platform removes its folder
// links. FALSE with
// ERROR_DIR_NOT_EMPTY (145) where it holds anything, ERROR_DIRECTORY (267) for a file,
// ERROR_FILE_NOT_FOUND or ERROR_PATH_NOT_FOUND where it does not exist, ERROR_ACCESS_DENIED
// (also for a mount point or the root), ...
TESSEL_API BOOL RemoveDirectoryA(const char* pathName);

inline constexpr DWORD ERROR_DIRECTORY = 267;

// Names a temporary file in the folder path: path, a '/' unless path is empty or ends in '/'
// or '\', the first three characters of prefix (fewer if it is shorter), the number in upper-case
// hexadecimal without leading zeros, and ".tmp", as in "./tvw1A2F.tmp"; written with its NUL
// into tempFileName, which has room for MAX_PATH (260) characters. Only the low 16 bits of a
// number are used. unique non-zero: forms the name with unique and returns unique; no file is
// made. unique 0: makes the new empty file under that name (permissions 0666 less the umask),
// starting from a number that differs between processes and between calls and taking the
// next one (1 to 0xFFFF, wrapping) where a file of that name exists; returns the number of
// the file made. 0 on failure, tempFileName then empty where it is not null:
// ERROR_INVALID_PARAMETER for a null path, prefix or tempFileName, ERROR_BUFFER_OVERFLOW for
// a name that does not fit, ERROR_FILE_EXISTS when all numbers are taken, and the error of
// the failed creation (ERROR_PATH_NOT_FOUND for a missing folder, ERROR_ACCESS_DENIED, ...).
TESSEL_API UINT GetTempFileNameA(const char* path, const char* prefix, UINT unique,
                                 char* tempFileName);

// The kind of file that the file handle file names (see the FILE_TYPE_ values), with the last
// error ERROR_SUCCESS. FILE_TYPE_UNKNOWN with ERROR_INVALID_HANDLE for a handle that is not an
// open file handle (also for handles of other objects, such as events).
TESSEL_API DWORD GetFileType(HANDLE file);

// The path of the open file of handle file into buffer of size characters with its NUL, as the
// system names it now (the file's absolute path). flags: ignored. The length without the NUL;
// where it does not fit, the size needed with the NUL and buffer untouched; 0 on failure with
// the last error set (ERROR_INVALID_HANDLE for a handle that is not a file).
TESSEL_API DWORD GetFinalPathNameByHandleA(HANDLE file, char* buffer, DWORD size, DWORD flags);

}  // namespace Tessel::Platform
