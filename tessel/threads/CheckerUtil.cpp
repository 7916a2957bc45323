#include "tessel/threads/CheckerUtil.h"

#include <fmt/format.h>

#include "tessel/base/ReadWriteLock.h"
#include "tessel/logging/ILogging.h"
#include "tessel/platform/Process.h"

CheckerUtil::CheckerUtil() : m_bClosing(false) {}

CheckerUtil::~CheckerUtil() {
    CReadWriteLock lock(m_guard, false, true);
    m_bClosing = true;
    EmptyThreadMap();
}

bool CheckerUtil::AddThreadInfo(unsigned int threadId) {
    CReadWriteLock lock(m_guard, false, true);
    if (threadId == 0) {
        threadId = Tessel::Platform::GetCurrentThreadId();
    }
    if (m_bClosing || m_threadMap.count(threadId) != 0) {
        return false;
    }
    m_threadMap.emplace(threadId,
                        Tessel::CSmartPointer<CThreadInfo>(new CThreadInfo(threadId, true)));
    return true;
}

bool CheckerUtil::EraseThreadInfo(unsigned int threadId) {
    CReadWriteLock lock(m_guard, false, true);
    return m_threadMap.erase(threadId) != 0;
}

Tessel::CSmartPointer<CThreadInfo> CheckerUtil::GetThreadInfo(unsigned int threadId) {
    CReadWriteLock lock(m_guard, false, true);
    const auto entry = m_threadMap.find(threadId);
    return entry != m_threadMap.end() ? entry->second : Tessel::CSmartPointer<CThreadInfo>();
}

void CheckerUtil::EmptyThreadMap() {
    CReadWriteLock lock(m_guard, false, true);
    for (auto entry = m_threadMap.begin(); entry != m_threadMap.end();) {
        ILogging::getInstance().log(
            "CheckerUtil::EmptyThreadMap", ILogging::Warn,
            fmt::format("Thread '{}' did not close the database session correctly.", entry->first));
        entry = m_threadMap.erase(entry);
    }
}
