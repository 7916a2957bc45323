#include "tessel/host/WinUtil.h"

#include <cwctype>

#include "tessel/host/StringFormat.h"
#include "tessel/platform/OsVersion.h"
#include "tessel/platform/Registry.h"
#include "tessel/platform/SerialPortScan.h"

CWinUtil::PortList CWinUtil::s_vecPorts;

namespace {

// A new entry for the port name, numbered by the digits that end it.
WinUtil::_PortDesc* newPort(const std::wstring& name) {
    auto* port = new WinUtil::_PortDesc;
    port->portName = name;
    port->portType = WinUtil::PortSerial;
    std::size_t digits = name.size();
    while (digits > 0 && std::iswdigit(name[digits - 1])) {
        --digits;
    }
    for (std::size_t i = digits; i < name.size() && port->portNumber < 100000000; ++i) {
        port->portNumber = port->portNumber * 10 + static_cast<std::uint32_t>(name[i] - L'0');
    }
    return port;
}

}  // namespace

CWinUtil::PortList::~PortList() {
    clearPorts();
}

void CWinUtil::PortList::clearPorts() {
    for (WinUtil::_PortDesc* port : *this) {
        delete port;
    }
    clear();
}

std::size_t CWinUtil::EnumSystemPorts(std::vector<WinUtil::_PortDesc*>*& list, int refresh,
                                      WinUtil::PortType type, int /*serialOnly*/) {
    s_vecPorts.reserve(4);
    static const int osClass = QueryWinVersion();
    list = &s_vecPorts;
    if (osClass == 0) {
        return s_vecPorts.size();
    }
    if (refresh != 0) {
        s_vecPorts.clearPorts();
    }
    if (!s_vecPorts.empty() || type != WinUtil::PortSerial) {
        return s_vecPorts.size();
    }
    switch (osClass) {
        case 1:
        case 2:
            for (const char* root : {"Enum\\Root\\", "Enum\\BIOS\\", "Enum\\ACPI\\"}) {
                for (const char* device : {"*PNP0500", "*PNP0501", "Ports"}) {
                    EnumPortsInSubkey((std::string(root) + device).c_str());
                }
            }
            break;
        case 3:
            EnumPortsInSubkey("System\\CurrentControlSet\\Services\\Serial\\Parameters");
            break;
        default: {
            // From the back: insertPortSorted puts the latest of one length first.
            const std::vector<std::string> names = Tessel::Platform::ScanSerialPorts();
            for (auto name = names.rbegin(); name != names.rend(); ++name) {
                insertPortSorted(newPort(Tessel::DecodeUtf8(*name)));
            }
            break;
        }
    }
    return s_vecPorts.size();
}

std::wstring CWinUtil::getPortName(int index) {
    return s_vecPorts[static_cast<std::size_t>(index)]->portName;
}

int CWinUtil::EnumPortsInSubkey(const char* key) {
    namespace P = Tessel::Platform;
    P::HKEY parent = nullptr;
    if (P::RegOpenKeyExA(P::HKEY_LOCAL_MACHINE, key, 0, P::KEY_READ, &parent) != P::ERROR_SUCCESS) {
        return 0;
    }
    char subKeyName[256];
    P::DWORD nameLength = sizeof(subKeyName);
    for (P::DWORD index = 0; P::RegEnumKeyExA(parent, index, subKeyName, &nameLength, nullptr,
                                              nullptr, nullptr, nullptr) == P::ERROR_SUCCESS;
         ++index, nameLength = sizeof(subKeyName)) {
        P::HKEY device = nullptr;
        if (P::RegOpenKeyExA(parent, subKeyName, 0, P::KEY_READ, &device) != P::ERROR_SUCCESS) {
            continue;
        }
        char portName[200] = {};
        P::DWORD size = sizeof(portName) - 1;
        const bool found =
            P::RegQueryValueExA(device, "PortName", nullptr, nullptr,
                                reinterpret_cast<P::BYTE*>(portName), &size) == P::ERROR_SUCCESS &&
            portName[0] != '\0';
        P::RegCloseKey(device);
        if (!found) {
            continue;
        }
        const std::wstring name = Tessel::DecodeUtf8(portName);
        bool known = false;
        for (const WinUtil::_PortDesc* port : s_vecPorts) {
            known = known || port->portName == name;
        }
        if (!known) {
            insertPortSorted(newPort(name));
        }
    }
    P::RegCloseKey(parent);
    return 1;
}

void CWinUtil::insertPortSorted(WinUtil::_PortDesc* port) {
    for (auto entry = s_vecPorts.begin(); entry != s_vecPorts.end(); ++entry) {
        const std::wstring& name = (*entry)->portName;
        if (port->portName.size() < name.size() ||
            (port->portName.size() == name.size() && port->portName != name)) {
            s_vecPorts.insert(entry, port);
            return;
        }
    }
    s_vecPorts.push_back(port);
}

int CWinUtil::QueryWinVersion() {
    Tessel::Platform::OSVERSIONINFOEXA info{};
    info.dwOSVersionInfoSize = sizeof(info);
    if (!Tessel::Platform::GetVersionExA(&info)) {
        return 0;
    }
    if ((info.dwPlatformId & 1) != 0) {
        if (info.dwMinorVersion == 0) {
            return 1;
        }
        if (info.dwMinorVersion == 10) {
            return 2;
        }
    } else if ((info.dwPlatformId & 2) != 0) {
        if (info.dwMajorVersion >= 3 && info.dwMajorVersion <= 6) {
            return static_cast<int>(info.dwMajorVersion);
        }
    }
    return 0;
}

std::wstring CWinUtil::GetWinVersionInfo() {
    const std::string name = Tessel::Platform::OsPrettyName();
    return name.empty() ? L"Unknown" : Tessel::DecodeUtf8(name);
}
