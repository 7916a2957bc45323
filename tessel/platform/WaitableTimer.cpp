// Waitable timers on timerfds.
//
// One timerfd of CLOCK_REALTIME serves both kinds of due time: armed with an absolute time it
// follows the wall clock, and armed with a relative one the kernel runs it on the monotonic
// clock (relative real-time timers are immune to clock changes), so a timer never needs a
// second descriptor, and waiters always poll the one it has.
//
// The descriptor counts expiries; the object's state word holds an expiry that a wait has
// read but not yet taken (automatic reset), or the lasting signal (manual reset). Reading the
// descriptor and changing the state happen under the object's lock, so that an expiry of a
// former setting is never taken for one of the new.
#include "tessel/platform/WaitableTimer.h"

#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <new>
#include <string>

#include "tessel/platform/Clock.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/detail/KernelObject.h"
#include "tessel/platform/detail/NameTable.h"

namespace Tessel::Platform {
namespace {

constexpr std::uint64_t kTicksPerSecond = 10000000;  // of 100 ns

class TimerObject;
using TimerNames = NameTable<TimerObject>;

class TimerObject final : public Waitable {
  public:
    TimerObject(int fd, bool manualReset, std::string name)
        : Waitable(Kind::Timer), m_fd(fd), m_manualReset(manualReset), m_name(std::move(name)) {}
    ~TimerObject() override { ::close(m_fd); }

    void release() override {
        if (m_name.empty()) {
            Waitable::release();
        } else if (TimerNames::instance().dropNamed(m_refs, m_name)) {
            delete this;
        }
    }

    Acquire tryAcquire(WaitRecord* /*record*/) override {
        absorb();
        if (m_manualReset) {
            return m_signalled.load(std::memory_order_acquire) != 0 ? Acquire::Taken
                                                                    : Acquire::None;
        }
        std::uint32_t expected = 1;
        return m_signalled.compare_exchange_strong(expected, 0, std::memory_order_acq_rel,
                                                   std::memory_order_relaxed)
                   ? Acquire::Taken
                   : Acquire::None;
    }

    void undoAcquire(Acquire how, WaitRecord* /*record*/) override {
        if (how == Acquire::Taken && !m_manualReset) {
            m_signalled.store(1, std::memory_order_release);
        }
    }

    bool looksSignalled(const WaitRecord* /*record*/) const override {
        if (m_signalled.load(std::memory_order_acquire) != 0) {
            return true;
        }
        pollfd entry{m_fd, POLLIN, 0};
        return ::poll(&entry, 1, 0) > 0;
    }

    int pollFd() const override { return m_fd; }

    bool set(const itimerspec& setting, int flags) {
        std::lock_guard<std::mutex> guard(m_lock);
        // Arming anew drops the descriptor's count of expiries of the former setting.
        if (::timerfd_settime(m_fd, flags, &setting, nullptr) != 0) {
            SetLastErrorFromErrno(errno);
            return false;
        }
        m_signalled.store(0, std::memory_order_relaxed);
        return true;
    }

    void cancel() {
        std::lock_guard<std::mutex> guard(m_lock);
        absorbLocked();  // an expiry not yet taken keeps the timer signalled
        const itimerspec disarmed{};
        ::timerfd_settime(m_fd, 0, &disarmed, nullptr);
    }

  private:
    void absorb() {
        std::lock_guard<std::mutex> guard(m_lock);
        absorbLocked();
    }

    void absorbLocked() {
        std::uint64_t expiries = 0;
        if (::read(m_fd, &expiries, sizeof expiries) == sizeof expiries && expiries > 0) {
            m_signalled.store(1, std::memory_order_release);
        }
    }

    const int m_fd;
    const bool m_manualReset;
    const std::string m_name;  // empty for an unnamed timer
    std::mutex m_lock;         // orders reads of the descriptor against its re-arming
    // 1 while signalled. Raised with release and taken with acquire, so that a waiter that
    // takes the signal sees what the thread that set the timer wrote before; the plain store
    // under the lock at a new setting needs no order of its own.
    std::atomic<std::uint32_t> m_signalled{0};
};

TimerObject* timerOf(HANDLE handle) {
    return ObjectOfKind<TimerObject>(handle, Waitable::Kind::Timer);
}

TimerObject* makeTimer(bool manualReset, const std::string& name) {
    const int fd = ::timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    auto* timer = new (std::nothrow) TimerObject(fd, manualReset, name);
    if (timer == nullptr) {
        ::close(fd);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return timer;
}

timespec timespecOfTicks(std::uint64_t ticks) {
    return timespec{static_cast<time_t>(ticks / kTicksPerSecond),
                    static_cast<long>(ticks % kTicksPerSecond * 100)};
}

}  // namespace

HANDLE CreateWaitableTimerA(SECURITY_ATTRIBUTES* /*attributes*/, BOOL manualReset,
                            const char* name) {
    std::string key;
    if (name != nullptr && *name != '\0' && !NormaliseObjectName(name, key)) {
        return nullptr;
    }
    return TimerNames::instance().createHandle(
        key, [&] { return makeTimer(manualReset != FALSE, key); });
}

HANDLE OpenWaitableTimerA(DWORD /*desiredAccess*/, BOOL /*inheritHandle*/, const char* name) {
    std::string key;
    if (!KeyOfNameToOpen(name, key)) {
        return nullptr;
    }
    TimerObject* timer = TimerNames::instance().find(key);
    return timer != nullptr ? MakeHandle(timer) : nullptr;
}

BOOL SetWaitableTimer(HANDLE handle, const LARGE_INTEGER* dueTime, LONG periodMs,
                      PTIMERAPCROUTINE completion, void* /*argument*/, BOOL /*resume*/) {
    TimerObject* timer = timerOf(handle);
    if (timer == nullptr) {
        return FALSE;
    }
    if (dueTime == nullptr || periodMs < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (completion != nullptr) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    itimerspec setting{};
    setting.it_interval = timespec{periodMs / 1000, periodMs % 1000 * 1000000L};
    int flags = 0;
    const std::int64_t due = dueTime->QuadPart;
    if (due < 0) {
        // Negated in unsigned arithmetic, which also holds for the most negative value.
        setting.it_value = timespecOfTicks(std::uint64_t{0} - static_cast<std::uint64_t>(due));
    } else if (due > kUnixEpochInSystemTicks) {
        setting.it_value =
            timespecOfTicks(static_cast<std::uint64_t>(due - kUnixEpochInSystemTicks));
        flags = TFD_TIMER_ABSTIME;
    }
    // A zero value would disarm the timer: what is due now (or before 1970) is due in 1 ns.
    if (setting.it_value.tv_sec == 0 && setting.it_value.tv_nsec == 0) {
        setting.it_value.tv_nsec = 1;
        flags = 0;
    }
    return timer->set(setting, flags) ? TRUE : FALSE;
}

BOOL CancelWaitableTimer(HANDLE handle) {
    TimerObject* timer = timerOf(handle);
    if (timer == nullptr) {
        return FALSE;
    }
    timer->cancel();
    return TRUE;
}

}  // namespace Tessel::Platform
