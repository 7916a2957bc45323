// Host name, computer name and socket options of the monitor server's listeners.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>
#include <string>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// The machine's host name, read into a buffer of 1024 bytes; empty if it cannot be read.
TESSEL_API std::string GetHostName();

// The machine's name (its host name) copied with a NUL into buffer, whose size in characters
// *size gives. On success *size is the name's length without the NUL. FALSE when the name
// cannot be read, or with ERROR_BUFFER_OVERFLOW and *size set to the length the name needs
// with its NUL when it does not fit; FALSE with ERROR_INVALID_PARAMETER for a null argument.
TESSEL_API BOOL GetComputerNameA(char* buffer, DWORD* size);

// Lets every process of the machine that sets it on its listener before bind listen on the
// same TCP port, the kernel spreading new connections over them (SO_REUSEPORT). Processes
// must run as one user to share a port.
TESSEL_API void SetSharedPort(boost::asio::ip::tcp::acceptor& acceptor, bool shared,
                              boost::system::error_code& error);

}  // namespace Tessel::Platform
