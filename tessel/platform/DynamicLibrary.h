// Shared libraries loaded at run time, their procedures and their files.
//
// LoadLibraryA loads a shared library (dlopen) and gives its module, the same HMODULE that
// ModuleFromAddress gives for an address in it; every load is balanced by one FreeLibrary,
// and the library stays loaded while a load is not freed. The null module is the program.
//
// Thread safety: all functions may be called from any thread.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Resources.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

inline constexpr DWORD ERROR_MOD_NOT_FOUND = 126;
inline constexpr DWORD ERROR_PROC_NOT_FOUND = 127;

// Loads the shared library fileName: a path (with a '/') as given, a plain name by the
// dynamic linker's search (LD_LIBRARY_PATH, the cache, the system folders). Its symbols are
// resolved at once. The module, or null with ERROR_MOD_NOT_FOUND (also for a null or empty
// name, or a library whose dependencies are missing).
TESSEL_API HMODULE LoadLibraryA(const char* fileName);

// The address of the exported symbol procName of module (null: the program and the libraries
// it was linked with), or null with ERROR_PROC_NOT_FOUND, or ERROR_INVALID_HANDLE for a
// module that is not loaded.
TESSEL_API void* GetProcAddress(HMODULE module, const char* procName);

// Frees one load of module; the library is unloaded when no load is left. FALSE with
// ERROR_INVALID_HANDLE for the null module or one that is not loaded.
TESSEL_API BOOL FreeLibrary(HMODULE module);

// The path of module's file (null: /proc/self/exe, the program), copied into buffer of size
// characters, NUL-terminated. Returns the length without the NUL; a path that does not fit
// is cut to size - 1 characters and the result is size with ERROR_INSUFFICIENT_BUFFER. 0 with
// ERROR_INVALID_HANDLE for a module that is not loaded.
TESSEL_API DWORD GetModuleFileNameA(HMODULE module, char* buffer, DWORD size);

}  // namespace Tessel::Platform
