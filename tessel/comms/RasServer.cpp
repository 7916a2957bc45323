#include "tessel/comms/RasServer.h"

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "tessel/logging/ILogging.h"

using namespace Tessel::Platform;

namespace {

// The pause after hanging up a failed dial, in which the line settles.
const std::chrono::milliseconds kSettleAfterFailure(3000);
// The state of a link that is going down is asked every kStatusPause, at most kStatusRounds
// times.
const std::chrono::milliseconds kStatusPause(100);
const int kStatusRounds = 49;

// Copies text into buffer, of size bytes, cut to size - 1 bytes and NUL-terminated.
void CopyCut(const char* text, char* buffer, std::size_t size) {
    const std::size_t length = strnlen(text, size - 1);
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
}

}  // namespace

CRasServer::CRasServer() = default;

CRasServer::CRasServer(char const* name) {
    SetServerName(name);
}

CRasServer::~CRasServer() = default;

bool CRasServer::SetServerName(char const* name) {
    if (m_bConnected || name == nullptr) {
        return false;
    }
    CopyCut(name, m_szServerName, sizeof m_szServerName);
    return true;
}

bool CRasServer::ConnectRAS() {
    if (m_szServerName[0] == '\0') {
        return false;
    }
    if (m_bConnected) {
        m_bConnected = false;
        DisconnectRAS();
    }
    RASDIALPARAMSA params{};
    params.dwSize = sizeof(RASDIALPARAMSA);
    CopyCut(m_szServerName, params.szEntryName, sizeof params.szEntryName);
    m_hConnection = nullptr;
    BOOL hasPassword = FALSE;
    RasGetEntryDialParamsA(nullptr, &params, &hasPassword);

    m_dwLastError = RasDialA(nullptr, nullptr, &params, 0, nullptr, &m_hConnection);
    m_bConnected = m_dwLastError == 0;
    if (!m_bConnected) {
        SetLastRasError();
        ILogging::getInstance().log("CRasServer::ConnectRAS", ILogging::Warn,
                                    std::string("dialling ") + m_szServerName + " failed (" +
                                        std::to_string(m_dwLastError) + "): " + m_szLastError);
        if (m_hConnection != nullptr) {
            m_dwLastError = RasHangUpA(m_hConnection);
            std::this_thread::sleep_for(kSettleAfterFailure);
            m_hConnection = nullptr;
        }
    }
    return m_bConnected;
}

bool CRasServer::DisconnectRAS() {
    if (!m_bConnected) {
        return true;
    }
    m_bConnected = false;
    const DWORD result = RasHangUpA(m_hConnection);
    if (result != 0) {
        m_dwLastError = result;
        SetLastRasError();
        ILogging::getInstance().log("CRasServer::DisconnectRAS", ILogging::Warn,
                                    std::string("hanging up ") + m_szServerName + " failed (" +
                                        std::to_string(result) + "): " + m_szLastError);
        return false;
    }
    RASCONNSTATUSA status{};
    for (int round = 0; round < kStatusRounds; ++round) {
        status.dwSize = sizeof(RASCONNSTATUSA);
        if (RasGetConnectStatusA(m_hConnection, &status) == ERROR_INVALID_HANDLE) {
            break;
        }
        std::this_thread::sleep_for(kStatusPause);
    }
    return true;
}

void CRasServer::GetLastRasError(char* text, long size) {
    if (text == nullptr || size < 1) {
        return;
    }
    CopyCut(m_szLastError, text, static_cast<std::size_t>(size));
}

void CRasServer::SetLastRasError() {
    m_szLastError[0] = '\0';
    RasGetErrorStringA(m_dwLastError, m_szLastError, sizeof m_szLastError);
}
