// ConfigFileWatcher: a thread that calls back at an interval while a file exists.
//
// start(path, callback, minutes) starts a thread that waits the interval on its stop event;
// each time the wait runs out and the file exists, it calls the callback, whose result in
// minutes is the next interval. While the file is absent the interval stays and the callback
// is not called. stop() signals the event and joins the thread; it does nothing when no thread
// runs. start() over a running thread ends the process (the thread object is replaced while
// joinable), so stop() comes first.
//
// Thread safety: start and stop belong to one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "tessel/Export.h"
#include "tessel/base/Handle.h"

class TESSEL_API ConfigFileWatcher {
  public:
    using Callback = std::function<std::uint32_t()>;

    ConfigFileWatcher();
    ~ConfigFileWatcher();
    ConfigFileWatcher(const ConfigFileWatcher&) = delete;
    ConfigFileWatcher& operator=(const ConfigFileWatcher&) = delete;

    void start(const std::string& path, Callback callback, std::uint32_t intervalMinutes);
    void stop();
    bool isRunning() const { return m_thread != nullptr; }

  private:
    void run(std::string path, Callback callback, std::uint32_t intervalMinutes);

    std::unique_ptr<std::thread> m_thread;
    Tessel::CHandle m_stopEvent;  // manual reset
};
