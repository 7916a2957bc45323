// Timer queues on one dispatcher thread and a small pool of callback threads.
//
// All state lives in one service object under one lock: the timers by id, the schedule of
// due times, and the expiries that wait for a pool thread. A timer is in the schedule while
// it has a due time ahead, queued while its expiry waits for a pool thread, and running
// while its callback runs; the dispatcher queues an expiry only for a timer that is neither
// queued nor running, which is what keeps a timer's callbacks from overlapping.
#include "tessel/platform/TimerQueue.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <vector>

#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/ProcessMetrics.h"

namespace Tessel::Platform {
namespace {

using Clock = std::chrono::steady_clock;

struct QueueTimer {
    std::uint64_t id = 0;
    std::uint64_t queue = 0;  // 0: the default queue
    WAITORTIMERCALLBACK callback = nullptr;
    void* parameter = nullptr;
    std::chrono::milliseconds period{0};  // 0: once
    Clock::time_point due;                // its place in the schedule, while scheduled
    bool scheduled = false;
    bool queued = false;
    bool running = false;
    bool deleted = false;
    std::thread::id runner;      // the pool thread of the running callback
    HANDLE doneEvent = nullptr;  // set when the running callback of a deleted timer returns
};

using TimerPtr = std::shared_ptr<QueueTimer>;

class Service {
  public:
    std::mutex lock;
    std::map<std::uint64_t, TimerPtr> timers;             // guarded by lock
    std::set<std::uint64_t> queues;                       // guarded by lock
    std::multimap<Clock::time_point, TimerPtr> schedule;  // guarded by lock
    std::deque<TimerPtr> ready;                           // guarded by lock
    std::uint64_t lastId = 0;                             // guarded by lock
    bool started = false;                                 // guarded by lock
    std::condition_variable scheduleChanged;              // wakes the dispatcher
    std::condition_variable readyAdded;                   // wakes the pool
    std::condition_variable callbackEnded;                // wakes deleters

    // Starts the dispatcher and the pool once; false with the last error set if a thread
    // cannot be started (those that did start stay).
    bool startLocked() {
        if (started) {
            return true;
        }
        const DWORD workers = std::clamp<DWORD>(GetNumberOfProcessors(), 2, 4);
        try {
            std::thread(&Service::dispatch, this).detach();
            started = true;
            for (DWORD i = 0; i < workers; ++i) {
                std::thread(&Service::work, this).detach();
            }
        } catch (const std::system_error& error) {
            SetLastErrorFromErrno(error.code().value());
            return started;
        }
        return true;
    }

    void scheduleLocked(const TimerPtr& timer, Clock::time_point due) {
        timer->due = due;
        timer->scheduled = true;
        schedule.emplace(due, timer);
        if (schedule.begin()->second == timer) {
            scheduleChanged.notify_one();
        }
    }

    void unscheduleLocked(const TimerPtr& timer) {
        if (!timer->scheduled) {
            return;
        }
        auto [first, last] = schedule.equal_range(timer->due);
        for (auto entry = first; entry != last; ++entry) {
            if (entry->second == timer) {
                schedule.erase(entry);
                break;
            }
        }
        timer->scheduled = false;
    }

    // Takes timer out of the service. Returns what the caller has to wait for: true if its
    // callback runs and the caller may and shall wait for it.
    enum class Pending { None, Running, Self };
    Pending removeLocked(const TimerPtr& timer) {
        timers.erase(timer->id);
        unscheduleLocked(timer);
        timer->deleted = true;
        if (!timer->running) {
            return Pending::None;
        }
        return timer->runner == std::this_thread::get_id() ? Pending::Self : Pending::Running;
    }

  private:
    void dispatch() {
        EnsureAlternateSignalStack();
        ::pthread_setname_np(::pthread_self(), "TesselTimerQ");
        std::unique_lock<std::mutex> guard(lock);
        for (;;) {
            if (schedule.empty()) {
                scheduleChanged.wait(guard);
                continue;
            }
            const Clock::time_point now = Clock::now();
            auto first = schedule.begin();
            if (first->first > now) {
                // A copy: the entry may go while the lock is released.
                const Clock::time_point due = first->first;
                scheduleChanged.wait_until(guard, due);
                continue;
            }
            TimerPtr timer = std::move(first->second);
            schedule.erase(first);
            timer->scheduled = false;
            if (!timer->queued && !timer->running) {
                timer->queued = true;
                ready.push_back(timer);
                readyAdded.notify_one();
            }
            if (timer->period.count() > 0) {
                // The next expiry of the rhythm that lies ahead; those missed are dropped.
                const auto behind = now - timer->due;
                const auto missed = behind / timer->period;
                scheduleLocked(timer, timer->due + (missed + 1) * timer->period);
            }
        }
    }

    void work() {
        EnsureAlternateSignalStack();
        ::pthread_setname_np(::pthread_self(), "TesselTimerQW");
        std::unique_lock<std::mutex> guard(lock);
        for (;;) {
            readyAdded.wait(guard, [this] { return !ready.empty(); });
            TimerPtr timer = std::move(ready.front());
            ready.pop_front();
            timer->queued = false;
            if (timer->deleted) {
                continue;
            }
            timer->running = true;
            timer->runner = std::this_thread::get_id();
            guard.unlock();
            timer->callback(timer->parameter, TRUE);
            guard.lock();
            timer->running = false;
            timer->runner = std::thread::id();
            if (timer->doneEvent != nullptr) {
                SetEvent(timer->doneEvent);
                timer->doneEvent = nullptr;
            }
            callbackEnded.notify_all();
        }
    }
};

Service* g_service = nullptr;
Service* g_leftBehind = nullptr;  // the service a forked child inherited without its threads

Service& service() {
    static Service* made = [] {
        g_service = new Service;
        ::pthread_atfork([] { g_service->lock.lock(); }, [] { g_service->lock.unlock(); },
                         [] {
                             // The threads did not come along: the child starts afresh.
                             g_leftBehind = g_service;
                             g_service = new Service;
                         });
        return g_service;
    }();
    (void)made;
    return *g_service;
}

std::uint64_t idOf(HANDLE handle) {
    return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(handle));
}

HANDLE handleOf(std::uint64_t id) {
    return reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(id));
}

}  // namespace

HANDLE CreateTimerQueue() {
    Service& s = service();
    std::lock_guard<std::mutex> guard(s.lock);
    const std::uint64_t id = ++s.lastId;
    s.queues.insert(id);
    return handleOf(id);
}

BOOL CreateTimerQueueTimer(HANDLE* newTimer, HANDLE queue, WAITORTIMERCALLBACK callback,
                           void* parameter, DWORD dueTimeMs, DWORD periodMs, DWORD flags) {
    Service& s = service();
    std::lock_guard<std::mutex> guard(s.lock);
    if (newTimer == nullptr || callback == nullptr ||
        (queue != nullptr && s.queues.count(idOf(queue)) == 0)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!s.startLocked()) {
        return FALSE;
    }
    auto timer = std::make_shared<QueueTimer>();
    timer->id = ++s.lastId;
    timer->queue = idOf(queue);
    timer->callback = callback;
    timer->parameter = parameter;
    if ((flags & WT_EXECUTEONLYONCE) == 0) {
        timer->period = std::chrono::milliseconds(periodMs);
    }
    s.timers.emplace(timer->id, timer);
    s.scheduleLocked(timer, Clock::now() + std::chrono::milliseconds(dueTimeMs));
    *newTimer = handleOf(timer->id);
    return TRUE;
}

BOOL DeleteTimerQueueTimer(HANDLE /*queue*/, HANDLE timerHandle, HANDLE completionEvent) {
    Service& s = service();
    std::unique_lock<std::mutex> guard(s.lock);
    auto found = s.timers.find(idOf(timerHandle));
    if (timerHandle == nullptr || found == s.timers.end()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    TimerPtr timer = found->second;
    const Service::Pending pending = s.removeLocked(timer);
    if (pending == Service::Pending::Running && completionEvent == INVALID_HANDLE_VALUE) {
        s.callbackEnded.wait(guard, [&] { return !timer->running; });
        return TRUE;
    }
    if (pending == Service::Pending::None) {
        guard.unlock();
        if (completionEvent != nullptr && completionEvent != INVALID_HANDLE_VALUE) {
            SetEvent(completionEvent);
        }
        return TRUE;
    }
    if (completionEvent != nullptr && completionEvent != INVALID_HANDLE_VALUE) {
        timer->doneEvent = completionEvent;
    }
    SetLastError(ERROR_IO_PENDING);
    return FALSE;
}

BOOL DeleteTimerQueueEx(HANDLE queue, HANDLE completionEvent) {
    Service& s = service();
    std::unique_lock<std::mutex> guard(s.lock);
    if (queue == nullptr || s.queues.erase(idOf(queue)) == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::vector<TimerPtr> running;
    for (auto entry = s.timers.begin(); entry != s.timers.end();) {
        TimerPtr timer = (entry++)->second;
        if (timer->queue == idOf(queue) && s.removeLocked(timer) == Service::Pending::Running) {
            running.push_back(timer);
        }
    }
    if (completionEvent == nullptr) {
        return TRUE;
    }
    s.callbackEnded.wait(guard, [&] {
        return std::none_of(running.begin(), running.end(),
                            [](const TimerPtr& timer) { return timer->running; });
    });
    guard.unlock();
    if (completionEvent != INVALID_HANDLE_VALUE) {
        SetEvent(completionEvent);
    }
    return TRUE;
}

}  // namespace Tessel::Platform
