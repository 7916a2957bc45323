#include "tessel/platform/ProcessMetrics.h"

#include <dirent.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_link.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {
namespace {

constexpr std::uint64_t kTicksPerSecond = 10000000;

// Reads a small file (of /proc or /sys) whole into buffer, NUL-terminated; the number of
// bytes read, or -1. /proc files must be read in one go to be consistent.
ssize_t readSmallFile(const char* path, char* buffer, std::size_t size) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return -1;
    }
    std::size_t used = 0;
    while (used + 1 < size) {
        const ssize_t n = ::read(fd, buffer + used, size - 1 - used);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            SetLastErrorFromErrno(errno);
            ::close(fd);
            return -1;
        }
        if (n == 0) {
            break;
        }
        used += static_cast<std::size_t>(n);
    }
    ::close(fd);
    buffer[used] = '\0';
    return static_cast<ssize_t>(used);
}

// The number after "key" (which includes its colon) at the start of a line of text, e.g.
// "VmRSS:" in /proc/self/status; false if there is no such line.
bool findValue(const char* text, const char* key, std::uint64_t& value) {
    const std::size_t keyLength = std::strlen(key);
    for (const char* line = text; line != nullptr && *line != '\0';) {
        if (std::strncmp(line, key, keyLength) == 0) {
            value = std::strtoull(line + keyLength, nullptr, 10);
            return true;
        }
        line = std::strchr(line, '\n');
        if (line != nullptr) {
            ++line;
        }
    }
    return false;
}

// Ticks of 100 ns of one clock tick of /proc (USER_HZ).
std::uint64_t ticksPerClockTick() {
    static const std::uint64_t perTick = [] {
        const long hz = ::sysconf(_SC_CLK_TCK);
        return hz > 0 ? kTicksPerSecond / static_cast<std::uint64_t>(hz) : 100000u;
    }();
    return perTick;
}

std::uint64_t timevalTicks(const timeval& tv) {
    return static_cast<std::uint64_t>(tv.tv_sec) * kTicksPerSecond +
           static_cast<std::uint64_t>(tv.tv_usec) * 10u;
}

void raiseTo(std::atomic<std::uint64_t>& peak, std::uint64_t value) {
    std::uint64_t seen = peak.load(std::memory_order_relaxed);
    while (value > seen && !peak.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
}

// The highest values seen. Relaxed: each is a number on its own that publishes nothing.
std::atomic<std::uint64_t> g_peakNonPagedPool{0};
std::atomic<std::uint64_t> g_peakPagefileUsage{0};

// Reads /sys/class/net/<name>/<attribute> as a signed number; false if it has none (the
// speed of a virtual or disconnected device reads as an error or as -1).
bool readNetAttribute(const std::string& name, const char* attribute, long long& value) {
    const std::string path = "/sys/class/net/" + name + "/" + attribute;
    char buffer[64];
    if (readSmallFile(path.c_str(), buffer, sizeof buffer) <= 0) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    value = std::strtoll(buffer, &end, 10);
    return end != buffer && errno == 0;
}

bool pathExists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

}  // namespace

DWORD GetNumberOfProcessors() {
    const long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? static_cast<DWORD>(count) : 1u;
}

BOOL GetSystemTimes(FILETIME* idle, FILETIME* kernel, FILETIME* user) {
    char buffer[512];
    if (readSmallFile("/proc/stat", buffer, sizeof buffer) <= 0) {
        return FALSE;
    }
    // "cpu  user nice system idle iowait irq softirq steal guest guest_nice"
    unsigned long long v[8] = {};
    if (std::sscanf(buffer, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &v[0], &v[1], &v[2],
                    &v[3], &v[4], &v[5], &v[6], &v[7]) < 4) {
        SetLastError(ERROR_INVALID_FUNCTION);
        return FALSE;
    }
    const std::uint64_t perTick = ticksPerClockTick();
    const std::uint64_t idleTicks = (v[3] + v[4]) * perTick;
    const std::uint64_t kernelTicks = (v[2] + v[5] + v[6] + v[7]) * perTick + idleTicks;
    const std::uint64_t userTicks = (v[0] + v[1]) * perTick;
    if (idle != nullptr) {
        *idle = ToFileTime(idleTicks);
    }
    if (kernel != nullptr) {
        *kernel = ToFileTime(kernelTicks);
    }
    if (user != nullptr) {
        *user = ToFileTime(userTicks);
    }
    return TRUE;
}

BOOL GetProcessTimes(FILETIME* kernel, FILETIME* user) {
    rusage usage;
    if (::getrusage(RUSAGE_SELF, &usage) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    *kernel = ToFileTime(timevalTicks(usage.ru_stime));
    *user = ToFileTime(timevalTicks(usage.ru_utime));
    return TRUE;
}

BOOL GetProcessThreadIds(std::vector<std::uint64_t>& threadIds) {
    threadIds.clear();
    DIR* dir = ::opendir("/proc/self/task");
    if (dir == nullptr) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    while (const dirent* entry = ::readdir(dir)) {
        char* end = nullptr;
        const unsigned long long id = std::strtoull(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0') {
            threadIds.push_back(id);
        }
    }
    ::closedir(dir);
    std::sort(threadIds.begin(), threadIds.end());
    return TRUE;
}

BOOL GetThreadTimes(std::uint64_t threadId, FILETIME* kernel, FILETIME* user) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%llu/stat",
                  static_cast<unsigned long long>(threadId));
    char buffer[1024];
    if (readSmallFile(path, buffer, sizeof buffer) <= 0) {
        SetLastError(ERROR_INVALID_THREAD_ID);
        return FALSE;
    }
    // "tid (comm) state ppid ..."; the name may hold blanks and parentheses, so the fields
    // are counted from the last ')'. utime and stime are fields 14 and 15.
    const char* rest = std::strrchr(buffer, ')');
    if (rest == nullptr) {
        SetLastError(ERROR_INVALID_THREAD_ID);
        return FALSE;
    }
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    if (std::sscanf(rest + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime,
                    &stime) != 2) {
        SetLastError(ERROR_INVALID_THREAD_ID);
        return FALSE;
    }
    *kernel = ToFileTime(stime * ticksPerClockTick());
    *user = ToFileTime(utime * ticksPerClockTick());
    return TRUE;
}

BOOL GetProcessMemoryInfo(PROCESS_MEMORY_COUNTERS_EX* counters) {
    char buffer[4096];
    if (readSmallFile("/proc/self/status", buffer, sizeof buffer) <= 0) {
        return FALSE;
    }
    std::uint64_t hwm = 0, rss = 0, data = 0, stack = 0, pte = 0;
    if (!findValue(buffer, "VmHWM:", hwm) || !findValue(buffer, "VmRSS:", rss) ||
        !findValue(buffer, "VmData:", data) || !findValue(buffer, "VmStk:", stack)) {
        SetLastError(ERROR_INVALID_FUNCTION);
        return FALSE;
    }
    findValue(buffer, "VmPTE:", pte);
    rusage usage;
    if (::getrusage(RUSAGE_SELF, &usage) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    PROCESS_MEMORY_COUNTERS_EX result;
    result.PageFaultCount = static_cast<DWORD>(usage.ru_minflt + usage.ru_majflt);
    result.PeakWorkingSetSize = hwm * 1024;
    result.WorkingSetSize = rss * 1024;
    result.QuotaNonPagedPoolUsage = pte * 1024;
    raiseTo(g_peakNonPagedPool, result.QuotaNonPagedPoolUsage);
    result.QuotaPeakNonPagedPoolUsage = g_peakNonPagedPool.load(std::memory_order_relaxed);
    result.PagefileUsage = (data + stack) * 1024;
    result.PrivateUsage = result.PagefileUsage;
    raiseTo(g_peakPagefileUsage, result.PagefileUsage);
    result.PeakPagefileUsage = g_peakPagefileUsage.load(std::memory_order_relaxed);
    *counters = result;
    return TRUE;
}

BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status) {
    char buffer[8192];
    if (readSmallFile("/proc/meminfo", buffer, sizeof buffer) <= 0) {
        return FALSE;
    }
    std::uint64_t total = 0, available = 0, swapTotal = 0, swapFree = 0;
    if (!findValue(buffer, "MemTotal:", total) || !findValue(buffer, "MemAvailable:", available)) {
        SetLastError(ERROR_INVALID_FUNCTION);
        return FALSE;
    }
    findValue(buffer, "SwapTotal:", swapTotal);
    findValue(buffer, "SwapFree:", swapFree);

    MEMORYSTATUSEX result;
    result.dwMemoryLoad =
        total == 0 ? 0 : static_cast<DWORD>((total - std::min(available, total)) * 100 / total);
    result.ullTotalPhys = total * 1024;
    result.ullAvailPhys = available * 1024;
    result.ullTotalPageFile = (total + swapTotal) * 1024;
    result.ullAvailPageFile = (available + swapFree) * 1024;

    std::uint64_t addressSpace = (std::uint64_t{1} << 47) - 4096;
    rlimit limit;
    if (::getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        addressSpace = std::min<std::uint64_t>(addressSpace, limit.rlim_cur);
    }
    std::uint64_t inUse = 0;
    char status2[4096];
    if (readSmallFile("/proc/self/status", status2, sizeof status2) > 0) {
        findValue(status2, "VmSize:", inUse);
    }
    result.ullTotalVirtual = addressSpace;
    result.ullAvailVirtual = addressSpace - std::min(addressSpace, inUse * 1024);
    result.ullAvailExtendedVirtual = 0;
    *status = result;
    return TRUE;
}

BOOL GetDiskFreeSpaceExA(const char* path, std::uint64_t* freeBytesAvailableToCaller,
                         std::uint64_t* totalNumberOfBytes, std::uint64_t* totalNumberOfFreeBytes) {
    struct statvfs fs;
    if (path == nullptr || ::statvfs(path, &fs) != 0) {
        SetLastErrorFromErrno(path == nullptr ? EINVAL : errno);
        return FALSE;
    }
    const std::uint64_t unit = fs.f_frsize != 0 ? fs.f_frsize : fs.f_bsize;
    if (freeBytesAvailableToCaller != nullptr) {
        *freeBytesAvailableToCaller = static_cast<std::uint64_t>(fs.f_bavail) * unit;
    }
    if (totalNumberOfBytes != nullptr) {
        *totalNumberOfBytes = static_cast<std::uint64_t>(fs.f_blocks) * unit;
    }
    if (totalNumberOfFreeBytes != nullptr) {
        *totalNumberOfFreeBytes = static_cast<std::uint64_t>(fs.f_bfree) * unit;
    }
    return TRUE;
}

BOOL GetFileSystemId(const char* path, std::uint64_t* id) {
    struct stat st;
    if (path == nullptr || ::stat(path, &st) != 0) {
        SetLastErrorFromErrno(path == nullptr ? EINVAL : errno);
        return FALSE;
    }
    *id = static_cast<std::uint64_t>(st.st_dev);
    return TRUE;
}

BOOL GetIpAddrTableInterfaceIndexes(std::vector<DWORD>& interfaceIndexes) {
    interfaceIndexes.clear();
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        const unsigned index = ::if_nametoindex(entry->ifa_name);
        if (index != 0) {
            interfaceIndexes.push_back(index);
        }
    }
    ::freeifaddrs(list);
    return TRUE;
}

BOOL GetIfEntry(MIB_IFROW* row) {
    char name[IF_NAMESIZE] = {};
    if (::if_indextoname(row->dwIndex, name) == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    bool found = false;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_PACKET &&
            entry->ifa_data != nullptr && std::strcmp(entry->ifa_name, name) == 0) {
            const auto* stats = static_cast<const rtnl_link_stats*>(entry->ifa_data);
            row->dwInOctets = stats->rx_bytes;
            row->dwOutOctets = stats->tx_bytes;
            found = true;
            break;
        }
    }
    ::freeifaddrs(list);
    if (!found) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    row->name = name;

    long long value = 0;
    row->dwType =
        readNetAttribute(row->name, "type", value)
            ? InterfaceTypeOfDevice(value, pathExists("/sys/class/net/" + row->name + "/wireless"))
            : IF_TYPE_OTHER;
    row->dwMtu =
        readNetAttribute(row->name, "mtu", value) && value > 0 ? static_cast<DWORD>(value) : 0u;
    row->dwSpeed = readNetAttribute(row->name, "speed", value) ? InterfaceSpeedOfDevice(value) : 0u;
    return TRUE;
}

DWORD InterfaceTypeOfDevice(long long deviceType, bool wireless) {
    switch (deviceType) {
        case 1:  // ARPHRD_ETHER, also the type of wireless devices
            return wireless ? IF_TYPE_WIRELESS : IF_TYPE_ETHERNET_CSMACD;
        case 772:  // ARPHRD_LOOPBACK
            return IF_TYPE_SOFTWARE_LOOPBACK;
        case 512:  // ARPHRD_PPP
            return IF_TYPE_PPP;
        default:
            return IF_TYPE_OTHER;
    }
}

DWORD InterfaceSpeedOfDevice(long long megabitsPerSecond) {
    if (megabitsPerSecond <= 0) {
        return 0;
    }
    if (megabitsPerSecond >= 4295) {
        return 0xFFFFFFFFu;  // 4295 Mbit/s and more do not fit the 32-bit field
    }
    return static_cast<DWORD>(megabitsPerSecond * 1000000);
}

}  // namespace Tessel::Platform
