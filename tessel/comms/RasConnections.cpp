#include "tessel/comms/RasConnections.h"

#include <cstdlib>
#include <cstring>

using namespace Tessel::Platform;

CRasConnections::CRasConnections() {
    RASENTRYNAMEA probe{};
    probe.dwSize = sizeof(RASENTRYNAMEA);
    DWORD bytes = sizeof(RASENTRYNAMEA);
    RasEnumEntriesA(nullptr, nullptr, &probe, &bytes, &m_dwEntryCount);
    if (m_dwEntryCount == 0) {
        return;
    }
    // One record more than the count, left empty: the index test lets the count through.
    m_pEntries =
        static_cast<RASENTRYNAMEA*>(std::calloc(m_dwEntryCount + 1, sizeof(RASENTRYNAMEA)));
    if (m_pEntries == nullptr) {
        return;
    }
    m_pEntries->dwSize = sizeof(RASENTRYNAMEA);
    bytes = m_dwEntryCount * static_cast<DWORD>(sizeof(RASENTRYNAMEA));
    DWORD count = 0;
    if (RasEnumEntriesA(nullptr, nullptr, m_pEntries, &bytes, &count) != 0) {
        std::free(m_pEntries);
        m_pEntries = nullptr;
        return;
    }
    m_dwEntryCount = count;
}

CRasConnections::~CRasConnections() {
    std::free(m_pEntries);
}

int CRasConnections::GetRasConnectionName(unsigned int index, char* buffer, size_t size) const {
    if (index > m_dwEntryCount || buffer == nullptr || size == 0 || m_pEntries == nullptr) {
        return 0;
    }
    const char* name = m_pEntries[index].szEntryName;
    const size_t length = strnlen(name, size - 1);
    std::memcpy(buffer, name, length);
    buffer[length] = '\0';
    return 1;
}
