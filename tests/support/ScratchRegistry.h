// A registry folder of the test process's own.
#pragma once

#include <string>

namespace TesselTest {

// Gives the process folders of its own, once: TESSEL_REGISTRY_DIR and TMPDIR (and with it the
// temp directory, below which the log is written) point into a fresh temporary folder, which
// is removed when the process exits normally. Returns the registry folder. The test program's
// main calls it before any test; forked children share the folders.
const std::string& UseScratchRegistry();

}  // namespace TesselTest
