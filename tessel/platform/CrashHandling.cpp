#include "tessel/platform/CrashHandling.h"

#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>

#include "tessel/platform/LastError.h"

extern char** environ;

// Declared by the C++ ABI: the entry of every pure virtual function in a vtable.
extern "C" [[noreturn]] TESSEL_API void __cxa_pure_virtual();

namespace Tessel::Platform {
namespace {

// The signals of a fault of the process's own, each with its former action.
constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr std::size_t kFatalSignalCount = std::size(kFatalSignals);

// How long a filter may run before the process ends anyway, and the signal that a timer of
// the filtering thread sends it then; the value tells it from the program's own SIGALRMs.
constexpr long kFilterTimeLimitSeconds = 120;
constexpr int kDeadlineSignal = SIGALRM;
constexpr int kDeadlineCookie = 0x7E55E1;

// The most frames of the report's stack.
constexpr int kReportFrames = 128;

std::mutex g_installMutex;  // guards g_installed and the writes of g_former
bool g_installed = false;
struct sigaction g_former[kFatalSignalCount];
std::atomic<LPTOP_LEVEL_EXCEPTION_FILTER> g_filter{nullptr};

// The thread whose filter runs (0 when none) and the signal that it filters. Faults of
// further threads wait for their turn.
std::atomic<long> g_filteringThread{0};
std::atomic<int> g_filteringSignal{0};
struct sigaction g_formerDeadlineAction;  // written by the filtering thread only

std::atomic<PureCallHandler> g_pureCallHandler{nullptr};

// Per thread, read in the signal actions: the initial-exec model reaches them without an
// allocation or a lock, whichever thread faults first.
#define TESSEL_SIGNAL_SAFE_TLS __attribute__((tls_model("initial-exec")))
thread_local int t_filterDepth TESSEL_SIGNAL_SAFE_TLS = 0;
thread_local bool t_crashDecided TESSEL_SIGNAL_SAFE_TLS = false;
// The fault being filtered on this thread, for FormerSignalActionFilter, and whether that
// has run the former action for it.
thread_local const siginfo_t* t_faultInfo TESSEL_SIGNAL_SAFE_TLS = nullptr;
thread_local const void* t_faultContext TESSEL_SIGNAL_SAFE_TLS = nullptr;
thread_local bool t_formerRan TESSEL_SIGNAL_SAFE_TLS = false;

long currentThreadId() {
    return static_cast<long>(::syscall(SYS_gettid));
}

int slotOf(int signal) {
    for (std::size_t i = 0; i < kFatalSignalCount; ++i) {
        if (kFatalSignals[i] == signal) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

bool isProgramHandler(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0
               ? action.sa_sigaction != nullptr
               : action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

// Sends signal to the calling thread and unblocks it there, so that it is delivered now.
void raiseUnblocked(int signal) {
    ::syscall(SYS_tgkill, ::getpid(), currentThreadId(), signal);
    sigset_t only;
    ::sigemptyset(&only);
    ::sigaddset(&only, signal);
    ::pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
}

// Ends the process by the default action of signal, without a kernel core.
[[noreturn]] void endByDefaultAction(int signal) {
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
    raiseUnblocked(signal);
    ::_exit(128 + signal);  // not reached: the default action of every fatal signal ends it
}

void onDeadline(int, siginfo_t* info, void*) {
    if (info->si_code == SI_TIMER && info->si_value.sival_int == kDeadlineCookie) {
        const int signal = g_filteringSignal.load(std::memory_order_acquire);
        endByDefaultAction(signal != 0 ? signal : SIGABRT);
    }
    // Another SIGALRM while a filter runs is dropped: the process is ending.
}

// Starts the time limit of the filter of signal on the calling thread: a timer of the
// kernel's own that sends kDeadlineSignal to this thread. The timer's id, -1 if none could
// be made (the filter then runs without a limit).
int armDeadline(int signal) {
    g_filteringSignal.store(signal, std::memory_order_release);
    struct sigaction action = {};
    action.sa_sigaction = onDeadline;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(kDeadlineSignal, &action, &g_formerDeadlineAction);
    sigset_t deadline;
    ::sigemptyset(&deadline);
    ::sigaddset(&deadline, kDeadlineSignal);
    ::pthread_sigmask(SIG_UNBLOCK, &deadline, nullptr);

    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = kDeadlineSignal;
    event.sigev_value.sival_int = kDeadlineCookie;
    event._sigev_un._tid = static_cast<pid_t>(currentThreadId());
    int timer = -1;
    if (::syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timer) != 0) {
        return -1;
    }
    itimerspec due = {};
    due.it_value.tv_sec = kFilterTimeLimitSeconds;
    ::syscall(SYS_timer_settime, timer, 0, &due, nullptr);
    return timer;
}

void disarmDeadline(int timer) {
    if (timer >= 0) {
        ::syscall(SYS_timer_delete, timer);
    }
    ::sigaction(kDeadlineSignal, &g_formerDeadlineAction, nullptr);
    g_filteringSignal.store(0, std::memory_order_release);
}

// Waits until no other thread runs the filter, then claims it for the calling thread.
void waitForTurn(long self) {
    long none = 0;
    while (!g_filteringThread.compare_exchange_weak(none, self, std::memory_order_acq_rel)) {
        none = 0;
        const timespec pause{0, 1000000L};
        ::nanosleep(&pause, nullptr);
    }
}

DWORD exceptionCodeOf(int signal, int code) {
    switch (signal) {
        case SIGSEGV:
            return EXCEPTION_ACCESS_VIOLATION;
        case SIGBUS:
            return EXCEPTION_IN_PAGE_ERROR;
        case SIGILL:
            return EXCEPTION_ILLEGAL_INSTRUCTION;
        case SIGFPE:
            switch (code) {
                case FPE_INTDIV:
                    return EXCEPTION_INT_DIVIDE_BY_ZERO;
                case FPE_INTOVF:
                    return EXCEPTION_INT_OVERFLOW;
                case FPE_FLTDIV:
                    return EXCEPTION_FLT_DIVIDE_BY_ZERO;
                case FPE_FLTOVF:
                    return EXCEPTION_FLT_OVERFLOW;
                case FPE_FLTUND:
                    return EXCEPTION_FLT_UNDERFLOW;
                case FPE_FLTRES:
                    return EXCEPTION_FLT_INEXACT_RESULT;
                default:
                    return EXCEPTION_FLT_INVALID_OPERATION;
            }
        default:
            return STATUS_FATAL_APP_EXIT;
    }
}

// Describes the signal as an exception. An access violation carries, as on the platform,
// the kind of access (0 read, 1 write, 8 instruction fetch) and the address.
void describe(int signal, const siginfo_t* info, const void* context, EXCEPTION_RECORD& record,
              CONTEXT& machine) {
    const auto* uc = static_cast<const ucontext_t*>(context);
    const bool memoryFault = signal == SIGSEGV || signal == SIGBUS;
    machine.Signal = signal;
    machine.SignalCode = info->si_code;
    // si_addr is only defined for a fault that the processor reported (si_code > 0).
    machine.FaultAddress = info->si_code > 0 && signal != SIGABRT ? info->si_addr : nullptr;
    if (uc != nullptr) {
        static_assert(sizeof machine.Registers == sizeof uc->uc_mcontext.gregs);
        std::memcpy(machine.Registers, uc->uc_mcontext.gregs, sizeof machine.Registers);
        machine.HasRegisters = true;
        machine.SignalContext = uc;
    }
    record.ExceptionCode = exceptionCodeOf(signal, info->si_code);
    record.ExceptionAddress =
        memoryFault ? machine.FaultAddress : reinterpret_cast<void*>(machine.Registers[REG_RIP]);
    if (memoryFault && machine.FaultAddress != nullptr) {
        constexpr std::uint64_t kPageFault = 14, kWriteBit = 2, kFetchBit = 16;
        const std::uint64_t error = machine.Registers[REG_ERR];
        std::uintptr_t access = 0;
        if (machine.Registers[REG_TRAPNO] == kPageFault) {
            access = (error & kFetchBit) != 0 ? 8 : (error & kWriteBit) != 0 ? 1 : 0;
        }
        record.NumberParameters = 2;
        record.ExceptionInformation[0] = access;
        record.ExceptionInformation[1] = reinterpret_cast<std::uintptr_t>(machine.FaultAddress);
    }
}

// The action of the fatal signals. See the header for the flow; the filter runs with the
// signal blocked on this thread, and every ending below either never returns or returns
// to let the former action take the signal.
void onFatalSignal(int signal, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    if ((signal == SIGABRT && t_crashDecided) || t_filterDepth > 0) {
        // Decided before, or a fault of the filter itself (an abort() in it included).
        endByDefaultAction(signal);
    }
    waitForTurn(currentThreadId());
    ++t_filterDepth;
    t_formerRan = false;
    t_faultInfo = info;
    t_faultContext = context;

    EXCEPTION_RECORD record;
    CONTEXT machine;
    describe(signal, info, context, record, machine);
    EXCEPTION_POINTERS pointers{&record, &machine};
    const int timer = armDeadline(signal);
    const LPTOP_LEVEL_EXCEPTION_FILTER filter = g_filter.load(std::memory_order_acquire);
    const long result = filter != nullptr ? filter(&pointers) : EXCEPTION_CONTINUE_SEARCH;
    disarmDeadline(timer);

    const int slot = slotOf(signal);
    if (result == EXCEPTION_EXECUTE_HANDLER || t_formerRan || slot < 0 ||
        !isProgramHandler(g_former[slot])) {
        endByDefaultAction(signal);
    }
    // The former action is the program's own handler, which has not seen this fault yet.
    ::sigaction(signal, &g_former[slot], nullptr);
    t_faultInfo = nullptr;
    t_faultContext = nullptr;
    --t_filterDepth;
    g_filteringThread.store(0, std::memory_order_release);
    if (info->si_code <= 0 || signal == SIGABRT) {
        // Sent (by kill, raise or abort): the handler takes it now, as it would have.
        raiseUnblocked(signal);
    }
    // Otherwise the instruction faults again on return, and the handler gets the fault itself.
    errno = savedErrno;
}

// Calls backtrace once, so that it has loaded the unwinder before a fault needs it.
void loadUnwinder() {
    void* frames[4];
    ::backtrace(frames, 4);
}

// The spawn set-up of gcore, made before a crash needs it (it allocates): standard input,
// output and error on /dev/null, no other descriptor, no blocked signal, default actions.
struct CoreWriterSpawn {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    bool ready = false;

    CoreWriterSpawn() {
        if (::posix_spawn_file_actions_init(&actions) != 0) {
            return;
        }
        if (::posix_spawnattr_init(&attributes) != 0) {
            ::posix_spawn_file_actions_destroy(&actions);
            return;
        }
        sigset_t none, all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        ready = ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0) == 0 &&
                ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0) == 0 &&
                ::posix_spawn_file_actions_adddup2(&actions, 1, 2) == 0 &&
                ::posix_spawn_file_actions_addclosefrom_np(&actions, 3) == 0 &&
                ::posix_spawnattr_setsigmask(&attributes, &none) == 0 &&
                ::posix_spawnattr_setsigdefault(&attributes, &all) == 0 &&
                ::posix_spawnattr_setflags(&attributes,
                                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0;
    }
};

const CoreWriterSpawn& coreWriterSpawn() {
    static const CoreWriterSpawn* const spawn = new CoreWriterSpawn();
    return *spawn;
}

// The alternate signal stack of a thread, which frees it when the thread ends.
class AlternateStack {
  public:
    ~AlternateStack() {
        if (m_mapping == nullptr) {
            return;
        }
        stack_t current = {};
        if (::sigaltstack(nullptr, &current) == 0 && current.ss_sp == stackBase()) {
            stack_t off = {};
            off.ss_flags = SS_DISABLE;
            if ((current.ss_flags & SS_ONSTACK) != 0 || ::sigaltstack(&off, nullptr) != 0) {
                return;  // still in use: left mapped
            }
        }
        ::munmap(m_mapping, m_length);
    }

    void adopt(void* mapping, std::size_t length, std::size_t guard) {
        m_mapping = mapping;
        m_length = length;
        m_guard = guard;
    }

  private:
    void* stackBase() const { return static_cast<char*>(m_mapping) + m_guard; }

    void* m_mapping = nullptr;
    std::size_t m_length = 0;
    std::size_t m_guard = 0;
};

thread_local AlternateStack t_alternateStack;

// Writes all of data to fd; 0 or the errno value of the failure.
int writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

// Text put together in a buffer of its own and written to a descriptor, with the numbers
// formatted here: async-signal-safe. Keeps the first write error.
class ReportWriter {
  public:
    explicit ReportWriter(int fd) : m_fd(fd) {}

    ReportWriter& text(const char* data, std::size_t size) {
        while (size > 0) {
            if (m_used == sizeof m_buffer) {
                flush();
            }
            const std::size_t part =
                size < sizeof m_buffer - m_used ? size : sizeof m_buffer - m_used;
            std::memcpy(m_buffer + m_used, data, part);
            m_used += part;
            data += part;
            size -= part;
        }
        return *this;
    }
    ReportWriter& text(const char* data) { return text(data, std::strlen(data)); }

    ReportWriter& decimal(long long value) {
        char digits[24];
        std::size_t at = sizeof digits;
        unsigned long long rest = value < 0 ? 0ULL - static_cast<unsigned long long>(value) : value;
        do {
            digits[--at] = static_cast<char>('0' + rest % 10);
            rest /= 10;
        } while (rest != 0);
        if (value < 0) {
            digits[--at] = '-';
        }
        return text(digits + at, sizeof digits - at);
    }

    // "0x" and value in width hexadecimal digits.
    ReportWriter& hex(std::uint64_t value, int width = 16, bool upper = false) {
        const char* const set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
        char digits[18] = {'0', 'x'};
        for (int i = 0; i < width; ++i) {
            digits[2 + width - 1 - i] = set[(value >> (4 * i)) & 0xF];
        }
        return text(digits, static_cast<std::size_t>(2 + width));
    }

    void flush() {
        if (m_used > 0 && m_error == 0) {
            m_error = writeAll(m_fd, m_buffer, m_used);
        }
        m_used = 0;
    }

    // Copies the file at path, or a note that it could not be read.
    void copyFile(const char* path) {
        const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            text("(not readable)\n");
            return;
        }
        flush();
        char chunk[4096];
        for (;;) {
            const ssize_t got = ::read(fd, chunk, sizeof chunk);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                break;
            }
            if (m_error == 0) {
                m_error = writeAll(m_fd, chunk, static_cast<std::size_t>(got));
            }
        }
        ::close(fd);
    }

    int fd() const { return m_fd; }
    int error() const { return m_error; }

  private:
    int m_fd;
    int m_error = 0;
    std::size_t m_used = 0;
    char m_buffer[2048];
};

const char* signalName(int signal) {
    switch (signal) {
        case 0:
            return "none";
        case SIGSEGV:
            return "SIGSEGV";
        case SIGBUS:
            return "SIGBUS";
        case SIGFPE:
            return "SIGFPE";
        case SIGILL:
            return "SIGILL";
        case SIGABRT:
            return "SIGABRT";
        default:
            return "other";
    }
}

// The registers of CONTEXT::Registers, in their order.
constexpr const char* kRegisterNames[23] = {
    "r8",  "r9",  "r10", "r11", "r12", "r13",    "r14",    "r15", "rdi",    "rsi",     "rbp", "rbx",
    "rdx", "rax", "rcx", "rsp", "rip", "eflags", "csgsfs", "err", "trapno", "oldmask", "cr2"};

void writeRegisters(ReportWriter& out, const CONTEXT* machine) {
    if (machine == nullptr || !machine->HasRegisters) {
        out.text("Registers: none\n");
        return;
    }
    out.text("Registers:\n");
    for (std::size_t i = 0; i < std::size(kRegisterNames); ++i) {
        out.text(kRegisterNames[i]).text(" ").hex(machine->Registers[i]).text("\n");
    }
}

// "<tid> <name>" of every thread of the process, from /proc/self/task; getdents64 rather than
// opendir, which allocates.
void writeThreads(ReportWriter& out) {
    out.text("Threads:\n");
    const int dir = ::open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) {
        out.text("(not readable)\n");
        return;
    }
    // A linux_dirent64: inode (8 bytes), offset (8), record length (2), type (1), name.
    constexpr std::size_t kLengthAt = 16, kNameAt = 19;
    alignas(8) char entries[4096];
    for (;;) {
        const long got = ::syscall(SYS_getdents64, dir, entries, sizeof entries);
        if (got <= 0) {
            break;
        }
        for (long at = 0; at < got;) {
            unsigned short length;
            std::memcpy(&length, entries + at + kLengthAt, sizeof length);
            const char* name = entries + at + kNameAt;
            at += length;
            if (name[0] < '0' || name[0] > '9') {
                continue;
            }
            char path[64] = "/proc/self/task/";
            const std::size_t prefix = std::strlen(path);
            const std::size_t nameLength = ::strnlen(name, sizeof path - prefix - 6);
            std::memcpy(path + prefix, name, nameLength);
            std::memcpy(path + prefix + nameLength, "/comm", 6);
            out.text(name, nameLength).text(" ");
            out.copyFile(path);  // the name ends with a line end
        }
    }
    ::close(dir);
}

void writeStack(ReportWriter& out) {
    char name[17] = {};
    ::prctl(PR_GET_NAME, name, 0, 0, 0);
    out.text("Stack of thread ").decimal(currentThreadId()).text(" (").text(name).text("):\n");
    out.flush();
    void* frames[kReportFrames];
    const int count = ::backtrace(frames, kReportFrames);
    ::backtrace_symbols_fd(frames, count, out.fd());
}

// Copies text into buffer (size bytes) after the first used bytes; false if it does not fit.
bool appendText(char* buffer, std::size_t size, std::size_t& used, const char* text) {
    const std::size_t length = std::strlen(text);
    if (used + length >= size) {
        return false;
    }
    std::memcpy(buffer + used, text, length + 1);
    used += length;
    return true;
}

bool appendDecimal(char* buffer, std::size_t size, std::size_t& used, unsigned long value) {
    char digits[24];
    std::size_t at = sizeof digits - 1;
    digits[at] = '\0';
    do {
        digits[--at] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    return appendText(buffer, size, used, digits + at);
}

}  // namespace

LPTOP_LEVEL_EXCEPTION_FILTER SetUnhandledExceptionFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter) {
    std::lock_guard<std::mutex> lock(g_installMutex);
    if (filter == nullptr) {
        if (g_installed) {
            for (std::size_t i = 0; i < kFatalSignalCount; ++i) {
                ::sigaction(kFatalSignals[i], &g_former[i], nullptr);
            }
            g_installed = false;
        }
        return g_filter.exchange(nullptr, std::memory_order_acq_rel);
    }
    if (g_installed) {
        return g_filter.exchange(filter, std::memory_order_acq_rel);
    }

    EnsureAlternateSignalStack();
    loadUnwinder();
    coreWriterSpawn();
    g_filter.store(filter, std::memory_order_release);
    struct sigaction action = {};
    action.sa_sigaction = onFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigemptyset(&action.sa_mask);
    bool formerHandler = false;
    for (std::size_t i = 0; i < kFatalSignalCount; ++i) {
        ::sigaction(kFatalSignals[i], &action, &g_former[i]);
        formerHandler = formerHandler || isProgramHandler(g_former[i]);
    }
    g_installed = true;
    return formerHandler ? &FormerSignalActionFilter : nullptr;
}

long FormerSignalActionFilter(EXCEPTION_POINTERS* pointers) {
    const CONTEXT* machine = pointers != nullptr ? pointers->ContextRecord : nullptr;
    const int slot = machine != nullptr ? slotOf(machine->Signal) : -1;
    if (slot < 0 || !isProgramHandler(g_former[slot])) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    const struct sigaction& former = g_former[slot];
    siginfo_t made = {};
    const siginfo_t* info = t_faultInfo;
    if (info == nullptr || machine->SignalContext != t_faultContext) {
        made.si_signo = machine->Signal;
        made.si_code = machine->SignalCode;
        made.si_addr = machine->FaultAddress;
        info = &made;
    }
    sigset_t saved;
    ::pthread_sigmask(SIG_BLOCK, &former.sa_mask, &saved);
    if ((former.sa_flags & SA_SIGINFO) != 0) {
        former.sa_sigaction(machine->Signal, const_cast<siginfo_t*>(info),
                            const_cast<void*>(machine->SignalContext));
    } else {
        former.sa_handler(machine->Signal);
    }
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    t_formerRan = true;
    return EXCEPTION_CONTINUE_SEARCH;
}

void SetCrashDecidedOnThisThread() {
    t_crashDecided = true;
}

BOOL EnsureAlternateSignalStack() {
    stack_t current = {};
    if (::sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0) {
        return TRUE;
    }
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t length = kAlternateStackSize + page;
    void* mapping = ::mmap(nullptr, length, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (mapping == MAP_FAILED) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    // The lowest page is the guard: a handler that overflows the stack faults there.
    stack_t stack = {};
    stack.ss_sp = static_cast<char*>(mapping) + page;
    stack.ss_size = kAlternateStackSize;
    if (::mprotect(mapping, page, PROT_NONE) != 0 || ::sigaltstack(&stack, nullptr) != 0) {
        const int error = errno;
        ::munmap(mapping, length);
        SetLastErrorFromErrno(error);
        return FALSE;
    }
    t_alternateStack.adopt(mapping, length, page);
    return TRUE;
}

PureCallHandler SetPureCallHandler(PureCallHandler handler) {
    return g_pureCallHandler.exchange(handler, std::memory_order_acq_rel);
}

BOOL WriteCrashReport(const char* path, const EXCEPTION_POINTERS* pointers) {
    if (path == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    const EXCEPTION_RECORD* record = pointers != nullptr ? pointers->ExceptionRecord : nullptr;
    const CONTEXT* machine = pointers != nullptr ? pointers->ContextRecord : nullptr;
    const int signal = machine != nullptr ? machine->Signal : 0;

    ReportWriter out(fd);
    char exe[PATH_MAX];
    const ssize_t exeLength = ::readlink("/proc/self/exe", exe, sizeof exe);
    out.text("Crash report of process ").decimal(::getpid()).text(" (");
    out.text(exe, exeLength > 0 ? static_cast<std::size_t>(exeLength) : 0).text(")\n");
    out.text("Signal: ").decimal(signal).text(" (").text(signalName(signal)).text(") code ");
    out.decimal(machine != nullptr ? machine->SignalCode : 0).text("\n");
    out.text("Exception code: ").hex(record != nullptr ? record->ExceptionCode : 0, 8, true);
    out.text("\nException address: ");
    out.hex(
        reinterpret_cast<std::uintptr_t>(record != nullptr ? record->ExceptionAddress : nullptr));
    out.text("\nFault address: ");
    out.hex(reinterpret_cast<std::uintptr_t>(machine != nullptr ? machine->FaultAddress : nullptr));
    out.text("\n");
    writeRegisters(out, machine);
    writeStack(out);
    writeThreads(out);
    out.text("/proc/self/maps:\n");
    out.copyFile("/proc/self/maps");
    out.text("/proc/self/status:\n");
    out.copyFile("/proc/self/status");
    out.flush();

    const int error = out.error();
    if (::close(fd) != 0 && error == 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    if (error != 0) {
        SetLastErrorFromErrno(error);
        return FALSE;
    }
    return TRUE;
}

BOOL WriteProcessCore(const char* path) {
    if (path == nullptr || path[0] == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    // gcore writes "<base>.<pid>", renamed to path when complete.
    char pid[24];
    std::size_t pidLength = 0;
    appendDecimal(pid, sizeof pid, pidLength, static_cast<unsigned long>(::getpid()));
    char base[PATH_MAX];
    char written[PATH_MAX];
    std::size_t baseLength = 0, writtenLength = 0;
    if (!appendText(base, sizeof base, baseLength, path) ||
        !appendText(base, sizeof base, baseLength, ".gcore") ||
        !appendText(written, sizeof written, writtenLength, base) ||
        !appendText(written, sizeof written, writtenLength, ".") ||
        !appendText(written, sizeof written, writtenLength, pid)) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return FALSE;
    }
    const CoreWriterSpawn& spawn = coreWriterSpawn();
    if (!spawn.ready) {
        SetLastError(ERROR_GEN_FAILURE);
        return FALSE;
    }

    // Where Yama allows only ancestors to attach, gcore (a child) must be let in.
    ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    char program[] = "gcore";
    char option[] = "-o";
    char* const arguments[] = {program, option, base, pid, nullptr};
    pid_t child = -1;
    const int spawned =
        ::posix_spawnp(&child, program, &spawn.actions, &spawn.attributes, arguments, environ);
    bool done = false;
    if (spawned == 0) {
        int status = 0;
        pid_t ended;
        while ((ended = ::waitpid(child, &status, 0)) < 0 && errno == EINTR) {
        }
        // ECHILD: reaped by someone else (SIGCHLD ignored); the file tells.
        const bool succeeded =
            ended == child ? WIFEXITED(status) && WEXITSTATUS(status) == 0 : errno == ECHILD;
        done = succeeded && ::rename(written, path) == 0;
        if (!done) {
            ::unlink(written);
        }
    }
    ::prctl(PR_SET_PTRACER, 0, 0, 0, 0);
    if (!done) {
        const bool notAtHand = spawned == ENOENT || spawned == EACCES || spawned == ENOTDIR;
        SetLastError(notAtHand ? ERROR_FILE_NOT_FOUND : ERROR_GEN_FAILURE);
        return FALSE;
    }
    return TRUE;
}

BOOL IsProcessCoreWriterAvailable() {
    const char* paths = ::getenv("PATH");
    if (paths == nullptr) {
        paths = "/bin:/usr/bin";
    }
    for (const char* entry = paths;; ++entry) {
        const char* end = std::strchr(entry, ':');
        const std::size_t length =
            end != nullptr ? static_cast<std::size_t>(end - entry) : std::strlen(entry);
        char candidate[PATH_MAX];
        std::size_t used = 0;
        // An empty entry is the current folder.
        const bool fits = length + 1 < sizeof candidate;
        if (fits) {
            std::memcpy(candidate, entry, length);
            candidate[length] = '\0';
            used = length;
        }
        if (fits &&
            appendText(candidate, sizeof candidate, used, length == 0 ? "gcore" : "/gcore") &&
            ::access(candidate, X_OK) == 0) {
            return TRUE;
        }
        if (end == nullptr) {
            return FALSE;
        }
        entry = end;
    }
}

int AcquireCrashGuard(const char* name) {
    char path[PATH_MAX] = "/tmp/";
    std::size_t used = std::strlen(path);
    if (name == nullptr || !appendText(path, sizeof path, used, name) ||
        !appendText(path, sizeof path, used, ".lock")) {
        SetLastError(name == nullptr ? ERROR_INVALID_PARAMETER : ERROR_FILENAME_EXCED_RANGE);
        return -1;
    }
    // The file lies directly below /tmp, whatever the name holds.
    for (char* c = path + 5; *c != '\0'; ++c) {
        if (*c == '/') {
            *c = '_';
        }
    }
    int fd = ::open(path, O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    if (fd < 0 && errno == EACCES) {
        // Another account's file in sticky /tmp, where protected_regular refuses O_CREAT.
        fd = ::open(path, O_RDWR | O_CLOEXEC);
    }
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return -1;
    }
    ::fchmod(fd, 0666);  // past the umask, so that other accounts can open it; theirs may refuse
    while (::flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            SetLastErrorFromErrno(errno);
            ::close(fd);
            return -1;
        }
    }
    return fd;
}

void ReleaseCrashGuard(int token) {
    if (token >= 0) {
        // Unlocked first: a forked child may share the open file, which a close would keep.
        ::flock(token, LOCK_UN);
        ::close(token);
    }
}

}  // namespace Tessel::Platform

void __cxa_pure_virtual() {
    using namespace Tessel::Platform;
    const PureCallHandler handler = g_pureCallHandler.load(std::memory_order_acquire);
    if (handler != nullptr) {
        handler();
    }
    static const char kText[] = "pure virtual method called\n";
    const ssize_t ignored = ::write(STDERR_FILENO, kText, sizeof kText - 1);
    (void)ignored;
    std::abort();
}
