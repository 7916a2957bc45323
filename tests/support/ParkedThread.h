// A thread for the stack-trace tests: it waits in a known function until released.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace TesselTest {

class ParkedThread {
  public:
    // Starts the thread and returns once it waits in waitingInAKnownPlace. With
    // blockTraceSignal it blocks the stack-trace signal while it waits.
    explicit ParkedThread(bool blockTraceSignal = false);
    // Releases and joins the thread.
    ~ParkedThread();
    ParkedThread(const ParkedThread&) = delete;
    ParkedThread& operator=(const ParkedThread&) = delete;

    // The kernel's id of the thread.
    long id() const { return m_id; }

    // Lets the thread run on: it unblocks the signal (if it blocked it; a pending signal then
    // arrives) and ends. Joins it.
    void release();

  private:
    void run();
    void waitingInAKnownPlace();

    const bool m_block;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    long m_id = 0;
    bool m_released = false;
    std::thread m_thread;
};

}  // namespace TesselTest
