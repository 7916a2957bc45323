#include "tessel/threads/ActiveTimer.h"

#include "tessel/base/ReadWriteLock.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Process.h"
#include "tessel/supervision/WatchdogClient.h"

using namespace Tessel::Platform;

namespace {

LARGE_INTEGER dueTimeOf(std::int64_t value) {
    LARGE_INTEGER due;
    due.QuadPart = value;
    return due;
}

}  // namespace

CActiveTimer::CActiveTimer() : CActiveTimer(3000) {}

CActiveTimer::CActiveTimer(unsigned int stopTimeoutMs)
    : CActiveObject("CActiveTimer", &CActiveTimer::TimerThread, this, stopTimeoutMs) {}

CActiveTimer::CActiveTimer(const CActiveTimer& /*source*/) : CActiveTimer(1000) {}

CActiveTimer::~CActiveTimer() {
    Stop(1);
    CReadWriteLock lock(m_subscribersGuard, false, true);
    m_subscribers.clear();
}

int CActiveTimer::AddNotify(IActiveTimerNotify* notify) {
    CReadWriteLock lock(m_subscribersGuard, false, true);
    return m_subscribers.insert(notify).second ? 1 : 0;
}

void CActiveTimer::RemoveNotify(IActiveTimerNotify* notify) {
    CReadWriteLock lock(m_subscribersGuard, false, true);
    m_subscribers.erase(notify);
}

int CActiveTimer::Start(unsigned long* threadId) {
    return StartThread(__FILE__, __LINE__, "CActiveTimer::Start", 0, threadId, 0);
}

void CActiveTimer::Stop(int waitForThread) {
    if (waitForThread != 0) {
        StopThread();
    } else {
        StopThreadByWorkerThread();
    }
    m_timer.Close();
}

void CActiveTimer::Pause() {
    if (IsStarted()) {
        m_lPaused.store(1, std::memory_order_relaxed);
        m_timer.CancelWait();
    }
}

void CActiveTimer::Continue(unsigned int delayMs) {
    if (m_lPaused.load(std::memory_order_relaxed) != 0 && IsStarted()) {
        m_timer.SetWait(m_ulInterval.load(std::memory_order_relaxed),
                        CWaitableTimer::Delay2DueTime(delayMs));
        m_lPaused.store(0, std::memory_order_relaxed);
    }
}

void CActiveTimer::SetInterval(unsigned int intervalMs) {
    m_ulInterval.store(intervalMs, std::memory_order_relaxed);
    m_timer.SetWait(intervalMs, dueTimeOf(m_dueTime.load(std::memory_order_relaxed)));
}

void CActiveTimer::SetDelayAfterStart(unsigned int delayMs) {
    m_dueTime.store(CWaitableTimer::Delay2DueTime(delayMs).QuadPart, std::memory_order_relaxed);
}

void CActiveTimer::SetTimeToStart(const SYSTEMTIME& time) {
    m_dueTime.store(CWaitableTimer::DateTime2DueTime(time).QuadPart, std::memory_order_relaxed);
}

int CActiveTimer::SetTimerInfo(const char* text) {
    return sprintf_s(m_szTimerInfo, sizeof m_szTimerInfo, "%s", text);
}

int CActiveTimer::IsStarted() const {
    return IsThreadStarted() != 0 && m_timer.GetHandle() != nullptr ? 1 : 0;
}

void CActiveTimer::NotifySubscribers() {
    CReadWriteLock lock(m_subscribersGuard, true, true);
    // The walk finds its next subscriber by address after each call, so that a callback may
    // add or remove subscribers, itself included, without pulling the ground from under it.
    for (auto next = m_subscribers.begin(); next != m_subscribers.end();) {
        if (IsThreadStoppedOrStopping()) {
            break;
        }
        IActiveTimerNotify* subscriber = *next;
        subscriber->OnActiveTimer([this] { return IsThreadStoppedOrStopping(); });
        next = m_subscribers.upper_bound(subscriber);
    }
}

unsigned long CActiveTimer::TimerThread(void* parameter) {
    SetThreadName(GetCurrentThreadId(), "CActiveTimer::TimerThread");
    auto* self = static_cast<CActiveTimer*>(parameter);
    if (self == nullptr) {
        return 0;
    }
    SetThreadName(GetCurrentThreadId(), "ActTimer[%s]", self->m_szTimerInfo);
    if (self->m_timer.Create(nullptr, 0, nullptr) == 0) {
        self->StopThread();
        return 0;
    }
    CWatchdogClient watchdog;
    watchdog.SetWatchdogThreadInfo("ActiveTimer", 0);
    self->m_timer.SetWait(self->m_ulInterval.load(std::memory_order_relaxed),
                          dueTimeOf(self->m_dueTime.load(std::memory_order_relaxed)));

    for (;;) {
        // The timer's handle is read anew for each wait: a Stop(0) in a callback closes it,
        // and the wait on a closed timer fails, which ends the loop.
        const HANDLE handles[2] = {self->m_hStopEvent, self->m_timer.GetHandle()};
        if (handles[1] == nullptr) {
            break;
        }
        const DWORD result = WaitForMultipleObjectsEx(2, handles, FALSE, INFINITE, TRUE);
        // Only a tick goes on; the stop event, a failed wait and an asynchronous call end it.
        if (result < WAIT_OBJECT_0 + 1 || result > WAIT_OBJECT_0 + MAXIMUM_WAIT_OBJECTS) {
            break;
        }
        self->NotifySubscribers();
    }
    watchdog.NotifyWatchdogThisThreadClosing();
    return 0;
}
