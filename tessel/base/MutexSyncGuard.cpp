#include "tessel/base/MutexSyncGuard.h"

#include <cstdint>
#include <cstring>

#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Mutex.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;

CMutexSyncGuard::CMutexSyncGuard() {
    std::strcpy(m_szName, "Not defined");
}

CMutexSyncGuard::CMutexSyncGuard(bool initialOwner, const char* name,
                                 SECURITY_ATTRIBUTES* attributes)
    : CMutexSyncGuard() {
    Create(initialOwner, name, attributes);
}

CMutexSyncGuard::~CMutexSyncGuard() {
    if (m_hMutex != nullptr) {
        while (m_ulLockCount.load(std::memory_order_relaxed) != 0) {
            Unlock();
        }
    }
    // m_hMutex closes the mutex.
}

bool CMutexSyncGuard::Create(bool initialOwner, const char* name, SECURITY_ATTRIBUTES* attributes) {
    m_hMutex.Close();
    if (name != nullptr) {
        sprintf_s(m_szName, NAME_SIZE, "%s", name);
    }
    HANDLE mutex = CreateMutexA(attributes, initialOwner ? TRUE : FALSE, name);
    if (mutex == nullptr && GetLastError() == ERROR_ACCESS_DENIED) {
        // The mutex exists, under an access list that refuses this account full access:
        // waiting on it is all that is needed.
        mutex = OpenMutexA(SYNCHRONIZE, FALSE, name);
    }
    m_hMutex.Attach(mutex);
    return m_hMutex != nullptr;
}

bool CMutexSyncGuard::IsValid() {
    return m_hMutex != nullptr;
}

unsigned long CMutexSyncGuard::GetLockCount() const {
    return m_ulLockCount.load(std::memory_order_relaxed);
}

unsigned long CMutexSyncGuard::GetOwningThread() const {
    return m_ulOwningThread.load(std::memory_order_relaxed);
}

bool CMutexSyncGuard::Lock() {
    return TryLock(INFINITE);
}

bool CMutexSyncGuard::TryLock(unsigned int timeoutMs) {
    if (m_hMutex == nullptr) {
        DebugPrint("CMutexSyncGuard::TryLock: Mutex not initialized!\n");
        return false;
    }
    const DWORD result = WaitForSingleObject(m_hMutex, timeoutMs);
    if (result == WAIT_OBJECT_0) {
        m_ulLockCount.store(m_ulLockCount.load(std::memory_order_relaxed) + 1,
                            std::memory_order_relaxed);
        m_ulOwningThread.store(GetCurrentThreadId(), std::memory_order_relaxed);
        return true;
    }
    if (result == WAIT_ABANDONED) {
        // Held now, but not counted: see the class comment.
        m_ulOwningThread.store(GetCurrentThreadId(), std::memory_order_relaxed);
        return true;
    }
    DebugPrint(
        "CMutexSyncGuard::TryLock: Could not aquire mutex '%s'(0x%x)', timeout %d, "
        "WaitForObject returned %d\n",
        m_szName,
        static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(static_cast<HANDLE>(m_hMutex))),
        static_cast<int>(timeoutMs), static_cast<int>(result));
    return false;
}

void CMutexSyncGuard::Unlock() {
    const std::uint32_t count = m_ulLockCount.load(std::memory_order_relaxed);
    if (count == 0 || m_hMutex == nullptr) {
        return;
    }
    m_ulLockCount.store(count - 1, std::memory_order_relaxed);
    if (count == 1) {
        m_ulOwningThread.store(0, std::memory_order_relaxed);
    }
    ReleaseMutex(m_hMutex);
}
