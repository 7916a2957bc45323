// Millisecond timer events, one thread and one timerfd each.
//
// The table of running events maps ids to their records. Whoever takes a record out of the
// table decides what becomes of its thread: a kill from another thread joins it (with
// TIME_KILL_SYNCHRONOUS) or lets it go; a kill from the callback itself, and the end of a
// one-shot event, let it go. The thread holds its record until it ends, so that a record
// outlives the table entry as long as its callback may run.
#include "tessel/platform/MultimediaTimer.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "tessel/platform/CrashHandling.h"
namespace Tessel::Platform {
namespace {

constexpr UINT kPeriodMin = 1;
constexpr UINT kPeriodMax = 1000000;

struct TimerEvent {
    ~TimerEvent() {
        if (timerFd >= 0) {
            ::close(timerFd);
        }
        if (stopFd >= 0) {
            ::close(stopFd);
        }
    }

    UINT id = 0;
    LPTIMECALLBACK callback = nullptr;
    std::size_t user = 0;
    bool periodic = false;
    bool killSynchronously = false;
    int timerFd = -1;
    int stopFd = -1;  // an eventfd, written by the kill
    // Set by the kill before it writes stopFd; checked before each callback. Relaxed is
    // enough for that test: the kill's join or the stop descriptor orders the rest.
    std::atomic<bool> killed{false};
    std::thread thread;  // joined or detached by whoever takes the record out of the table
};

struct EventTable {
    std::mutex lock;
    std::unordered_map<UINT, std::shared_ptr<TimerEvent>> byId;  // guarded by lock
    UINT lastId = 0;                                             // guarded by lock
};

// Records of events that a forked child inherited without their threads.
std::unordered_map<UINT, std::shared_ptr<TimerEvent>>* g_leftBehind = nullptr;

EventTable& eventTable() {
    static EventTable* table = [] {
        auto* created = new EventTable;
        ::pthread_atfork([] { eventTable().lock.lock(); }, [] { eventTable().lock.unlock(); },
                         [] {
                             // The threads of the events did not come along; their records
                             // are left behind untouched, since nothing can join them.
                             EventTable& inherited = eventTable();
                             g_leftBehind =
                                 new std::unordered_map<UINT, std::shared_ptr<TimerEvent>>(
                                     std::move(inherited.byId));
                             inherited.byId.clear();
                             inherited.lock.unlock();
                         });
        return created;
    }();
    return *table;
}

// Takes event id out of the table; null if it is not there.
std::shared_ptr<TimerEvent> takeOut(UINT id) {
    EventTable& table = eventTable();
    std::lock_guard<std::mutex> guard(table.lock);
    auto found = table.byId.find(id);
    if (found == table.byId.end()) {
        return nullptr;
    }
    std::shared_ptr<TimerEvent> event = std::move(found->second);
    table.byId.erase(found);
    return event;
}

void runEvent(const std::shared_ptr<TimerEvent>& event) {
    EnsureAlternateSignalStack();
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    ::pthread_setname_np(::pthread_self(), "TesselMmTimer");
    pollfd fds[2] = {{event->timerFd, POLLIN, 0}, {event->stopFd, POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(fds, 2, -1);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0 || fds[1].revents != 0 || event->killed.load(std::memory_order_relaxed)) {
            return;
        }
        std::uint64_t expiries = 0;
        if (::read(event->timerFd, &expiries, sizeof expiries) != sizeof expiries) {
            continue;
        }
        event->callback(event->id, 0, event->user, 0, 0);
        if (!event->periodic) {
            // Fired: the event ends here unless its callback killed it already.
            if (std::shared_ptr<TimerEvent> self = takeOut(event->id); self == event) {
                event->thread.detach();
            }
            return;
        }
    }
}

}  // namespace

MMRESULT timeGetDevCaps(TIMECAPS* caps, UINT size) {
    if (caps == nullptr || size < sizeof(TIMECAPS)) {
        return MMSYSERR_INVALPARAM;
    }
    caps->wPeriodMin = kPeriodMin;
    caps->wPeriodMax = kPeriodMax;
    return TIMERR_NOERROR;
}

MMRESULT timeBeginPeriod(UINT periodMs) {
    return periodMs >= kPeriodMin && periodMs <= kPeriodMax ? TIMERR_NOERROR : TIMERR_NOCANDO;
}

MMRESULT timeEndPeriod(UINT periodMs) {
    return timeBeginPeriod(periodMs);
}

MMRESULT timeSetEvent(UINT delayMs, UINT /*resolutionMs*/, LPTIMECALLBACK callback,
                      std::size_t user, UINT flags) {
    if (delayMs < kPeriodMin || delayMs > kPeriodMax || callback == nullptr) {
        return 0;
    }
    auto event = std::make_shared<TimerEvent>();
    event->callback = callback;
    event->user = user;
    event->periodic = (flags & TIME_PERIODIC) != 0;
    event->killSynchronously = (flags & TIME_KILL_SYNCHRONOUS) != 0;
    event->timerFd = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    event->stopFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (event->timerFd < 0 || event->stopFd < 0) {
        return 0;
    }
    const timespec delay{static_cast<time_t>(delayMs / 1000),
                         static_cast<long>(delayMs % 1000) * 1000000L};
    itimerspec setting{};
    setting.it_value = delay;
    if (event->periodic) {
        setting.it_interval = delay;
    }

    EventTable& table = eventTable();
    std::lock_guard<std::mutex> guard(table.lock);
    do {
        ++table.lastId;
    } while (table.lastId == 0 || table.byId.count(table.lastId) != 0);
    event->id = table.lastId;
    // The clock starts now; the thread, which may take a moment to run, finds the first
    // expiry counted.
    if (::timerfd_settime(event->timerFd, 0, &setting, nullptr) != 0) {
        return 0;
    }
    table.byId.emplace(event->id, event);
    try {
        // Under the table's lock, so that the thread is stored before the event can end.
        event->thread = std::thread(runEvent, event);
    } catch (const std::system_error&) {
        table.byId.erase(event->id);
        return 0;
    }
    return event->id;
}

MMRESULT timeKillEvent(UINT timerId) {
    std::shared_ptr<TimerEvent> event = takeOut(timerId);
    if (event == nullptr) {
        return MMSYSERR_INVALPARAM;
    }
    event->killed.store(true, std::memory_order_relaxed);
    const std::uint64_t one = 1;
    while (::write(event->stopFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
    if (event->killSynchronously && event->thread.get_id() != std::this_thread::get_id()) {
        event->thread.join();
    } else {
        event->thread.detach();
    }
    return TIMERR_NOERROR;
}

}  // namespace Tessel::Platform
