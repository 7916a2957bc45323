#include "support/ParkedThread.h"

#include <signal.h>

#include "tessel/platform/Process.h"
#include "tessel/platform/StackTrace.h"

namespace TesselTest {

namespace {

void setTraceSignalBlocked(bool blocked) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, Tessel::Platform::GetStackTraceSignal());
    pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}

}  // namespace

ParkedThread::ParkedThread(bool blockTraceSignal) : m_block(blockTraceSignal) {
    m_thread = std::thread([this] { run(); });
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_id != 0; });
}

ParkedThread::~ParkedThread() {
    release();
}

void ParkedThread::release() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void ParkedThread::run() {
    if (m_block) {
        setTraceSignalBlocked(true);
    }
    waitingInAKnownPlace();
    if (m_block) {
        setTraceSignalBlocked(false);
    }
}

__attribute__((noinline)) void ParkedThread::waitingInAKnownPlace() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_id = static_cast<long>(Tessel::Platform::GetCurrentThreadId());
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_released; });
    asm volatile("" ::: "memory");  // keeps the frame from becoming a tail call
}

}  // namespace TesselTest
