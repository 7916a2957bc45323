// CheckerUtil: the list of threads that hold a database session.
//
// A thread that may use the database is registered when it starts (AddThreadInfo, which
// grants access), asked about before a use (GetThreadInfo), and erased when its session has
// been closed (EraseThreadInfo). Whatever is still listed when the list is emptied or
// destroyed failed to close its session: EmptyThreadMap logs each such thread at warning level
// under "CheckerUtil::EmptyThreadMap", in ascending order of thread id, whatever its flag.
//
// The process has one global list, which CheckerUtilHandler creates and deletes; a caller may
// also keep a list of its own.
//
// Lifetime: the destructor marks the list as closing, from when on nothing more is added, and
// empties it, reporting what is left. Entries are shared: one handed out by GetThreadInfo
// stays valid after it was erased. Copying is not for use.
//
// Thread safety: every operation holds the list's guard, a recursive critical section, for
// its whole length, logging included. The list must not be destroyed while another thread
// may still call it.
#pragma once

#include <cstdint>
#include <map>

#include "tessel/Export.h"
#include "tessel/base/CriticalSectionSyncGuard.h"
#include "tessel/base/SmartPointer.h"
#include "tessel/threads/ThreadInfo.h"

class TESSEL_API CheckerUtil {
  public:
    CheckerUtil();
    // Sets closing, then EmptyThreadMap.
    virtual ~CheckerUtil();

    // Registers thread threadId (0: the calling thread) with database access. False when the
    // list is closing or the thread is listed already; the entry is then left as it was.
    bool AddThreadInfo(unsigned int threadId);
    // Erases the entry of threadId. False if there is none; 0 is no more than the id 0 here.
    bool EraseThreadInfo(unsigned int threadId);
    // The entry of threadId, or an empty pointer.
    Tessel::CSmartPointer<CThreadInfo> GetThreadInfo(unsigned int threadId);
    // Logs every entry as a thread that did not close its session, lowest id first, and
    // erases it. The list is empty afterwards.
    void EmptyThreadMap();

  private:
    CheckerUtil(const CheckerUtil&) = delete;
    CheckerUtil& operator=(const CheckerUtil&) = delete;

    CCriticalSectionSyncGuard m_guard;
    std::map<std::uint32_t, Tessel::CSmartPointer<CThreadInfo>> m_threadMap;  // guarded by m_guard
    bool m_bClosing;                                                          // guarded by m_guard
};
