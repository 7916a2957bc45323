#include "tessel/threads/LockFreeSpinLock.h"

#include <boost/chrono/duration.hpp>
#include <boost/thread/thread.hpp>

#include "tessel/monitoring/MonitorElement.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/platform/Process.h"

void LockFreeSpinLock::lock() {
    std::uint64_t retries = 0;
    if (m_lock.exchange(1) != 0) {
        do {
            ++retries;
            if (retries % SLEEP_EVERY_NTH_TIME == 0) {
                boost::this_thread::sleep_for(boost::chrono::microseconds(SLEEP_TIME_MICRO_SEC));
            }
        } while (m_lock.exchange(1) != 0);
    }
    m_ownerThreadId = Tessel::Platform::GetCurrentThreadId();
    if (m_pTryCount != nullptr) {
        m_pTryCount->increment(retries);
    }
}

bool LockFreeSpinLock::tryLock() {
    if (m_lock.exchange(1) != 0) {
        return false;  // wrote 1 over 1
    }
    m_ownerThreadId = Tessel::Platform::GetCurrentThreadId();
    return true;
}

void LockFreeSpinLock::unlock() {
    m_previousOwnerThreadId = m_ownerThreadId;
    m_ownerThreadId = 0;
    m_lock.exchange(0);
}

void LockFreeSpinLock::initMonitor(CMonitorElementContainer& container) {
    m_pTryCount = container.add("TryCount", "", true);
}

void LockFreeSpinLock::deinitMonitor() {
    m_pTryCount = nullptr;
}
