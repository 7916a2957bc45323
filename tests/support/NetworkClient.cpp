#include "support/NetworkClient.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace TesselTest {

namespace {

using Clock = std::chrono::steady_clock;

int remainingMs(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

TcpClient::TcpClient(int port) {
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (m_fd < 0 || ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        throw std::runtime_error("connect to port " + std::to_string(port) + " failed");
    }
}

TcpClient::~TcpClient() {
    ::close(m_fd);
}

bool TcpClient::send(const std::string& data) {
    std::size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t n = ::send(m_fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

bool TcpClient::readSome(milliseconds timeout) {
    if (m_closed) {
        return false;
    }
    pollfd fd{m_fd, POLLIN, 0};
    if (::poll(&fd, 1, static_cast<int>(timeout.count())) <= 0) {
        return false;
    }
    char chunk[65536];
    const ssize_t n = ::recv(m_fd, chunk, sizeof(chunk), 0);
    if (n <= 0) {
        m_closed = true;
        return false;
    }
    m_buffer.append(chunk, static_cast<std::size_t>(n));
    return true;
}

std::string TcpClient::take(std::size_t length) {
    std::string taken = m_buffer.substr(0, length);
    m_buffer.erase(0, length);
    return taken;
}

std::string TcpClient::readUntil(const std::string& marker, milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::size_t found;
    while ((found = m_buffer.find(marker)) == std::string::npos) {
        if (!readSome(milliseconds(remainingMs(deadline))) &&
            (m_closed || Clock::now() >= deadline)) {
            return take(m_buffer.size());
        }
    }
    return take(found + marker.size());
}

std::string TcpClient::readFor(milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline && !m_closed) {
        readSome(milliseconds(remainingMs(deadline)));
    }
    return take(m_buffer.size());
}

std::string TcpClient::readToEnd(milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!m_closed && Clock::now() < deadline) {
        readSome(milliseconds(remainingMs(deadline)));
    }
    return take(m_buffer.size());
}

std::string TcpClient::readHttpResponse(milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::size_t headEnd;
    while ((headEnd = m_buffer.find("\r\n\r\n")) == std::string::npos) {
        if (!readSome(milliseconds(remainingMs(deadline))) &&
            (m_closed || Clock::now() >= deadline)) {
            return take(m_buffer.size());
        }
    }
    std::size_t length = 0;
    const std::string head = m_buffer.substr(0, headEnd);
    const std::size_t field = head.find("Content-Length: ");
    if (field != std::string::npos) {
        length = std::stoul(head.substr(field + 16));
    }
    const std::size_t total = headEnd + 4 + length;
    while (m_buffer.size() < total) {
        if (!readSome(milliseconds(remainingMs(deadline))) &&
            (m_closed || Clock::now() >= deadline)) {
            break;
        }
    }
    return take(total);
}

void TcpClient::shutdownWrite() {
    ::shutdown(m_fd, SHUT_WR);
}

int FreeTcpPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        ::close(fd);
        throw std::runtime_error("no free port");
    }
    ::close(fd);
    return ntohs(address.sin_port);
}

bool SendOverLoopback(std::size_t size, int count) {
    const int receiver = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int sender = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    bool sent = receiver >= 0 && sender >= 0 &&
                ::bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
                ::getsockname(receiver, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    const int buffer = 1 << 20;
    ::setsockopt(receiver, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
    const std::string payload(size, 'x');
    for (int i = 0; sent && i < count; ++i) {
        sent = ::sendto(sender, payload.data(), payload.size(), 0,
                        reinterpret_cast<sockaddr*>(&address),
                        sizeof(address)) == static_cast<ssize_t>(payload.size());
    }
    ::close(sender);
    ::close(receiver);
    return sent;
}

std::string HttpBody(const std::string& response) {
    const std::size_t headEnd = response.find("\r\n\r\n");
    return headEnd == std::string::npos ? std::string() : response.substr(headEnd + 4);
}

}  // namespace TesselTest
