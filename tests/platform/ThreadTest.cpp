#include "tessel/platform/Thread.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tessel/platform/Process.h"

using namespace Tessel::Platform;

namespace {

TEST(Thread, NamesAreKeptToFifteenCharacters) {
    EXPECT_TRUE(SetThreadName(GetCurrentThreadId(), "CActiveTimerWorker"));
    EXPECT_EQ(GetThreadName(GetCurrentThreadId()), "CActiveTimerWor");
    EXPECT_FALSE(SetThreadName(0x7FFFFFF0, "nobody"));
    EXPECT_EQ(GetThreadName(0x7FFFFFF0), "");
}

TEST(Thread, PrioritiesBecomeNiceValuesOfTheThread) {
    std::atomic<DWORD> id{0};
    std::atomic<bool> done{false};
    std::thread worker([&] {
        id = GetCurrentThreadId();
        while (!done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    while (id == 0) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(SetThreadPriority(id, THREAD_PRIORITY_BELOW_NORMAL));
    EXPECT_EQ(::getpriority(PRIO_PROCESS, id), 5);
    EXPECT_TRUE(SetThreadPriority(id, THREAD_PRIORITY_IDLE));
    EXPECT_EQ(::getpriority(PRIO_PROCESS, id), 19);
    // A raise may be refused by the system; the call still succeeds.
    EXPECT_TRUE(SetThreadPriority(id, THREAD_PRIORITY_TIME_CRITICAL));
    EXPECT_FALSE(SetThreadPriority(id, 7));  // not a priority of the platform
    EXPECT_EQ(::getpriority(PRIO_PROCESS, GetCurrentThreadId()), 0);  // only that thread
    done = true;
    worker.join();
}

TEST(Thread, TerminationEndsAThreadAtItsNextWait) {
    std::atomic<bool> started{false};
    std::thread sleeper([&] {
        started = true;
        while (true) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    while (!started) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(TerminateThread(sleeper.native_handle(), 0xFFFFFFFF));
    sleeper.join();  // returns because the thread was cancelled
}

TEST(Thread, HandleCountFollowsOpenDescriptors) {
    const DWORD before = GetProcessHandleCount();
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    EXPECT_EQ(GetProcessHandleCount(), before + 2);
    ::close(fds[0]);
    ::close(fds[1]);
    EXPECT_EQ(GetProcessHandleCount(), before);
}

}  // namespace
