#include "tessel/host/TempDirectory.h"

#include <new>

#include "tessel/base/CriticalSectionSyncGuard.h"
#include "tessel/base/ReadWriteLock.h"
#include "tessel/host/Registry.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/FileFind.h"

namespace {

const char* const kProductKey = "SOFTWARE\\Tarvo Works\\GPS Velkor";
const char* const kOndrelKey = "SOFTWARE\\Tarvo Works\\GPS Velkor\\ONDREL";

// A directory text with '/' as its separator and a '/' at its end.
std::string normalised(std::string directory) {
    for (char& c : directory) {
        if (c == '\\') {
            c = '/';
        }
    }
    if (directory.empty() || directory.back() != '/') {
        directory += '/';
    }
    return directory;
}

CCriticalSectionSyncGuard& instanceGuard() {
    static CCriticalSectionSyncGuard* const guard = new CCriticalSectionSyncGuard();
    return *guard;
}

CTempDirectory* g_instance = nullptr;  // guarded by instanceGuard()

}  // namespace

CTempDirectory::CTempDirectory() {
    InitTempDirectory();
    InitOndrelTempDirectory();
}

CTempDirectory::~CTempDirectory() = default;

void CTempDirectory::InitTempDirectory() {
    m_strTempDirectory =
        normalised(REG::Get(kProductKey, "TempPath", GetTempDirectoryCurrentUser().c_str()));
}

void CTempDirectory::InitOndrelTempDirectory() {
    const std::string directory = REG::Get(kOndrelKey, "TempPath", "");
    m_strOndrelTempDirectory = directory.empty() ? directory : normalised(directory);
}

CTempDirectory* CTempDirectory::Instance() {
    CReadWriteLock lock(instanceGuard(), false, true);
    if (g_instance == nullptr) {
        g_instance = new (std::nothrow) CTempDirectory();  // kept to the end of the process
    }
    return g_instance;
}

const std::string& CTempDirectory::GetTempDirectory() {
    CTempDirectory* instance = Instance();
    return instance != nullptr ? instance->m_strTempDirectory : GetTempDirectoryCurrentUser();
}

int CTempDirectory::GetTempDirectory(std::size_t size, char* buffer) {
    if (buffer == nullptr || size == 0) {
        return -1;
    }
    return Tessel::Platform::_snprintf_s(buffer, size, Tessel::Platform::_TRUNCATE, "%s",
                                         GetTempDirectory().c_str());
}

int CTempDirectory::GetTempDirectoryA(std::size_t size, char* buffer) {
    return GetTempDirectory(size, buffer);
}

const std::string& CTempDirectory::GetTempDirectoryCurrentUser() {
    // Made once, under its own guard, by the thread that asks first.
    static const std::string* const directory = [] {
        char buffer[Tessel::Platform::MAX_PATH] = {};
        const Tessel::Platform::DWORD length =
            Tessel::Platform::GetTempPathA(sizeof buffer, buffer);
        return new std::string(length > 0 && length < sizeof buffer ? buffer : "");
    }();
    return *directory;
}

void CTempDirectory::SetTempDirectory(const std::string& directory) {
    if (CTempDirectory* instance = Instance()) {
        instance->m_strTempDirectory = directory;
    }
}

std::string CTempDirectory::GetOndrelTempDirectory() {
    CTempDirectory* instance = Instance();
    return instance != nullptr ? instance->m_strOndrelTempDirectory : std::string();
}

int GetTempDirectory(std::size_t size, char* buffer) {
    return CTempDirectory::GetTempDirectory(size, buffer);
}

int GetTempDirectoryA(std::size_t size, char* buffer) {
    return CTempDirectory::GetTempDirectoryA(size, buffer);
}
