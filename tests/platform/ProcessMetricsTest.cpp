#include "tessel/platform/ProcessMetrics.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/NetworkClient.h"
#include "support/ParkedThread.h"
#include "tessel/platform/ExecutableVersion.h"
#include "tessel/platform/StackTrace.h"

TESSEL_EXECUTABLE_VERSION("3.14.15.9265")

using namespace Tessel::Platform;

namespace {

using TesselTest::ParkedThread;

long threadId() {
    return static_cast<long>(::syscall(SYS_gettid));
}

// The number after key in a file of "key value" lines such as /proc/meminfo; -1 if absent.
long long valueOf(const char* file, const std::string& key) {
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, key.size(), key) == 0) {
            return std::atoll(line.c_str() + key.size());
        }
    }
    return -1;
}

std::string readLine(const std::string& file) {
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

// After a join the kernel may list the thread for a moment longer; waits until it does not
// (for at most 20 s, a safety net).
bool goneFromTheKernel(long id) {
    const std::string path = "/proc/self/task/" + std::to_string(id);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (::access(path.c_str(), F_OK) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::string names(const std::vector<StackFrameInfo>& frames) {
    std::string all;
    for (const StackFrameInfo& frame : frames) {
        all += frame.name + "\n";
    }
    return all;
}

// --- processors, CPU times ---

TEST(ProcessMetrics, ProcessorCountIsTheOnlineCount) {
    EXPECT_EQ(GetNumberOfProcessors(), static_cast<DWORD>(::sysconf(_SC_NPROCESSORS_ONLN)));
}

TEST(ProcessMetrics, SystemTimesComeFromProcStatInHundredNanosecondTicks) {
    FILETIME idle, kernel, user;
    ASSERT_TRUE(GetSystemTimes(&idle, &kernel, &user));
    // The same sums of /proc/stat read just after: never smaller, and not far off.
    unsigned long long v[8] = {};
    const std::string line = readLine("/proc/stat");
    ASSERT_GE(std::sscanf(line.c_str(), "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &v[0], &v[1],
                          &v[2], &v[3], &v[4], &v[5], &v[6], &v[7]),
              4);
    const std::uint64_t perTick = 10000000ull / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    const std::uint64_t laterIdle = (v[3] + v[4]) * perTick;
    const std::uint64_t laterUser = (v[0] + v[1]) * perTick;
    const std::uint64_t laterKernel = (v[2] + v[5] + v[6] + v[7]) * perTick + laterIdle;
    EXPECT_LE(FromFileTime(idle), laterIdle);
    EXPECT_LE(FromFileTime(user), laterUser);
    EXPECT_LE(FromFileTime(kernel), laterKernel);
    // The kernel time includes the idle time.
    EXPECT_GE(FromFileTime(kernel), FromFileTime(idle));
    EXPECT_GT(FromFileTime(user), 0u);
}

TEST(ProcessMetrics, ProcessTimesGrowWithWork) {
    FILETIME kernel0, user0;
    ASSERT_TRUE(GetProcessTimes(&kernel0, &user0));
    FILETIME kernel1 = kernel0, user1 = user0;
    volatile std::uint64_t sink = 0;
    while (FromFileTime(user1) == FromFileTime(user0)) {
        for (int i = 0; i < 100000; ++i) {
            sink = sink + static_cast<std::uint64_t>(i);
        }
        ASSERT_TRUE(GetProcessTimes(&kernel1, &user1));
    }
    EXPECT_GT(FromFileTime(user1), FromFileTime(user0));
    EXPECT_GE(FromFileTime(kernel1), FromFileTime(kernel0));
}

TEST(ProcessMetrics, ThreadListFollowsThreadsThatStartAndEnd) {
    long ended = 0;
    {
        ParkedThread parked;
        ended = parked.id();
        std::vector<std::uint64_t> ids;
        ASSERT_TRUE(GetProcessThreadIds(ids));
        EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
        EXPECT_NE(std::find(ids.begin(), ids.end(), static_cast<std::uint64_t>(threadId())),
                  ids.end());
        EXPECT_NE(std::find(ids.begin(), ids.end(), static_cast<std::uint64_t>(parked.id())),
                  ids.end());
        FILETIME kernel, user;
        EXPECT_TRUE(GetThreadTimes(static_cast<std::uint64_t>(parked.id()), &kernel, &user));
    }
    ASSERT_TRUE(goneFromTheKernel(ended));
    std::vector<std::uint64_t> ids;
    ASSERT_TRUE(GetProcessThreadIds(ids));
    EXPECT_EQ(std::find(ids.begin(), ids.end(), static_cast<std::uint64_t>(ended)), ids.end());
    // A thread that has ended, and a thread of another process, fail cleanly.
    FILETIME kernel, user;
    EXPECT_FALSE(GetThreadTimes(static_cast<std::uint64_t>(ended), &kernel, &user));
    EXPECT_FALSE(GetThreadTimes(0, &kernel, &user));
}

TEST(ProcessMetrics, ThreadTimesCountTheThreadsOwnWork) {
    FILETIME kernel0, user0;
    ASSERT_TRUE(GetThreadTimes(static_cast<std::uint64_t>(threadId()), &kernel0, &user0));
    FILETIME kernel1 = kernel0, user1 = user0;
    volatile std::uint64_t sink = 0;
    while (FromFileTime(user1) + FromFileTime(kernel1) ==
           FromFileTime(user0) + FromFileTime(kernel0)) {
        for (int i = 0; i < 100000; ++i) {
            sink = sink + static_cast<std::uint64_t>(i);
        }
        ASSERT_TRUE(GetThreadTimes(static_cast<std::uint64_t>(threadId()), &kernel1, &user1));
    }
    // One clock tick of /proc is 100,000 ticks of 100 ns at the usual 100 Hz.
    const std::uint64_t perTick = 10000000ull / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    EXPECT_EQ((FromFileTime(user1) + FromFileTime(kernel1)) % perTick, 0u);
}

// --- memory ---

TEST(ProcessMetrics, ProcessMemoryFollowsTheResidentAndCommittedMemory) {
    PROCESS_MEMORY_COUNTERS_EX before;
    ASSERT_TRUE(GetProcessMemoryInfo(&before));
    constexpr std::size_t kSize = 64u << 20;
    char* block = static_cast<char*>(std::malloc(kSize));
    ASSERT_NE(block, nullptr);
    std::memset(block, 1, kSize);  // resident now
    PROCESS_MEMORY_COUNTERS_EX after;
    ASSERT_TRUE(GetProcessMemoryInfo(&after));
    const long long rssKb = valueOf("/proc/self/status", "VmRSS:");
    std::free(block);

    EXPECT_GE(after.WorkingSetSize, before.WorkingSetSize + kSize - (4u << 20));
    EXPECT_GE(after.PeakWorkingSetSize, after.WorkingSetSize);
    EXPECT_GE(after.PagefileUsage, before.PagefileUsage + kSize - (4u << 20));
    EXPECT_EQ(after.PrivateUsage, after.PagefileUsage);
    EXPECT_GE(after.PeakPagefileUsage, after.PagefileUsage);
    EXPECT_GE(after.QuotaPeakNonPagedPoolUsage, after.QuotaNonPagedPoolUsage);
    EXPECT_EQ(after.QuotaPeakPagedPoolUsage, 0u);
    EXPECT_EQ(after.QuotaPagedPoolUsage, 0u);
    EXPECT_GE(after.PageFaultCount, before.PageFaultCount);
    // The working set is VmRSS, within what touching a few pages in between adds.
    EXPECT_NEAR(static_cast<double>(after.WorkingSetSize), static_cast<double>(rssKb) * 1024.0,
                2.0 * 1048576.0);

    // The peak stays when the memory is given back.
    PROCESS_MEMORY_COUNTERS_EX freed;
    ASSERT_TRUE(GetProcessMemoryInfo(&freed));
    EXPECT_GE(freed.PeakPagefileUsage, after.PagefileUsage);
}

TEST(ProcessMetrics, MachineMemoryComesFromProcMeminfo) {
    MEMORYSTATUSEX status;
    ASSERT_TRUE(GlobalMemoryStatusEx(&status));
    const long long total = valueOf("/proc/meminfo", "MemTotal:");
    const long long swap = valueOf("/proc/meminfo", "SwapTotal:");
    EXPECT_EQ(status.ullTotalPhys, static_cast<std::uint64_t>(total) * 1024);
    EXPECT_EQ(status.ullTotalPageFile, static_cast<std::uint64_t>(total + swap) * 1024);
    EXPECT_LE(status.ullAvailPhys, status.ullTotalPhys);
    EXPECT_GE(status.ullAvailPageFile, status.ullAvailPhys);
    EXPECT_LE(status.dwMemoryLoad, 100u);
    EXPECT_EQ(status.dwMemoryLoad, static_cast<DWORD>((status.ullTotalPhys - status.ullAvailPhys) *
                                                      100 / status.ullTotalPhys));
    EXPECT_GT(status.ullTotalVirtual, 0u);
    EXPECT_LT(status.ullAvailVirtual, status.ullTotalVirtual);
    EXPECT_EQ(status.ullAvailExtendedVirtual, 0u);
}

// --- disks, file systems ---

TEST(ProcessMetrics, DiskSpaceIsThatOfStatvfs) {
    std::uint64_t available = 0, total = 0, free = 0;
    ASSERT_TRUE(GetDiskFreeSpaceExA("/", &available, &total, &free));
    struct statvfs fs;
    ASSERT_EQ(::statvfs("/", &fs), 0);
    EXPECT_EQ(total, static_cast<std::uint64_t>(fs.f_blocks) * fs.f_frsize);
    EXPECT_LE(available, free);
    EXPECT_LE(free, total);
    EXPECT_FALSE(GetDiskFreeSpaceExA("/no/such/folder/here", &available, &total, &free));
    EXPECT_FALSE(GetDiskFreeSpaceExA(nullptr, &available, &total, &free));
}

TEST(ProcessMetrics, FileSystemIdsTellMountsApart) {
    std::uint64_t root = 0, rootAgain = 0, proc = 0;
    ASSERT_TRUE(GetFileSystemId("/", &root));
    ASSERT_TRUE(GetFileSystemId("/.", &rootAgain));
    ASSERT_TRUE(GetFileSystemId("/proc", &proc));
    EXPECT_EQ(root, rootAgain);
    EXPECT_NE(root, proc);
    EXPECT_FALSE(GetFileSystemId("/no/such/folder/here", &root));
}

// --- network interfaces ---

TEST(ProcessMetrics, InterfaceTypesMapToThePlatformsNumbers) {
    struct Case {
        long long deviceType;
        bool wireless;
        DWORD expected;
    };
    const Case cases[] = {
        {1, false, IF_TYPE_ETHERNET_CSMACD},
        {1, true, IF_TYPE_WIRELESS},
        {772, false, IF_TYPE_SOFTWARE_LOOPBACK},
        {512, false, IF_TYPE_PPP},
        {776, false, IF_TYPE_OTHER},
        {65534, false, IF_TYPE_OTHER},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(InterfaceTypeOfDevice(c.deviceType, c.wireless), c.expected)
            << c.deviceType << " " << c.wireless;
    }
    EXPECT_EQ(IF_TYPE_ETHERNET_CSMACD, 6u);
    EXPECT_EQ(IF_TYPE_SOFTWARE_LOOPBACK, 24u);
    EXPECT_EQ(IF_TYPE_WIRELESS, 157u);
    EXPECT_EQ(IF_TYPE_PPP, 23u);
}

TEST(ProcessMetrics, InterfaceSpeedsAreBitsPerSecondIn32Bits) {
    struct Case {
        long long megabits;
        DWORD expected;
    };
    const Case cases[] = {
        {-1, 0},
        {0, 0},
        {10, 10000000u},
        {1000, 1000000000u},
        {4294, 4294000000u},
        {4295, 0xFFFFFFFFu},
        {10000, 0xFFFFFFFFu},
        {400000, 0xFFFFFFFFu},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(InterfaceSpeedOfDevice(c.megabits), c.expected) << c.megabits;
    }
}

TEST(ProcessMetrics, LoopbackIsInTheTableAndCountsItsOctets) {
    const unsigned index = ::if_nametoindex("lo");
    ASSERT_NE(index, 0u);
    std::vector<DWORD> indexes;
    ASSERT_TRUE(GetIpAddrTableInterfaceIndexes(indexes));
    EXPECT_NE(std::find(indexes.begin(), indexes.end(), index), indexes.end());

    MIB_IFROW before;
    before.dwIndex = index;
    ASSERT_TRUE(GetIfEntry(&before));
    EXPECT_EQ(before.name, "lo");
    EXPECT_EQ(before.dwType, IF_TYPE_SOFTWARE_LOOPBACK);
    EXPECT_EQ(before.dwMtu, static_cast<DWORD>(std::stoul(readLine("/sys/class/net/lo/mtu"))));

    // Send 20,000 bytes of UDP payload over the loopback device.
    ASSERT_TRUE(TesselTest::SendOverLoopback(10000, 2));

    MIB_IFROW after;
    after.dwIndex = index;
    ASSERT_TRUE(GetIfEntry(&after));
    // 32-bit counters: the difference is taken modulo 2^32.
    EXPECT_GE(static_cast<DWORD>(after.dwOutOctets - before.dwOutOctets), 20000u);
    EXPECT_GE(static_cast<DWORD>(after.dwInOctets - before.dwInOctets), 20000u);
}

TEST(ProcessMetrics, UnknownInterfaceIndexFails) {
    MIB_IFROW row;
    row.dwIndex = 0x7FFFFFF0u;
    EXPECT_FALSE(GetIfEntry(&row));
}

// --- executable version ---

TEST(ExecutableVersion, TheProgramReadsBackItsOwnVersion) {
    std::uint16_t parts[4] = {};
    ASSERT_TRUE(GetExecutableFileVersion(parts));
    EXPECT_EQ(parts[0], 3);
    EXPECT_EQ(parts[1], 14);
    EXPECT_EQ(parts[2], 15);
    EXPECT_EQ(parts[3], 9265);
}

TEST(ExecutableVersion, OnlyFourDecimalPartsOfSixteenBitsParse) {
    struct Case {
        const char* text;
        bool valid;
        std::uint16_t parts[4];
    };
    const Case cases[] = {
        {"7.7.0.9062", true, {7, 7, 0, 9062}},
        {"0.0.0.0", true, {0, 0, 0, 0}},
        {"65535.65535.65535.65535", true, {65535, 65535, 65535, 65535}},
        {"65536.0.0.0", false, {}},
        {"1.2.3", false, {}},
        {"1.2.3.4.5", false, {}},
        {"1..2.3", false, {}},
        {"1.2.3.4 ", false, {}},
        {" 1.2.3.4", false, {}},
        {"a.b.c.d", false, {}},
        {"1.2.3.-4", false, {}},
        {"", false, {}},
    };
    for (const Case& c : cases) {
        std::uint16_t parts[4] = {11, 22, 33, 44};
        EXPECT_EQ(ParseFileVersion(c.text, parts) == TRUE, c.valid) << c.text;
        for (int i = 0; i < 4; ++i) {
            const std::uint16_t expected = c.valid ? c.parts[i] : std::uint16_t((i + 1) * 11);
            EXPECT_EQ(parts[i], expected) << c.text << " part " << i;
        }
    }
    std::uint16_t parts[4] = {};
    EXPECT_FALSE(ParseFileVersion(nullptr, parts));
}

// --- stack traces ---

TEST(StackTrace, AParkedThreadShowsTheFunctionItWaitsIn) {
    ParkedThread parked;
    std::vector<std::uintptr_t> addresses;
    ASSERT_TRUE(CaptureThreadStack(::getpid(), parked.id(), addresses));
    ASSERT_FALSE(addresses.empty());
    EXPECT_LE(addresses.size(), kMaxStackFrames);
    const std::vector<StackFrameInfo> frames = DescribeStack(addresses);
    ASSERT_EQ(frames.size(), addresses.size());
    const std::string all = names(frames);
    EXPECT_NE(all.find("waitingInAKnownPlace"), std::string::npos) << all;
    // None of the signal handler's own frames is shown.
    EXPECT_EQ(all.find("onTraceSignal"), std::string::npos) << all;
    EXPECT_EQ(all.find("collectFrame"), std::string::npos) << all;
    EXPECT_EQ(all.find("CaptureThreadStack"), std::string::npos) << all;
    // The frame of the known function has its file and line.
    const auto known = std::find_if(frames.begin(), frames.end(), [](const StackFrameInfo& f) {
        return f.name.find("waitingInAKnownPlace") != std::string::npos;
    });
    ASSERT_NE(known, frames.end());
    // The file is that of the innermost source line at the return address: this file, or a
    // header whose code the compiler placed there.
    EXPECT_FALSE(known->file.empty());
    EXPECT_GT(known->line, 0u);
}

TEST(StackTrace, AThreadCanTraceItself) {
    std::vector<std::uintptr_t> addresses;
    ASSERT_TRUE(CaptureThreadStack(::getpid(), threadId(), addresses));
    const std::string all = names(DescribeStack(addresses));
    EXPECT_NE(all.find("AThreadCanTraceItself"), std::string::npos) << all;
}

TEST(StackTrace, OnlyThreadsOfThisProcessAreTraced) {
    long ended = 0;
    {
        ParkedThread parked;
        ended = parked.id();
    }
    ASSERT_TRUE(goneFromTheKernel(ended));
    std::vector<std::uintptr_t> addresses{1, 2, 3};
    EXPECT_FALSE(CaptureThreadStack(::getpid(), 0, addresses));
    EXPECT_TRUE(addresses.empty());
    EXPECT_FALSE(CaptureThreadStack(::getpid(), ended, addresses));
    EXPECT_TRUE(addresses.empty());
    EXPECT_FALSE(CaptureThreadStack(::getpid(), -5, addresses));
    EXPECT_FALSE(CaptureThreadStack(::getppid(), threadId(), addresses));
    EXPECT_FALSE(CaptureThreadStack(0, threadId(), addresses));
    EXPECT_TRUE(addresses.empty());
}

TEST(StackTrace, AThreadThatBlocksTheSignalTimesOutAndALateAnswerChangesNothing) {
    ParkedThread blocking(true);
    std::vector<std::uintptr_t> addresses;
    EXPECT_FALSE(CaptureThreadStack(::getpid(), blocking.id(), addresses, 100));
    EXPECT_TRUE(addresses.empty());
    {
        // The next request goes to another thread while the first signal is still pending.
        ParkedThread other;
        ASSERT_TRUE(CaptureThreadStack(::getpid(), other.id(), addresses));
        EXPECT_NE(names(DescribeStack(addresses)).find("waitingInAKnownPlace"), std::string::npos);
        // The blocking thread takes its signal now, late: its handler finds no request.
        blocking.release();
        ASSERT_TRUE(CaptureThreadStack(::getpid(), other.id(), addresses));
        EXPECT_NE(names(DescribeStack(addresses)).find("waitingInAKnownPlace"), std::string::npos);
    }
}

TEST(StackTrace, ConcurrentRequestsEachGetTheirOwnThread) {
    ParkedThread first;
    ParkedThread second;
    std::atomic<int> failures{0};
    auto trace = [&](long id) {
        for (int i = 0; i < 20; ++i) {
            std::vector<std::uintptr_t> addresses;
            if (!CaptureThreadStack(::getpid(), id, addresses) ||
                names(DescribeStack(addresses)).find("waitingInAKnownPlace") == std::string::npos) {
                ++failures;
            }
        }
    };
    std::thread a(trace, first.id());
    std::thread b(trace, second.id());
    a.join();
    b.join();
    EXPECT_EQ(failures.load(), 0);
}

}  // namespace
