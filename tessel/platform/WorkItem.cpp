// Work items on a pool of threads that grows to its size as items arrive, and on threads of
// their own for long functions.
//
// The pool is one object under one lock: the items that wait, the number of pool threads and
// how many of them wait for an item. A thread is started when the items that wait outnumber
// the idle threads and the pool is not yet full, so that a burst of items never waits behind
// a thread that is already spoken for.
#include "tessel/platform/WorkItem.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/ProcessMetrics.h"

namespace Tessel::Platform {
namespace {

struct Item {
    LPTHREAD_START_ROUTINE function = nullptr;
    void* context = nullptr;
};

class Pool {
  public:
    std::mutex lock;

    // Queues item; false with the last error set when the pool has no thread and none could
    // be started.
    bool queue(const Item& item) {
        std::lock_guard<std::mutex> guard(lock);
        items.push_back(item);
        if (items.size() > idle && threads < size) {
            try {
                std::thread(&Pool::work, this).detach();
                ++threads;
            } catch (const std::system_error& error) {
                if (threads == 0) {
                    items.pop_back();
                    SetLastErrorFromErrno(error.code().value());
                    return false;
                }
                // The threads there are will take it.
            }
        }
        itemAdded.notify_one();
        return true;
    }

  private:
    const std::size_t size = std::clamp<DWORD>(GetNumberOfProcessors(), 2, 4);
    std::deque<Item> items;   // guarded by lock
    std::size_t threads = 0;  // guarded by lock
    std::size_t idle = 0;     // guarded by lock: threads that wait for an item
    std::condition_variable itemAdded;

    void work() {
        EnsureAlternateSignalStack();
        ::pthread_setname_np(::pthread_self(), "TesselWork");
        std::unique_lock<std::mutex> guard(lock);
        for (;;) {
            ++idle;
            itemAdded.wait(guard, [this] { return !items.empty(); });
            --idle;
            const Item item = items.front();
            items.pop_front();
            guard.unlock();
            item.function(item.context);
            guard.lock();
        }
    }
};

Pool* g_pool = nullptr;

Pool& pool() {
    static Pool* made = [] {
        g_pool = new Pool;
        ::pthread_atfork([] { g_pool->lock.lock(); }, [] { g_pool->lock.unlock(); },
                         [] {
                             // The threads did not come along: the child starts afresh, and
                             // the parent's pool stays behind, locked and unused.
                             g_pool = new Pool;
                         });
        return g_pool;
    }();
    (void)made;
    return *g_pool;
}

void runLong(Item item) {
    EnsureAlternateSignalStack();
    ::pthread_setname_np(::pthread_self(), "TesselWorkLong");
    item.function(item.context);
}

}  // namespace

BOOL QueueUserWorkItem(LPTHREAD_START_ROUTINE function, void* context, ULONG flags) {
    if (function == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const Item item{function, context};
    if ((flags & WT_EXECUTELONGFUNCTION) != 0) {
        try {
            std::thread(runLong, item).detach();
        } catch (const std::system_error& error) {
            SetLastErrorFromErrno(error.code().value());
            return FALSE;
        }
        return TRUE;
    }
    return pool().queue(item) ? TRUE : FALSE;
}

}  // namespace Tessel::Platform
