// The registry's change notifications (private to the library).
//
// One watcher thread per process, started with the first notification, follows the
// registry folder with inotify and, whenever a database file changed, compares the change
// counters of every watched key with those it had when the notification was armed. A
// changed key (or one that is gone) fires its event once and ends the notification. Where
// inotify is not available the watcher looks every 100 ms.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "tessel/platform/Registry.h"
#include "tessel/platform/detail/RegistryHive.h"

namespace Tessel::Platform {

struct RegistryNotification {
    HKEY owner;  // the handle the notification was armed on
    int hive;
    std::int64_t id;
    std::string path;
    bool subtree;
    DWORD filter;
    HANDLE event;  // a handle of the watcher's own to the caller's event
    std::int64_t valueChanges;
    std::int64_t nameChanges;
};

// Reads the change counters of a key, or of its sub-tree, under the hive's lock. false if
// the key is gone.
bool RegistryReadChanges(RegistryHive& hive, std::int64_t id, const std::string& path, bool subtree,
                         std::int64_t& valueChanges, std::int64_t& nameChanges);

class RegistryWatcher {
  public:
    // The process's watcher; it lives as long as the process.
    static RegistryWatcher& Instance();

    RegistryWatcher(const RegistryWatcher&) = delete;
    RegistryWatcher& operator=(const RegistryWatcher&) = delete;

    // Takes over notification (and its event handle); starts the thread on first use.
    void add(RegistryNotification notification);
    // Fires and ends the notifications of a handle that is being closed.
    void closing(HKEY owner);
    // A forked child has no watcher thread and no notifications.
    void forgetInChild();

  private:
    RegistryWatcher() = default;

    void start();
    void run(int inotifyFd);
    void check();
    static void fire(const std::vector<HANDLE>& events);

    std::mutex m_lock;
    std::vector<RegistryNotification> m_notifications;  // guarded by m_lock
    bool m_started = false;                             // guarded by m_lock
};

}  // namespace Tessel::Platform
