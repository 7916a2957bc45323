#include "tessel/platform/StackTrace.h"

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <boost/stacktrace/frame.hpp>

#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/LastError.h"

namespace Tessel::Platform {
namespace {

// Frames of the handler itself, the unwinder and the signal return come before the
// interrupted instruction; room for them beside the frames that are kept.
constexpr std::size_t kRawFrames = kMaxStackFrames + 32;

// Where the handler writes one capture. Allocated by the caller, never by the handler.
struct CaptureBuffer {
    std::uintptr_t frames[kRawFrames];
    std::size_t count;
    std::uintptr_t interruptedPc;
};

// The request slot: 0 when no request is open, else
//   ((sequence << 24) | thread id) << 2 | state
// with state kArmed (the signal is on its way), kClaimed (the handler is writing) or kDone.
// The sequence number makes every request's token unique, so a late handler of an earlier
// request never matches; the thread id lets a handler answer only for its own thread.
constexpr std::uint64_t kArmed = 0;
constexpr std::uint64_t kClaimed = 1;
constexpr std::uint64_t kDone = 2;
constexpr std::uint64_t kStateMask = 3;
constexpr long kMaxThreadId = (1L << 24) - 1;

// Acquire-release on every step: the handler's claim acquires the armed request, and its
// "done" releases the frames that it wrote into the buffer to the requester's acquire.
std::atomic<std::uint64_t> g_slot{0};
// The buffer of the next capture, published with release order so that a handler that
// acquires it sees it constructed. Replaced (and the old one left alone for ever) only when a
// handler claimed a request and did not finish in time.
std::atomic<CaptureBuffer*> g_buffer{nullptr};
sem_t g_done;  // posted by the handler when it has finished

std::mutex g_captureMutex;     // one capture at a time
std::uint64_t g_sequence = 0;  // guarded by g_captureMutex

std::once_flag g_installOnce;
bool g_installed = false;  // written once under g_installOnce

std::uint64_t threadIdOf(std::uint64_t slot) {
    return (slot >> 2) & static_cast<std::uint64_t>(kMaxThreadId);
}

struct UnwindState {
    std::uintptr_t* frames;
    std::size_t capacity;
    std::size_t count;
};

_Unwind_Reason_Code collectFrame(_Unwind_Context* context, void* arg) {
    auto* state = static_cast<UnwindState*>(arg);
    int beforeInstruction = 0;
    const std::uintptr_t ip = _Unwind_GetIPInfo(context, &beforeInstruction);
    if (ip == 0 || state->count >= state->capacity) {
        return _URC_END_OF_STACK;
    }
    state->frames[state->count++] = ip;
    return _URC_NO_REASON;
}

// The signal's handler. Async-signal-safe: atomics, the unwinder (which, once warmed up,
// finds the unwind tables without a lock or an allocation), gettid and sem_post.
void onTraceSignal(int, siginfo_t*, void* context) {
    const int savedErrno = errno;
    const auto self = static_cast<std::uint64_t>(::syscall(SYS_gettid));
    std::uint64_t slot = g_slot.load(std::memory_order_acquire);
    if (slot != 0 && (slot & kStateMask) == kArmed && threadIdOf(slot) == self) {
        // The buffer is read before the claim: the caller replaces it only after it has
        // seen a claim, so a buffer read here is never one that a later request uses.
        CaptureBuffer* buffer = g_buffer.load(std::memory_order_acquire);
        if (buffer != nullptr &&
            g_slot.compare_exchange_strong(slot, slot | kClaimed, std::memory_order_acq_rel)) {
            UnwindState state{buffer->frames, kRawFrames, 0};
            _Unwind_Backtrace(collectFrame, &state);
            buffer->count = state.count;
            const auto* uc = static_cast<const ucontext_t*>(context);
            buffer->interruptedPc = static_cast<std::uintptr_t>(uc->uc_mcontext.gregs[REG_RIP]);
            std::uint64_t claimed = slot | kClaimed;
            if (g_slot.compare_exchange_strong(claimed, slot | kDone, std::memory_order_acq_rel)) {
                ::sem_post(&g_done);
            }
        }
    }
    errno = savedErrno;
}

void install() {
    if (::sem_init(&g_done, 0, 0) != 0) {
        return;
    }
    g_buffer.store(new CaptureBuffer(), std::memory_order_release);
    // The first unwind loads and initialises the unwinder; do it here, outside any handler.
    std::uintptr_t frames[8];
    UnwindState state{frames, 8, 0};
    _Unwind_Backtrace(collectFrame, &state);

    struct sigaction action = {};
    action.sa_sigaction = onTraceSignal;
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    if (::sigaction(GetStackTraceSignal(), &action, nullptr) != 0) {
        return;
    }
    g_installed = true;
}

timespec deadlineAfter(DWORD timeoutMs) {
    timespec deadline;
    ::clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return deadline;
}

bool isPast(const timespec& deadline) {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > deadline.tv_sec ||
           (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

// Waits until the request token is done or the deadline has passed; true when done.
bool waitForHandler(std::uint64_t token, const timespec& deadline) {
    for (;;) {
        if (g_slot.load(std::memory_order_acquire) == (token | kDone)) {
            return true;
        }
        if (::sem_clockwait(&g_done, CLOCK_MONOTONIC, &deadline) != 0) {
            if (errno == EINTR) {
                continue;
            }
            return g_slot.load(std::memory_order_acquire) == (token | kDone);
        }
        // A post of an earlier, abandoned request is consumed here and the wait goes on.
    }
}

// Looks up name, file and line of each address; see DescribeStack.
std::vector<StackFrameInfo> describeHere(const std::vector<std::uintptr_t>& addresses) {
    std::vector<StackFrameInfo> frames;
    frames.reserve(addresses.size());
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        StackFrameInfo info;
        info.address = addresses[i];
        const std::uintptr_t lookup =
            (i == 0 || addresses[i] == 0) ? addresses[i] : addresses[i] - 1;
        const boost::stacktrace::frame frame(reinterpret_cast<const void*>(lookup));
        info.name = frame.name();
        info.file = frame.source_file();
        info.line = frame.source_line();
        frames.push_back(std::move(info));
    }
    return frames;
}

// Boost.Stacktrace keeps the symbol tables of its backend per thread and never frees them:
// tens of megabytes for every thread that has ever looked up an address. All lookups are
// therefore made on one thread of their own, started at the first request and kept to the
// end of the process (it waits without holding anything). The object is never destroyed,
// so that its condition is not torn down under the waiting thread at exit.
class Symboliser {
  public:
    static Symboliser& instance() {
        static Symboliser* const symboliser = new Symboliser();
        return *symboliser;
    }

    std::vector<StackFrameInfo> describe(const std::vector<std::uintptr_t>& addresses) {
        std::lock_guard<std::mutex> oneAtATime(m_requestMutex);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_request = &addresses;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_request == nullptr; });
        return std::move(m_result);
    }

  private:
    Symboliser() {
        std::thread([this] { run(); }).detach();
    }

    void run() {
        EnsureAlternateSignalStack();
        ::pthread_setname_np(::pthread_self(), "StackSymbols");
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [this] { return m_request != nullptr; });
            const std::vector<std::uintptr_t> addresses = *m_request;
            lock.unlock();
            std::vector<StackFrameInfo> result;
            try {
                result = describeHere(addresses);
            } catch (...) {
                result.clear();  // nothing is known then; the caller writes no frames
            }
            lock.lock();
            m_result = std::move(result);
            m_request = nullptr;
            m_changed.notify_all();
        }
    }

    std::mutex m_requestMutex;  // one request at a time
    std::mutex m_mutex;         // guards m_request and m_result
    std::condition_variable m_changed;
    const std::vector<std::uintptr_t>* m_request = nullptr;
    std::vector<StackFrameInfo> m_result;
};

}  // namespace

int GetStackTraceSignal() {
    return SIGRTMIN + 4;
}

BOOL CaptureThreadStack(long processId, long threadId, std::vector<std::uintptr_t>& addresses,
                        DWORD timeoutMs) {
    addresses.clear();
    if (processId != static_cast<long>(::getpid()) || threadId <= 0 || threadId > kMaxThreadId) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::call_once(g_installOnce, install);
    if (!g_installed) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }

    std::lock_guard<std::mutex> lock(g_captureMutex);
    while (::sem_trywait(&g_done) == 0) {
        // posts of earlier requests that finished after their caller gave up
    }
    const std::uint64_t token = (((++g_sequence) << 24) | static_cast<std::uint64_t>(threadId))
                                << 2;
    g_slot.store(token | kArmed, std::memory_order_release);
    if (::syscall(SYS_tgkill, ::getpid(), threadId, GetStackTraceSignal()) != 0) {
        SetLastErrorFromErrno(errno);
        g_slot.store(0, std::memory_order_release);
        return FALSE;
    }

    bool done = waitForHandler(token, deadlineAfter(timeoutMs));
    if (!done) {
        std::uint64_t armed = token | kArmed;
        if (g_slot.compare_exchange_strong(armed, 0, std::memory_order_acq_rel)) {
            // Withdrawn before the handler came: a late handler finds nothing to answer.
            SetLastError(ERROR_TIMEOUT);
            return FALSE;
        }
        // The handler has claimed the request and is writing: it is running, so give it a
        // little longer; if it still does not finish, leave the buffer to it for good.
        const timespec grace = deadlineAfter(1000);
        while (!done && !isPast(grace)) {
            done = g_slot.load(std::memory_order_acquire) == (token | kDone);
            if (!done) {
                const timespec pause{0, 1000000L};
                ::nanosleep(&pause, nullptr);
            }
        }
        if (!done) {
            g_buffer.store(new CaptureBuffer(), std::memory_order_release);
            g_slot.store(0, std::memory_order_release);
            SetLastError(ERROR_TIMEOUT);
            return FALSE;
        }
    }

    const CaptureBuffer* buffer = g_buffer.load(std::memory_order_acquire);
    std::size_t first = 0;
    while (first < buffer->count && buffer->frames[first] != buffer->interruptedPc) {
        ++first;
    }
    if (first == buffer->count) {
        // The interrupted instruction is not on the unwound stack: the handler ran later than
        // the interruption, from a run-time that defers signals (the sanitizers do). What was
        // unwound then follows the instruction, less the handler's own frame (the first).
        addresses.push_back(buffer->interruptedPc);
        const std::size_t last = std::min(buffer->count, kMaxStackFrames);
        if (buffer->count > 1) {
            addresses.insert(addresses.end(), buffer->frames + 1, buffer->frames + last);
        }
    } else {
        const std::size_t last = std::min(buffer->count, first + kMaxStackFrames);
        addresses.assign(buffer->frames + first, buffer->frames + last);
    }
    g_slot.store(0, std::memory_order_release);
    return TRUE;
}

std::vector<StackFrameInfo> DescribeStack(const std::vector<std::uintptr_t>& addresses) {
    return Symboliser::instance().describe(addresses);
}

}  // namespace Tessel::Platform
