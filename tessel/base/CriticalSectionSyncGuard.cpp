#include "tessel/base/CriticalSectionSyncGuard.h"

#include "tessel/base/HResultException.h"
#include "tessel/platform/CriticalSection.h"

using namespace Tessel::Platform;

namespace {
// Rounds that a thread spins on a taken section before it sleeps.
constexpr DWORD kSpinCount = 4000;
}  // namespace

CCriticalSectionSyncGuard::CCriticalSectionSyncGuard() : m_pCriticalSection(new CRITICAL_SECTION) {
    if (InitializeCriticalSectionEx(m_pCriticalSection, kSpinCount, 0) == FALSE) {
        delete m_pCriticalSection;
        Tessel::ThrowLastError();
    }
}

CCriticalSectionSyncGuard::~CCriticalSectionSyncGuard() {
    while (m_ulLockCount.load(std::memory_order_relaxed) != 0) {
        Unlock();
    }
    DeleteCriticalSection(m_pCriticalSection);
    delete m_pCriticalSection;
}

bool CCriticalSectionSyncGuard::Lock() {
    EnterCriticalSection(m_pCriticalSection);
    m_ulLockCount.store(m_ulLockCount.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
    return true;
}

bool CCriticalSectionSyncGuard::TryLock() {
    if (TryEnterCriticalSection(m_pCriticalSection) == FALSE) {
        return false;
    }
    m_ulLockCount.store(m_ulLockCount.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
    return true;
}

void CCriticalSectionSyncGuard::Unlock() {
    const std::uint32_t count = m_ulLockCount.load(std::memory_order_relaxed);
    if (count == 0) {
        return;  // a surplus unlock leaves the section alone
    }
    m_ulLockCount.store(count - 1, std::memory_order_relaxed);
    LeaveCriticalSection(m_pCriticalSection);
}
