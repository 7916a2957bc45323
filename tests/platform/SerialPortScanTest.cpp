#include "tessel/platform/SerialPortScan.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "PlatformTest.h"

namespace fs = std::filesystem;

namespace {

// A sysfs tree of its own: devices below devices/, drivers below bus/, and class/tty/<name>
// as relative links to the ttys, as the kernel makes them.
class FakeSysfs {
  public:
    FakeSysfs() : m_root(fs::temp_directory_path() / PlatformTest::uniqueName("sysfs")) {
        fs::create_directories(m_root / "class" / "tty");
    }
    ~FakeSysfs() { fs::remove_all(m_root); }

    // A tty below device (relative to devices/; "" for a virtual tty without one); with
    // driver, the device's driver link; with type, the tty's "type" attribute.
    void addTty(const std::string& name, const std::string& device, const std::string& driver = "",
                const std::string& type = "") {
        const fs::path deviceDir = m_root / "devices" / (device.empty() ? "virtual" : device);
        const fs::path ttyDir = deviceDir / "tty" / name;
        fs::create_directories(ttyDir);
        if (!driver.empty()) {
            fs::create_directories(m_root / "bus" / driver);
            link(deviceDir / "driver", m_root / "bus" / driver);
        }
        if (!device.empty()) {
            link(ttyDir / "device", deviceDir);
        }
        if (!type.empty()) {
            std::ofstream(ttyDir / "type") << type << "\n";
        }
        link(m_root / "class" / "tty" / name, ttyDir);
    }
    std::string root() const { return m_root.string(); }

  private:
    static void link(const fs::path& from, const fs::path& to) {
        if (!fs::exists(fs::symlink_status(from))) {
            fs::create_directory_symlink(fs::relative(to, from.parent_path()), from);
        }
    }
    fs::path m_root;
};

}  // namespace

TEST(SerialPortScan, FindsPortsWithADriverAndAKnownType) {
    FakeSysfs sysfs;
    sysfs.addTty("ttyS0", "platform/serial8250", "platform/drivers/serial8250", "4");
    sysfs.addTty("ttyS1", "platform/serial8250", "platform/drivers/serial8250", "0");
    sysfs.addTty("ttyS2", "pnp0/00:05");  // no driver bound
    sysfs.addTty("ttyUSB0", "pci0/usb1/1-1/1-1:1.0/ttyUSB0", "usb-serial/drivers/ftdi_sio");
    sysfs.addTty("ttyACM0", "pci0/usb1/1-2/1-2:1.0", "usb/drivers/cdc_acm");
    sysfs.addTty("tts!0", "platform/uart", "platform/drivers/uart", "1");
    sysfs.addTty("ptmx", "");
    sysfs.addTty("tty1", "");
    EXPECT_EQ(
        Tessel::Platform::ScanSerialPorts(sysfs.root()),
        (std::vector<std::string>{"/dev/tts/0", "/dev/ttyACM0", "/dev/ttyS0", "/dev/ttyUSB0"}));
    EXPECT_TRUE(Tessel::Platform::ScanSerialPorts(sysfs.root() + "/missing").empty());
}
