// ISyncGuard: the lock interface that the library takes everywhere.
//
// Code that shares state takes its lock through this interface, mostly with the scoped holder
// CReadWriteLock, so that the kind of lock stays the choice of the class that owns it: a
// critical section (CCriticalSectionSyncGuard), a kernel mutex that may be shared with other
// processes (CMutexSyncGuard), a reader/writer lock (CReaderWriterSyncGuard), or no lock at
// all (CDummySyncGuard, CVelkorPseudoReaderWriterLock).
//
// The four TryLock... and Lock... operations return true when the lock is now held by the
// caller, false when it is not; the two Unlock... operations end one hold. TryLock... does not
// wait, Lock... waits as long as it takes. Read and write are one and the same lock in every
// implementation except CReaderWriterSyncGuard, which lets several readers in at once and a
// writer alone. Whether a thread may take a lock it already holds, and what a surplus unlock
// does, is told by each implementation.
//
// The interface holds no data; constructing, copying and assigning it do nothing.
#pragma once

#include "tessel/Export.h"

class TESSEL_API ISyncGuard {
  public:
    ISyncGuard() = default;
    ISyncGuard(const ISyncGuard&) = default;
    ISyncGuard& operator=(const ISyncGuard&) = default;
    virtual ~ISyncGuard();

    virtual bool TryLockRead() = 0;
    virtual bool LockRead() = 0;
    virtual void UnlockRead() = 0;
    virtual bool TryLockWrite() = 0;
    virtual bool LockWrite() = 0;
    virtual void UnlockWrite() = 0;
};
