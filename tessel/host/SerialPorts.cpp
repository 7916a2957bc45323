#include "tessel/host/SerialPorts.h"

#include <vector>

#include "tessel/host/StringFormat.h"
#include "tessel/platform/CheckedPrint.h"

std::size_t CSerialPorts::GetSerialPortCount() {
    std::vector<WinUtil::_PortDesc*>* list = nullptr;
    return CWinUtil::EnumSystemPorts(list, 1, WinUtil::PortSerial, 1);
}

bool CSerialPorts::GetSerialPortName(unsigned int index, char* buffer, std::size_t size) {
    if (buffer == nullptr) {
        return false;
    }
    const std::string name = Tessel::EncodeUtf8(GetBSTRComPortName(static_cast<int>(index)));
    Tessel::Platform::sprintf_s(buffer, size, "%s", name.c_str());
    return true;
}

std::wstring CSerialPorts::GetBSTRComPortName(int index) {
    std::vector<WinUtil::_PortDesc*>* list = nullptr;
    const std::size_t count = CWinUtil::EnumSystemPorts(list, 0, WinUtil::PortSerial, 1);
    if (index < 0 || static_cast<std::size_t>(index) >= count) {
        return {};
    }
    return CWinUtil::getPortName(index);
}
