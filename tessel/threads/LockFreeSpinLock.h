// LockFreeSpinLock: a test-and-set spin lock for stretches of a few instructions.
//
// An ISyncGuard whose read and write locks are one exclusive lock. An uncontended lock is one
// atomic exchange and a thread id query; a contended one spins, sleeping 5 microseconds every
// tenth round, with no limit on the rounds. It is not re-entrant: a second lock by the holder
// never returns. unlock does not check who calls it.
//
// initMonitor attaches a "TryCount" element that adds up the failed attempts of every lock,
// so that its rate of change shows contention; the lock does not own the element, and
// deinitMonitor must come before the element's container goes away.
//
// Thread safety: lock, tryLock and unlock may be called from any thread; the lock word is
// atomic with sequentially consistent order. initMonitor and deinitMonitor are not to be
// called while other threads use the lock.
#pragma once

#include <atomic>
#include <cstdint>

#include "tessel/Export.h"
#include "tessel/base/ISyncGuard.h"

class CMonitorElement;
class CMonitorElementContainer;

class TESSEL_API LockFreeSpinLock : public ISyncGuard {
  public:
    LockFreeSpinLock() = default;
    // A lock is one place in memory that its users share: it is not copied.
    LockFreeSpinLock(const LockFreeSpinLock&) = delete;
    LockFreeSpinLock& operator=(const LockFreeSpinLock&) = delete;

    // Takes the lock, spinning as long as it takes; counts the failed rounds on the monitor.
    void lock();
    // Takes the lock if it is free; never sleeps and leaves the monitor alone.
    bool tryLock();
    // Frees the lock.
    void unlock();

    // Adds the element "TryCount" to container (removed with it) and counts on it.
    void initMonitor(CMonitorElementContainer& container);
    // Stops counting.
    void deinitMonitor();

    bool TryLockRead() override { return tryLock(); }
    bool LockRead() override {
        lock();
        return true;
    }
    void UnlockRead() override { unlock(); }
    bool TryLockWrite() override { return tryLock(); }
    bool LockWrite() override {
        lock();
        return true;
    }
    void UnlockWrite() override { unlock(); }

  private:
    static constexpr std::uint64_t SLEEP_EVERY_NTH_TIME = 10;
    static constexpr std::uint64_t SLEEP_TIME_MICRO_SEC = 5;

    std::atomic<std::uint32_t> m_lock{0};  // 0 free, 1 held
    // The holder and the one before; written while the lock is held. No operation reads them:
    // they are kept for a debugger that looks at a process hanging on the lock.
    std::uint32_t m_ownerThreadId = 0;
    std::uint32_t m_previousOwnerThreadId = 0;
    CMonitorElement* m_pTryCount = nullptr;
};
