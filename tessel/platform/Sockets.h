// Host name and socket options of the monitor server's listeners.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>
#include <string>

#include "tessel/Export.h"

namespace Tessel::Platform {

// The machine's host name, read into a buffer of 1024 bytes; empty if it cannot be read.
TESSEL_API std::string GetHostName();

// Lets every process of the machine that sets it on its listener before bind listen on the
// same TCP port, the kernel spreading new connections over them (SO_REUSEPORT). Processes
// must run as one user to share a port.
TESSEL_API void SetSharedPort(boost::asio::ip::tcp::acceptor& acceptor, bool shared,
                              boost::system::error_code& error);

}  // namespace Tessel::Platform
