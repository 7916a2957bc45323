// CThreadInfo: the thread checker's entry for one thread.
//
// A thread id and whether that thread has database access. CheckerUtil keeps one per
// registered thread and hands it out shared, so an entry may outlive its place in the list.
//
// Lifetime and thread safety: a plain value, copied freely; not guarded. Whoever shares an
// entry between threads orders its reads and writes.
#pragma once

#include <cstdint>

#include "tessel/Export.h"

class TESSEL_API CThreadInfo {
  public:
    // Thread threadId, without database access.
    explicit CThreadInfo(unsigned int threadId);
    CThreadInfo(unsigned int threadId, bool hasDBAccess);

    long getThreadId() const;
    void setThreadId(long id);
    bool getHasDBAccess() const;
    void setHasDBAccess(bool value);

  private:
    std::int32_t m_lThreadId;
    bool m_bHasDBAccess;
};
