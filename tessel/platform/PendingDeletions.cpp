#include "tessel/platform/PendingDeletions.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "tessel/platform/LastError.h"
#include "tessel/platform/Registry.h"

namespace Tessel::Platform {
namespace {

std::mutex g_guard;  // serialises the read, change and write of the record in this process
std::once_flag g_processedOnce;

// The values of a REG_MULTI_SZ: strings each ending in NUL, the list in an empty one.
std::vector<std::string> splitMultiString(const std::string& data) {
    std::vector<std::string> items;
    std::size_t start = 0;
    while (start < data.size()) {
        const std::size_t end = data.find('\0', start);
        const std::string item =
            data.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (item.empty()) {
            break;
        }
        items.push_back(item);
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return items;
}

// The value name of key as raw bytes; false where it is missing or cannot be read.
bool readValue(HKEY key, const char* name, std::string& data) {
    DWORD size = 0;
    if (RegQueryValueExA(key, name, nullptr, nullptr, nullptr, &size) != ERROR_SUCCESS) {
        return false;
    }
    data.assign(size, '\0');
    if (RegQueryValueExA(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(data.data()),
                         &size) != ERROR_SUCCESS) {
        return false;
    }
    data.resize(size);
    return true;
}

std::string textOf(std::string data) {
    const std::size_t end = data.find('\0');
    if (end != std::string::npos) {
        data.resize(end);
    }
    return data;
}

int processLocked() {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kPendingDeletionsKey, 0, KEY_READ | KEY_WRITE, &key) !=
        ERROR_SUCCESS) {
        return 0;
    }
    std::string list;
    std::string bootId;
    int deleted = 0;
    if (readValue(key, kPendingDeletionsValue, list)) {
        readValue(key, kPendingDeletionsBootIdValue, bootId);
        if (textOf(bootId) != CurrentBootId()) {
            for (const std::string& path : splitMultiString(list)) {
                if (std::remove(path.c_str()) == 0) {
                    ++deleted;
                }
            }
            RegDeleteValueA(key, kPendingDeletionsValue);
            RegDeleteValueA(key, kPendingDeletionsBootIdValue);
        }
    }
    RegCloseKey(key);
    return deleted;
}

}  // namespace

std::string CurrentBootId() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string id;
    std::getline(file, id);
    return id;
}

int ProcessPendingDeletions() {
    const std::lock_guard<std::mutex> lock(g_guard);
    return processLocked();
}

BOOL MarkForDeletionAtReboot(const char* path) {
    if (path == nullptr || *path == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::string absolute(path);
    if (absolute[0] != '/') {
        char folder[PATH_MAX];
        if (::getcwd(folder, sizeof folder) == nullptr) {
            SetLastErrorFromErrno(errno);
            return FALSE;
        }
        absolute = std::string(folder) + (folder[1] == '\0' ? "" : "/") + absolute;
    }
    std::call_once(g_processedOnce, [] { ProcessPendingDeletions(); });
    const std::lock_guard<std::mutex> lock(g_guard);
    HKEY key = nullptr;
    LSTATUS status =
        RegCreateKeyExA(HKEY_LOCAL_MACHINE, kPendingDeletionsKey, 0, nullptr,
                        REG_OPTION_NON_VOLATILE, KEY_READ | KEY_WRITE, nullptr, &key, nullptr);
    if (status != ERROR_SUCCESS) {
        SetLastError(static_cast<DWORD>(status));
        return FALSE;
    }
    std::string data;
    std::vector<std::string> items;
    if (readValue(key, kPendingDeletionsValue, data)) {
        items = splitMultiString(data);
    }
    bool listed = false;
    for (const std::string& item : items) {
        listed = listed || item == absolute;
    }
    if (!listed) {
        items.push_back(absolute);
    }
    data.clear();
    for (const std::string& item : items) {
        data += item;
        data += '\0';
    }
    data += '\0';
    const std::string bootId = CurrentBootId();
    status =
        RegSetValueExA(key, kPendingDeletionsValue, 0, REG_MULTI_SZ,
                       reinterpret_cast<const BYTE*>(data.data()), static_cast<DWORD>(data.size()));
    if (status == ERROR_SUCCESS) {
        status = RegSetValueExA(key, kPendingDeletionsBootIdValue, 0, REG_SZ,
                                reinterpret_cast<const BYTE*>(bootId.c_str()),
                                static_cast<DWORD>(bootId.size() + 1));
    }
    RegCloseKey(key);
    if (status != ERROR_SUCCESS) {
        SetLastError(static_cast<DWORD>(status));
        return FALSE;
    }
    return TRUE;
}

}  // namespace Tessel::Platform
