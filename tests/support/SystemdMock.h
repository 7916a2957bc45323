// A private system bus with a stand-in of systemd's manager on it, for the service control
// tests: a dbus-daemon of its own and python-dbusmock's systemd template, extended by
// SystemdMockTemplate.py. While it lives, DBUS_SYSTEM_BUS_ADDRESS names its bus and
// TESSEL_SYSTEMD_UNIT_DIR a fresh unit folder, which the stand-in reads at LoadUnit and Reload.
// Both processes are stopped, and the folder removed, at its end.
#pragma once

#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace TesselTest {

class SystemdMock {
  public:
    // Starts both processes and waits for the stand-in to own its name; throws
    // std::runtime_error when that fails.
    SystemdMock();
    ~SystemdMock();
    SystemdMock(const SystemdMock&) = delete;
    SystemdMock& operator=(const SystemdMock&) = delete;

    const std::string& address() const { return m_address; }
    const std::string& unitDir() const { return m_unitDir; }

    // Calls the test control method of org.freedesktop.DBus.Mock on the manager with
    // dbus-send's arguments ("string:a.service"); returns the printed reply. Throws
    // std::runtime_error when the call fails.
    std::string control(const std::string& method, const std::vector<std::string>& arguments = {});

    // The unit's ActiveState.
    std::string activeState(const std::string& unit);

  private:
    std::string m_folder;
    std::string m_unitDir;
    std::string m_address;
    ChildProcess* m_daemon = nullptr;
    ChildProcess* m_manager = nullptr;
};

}  // namespace TesselTest
