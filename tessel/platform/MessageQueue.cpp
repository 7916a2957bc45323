// Thread message queues.
//
// A queue is a list of messages under a lock and an eventfd. A post appends and, if the
// eventfd does not already hold a post that nobody has looked at, writes it; a look
// (PeekMessageA) drains it under the same lock. So the eventfd is readable exactly while a
// message has arrived since the owner last looked, and a wait on it sleeps through messages
// that the owner has seen and left in the queue. Only the first post after a look costs a
// system call, and a look costs one only when there was such a post.
//
// The queues are found by thread id in one table. The owning thread keeps a reference in a
// thread-local holder, whose destructor takes the queue out of the table when the thread
// ends; a poster that found the queue just before keeps it alive until its post is done.
#include "tessel/platform/MessageQueue.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

#include "tessel/platform/Clock.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/detail/KernelObject.h"

namespace Tessel::Platform {
namespace {

// The platform's limit of posted messages in one queue.
constexpr std::size_t kQueueLimit = 10000;

// The filter value of PeekMessageA that takes thread messages only.
const HWND kThreadMessagesOnly = reinterpret_cast<HWND>(static_cast<std::intptr_t>(-1));

class MessageQueue {
  public:
    explicit MessageQueue(int eventFd) : m_eventFd(eventFd) {}
    ~MessageQueue() { ::close(m_eventFd); }
    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;

    // Readable while a post has arrived that the owner has not looked at.
    int eventFd() const { return m_eventFd; }

    // ERROR_SUCCESS, or why the message was not appended.
    DWORD post(const MSG& message) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_messages.size() >= kQueueLimit) {
            return ERROR_NOT_ENOUGH_QUOTA;
        }
        try {
            m_messages.push_back(message);
        } catch (const std::bad_alloc&) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
        if (!m_bUnseenPost) {
            const std::uint64_t one = 1;
            while (::write(m_eventFd, &one, sizeof one) < 0 && errno == EINTR) {
            }
            m_bUnseenPost = true;
        }
        return ERROR_SUCCESS;
    }

    // A look at the queue by its owner: the first message that passes the filter.
    bool peek(MSG& found, HWND window, UINT minMessage, UINT maxMessage, bool remove) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_bUnseenPost) {
            std::uint64_t value;
            while (::read(m_eventFd, &value, sizeof value) < 0 && errno == EINTR) {
            }
            m_bUnseenPost = false;
        }
        const bool anyNumber = minMessage == 0 && maxMessage == 0;
        for (auto it = m_messages.begin(); it != m_messages.end(); ++it) {
            const bool windowMatches = window == nullptr ||
                                       (window == kThreadMessagesOnly && it->hwnd == nullptr) ||
                                       it->hwnd == window;
            if (!windowMatches ||
                (!anyNumber && (it->message < minMessage || it->message > maxMessage))) {
                continue;
            }
            found = *it;
            if (remove) {
                m_messages.erase(it);
            }
            return true;
        }
        return false;
    }

  private:
    const int m_eventFd;
    std::mutex m_lock;
    std::deque<MSG> m_messages;  // guarded by m_lock
    bool m_bUnseenPost = false;  // guarded by m_lock: the eventfd holds a post
};

// The queues by thread id. Never destroyed, so that threads ending during the process's exit
// still find it. A forked child starts with an empty table: the queues of the parent's
// threads are of no use there, and their locks may have been held at the fork. The parent's
// table is left as it was, untouched, and stays reachable from the child's.
struct QueueTable {
    std::mutex lock;
    std::unordered_map<DWORD, std::shared_ptr<MessageQueue>> byThread;
    QueueTable* inherited = nullptr;  // the table of the parent process, in a forked child
};

QueueTable* g_table = new QueueTable;

void lockTableForFork() {
    g_table->lock.lock();
}

void unlockTableInParent() {
    g_table->lock.unlock();
}

void startEmptyInChild() {
    // The forking thread took the lock; giving it back leaves the inherited table as it was
    // before the fork, and holds no lock in the child that nothing would release.
    g_table->lock.unlock();
    auto* fresh = new (std::nothrow) QueueTable;
    if (fresh != nullptr) {
        fresh->inherited = g_table;
    }
    g_table = fresh;
}

const int g_forkHandlers =
    ::pthread_atfork(&lockTableForFork, &unlockTableInParent, &startEmptyInChild);

// The calling thread's queue; taken out of the table when the thread ends.
struct CurrentQueue {
    std::shared_ptr<MessageQueue> queue;
    DWORD threadId = 0;  // the owner; another value in a forked child

    ~CurrentQueue() {
        if (queue == nullptr || threadId != GetCurrentThreadId() || g_table == nullptr) {
            return;
        }
        std::lock_guard<std::mutex> guard(g_table->lock);
        const auto entry = g_table->byThread.find(threadId);
        if (entry != g_table->byThread.end() && entry->second == queue) {
            g_table->byThread.erase(entry);
        }
    }
};

thread_local CurrentQueue t_current;

// The calling thread's queue, made on first use. Null with the last error set on failure.
MessageQueue* currentQueue() {
    const DWORD self = GetCurrentThreadId();
    if (t_current.queue != nullptr && t_current.threadId == self) {
        return t_current.queue.get();
    }
    t_current.queue.reset();  // a forked child's copy of its parent's queue
    if (g_table == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    try {
        auto queue = std::make_shared<MessageQueue>(fd);
        {
            std::lock_guard<std::mutex> guard(g_table->lock);
            g_table->byThread[self] = queue;
        }
        t_current.queue = std::move(queue);
        t_current.threadId = self;
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return t_current.queue.get();
}

}  // namespace

BOOL PostThreadMessageA(DWORD threadId, UINT message, WPARAM wParam, LPARAM lParam) {
    std::shared_ptr<MessageQueue> queue;
    if (g_table != nullptr) {
        std::lock_guard<std::mutex> guard(g_table->lock);
        const auto entry = g_table->byThread.find(threadId);
        if (entry != g_table->byThread.end()) {
            queue = entry->second;
        }
    }
    if (queue == nullptr) {
        SetLastError(ERROR_INVALID_THREAD_ID);
        return FALSE;
    }
    const DWORD error = queue->post(MSG{nullptr, message, wParam, lParam, GetTickCount()});
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return FALSE;
    }
    return TRUE;
}

BOOL PostThreadCallback(DWORD threadId, MessageCallback callback, LPARAM argument) {
    if (callback == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return PostThreadMessageA(threadId, WM_TESSEL_CALLBACK, reinterpret_cast<WPARAM>(callback),
                              argument);
}

BOOL PeekMessageA(MSG* message, HWND window, UINT minMessage, UINT maxMessage, UINT removeFlags) {
    if (message == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    MessageQueue* queue = currentQueue();
    if (queue == nullptr) {
        return FALSE;
    }
    return queue->peek(*message, window, minMessage, maxMessage, (removeFlags & PM_REMOVE) != 0)
               ? TRUE
               : FALSE;
}

BOOL TranslateMessage(const MSG* /*message*/) {
    return FALSE;
}

LRESULT DispatchMessageA(const MSG* message) {
    if (message != nullptr && message->message == WM_TESSEL_CALLBACK && message->wParam != 0) {
        reinterpret_cast<MessageCallback>(message->wParam)(message->lParam);
    }
    return 0;
}

DWORD MsgWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD timeoutMs,
                                DWORD wakeMask) {
    int messageFd = -1;
    if ((wakeMask & (QS_POSTMESSAGE | QS_ALLPOSTMESSAGE)) != 0) {
        MessageQueue* queue = currentQueue();
        if (queue == nullptr) {
            return WAIT_FAILED;
        }
        messageFd = queue->eventFd();
    }
    return WaitForObjects(count, handles, waitAll != FALSE, timeoutMs, messageFd);
}

}  // namespace Tessel::Platform
