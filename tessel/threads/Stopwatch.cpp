#include "tessel/threads/Stopwatch.h"

#include "tessel/platform/Clock.h"

namespace Tessel {

std::atomic<long> CStopwatch::m_bInitialized{0};
bool CStopwatch::m_bIsHighResolution = false;
long long CStopwatch::m_nFrequency = 10000000;
double CStopwatch::m_dTickFrequency = 1.0;

CStopwatch::CStopwatch() {
    Initialize();
}

void CStopwatch::Initialize() {
    long expected = 0;
    if (!m_bInitialized.compare_exchange_strong(expected, 1)) {
        return;
    }
    Platform::LARGE_INTEGER frequency;
    if (!Platform::QueryPerformanceFrequency(&frequency)) {
        m_dTickFrequency = 1.0;
        m_bIsHighResolution = false;
        m_nFrequency = 10000000;
        return;
    }
    m_bIsHighResolution = true;
    m_nFrequency = frequency.QuadPart;
    m_dTickFrequency = 1e7 / static_cast<double>(m_nFrequency);
}

long long CStopwatch::GetTimestamp() {
    if (m_bIsHighResolution) {
        Platform::LARGE_INTEGER count;
        Platform::QueryPerformanceCounter(&count);
        return count.QuadPart;
    }
    return Platform::GetTickCount();
}

void CStopwatch::Start() {
    if (!m_bIsRunning) {
        m_nStartTimeStamp = GetTimestamp();
        m_bIsRunning = true;
    }
}

void CStopwatch::Stop() {
    if (m_bIsRunning) {
        m_nElapsed += GetTimestamp() - m_nStartTimeStamp;
        m_bIsRunning = false;
        if (m_nElapsed < 0) {
            m_nElapsed = 0;
        }
    }
}

void CStopwatch::Reset() {
    m_nElapsed = 0;
    m_nStartTimeStamp = 0;
    m_bIsRunning = false;
}

void CStopwatch::Restart() {
    m_nElapsed = 0;
    m_nStartTimeStamp = GetTimestamp();
    m_bIsRunning = true;
}

long long CStopwatch::GetRawElapsedTicks() const {
    long long elapsed = m_nElapsed;
    if (m_bIsRunning) {
        elapsed += GetTimestamp() - m_nStartTimeStamp;
    }
    return elapsed;
}

long long CStopwatch::GetElapsedDateTimeTicks() const {
    const long long raw = GetRawElapsedTicks();
    if (m_bIsHighResolution) {
        return static_cast<long long>(static_cast<double>(raw) * m_dTickFrequency);
    }
    return raw;
}

long long CStopwatch::GetElapsedMilliseconds() const {
    return GetElapsedDateTimeTicks() / m_nTicksPerMillisecond;
}

}  // namespace Tessel
