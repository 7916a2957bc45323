// The process and its threads: identity, folders, debugger output, clocks, thread names,
// priorities and termination, metrics and stack traces; the start of other programs, the
// executable's version, error numbers and their texts, and checked printing into fixed buffers.
#include "tessel/platform/Process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/NetworkClient.h"
#include "support/ParkedThread.h"
#include "support/TestSupport.h"
#include "tessel/host/Util.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/ErrorText.h"
#include "tessel/platform/ExecutableVersion.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/ProcessMetrics.h"
#include "tessel/platform/ProcessStart.h"
#include "tessel/platform/StackTrace.h"
#include "tessel/platform/Thread.h"

TESSEL_EXECUTABLE_VERSION("3.14.15.9265")

using namespace Tessel::Platform;
using PlatformTest::failureOf;
using TesselTest::InvalidParameterError;
using TesselTest::ParkedThread;

namespace {

TEST(Process, ThreadIdsAreKernelIdsOfTheirOwnInEveryThreadAndChildAndHandlesAreDescriptors) {
    const DWORD mine = GetCurrentThreadId();
    EXPECT_EQ(mine, static_cast<DWORD>(::gettid()));
    EXPECT_EQ(GetCurrentProcessId(), static_cast<DWORD>(::getpid()));
    DWORD other = 0;
    std::thread([&other] { other = GetCurrentThreadId(); }).join();
    EXPECT_NE(other, mine);
    EXPECT_EQ(TesselTest::RunInChild([mine] {
                  const DWORD child = GetCurrentThreadId();
                  return child == static_cast<DWORD>(::gettid()) && child != mine ? 0 : 1;
              }),
              0);

    const DWORD before = GetProcessHandleCount();
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    EXPECT_EQ(GetProcessHandleCount(), before + 2);
    ::close(fds[0]);
    ::close(fds[1]);
    EXPECT_EQ(GetProcessHandleCount(), before);
}

TEST(Process, ApplicationDirectoryAndModulePathFollowTesselAppDir) {
    const std::string exe = GetExecutablePath();
    ASSERT_FALSE(exe.empty());
    const std::string name = exe.substr(exe.rfind('/') + 1);
    ::unsetenv("TESSEL_APP_DIR");
    EXPECT_EQ(GetApplicationDirectory(), exe.substr(0, exe.rfind('/')));
    EXPECT_EQ(GetModulePath(), exe);

    ::setenv("TESSEL_APP_DIR", "/opt/station/", 1);
    EXPECT_EQ(GetApplicationDirectory(), "/opt/station");
    EXPECT_EQ(GetModulePath(), "/opt/station/" + name);
    // The module file name is cut to the buffer.
    char buffer[260];
    EXPECT_EQ(GetModuleFileNameA(buffer, sizeof buffer), GetModulePath().size());
    EXPECT_EQ(std::string(buffer), GetModulePath());
    char small[6];
    EXPECT_EQ(GetModuleFileNameA(small, sizeof small), 6u);
    EXPECT_STREQ(small, "/opt/");
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    ::unsetenv("TESSEL_APP_DIR");
}

TEST(DebugOutput, SinkIsReplaceableAndNoDebuggerIsPresent) {
    {
        TesselTest::DebugOutputCapture capture;
        OutputDebugStringA("first");
        OutputDebugStringA(nullptr);
        OutputDebugStringA("second");
        EXPECT_EQ(capture.texts(), (std::vector<std::string>{"first", "second"}));
    }
    EXPECT_EQ(SetDebugOutputSink(nullptr), &SyslogDebugOutputSink);  // back to the default
    EXPECT_FALSE(IsDebuggerPresent());  // the suite does not run under a tracer
}

TEST(Clock, SystemTimeCountsFrom1601AndTheTickCountIsTheLowWordOfTheMillisecondClock) {
    // The precise clock: time() reads a coarse one, which may lag a second boundary.
    const auto now = [] {
        timespec t{};
        ::clock_gettime(CLOCK_REALTIME, &t);
        return static_cast<std::int64_t>(t.tv_sec);
    };
    const std::int64_t before = now();
    const std::int64_t seconds = (GetSystemTimeTicks() - kUnixEpochInSystemTicks) / 10000000;
    EXPECT_GE(seconds, before);
    EXPECT_LE(seconds, now());
    const std::uint64_t wide = GetTickCount64();
    EXPECT_LE(static_cast<DWORD>(GetTickCount() - static_cast<DWORD>(wide)), 1000u);
}

TEST(Thread, NamesAreKeptToFifteenCharactersAndPrioritiesBecomeNiceValuesOfTheThread) {
    ParkedThread parked;
    const DWORD id = static_cast<DWORD>(parked.id());
    EXPECT_TRUE(SetThreadName(id, "CActiveTimerWorker"));
    EXPECT_EQ(GetThreadName(id), "CActiveTimerWor");
    EXPECT_FALSE(SetThreadName(0x7FFFFFF0, "nobody"));
    EXPECT_EQ(GetThreadName(0x7FFFFFF0), "");

    EXPECT_TRUE(SetThreadPriority(id, THREAD_PRIORITY_BELOW_NORMAL));
    EXPECT_EQ(::getpriority(PRIO_PROCESS, id), 5);
    EXPECT_TRUE(SetThreadPriority(id, THREAD_PRIORITY_IDLE));
    EXPECT_EQ(::getpriority(PRIO_PROCESS, id), 19);
    // A raise may be refused by the system; the call still succeeds.
    EXPECT_TRUE(SetThreadPriority(id, THREAD_PRIORITY_TIME_CRITICAL));
    EXPECT_FALSE(SetThreadPriority(id, 7));  // not a priority of the platform
    EXPECT_EQ(::getpriority(PRIO_PROCESS, GetCurrentThreadId()), 0);  // only that thread
}

TEST(Thread, TerminationEndsAThreadAtItsNextWait) {
    std::atomic<bool> started{false};
    std::thread sleeper([&] {
        started = true;
        while (true) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    ASSERT_TRUE(TesselTest::eventually([&] { return started.load(); }));
    EXPECT_TRUE(TerminateThread(sleeper.native_handle(), 0xFFFFFFFF));
    sleeper.join();  // returns because the thread was cancelled
}

long self() {
    return static_cast<long>(GetCurrentThreadId());
}

// The number after key at the start of a line of file ("": the first line); -1 if absent.
long long valueOf(const char* file, const std::string& key) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            return std::atoll(line.c_str() + key.size());
        }
    }
    return -1;
}

// Ticks of 100 ns in one clock tick of /proc.
std::uint64_t ticksPerClockTick() {
    return 10000000ull / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
}

// The id of a thread that has ended and that the kernel no longer lists.
long endedThread() {
    const long id = ParkedThread().id();
    const std::string entry = "/proc/self/task/" + std::to_string(id);
    EXPECT_TRUE(TesselTest::eventually([&] { return ::access(entry.c_str(), F_OK) != 0; }));
    return id;
}

bool listed(const std::vector<std::uint64_t>& ids, long id) {
    return std::find(ids.begin(), ids.end(), static_cast<std::uint64_t>(id)) != ids.end();
}

std::string names(const std::vector<StackFrameInfo>& frames) {
    std::string all;
    for (const StackFrameInfo& frame : frames) {
        all += frame.name + "\n";
    }
    return all;
}

// The function names of the stack of thread id of this process; "" when it cannot be traced.
std::string traceOf(long id) {
    std::vector<std::uintptr_t> addresses;
    return CaptureThreadStack(::getpid(), id, addresses) ? names(DescribeStack(addresses)) : "";
}

const char* const kParkedFunction = "TesselTest::ParkedThread::waitingInAKnownPlace()";

TEST(ProcessMetrics, MachineProcessorsTimesMemoryAndDisksAreTheKernelsFigures) {
    EXPECT_EQ(GetNumberOfProcessors(), static_cast<DWORD>(::sysconf(_SC_NPROCESSORS_ONLN)));
    FILETIME idle, kernel, user;
    ASSERT_TRUE(GetSystemTimes(&idle, &kernel, &user));
    // The same sums of /proc/stat read just after: never smaller.
    std::ifstream stat("/proc/stat");
    std::string label;
    std::uint64_t v[8] = {};
    stat >> label >> v[0] >> v[1] >> v[2] >> v[3] >> v[4] >> v[5] >> v[6] >> v[7];
    ASSERT_TRUE(stat && label == "cpu");
    const std::uint64_t laterIdle = (v[3] + v[4]) * ticksPerClockTick();
    EXPECT_LE(FromFileTime(idle), laterIdle);
    EXPECT_LE(FromFileTime(user), (v[0] + v[1]) * ticksPerClockTick());
    EXPECT_LE(FromFileTime(kernel), (v[2] + v[5] + v[6] + v[7]) * ticksPerClockTick() + laterIdle);
    EXPECT_GE(FromFileTime(kernel), FromFileTime(idle));  // the kernel time includes the idle
    EXPECT_GT(FromFileTime(user), 0u);

    MEMORYSTATUSEX status;
    ASSERT_TRUE(GlobalMemoryStatusEx(&status));
    const long long total = valueOf("/proc/meminfo", "MemTotal:");
    const long long swap = valueOf("/proc/meminfo", "SwapTotal:");
    EXPECT_EQ(status.ullTotalPhys, static_cast<std::uint64_t>(total) * 1024);
    EXPECT_EQ(status.ullTotalPageFile, static_cast<std::uint64_t>(total + swap) * 1024);
    EXPECT_LE(status.ullAvailPhys, status.ullTotalPhys);
    EXPECT_GE(status.ullAvailPageFile, status.ullAvailPhys);
    EXPECT_EQ(status.dwMemoryLoad, static_cast<DWORD>((status.ullTotalPhys - status.ullAvailPhys) *
                                                      100 / status.ullTotalPhys));
    EXPECT_LT(status.ullAvailVirtual, status.ullTotalVirtual);
    EXPECT_EQ(status.ullAvailExtendedVirtual, 0u);

    std::uint64_t available = 0, size = 0, free = 0;
    ASSERT_TRUE(GetDiskFreeSpaceExA("/", &available, &size, &free));
    struct statvfs fs;
    ASSERT_EQ(::statvfs("/", &fs), 0);
    EXPECT_EQ(size, static_cast<std::uint64_t>(fs.f_blocks) * fs.f_frsize);
    EXPECT_LE(available, free);
    EXPECT_LE(free, size);
    EXPECT_FALSE(GetDiskFreeSpaceExA("/no/such/folder/here", &available, &size, &free));
    // File system ids tell mounts apart.
    std::uint64_t root = 0, rootAgain = 0, proc = 0;
    ASSERT_TRUE(GetFileSystemId("/", &root));
    ASSERT_TRUE(GetFileSystemId("/.", &rootAgain));
    ASSERT_TRUE(GetFileSystemId("/proc", &proc));
    EXPECT_EQ(root, rootAgain);
    EXPECT_NE(root, proc);
    EXPECT_FALSE(GetFileSystemId("/no/such/folder/here", &root));
}

// Kernel plus user time of the calling thread, in ticks of 100 ns.
std::uint64_t ownThreadTime() {
    FILETIME kernel, user;
    EXPECT_TRUE(GetThreadTimes(static_cast<std::uint64_t>(self()), &kernel, &user));
    return FromFileTime(kernel) + FromFileTime(user);
}

TEST(ProcessMetrics, ProcessAndThreadTimesGrowWithWorkAndTheThreadListFollowsThreads) {
    FILETIME kernel0, user0, kernel1, user1;
    ASSERT_TRUE(GetProcessTimes(&kernel0, &user0));
    const std::uint64_t thread0 = ownThreadTime();
    std::uint64_t thread1 = thread0;
    volatile std::uint64_t sink = 0;
    do {
        for (int i = 0; i < 100000; ++i) {
            sink = sink + static_cast<std::uint64_t>(i);
        }
        ASSERT_TRUE(GetProcessTimes(&kernel1, &user1));
        thread1 = ownThreadTime();
    } while (FromFileTime(user1) == FromFileTime(user0) || thread1 == thread0);
    EXPECT_GT(FromFileTime(user1), FromFileTime(user0));
    EXPECT_GE(FromFileTime(kernel1), FromFileTime(kernel0));
    EXPECT_EQ(thread1 % ticksPerClockTick(), 0u);  // the resolution of /proc

    FILETIME kernel, user;
    {
        ParkedThread parked;
        std::vector<std::uint64_t> ids;
        ASSERT_TRUE(GetProcessThreadIds(ids));
        EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
        EXPECT_TRUE(listed(ids, self()));
        EXPECT_TRUE(listed(ids, parked.id()));
        EXPECT_TRUE(GetThreadTimes(static_cast<std::uint64_t>(parked.id()), &kernel, &user));
    }
    const long ended = endedThread();
    std::vector<std::uint64_t> ids;
    ASSERT_TRUE(GetProcessThreadIds(ids));
    EXPECT_FALSE(listed(ids, ended));
    // A thread that has ended, and a thread of another process, fail cleanly.
    EXPECT_FALSE(GetThreadTimes(static_cast<std::uint64_t>(ended), &kernel, &user));
    EXPECT_FALSE(GetThreadTimes(0, &kernel, &user));
}

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

TEST(ProcessMetrics, InterfaceTypesSpeedsAndTheLoopbacksEntryWithItsOctetCounters) {
    EXPECT_EQ(InterfaceTypeOfDevice(1, false), IF_TYPE_ETHERNET_CSMACD);
    EXPECT_EQ(InterfaceTypeOfDevice(1, true), IF_TYPE_WIRELESS);
    EXPECT_EQ(InterfaceTypeOfDevice(772, false), IF_TYPE_SOFTWARE_LOOPBACK);
    EXPECT_EQ(InterfaceTypeOfDevice(512, false), IF_TYPE_PPP);
    EXPECT_EQ(InterfaceTypeOfDevice(776, false), IF_TYPE_OTHER);
    // Bits per second in 32 bits.
    EXPECT_EQ(InterfaceSpeedOfDevice(0), 0u);
    EXPECT_EQ(InterfaceSpeedOfDevice(4294), 4294000000u);
    EXPECT_EQ(InterfaceSpeedOfDevice(4295), 0xFFFFFFFFu);

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
    EXPECT_EQ(before.dwMtu, static_cast<DWORD>(valueOf("/sys/class/net/lo/mtu", "")));
    ASSERT_TRUE(TesselTest::SendOverLoopback(10000, 2));
    MIB_IFROW after;
    after.dwIndex = index;
    ASSERT_TRUE(GetIfEntry(&after));
    // 32-bit counters: the difference is taken modulo 2^32.
    EXPECT_GE(static_cast<DWORD>(after.dwOutOctets - before.dwOutOctets), 20000u);
    EXPECT_GE(static_cast<DWORD>(after.dwInOctets - before.dwInOctets), 20000u);

    MIB_IFROW unknown;
    unknown.dwIndex = 0x7FFFFFF0u;
    EXPECT_FALSE(GetIfEntry(&unknown));
}

// The parts that text parses to as "a.b.c.d"; on failure "failed " and the parts untouched.
std::string parse(const char* text) {
    std::uint16_t parts[4] = {11, 22, 33, 44};
    const BOOL valid = ParseFileVersion(text, parts);
    return std::string(valid ? "" : "failed ") + std::to_string(parts[0]) + "." +
           std::to_string(parts[1]) + "." + std::to_string(parts[2]) + "." +
           std::to_string(parts[3]);
}

TEST(ExecutableVersion, ProgramReadsBackItsOwnVersionAndOnlyFourShortPartsParse) {
    std::uint16_t own[4] = {};
    ASSERT_TRUE(GetExecutableFileVersion(own));
    EXPECT_EQ(std::vector<std::uint16_t>(own, own + 4),
              (std::vector<std::uint16_t>{3, 14, 15, 9265}));
    EXPECT_EQ(parse("65535.65535.65535.65535"), "65535.65535.65535.65535");
    for (const char* text :
         {"65536.0.0.0", "1.2.3", "1.2.3.4 ", "1..2.3", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(parse(text), "failed 11.22.33.44") << (text != nullptr ? text : "null");
    }
}

TEST(StackTrace, AParkedThreadAndTheCallerItselfShowTheFunctionsTheyAreIn) {
    ParkedThread parked;
    std::vector<std::uintptr_t> addresses;
    ASSERT_TRUE(CaptureThreadStack(::getpid(), parked.id(), addresses));
    ASSERT_FALSE(addresses.empty());
    EXPECT_LE(addresses.size(), kMaxStackFrames);
    const std::vector<StackFrameInfo> frames = DescribeStack(addresses);
    ASSERT_EQ(frames.size(), addresses.size());
    const std::string all = names(frames);
    // None of the signal handler's own frames is shown.
    for (const char* handlerFrame : {"onTraceSignal", "collectFrame", "CaptureThreadStack"}) {
        EXPECT_EQ(all.find(handlerFrame), std::string::npos) << all;
    }
    const auto known = std::find_if(frames.begin(), frames.end(), [](const StackFrameInfo& f) {
        return f.name == kParkedFunction;
    });
    ASSERT_NE(known, frames.end()) << all;
    EXPECT_EQ(known->address, addresses[static_cast<std::size_t>(known - frames.begin())]);
#if TESSEL_TEST_DEBUG_INFO
    // Only a build with debug information knows the file and line of the call.
    EXPECT_TRUE(known->file.ends_with("/ParkedThread.cpp")) << known->file;
    EXPECT_GT(known->line, 0u);
#endif
    const std::string own = traceOf(self());
    EXPECT_NE(own.find("AParkedThreadAndTheCallerItself"), std::string::npos) << own;
}

TEST(StackTrace, OnlyLiveThreadsOfThisProcessAreTraced) {
    const long ended = endedThread();
    const long cases[][2] = {
        {::getpid(), 0}, {::getppid(), self()}, {::getpid(), ended}, {::getpid(), 0x7FFFFF0}};
    for (const auto& c : cases) {
        std::vector<std::uintptr_t> addresses{1, 2, 3};
        EXPECT_FALSE(CaptureThreadStack(c[0], c[1], addresses)) << c[0] << " " << c[1];
        EXPECT_TRUE(addresses.empty()) << c[0] << " " << c[1];
    }
}

TEST(StackTrace, AThreadThatBlocksTheSignalTimesOutAndItsLateAnswerChangesNothing) {
    ParkedThread blocking(true);
    std::vector<std::uintptr_t> addresses;
    EXPECT_FALSE(CaptureThreadStack(::getpid(), blocking.id(), addresses, 100));
    EXPECT_TRUE(addresses.empty());
    // The next request goes to another thread while the first signal is still pending.
    ParkedThread other;
    EXPECT_NE(traceOf(other.id()).find(kParkedFunction), std::string::npos);
    // The blocking thread takes its signal now, late: its handler finds no request.
    blocking.release();
    EXPECT_NE(traceOf(other.id()).find(kParkedFunction), std::string::npos);
}

TEST(StackTrace, ConcurrentRequestsEachGetTheirOwnThread) {
    ParkedThread first;
    ParkedThread second;
    std::atomic<int> failures{0};
    auto trace = [&](long id) {
        for (int i = 0; i < 20; ++i) {
            failures += traceOf(id).find(kParkedFunction) == std::string::npos ? 1 : 0;
        }
    };
    std::thread a(trace, first.id());
    std::thread b(trace, second.id());
    a.join();
    b.join();
    EXPECT_EQ(failures.load(), 0);
}

// A new folder below the test process's temp folder.
std::string newFolder() {
    std::string pattern = std::filesystem::temp_directory_path() / "start-XXXXXX";
    return ::mkdtemp(pattern.data());
}

// Starts commandLine; the information is zeroed first.
BOOL start(std::string commandLine, PROCESS_INFORMATION& information,
           const char* environment = nullptr, const char* directory = nullptr) {
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    information = PROCESS_INFORMATION{};
    return CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0,
                          const_cast<char*>(environment), directory, &startup, &information);
}

TEST(ProcessStart, SplitsAtBlanksTakesEnvironmentFolderAndOnlyTheStandardDescriptors) {
    const std::string dir = newFolder();
    // Two inheritable descriptors of a file of the test's own, a low and a high one.
    const int low = ::open((dir + "/marker").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(low, 3);
    ASSERT_EQ(::dup2(low, 200), 200);
    std::ofstream(dir + "/script") << "pwd >out\nenv >>out\nls -l /proc/$$/fd >>out\n";
    PROCESS_INFORMATION information;
    const char environment[] = "TESSEL_ONE=1\0TESSEL_TWO=two\0";
    ASSERT_EQ(start("sh  \tscript", information, environment, dir.c_str()), TRUE);
    EXPECT_GT(information.dwProcessId, 0u);
    EXPECT_EQ(information.dwThreadId, information.dwProcessId);
    EXPECT_EQ(information.hThread, nullptr);
    ASSERT_NE(information.hProcess, nullptr);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, 0), WAIT_OBJECT_0);
    std::stringstream out;
    out << std::ifstream(dir + "/out").rdbuf();
    EXPECT_EQ(out.str().substr(0, out.str().find('\n')), std::filesystem::canonical(dir).string());
    EXPECT_NE(out.str().find("TESSEL_ONE=1\n"), std::string::npos);
    EXPECT_NE(out.str().find("TESSEL_TWO=two\n"), std::string::npos);
    EXPECT_NE(out.str().find("/script"), std::string::npos) << "the listing of its descriptors";
    EXPECT_EQ(out.str().find("/marker"), std::string::npos) << out.str();
    // Reaped without anybody asking: no zombie remains.
    const std::string entry = "/proc/" + std::to_string(information.dwProcessId);
    EXPECT_TRUE(TesselTest::eventually([&] { return !std::filesystem::exists(entry); }));
    EXPECT_EQ(CloseHandle(information.hProcess), TRUE);
    ::close(low);
    ::close(200);
}

TEST(ProcessStart, ReportsWhatItCannotStart) {
    PROCESS_INFORMATION information;
    EXPECT_EQ(failureOf(start("tessel-no-such-program-anywhere /x", information)),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(failureOf(start("  \t ", information)), ERROR_INVALID_PARAMETER);
    const std::string notExecutable = newFolder() + "/plain";
    std::ofstream(notExecutable) << "text\n";
    EXPECT_EQ(failureOf(start(notExecutable, information)), ERROR_ACCESS_DENIED);
}

constexpr DWORD kFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;

TEST(LastError, ErrnoValuesMapToPlatformNumbers) {
    EXPECT_EQ(SetLastErrorFromErrno(ENOENT), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(SetLastErrorFromErrno(ENOTDIR), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(SetLastErrorFromErrno(EACCES), ERROR_ACCESS_DENIED);
    EXPECT_EQ(SetLastErrorFromErrno(EEXIST), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(SetLastErrorFromErrno(EINVAL), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SetLastErrorFromErrno(ENOSPC), ERROR_DISK_FULL);
    EXPECT_EQ(SetLastErrorFromErrno(0), ERROR_SUCCESS);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(HresultFromError(ERROR_ACCESS_DENIED), static_cast<std::int32_t>(0x80070005u));
    EXPECT_EQ(HresultFromError(0), 0);
}

TEST(ErrorText, SystemTextsEndInCrLfAndLeaveTheLastErrorAndFailuresSetIt) {
    const struct {
        DWORD error;
        const char* text;
    } cases[] = {
        {2, "The system cannot find the file specified.\r\n"},
        {1460, "This operation returned because the timeout period expired.\r\n"},
        {0x80070005u, "Access is denied.\r\n"},  // in HRESULT form
    };
    for (const auto& c : cases) {
        char buffer[256];
        SetLastError(12345);
        EXPECT_EQ(FormatMessageA(kFlags, nullptr, c.error, 0, buffer, 256, nullptr),
                  std::strlen(c.text));
        EXPECT_STREQ(buffer, c.text);
        EXPECT_EQ(GetLastError(), 12345u);  // success leaves it alone
    }
    // Every error number that the platform layer reports has a one-line text.
    for (DWORD error :
         {0,   1,   2,   3,   4,    5,    6,    8,    14,   21,   29,   30,   32,   33,
          38,  50,  80,  87,  109,  112,  122,  123,  145,  170,  183,  206,  234,  259,
          288, 317, 995, 997, 1009, 1010, 1011, 1012, 1013, 1018, 1060, 1224, 1460, 1630}) {
        char text[256];
        ASSERT_GT(FormatMessageA(kFlags, nullptr, error, 0, text, 256, nullptr), 2u) << error;
        EXPECT_EQ(CUtil::CleanUnprintableString(text, sizeof(text)), 1) << error;
        EXPECT_EQ(text[std::strlen(text) - 1], '.') << error;
    }

    // Failures empty the buffer where there is room, and set the last error.
    const struct {
        DWORD flags, error, size, lastError;
    } failures[] = {
        {kFlags, ERROR_ACCESS_DENIED, 20, 0},  // "Access is denied.\r\n" and its NUL fit
        {FORMAT_MESSAGE_FROM_SYSTEM, ERROR_ACCESS_DENIED, 20, 0},  // no inserts to ignore
        {kFlags, ERROR_ACCESS_DENIED, 19, ERROR_INSUFFICIENT_BUFFER},
        {kFlags, ERROR_ACCESS_DENIED, 0, ERROR_INSUFFICIENT_BUFFER},
        {kFlags, 7, 64, ERROR_MR_MID_NOT_FOUND},
        {FORMAT_MESSAGE_FROM_SYSTEM, ERROR_MR_MID_NOT_FOUND, 200, ERROR_INVALID_PARAMETER},  // %1
        {FORMAT_MESSAGE_IGNORE_INSERTS, ERROR_ACCESS_DENIED, 64, ERROR_INVALID_PARAMETER},
        {kFlags | FORMAT_MESSAGE_ALLOCATE_BUFFER, ERROR_ACCESS_DENIED, 64, ERROR_INVALID_PARAMETER},
    };
    for (const auto& c : failures) {
        SCOPED_TRACE(testing::Message() << c.flags << " " << c.error << " size " << c.size);
        char buffer[256];
        std::memset(buffer, 'X', sizeof(buffer));
        SetLastError(0);
        const DWORD written = FormatMessageA(c.flags, nullptr, c.error, 0, buffer, c.size, nullptr);
        EXPECT_EQ(GetLastError(), c.lastError);
        EXPECT_EQ(written, c.lastError == 0 ? c.size - 1 : 0);
        if (c.lastError != 0) {
            EXPECT_EQ(buffer[0], c.size > 0 ? '\0' : 'X');
            EXPECT_EQ(buffer[1], 'X');
        }
    }
}

void ignoringHandler(const char*, const char*, const char*, unsigned int) {}

TEST(CheckedPrint, TextThatDoesNotFitIsAnInvalidParameterUnlessACountedPrintMayCutIt) {
    char buffer[8];
    EXPECT_EQ(sprintf_s(buffer, sizeof buffer, "%s%d", "ab", 1234), 6);
    EXPECT_STREQ(buffer, "ab1234");
    EXPECT_EQ(sprintf_s(buffer, sizeof buffer, "%s", "1234567"), 7);  // exactly fits
    {
        TesselTest::InvalidParameterThrows throws;
        std::memset(buffer, 'z', sizeof buffer);
        EXPECT_THROW(sprintf_s(buffer, sizeof buffer, "%s", "12345678"), InvalidParameterError);
        EXPECT_EQ(buffer[0], '\0');  // emptied, and nothing written past the end
        EXPECT_THROW(sprintf_s(nullptr, 4, "x"), InvalidParameterError);
        EXPECT_THROW(sprintf_s(buffer, 0, "x"), InvalidParameterError);
        // So is a count past the buffer for output that does not fit.
        EXPECT_EQ(_snprintf_s(buffer, 4, 10, "%s", "ab"), 2);
        EXPECT_THROW(_snprintf_s(buffer, 4, 10, "%s", "abcdef"), InvalidParameterError);
    }
    // A handler that returns gives -1.
    const InvalidParameterHandler previous = SetInvalidParameterHandler(&ignoringHandler);
    EXPECT_EQ(sprintf_s(buffer, 4, "%s", "toolong"), -1);
    EXPECT_STREQ(buffer, "");
    SetInvalidParameterHandler(previous);
    EXPECT_EQ(GetInvalidParameterHandler(), previous);

    // A counted print may cut the text instead: to the buffer, or at the count.
    EXPECT_EQ(_snprintf_s(buffer, sizeof buffer, _TRUNCATE, "%s", "abcdefg"), 7);
    EXPECT_EQ(_snprintf_s(buffer, sizeof buffer, _TRUNCATE, "%s", "abcdefgh"), -1);
    EXPECT_STREQ(buffer, "abcdefg");
    EXPECT_EQ(_snprintf_s(buffer, sizeof buffer, 3, "%s", "abcdef"), -1);
    EXPECT_STREQ(buffer, "abc");
}

TEST(CheckedPrint, DefaultHandlerAborts) {
    char buffer[4];
    EXPECT_DEATH(sprintf_s(buffer, sizeof buffer, "%s", "toolong"), "Invalid parameter");
}

}  // namespace
