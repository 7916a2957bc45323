// CSocket: a blocking TCP stream socket over IPv4, for the clients of line-based protocols.
//
// Create makes the socket and binds it to a local port; Connect resolves a host name or a
// dotted address and connects; Send and Receive move bytes; Close (or the destructor) ends
// it. Every call blocks, but never for ever: connecting, each send and each receive give up
// after the socket's time-out (DefaultTimeoutMs unless set), and a receive that times out
// fails as a broken connection does. Host name resolution is bounded by the resolver's own
// time-outs (resolv.conf). Writing to a connection that the peer has closed fails with an
// error instead of raising SIGPIPE.
//
// A failed connect leaves the socket ready for another attempt: its descriptor is replaced
// by a fresh one bound to the same local port. A connected socket cannot connect again.
//
// Failures store the platform's error number of the cause as the thread's last error.
//
// Lifetime: owns its descriptor; not copyable. Thread safety: one object belongs to one
// thread at a time.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

class TESSEL_API CSocket {
  public:
    // Waiting limit of every call, in milliseconds: 30 s.
    static constexpr DWORD DefaultTimeoutMs = 30000;
    // Result of a failed Send or Receive.
    static constexpr int SOCKET_ERROR = -1;

    CSocket() = default;
    ~CSocket();
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    // Makes the socket, bound to localPort on every local address (0: a port that the
    // system picks when connecting). FALSE when it exists already or cannot be made.
    BOOL Create(unsigned int localPort = 0);

    // Connects to port (1 .. 65535) of host, a name or a dotted IPv4 address, trying each
    // IPv4 address the name resolves to. FALSE when the socket was not created, the name
    // does not resolve, or no address accepts within the time-out.
    BOOL Connect(const char* host, unsigned int port);

    // One send of length bytes of data: the number of bytes sent, or SOCKET_ERROR when the
    // connection is broken, closed, or accepts nothing within the time-out.
    int Send(const void* data, int length);

    // One receive of at most length bytes into buffer: the number of bytes received, 0 when
    // the peer has ended the connection, SOCKET_ERROR on a broken connection or when nothing
    // arrives within the time-out.
    int Receive(void* buffer, int length);

    // Closes the socket; nothing happens when it is not open. It may be created again.
    void Close();

    // The waiting limit of the calls that follow, in milliseconds (1 .. INT_MAX).
    void SetTimeout(DWORD timeoutMs);
    DWORD GetTimeout() const { return m_timeoutMs; }

  private:
    bool Open();

    int m_fd = -1;
    bool m_connected = false;
    unsigned int m_localPort = 0;
    DWORD m_timeoutMs = DefaultTimeoutMs;
};

}  // namespace Tessel::Platform
