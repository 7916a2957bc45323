// Helpers for the tests of blocking calls: run a wait on a thread of its own, and tell when
// that thread has gone to sleep in the kernel, so that a test acts on a thread that is
// really waiting instead of guessing with a sleep.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "support/Eventually.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/Types.h"

namespace TesselTest {

// Whether thread tid of this process sleeps in system call number: SYS_ppoll for the waits
// on objects, SYS_futex for locks.
inline bool sleepsIn(pid_t tid, long number) {
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/syscall");
    long current = -1;
    if (!(file >> current)) {
        return false;  // "running", or the thread has ended
    }
    return current == number;
}

// One call that may block, run on a thread of its own.
class AsyncCall {
  public:
    explicit AsyncCall(std::function<Tessel::Platform::DWORD()> call)
        : m_thread([this, call = std::move(call)] {
              m_tid.store(static_cast<pid_t>(Tessel::Platform::GetCurrentThreadId()));
              m_result.store(call());
              m_done.store(true);
          }) {}
    ~AsyncCall() { m_thread.join(); }
    AsyncCall(const AsyncCall&) = delete;
    AsyncCall& operator=(const AsyncCall&) = delete;

    // Waits until the call sleeps in system call number (or has returned).
    bool blocked(long number = SYS_ppoll) {
        return eventually(
            [this, number] { return m_done || (m_tid != 0 && sleepsIn(m_tid, number)); });
    }
    bool done() const { return m_done; }
    bool finishes(std::chrono::milliseconds limit = 5000ms) {
        return eventually([this] { return m_done.load(); }, limit);
    }
    Tessel::Platform::DWORD result() const { return m_result; }

  private:
    std::atomic<pid_t> m_tid{0};
    std::atomic<bool> m_done{false};
    std::atomic<Tessel::Platform::DWORD> m_result{0xDEADu};
    std::thread m_thread;
};

}  // namespace TesselTest
