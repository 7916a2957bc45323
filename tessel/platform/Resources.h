// Modules of the process and their string resources.
//
// A module is the program or one of the shared libraries loaded into it. A module is named
// by its HINSTANCE: the dynamic linker's record of the loaded object (its link_map), which
// stays the same for as long as the object is loaded; the program itself is the null module.
//
// A program on the platform carries its texts as resources of its modules; here a module
// registers its texts at start, and LoadStringA finds them by module and number. The
// library's own texts (numbers 6000 to 6012) are registered under LibraryModule() before
// the first lookup.
//
// Data resources are files embedded in a module when it is built: TESSEL_RESOURCE (below)
// embeds one and registers it under its number and type for as long as the module is loaded;
// FindResourceA, LoadResource, LockResource and SizeofResource find it and give its bytes.
//
// Thread safety: all functions may be called from any thread.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/platform/ExecutableVersion.h"  // ERROR_RESOURCE_TYPE_NOT_FOUND
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

struct ModuleObject;
using HINSTANCE = ModuleObject*;
using HMODULE = HINSTANCE;

// The module that holds address: the program (null) or a loaded shared library. An address
// in no loaded object gives null as well.
TESSEL_API HMODULE ModuleFromAddress(const void* address);

// The module of libtessel itself.
TESSEL_API HINSTANCE LibraryModule();

// Registers text as string resource id of module, replacing a former one.
TESSEL_API void RegisterStringResource(HINSTANCE module, unsigned int id, const char* text);

// Copies string resource id of module into buffer of size characters, cut to fit and
// NUL-terminated, and returns its length; 0 with ERROR_RESOURCE_NAME_NOT_FOUND (1814) if
// there is no such text.
TESSEL_API int LoadStringA(HINSTANCE module, unsigned int id, char* buffer, int size);

inline constexpr DWORD ERROR_RESOURCE_DATA_NOT_FOUND = 1812;
inline constexpr DWORD ERROR_RESOURCE_NAME_NOT_FOUND = 1814;

// A found resource, valid while its module is loaded.
struct ResourceObject;
using HRSRC = ResourceObject*;
// The loaded form of a resource, for LockResource.
using HGLOBAL = void*;

// A resource name or type given by number: the number in the low 16 bits of a pointer.
inline const char* MAKEINTRESOURCEA(unsigned int id) {
    return reinterpret_cast<const char*>(static_cast<std::uintptr_t>(id & 0xFFFFu));
}
inline bool IS_INTRESOURCE(const char* name) {
    return (reinterpret_cast<std::uintptr_t>(name) >> 16) == 0;
}

// Registers size bytes at data as the resource name of type in module: name and type are
// texts, compared without case, or numbers (MAKEINTRESOURCEA), where the number n is the same
// as the text "#n". The bytes are not copied and must stay until UnregisterResource. A former
// resource of the same module, type and name is replaced.
TESSEL_API void RegisterResource(HMODULE module, const char* name, const char* type,
                                 const void* data, std::size_t size);
// Removes what RegisterResource registered under module, name and type with data.
TESSEL_API void UnregisterResource(HMODULE module, const char* name, const char* type,
                                   const void* data);

// The resource name of type in module, or null with ERROR_RESOURCE_TYPE_NOT_FOUND (no
// resource of that type in module) or ERROR_RESOURCE_NAME_NOT_FOUND.
TESSEL_API HRSRC FindResourceA(HMODULE module, const char* name, const char* type);
// The loaded resource; null with ERROR_INVALID_HANDLE for a null resource.
TESSEL_API HGLOBAL LoadResource(HMODULE module, HRSRC resource);
// The first byte of the loaded resource; null for null.
TESSEL_API void* LockResource(HGLOBAL loaded);
// The number of bytes of the resource; 0 for a null one.
TESSEL_API DWORD SizeofResource(HMODULE module, HRSRC resource);

// Registers a resource of the module that it is linked into for the module's lifetime; what
// TESSEL_RESOURCE places.
class TESSEL_API ResourceRegistration {
  public:
    ResourceRegistration(unsigned int id, const char* type, const unsigned char* begin,
                         const unsigned char* end);
    ~ResourceRegistration();
    ResourceRegistration(const ResourceRegistration&) = delete;
    ResourceRegistration& operator=(const ResourceRegistration&) = delete;

  private:
    HMODULE m_module;
    unsigned int m_id;
    const char* m_type;
    const unsigned char* m_data;
};

}  // namespace Tessel::Platform

// TESSEL_RESOURCE(id, type, file): embeds the bytes of file in the module (program or shared
// library) whose source file says it, as resource number id (1 to 65535) of type (a text
// literal, e.g. "TEMPLATE"), found with FindResourceA(module, MAKEINTRESOURCEA(id), type).
//
// Use it once per resource, at namespace scope, in a source file of the module. file is a
// text literal; the assembler reads it when the source file is compiled, a relative path
// from the folder of the build (or from the folders of -Wa,-I options), so a path that the
// build system makes absolute is the reliable form:
//
//     TESSEL_RESOURCE(101, "TEMPLATE", TEMPLATE_DIR "/report.html")
//
// The compiler does not see the file as a dependency: give the source file the embedded files
// as object dependencies (CMake: the source file property OBJECT_DEPENDS), and note that
// ccache does not hash them. The bytes are aligned to 16 and read-only; the resource is
// registered when the module is initialised and removed when it is unloaded.
// clang-format off
#define TESSEL_RESOURCE(id, type, file) TESSEL_RESOURCE_AT_(id, type, file, __COUNTER__)
#define TESSEL_RESOURCE_AT_(id, type, file, n) TESSEL_RESOURCE_EMBED_(id, type, file, n)
#define TESSEL_RESOURCE_EMBED_(id, type, file, n)                                           \
    __asm__(".pushsection .rodata.tessel_resource,\"a\",@progbits\n"                       \
            ".balign 16\n"                                                                 \
            "tessel_resource_begin_" #n ":\n"                                              \
            ".incbin \"" file "\"\n"                                                       \
            "tessel_resource_end_" #n ":\n"                                                \
            ".byte 0\n"                                                                    \
            ".popsection\n");                                                             \
    namespace {                                                                           \
    const ::Tessel::Platform::ResourceRegistration tessel_resource_registration_##n(      \
        (id), (type),                                                                     \
        [] {                                                                              \
            const unsigned char* begin;                                                   \
            __asm__("leaq tessel_resource_begin_" #n "(%%rip), %0" : "=r"(begin));        \
            return begin;                                                                 \
        }(),                                                                              \
        [] {                                                                              \
            const unsigned char* end;                                                     \
            __asm__("leaq tessel_resource_end_" #n "(%%rip), %0" : "=r"(end));            \
            return end;                                                                   \
        }());                                                                             \
    }                                                                                     \
    static_assert(true, "")
// clang-format on
