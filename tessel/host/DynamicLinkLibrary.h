// CDynamicLinkLibrary: named procedures of a plug-in library, kept under keys of the caller's.
//
// LoadDynamicLibrary loads a shared library, first from the folder of the running executable
// (the folder named by TESSEL_APP_DIR where that is set, as for every file kept beside the
// executable) and then by the plain name through the dynamic linker's search; LoadLibraryProcedure
// looks up an exported procedure and keeps its address under a numeric key, GetProcedure gives it
// back. Every step traces to the debugger output.
//
// Lifetime: the library stays loaded until the next LoadDynamicLibrary or the destructor,
// which free it; the addresses of its procedures are void then.
//
// Thread safety: none; an object is used by one thread at a time.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "tessel/Export.h"
#include "tessel/platform/Resources.h"

class TESSEL_API CDynamicLinkLibrary {
  public:
    CDynamicLinkLibrary();
    virtual ~CDynamicLinkLibrary();
    CDynamicLinkLibrary(const CDynamicLinkLibrary&) = delete;
    CDynamicLinkLibrary& operator=(const CDynamicLinkLibrary&) = delete;

    // Loads the library name (a file name, or a path), releasing the one loaded before and
    // forgetting its procedures. A name of fewer than 5 characters is refused. The library is
    // looked for in the executable's folder, then by name. True when it is loaded.
    virtual bool LoadDynamicLibrary(const char* name);
    // The address of the exported procedure name, kept under key (replacing what the key
    // held); null without a library, or when the library has no such procedure.
    virtual void* LoadLibraryProcedure(const char* name, std::size_t key);
    // The address kept under key; null for an unknown key or without a library.
    virtual void* GetProcedure(std::size_t key);

    // The path by which the last successful LoadDynamicLibrary loaded its library (the
    // executable's folder joined with the name, or the name); "" before the first success.
    std::string GetLibraryPath() const { return m_strLibraryPath; }

  private:
    void Release();

    std::string m_strLibraryPath;
    Tessel::Platform::HMODULE m_hModule = nullptr;
    std::map<std::size_t, void*> m_mapProcedures;
};
