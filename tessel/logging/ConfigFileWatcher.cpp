#include "tessel/logging/ConfigFileWatcher.h"

#include <boost/filesystem.hpp>

#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"

using namespace Tessel::Platform;

ConfigFileWatcher::ConfigFileWatcher() : m_stopEvent(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}

ConfigFileWatcher::~ConfigFileWatcher() {
    stop();
}

void ConfigFileWatcher::start(const std::string& path, Callback callback,
                              std::uint32_t intervalMinutes) {
    ResetEvent(m_stopEvent);
    // Replacing a joinable thread ends the process: stop() must come first.
    *(m_thread ? m_thread.get() : (m_thread = std::make_unique<std::thread>()).get()) =
        std::thread(&ConfigFileWatcher::run, this, path, std::move(callback), intervalMinutes);
}

void ConfigFileWatcher::stop() {
    if (!m_thread) {
        return;
    }
    SetEvent(m_stopEvent);
    if (m_thread->joinable()) {
        m_thread->join();
    }
    m_thread.reset();
}

void ConfigFileWatcher::run(std::string path, Callback callback, std::uint32_t intervalMinutes) {
    EnsureAlternateSignalStack();
    const boost::filesystem::path file(path);
    DWORD timeoutMs = intervalMinutes * 60000u;
    while (WaitForSingleObject(m_stopEvent, timeoutMs) == WAIT_TIMEOUT) {
        boost::system::error_code error;
        if (boost::filesystem::exists(file, error)) {
            timeoutMs = callback() * 60000u;
        }
    }
}
