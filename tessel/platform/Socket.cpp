#include "tessel/platform/Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {

namespace {

bool SetTimeouts(int fd, DWORD timeoutMs) {
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(timeoutMs / 1000);
    limit.tv_usec = static_cast<suseconds_t>((timeoutMs % 1000) * 1000);
    return ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0 &&
           ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) == 0;
}

// Connects fd to address within timeoutMs; 0 or the errno value of the failure.
int ConnectWithin(int fd, const sockaddr* address, socklen_t length, DWORD timeoutMs) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        return errno;
    }
    int error = 0;
    if (::connect(fd, address, length) != 0) {
        error = errno;
        if (error == EINPROGRESS) {
            pollfd entry{fd, POLLOUT, 0};
            int ready;
            do {
                ready = ::poll(&entry, 1, static_cast<int>(timeoutMs));
            } while (ready < 0 && errno == EINTR);
            if (ready < 0) {
                error = errno;
            } else if (ready == 0) {
                error = ETIMEDOUT;
            } else {
                socklen_t size = sizeof(error);
                if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
                    error = errno;
                }
            }
        }
    }
    if (::fcntl(fd, F_SETFL, flags) < 0 && error == 0) {
        error = errno;
    }
    return error;
}

}  // namespace

CSocket::~CSocket() {
    Close();
}

BOOL CSocket::Create(unsigned int localPort) {
    if (m_fd >= 0 || localPort > 65535) {
        SetLastError(m_fd >= 0 ? ERROR_INVALID_FUNCTION : ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    m_localPort = localPort;
    return Open() ? TRUE : FALSE;
}

bool CSocket::Open() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    bool ready = SetTimeouts(fd, m_timeoutMs);
    if (ready && m_localPort != 0) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = htons(static_cast<uint16_t>(m_localPort));
        local.sin_addr.s_addr = htonl(INADDR_ANY);
        ready = ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0;
    }
    if (!ready) {
        SetLastErrorFromErrno(errno);
        ::close(fd);
        return false;
    }
    m_fd = fd;
    return true;
}

BOOL CSocket::Connect(const char* host, unsigned int port) {
    if (m_fd < 0 || m_connected) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (host == nullptr || port == 0 || port > 65535) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    int error = EHOSTUNREACH;
    for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
        sockaddr_in address = *reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
        address.sin_port = htons(static_cast<uint16_t>(port));
        error = ConnectWithin(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address),
                              m_timeoutMs);
        if (error == 0) {
            break;
        }
        // A descriptor whose connect failed is in no defined state: start again on a new one.
        Close();
        if (!Open()) {
            break;
        }
    }
    ::freeaddrinfo(found);
    if (error != 0) {
        SetLastErrorFromErrno(error);
        return FALSE;
    }
    m_connected = true;
    return TRUE;
}

int CSocket::Send(const void* data, int length) {
    if (m_fd < 0 || length < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return SOCKET_ERROR;
    }
    ssize_t sent;
    do {
        sent = ::send(m_fd, data, static_cast<size_t>(length), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        SetLastErrorFromErrno(errno);
        return SOCKET_ERROR;
    }
    return static_cast<int>(sent);
}

int CSocket::Receive(void* buffer, int length) {
    if (m_fd < 0 || length < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return SOCKET_ERROR;
    }
    ssize_t received;
    do {
        received = ::recv(m_fd, buffer, static_cast<size_t>(length), 0);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        SetLastErrorFromErrno(errno);
        return SOCKET_ERROR;
    }
    return static_cast<int>(received);
}

void CSocket::Close() {
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
        m_connected = false;
    }
}

void CSocket::SetTimeout(DWORD timeoutMs) {
    m_timeoutMs = std::clamp<DWORD>(timeoutMs, 1, INT_MAX);
    if (m_fd >= 0) {
        SetTimeouts(m_fd, m_timeoutMs);
    }
}

}  // namespace Tessel::Platform
