// The operating system's version and name.
//
// GetVersionExA fills the platform's version record as that platform does for a program that
// declares no newer system: the NT family (platform id 2), version 6.2, build 9200, a
// workstation. The library's version classes read it to choose how they look for hardware,
// and that version leads them to the list of serial ports (SerialPortScan.h). The kernel's
// own release is of no use to them and is not reported.
//
// OsPrettyName gives the system's name for people, PRETTY_NAME of os-release(5).
//
// Thread safety: the functions hold no state and may be called from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

inline constexpr DWORD VER_PLATFORM_WIN32s = 0;
inline constexpr DWORD VER_PLATFORM_WIN32_WINDOWS = 1;
inline constexpr DWORD VER_PLATFORM_WIN32_NT = 2;
inline constexpr std::uint8_t VER_NT_WORKSTATION = 1;

// The extended version record; dwOSVersionInfoSize must be set to its size before the call.
struct OSVERSIONINFOEXA {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    char szCSDVersion[128];  // the service pack, "" here
    std::uint16_t wServicePackMajor;
    std::uint16_t wServicePackMinor;
    std::uint16_t wSuiteMask;
    std::uint8_t wProductType;
    std::uint8_t wReserved;
};

// Fills *info as described above. FALSE with ERROR_INVALID_PARAMETER (87) as the last error
// for a null record or one whose dwOSVersionInfoSize is not sizeof(OSVERSIONINFOEXA).
TESSEL_API BOOL GetVersionExA(OSVERSIONINFOEXA* info);

// PRETTY_NAME of the os-release file at path ("Debian GNU/Linux 12 (bookworm)"), with its
// quotes and shell escapes removed; "" when the file or the field is missing. Without a path,
// /etc/os-release, or /usr/lib/os-release where that is missing.
TESSEL_API std::string OsPrettyName(const std::string& path = "");

}  // namespace Tessel::Platform
