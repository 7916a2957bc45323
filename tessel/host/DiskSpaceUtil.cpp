#include "tessel/host/DiskSpaceUtil.h"

namespace {

// 100 times the 1,024,000 bytes that the space messages call a megabyte.
constexpr unsigned long long kDefaultMinimumLimit = 102400000ULL;

}  // namespace

CDiskSpace& CDiskSpaceUtil::Instance() {
    // Never destroyed: a thread may check a disk while the process ends.
    static CDiskSpace* const instance = new CDiskSpace();
    if (instance->GetLowLimit() == 0) {
        instance->SetGeneralDefaultLowLimit(kDefaultMinimumLimit);
    }
    return *instance;
}

CDiskSpace::StateType CDiskSpaceUtil::CheckDiskSpaceState(const std::string& path,
                                                          std::string* disk,
                                                          unsigned long long* total,
                                                          unsigned long long* freeBytes,
                                                          CDiskSpace::StateType* lastState) {
    return Instance().CheckDiskSpaceState(path, disk, total, freeBytes, lastState);
}

CDiskSpace::StateType CDiskSpaceUtil::GetDiskSpaceLastState(const std::string& path) {
    return Instance().GetLastDiskSpaceState(path);
}

void CDiskSpaceUtil::SetGeneralDefaultLowLimit(unsigned long long bytes) {
    Instance().SetGeneralDefaultLowLimit(bytes);
}
