// Tessel::Systemd: what a host process tells systemd when it runs as a service of type notify.
//
// systemd names its notification socket in the environment variable NOTIFY_SOCKET and, when
// the unit has WatchdogSec=, the interval within which it expects a keep-alive in
// WATCHDOG_USEC (for the process named by WATCHDOG_PID, if that is set). Outside systemd these
// variables are missing and every call here does nothing and returns false, so that a host
// program makes the same calls whether or not it runs as a service.
//
// Typical use: notifyReady() once the process serves (its monitor ports listen),
// notifyStatus() with a one-line summary now and then, a Watchdog that keeps systemd's
// watchdog fed while the process's own work makes progress, notifyStopping() when the stop
// begins.
//
// Thread safety: all functions may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "tessel/Export.h"

namespace Tessel {

class TESSEL_API Systemd {
  public:
    Systemd() = delete;

    // Whether a service manager listens (NOTIFY_SOCKET is set).
    static bool underServiceManager();

    // "READY=1", with "STATUS=status" when status is not empty. true when it was sent.
    static bool notifyReady(const std::string& status = "");
    // "STOPPING=1": the process has begun to stop.
    static bool notifyStopping();
    // "STATUS=text"; line breaks in text become blanks.
    static bool notifyStatus(const std::string& text);
    // "WATCHDOG=1": one keep-alive.
    static bool notifyWatchdog();

    // The watchdog interval that systemd expects keep-alives within, 0 when it expects none
    // (no WatchdogSec=, not run by systemd, or WATCHDOG_PID naming another process).
    static std::chrono::microseconds watchdogInterval();

    // Keeps systemd's watchdog fed: while it exists, a thread of its own sends WATCHDOG=1 at
    // half the watchdog interval, each time only if healthy() returns true, so that systemd
    // ends (and, with Restart=, restarts) a process whose own work has stopped. healthy is
    // called on that thread. Without a watchdog interval no thread is started.
    class TESSEL_API Watchdog {
      public:
        explicit Watchdog(std::function<bool()> healthy);
        // Stops the thread; it ends within one interval's half at most, at once in practice.
        ~Watchdog();
        Watchdog(const Watchdog&) = delete;
        Watchdog& operator=(const Watchdog&) = delete;

        // Whether keep-alives are being sent (a watchdog interval was set).
        bool active() const { return m_thread.joinable(); }

      private:
        void run(std::chrono::microseconds period);

        std::function<bool()> m_healthy;
        std::mutex m_lock;
        std::condition_variable m_wake;
        bool m_stop = false;  // guarded by m_lock
        std::thread m_thread;
    };
};

}  // namespace Tessel
