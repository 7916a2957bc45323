// CDiskSpaceUtil: the process's one CDiskSpace, with default limits.
//
// Before each check, limits that were never set become the defaults: a minimum of
// 102,400,000 bytes (100 times 1,024,000) and a low limit of twice that.
//
// Thread safety: as CDiskSpace; the instance is made on first use and lives as long as the
// process.
#pragma once

#include <string>

#include "tessel/Export.h"
#include "tessel/host/DiskSpace.h"

class TESSEL_API CDiskSpaceUtil {
  public:
    // CDiskSpace::CheckDiskSpaceState of the process's instance.
    static CDiskSpace::StateType CheckDiskSpaceState(const std::string& path, std::string* disk,
                                                     unsigned long long* total,
                                                     unsigned long long* freeBytes,
                                                     CDiskSpace::StateType* lastState);
    // CDiskSpace::GetLastDiskSpaceState of the process's instance.
    static CDiskSpace::StateType GetDiskSpaceLastState(const std::string& path);
    // CDiskSpace::SetGeneralDefaultLowLimit of the process's instance.
    static void SetGeneralDefaultLowLimit(unsigned long long bytes);

  private:
    static CDiskSpace& Instance();
};
