#include "tessel/platform/UdpSocket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace Tessel::Platform {

std::uint32_t InetAddr(const char* text) {
    if (text == nullptr) {
        return ADDRESS_NONE;
    }
    return ::inet_addr(text);
}

bool ResolveHostAddress(const char* name, std::uint32_t& address) {
    if (name == nullptr) {
        return false;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name, nullptr, &hints, &found) != 0 || found == nullptr) {
        return false;
    }
    address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    ::freeaddrinfo(found);
    return true;
}

SOCKET OpenUdpSocket() {
    const int descriptor = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    return descriptor < 0 ? INVALID_SOCKET : descriptor;
}

int SetSocketOption(SOCKET socket, SocketOption option, int value) {
    int name = SO_SNDBUF;
    switch (option) {
        case SocketOption::SendBuffer:
            name = SO_SNDBUF;
            break;
        case SocketOption::Debug:
            name = SO_DEBUG;
            break;
        case SocketOption::Broadcast:
            name = SO_BROADCAST;
            break;
    }
    return ::setsockopt(socket, SOL_SOCKET, name, &value, sizeof(value)) == 0 ? 0 : SOCKET_ERROR;
}

int SendTo(SOCKET socket, const void* data, int length, std::uint32_t address, std::uint16_t port) {
    if (length < 0) {
        return SOCKET_ERROR;
    }
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(port);
    destination.sin_addr.s_addr = address;
    const ssize_t sent =
        ::sendto(socket, data, static_cast<std::size_t>(length), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
    return sent < 0 ? SOCKET_ERROR : static_cast<int>(sent);
}

int WaitReadable(SOCKET socket, unsigned int timeoutMs) {
    // poll ignores a negative descriptor and would just wait: the platform's select fails.
    if (socket < 0) {
        return SOCKET_ERROR;
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd entry{socket, POLLIN, 0};
        const int ready = ::poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0 || (ready > 0 && (entry.revents & POLLNVAL) != 0)) {
            return SOCKET_ERROR;
        }
        return ready > 0 ? 1 : 0;
    }
}

int RecvFrom(SOCKET socket, void* buffer, int size) {
    if (size < 0) {
        return SOCKET_ERROR;
    }
    sockaddr_in sender{};
    socklen_t senderSize = sizeof(sender);
    const ssize_t received = ::recvfrom(socket, buffer, static_cast<std::size_t>(size), 0,
                                        reinterpret_cast<sockaddr*>(&sender), &senderSize);
    return received < 0 ? SOCKET_ERROR : static_cast<int>(received);
}

int TakeSocketError(SOCKET socket) {
    int error = 0;
    socklen_t size = sizeof(error);
    if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        return errno;
    }
    return error;
}

void ShutdownSocket(SOCKET socket) {
    if (socket != INVALID_SOCKET) {
        ::shutdown(socket, SHUT_RDWR);
    }
}

int CloseSocket(SOCKET socket) {
    if (socket == INVALID_SOCKET) {
        return SOCKET_ERROR;
    }
    return ::close(socket) == 0 ? 0 : SOCKET_ERROR;
}

}  // namespace Tessel::Platform
