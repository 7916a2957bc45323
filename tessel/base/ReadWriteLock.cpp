#include "tessel/base/ReadWriteLock.h"

CReadWriteLock::CReadWriteLock(ISyncGuard& guard, bool read, bool lockNow)
    : m_rGuard(guard), m_bRead(read), m_ulLockCount(0) {
    if (lockNow) {
        Lock();
    }
}

CReadWriteLock::CReadWriteLock(const CReadWriteLock& other)
    : m_rGuard(other.m_rGuard), m_bRead(other.m_bRead), m_ulLockCount(0) {}

CReadWriteLock::~CReadWriteLock() {
    while (m_ulLockCount != 0) {
        Unlock();
    }
}

bool CReadWriteLock::Lock() {
    if (!(m_bRead ? m_rGuard.LockRead() : m_rGuard.LockWrite())) {
        return false;
    }
    ++m_ulLockCount;
    return true;
}

bool CReadWriteLock::TryLock() {
    if (!(m_bRead ? m_rGuard.TryLockRead() : m_rGuard.TryLockWrite())) {
        return false;
    }
    ++m_ulLockCount;
    return true;
}

void CReadWriteLock::Unlock() {
    if (m_ulLockCount == 0) {
        return;
    }
    --m_ulLockCount;
    if (m_bRead) {
        m_rGuard.UnlockRead();
    } else {
        m_rGuard.UnlockWrite();
    }
}
