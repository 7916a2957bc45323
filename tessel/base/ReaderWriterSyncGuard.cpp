#include "tessel/base/ReaderWriterSyncGuard.h"

#include <memory>

#include "tessel/base/HResultException.h"
#include "tessel/platform/CriticalSection.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;

// A note on ordering. A reader writes the reader side ("no readers" reset) and then reads the
// writer side ("no writer"); a writer writes the writer side and then reads the reader side.
// For the two never to miss each other, each needs a full barrier between its write and its
// read. The platform's events are atomic state words whose set and reset are plain release
// stores, not the system calls they once were, so the guard puts a sequentially consistent
// fence at both places itself.

namespace {

// Rounds that a thread spins on a taken section before it sleeps.
constexpr DWORD kSpinCount = 4000;

std::unique_ptr<CRITICAL_SECTION> newCriticalSection() {
    auto section = std::make_unique<CRITICAL_SECTION>();
    if (InitializeCriticalSectionAndSpinCount(section.get(), kSpinCount) == FALSE) {
        Tessel::ThrowLastError();
    }
    return section;
}

inline void fullBarrier() {
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

}  // namespace

CReaderWriterSyncGuard::CReaderWriterSyncGuard()
    : m_hNoWriterEvent(nullptr),
      m_hNoReadersEvent(nullptr),
      m_lReaderCount(0),
      m_pWriterSection(nullptr),
      m_pReaderCountSection(nullptr),
      m_ulWriterThreadId(0),
      m_pSharers(nullptr) {
    auto writerSection = newCriticalSection();
    auto readerCountSection = newCriticalSection();
    try {
        m_pSharers = new std::atomic<std::uint32_t>(1);
    } catch (...) {
        DeleteCriticalSection(writerSection.get());
        DeleteCriticalSection(readerCountSection.get());
        throw;
    }
    m_pWriterSection = writerSection.release();
    m_pReaderCountSection = readerCountSection.release();
    m_hNoWriterEvent = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    m_hNoReadersEvent = CreateEventA(nullptr, TRUE, TRUE, nullptr);
}

CReaderWriterSyncGuard::CReaderWriterSyncGuard(const CReaderWriterSyncGuard& source)
    : ISyncGuard(source),
      m_hNoWriterEvent(source.m_hNoWriterEvent),
      m_hNoReadersEvent(source.m_hNoReadersEvent),
      m_lReaderCount(0),
      m_pWriterSection(source.m_pWriterSection),
      m_pReaderCountSection(source.m_pReaderCountSection),
      m_ulWriterThreadId(source.m_ulWriterThreadId.load()),
      m_pSharers(source.m_pSharers) {
    m_pSharers->fetch_add(1, std::memory_order_relaxed);
    EnterCriticalSection(m_pReaderCountSection);
    m_lReaderCount = source.m_lReaderCount;
    LeaveCriticalSection(m_pReaderCountSection);
}

CReaderWriterSyncGuard& CReaderWriterSyncGuard::operator=(const CReaderWriterSyncGuard& source) {
    if (this == &source) {
        return *this;
    }
    source.m_pSharers->fetch_add(1, std::memory_order_relaxed);
    ReleaseShared();
    ISyncGuard::operator=(source);
    m_hNoWriterEvent = source.m_hNoWriterEvent;
    m_hNoReadersEvent = source.m_hNoReadersEvent;
    m_pWriterSection = source.m_pWriterSection;
    m_pReaderCountSection = source.m_pReaderCountSection;
    m_ulWriterThreadId.exchange(source.m_ulWriterThreadId.load());
    m_pSharers = source.m_pSharers;
    EnterCriticalSection(m_pReaderCountSection);
    m_lReaderCount = source.m_lReaderCount;
    LeaveCriticalSection(m_pReaderCountSection);
    return *this;
}

CReaderWriterSyncGuard::~CReaderWriterSyncGuard() {
    ReleaseShared();
}

void CReaderWriterSyncGuard::ReleaseShared() {
    if (m_pSharers->fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    delete m_pSharers;
    DeleteCriticalSection(m_pWriterSection);
    delete m_pWriterSection;
    DeleteCriticalSection(m_pReaderCountSection);
    delete m_pReaderCountSection;
    CloseHandle(m_hNoWriterEvent);
    CloseHandle(m_hNoReadersEvent);
}

void CReaderWriterSyncGuard::IncrementReaderCount() {
    EnterCriticalSection(m_pReaderCountSection);
    ++m_lReaderCount;
    ResetEvent(m_hNoReadersEvent);
    LeaveCriticalSection(m_pReaderCountSection);
}

void CReaderWriterSyncGuard::DecrementReaderCount() {
    EnterCriticalSection(m_pReaderCountSection);
    --m_lReaderCount;
    if (m_lReaderCount < 1) {
        SetEvent(m_hNoReadersEvent);
    }
    LeaveCriticalSection(m_pReaderCountSection);
}

bool CReaderWriterSyncGuard::LockRead() {
    for (;;) {
        WaitForSingleObject(m_hNoWriterEvent, INFINITE);
        IncrementReaderCount();
        fullBarrier();
        if (WaitForSingleObject(m_hNoWriterEvent, 0) == WAIT_OBJECT_0) {
            return true;
        }
        // A writer came in between: step back and wait for it.
        DecrementReaderCount();
    }
}

bool CReaderWriterSyncGuard::TryLockRead() {
    if (WaitForSingleObject(m_hNoWriterEvent, 0) != WAIT_OBJECT_0) {
        return false;
    }
    IncrementReaderCount();
    fullBarrier();
    if (WaitForSingleObject(m_hNoWriterEvent, 0) == WAIT_OBJECT_0) {
        return true;
    }
    DecrementReaderCount();
    return false;
}

void CReaderWriterSyncGuard::UnlockRead() {
    DecrementReaderCount();
}

bool CReaderWriterSyncGuard::LockWrite() {
    EnterCriticalSection(m_pWriterSection);
    const DWORD self = GetCurrentThreadId();
    if (m_ulWriterThreadId.fetch_add(0) == self) {
        return false;  // the writer asks again; the section stays entered (see the header)
    }
    WaitForSingleObject(m_hNoWriterEvent, INFINITE);
    ResetEvent(m_hNoWriterEvent);
    m_ulWriterThreadId.exchange(self);
    fullBarrier();
    WaitForSingleObject(m_hNoReadersEvent, INFINITE);
    LeaveCriticalSection(m_pWriterSection);
    return true;
}

bool CReaderWriterSyncGuard::TryLockWrite() {
    if (TryEnterCriticalSection(m_pWriterSection) == FALSE) {
        return false;
    }
    if (m_ulWriterThreadId.fetch_add(0) == GetCurrentThreadId()) {
        DebugBreak();
        return false;  // the section stays entered, as in LockWrite
    }
    if (WaitForSingleObject(m_hNoWriterEvent, 0) != WAIT_OBJECT_0) {
        LeaveCriticalSection(m_pWriterSection);
        return false;
    }
    ResetEvent(m_hNoWriterEvent);
    fullBarrier();
    const bool locked = WaitForSingleObject(m_hNoReadersEvent, 0) == WAIT_OBJECT_0;
    if (!locked) {
        SetEvent(m_hNoWriterEvent);
    }
    LeaveCriticalSection(m_pWriterSection);
    return locked;
}

void CReaderWriterSyncGuard::UnlockWrite() {
    m_ulWriterThreadId.exchange(0);
    SetEvent(m_hNoWriterEvent);
}
