#include "tessel/platform/detail/AbstractSocket.h"

#include <cstddef>
#include <cstring>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {

bool MakeAbstractAddress(std::string_view name, sockaddr_un& address, socklen_t& length) {
    if (name.empty()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (name.size() > kMaxAbstractName) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return false;
    }
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return true;
}

}  // namespace Tessel::Platform
