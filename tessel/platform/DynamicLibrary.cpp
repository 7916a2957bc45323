#include "tessel/platform/DynamicLibrary.h"

#include <dlfcn.h>
#include <link.h>

#include <cstring>
#include <string>
#include <utility>

#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/detail/Modules.h"

namespace Tessel::Platform {
namespace {

// The dlopen handle of a loaded module, with one more reference that the caller gives back
// with dlclose; null for a module that is not loaded. The null module is the program.
void* referenceOf(HMODULE module) {
    std::string name;
    if (!LoadedModuleName(module, name)) {
        return nullptr;
    }
    return dlopen(module == nullptr ? nullptr : name.c_str(), RTLD_NOW | RTLD_NOLOAD);
}

}  // namespace

const link_map* ProgramLinkMap() {
    static const link_map* const program = [] {
        void* self = dlopen(nullptr, RTLD_NOW | RTLD_NOLOAD);
        const link_map* map = nullptr;
        if (self != nullptr) {
            if (dlinfo(self, RTLD_DI_LINKMAP, &map) != 0) {
                map = nullptr;
            }
            dlclose(self);
        }
        return map;
    }();
    return program;
}

bool LoadedModuleName(HMODULE module, std::string& name) {
    if (module == nullptr) {
        name.clear();
        return true;
    }
    struct Search {
        const link_map* program;
        HMODULE module;
        std::string* name;
        bool found;
    } search{ProgramLinkMap(), module, &name, false};
    // dl_iterate_phdr holds the lock under which the dynamic linker adds and removes objects:
    // its first callback walks the list of objects while nothing can change it.
    dl_iterate_phdr(
        [](dl_phdr_info*, std::size_t, void* data) {
            auto* wanted = static_cast<Search*>(data);
            for (const link_map* map = wanted->program; map != nullptr; map = map->l_next) {
                if (reinterpret_cast<HMODULE>(const_cast<link_map*>(map)) == wanted->module) {
                    *wanted->name = map->l_name != nullptr ? map->l_name : "";
                    wanted->found = true;
                    break;
                }
            }
            return 1;
        },
        &search);
    return search.found;
}

HMODULE LoadLibraryA(const char* fileName) {
    if (fileName == nullptr || *fileName == '\0') {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    void* handle = dlopen(fileName, RTLD_NOW);
    const link_map* map = nullptr;
    if (handle == nullptr || dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    if (map == ProgramLinkMap()) {
        // The program opened by its own path: it stays loaded, and its module is null, which
        // callers take for a failure.
        dlclose(handle);
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    return reinterpret_cast<HMODULE>(const_cast<link_map*>(map));
}

void* GetProcAddress(HMODULE module, const char* procName) {
    void* handle = referenceOf(module);
    if (handle == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    void* address = procName != nullptr ? dlsym(handle, procName) : nullptr;
    dlclose(handle);
    if (address == nullptr) {
        SetLastError(ERROR_PROC_NOT_FOUND);
    }
    return address;
}

BOOL FreeLibrary(HMODULE module) {
    void* handle = module != nullptr ? referenceOf(module) : nullptr;
    if (handle == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    // One close for the reference just taken, one for the load being freed.
    dlclose(handle);
    if (dlclose(handle) != 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return TRUE;
}

DWORD GetModuleFileNameA(HMODULE module, char* buffer, DWORD size) {
    std::string path;
    if (!LoadedModuleName(module, path)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    return CopyModulePath(module == nullptr ? GetExecutablePath() : path, buffer, size);
}

DWORD CopyModulePath(const std::string& path, char* buffer, DWORD size) {
    if (buffer == nullptr || size == 0) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    if (path.size() >= size) {
        std::memcpy(buffer, path.data(), size - 1);
        buffer[size - 1] = '\0';
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return size;
    }
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return static_cast<DWORD>(path.size());
}

}  // namespace Tessel::Platform
