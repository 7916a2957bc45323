// CReaderWriterSyncGuard: a reader/writer lock within one process, writers first.
//
// Any number of threads may hold the read lock at a time; a writer holds the write lock
// alone. A writer that asks for the lock shuts the door on readers that arrive after it, then
// waits for the readers inside to leave: writers have priority over new readers.
//
// How it works: a manual-reset event "no writer", signalled while no writer holds or has
// claimed the lock, and a manual-reset event "no readers", signalled while the reader count is
// below one. A reader announces itself (the count goes up, "no readers" is reset) and then
// looks at "no writer" again, backing off if a writer came in between; a writer resets "no
// writer" and then waits for "no readers". A writer critical section lets one would-be writer
// at a time do that; a second critical section guards the reader count with its event.
//
// Neither lock is re-entrant. A thread that took the write lock with LockWrite and asks for it
// again with LockWrite gets false at once, and one with TryLockWrite gets a debugger break and
// false; both leave the writer critical section entered one level more, which keeps every
// other writer out until that thread ends the process or the guard (so the caller's mistake is
// not passed over silently: a CReadWriteLock does not count the failed hold). A thread that got
// the write lock from TryLockWrite is not recorded as the writer, and its LockWrite waits for
// the write lock to be released like anyone's. A thread that holds the read lock and asks for
// the write lock waits for itself for ever.
//
// Unlocks are not checked: UnlockWrite ends the write lock whoever calls it, and a surplus
// UnlockRead drives the reader count below zero, which counts as no readers.
//
// Lifetime: the constructor makes the events (a failure is not checked: the guard is then
// unusable) and the critical sections (a failure throws Tessel::CHResultException). Copying is
// member-wise: the copy shares the events and critical sections of the source, and takes a
// snapshot of its reader count and writer, so a guard must not be copied while it is in use.
// The last of the guards that share them deletes the critical sections and then closes the
// events, whatever the state.
//
// Thread safety: all operations may be called from any thread. The reader count is guarded by
// the reader-count critical section; the writer thread id is atomic.
#pragma once

#include <atomic>
#include <cstdint>

#include "tessel/Export.h"
#include "tessel/base/ISyncGuard.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {
struct CRITICAL_SECTION;
}

class TESSEL_API CReaderWriterSyncGuard : public ISyncGuard {
  public:
    CReaderWriterSyncGuard();
    // Shares the events and critical sections of source; copies its count and writer.
    CReaderWriterSyncGuard(const CReaderWriterSyncGuard& source);
    CReaderWriterSyncGuard& operator=(const CReaderWriterSyncGuard& source);
    ~CReaderWriterSyncGuard() override;

    // Takes the read lock if no writer holds or claims it, without waiting.
    bool TryLockRead() override;
    // Waits until no writer holds or claims the lock, then takes the read lock. Always true.
    bool LockRead() override;
    // Ends one read hold.
    void UnlockRead() override;
    // Takes the write lock if that is possible at once: no other would-be writer in the
    // writer section, no writer, no readers.
    bool TryLockWrite() override;
    // Claims the write lock and waits until the readers inside have left. False at once for
    // the thread that is the writer already.
    bool LockWrite() override;
    // Ends the write lock.
    void UnlockWrite() override;

  private:
    using HANDLE = Tessel::Platform::HANDLE;
    using CRITICAL_SECTION = Tessel::Platform::CRITICAL_SECTION;

    // Reader count up by one, "no readers" reset; under the reader-count section.
    void IncrementReaderCount();
    // Reader count down by one, "no readers" set when it is below one; under the section.
    void DecrementReaderCount();
    // Drops this guard's share of the events and sections; the last one frees them.
    void ReleaseShared();

    // "No writer": manual reset, created signalled.
    HANDLE m_hNoWriterEvent;
    // "No readers": manual reset, created signalled; changed under m_pReaderCountSection.
    HANDLE m_hNoReadersEvent;
    // Readers inside or announcing themselves; guarded by m_pReaderCountSection.
    std::int32_t m_lReaderCount;
    // Admits one would-be writer at a time; spin count 4000.
    CRITICAL_SECTION* m_pWriterSection;
    // Guards the reader count with the "no readers" event; spin count 4000.
    CRITICAL_SECTION* m_pReaderCountSection;
    // The thread that took the write lock with LockWrite, 0 for none. Sequentially consistent:
    // exchange to store, an add of zero to read.
    std::atomic<std::uint32_t> m_ulWriterThreadId;
    // How many guards share the events and sections (this one and its copies). Adding is
    // relaxed (the adder holds a share already); dropping is acquire-release, so that the last
    // guard frees them after every other guard's last use.
    std::atomic<std::uint32_t>* m_pSharers;
};
