// Addresses in the abstract Unix socket name space (private to the library).
//
// An abstract address is a NUL byte followed by the name, without a terminator: it needs no
// file, and it is released by the kernel when the last socket bound to it is closed, also when
// its process dies. The system events (SystemEvent.h) and the windows of other processes
// (Window.h) are reached through such addresses.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string_view>

namespace Tessel::Platform {

// The longest name that an abstract address holds.
inline constexpr std::size_t kMaxAbstractName = sizeof(sockaddr_un::sun_path) - 1;

// Forms the address of name. false with ERROR_INVALID_PARAMETER for an empty name and with
// ERROR_FILENAME_EXCED_RANGE for one longer than kMaxAbstractName.
bool MakeAbstractAddress(std::string_view name, sockaddr_un& address, socklen_t& length);

}  // namespace Tessel::Platform
