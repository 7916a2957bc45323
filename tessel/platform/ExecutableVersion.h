// The file version of the executable, and of any ELF file.
//
// Linux executables carry no version resource. A program gives itself one by writing, once,
// at namespace scope in one of its source files:
//
//     TESSEL_EXECUTABLE_VERSION("7.7.0.9062")
//
// which places the text, NUL-terminated, in the ELF section ".tessel_version" of the
// executable. GetExecutableFileVersion reads that section back from /proc/self/exe. The text
// is four decimal parts a.b.c.d, each from 0 to 65535, as the platform's file version has.
// Where the source file that uses the macro is compiled without NDEBUG (a debug build), the
// macro also places the section ".tessel_debug": the file then counts as a debug build
// (VS_FF_DEBUG), as a version resource compiled for debugging says on the platform.
//
// GetFileVersionInfoSizeA, GetFileVersionInfoA and VerQueryValueA read the same from any ELF
// file by path, in the platform's form: a version block whose root ("\\") is the fixed record
// VS_FIXEDFILEINFO. The block's layout is the library's own; only VerQueryValueA reads it.
//
// Thread safety: the functions may be called from any thread.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

// Places text in the section ".tessel_version" of the program that is linked with it. Use it
// once per executable, at namespace scope; a shared library that uses it does not change the
// version of the executable that loads it.
#define TESSEL_EXECUTABLE_VERSION(text)                                                \
    extern "C" __attribute__((section(".tessel_version"), used, visibility("hidden"))) \
    const char tessel_executable_version_text[] = text;                                \
    TESSEL_EXECUTABLE_DEBUG_MARK

#ifdef NDEBUG
#define TESSEL_EXECUTABLE_DEBUG_MARK
#else
#define TESSEL_EXECUTABLE_DEBUG_MARK                                                 \
    extern "C" __attribute__((section(".tessel_debug"), used, visibility("hidden"))) \
    const char tessel_executable_debug_mark[] = "debug";
#endif

namespace Tessel::Platform {

// The four parts a.b.c.d of the executable's file version, from the section
// ".tessel_version" of /proc/self/exe. FALSE when the file cannot be read or is no 64-bit
// ELF file, when it has no such section, or when the text is not four decimal parts of at
// most 65535 separated by '.'; the parts are then unchanged.
TESSEL_API BOOL GetExecutableFileVersion(std::uint16_t parts[4]);

// The fixed version record of a file.
struct VS_FIXEDFILEINFO {
    DWORD dwSignature;         // VS_FFI_SIGNATURE
    DWORD dwStrucVersion;      // 0x00010000
    DWORD dwFileVersionMS;     // a << 16 | b of a.b.c.d
    DWORD dwFileVersionLS;     // c << 16 | d
    DWORD dwProductVersionMS;  // the same as the file version
    DWORD dwProductVersionLS;
    DWORD dwFileFlagsMask;  // VS_FFI_FILEFLAGSMASK
    DWORD dwFileFlags;      // VS_FF_DEBUG for a debug build, else 0
    DWORD dwFileOS;         // 0: no operating system of the platform's list
    DWORD dwFileType;       // 0: unknown
    DWORD dwFileSubtype;
    DWORD dwFileDateMS;
    DWORD dwFileDateLS;
};

inline constexpr DWORD VS_FFI_SIGNATURE = 0xFEEF04BDu;
inline constexpr DWORD VS_FFI_FILEFLAGSMASK = 0x0000003Fu;
inline constexpr DWORD VS_FF_DEBUG = 0x00000001u;
inline constexpr DWORD ERROR_RESOURCE_TYPE_NOT_FOUND = 1813;

// The size in bytes of the version block of the file fileName; *handle (if not null) is set
// to 0. 0 with the last error set where the file cannot be read (ERROR_FILE_NOT_FOUND, ...)
// or has no valid version section (ERROR_RESOURCE_TYPE_NOT_FOUND).
TESSEL_API DWORD GetFileVersionInfoSizeA(const char* fileName, DWORD* handle);

// Writes the version block of fileName into data, of length bytes (at least the size that
// GetFileVersionInfoSizeA gives; ERROR_INSUFFICIENT_BUFFER otherwise). handle is ignored.
// FALSE with the last error set as for GetFileVersionInfoSizeA.
TESSEL_API BOOL GetFileVersionInfoA(const char* fileName, DWORD handle, DWORD length, void* data);

// In a block that GetFileVersionInfoA wrote: subBlock "\\" (or "/") gives in *buffer the
// address of its VS_FIXEDFILEINFO and in *length its size. FALSE for other sub-blocks (the
// platform's string tables do not exist here), a block that is not one, or a null argument.
TESSEL_API BOOL VerQueryValueA(const void* block, const char* subBlock, void** buffer,
                               UINT* length);

// Parses "a.b.c.d" into parts: four decimal parts of at most 65535 separated by '.', and
// nothing else. FALSE otherwise, with the parts unchanged.
TESSEL_API BOOL ParseFileVersion(const char* text, std::uint16_t parts[4]);

}  // namespace Tessel::Platform
