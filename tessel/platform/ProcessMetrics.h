// Process and machine metrics: processor count, CPU times, threads, memory, disks, handles
// and network interfaces, in the forms and units that the platform's own queries give.
//
// Sources on Linux: /proc/stat, /proc/meminfo, /proc/self/status, /proc/self/task,
// getrusage, statvfs, getifaddrs and /sys/class/net. Times are in ticks of 100 ns; sizes in
// bytes. Every query returns FALSE on failure and leaves its outputs unspecified; nothing
// throws apart from allocation.
//
// Thread safety: every function may be called from any thread. GetProcessMemoryInfo keeps
// two process-wide maxima (atomic), nothing else keeps state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// The number of processors that are online (sysconf(_SC_NPROCESSORS_ONLN)), at least 1.
TESSEL_API DWORD GetNumberOfProcessors();

// The machine's CPU times summed over all processors since boot, from the first line of
// /proc/stat: idle = idle + iowait; kernel = system + irq + softirq + steal + idle (the
// kernel time includes the idle time, as the platform counts it); user = user + nice (guest
// time is part of user). The kernel's resolution is one clock tick (usually 10 ms).
TESSEL_API BOOL GetSystemTimes(FILETIME* idle, FILETIME* kernel, FILETIME* user);

// Kernel and user time used so far by this process, ended threads included (getrusage,
// microsecond resolution).
TESSEL_API BOOL GetProcessTimes(FILETIME* kernel, FILETIME* user);

// The kernel ids of the live threads of this process, ascending (/proc/self/task).
TESSEL_API BOOL GetProcessThreadIds(std::vector<std::uint64_t>& threadIds);

// Kernel and user time used so far by thread threadId of this process, from
// /proc/self/task/<id>/stat (clock-tick resolution). FALSE for a thread that has ended or
// that is not a thread of this process.
TESSEL_API BOOL GetThreadTimes(std::uint64_t threadId, FILETIME* kernel, FILETIME* user);

// The process's memory counters, in bytes unless said otherwise. Linux has no paged or
// non-paged pools and no page file in the platform's sense, so each counter takes its
// nearest Linux meaning:
//   PageFaultCount              minor + major faults (getrusage); a count, not bytes
//   PeakWorkingSetSize          VmHWM, the peak resident set (/proc/self/status)
//   WorkingSetSize              VmRSS, the resident set
//   QuotaPeakPagedPoolUsage     0: the kernel has no pageable pool charged to a process
//   QuotaPagedPoolUsage         0: as above
//   QuotaPeakNonPagedPoolUsage  the highest QuotaNonPagedPoolUsage this function has seen
//                               in the process
//   QuotaNonPagedPoolUsage      VmPTE, the process's page tables: kernel memory that is
//                               never paged out and is charged to the process
//   PagefileUsage               VmData + VmStk, the private memory the process has
//                               committed (heap, anonymous mappings, stack)
//   PeakPagefileUsage           the highest PagefileUsage this function has seen in the
//                               process
//   PrivateUsage                as PagefileUsage, which is what the platform reports too
struct PROCESS_MEMORY_COUNTERS_EX {
    DWORD cb = sizeof(PROCESS_MEMORY_COUNTERS_EX);
    DWORD PageFaultCount = 0;
    std::uint64_t PeakWorkingSetSize = 0;
    std::uint64_t WorkingSetSize = 0;
    std::uint64_t QuotaPeakPagedPoolUsage = 0;
    std::uint64_t QuotaPagedPoolUsage = 0;
    std::uint64_t QuotaPeakNonPagedPoolUsage = 0;
    std::uint64_t QuotaNonPagedPoolUsage = 0;
    std::uint64_t PagefileUsage = 0;
    std::uint64_t PeakPagefileUsage = 0;
    std::uint64_t PrivateUsage = 0;
};

// The counters of this process; see the structure for their meaning.
TESSEL_API BOOL GetProcessMemoryInfo(PROCESS_MEMORY_COUNTERS_EX* counters);

// The machine's memory status, in bytes (the load in percent):
//   dwMemoryLoad             (MemTotal - MemAvailable) * 100 / MemTotal, rounded down
//   ullTotalPhys             MemTotal (/proc/meminfo)
//   ullAvailPhys             MemAvailable
//   ullTotalPageFile         MemTotal + SwapTotal: the platform's page-file figure is its
//                            commit limit, physical memory plus page files, and swap is the
//                            Linux page file
//   ullAvailPageFile         MemAvailable + SwapFree
//   ullTotalVirtual          the user address space of the process: RLIMIT_AS where it is
//                            set, else 128 TiB less one page (the x86-64 user space)
//   ullAvailVirtual          ullTotalVirtual less VmSize, the address space in use
//   ullAvailExtendedVirtual  0, as on the platform
struct MEMORYSTATUSEX {
    DWORD dwLength = sizeof(MEMORYSTATUSEX);
    DWORD dwMemoryLoad = 0;
    std::uint64_t ullTotalPhys = 0;
    std::uint64_t ullAvailPhys = 0;
    std::uint64_t ullTotalPageFile = 0;
    std::uint64_t ullAvailPageFile = 0;
    std::uint64_t ullTotalVirtual = 0;
    std::uint64_t ullAvailVirtual = 0;
    std::uint64_t ullAvailExtendedVirtual = 0;
};

// Fills status; FALSE when /proc/meminfo cannot be read.
TESSEL_API BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status);

// Sizes of the file system that holds path (statvfs), in bytes: what the caller may use
// (f_bavail), the total size (f_blocks) and the free space (f_bfree). A null output is
// skipped. FALSE when path cannot be examined.
TESSEL_API BOOL GetDiskFreeSpaceExA(const char* path, std::uint64_t* freeBytesAvailableToCaller,
                                    std::uint64_t* totalNumberOfBytes,
                                    std::uint64_t* totalNumberOfFreeBytes);

// The id of the file system (device) that holds path (st_dev of stat); two paths on the
// same mount give the same id. FALSE when path cannot be examined.
TESSEL_API BOOL GetFileSystemId(const char* path, std::uint64_t* id);

// Interface types, as the platform numbers them.
inline constexpr DWORD IF_TYPE_OTHER = 1;
inline constexpr DWORD IF_TYPE_ETHERNET_CSMACD = 6;
inline constexpr DWORD IF_TYPE_PPP = 23;
inline constexpr DWORD IF_TYPE_SOFTWARE_LOOPBACK = 24;
inline constexpr DWORD IF_TYPE_WIRELESS = 157;  // the type number read as a wireless device

// One interface: its row of the platform's interface table.
struct MIB_IFROW {
    std::string name;  // the kernel's interface name, e.g. "eth0", "lo"
    DWORD dwIndex = 0;
    // From /sys/class/net/<name>: type 1 (ARPHRD_ETHER) is IF_TYPE_ETHERNET_CSMACD, or
    // IF_TYPE_WIRELESS when the device has a "wireless" folder; 772 (loopback) is
    // IF_TYPE_SOFTWARE_LOOPBACK; 512 (ppp) is IF_TYPE_PPP; any other is IF_TYPE_OTHER.
    DWORD dwType = IF_TYPE_OTHER;
    DWORD dwMtu = 0;  // bytes
    // Bits per second: the device's speed in Mbit/s times 1,000,000, capped at 0xFFFFFFFF
    // for links faster than 4.29 Gbit/s; 0 when the device reports none (-1 or no value).
    DWORD dwSpeed = 0;
    // Octets received and sent, as the 32-bit counters of the platform's table: they wrap.
    DWORD dwInOctets = 0;
    DWORD dwOutOctets = 0;
};

// The platform's type of a device whose /sys/class/net/<name>/type is deviceType (an
// ARPHRD_* number) and which has, or has not, a "wireless" folder; see MIB_IFROW::dwType.
TESSEL_API DWORD InterfaceTypeOfDevice(long long deviceType, bool wireless);

// The platform's speed in bits per second of a device whose /sys/class/net/<name>/speed
// reads megabitsPerSecond; see MIB_IFROW::dwSpeed.
TESSEL_API DWORD InterfaceSpeedOfDevice(long long megabitsPerSecond);

// The interface index of each row of the machine's IPv4 address table, in the order of the
// table (getifaddrs, AF_INET); an interface with several addresses appears several times.
TESSEL_API BOOL GetIpAddrTableInterfaceIndexes(std::vector<DWORD>& interfaceIndexes);

// Fills row for the interface whose index is in row->dwIndex. FALSE for an unknown index.
TESSEL_API BOOL GetIfEntry(MIB_IFROW* row);

}  // namespace Tessel::Platform
