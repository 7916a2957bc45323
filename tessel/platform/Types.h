// The platform's basic types, wait results and error numbers.
//
// The library's classes were designed against the Windows API and read the results it
// gives; the Linux stand-ins in this folder return those same numbers, so that each class's
// algorithm is written once. Everything here lives in Tessel::Platform and never in the
// global namespace, so a host program's own definitions of these names do not collide.
#pragma once

#include <cstdint>

namespace Tessel::Platform {

using DWORD = std::uint32_t;
using BOOL = int;
using LONG = std::int32_t;

// A handle names one kernel object (event, mutex, ...) owned by the platform layer. It is
// an opaque pointer: null is "no handle", and CloseHandle frees the object.
struct KernelObject;
using HANDLE = KernelObject*;

// A window names the receiver of messages: a thread's message queue, or a top-level window of
// another process. Opaque; null is "no window".
struct WindowObject;
using HWND = WindowObject*;

// Message words: the message number, and its two parameters, each as wide as a pointer.
using UINT = unsigned int;
using WPARAM = std::uintptr_t;
using LPARAM = std::intptr_t;
using LRESULT = std::intptr_t;

// Stands for the platform's security attributes; accepted and ignored on Linux, where access
// to named objects follows the permissions of their files.
struct SECURITY_ATTRIBUTES {
    DWORD nLength = sizeof(SECURITY_ATTRIBUTES);
    void* lpSecurityDescriptor = nullptr;
    BOOL bInheritHandle = 0;
};

// A signed 64-bit number that the platform's interfaces pass in two 32-bit halves: due times
// of timers, counter readings.
union LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    };
    std::int64_t QuadPart;
};

// An unsigned 64-bit number in two 32-bit halves: sizes and byte counts of disks.
union ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    };
    std::uint64_t QuadPart;
};

// A time or time span in ticks of 100 ns, split into two 32-bit halves.
struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

// ticks as a FILETIME, and back.
inline FILETIME ToFileTime(std::uint64_t ticks) {
    return FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}
inline std::uint64_t FromFileTime(const FILETIME& time) {
    return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

inline constexpr BOOL TRUE = 1;
inline constexpr BOOL FALSE = 0;

inline constexpr DWORD INFINITE = 0xFFFFFFFFu;

// The "invalid handle" value of the platform, distinct from null; some calls take it as an
// argument with a meaning of its own.
inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});

// Results of the waits.
inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_ABANDONED = 0x80;
inline constexpr DWORD WAIT_ABANDONED_0 = WAIT_ABANDONED;
inline constexpr DWORD WAIT_IO_COMPLETION = 0xC0;
inline constexpr DWORD WAIT_TIMEOUT = 258;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFFu;
inline constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;

// Access right that suffices to wait on a named object.
inline constexpr DWORD SYNCHRONIZE = 0x00100000u;
inline constexpr DWORD MUTEX_ALL_ACCESS = 0x001F0001u;
inline constexpr DWORD EVENT_ALL_ACCESS = 0x001F0003u;

// File attributes.
inline constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x00000001u;
inline constexpr DWORD FILE_ATTRIBUTE_HIDDEN = 0x00000002u;
inline constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x00000010u;
inline constexpr DWORD FILE_ATTRIBUTE_ARCHIVE = 0x00000020u;
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x00000080u;
inline constexpr DWORD FILE_ATTRIBUTE_TEMPORARY = 0x00000100u;
inline constexpr DWORD FILE_ATTRIBUTE_REPARSE_POINT = 0x00000400u;  // a symbolic link

// Error numbers, as GetLastError reports them.
inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD ERROR_INVALID_FUNCTION = 1;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
inline constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
inline constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5;
inline constexpr DWORD ERROR_INVALID_HANDLE = 6;
inline constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr DWORD ERROR_OUTOFMEMORY = 14;
inline constexpr DWORD ERROR_NOT_SAME_DEVICE = 17;
inline constexpr DWORD ERROR_NO_MORE_FILES = 18;
inline constexpr DWORD ERROR_NOT_READY = 21;
inline constexpr DWORD ERROR_WRITE_FAULT = 29;
inline constexpr DWORD ERROR_READ_FAULT = 30;
inline constexpr DWORD ERROR_GEN_FAILURE = 31;
inline constexpr DWORD ERROR_SHARING_VIOLATION = 32;
inline constexpr DWORD ERROR_LOCK_VIOLATION = 33;
inline constexpr DWORD ERROR_HANDLE_EOF = 38;
inline constexpr DWORD ERROR_NOT_SUPPORTED = 50;
inline constexpr DWORD ERROR_BAD_NETPATH = 53;
inline constexpr DWORD ERROR_FILE_EXISTS = 80;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_BROKEN_PIPE = 109;
inline constexpr DWORD ERROR_BUFFER_OVERFLOW = 111;
inline constexpr DWORD ERROR_DISK_FULL = 112;
inline constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr DWORD ERROR_INVALID_NAME = 123;
inline constexpr DWORD ERROR_NEGATIVE_SEEK = 131;
inline constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
inline constexpr DWORD ERROR_BUSY = 170;
inline constexpr DWORD ERROR_ALREADY_EXISTS = 183;
inline constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
inline constexpr DWORD ERROR_MORE_DATA = 234;
inline constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
inline constexpr DWORD ERROR_NOT_OWNER = 288;
inline constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317;
inline constexpr DWORD ERROR_INVALID_ADDRESS = 487;
inline constexpr DWORD ERROR_OPERATION_ABORTED = 995;
inline constexpr DWORD ERROR_IO_PENDING = 997;
inline constexpr DWORD ERROR_FILE_INVALID = 1006;
inline constexpr DWORD ERROR_BADDB = 1009;
inline constexpr DWORD ERROR_BADKEY = 1010;
inline constexpr DWORD ERROR_CANTOPEN = 1011;
inline constexpr DWORD ERROR_CANTREAD = 1012;
inline constexpr DWORD ERROR_CANTWRITE = 1013;
inline constexpr DWORD ERROR_KEY_DELETED = 1018;
inline constexpr DWORD ERROR_SERVICE_DOES_NOT_EXIST = 1060;
inline constexpr DWORD ERROR_MAPPED_ALIGNMENT = 1132;
inline constexpr DWORD ERROR_USER_MAPPED_FILE = 1224;
inline constexpr DWORD ERROR_INVALID_THREAD_ID = 1444;
inline constexpr DWORD ERROR_TIMEOUT = 1460;
inline constexpr DWORD ERROR_UNSUPPORTED_TYPE = 1630;
inline constexpr DWORD ERROR_NOT_ENOUGH_QUOTA = 1816;

}  // namespace Tessel::Platform
