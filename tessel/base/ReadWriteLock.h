// CReadWriteLock: holds an ISyncGuard for the scope of a block.
//
//     CReadWriteLock lock(m_guard, true, true);  // read lock, taken now
//
// The holder takes the guard's read or write side, as chosen at construction, and counts the
// holds that it took successfully: Unlock ends one of them and does nothing when there is
// none, and the destructor ends all that remain. A failed Lock or TryLock is not counted, so
// the holder never unlocks what it did not get.
//
// Lifetime: the guard must outlive the holder. A holder lives on the stack of the function
// that holds the lock and ends in the thread where it began, since critical sections, mutexes
// and the reader/writer guard bind a hold to a thread or a count.
//
// Thread safety: none; a holder belongs to one thread. Copying is private: a copy would refer
// to the same guard and mode and hold nothing.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/base/ISyncGuard.h"

class TESSEL_API CReadWriteLock {
  public:
    // read chooses the read side (else the write side); lockNow calls Lock at once.
    CReadWriteLock(ISyncGuard& guard, bool read, bool lockNow);
    // Unlocks until no hold remains.
    ~CReadWriteLock();

    // LockRead or LockWrite; counts the hold when it was granted. The guard's result.
    bool Lock();
    // TryLockRead or TryLockWrite; counts the hold when it was granted. The guard's result.
    bool TryLock();
    // Ends one counted hold with UnlockRead or UnlockWrite; nothing without one.
    void Unlock();

  private:
    // The same guard and mode, no hold.
    CReadWriteLock(const CReadWriteLock& other);
    CReadWriteLock& operator=(const CReadWriteLock&) = delete;

    ISyncGuard& m_rGuard;
    bool m_bRead;
    // Holds taken through this holder and not yet ended.
    std::uint32_t m_ulLockCount;
};
