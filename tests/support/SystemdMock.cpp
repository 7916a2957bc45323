#include "support/SystemdMock.h"

#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/Eventually.h"

namespace TesselTest {

namespace {

const char* const kConfig =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=@FOLDER@/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
)";

std::string templatePath() {
    return (std::filesystem::path(__FILE__).parent_path() / "SystemdMockTemplate.py").string();
}

}  // namespace

SystemdMock::SystemdMock() {
    char pattern[] = "/tmp/tessel-systemd-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_folder = pattern;
    m_unitDir = m_folder + "/units";
    std::filesystem::create_directory(m_unitDir);
    std::string config = kConfig;
    config.replace(config.find("@FOLDER@"), 8, m_folder);
    std::ofstream(m_folder + "/bus.conf") << config;

    // Its standard error goes to a pipe that is not read: as root it complains that it may not
    // raise its descriptor limit.
    ChildOptions quiet;
    quiet.captureError = true;
    m_daemon = new ChildProcess(
        {"dbus-daemon", "--config-file=" + m_folder + "/bus.conf", "--nofork", "--print-address"},
        quiet);
    m_address = m_daemon->readLine(milliseconds(10000));
    if (m_address.empty()) {
        throw std::runtime_error("dbus-daemon gave no address");
    }
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
    ::setenv("TESSEL_SYSTEMD_UNIT_DIR", m_unitDir.c_str(), 1);

    ChildOptions options;
    options.environment["DBUS_SYSTEM_BUS_ADDRESS"] = m_address;
    m_manager = new ChildProcess({"/usr/bin/python3", "-m", "dbusmock", "--system", "--template",
                                  templatePath(), "-p", "{\"unit_dir\": \"" + m_unitDir + "\"}"},
                                 options);
    const bool owned = eventually(
        [&] {
            const RunResult result =
                Run({"dbus-send", "--bus=" + m_address, "--print-reply",
                     "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                     "org.freedesktop.DBus.NameHasOwner", "string:org.freedesktop.systemd1"});
            return result.out.find("boolean true") != std::string::npos;
        },
        10000ms, 20ms);
    if (!owned) {
        throw std::runtime_error("the systemd stand-in did not start");
    }
}

SystemdMock::~SystemdMock() {
    for (ChildProcess* child : {m_manager, m_daemon}) {
        if (child != nullptr) {
            ::kill(child->pid(), SIGTERM);
            delete child;
        }
    }
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    ::unsetenv("TESSEL_SYSTEMD_UNIT_DIR");
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

std::string SystemdMock::control(const std::string& method,
                                 const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {"dbus-send",
                                     "--bus=" + m_address,
                                     "--print-reply",
                                     "--dest=org.freedesktop.systemd1",
                                     "/org/freedesktop/systemd1",
                                     "org.freedesktop.DBus.Mock." + method};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const RunResult result = Run(argv);
    if (result.status != 0) {
        throw std::runtime_error(method + " failed: " + result.err);
    }
    return result.out;
}

std::string SystemdMock::activeState(const std::string& unit) {
    std::string escaped = unit;
    for (char& c : escaped) {
        if (c == '.' || c == '-') {
            c = '_';
        }
    }
    const RunResult result =
        Run({"dbus-send", "--bus=" + m_address, "--print-reply", "--dest=org.freedesktop.systemd1",
             "/org/freedesktop/systemd1/unit/" + escaped, "org.freedesktop.DBus.Properties.Get",
             "string:org.freedesktop.systemd1.Unit", "string:ActiveState"});
    const std::size_t open = result.out.find("string \"");
    if (open == std::string::npos) {
        return {};
    }
    const std::size_t begin = open + 8;
    return result.out.substr(begin, result.out.find('"', begin) - begin);
}

}  // namespace TesselTest
