#include "support/ScratchRegistry.h"

#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
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

int RunProgram(const std::vector<std::string>& argv) {
    std::vector<char*> arguments;
    for (const std::string& argument : argv) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    pid_t pid = 0;
    if (::posix_spawn(&pid, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int RunInChild(int (*child)(void*), void* argument) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        std::exit(child(argument));  // exit handlers run, as at a normal end of a process
    }
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace TesselTest
