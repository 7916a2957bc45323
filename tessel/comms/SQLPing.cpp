#include "tessel/comms/SQLPing.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/Handle.h"
#include "tessel/supervision/WatchdogClient.h"

using namespace Tessel::Platform;

namespace {

const std::uint16_t kBrowserPort = 1434;
const unsigned int kStopTimeoutMs = 1000;
const unsigned int kListenMs = 3000;
const unsigned int kReplyWaitMs = 1000;
const int kReceiveBufferSize = 64000;
const char kBroadcastAddress[] = "255.255.255.255";

}  // namespace

CSQLPing::CSQLPing() : CSQLPing(nullptr) {}

CSQLPing::CSQLPing(const char* address)
    : CActiveObject("CSQLPing", &CSQLPing::ListenerThread, this, kStopTimeoutMs) {
    StartServerSearch(address);
}

CSQLPing::~CSQLPing() {
    StopThread();
    if (m_socket != INVALID_SOCKET) {
        ShutdownSocket(m_socket);
        CloseSocket(m_socket);
        m_socket = INVALID_SOCKET;
    }
}

void CSQLPing::StartServerSearch(const char* address) {
    if (address == nullptr || address[0] == '\0') {
        address = kBroadcastAddress;
    }
    StartThread(__FILE__, __LINE__, "CSQLPing::StartServerSearch", 0, nullptr, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(kListenMs));
    StopThread();
    m_servers.clear();

    const std::uint32_t destination = ResolveIP(address);
    unsigned char bytes[4];
    std::memcpy(bytes, &destination, sizeof(bytes));
    char text[64];
    sprintf_s(text, sizeof(text), "SQL-Pinging %u.%u.%u.%u\n", bytes[0], bytes[1], bytes[2],
              bytes[3]);
    OutputDebugStringA(text);

    m_socket = OpenUdpSocket();
    // The results are not read: a refused option (debugging needs a right that a service
    // seldom has) leaves the request as it is.
    SetSocketOption(m_socket, SocketOption::SendBuffer, 0);
    SetSocketOption(m_socket, SocketOption::Debug, 1);
    SetSocketOption(m_socket, SocketOption::Broadcast, 1);
    const char request = 0x02;
    SendTo(m_socket, &request, 1, destination, kBrowserPort);
}

unsigned int CSQLPing::ResolveIP(const char* address) {
    std::uint32_t resolved = InetAddr(address);
    if (resolved == ADDRESS_NONE && !ResolveHostAddress(address, resolved)) {
        return 0xFFFFFFFFu;
    }
    return resolved;
}

bool CSQLPing::DecodeResponse(char* data, int length, CSQLPing* target) {
    std::string text;
    if (data != nullptr && length > 3) {
        text.assign(data + 3, static_cast<std::size_t>(length - 3));
    }
    _SQL_SERVER_DATA server;
    std::string clustered;
    std::string port;
    if (!GetItemText(text, "ServerName;", server.strServerName) ||
        !GetItemText(text, "InstanceName;", server.strInstanceName) ||
        !GetItemText(text, "IsClustered;", clustered) ||
        !GetItemText(text, "Version;", server.strVersion) || !GetItemText(text, "tcp;", port) ||
        !GetItemText(text, "np;", server.strNamedPipe) || target == nullptr) {
        return false;
    }
    server.bClustered = clustered != "No";
    server.lTcpPort = static_cast<std::int32_t>(std::atol(port.c_str()));
    target->m_servers.push_back(std::move(server));
    return true;
}

bool CSQLPing::GetItemText(std::string& text, const std::string& key, std::string& value) {
    // A missing key is found at npos, which is -1: the scan then starts at the key's length
    // minus one, as the unsigned sum wraps.
    const std::size_t start = text.find(key) + key.size();
    const std::size_t end = text.find(';', start);
    if (end == std::string::npos) {
        return false;
    }
    value = text.substr(start, end - start);
    text.erase(0, end + 1);
    return true;
}

unsigned long CSQLPing::ListenerThread(void* parameter) {
    auto* self = static_cast<CSQLPing*>(parameter);
    if (self == nullptr) {
        return 0;
    }
    CWatchdogClient watchdog;
    watchdog.SetWatchdogThreadInfo("SQLPing", 0);
    std::vector<char> buffer(kReceiveBufferSize);
    while (WaitForSingleObject(self->m_hStopEvent, 0) != WAIT_OBJECT_0) {
        // Only a time-out ends the loop. A failed wait (no socket yet) would fail the read too:
        // the thread waits for the stop event instead, one wait time per round, so that it
        // does not spin until the stop comes.
        const int readable = WaitReadable(self->m_socket, kReplyWaitMs);
        if (readable == 0) {
            break;
        }
        if (readable == SOCKET_ERROR) {
            WaitForSingleObject(self->m_hStopEvent, kReplyWaitMs);
            continue;
        }
        const int received = RecvFrom(self->m_socket, buffer.data(), kReceiveBufferSize);
        if (received >= 1 && TakeSocketError(self->m_socket) == 0) {
            self->DecodeResponse(buffer.data(), received, self);
        }
    }
    watchdog.NotifyWatchdogThisThreadClosing();
    return 0;
}
