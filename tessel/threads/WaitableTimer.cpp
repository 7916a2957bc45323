#include "tessel/threads/WaitableTimer.h"

#include "tessel/platform/Handle.h"
#include "tessel/platform/WaitableTimer.h"

using namespace Tessel::Platform;

CWaitableTimer::CWaitableTimer(CWaitableTimer& source)
    : m_hTimer(source.m_hTimer.exchange(nullptr, std::memory_order_acq_rel)) {}

CWaitableTimer& CWaitableTimer::operator=(CWaitableTimer& source) {
    if (this != &source) {
        Close();
        m_hTimer.store(source.m_hTimer.exchange(nullptr, std::memory_order_acq_rel),
                       std::memory_order_release);
    }
    return *this;
}

CWaitableTimer::~CWaitableTimer() {
    Close();
}

int CWaitableTimer::Create(SECURITY_ATTRIBUTES* attributes, int manualReset, const char* name) {
    if (GetHandle() != nullptr) {
        return 1;
    }
    HANDLE timer = CreateWaitableTimerA(attributes, manualReset != 0 ? TRUE : FALSE, name);
    m_hTimer.store(timer, std::memory_order_release);
    return timer != nullptr ? 1 : 0;
}

void CWaitableTimer::SetWait(unsigned int periodMs, LARGE_INTEGER dueTime) {
    if (HANDLE timer = GetHandle()) {
        SetWaitableTimer(timer, &dueTime, static_cast<LONG>(periodMs), nullptr, nullptr, FALSE);
    }
}

void CWaitableTimer::CancelWait() {
    if (HANDLE timer = GetHandle()) {
        CancelWaitableTimer(timer);
    }
}

void CWaitableTimer::Close() {
    CancelWait();
    if (HANDLE timer = m_hTimer.exchange(nullptr, std::memory_order_acq_rel)) {
        CloseHandle(timer);
    }
}

CWaitableTimer::LARGE_INTEGER CWaitableTimer::Delay2DueTime(unsigned int delayMs) {
    LARGE_INTEGER due;
    due.QuadPart = static_cast<std::int64_t>(delayMs) * -10000;
    return due;
}

CWaitableTimer::LARGE_INTEGER CWaitableTimer::DateTime2DueTime(const SYSTEMTIME& time) {
    FILETIME fileTime{0, 0};
    SystemTimeToFileTime(&time, &fileTime);
    LARGE_INTEGER due;
    due.QuadPart = static_cast<std::int64_t>(FromFileTime(fileTime));
    return due;
}
