// CMutexSyncGuard: an ISyncGuard over a kernel mutex, which other processes may share.
//
// Read and write are the same exclusive lock. A named mutex is one lock for every process of
// the machine that opens that name: processes that must not write a shared resource at the
// same time take it. A thread that holds the mutex may take it again, and needs one unlock per
// lock. The guard counts its holds; an unlock with no hold outstanding does nothing, so that a
// surplus unlock is harmless, and the destructor ends the holds still outstanding before it
// closes the mutex.
//
// A mutex whose owner ended (its thread, or its process) without releasing it is abandoned:
// the next thread to lock it gets it, and the lock succeeds. That hold is not counted, so the
// guard's count stays one short of the holds the thread has: the mutex stays held by that
// thread after its matching unlock, until the thread ends and abandons it in turn. This is how
// the guard has always treated an abandoned mutex, and callers rely on the lock succeeding.
//
// A lock that fails (no mutex, a time-out, even the zero-time probe of TryLock..., an error)
// is written to the debugger output (as CTraceUtil::DebugString does) with the mutex's name, "Not
// defined" for a guard whose name was never set.
//
// Lifetime: the default constructor makes a guard without a mutex, on which every lock fails
// until Create succeeds; Create may be called again, and closes the former mutex first. A
// mutex that could not be made shows as IsValid false, and in the trace at the first lock.
// Copying is not for use.
//
// Thread safety: all operations may be called from any thread; the count and the owning
// thread are changed only by the thread that holds the mutex. Create must not run while other
// threads use the guard.
#pragma once

#include <atomic>
#include <cstdint>

#include "tessel/Export.h"
#include "tessel/base/Handle.h"
#include "tessel/base/ISyncGuard.h"
#include "tessel/platform/Types.h"

class TESSEL_API CMutexSyncGuard : public ISyncGuard {
  public:
    // Room for the name, with its terminating NUL.
    static constexpr unsigned int NAME_SIZE = 260;

    // No mutex, count 0, name "Not defined".
    CMutexSyncGuard();
    // Create(initialOwner, name, attributes); the result is not kept: see IsValid.
    CMutexSyncGuard(bool initialOwner, const char* name,
                    Tessel::Platform::SECURITY_ATTRIBUTES* attributes);
    // Ends the outstanding holds, then closes the mutex.
    ~CMutexSyncGuard() override;

    // Closes the mutex held, then makes a mutex (a name makes it shared with every process
    // that opens the name, or opens the one that exists under it). Where the mutex exists under
    // an access list that refuses this account full access, it is opened for waiting only.
    // A name is kept for the trace; it must fit NAME_SIZE with its NUL, or it is an invalid
    // parameter of the process. A null name makes an unnamed mutex and keeps the name as it
    // was. An initial owner is not counted. True if a mutex was obtained.
    bool Create(bool initialOwner, const char* name,
                Tessel::Platform::SECURITY_ATTRIBUTES* attributes);
    // True if the guard has a mutex.
    bool IsValid();
    // Holds that the guard has counted.
    unsigned long GetLockCount() const;
    // The thread that took the first counted hold, 0 when the count is 0.
    unsigned long GetOwningThread() const;

    // Lock and TryLock: wait for ever, or not at all.
    bool TryLockRead() override { return TryLock(0); }
    bool LockRead() override { return Lock(); }
    void UnlockRead() override { Unlock(); }
    bool TryLockWrite() override { return TryLock(0); }
    bool LockWrite() override { return Lock(); }
    void UnlockWrite() override { Unlock(); }
    // Waits up to timeoutMs (0xFFFFFFFF: for ever) for the mutex.
    virtual bool TryLockWrite(unsigned int timeoutMs) { return TryLock(timeoutMs); }

  private:
    CMutexSyncGuard(const CMutexSyncGuard&) = delete;
    CMutexSyncGuard& operator=(const CMutexSyncGuard&) = delete;

    bool Lock();
    bool TryLock(unsigned int timeoutMs);
    void Unlock();

    Tessel::CHandle m_hMutex;
    // Counted holds, and the holder (0 when the count is 0). Relaxed: written by the holder
    // only, whose mutex orders the writes; other threads only read a number, untorn.
    std::atomic<std::uint32_t> m_ulLockCount{0};
    std::atomic<std::uint32_t> m_ulOwningThread{0};
    // For the trace only.
    char m_szName[NAME_SIZE];
};
