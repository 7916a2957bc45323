// Starting a program with posix_spawn (private to the library).
//
// The child starts with no signal blocked, every signal at its default action, and none of the
// parent's descriptors beyond 0, 1 and 2 (and what it is given in their place).
#pragma once

#include <sys/types.h>

namespace Tessel::Platform {

struct SpawnOptions {
    // The file to run; null: argv[0], looked up on PATH.
    const char* program = nullptr;
    // The child's current directory; null: the parent's.
    const char* currentDirectory = nullptr;
    // In a process group of its own, whose id is the child's pid.
    bool newGroup = false;
    // A descriptor that becomes the child's standard output and error, its standard input then
    // being /dev/null; -1: the child has the parent's three.
    int output = -1;
};

// Starts argv (null-terminated, argv[0] the program's name) with environment; pid receives the
// child's id. 0 or an errno value.
int Spawn(pid_t& pid, char* const* argv, char* const* environment, const SpawnOptions& options);

}  // namespace Tessel::Platform
