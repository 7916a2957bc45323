#include "tessel/threads/LockFreeSpinLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "tessel/base/ReadWriteLock.h"
#include "tessel/monitoring/MonitorElementContainer.h"

namespace {

TEST(LockFreeSpinLock, UncontendedLockCountsNothing) {
    CMonitorElementContainer container("Spin");
    LockFreeSpinLock spin;
    spin.initMonitor(container);
    CMonitorElement* tries = container.findOrAdd("TryCount", "", true);
    spin.lock();
    EXPECT_EQ(tries->get(), 0.0);
    EXPECT_FALSE(spin.tryLock());
    spin.unlock();
    EXPECT_TRUE(spin.tryLock());
    spin.unlock();
    spin.deinitMonitor();
}

TEST(LockFreeSpinLock, ContendedLockCountsItsFailedRounds) {
    CMonitorElementContainer container("Spin2");
    LockFreeSpinLock spin;
    spin.initMonitor(container);
    CMonitorElement* tries = container.findOrAdd("TryCount", "", true);
    spin.lock();
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        spin.lock();
        got = true;
        spin.unlock();
    });
    // The waiter spins, and sleeps every tenth round, until the lock is free.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(got.load());
    spin.unlock();
    waiter.join();
    EXPECT_TRUE(got.load());
    EXPECT_GE(tries->get(), 10.0);
    spin.deinitMonitor();
}

TEST(LockFreeSpinLock, MutualExclusionThroughTheGuardInterface) {
    LockFreeSpinLock spin;
    ISyncGuard& guard = spin;
    long counter = 0;  // guarded by spin
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                CReadWriteLock hold(guard, i % 2 == 0, true);
                ++counter;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 80000);
}

}  // namespace
