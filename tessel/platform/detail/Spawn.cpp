#include "tessel/platform/detail/Spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>

namespace Tessel::Platform {

int Spawn(pid_t& pid, char* const* argv, char* const* environment, const SpawnOptions& options) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    int error = ::posix_spawn_file_actions_init(&actions);
    if (error != 0) {
        return error;
    }
    error = ::posix_spawnattr_init(&attributes);
    if (error != 0) {
        ::posix_spawn_file_actions_destroy(&actions);
        return error;
    }
    sigset_t none, all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    if (options.output >= 0) {
        error = ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        if (error == 0) {
            error = ::posix_spawn_file_actions_adddup2(&actions, options.output, 1);
        }
        if (error == 0) {
            error = ::posix_spawn_file_actions_adddup2(&actions, options.output, 2);
        }
    }
    // After the dup2s: the descriptor given for the output is one of those closed.
    if (error == 0) {
        error = ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    }
    if (error == 0 && options.currentDirectory != nullptr) {
        error = ::posix_spawn_file_actions_addchdir_np(&actions, options.currentDirectory);
    }
    if (error == 0) {
        error = ::posix_spawnattr_setsigmask(&attributes, &none);
    }
    if (error == 0) {
        error = ::posix_spawnattr_setsigdefault(&attributes, &all);
    }
    if (error == 0 && options.newGroup) {
        error = ::posix_spawnattr_setpgroup(&attributes, 0);
    }
    if (error == 0) {
        error = ::posix_spawnattr_setflags(
            &attributes, static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                            (options.newGroup ? POSIX_SPAWN_SETPGROUP : 0)));
    }
    if (error == 0) {
        error = options.program != nullptr
                    ? ::posix_spawn(&pid, options.program, &actions, &attributes, argv, environment)
                    : ::posix_spawnp(&pid, argv[0], &actions, &attributes, argv, environment);
    }
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    return error;
}

}  // namespace Tessel::Platform
