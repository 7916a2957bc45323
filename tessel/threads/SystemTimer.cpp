#include "tessel/threads/SystemTimer.h"

#include "tessel/platform/TimerQueue.h"

using namespace Tessel::Platform;

CSystemTimer::~CSystemTimer() {
    Stop();
}

bool CSystemTimer::Start(unsigned int dueTimeMs, unsigned int periodMs, ISystemTimerNotify* notify,
                         unsigned long flags) {
    if (m_hTimer != nullptr || (dueTimeMs == 0 && periodMs == 0) || notify == nullptr) {
        return false;
    }
    m_pNotify = notify;
    if (CreateTimerQueueTimer(&m_hTimer, m_hTimerQueue, &CSystemTimer::TimerFunc, this, dueTimeMs,
                              periodMs, static_cast<DWORD>(flags))) {
        return true;
    }
    Stop();
    return false;
}

void CSystemTimer::Stop() {
    if (m_hTimer != nullptr) {
        DeleteTimerQueueTimer(nullptr, m_hTimer, INVALID_HANDLE_VALUE);
    }
    if (m_hTimerQueue != nullptr) {
        DeleteTimerQueueEx(m_hTimerQueue, INVALID_HANDLE_VALUE);
    }
    m_hTimerQueue = nullptr;
    m_hTimer = nullptr;
    m_pNotify = nullptr;
}

void CSystemTimer::TimerFunc(void* parameter, int timerOrWaitFired) {
    auto* self = static_cast<CSystemTimer*>(parameter);
    if (self != nullptr && self->m_pNotify != nullptr) {
        self->m_pNotify->OnSystemTimer(timerOrWaitFired);
    }
}
