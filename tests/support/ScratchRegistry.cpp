#include "support/ScratchRegistry.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace TesselTest {

const std::string& UseScratchRegistry() {
    static const std::string dir = [] {
        char pattern[] = "/tmp/tessel-test-XXXXXX";
        const char* made = ::mkdtemp(pattern);
        const std::string root = made != nullptr ? made : "/tmp";
        const std::string registry = root + "/registry";
        const std::string temp = root + "/tmp";
        std::error_code ignored;
        std::filesystem::create_directories(registry, ignored);
        std::filesystem::create_directories(temp, ignored);
        ::setenv("TESSEL_REGISTRY_DIR", registry.c_str(), 1);
        ::setenv("TMPDIR", temp.c_str(), 1);
        static const pid_t owner = ::getpid();
        static const std::string removeAtExit = root;
        std::atexit([] {
            if (::getpid() == owner) {
                std::error_code failure;
                std::filesystem::permissions(removeAtExit + "/registry",
                                             std::filesystem::perms::owner_all, failure);
                std::filesystem::remove_all(removeAtExit, failure);
            }
        });
        return registry;
    }();
    return dir;
}

}  // namespace TesselTest
