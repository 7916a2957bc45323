#include "tessel/comms/RasDevices.h"

#include <cstdlib>
#include <cstring>

using namespace Tessel::Platform;

namespace {

const int kRounds = 5;

// Copies text into buffer, of size bytes, cut to size - 1 bytes and NUL-terminated.
void CopyCut(const char* text, char* buffer, size_t size) {
    const size_t length = strnlen(text, size - 1);
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
}

}  // namespace

CRasDevices::~CRasDevices() {
    Clear();
}

long CRasDevices::GetModemCount() {
    return GetRASDeviceCount(RASDT_Modem);
}

long CRasDevices::GetISDNCount() {
    return GetRASDeviceCount(RASDT_Isdn);
}

int CRasDevices::GetModemName(unsigned int index, char* buffer, size_t size) {
    return GetRASDeviceName(index, RASDT_Modem, buffer, size);
}

int CRasDevices::GetISDNName(unsigned int index, char* buffer, size_t size) {
    return GetRASDeviceName(index, RASDT_Isdn, buffer, size);
}

int CRasDevices::GetRasDeviceIndex(char const* name, int& index) {
    if (name == nullptr || !InitEnumRasDevices()) {
        return 0;
    }
    for (DWORD i = 0; i < m_dwDeviceCount; ++i) {
        if (std::strcmp(m_pDevices[i].szDeviceName, name) == 0) {
            index = static_cast<int>(i);
            return 1;
        }
    }
    return 0;
}

int CRasDevices::GetRasDeviceInfo(unsigned int index, RASDEVINFOA* info) {
    if (info == nullptr || !InitEnumRasDevices() || index >= m_dwDeviceCount) {
        return 0;
    }
    *info = m_pDevices[index];
    return 1;
}

int CRasDevices::GetRasDeviceInfo(char const* name, RASDEVINFOA* info) {
    int index = 0;
    if (GetRasDeviceIndex(name, index) == 0) {
        return 0;
    }
    return GetRasDeviceInfo(static_cast<unsigned int>(index), info);
}

long CRasDevices::GetRASDeviceCount(char const* type) {
    if (!InitEnumRasDevices()) {
        return 0;
    }
    long count = 0;
    for (DWORD i = 0; i < m_dwDeviceCount; ++i) {
        if (std::strcmp(m_pDevices[i].szDeviceType, type) == 0) {
            ++count;
        }
    }
    return count;
}

int CRasDevices::GetRASDeviceName(unsigned int index, char const* type, char* buffer, size_t size) {
    if (buffer == nullptr || size == 0 || !InitEnumRasDevices()) {
        return 0;
    }
    unsigned int member = 0;
    for (DWORD i = 0; i < m_dwDeviceCount; ++i) {
        if (std::strcmp(m_pDevices[i].szDeviceType, type) != 0) {
            continue;
        }
        if (member++ == index) {
            CopyCut(m_pDevices[i].szDeviceName, buffer, size);
            return 1;
        }
    }
    return 0;
}

bool CRasDevices::InitEnumRasDevices() {
    if (m_pDevices != nullptr) {
        return true;
    }
    DWORD bytes = sizeof(RASDEVINFOA);
    for (int round = 0; round < kRounds; ++round) {
        Clear();
        // The service asks for more only with ERROR_BUFFER_TOO_SMALL: bytes holds at least
        // the one record whose size field is set.
        m_pDevices = static_cast<RASDEVINFOA*>(std::calloc(1, bytes));
        if (m_pDevices == nullptr) {
            return false;
        }
        m_pDevices->dwSize = sizeof(RASDEVINFOA);
        DWORD count = 0;
        const DWORD result = RasEnumDevicesA(m_pDevices, &bytes, &count);
        if (result == 0) {
            m_dwDeviceCount = count;
            return true;
        }
        if (result != ERROR_BUFFER_TOO_SMALL) {
            break;
        }
    }
    Clear();
    return false;
}

void CRasDevices::Clear() {
    std::free(m_pDevices);
    m_pDevices = nullptr;
    m_dwDeviceCount = 0;
}
