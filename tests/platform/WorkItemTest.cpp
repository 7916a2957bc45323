// Work items: the process-wide pool and the threads of long functions.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "tessel/platform/LastError.h"
#include "tessel/platform/ProcessMetrics.h"
#include "tessel/platform/WorkItem.h"

using namespace Tessel::Platform;

namespace {

// What the items of a test share: the threads that ran them, how many began and ended, and
// a gate that holds blocking items until it opens.
struct Shared {
    std::mutex lock;
    std::condition_variable changed;
    std::set<std::thread::id> threads;
    int began = 0, ended = 0;
    bool open = false;

    void waitUntil(int Shared::*counter, int count) {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return this->*counter >= count; });
    }
};

DWORD run(void* context) {
    auto& shared = *static_cast<Shared*>(context);
    std::unique_lock<std::mutex> guard(shared.lock);
    shared.threads.insert(std::this_thread::get_id());
    ++shared.began;
    shared.changed.notify_all();
    shared.changed.wait(guard, [&] { return shared.open; });
    ++shared.ended;
    shared.changed.notify_all();
    return 0;
}

const int kPool = static_cast<int>(std::clamp<DWORD>(GetNumberOfProcessors(), 2, 4));

}  // namespace

TEST(WorkItemTest, PoolKeepsItsSizeLongFunctionsGetThreadsOfTheirOwn) {
    Shared shared;
    for (int i = 0; i <= kPool; ++i) {  // every pool thread blocked, one item waiting
        ASSERT_TRUE(QueueUserWorkItem(run, &shared, WT_EXECUTEDEFAULT));
    }
    shared.waitUntil(&Shared::began, kPool);
    for (int i = 0; i <= kPool; ++i) {  // more long functions than the pool has threads
        ASSERT_TRUE(QueueUserWorkItem(run, &shared, WT_EXECUTELONGFUNCTION));
    }
    shared.waitUntil(&Shared::began, 2 * kPool + 1);
    EXPECT_EQ(shared.began, 2 * kPool + 1);  // the pool did not grow past its size
    {
        std::lock_guard<std::mutex> guard(shared.lock);
        shared.open = true;
        shared.changed.notify_all();
    }
    shared.waitUntil(&Shared::ended, 2 * kPool + 2);  // the waiting pool item ran too
    EXPECT_EQ(shared.threads.size(), static_cast<std::size_t>(2 * kPool + 1));
    SetLastError(0);
    EXPECT_FALSE(QueueUserWorkItem(nullptr, nullptr, WT_EXECUTEDEFAULT));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}
