// The machine's page size, allocation granularity and processor count.
//
// GetSystemInfo fills the platform's record. The allocation granularity, the alignment that
// the offset of a mapped view of a file must have (FileMapping.h), is 64 KiB, as on the
// platform the library was designed for; the page size is the kernel's.
//
// Thread safety: may be called from any thread.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

struct SYSTEM_INFO {
    std::uint16_t wProcessorArchitecture;  // 9 (x64), 12 (ARM64) or 0xFFFF (other)
    std::uint16_t wReserved;
    DWORD dwPageSize;                      // bytes of one page, 4096 on x86-64
    void* lpMinimumApplicationAddress;     // lowest address a mapping may get
    void* lpMaximumApplicationAddress;     // highest address of the user part
    std::uintptr_t dwActiveProcessorMask;  // one bit per usable processor, as far as it goes
    DWORD dwNumberOfProcessors;            // processors online
    DWORD dwProcessorType;                 // 8664 on x86-64, else 0
    DWORD dwAllocationGranularity;         // 65536
    std::uint16_t wProcessorLevel;
    std::uint16_t wProcessorRevision;
};

// The allocation granularity in bytes.
inline constexpr DWORD ALLOCATION_GRANULARITY = 65536;

// Fills *info (nothing happens for null).
TESSEL_API void GetSystemInfo(SYSTEM_INFO* info);

}  // namespace Tessel::Platform
