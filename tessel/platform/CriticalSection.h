// The recursive in-process lock with a spin phase.
//
// A critical section is a recursive pthread mutex; a thread that finds it taken tries it
// again up to the spin count (4000 by default in the library) before it blocks.
#pragma once

#include <pthread.h>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

struct CRITICAL_SECTION {
    pthread_mutex_t mutex;
    DWORD spinCount;
};

// Initialise section with a spin count. FALSE with the last error set on failure.
TESSEL_API BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount);
TESSEL_API BOOL InitializeCriticalSectionEx(CRITICAL_SECTION* section, DWORD spinCount,
                                            DWORD flags);
TESSEL_API void InitializeCriticalSection(CRITICAL_SECTION* section);
TESSEL_API void EnterCriticalSection(CRITICAL_SECTION* section);
TESSEL_API BOOL TryEnterCriticalSection(CRITICAL_SECTION* section);
TESSEL_API void LeaveCriticalSection(CRITICAL_SECTION* section);
TESSEL_API void DeleteCriticalSection(CRITICAL_SECTION* section);

}  // namespace Tessel::Platform
