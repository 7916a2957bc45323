#include "tessel/threads/ThreadInfo.h"

CThreadInfo::CThreadInfo(unsigned int threadId) : CThreadInfo(threadId, false) {}

CThreadInfo::CThreadInfo(unsigned int threadId, bool hasDBAccess)
    : m_lThreadId(static_cast<std::int32_t>(threadId)), m_bHasDBAccess(hasDBAccess) {}

long CThreadInfo::getThreadId() const {
    return m_lThreadId;
}

void CThreadInfo::setThreadId(long id) {
    m_lThreadId = static_cast<std::int32_t>(id);
}

bool CThreadInfo::getHasDBAccess() const {
    return m_bHasDBAccess;
}

void CThreadInfo::setHasDBAccess(bool value) {
    m_bHasDBAccess = value;
}
