// CDummySyncGuard: an ISyncGuard that locks nothing.
//
// For a class that takes its lock through ISyncGuard but is used where no other thread can
// reach its state. Every lock operation returns true at once and every unlock returns at
// once; nothing is counted, so nothing is ever held, by any number of threads at a time.
//
// It has no data: copies are free and independent. Thread safety: trivially safe.
#pragma once

#include "tessel/Export.h"
#include "tessel/base/ISyncGuard.h"

class TESSEL_API CDummySyncGuard : public ISyncGuard {
  public:
    CDummySyncGuard() = default;
    CDummySyncGuard(const CDummySyncGuard&) = default;
    CDummySyncGuard& operator=(const CDummySyncGuard&) = default;
    ~CDummySyncGuard() override;

    bool TryLockRead() override { return true; }
    bool LockRead() override { return true; }
    void UnlockRead() override {}
    bool TryLockWrite() override { return true; }
    bool LockWrite() override { return true; }
    void UnlockWrite() override {}
};
