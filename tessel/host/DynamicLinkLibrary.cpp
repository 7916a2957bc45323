#include "tessel/host/DynamicLinkLibrary.h"

#include <cstring>

#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/DynamicLibrary.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;

CDynamicLinkLibrary::CDynamicLinkLibrary() = default;

CDynamicLinkLibrary::~CDynamicLinkLibrary() {
    Release();
}

void CDynamicLinkLibrary::Release() {
    if (m_hModule != nullptr) {
        FreeLibrary(m_hModule);
        m_hModule = nullptr;
    }
    m_mapProcedures.clear();
}

bool CDynamicLinkLibrary::LoadDynamicLibrary(const char* name) {
    if (name == nullptr || std::strlen(name) < 5) {
        DebugPrint("Library name seems to be too small '%s'...\n", name != nullptr ? name : "");
        return false;
    }
    Release();
    DebugPrint("Loading library '%s'...\n", name);

    // Beside the executable first: in its folder, or in TESSEL_APP_DIR where that is set.
    std::string path = Tessel::Platform::GetApplicationDirectory() + "/" + name;
    m_hModule = LoadLibraryA(path.c_str());
    if (m_hModule == nullptr) {
        path = name;
        m_hModule = LoadLibraryA(name);
    }
    if (m_hModule == nullptr) {
        DebugPrint("Load library '%s' failed.\n", name);
        return false;
    }
    m_strLibraryPath = path;
    DebugPrint("Load library '%s' succeeded.\n", name);
    return true;
}

void* CDynamicLinkLibrary::LoadLibraryProcedure(const char* name, std::size_t key) {
    if (m_hModule == nullptr) {
        return nullptr;
    }
    void* procedure = GetProcAddress(m_hModule, name);
    if (procedure == nullptr) {
        return nullptr;
    }
    m_mapProcedures[key] = procedure;
    return procedure;
}

void* CDynamicLinkLibrary::GetProcedure(std::size_t key) {
    if (m_hModule == nullptr) {
        return nullptr;
    }
    const auto found = m_mapProcedures.find(key);
    return found != m_mapProcedures.end() ? found->second : nullptr;
}
