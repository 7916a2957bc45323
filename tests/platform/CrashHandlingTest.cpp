// The way into the dump path: faults of every kind reach the filter once and end the process by
// their signal, the pure-call handler, the crash report, the process core and the guard. Every
// fault happens in a forked child; its filter leaves what it saw in a file.
#include "tessel/platform/CrashHandling.h"

#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/TestSupport.h"

using namespace Tessel::Platform;
using TesselTest::RunInChild;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TESSEL_TEST_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TESSEL_TEST_SANITIZED
#endif
#endif

namespace {

constexpr long kAbortInFilter = 99;
std::string g_seen;  // where the filters below write
long g_result = 0;   // what noting returns, or kAbortInFilter
int* volatile g_address = reinterpret_cast<int*>(0x10);
volatile int g_zero = 0, g_one = 1, g_stopDepth = -1;
LPTOP_LEVEL_EXCEPTION_FILTER g_previous = nullptr;

// A pure virtual call: Base's constructor calls run() through a member pointer that the
// compiler cannot see.
struct Base {
    Base();
    virtual ~Base() = default;
    virtual void run() = 0;
};
void (Base::*volatile g_run)() = &Base::run;
Base::Base() {
    (this->*g_run)();
}
struct Derived : Base {
    void run() override {}
};

std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

void note(const char* text) {
    const int fd = ::open(g_seen.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    EXPECT_EQ(static_cast<ssize_t>(std::strlen(text)), ::write(fd, text, std::strlen(text)));
    ::close(fd);
}

long noting(EXCEPTION_POINTERS* pointers) {
    char line[64];
    std::snprintf(line, sizeof line, "%d %X\n", pointers->ContextRecord->Signal,
                  pointers->ExceptionRecord->ExceptionCode);
    note(line);
    if (g_result == kAbortInFilter) {
        std::abort();
    }
    return g_result;
}

int recurse(int depth) {
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    return depth == g_stopDepth ? 0 : recurse(depth + 1) + frame[0];
}

void overflowOnAThread() {
    std::thread([] {
        EnsureAlternateSignalStack();
        recurse(0);
    }).join();
}

void abortDecided() {
    SetCrashDecidedOnThisThread();
    std::abort();
}

struct FaultCase {
    const char* name;
    void (*fault)();
    long result;       // of the filter
    const char* seen;  // what the filter wrote
    int death;         // the signal that ended the child
};

void PrintTo(const FaultCase& c, std::ostream* os) {
    *os << c.name;
}

const FaultCase kFaultCases[] = {
    {"AccessViolation", [] { *g_address = 1; }, 1, "11 C0000005\n", SIGSEGV},
    {"IntegerDivisionByZero", [] { g_zero = g_one / g_zero; }, 1, "8 C0000094\n", SIGFPE},
    {"AbortAndContinueSearch", [] { std::abort(); }, 0, "6 40000015\n", SIGABRT},
    {"IllegalInstructionAndContinueExecution", [] { __builtin_trap(); }, -1, "4 C000001D\n",
     SIGILL},
    {"StackOverflowOnALibraryThread", overflowOnAThread, 1, "11 C0000005\n", SIGSEGV},
    {"AbortOfADecidedThreadSkipsTheFilter", abortDecided, 1, "", SIGABRT},
    {"AbortInTheFilterEndsAtOnce", [] { *g_address = 1; }, kAbortInFilter, "11 C0000005\n",
     SIGABRT},
};

class CrashFilter : public testing::TestWithParam<FaultCase> {
  protected:
    void SetUp() override {
#ifdef TESSEL_TEST_SANITIZED
        GTEST_SKIP() << "the sanitizer's run-time owns the fatal signals in this build";
#endif
        g_seen = std::string(std::getenv("TMPDIR")) + "/seen";
        std::filesystem::remove(g_seen);
    }
};

TEST_P(CrashFilter, SeesTheFaultOnceAndTheChildDiesByItsSignal) {
    const FaultCase& c = GetParam();
    EXPECT_EQ(128 + c.death, RunInChild([&c] {
                  g_result = c.result;
                  SetUnhandledExceptionFilter(noting);
                  c.fault();
                  return 0;
              }));
    EXPECT_EQ(c.seen, readFile(g_seen));
}

INSTANTIATE_TEST_SUITE_P(Faults, CrashFilter, testing::ValuesIn(kFaultCases),
                         TesselTest::ParamName());

TEST_F(CrashFilter, TheFormerHandlerRunsOnceWithTheFaultItself) {
    EXPECT_EQ(128 + SIGSEGV, RunInChild([] {
                  struct sigaction former = {};
                  former.sa_flags = SA_SIGINFO;
                  former.sa_sigaction = [](int, siginfo_t* info, void*) {
                      note(info->si_addr == g_address ? "former\n" : "other\n");
                  };
                  ::sigaction(SIGSEGV, &former, nullptr);
                  g_previous = SetUnhandledExceptionFilter(
                      [](EXCEPTION_POINTERS* pointers) { return g_previous(pointers); });
                  *(g_previous == &FormerSignalActionFilter ? g_address : nullptr) = 1;
                  return 0;
              }));
    EXPECT_EQ("former\n", readFile(g_seen));
}

TEST_F(CrashFilter, TheReportHoldsSignalRegistersStackThreadsAndMaps) {
    EXPECT_EQ(128 + SIGSEGV, RunInChild([] {
                  ::pthread_setname_np(::pthread_self(), "crashy");
                  SetUnhandledExceptionFilter([](EXCEPTION_POINTERS* pointers) {
                      return WriteCrashReport(g_seen.c_str(), pointers) ? 1L : 0L;
                  });
                  *g_address = 1;
                  return 0;
              }));
    const std::string text = readFile(g_seen);
    for (const char* part :
         {"\nSignal: 11 (SIGSEGV) code 1\nException code: 0xC0000005\n",
          "\nFault address: 0x0000000000000010\n", "\nrip 0x", "\nrsp 0x", "\ncr2 0x",
          " (crashy):\n", "tessel_platform_tests(", "\nThreads:\n", " crashy\n",
          "\n/proc/self/maps:\n", "libtessel.so", "\n/proc/self/status:\nName:"}) {
        EXPECT_NE(std::string::npos, text.find(part)) << part << " missing in\n" << text;
    }
}

TEST(CrashHandling, APureVirtualCallReachesTheInstalledHandler) {
    EXPECT_EQ(42, RunInChild([] {
                  SetPureCallHandler([] { ::_exit(42); });
                  Derived derived;
                  return 0;
              }));
}

TEST(CrashHandling, TheProcessCoreIsAnElfCoreThatGdbOpens) {
#ifdef TESSEL_TEST_SANITIZED
    GTEST_SKIP() << "the core of a sanitizer's process holds its shadow memory: terabytes";
#endif
    if (!IsProcessCoreWriterAvailable()) {
        GTEST_SKIP() << "gcore is not on PATH";
    }
    const std::string core = std::string(std::getenv("TMPDIR")) + "/core";
    ASSERT_EQ(0, RunInChild([&core] { return WriteProcessCore(core.c_str()) ? 0 : 1; }));
    Elf64_Ehdr header = {};
    std::ifstream(core, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof header);
    EXPECT_EQ(0, std::memcmp(header.e_ident, ELFMAG, SELFMAG));
    EXPECT_EQ(ET_CORE, header.e_type);
    const auto gdb = TesselTest::Run(
        {"gdb", "-batch", "-ex", "bt", std::filesystem::read_symlink("/proc/self/exe"), core});
    EXPECT_EQ(0, gdb.status);
    EXPECT_NE(std::string::npos, gdb.out.find("#0 ")) << gdb.out << gdb.err;
}

TEST(CrashHandling, TheGuardExcludesASecondHolderUntilReleased) {
    const std::string name = PlatformTest::uniqueName("tessel-crash-guard");
    const int token = AcquireCrashGuard(name.c_str());
    ASSERT_GE(token, 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(AcquireCrashGuard(name.c_str()) >= 0 ? 0 : 1);
    }
    // The child waits in flock(2), by its system call number, until the parent lets go.
    const std::string calls = "/proc/" + std::to_string(child) + "/syscall";
    EXPECT_TRUE(
        TesselTest::eventually([&] { return std::atoi(readFile(calls).c_str()) == SYS_flock; }));
    ReleaseCrashGuard(token);
    EXPECT_EQ(0, TesselTest::WaitForChild(child, std::chrono::seconds(10)));
    std::filesystem::remove("/tmp/" + name + ".lock");
}

}  // namespace
