#include "tessel/host/DiskSpace.h"

#include "tessel/base/ReadWriteLock.h"
#include "tessel/platform/Disk.h"
#include "tessel/platform/FileFind.h"

namespace {

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

bool isShareName(const std::string& path) {
    return path.size() > 2 && isSeparator(path[0]) && isSeparator(path[1]);
}

}  // namespace

std::string CDiskSpace::GetDiskFromThePath(const std::string& path) {
    if (path.empty() || path[0] != '/' || isShareName(path)) {
        return {};
    }
    char mountPoint[Tessel::Platform::MAX_PATH * 16];
    if (!Tessel::Platform::GetVolumePathNameA(path.c_str(), mountPoint, sizeof mountPoint)) {
        return {};
    }
    return mountPoint;
}

CDiskSpace::StateType CDiskSpace::CheckDiskSpaceState(const std::string& path, std::string* disk,
                                                      unsigned long long* total,
                                                      unsigned long long* freeBytes,
                                                      StateType* lastState) {
    Tessel::Platform::ULARGE_INTEGER available{};
    Tessel::Platform::ULARGE_INTEGER size{};
    std::string name = GetDiskFromThePath(path);
    if (!name.empty()) {
        if (!Tessel::Platform::GetDiskFreeSpaceExA(name.c_str(), &available, &size, nullptr)) {
            return StateFailed;
        }
    } else {
        if (!isShareName(path)) {
            return StateFailed;
        }
        // The shortest leading part that names a mounted share, normally "//server/share/".
        const char separator = path[0];
        std::string work = path;
        if (!isSeparator(work.back())) {
            work += separator;
        }
        for (std::size_t i = 2; i < work.size() && name.empty(); ++i) {
            if (isSeparator(work[i])) {
                const std::string prefix = work.substr(0, i + 1);
                if (Tessel::Platform::GetDiskFreeSpaceExA(prefix.c_str(), &available, &size,
                                                          nullptr)) {
                    name = prefix;
                }
            }
        }
        if (name.empty()) {
            return StateFailed;
        }
    }
    if (total != nullptr) {
        *total = size.QuadPart;
    }
    if (freeBytes != nullptr) {
        *freeBytes = available.QuadPart;
    }
    if (disk != nullptr) {
        *disk = name;
    }
    StateType state = StateNormal;
    if (available.QuadPart < m_MinLimit.load(std::memory_order_relaxed)) {
        state = StateCritical;
    } else if (available.QuadPart < m_LowLimit.load(std::memory_order_relaxed)) {
        state = StateLow;
    }
    CReadWriteLock lock(m_Guard, false, true);
    const auto [entry, added] = m_LastStates.try_emplace(name, state);
    if (lastState != nullptr) {
        *lastState = added ? StateUnknown : entry->second;
    }
    entry->second = state;
    return state;
}

CDiskSpace::StateType CDiskSpace::GetLastDiskSpaceState(const std::string& path) {
    CReadWriteLock lock(m_Guard, false, true);
    const auto found = m_LastStates.find(GetDiskFromThePath(path));
    if (found != m_LastStates.end()) {
        return found->second;
    }
    // The guard is re-entrant: the check takes it again.
    return CheckDiskSpaceState(path, nullptr, nullptr, nullptr, nullptr);
}

void CDiskSpace::SetGeneralDefaultLowLimit(unsigned long long bytes) {
    CReadWriteLock lock(m_Guard, false, true);
    m_MinLimit.store(bytes, std::memory_order_relaxed);
    m_LowLimit.store(bytes * 2, std::memory_order_relaxed);
}
