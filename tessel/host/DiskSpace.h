// CDiskSpace: the free space of the disk under a path, as a state that warns before it is full.
//
// A disk is the file system that holds a path: its mount point for an existing absolute path
// ("/" or "/srv/data"), or the share "//server/share/" (or "\\server\share\") of a mounted
// network share for a path in that form. The free bytes (those free for an unprivileged
// caller) fall into four states by two limits:
//
//     free >= low limit            StateNormal
//     minimum <= free < low limit  StateLow
//     free < minimum limit         StateCritical
//     the space cannot be read     StateFailed (a relative path, a path that does not exist)
//
// Each check remembers the state per disk, so that a caller can tell when the state of a disk
// has changed; a disk checked for the first time had StateUnknown before. The disk names are
// compared byte for byte.
//
// Both limits start at 0 (every readable disk is normal); SetGeneralDefaultLowLimit sets them.
//
// Thread safety: all operations may be called from any thread. The map of states and the
// limits are written under one re-entrant guard; a check reads the limits without it.
#pragma once

#include <atomic>
#include <map>
#include <string>

#include "tessel/Export.h"
#include "tessel/base/CriticalSectionSyncGuard.h"

class TESSEL_API CDiskSpace {
  public:
    enum StateType {
        StateNormal = 1,    // free space at or above the low limit
        StateLow = 2,       // below the low limit, at or above the minimum limit
        StateCritical = 3,  // below the minimum limit
        StateFailed = 4,    // the free space could not be read
        StateUnknown = 5,   // no earlier state for this disk
    };

    CDiskSpace() = default;
    virtual ~CDiskSpace() = default;

    // The state of the disk under path, remembered as its last state. Each pointer may be null;
    // where given and the state is not StateFailed, *disk receives the disk, *total its size
    // and *freeBytes the bytes free for the caller, and *lastState the state that the disk had
    // before (StateUnknown at its first check). StateFailed writes no output and remembers
    // nothing.
    StateType CheckDiskSpaceState(const std::string& path, std::string* disk,
                                  unsigned long long* total, unsigned long long* freeBytes,
                                  StateType* lastState);

    // The last state of the disk under path; a disk without one is checked now. A path in the
    // form of a share is checked at each call.
    StateType GetLastDiskSpaceState(const std::string& path);

    // Sets the minimum limit to bytes and the low limit to twice that.
    void SetGeneralDefaultLowLimit(unsigned long long bytes);

    // The limits in bytes.
    unsigned long long GetLowLimit() const { return m_LowLimit.load(std::memory_order_relaxed); }
    unsigned long long GetMinLimit() const { return m_MinLimit.load(std::memory_order_relaxed); }

  private:
    CDiskSpace(const CDiskSpace&) = delete;
    CDiskSpace& operator=(const CDiskSpace&) = delete;

    // The mount point of an existing absolute path; "" for any other path.
    std::string GetDiskFromThePath(const std::string& path);

    std::map<std::string, StateType> m_LastStates;  // guarded by m_Guard
    // Written under m_Guard, read without it: a check that runs beside a change of the limits
    // may use the old value of one and the new of the other, which only the next check
    // corrects; relaxed is enough, the limits guard no other data.
    std::atomic<unsigned long long> m_LowLimit{0};
    std::atomic<unsigned long long> m_MinLimit{0};
    CCriticalSectionSyncGuard m_Guard;
};
