// CCustomResource: the bytes of a data resource of a module.
//
// A data resource is a file embedded in a program or shared library when it is built, under a
// number and a type text, with TESSEL_RESOURCE (tessel/platform/Resources.h):
//
//     TESSEL_RESOURCE(101, "TEMPLATE", TEMPLATE_DIR "/report.html");  // at namespace scope
//
//     CCustomResource resource;
//     if (resource.Open(module, 101, "TEMPLATE")) {  // module: null for the program
//         use(resource.GetData(), resource.GetDataSize());
//     }
//
// The module of a shared library is what LoadLibraryA gives, or ModuleFromAddress of an
// address in it.
//
// Lifetime: the bytes belong to the module and stay valid while it is loaded, also after Close
// or the end of the object; nothing is freed.
//
// Thread safety: none; an object is used by one thread at a time. Resources of modules may be
// opened from any thread.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/platform/Resources.h"

class TESSEL_API CCustomResource {
  public:
    CCustomResource() = default;

    // Finds resource id (its low 16 bits) of type in module and keeps its bytes. 1 on success;
    // 0, with the object closed, when there is no such resource.
    int Open(Tessel::Platform::HINSTANCE module, unsigned int id, const char* type);
    // Forgets the resource.
    void Close();

    // The first byte of the resource; null when closed.
    const void* GetData() const { return m_pData; }
    // The number of bytes of the resource; 0 when closed.
    std::size_t GetDataSize() const { return m_nSize; }

  private:
    Tessel::Platform::HRSRC m_hResource = nullptr;
    const void* m_pData = nullptr;
    std::size_t m_nSize = 0;
};
