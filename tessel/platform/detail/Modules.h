// The dynamic linker's records behind the modules of the process.
#pragma once

#include <string>

#include "tessel/platform/Resources.h"

struct link_map;

namespace Tessel::Platform {

// The program's own link_map, the one that stands for the null module.
const link_map* ProgramLinkMap();

// The file name of a loaded module (a null module: ""), and true; false for a module that is
// not, or no longer, loaded. The loaded objects are searched under the dynamic linker's lock,
// so a stale module is never read.
bool LoadedModuleName(HMODULE module, std::string& name);

// Copies path into buffer of size characters, NUL-terminated, as GetModuleFileNameA does:
// the length without the NUL; a path that does not fit is cut to size - 1 characters and the
// result is size, with the last error ERROR_INSUFFICIENT_BUFFER (also for a null buffer or a
// size of 0, which give 0).
DWORD CopyModulePath(const std::string& path, char* buffer, DWORD size);

}  // namespace Tessel::Platform
