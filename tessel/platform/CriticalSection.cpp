// Critical sections: recursive pthread mutexes with a spin phase.
//
// A thread that finds the section taken tries it again up to spinCount times, pausing the
// processor between tries, before it blocks in the kernel: a section is usually held for a
// few hundred instructions, and a sleep and wake-up cost more than that. On a machine with
// one processor the holder cannot run while the caller spins, so there is no spin phase.
#include "tessel/platform/CriticalSection.h"

#include <unistd.h>

#include <cerrno>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {
namespace {

// The platform keeps flags in the high byte of the spin count argument.
constexpr DWORD kSpinCountMask = 0x00FFFFFFu;

bool multiprocessor() {
    static const bool several = ::sysconf(_SC_NPROCESSORS_ONLN) > 1;
    return several;
}

inline void pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#endif
}

}  // namespace

BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount) {
    pthread_mutexattr_t attributes;
    int rc = ::pthread_mutexattr_init(&attributes);
    if (rc == 0) {
        ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        rc = ::pthread_mutex_init(&section->mutex, &attributes);
        ::pthread_mutexattr_destroy(&attributes);
    }
    if (rc != 0) {
        SetLastErrorFromErrno(rc);
        return FALSE;
    }
    section->spinCount = multiprocessor() ? (spinCount & kSpinCountMask) : 0;
    return TRUE;
}

BOOL InitializeCriticalSectionEx(CRITICAL_SECTION* section, DWORD spinCount, DWORD /*flags*/) {
    return InitializeCriticalSectionAndSpinCount(section, spinCount);
}

void InitializeCriticalSection(CRITICAL_SECTION* section) {
    InitializeCriticalSectionAndSpinCount(section, 0);
}

void EnterCriticalSection(CRITICAL_SECTION* section) {
    // Also takes the fast way for the owner's nested entry.
    if (::pthread_mutex_trylock(&section->mutex) == 0) {
        return;
    }
    for (DWORD spins = section->spinCount; spins > 0; --spins) {
        pause();
        if (::pthread_mutex_trylock(&section->mutex) == 0) {
            return;
        }
    }
    ::pthread_mutex_lock(&section->mutex);
}

BOOL TryEnterCriticalSection(CRITICAL_SECTION* section) {
    return ::pthread_mutex_trylock(&section->mutex) == 0 ? TRUE : FALSE;
}

void LeaveCriticalSection(CRITICAL_SECTION* section) {
    ::pthread_mutex_unlock(&section->mutex);
}

void DeleteCriticalSection(CRITICAL_SECTION* section) {
    ::pthread_mutex_destroy(&section->mutex);
}

}  // namespace Tessel::Platform
