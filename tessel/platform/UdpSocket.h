// UDP over IPv4 for the clients that ask the network with single datagrams.
//
// A socket is a plain descriptor: INVALID_SOCKET is "no socket", and the calls return
// SOCKET_ERROR where the platform's socket calls do. Addresses are IPv4 addresses in network
// byte order, as the platform's address functions give them: the first byte in memory is the
// first number of the dotted form. Ports are in host byte order. The sockets need no start-up
// and no clean-up of the socket library; errors are not kept in a last-error word.
//
// Thread safety: every function may be called from any thread; one socket may be used by
// several threads, but not after CloseSocket.
#pragma once

#include <cstdint>

#include "tessel/Export.h"

namespace Tessel::Platform {

using SOCKET = int;
inline constexpr SOCKET INVALID_SOCKET = -1;
inline constexpr int SOCKET_ERROR = -1;
// The address that no dotted address text gives, and also the limited broadcast
// 255.255.255.255.
inline constexpr std::uint32_t ADDRESS_NONE = 0xFFFFFFFFu;

// The socket options that SetSocketOption sets, each at level SOL_SOCKET.
enum class SocketOption {
    SendBuffer,  // the send buffer in bytes; the kernel raises small values to its minimum
    Debug,       // kernel debugging of the socket; needs the network administration right
    Broadcast,   // sending to a broadcast address is allowed
};

// The address of a dotted text ("a.b.c.d", also the short forms "a.b.c", "a.b", "a" and
// numbers in octal or hexadecimal), or ADDRESS_NONE when text is null or not such a text.
TESSEL_API std::uint32_t InetAddr(const char* text);
// The first IPv4 address of the host name (a dotted text is also accepted), looked up through
// the system's name service. false when name is null or not found.
TESSEL_API bool ResolveHostAddress(const char* name, std::uint32_t& address);

// A new, unbound UDP socket, or INVALID_SOCKET.
TESSEL_API SOCKET OpenUdpSocket();
// Sets option to value: 0, or SOCKET_ERROR.
TESSEL_API int SetSocketOption(SOCKET socket, SocketOption option, int value);
// Sends length bytes of data as one datagram to address and port: the bytes sent, or
// SOCKET_ERROR.
TESSEL_API int SendTo(SOCKET socket, const void* data, int length, std::uint32_t address,
                      std::uint16_t port);
// Waits up to timeoutMs milliseconds for a datagram (or an error) to read: 1 when one is
// ready, 0 after the time-out, SOCKET_ERROR for a socket that is not open or a failed wait.
// A wait cut short by a signal goes on for the rest of the time.
TESSEL_API int WaitReadable(SOCKET socket, unsigned int timeoutMs);
// Receives one datagram into buffer of size bytes, waiting for one if none is ready; a longer
// datagram is cut. The bytes received, or SOCKET_ERROR.
TESSEL_API int RecvFrom(SOCKET socket, void* buffer, int size);
// Takes the error pending on the socket, if any: 0 when none, else the system's error number.
// A socket that is not open gives that error.
TESSEL_API int TakeSocketError(SOCKET socket);
// Ends sending and receiving on the socket; nothing happens for INVALID_SOCKET.
TESSEL_API void ShutdownSocket(SOCKET socket);
// Closes the socket: 0, or SOCKET_ERROR (also for INVALID_SOCKET).
TESSEL_API int CloseSocket(SOCKET socket);

}  // namespace Tessel::Platform
