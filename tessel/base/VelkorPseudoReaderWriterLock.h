// CVelkorPseudoReaderWriterLock: a reader/writer lock in name only.
//
// Stands where a class's design asks for a reader/writer lock but its state is owned by one
// thread. Like CDummySyncGuard it locks nothing: every lock operation returns true at once and
// every unlock returns at once, for any number of threads. CheckThreadId, the place for a
// check of the calling thread, does nothing.
//
// It holds no state: copying is public and copies nothing. Thread safety: trivially safe.
#pragma once

#include "tessel/Export.h"
#include "tessel/base/ISyncGuard.h"

class TESSEL_API CVelkorPseudoReaderWriterLock : public ISyncGuard {
  public:
    CVelkorPseudoReaderWriterLock() = default;
    CVelkorPseudoReaderWriterLock(const CVelkorPseudoReaderWriterLock&) = default;
    CVelkorPseudoReaderWriterLock& operator=(const CVelkorPseudoReaderWriterLock&) = default;
    ~CVelkorPseudoReaderWriterLock() override;

    bool TryLockRead() override { return true; }
    bool LockRead() override { return true; }
    void UnlockRead() override {}
    bool TryLockWrite() override { return true; }
    bool LockWrite() override { return true; }
    void UnlockWrite() override {}

  protected:
    // Does nothing.
    void CheckThreadId() {}
};
