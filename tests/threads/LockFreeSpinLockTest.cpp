// LockFreeSpinLock beyond the guard contract: the element that counts the failed rounds.
#include "tessel/threads/LockFreeSpinLock.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "support/WaitProbe.h"
#include "tessel/monitoring/MonitorElementContainer.h"

TEST(LockFreeSpinLock, OnlyAContendedLockCountsItsFailedRounds) {
    CMonitorElementContainer container("Spin");
    LockFreeSpinLock spin;
    spin.initMonitor(container);
    CMonitorElement* tries = container.findOrAdd("TryCount", "", true);
    spin.lock();
    EXPECT_FALSE(spin.tryLock()) << "not even for the holder";
    EXPECT_EQ(tries->get(), 0.0) << "neither the free lock nor a try counts";

    TesselTest::AsyncCall waiter([&] {
        spin.lock();
        spin.unlock();
        return Tessel::Platform::DWORD{1};
    });
    // It spins, and sleeps (in a futex wait) every tenth round, until the lock is free.
    EXPECT_TRUE(waiter.blocked(SYS_futex));
    EXPECT_FALSE(waiter.done());
    spin.unlock();
    ASSERT_TRUE(waiter.finishes());
    EXPECT_GE(tries->get(), 10.0);
    spin.deinitMonitor();
}
