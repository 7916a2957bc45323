// The guards' uncontended lock and unlock, through ISyncGuard as the library takes them,
// against a recursive pthread mutex measured in the same run.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <memory>
#include <thread>

#include "support/RatioReporter.h"
#include "tessel/base/CriticalSectionSyncGuard.h"
#include "tessel/base/ISyncGuard.h"
#include "tessel/base/ReaderWriterSyncGuard.h"
#include "tessel/platform/CriticalSection.h"

namespace {

// --- baseline: what a critical section is made of ---

void Baseline_RecursiveMutexLockUnlock(benchmark::State& state) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        benchmark::ClobberMemory();
        pthread_mutex_unlock(&mutex);
    }
    pthread_mutex_destroy(&mutex);
}
BENCHMARK(Baseline_RecursiveMutexLockUnlock);

// --- the platform's critical section, on which the guard sits ---

void CriticalSection_EnterLeave(benchmark::State& state) {
    Tessel::Platform::CRITICAL_SECTION section;
    Tessel::Platform::InitializeCriticalSectionAndSpinCount(&section, 4000);
    for (auto _ : state) {
        Tessel::Platform::EnterCriticalSection(&section);
        benchmark::ClobberMemory();
        Tessel::Platform::LeaveCriticalSection(&section);
    }
    Tessel::Platform::DeleteCriticalSection(&section);
}
BENCHMARK(CriticalSection_EnterLeave);

// --- the guards, reached through the interface ---

// One lock and unlock of a new Guard per iteration, through ISyncGuard.
template <class Guard>
void lockUnlock(benchmark::State& state, bool write) {
    auto owner = std::make_unique<Guard>();
    ISyncGuard* guard = owner.get();
    benchmark::DoNotOptimize(guard);
    for (auto _ : state) {
        write ? guard->LockWrite() : guard->LockRead();
        benchmark::ClobberMemory();
        write ? guard->UnlockWrite() : guard->UnlockRead();
    }
}

void CriticalSectionSyncGuard_LockUnlockWrite(benchmark::State& state) {
    lockUnlock<CCriticalSectionSyncGuard>(state, true);
}
BENCHMARK(CriticalSectionSyncGuard_LockUnlockWrite);

void ReaderWriterSyncGuard_LockUnlockRead(benchmark::State& state) {
    lockUnlock<CReaderWriterSyncGuard>(state, false);
}
BENCHMARK(ReaderWriterSyncGuard_LockUnlockRead);

void ReaderWriterSyncGuard_LockUnlockWrite(benchmark::State& state) {
    lockUnlock<CReaderWriterSyncGuard>(state, true);
}
BENCHMARK(ReaderWriterSyncGuard_LockUnlockWrite);

}  // namespace

int main(int argc, char** argv) {
    // The guards live in processes with many threads. The C library lets a process that has
    // never started a thread lock and unlock its mutexes without atomic instructions, which
    // would make the baseline a lock that no user of the guards ever gets; one thread, started
    // and ended here, makes this process multi-threaded for good.
    std::thread([] {}).join();
    return TesselBench::RunWithRatios(
        argc, argv,
        {
            {"CriticalSectionSyncGuard_LockUnlockWrite", "Baseline_RecursiveMutexLockUnlock", 1.5},
            {"ReaderWriterSyncGuard_LockUnlockRead", "", 150.0},
        });
}
