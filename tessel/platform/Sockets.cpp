#include "tessel/platform/Sockets.h"

#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/socket_base.hpp>

namespace Tessel::Platform {

std::string GetHostName() {
    char name[1024] = {};
    if (gethostname(name, sizeof(name) - 1) != 0) {
        return std::string();
    }
    return name;
}

void SetSharedPort(boost::asio::ip::tcp::acceptor& acceptor, bool shared,
                   boost::system::error_code& error) {
    using ReusePort = boost::asio::detail::socket_option::boolean<SOL_SOCKET, SO_REUSEPORT>;
    acceptor.set_option(ReusePort(shared), error);
}

}  // namespace Tessel::Platform
