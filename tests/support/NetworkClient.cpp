#include "support/NetworkClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "support/Eventually.h"

namespace TesselTest {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

sockaddr* asGeneric(sockaddr_in& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

}  // namespace

TcpClient::TcpClient(int port) {
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(port);
    if (m_fd < 0 || ::connect(m_fd, asGeneric(address), sizeof(address)) != 0) {
        ::close(m_fd);  // nothing happens for -1
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

std::string TcpClient::readComplete(const std::function<std::size_t()>& completeLength,
                                    milliseconds timeout) {
    const Deadline deadline(timeout);
    std::size_t length;
    while ((length = completeLength()) == std::string::npos) {
        if (!readSome(deadline.left()) && (m_closed || deadline.passed())) {
            length = m_buffer.size();
            break;
        }
    }
    std::string taken = m_buffer.substr(0, length);
    m_buffer.erase(0, length);
    return taken;
}

std::string TcpClient::readUntil(const std::string& marker, milliseconds timeout) {
    return readComplete(
        [&] {
            const std::size_t found = m_buffer.find(marker);
            return found == std::string::npos ? found : found + marker.size();
        },
        timeout);
}

std::string TcpClient::readFor(milliseconds timeout) {
    return readComplete([] { return std::string::npos; }, timeout);
}

std::string TcpClient::readHttpResponse(milliseconds timeout) {
    return readComplete(
        [&] {
            const std::size_t headEnd = m_buffer.find("\r\n\r\n");
            if (headEnd == std::string::npos) {
                return headEnd;
            }
            const std::size_t field = m_buffer.substr(0, headEnd).find("Content-Length: ");
            const std::size_t total =
                headEnd + 4 +
                (field == std::string::npos ? 0 : std::stoul(m_buffer.substr(field + 16)));
            return m_buffer.size() < total ? std::string::npos : total;
        },
        timeout);
}

int FreeTcpPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof(address);
    const bool bound = ::bind(fd, asGeneric(address), sizeof(address)) == 0 &&
                       ::getsockname(fd, asGeneric(address), &size) == 0;
    ::close(fd);
    if (!bound) {
        throw std::runtime_error("no free port");
    }
    return ntohs(address.sin_port);
}

bool SendOverLoopback(std::size_t size, int count) {
    const int receiver = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int sender = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    bool sent = receiver >= 0 && sender >= 0 &&
                ::bind(receiver, asGeneric(address), sizeof(address)) == 0 &&
                ::getsockname(receiver, asGeneric(address), &length) == 0;
    const int buffer = 1 << 20;
    ::setsockopt(receiver, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
    const std::string payload(size, 'x');
    for (int i = 0; sent && i < count; ++i) {
        sent = ::sendto(sender, payload.data(), payload.size(), 0, asGeneric(address),
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
