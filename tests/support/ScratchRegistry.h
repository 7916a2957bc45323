// A registry folder of the test process's own.
#pragma once

#include <string>
#include <vector>

namespace TesselTest {

// Gives the process folders of its own, once: TESSEL_REGISTRY_DIR and TMPDIR (and with it the
// temp directory, below which the log is written) point into a fresh temporary folder, which
// is removed when the process exits normally. Returns the registry folder. The test program's
// main calls it before any test; forked children share the folders.
const std::string& UseScratchRegistry();

// Runs child in a forked process, which then exits normally with child's result, and returns
// that exit status (or 128 + signal).
int RunInChild(int (*child)(void*), void* argument);

// Runs the program argv[0] with the arguments argv[1...] as a new process (posix_spawn, so
// that nothing of this process's threads is inherited) and returns its exit status, or 128 +
// signal, or -1 if it could not be started.
int RunProgram(const std::vector<std::string>& argv);

}  // namespace TesselTest
