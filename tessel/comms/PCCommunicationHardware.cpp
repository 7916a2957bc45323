#include "tessel/comms/PCCommunicationHardware.h"

#include <cstring>

#include "tessel/comms/RasConnections.h"
#include "tessel/comms/RasDevices.h"
#include "tessel/host/SerialPorts.h"
#include "tessel/persistence/PackedField.h"

namespace {

const size_t kTypeBytes = 4;
const size_t kHeadBytes = 9;  // head value, head flag, count
// The size of the fields that names are fetched into.
const size_t kNameField = CPCCommunicationHardware::CComHW::MaxName + 1;

}  // namespace

CPCCommunicationHardware::CComHW::CComHW(unsigned int type, char const* name) : m_uiType(type) {
    if (name != nullptr) {
        std::memcpy(m_szName, name, strnlen(name, MaxName));
    }
}

bool CPCCommunicationHardware::CComHW::loadData(const unsigned char* buffer, size_t size) {
    if (buffer == nullptr || size <= kTypeBytes) {
        return false;
    }
    const size_t room = size - kTypeBytes;
    const void* end = std::memchr(buffer + kTypeBytes, 0, room < kNameField ? room : kNameField);
    if (end == nullptr) {
        return false;
    }
    const size_t length = static_cast<const unsigned char*>(end) - (buffer + kTypeBytes);
    m_uiType = Tessel::LoadPackedField<std::uint32_t>(buffer);
    std::memcpy(m_szName, buffer + kTypeBytes, length + 1);
    return true;
}

void CPCCommunicationHardware::CComHW::saveData(unsigned char* buffer, size_t size) const {
    if (buffer == nullptr || size < getSize()) {
        return;
    }
    Tessel::StorePackedField<std::uint32_t>(buffer, m_uiType);
    std::memcpy(buffer + kTypeBytes, m_szName, std::strlen(m_szName) + 1);
}

size_t CPCCommunicationHardware::CComHW::getSize() const {
    return std::strlen(m_szName) + kTypeBytes + 1;
}

void CPCCommunicationHardware::ScanComHW() {
    char name[kNameField];
    const size_t ports = CSerialPorts::GetSerialPortCount();
    for (size_t i = 0; i < ports; ++i) {
        if (CSerialPorts::GetSerialPortName(static_cast<unsigned int>(i), name, sizeof name)) {
            m_vecComHW.emplace_back(SerialPort, name);
        }
    }
    CRasDevices devices;
    const long modems = devices.GetModemCount();
    for (long i = 0; i < modems; ++i) {
        if (devices.GetModemName(static_cast<unsigned int>(i), name, sizeof name) != 0) {
            m_vecComHW.emplace_back(Modem, name);
        }
    }
    const long adapters = devices.GetISDNCount();
    for (long i = 0; i < adapters; ++i) {
        if (devices.GetISDNName(static_cast<unsigned int>(i), name, sizeof name) != 0) {
            m_vecComHW.emplace_back(Modem, name);
        }
    }
    const CRasConnections connections;
    const long entries = connections.GetRasConnectionCount();
    for (long i = 0; i < entries; ++i) {
        if (connections.GetRasConnectionName(static_cast<unsigned int>(i), name, sizeof name) !=
            0) {
            m_vecComHW.emplace_back(DialUpEntry, name);
        }
    }
    m_vecComHW.emplace_back(TcpIp, "TCP/IP");
    m_vecComHW.emplace_back(AccessRouter, "AccessRouter");
}

bool CPCCommunicationHardware::loadData(const unsigned char* buffer, size_t size) {
    if (buffer == nullptr) {
        return false;
    }
    m_vecComHW.clear();
    if (size < kHeadBytes) {
        return false;
    }
    m_uiHeadValue = Tessel::LoadPackedField<std::uint32_t>(buffer);
    m_ucHeadFlag = buffer[4];
    const std::uint32_t count = Tessel::LoadPackedField<std::uint32_t>(buffer + 5);
    size_t offset = kHeadBytes;
    for (std::uint32_t i = 0; i < count; ++i) {
        CComHW channel;
        if (!channel.loadData(buffer + offset, size - offset)) {
            return false;
        }
        offset += channel.getSize();
        m_vecComHW.push_back(channel);
    }
    return true;
}

void CPCCommunicationHardware::saveData(unsigned char* buffer, size_t size) const {
    if (buffer == nullptr || size < getSize()) {
        return;
    }
    Tessel::StorePackedField<std::uint32_t>(buffer, m_uiHeadValue);
    buffer[4] = m_ucHeadFlag;
    Tessel::StorePackedField<std::uint32_t>(buffer + 5,
                                            static_cast<std::uint32_t>(m_vecComHW.size()));
    size_t offset = kHeadBytes;
    for (const CComHW& channel : m_vecComHW) {
        channel.saveData(buffer + offset, size - offset);
        offset += channel.getSize();
    }
}

size_t CPCCommunicationHardware::getSize() const {
    size_t size = kHeadBytes;
    for (const CComHW& channel : m_vecComHW) {
        size += channel.getSize();
    }
    return size;
}
