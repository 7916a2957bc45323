// Real network counterparts for the monitor server's tests: a blocking TCP client on the
// loopback address, a free port, loopback traffic. Second processes: support/ChildProcess.h.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "support/ChildProcess.h"

namespace TesselTest {

using std::chrono::milliseconds;

// A TCP connection to 127.0.0.1:port. Reads collect into a buffer; each read operation
// returns and consumes the buffer.
class TcpClient {
  public:
    // Connects; throws std::runtime_error when the connection is refused.
    explicit TcpClient(int port);
    ~TcpClient();
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    // Writes all of data; false when the write failed.
    bool send(const std::string& data);
    // Reads until the received text contains marker, the peer closes or timeout passes.
    std::string readUntil(const std::string& marker, milliseconds timeout);
    // Reads until the peer closes or timeout passes: whatever arrives within timeout.
    std::string readFor(milliseconds timeout);
    // Reads one HTTP response: the head, then Content-Length bytes of body.
    std::string readHttpResponse(milliseconds timeout);
    // True once a read has seen the peer's end of the stream.
    bool peerClosed() const { return m_closed; }

  private:
    // One read of what is there, waiting up to timeout; false on end of stream or time-out.
    bool readSome(milliseconds timeout);
    // Reads until completeLength() tells the length of a complete piece of the buffer (npos:
    // not yet), the peer closes or timeout passes; returns and consumes that piece, else all.
    std::string readComplete(const std::function<std::size_t()>& completeLength,
                             milliseconds timeout);

    int m_fd = -1;
    bool m_closed = false;
    std::string m_buffer;
};

// A TCP port of the loopback address that was free a moment ago.
int FreeTcpPort();

// Sends count UDP datagrams of size bytes each over the loopback device to a receiver of its
// own (which discards them); true if every datagram was sent.
bool SendOverLoopback(std::size_t size, int count);

// The body of an HTTP response (what follows the empty line), or "" without one.
std::string HttpBody(const std::string& response);

}  // namespace TesselTest
