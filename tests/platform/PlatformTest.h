// Helpers shared by the tests of the platform layer.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"

namespace PlatformTest {

// The last error after a call that returned failed (a zero or null); else 0xFFFFFFFF.
template <typename Result>
Tessel::Platform::DWORD failureOf(const Result& result, const Result& failed = Result{}) {
    return result == failed ? Tessel::Platform::GetLastError() : 0xFFFFFFFFu;
}

// A name of this test process's own: prefix, the process id and a count.
inline std::string uniqueName(const std::string& prefix) {
    static std::atomic<int> counter{0};
    return prefix + "-" + std::to_string(Tessel::Platform::GetCurrentProcessId()) + "-" +
           std::to_string(counter++);
}

// Binds the Unix socket fd to the abstract address "\0name".
inline int bindAbstract(int fd, const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    return ::bind(fd, reinterpret_cast<sockaddr*>(&address),
                  static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size()));
}

// What the open descriptors of this process refer to.
inline std::vector<std::string> descriptorTargets() {
    std::vector<std::string> targets;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code closed;  // meanwhile
        targets.push_back(std::filesystem::read_symlink(fd.path(), closed).string());
    }
    return targets;
}

}  // namespace PlatformTest
