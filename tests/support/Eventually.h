// Waiting in tests for something that another thread or process brings about: a condition
// polled until it holds, and a deadline that several steps share. No test sleeps a fixed time
// and hopes.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace TesselTest {

using namespace std::chrono_literals;

// A point in time limit from now, on the steady clock.
class Deadline {
  public:
    explicit Deadline(std::chrono::milliseconds limit)
        : m_end(std::chrono::steady_clock::now() + limit) {}

    bool passed() const { return std::chrono::steady_clock::now() > m_end; }
    // What is left of the limit, 0 once it has passed.
    std::chrono::milliseconds left() const {
        const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(
            m_end - std::chrono::steady_clock::now());
        return rest.count() > 0 ? rest : 0ms;
    }
    // The same in whole milliseconds, for poll(2).
    int leftMs() const { return static_cast<int>(left().count()); }

  private:
    std::chrono::steady_clock::time_point m_end;
};

// Repeats check, pause apart, until it holds (true) or limit has passed (false).
inline bool eventually(const std::function<bool()>& check, std::chrono::milliseconds limit = 5000ms,
                       std::chrono::milliseconds pause = 1ms) {
    const Deadline deadline(limit);
    while (!check()) {
        if (deadline.passed()) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}

}  // namespace TesselTest
