// Mapping objects of files and the views that map them into memory.
//
// CreateFileMappingA makes a mapping object of a file that CreateFileA opened (File.h): a
// section of a size fixed when it is made, the file's size or a larger one to which a
// writable mapping extends the file. MapViewOfFile maps a range of the section into the
// address space; its offset must be a multiple of the allocation granularity, 64 KiB
// (SystemInfo.h). The mapping object holds the file open through a descriptor of its own, so
// the file handle may be closed once the mapping exists; each view holds its mapping object,
// so a view stays valid until UnmapViewOfFile, also after the mapping handle was closed.
// Mapping handles close with CloseHandle (Handle.h); a wait on one fails with
// ERROR_INVALID_HANDLE.
//
// Read-only views (FILE_MAP_READ) are handed out of aligned spans of 16 MiB that the mapping
// object maps once and keeps, with up to two spans without a view, until it goes: moving a
// small window along a file then costs no munmap, whose flush of the translation buffers
// dwarfs the copying of the bytes on virtual machines. So two read-only views of one range
// may have the same address, and the address space of a walked file stays mapped up to two
// spans beyond the views in use. A view across a span boundary, and every writable one, is
// mapped on its own.
//
// Truncation refused. While a mapping object exists (from CreateFileMappingA until its handle
// is closed and its last view is unmapped, so in particular while a view is mapped), it holds
// an OFD read lock (F_OFD_SETLK) of the section's bytes, offset 0 to the section size, through
// an open file description of its own. Open file description locks are seen by every process
// and every other open of the file, so SetEndOfFile and the truncating dispositions of
// CreateFileA, which look for such a lock (MappedSectionInTheWay in detail/FileMapping.h),
// fail with ERROR_USER_MAPPED_FILE (1224) when they would cut into a mapped section of this
// or another process. The lock is advisory: a program that truncates the file without the
// check (another tool, truncate(1)) is not stopped, and touching a view beyond the new end of
// the file then raises SIGBUS. Where the lock cannot be had (a write lock of someone else
// that stays for more than a second) the mapping is made without it.
//
// Thread safety: all functions may be called from any thread. Using a view while another
// thread unmaps it is an error of the caller, as on the platform.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Page protections of CreateFileMappingA.
inline constexpr DWORD PAGE_READONLY = 0x02;
inline constexpr DWORD PAGE_READWRITE = 0x04;
inline constexpr DWORD PAGE_WRITECOPY = 0x08;

// Access of MapViewOfFile.
inline constexpr DWORD FILE_MAP_COPY = 0x0001;
inline constexpr DWORD FILE_MAP_WRITE = 0x0002;
inline constexpr DWORD FILE_MAP_READ = 0x0004;
inline constexpr DWORD FILE_MAP_ALL_ACCESS = 0x000F001F;

// Errors of the mapping functions that Types.h does not list.

// Makes a mapping object of file, a handle of CreateFileA. protect: PAGE_READONLY (the file
// handle needs GENERIC_READ), PAGE_READWRITE (GENERIC_READ and GENERIC_WRITE) or
// PAGE_WRITECOPY (GENERIC_READ; writes to a view stay private to it). The section size is
// maximumSizeHigh:maximumSizeLow in bytes, or the file's size when both are 0; a size beyond
// the file's extends the file with zero bytes, which only PAGE_READWRITE may do. attributes
// are ignored; name must be null (mappings are not shared by name here).
// The handle of the mapping, or null with the last error: ERROR_INVALID_HANDLE (file is not an
// open file handle), ERROR_ACCESS_DENIED (protect exceeds the handle's access),
// ERROR_INVALID_PARAMETER (an unknown protect), ERROR_NOT_SUPPORTED (a name),
// ERROR_FILE_INVALID (an empty file with size 0), ERROR_NOT_ENOUGH_MEMORY (a read-only
// section larger than the file), or the error of the system call that failed.
TESSEL_API HANDLE CreateFileMappingA(HANDLE file, SECURITY_ATTRIBUTES* attributes, DWORD protect,
                                     DWORD maximumSizeHigh, DWORD maximumSizeLow, const char* name);

// Maps bytes bytes of the section of mapping from the offset fileOffsetHigh:fileOffsetLow,
// a multiple of 64 KiB; bytes 0 maps to the end of the section. desiredAccess: FILE_MAP_READ;
// FILE_MAP_WRITE or FILE_MAP_ALL_ACCESS (read and write, shared with the file; needs
// PAGE_READWRITE); FILE_MAP_COPY (read and private writes). The first byte of the view, or
// null with the last error: ERROR_INVALID_HANDLE (not a mapping), ERROR_MAPPED_ALIGNMENT (an
// offset that is no multiple of 64 KiB), ERROR_ACCESS_DENIED (a range that does not lie within
// the section, an empty one included, or an access that the section does not allow),
// ERROR_NOT_ENOUGH_MEMORY (no address space).
TESSEL_API void* MapViewOfFile(HANDLE mapping, DWORD desiredAccess, DWORD fileOffsetHigh,
                               DWORD fileOffsetLow, std::size_t bytes);

// Unmaps the view that starts at baseAddress, as MapViewOfFile returned it. FALSE with
// ERROR_INVALID_ADDRESS for any other address, also for a view unmapped before.
TESSEL_API BOOL UnmapViewOfFile(const void* baseAddress);

// Writes the changed pages of a view, from baseAddress for bytes bytes (0: to the view's end),
// to the file (msync). FALSE with ERROR_INVALID_ADDRESS for an address outside every view.
TESSEL_API BOOL FlushViewOfFile(const void* baseAddress, std::size_t bytes);

}  // namespace Tessel::Platform
