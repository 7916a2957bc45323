#include "tessel/platform/Sockets.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <boost/asio/socket_base.hpp>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {

std::string GetHostName() {
    char name[1024] = {};
    if (gethostname(name, sizeof(name) - 1) != 0) {
        return std::string();
    }
    return name;
}

BOOL GetComputerNameA(char* buffer, DWORD* size) {
    if (buffer == nullptr || size == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const std::string name = GetHostName();
    if (name.empty()) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    if (name.size() + 1 > *size) {
        *size = static_cast<DWORD>(name.size() + 1);
        SetLastError(ERROR_BUFFER_OVERFLOW);
        return FALSE;
    }
    std::memcpy(buffer, name.c_str(), name.size() + 1);
    *size = static_cast<DWORD>(name.size());
    return TRUE;
}

void SetSharedPort(boost::asio::ip::tcp::acceptor& acceptor, bool shared,
                   boost::system::error_code& error) {
    using ReusePort = boost::asio::detail::socket_option::boolean<SOL_SOCKET, SO_REUSEPORT>;
    acceptor.set_option(ReusePort(shared), error);
}

}  // namespace Tessel::Platform
