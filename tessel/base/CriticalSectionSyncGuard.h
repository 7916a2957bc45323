// CCriticalSectionSyncGuard: an ISyncGuard over a critical section of the process.
//
// The lock for state shared between the threads of one process. Read and write are the same
// exclusive lock. A thread that holds it may take it again, and needs one unlock per lock; a
// thread that finds it taken tries 4000 times before it sleeps, since the sections that it
// guards are short.
//
// The guard counts the holds that are outstanding. An unlock with no hold outstanding does
// nothing, so that a surplus unlock is harmless; the destructor first ends every hold that is
// still outstanding, then deletes the critical section. Unlocking from a thread that does not
// hold the lock while another thread holds it is an error of the caller.
//
// Lifetime: the critical section is made on the heap by the constructor, which throws
// Tessel::CHResultException when the system cannot provide it, and freed by the destructor.
// The guard must not be destroyed while a thread other than the destroying one holds it.
// Copying is not for use.
//
// Thread safety: all operations may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "tessel/Export.h"
#include "tessel/base/ISyncGuard.h"

namespace Tessel::Platform {
struct CRITICAL_SECTION;
}

class TESSEL_API CCriticalSectionSyncGuard : public ISyncGuard {
  public:
    // Makes the critical section, spin count 4000. Throws Tessel::CHResultException.
    CCriticalSectionSyncGuard();
    // Ends the outstanding holds, then deletes the critical section.
    ~CCriticalSectionSyncGuard() override;

    bool TryLockRead() override { return TryLock(); }
    bool LockRead() override { return Lock(); }
    void UnlockRead() override { Unlock(); }
    bool TryLockWrite() override { return TryLock(); }
    bool LockWrite() override { return Lock(); }
    void UnlockWrite() override { Unlock(); }

  private:
    CCriticalSectionSyncGuard(const CCriticalSectionSyncGuard&) = delete;
    CCriticalSectionSyncGuard& operator=(const CCriticalSectionSyncGuard&) = delete;

    // Enters the critical section, waiting as long as it takes. Always true.
    bool Lock();
    // Enters the critical section if that is possible at once.
    bool TryLock();
    // Ends one hold; nothing without one.
    void Unlock();

    // Owned; allocated by the constructor.
    Tessel::Platform::CRITICAL_SECTION* m_pCriticalSection;
    // Holds outstanding. Written only while the critical section is held, which orders the
    // writes; atomic (relaxed) so that an unlock may look at it without holding the section.
    std::atomic<std::uint32_t> m_ulLockCount{0};
};
