#include "tessel/platform/Modems.h"

#include <mutex>
#include <optional>
#include <utility>

#include "tessel/platform/SerialPortScan.h"

namespace Tessel::Platform {
namespace {

std::mutex g_lock;
std::optional<std::vector<ModemDevice>> g_devices;  // guarded by g_lock; empty: scan

}  // namespace

std::vector<ModemDevice> ListModemDevices() {
    {
        std::lock_guard<std::mutex> guard(g_lock);
        if (g_devices) {
            return *g_devices;
        }
    }
    std::vector<ModemDevice> devices;
    for (std::string& port : ScanSerialPorts()) {
        ModemDevice device;
        device.name = port;
        device.device = std::move(port);
        devices.push_back(std::move(device));
    }
    return devices;
}

void SetModemDevices(std::vector<ModemDevice> devices) {
    std::lock_guard<std::mutex> guard(g_lock);
    g_devices = std::move(devices);
}

void ResetModemDevices() {
    std::lock_guard<std::mutex> guard(g_lock);
    g_devices.reset();
}

}  // namespace Tessel::Platform
