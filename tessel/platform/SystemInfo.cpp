#include "tessel/platform/SystemInfo.h"

#include <unistd.h>

#include <climits>

namespace Tessel::Platform {

void GetSystemInfo(SYSTEM_INFO* info) {
    if (info == nullptr) {
        return;
    }
    *info = SYSTEM_INFO{};
#if defined(__x86_64__)
    info->wProcessorArchitecture = 9;
    info->dwProcessorType = 8664;
#elif defined(__aarch64__)
    info->wProcessorArchitecture = 12;
#else
    info->wProcessorArchitecture = 0xFFFF;
#endif
    const long page = ::sysconf(_SC_PAGESIZE);
    info->dwPageSize = page > 0 ? static_cast<DWORD>(page) : 4096;
    info->lpMinimumApplicationAddress = reinterpret_cast<void*>(std::uintptr_t{0x10000});
    info->lpMaximumApplicationAddress =
        reinterpret_cast<void*>((std::uintptr_t{1} << 47) - 0x10001);
    const long processors = ::sysconf(_SC_NPROCESSORS_ONLN);
    info->dwNumberOfProcessors = processors > 0 ? static_cast<DWORD>(processors) : 1;
    const unsigned maskBits = sizeof(std::uintptr_t) * CHAR_BIT;
    info->dwActiveProcessorMask = info->dwNumberOfProcessors >= maskBits
                                      ? ~std::uintptr_t{0}
                                      : (std::uintptr_t{1} << info->dwNumberOfProcessors) - 1;
    info->dwAllocationGranularity = ALLOCATION_GRANULARITY;
}

}  // namespace Tessel::Platform
