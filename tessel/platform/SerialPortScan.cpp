#include "tessel/platform/SerialPortScan.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace Tessel::Platform {
namespace {

// True when the tty's "type" attribute is missing or names a port type other than 0.
bool hasKnownPortType(const std::filesystem::path& tty) {
    std::ifstream attribute(tty / "type");
    if (!attribute) {
        return true;
    }
    long type = 0;
    return static_cast<bool>(attribute >> type) && type != 0;
}

}  // namespace

std::vector<std::string> ScanSerialPorts(const std::string& sysfsRoot) {
    namespace fs = std::filesystem;
    std::vector<std::string> ports;
    std::error_code error;
    fs::directory_iterator entries(fs::path(sysfsRoot) / "class" / "tty", error);
    if (error) {
        return ports;
    }
    // Incremented with an error code: a directory that fails half-way gives what was read.
    for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
        const fs::directory_entry& entry = *entries;
        // The class entries are links into the device tree; "device/driver" resolves only
        // for a tty whose parent device has a driver bound.
        std::error_code ignored;
        if (!fs::exists(entry.path() / "device" / "driver", ignored) ||
            !hasKnownPortType(entry.path())) {
            continue;
        }
        std::string name = entry.path().filename().string();
        std::replace(name.begin(), name.end(), '!', '/');
        ports.push_back("/dev/" + name);
    }
    std::sort(ports.begin(), ports.end());
    return ports;
}

}  // namespace Tessel::Platform
