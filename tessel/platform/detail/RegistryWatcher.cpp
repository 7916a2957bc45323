#include "tessel/platform/detail/RegistryWatcher.h"

#include <poll.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"

namespace Tessel::Platform {

bool RegistryReadChanges(RegistryHive& hive, std::int64_t id, const std::string& path, bool subtree,
                         std::int64_t& valueChanges, std::int64_t& nameChanges) {
    if (!RegistryKeyExists(hive, id)) {
        return false;
    }
    sqlite3_stmt* s;
    if (subtree) {
        s = hive.statement(kSubtreeChanges);
        sqlite3_bind_int64(s, 1, id);
        RegistryBindText(s, 2, path + "\\");
        RegistryBindText(s, 3, path + "]");
    } else {
        s = hive.statement(kChanges);
        sqlite3_bind_int64(s, 1, id);
    }
    if (sqlite3_step(s) != SQLITE_ROW) {
        return false;
    }
    valueChanges = sqlite3_column_int64(s, 0);
    nameChanges = sqlite3_column_int64(s, 1);
    return true;
}

RegistryWatcher& RegistryWatcher::Instance() {
    static RegistryWatcher* const watcher = new RegistryWatcher();
    return *watcher;
}

void RegistryWatcher::add(RegistryNotification notification) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_started) {
        start();
    }
    m_notifications.push_back(std::move(notification));
}

void RegistryWatcher::closing(HKEY owner) {
    std::vector<HANDLE> events;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const auto end = std::remove_if(m_notifications.begin(), m_notifications.end(),
                                        [&](const RegistryNotification& n) {
                                            if (n.owner != owner) {
                                                return false;
                                            }
                                            events.push_back(n.event);
                                            return true;
                                        });
        m_notifications.erase(end, m_notifications.end());
    }
    fire(events);
}

void RegistryWatcher::forgetInChild() {
    // The lock may have been held by a thread that the child does not have.
    new (&m_lock) std::mutex();
    m_notifications.clear();
    m_started = false;
}

void RegistryWatcher::fire(const std::vector<HANDLE>& events) {
    for (HANDLE event : events) {
        SetEvent(event);
        CloseHandle(event);
    }
}

void RegistryWatcher::start() {
    int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd >= 0 &&
        ::inotify_add_watch(fd, RegistryDirectory().c_str(),
                            IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_DELETE) < 0) {
        ::close(fd);
        fd = -1;
    }
    m_started = true;
    std::thread([this, fd] { run(fd); }).detach();
}

void RegistryWatcher::run(int inotifyFd) {
    EnsureAlternateSignalStack();
    ::pthread_setname_np(::pthread_self(), "tessel-regwatch");
    alignas(inotify_event) char buffer[4096];
    while (true) {
        pollfd ready{inotifyFd, POLLIN, 0};
        const int rc = inotifyFd >= 0 ? ::poll(&ready, 1, -1) : ::poll(nullptr, 0, 100);
        if (rc < 0 && errno != EINTR) {
            return;
        }
        // However many files changed, one comparison follows.
        while (inotifyFd >= 0 && ::read(inotifyFd, buffer, sizeof buffer) > 0) {
        }
        check();
    }
}

// The comparison holds the watcher's lock, so that a handle closed meanwhile waits and then
// fires its own notifications. Lock order: the watcher's lock, then a hive's.
void RegistryWatcher::check() {
    std::vector<HANDLE> events;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const auto end = std::remove_if(
            m_notifications.begin(), m_notifications.end(), [&](const RegistryNotification& n) {
                RegistryHive& hive = *RegistryHive::At(n.hive);
                bool changed = true;  // a key that is gone has changed
                RegistryHiveLock lock(hive);
                std::int64_t valueChanges = 0, nameChanges = 0;
                if (hive.open() == ERROR_SUCCESS &&
                    RegistryReadChanges(hive, n.id, n.path, n.subtree, valueChanges, nameChanges)) {
                    changed =
                        ((n.filter & REG_NOTIFY_CHANGE_LAST_SET) != 0 &&
                         valueChanges != n.valueChanges) ||
                        ((n.filter & REG_NOTIFY_CHANGE_NAME) != 0 && nameChanges != n.nameChanges);
                }
                if (changed) {
                    events.push_back(n.event);
                }
                return changed;
            });
        m_notifications.erase(end, m_notifications.end());
    }
    fire(events);
}

}  // namespace Tessel::Platform
