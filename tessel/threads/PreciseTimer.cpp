#include "tessel/threads/PreciseTimer.h"

using namespace Tessel::Platform;

CPreciseTimer::CPreciseTimer(unsigned int resolutionMs) {
    timeGetDevCaps(&m_caps, sizeof m_caps);
    m_uResolution = resolutionMs < m_caps.wPeriodMin ? m_caps.wPeriodMin : resolutionMs;
    if (m_uResolution >= m_caps.wPeriodMax) {
        m_uResolution = m_caps.wPeriodMax;
    }
    // The request as it was passed; the destructor ends the clamped value. The two differ only
    // for a request out of range, which the platform refuses anyway.
    timeBeginPeriod(resolutionMs);
}

CPreciseTimer::CPreciseTimer(const CPreciseTimer& source)
    : m_uTimerId(source.m_uTimerId.load()),
      m_uResolution(source.m_uResolution),
      m_bOneShot(source.m_bOneShot),
      m_caps(source.m_caps),
      m_pNotify(source.m_pNotify) {}

CPreciseTimer& CPreciseTimer::operator=(const CPreciseTimer& source) {
    m_uTimerId.store(source.m_uTimerId.load());
    m_uResolution = source.m_uResolution;
    m_bOneShot = source.m_bOneShot;
    m_caps = source.m_caps;
    m_pNotify = source.m_pNotify;
    return *this;
}

CPreciseTimer::~CPreciseTimer() {
    Stop();
    timeEndPeriod(m_uResolution);
}

bool CPreciseTimer::Start(unsigned int delayMs, bool oneShot, IPreciseTimerNotify* notify) {
    unsigned int none = 0;
    if (!m_uTimerId.compare_exchange_strong(none, kStarting, std::memory_order_acq_rel)) {
        return false;
    }
    m_pNotify = notify;
    m_bOneShot = oneShot;
    unsigned int id = 0;
    {
        // Held until the id is stored: a first tick that comes sooner waits for it.
        std::lock_guard<std::mutex> guard(m_startLock);
        id = timeSetEvent(delayMs, 0, &CPreciseTimer::TimeFunc, reinterpret_cast<std::size_t>(this),
                          (oneShot ? TIME_ONESHOT : TIME_PERIODIC) | TIME_KILL_SYNCHRONOUS);
        m_uTimerId.store(id, std::memory_order_release);
    }
    if (id == 0) {
        Stop();
        return false;
    }
    return true;
}

void CPreciseTimer::Stop() {
    Reset();
    // A one-shot that fired ended its event from the callback; the event is gone only when
    // the callback has returned, so ending it here waits for that (except on its own thread).
    if (const unsigned int fired = m_uFiredId.exchange(0, std::memory_order_acq_rel)) {
        timeKillEvent(fired);
    }
    m_pNotify = nullptr;
    m_bOneShot = false;
}

void CPreciseTimer::Reset() {
    const unsigned int id = m_uTimerId.exchange(0, std::memory_order_acq_rel);
    if (id != 0 && id != kStarting) {
        timeKillEvent(id);
    }
}

void CPreciseTimer::TimeFunc(unsigned int timerId, unsigned int /*message*/, std::size_t user,
                             std::size_t, std::size_t) {
    auto* self = reinterpret_cast<CPreciseTimer*>(user);
    if (self == nullptr) {
        return;
    }
    unsigned int current = self->m_uTimerId.load(std::memory_order_acquire);
    if (current == kStarting) {
        // The first tick came before Start stored the id: wait until it has.
        std::lock_guard<std::mutex> guard(self->m_startLock);
        current = self->m_uTimerId.load(std::memory_order_acquire);
    }
    if (current != timerId) {
        return;  // a late tick of an event that was ended
    }
    if (self->m_bOneShot) {
        // As Reset, except that the event is left to end by itself after this callback, so
        // that a Stop from another thread can still wait for the callback.
        self->m_uFiredId.store(timerId, std::memory_order_release);
        self->m_uTimerId.compare_exchange_strong(current, 0, std::memory_order_acq_rel);
    }
    if (self->m_pNotify != nullptr) {
        self->m_pNotify->OnPreciseTimer();
    }
}
