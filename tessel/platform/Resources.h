// String resources of the modules of the process.
//
// A program on the platform carries its texts as resources of its modules; here a module
// registers its texts at start, and LoadStringA finds them by module and number. The null
// module is the program itself.
//
// Thread safety: all functions may be called from any thread.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

struct ModuleObject;
using HINSTANCE = ModuleObject*;
using HMODULE = HINSTANCE;

// Registers text as string resource id of module, replacing a former one.
TESSEL_API void RegisterStringResource(HINSTANCE module, unsigned int id, const char* text);

// Copies string resource id of module into buffer of size characters, cut to fit and
// NUL-terminated, and returns its length; 0 with ERROR_RESOURCE_NAME_NOT_FOUND (1814) if
// there is no such text.
TESSEL_API int LoadStringA(HINSTANCE module, unsigned int id, char* buffer, int size);

inline constexpr DWORD ERROR_RESOURCE_NAME_NOT_FOUND = 1814;

}  // namespace Tessel::Platform
