// The notifications through sd_notify.
#include "tessel/platform/Systemd.h"

#include <systemd/sd-daemon.h>

#include <cstdlib>

namespace Tessel {
namespace {

// The text as the value of one assignment: a notification is one assignment per line.
std::string oneLine(const std::string& text) {
    std::string line = text;
    for (char& c : line) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    return line;
}

bool notify(const std::string& state) {
    return ::sd_notify(0, state.c_str()) > 0;
}

}  // namespace

bool Systemd::underServiceManager() {
    const char* socket = std::getenv("NOTIFY_SOCKET");
    return socket != nullptr && *socket != '\0';
}

bool Systemd::notifyReady(const std::string& status) {
    return notify(status.empty() ? "READY=1" : "READY=1\nSTATUS=" + oneLine(status));
}

bool Systemd::notifyStopping() {
    return notify("STOPPING=1");
}

bool Systemd::notifyStatus(const std::string& text) {
    return notify("STATUS=" + oneLine(text));
}

bool Systemd::notifyWatchdog() {
    return notify("WATCHDOG=1");
}

std::chrono::microseconds Systemd::watchdogInterval() {
    std::uint64_t usec = 0;
    return ::sd_watchdog_enabled(0, &usec) > 0 ? std::chrono::microseconds(usec)
                                               : std::chrono::microseconds(0);
}

Systemd::Watchdog::Watchdog(std::function<bool()> healthy) : m_healthy(std::move(healthy)) {
    const std::chrono::microseconds interval = watchdogInterval();
    if (interval.count() > 0) {
        m_thread = std::thread(&Watchdog::run, this, interval / 2);
    }
}

Systemd::Watchdog::~Watchdog() {
    if (m_thread.joinable()) {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_stop = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }
}

void Systemd::Watchdog::run(std::chrono::microseconds period) {
    std::unique_lock<std::mutex> guard(m_lock);
    while (!m_stop) {
        guard.unlock();
        if (!m_healthy || m_healthy()) {
            notifyWatchdog();
        }
        guard.lock();
        m_wake.wait_for(guard, period, [this] { return m_stop; });
    }
}

}  // namespace Tessel
