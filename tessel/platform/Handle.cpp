#include "tessel/platform/Handle.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <new>
#include <string_view>
#include <unordered_set>

#include "tessel/platform/LastError.h"
#include "tessel/platform/detail/KernelObject.h"

namespace Tessel::Platform {
namespace {

// Internal result of one attempt: nothing acquired.
constexpr DWORD kNothing = 0xFFFFFFFEu;

// The longest object name the platform accepts (MAX_PATH).
constexpr std::size_t kMaxObjectName = 260;

// Slices in which a wait that includes objects which neither wake their waiters nor have a
// descriptor (mutexes) tries them again: 1 ms, doubled up to 10 ms.
constexpr std::uint64_t kFirstSliceNs = 1000000;
constexpr std::uint64_t kLongestSliceNs = 10000000;

// The open handles, consulted by CloseHandle so that closing a handle twice, or a value
// that never was a handle, fails cleanly instead of freeing memory twice. The waits only
// check the tag inside the handle, which takes no lock. Never destroyed, so that handles
// closed by static destructors still find it.
struct HandleTable {
    std::mutex lock;
    std::unordered_set<KernelObject*> open;
};

HandleTable& handleTable() {
    static HandleTable* table = new HandleTable;
    return *table;
}

// A plausible handle: not null, aligned and in the user part of the address space, so that
// a stray integer passed as a handle fails instead of faulting. A handle that was closed is
// recognised by its tag only as long as its memory has not been reused: using a closed
// handle is an error of the caller, as on the platform.
bool plausible(HANDLE handle) {
    const auto address = reinterpret_cast<std::uintptr_t>(handle);
    return address >= 0x10000 && address < (std::uintptr_t{1} << 56) &&
           address % alignof(KernelObject) == 0;
}

// The wake-up eventfd of this thread. A plain int, so that the fork handler may touch it.
thread_local int t_wakeFd = -1;

struct WakeFdCloser {
    ~WakeFdCloser() {
        if (t_wakeFd >= 0) {
            ::close(t_wakeFd);
            t_wakeFd = -1;
        }
    }
};

// Fork: the table's lock is held across fork(), so that the child does not inherit it held
// by a thread that does not exist there. The forking thread would share its parent's
// wake-up eventfd description in the child, so that one process could drain the other's
// wake-ups: the child makes its own on next use.
void lockTableForFork() {
    handleTable().lock.lock();
}

void unlockTableInParent() {
    handleTable().lock.unlock();
}

void unlockTableInChild() {
    if (t_wakeFd >= 0) {
        ::close(t_wakeFd);
        t_wakeFd = -1;
    }
    handleTable().lock.unlock();
}

// Registered when the library is loaded, before the fork handlers that other tables register
// at their first use. Prepare handlers run in the reverse order of registration, so the handle
// table's lock, a leaf (nothing else is locked while it is held, and it may be taken while
// another table's lock or a mutex is held), is taken last before a fork.
const int g_forkHandlers =
    ::pthread_atfork(&lockTableForFork, &unlockTableInParent, &unlockTableInChild);

std::uint64_t monotonicNs() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(now.tv_nsec);
}

// The end of a finite wait on the monotonic clock.
class Deadline {
  public:
    explicit Deadline(DWORD timeoutMs)
        : m_infinite(timeoutMs == INFINITE),
          m_at(m_infinite ? 0 : monotonicNs() + std::uint64_t{timeoutMs} * 1000000u) {}

    bool infinite() const { return m_infinite; }

    // Nanoseconds left; 0 once passed.
    std::uint64_t remainingNs() const {
        const std::uint64_t now = monotonicNs();
        return now >= m_at ? 0 : m_at - now;
    }

  private:
    bool m_infinite;
    std::uint64_t m_at;
};

// Wait for any: the lowest index that can be acquired wins, and only that object is taken.
DWORD tryAny(DWORD count, Waitable* const* objects, WaitRecord* records) {
    for (DWORD i = 0; i < count; ++i) {
        switch (objects[i]->tryAcquire(records != nullptr ? &records[i] : nullptr)) {
            case Acquire::None:
                break;
            case Acquire::Taken:
            case Acquire::Released:
                return WAIT_OBJECT_0 + i;
            case Acquire::Abandoned:
                return WAIT_ABANDONED_0 + i;
            case Acquire::Failed:
                return WAIT_FAILED;
        }
    }
    return kNothing;
}

// Wait for all: nothing is touched until every object looks signalled; then all are
// acquired in order, and if one of them cannot be, those taken before it are given back.
// A release handed to a waiter for all (a pulse) counts for this one attempt only: if the
// other objects are not all there at that moment, it is gone, as the pulse is.
DWORD tryAll(DWORD count, Waitable* const* objects, WaitRecord* records) {
    DWORD result = kNothing;
    bool ready = true;
    for (DWORD i = 0; i < count && ready; ++i) {
        ready = objects[i]->looksSignalled(records != nullptr ? &records[i] : nullptr);
    }
    if (ready) {
        Acquire got[MAXIMUM_WAIT_OBJECTS];
        DWORD taken = 0;
        for (; taken < count; ++taken) {
            got[taken] = objects[taken]->tryAcquire(records != nullptr ? &records[taken] : nullptr);
            if (got[taken] == Acquire::None || got[taken] == Acquire::Failed) {
                break;
            }
        }
        if (taken == count) {
            result = WAIT_OBJECT_0;
            for (DWORD i = 0; i < count; ++i) {
                if (got[i] == Acquire::Abandoned) {
                    result = WAIT_ABANDONED_0 + i;
                    break;
                }
            }
        } else {
            if (got[taken] == Acquire::Failed) {
                result = WAIT_FAILED;
            }
            const DWORD error = GetLastError();
            while (taken-- > 0) {
                objects[taken]->undoAcquire(got[taken],
                                            records != nullptr ? &records[taken] : nullptr);
            }
            SetLastError(error);
        }
    }
    if (result == kNothing && records != nullptr) {
        for (DWORD i = 0; i < count; ++i) {
            records[i].release.store(kNoRelease, std::memory_order_relaxed);
        }
    }
    return result;
}

DWORD attempt(DWORD count, Waitable* const* objects, bool waitAll, WaitRecord* records) {
    if (count == 0) {
        return kNothing;
    }
    return waitAll ? tryAll(count, objects, records) : tryAny(count, objects, records);
}

// Whether fd is readable now, without waiting.
bool readableNow(int fd) {
    pollfd entry{fd, POLLIN, 0};
    int ready;
    do {
        ready = ::poll(&entry, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

// Takes the records of one wait out of their objects' lists when the wait ends.
class Enlistment {
  public:
    Enlistment(Waitable* const* objects, WaitRecord* records)
        : m_objects(objects), m_records(records) {}
    ~Enlistment() {
        const DWORD error = GetLastError();
        for (DWORD i = 0; i < m_count; ++i) {
            m_objects[i]->delist(m_records[i]);
        }
        SetLastError(error);
    }
    Enlistment(const Enlistment&) = delete;
    Enlistment& operator=(const Enlistment&) = delete;

    // Enlists the next object; false with the last error set if it cannot be waited for.
    bool add(Waiter& waiter) {
        m_records[m_count].waiter = &waiter;
        if (!m_objects[m_count]->enlist(m_records[m_count])) {
            return false;
        }
        ++m_count;
        return true;
    }

  private:
    Waitable* const* m_objects;
    WaitRecord* m_records;
    DWORD m_count = 0;
};

}  // namespace

void Waitable::release() {
    if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

DWORD Waitable::waitOne(DWORD timeoutMs) {
    Waitable* self = this;
    return WaitOnObjects(1, &self, false, timeoutMs, -1);
}

HANDLE MakeHandle(Waitable* object) {
    auto* handle = new (std::nothrow) KernelObject(object);
    if (handle != nullptr) {
        try {
            HandleTable& table = handleTable();
            std::lock_guard<std::mutex> guard(table.lock);
            table.open.insert(handle);
            return handle;
        } catch (const std::bad_alloc&) {
            delete handle;
        }
    }
    object->release();
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

Waitable* ObjectOf(HANDLE handle) {
    if (!plausible(handle) ||
        handle->tag.load(std::memory_order_relaxed) != KernelObject::kLiveTag) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return handle->object;
}

int CurrentWakeFd() {
    if (t_wakeFd < 0) {
        const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (fd < 0) {
            SetLastErrorFromErrno(errno);
            return -1;
        }
        thread_local WakeFdCloser closer;
        (void)closer;
        t_wakeFd = fd;
    }
    return t_wakeFd;
}

void WakeWaiter(const Waiter& waiter) {
    const std::uint64_t one = 1;
    while (::write(waiter.wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

bool KeyOfNameToOpen(const char* name, std::string& key) {
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (*name == '\0') {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return false;
    }
    return NormaliseObjectName(name, key);
}

bool NormaliseObjectName(const char* name, std::string& key) {
    std::string_view view(name);
    if (view.size() > kMaxObjectName) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return false;
    }
    for (const std::string_view prefix :
         {std::string_view("Global\\"), std::string_view("Local\\")}) {
        if (view.starts_with(prefix)) {
            view.remove_prefix(prefix.size());
            break;
        }
    }
    if (view.empty()) {
        SetLastError(ERROR_INVALID_NAME);
        return false;
    }
    key.assign(view);
    return true;
}

DWORD WaitOnObjects(DWORD count, Waitable* const* objects, bool waitAll, DWORD timeoutMs,
                    int extraFd) {
    DWORD result = attempt(count, objects, waitAll, nullptr);
    if (result != kNothing) {
        return result;
    }
    if (timeoutMs == 0) {
        return extraFd >= 0 && readableNow(extraFd) ? count : WAIT_TIMEOUT;
    }
    const Deadline deadline(timeoutMs);

    Waiter waiter;
    waiter.waitAll = waitAll;
    for (DWORD i = 0; i < count; ++i) {
        if (objects[i]->wakesWaiters()) {
            if (waiter.wakeFd < 0) {
                waiter.wakeFd = CurrentWakeFd();
                if (waiter.wakeFd < 0) {
                    return WAIT_FAILED;
                }
            }
        } else if (objects[i]->pollFd() < 0) {
            waiter.sliced = true;
        }
    }
    WaitRecord records[MAXIMUM_WAIT_OBJECTS];
    Enlistment enlistment(objects, records);
    for (DWORD i = 0; i < count; ++i) {
        if (!enlistment.add(waiter)) {
            return WAIT_FAILED;
        }
    }

    // Entries of the poll set: an object index, or one of these.
    constexpr DWORD kWakeEntry = MAXIMUM_WAIT_OBJECTS;
    constexpr DWORD kExtraEntry = MAXIMUM_WAIT_OBJECTS + 1;
    pollfd fds[MAXIMUM_WAIT_OBJECTS + 2];
    DWORD entryOf[MAXIMUM_WAIT_OBJECTS + 2];
    std::uint64_t sliceNs = kFirstSliceNs;
    bool extraReady = false;

    for (;;) {
        // Enlisted now, so that whatever happens from here on wakes the poll below.
        result = attempt(count, objects, waitAll, records);
        if (result != kNothing) {
            return result;
        }
        if (extraReady) {
            return count;
        }
        const std::uint64_t left = deadline.infinite() ? UINT64_MAX : deadline.remainingNs();
        if (left == 0) {
            return WAIT_TIMEOUT;
        }

        nfds_t used = 0;
        bool allThere = waitAll;
        for (DWORD i = 0; i < count; ++i) {
            // A wait for all does not sleep on objects that are already there: a readable
            // descriptor would keep waking it while it waits for the others.
            if (waitAll && objects[i]->looksSignalled(&records[i])) {
                continue;
            }
            allThere = false;
            const int fd = objects[i]->pollFd();
            if (fd >= 0) {
                fds[used] = pollfd{fd, POLLIN, 0};
                entryOf[used++] = i;
            }
        }
        if (allThere && count > 0 && !waiter.sliced) {
            continue;  // all look signalled, but another thread took one first: try again
        }
        if (waiter.wakeFd >= 0) {
            fds[used] = pollfd{waiter.wakeFd, POLLIN, 0};
            entryOf[used++] = kWakeEntry;
        }
        if (extraFd >= 0) {
            fds[used] = pollfd{extraFd, POLLIN, 0};
            entryOf[used++] = kExtraEntry;
        }

        std::uint64_t sleepNs = left;
        if (waiter.sliced) {
            sleepNs = std::min(sleepNs, sliceNs);
            sliceNs = std::min(sliceNs * 2, kLongestSliceNs);
        }
        timespec span{};
        const timespec* timeout = nullptr;
        if (sleepNs != UINT64_MAX) {
            span.tv_sec = static_cast<time_t>(sleepNs / 1000000000u);
            span.tv_nsec = static_cast<long>(sleepNs % 1000000000u);
            timeout = &span;
        }
        const int ready = ::ppoll(fds, used, timeout, nullptr);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            SetLastErrorFromErrno(errno);
            return WAIT_FAILED;
        }
        for (nfds_t k = 0; k < used && ready > 0; ++k) {
            if (fds[k].revents == 0) {
                continue;
            }
            if ((fds[k].revents & POLLNVAL) != 0) {
                SetLastError(ERROR_INVALID_HANDLE);
                return WAIT_FAILED;
            }
            if (entryOf[k] == kWakeEntry) {
                std::uint64_t value;
                while (::read(waiter.wakeFd, &value, sizeof value) < 0 && errno == EINTR) {
                }
            } else if (entryOf[k] == kExtraEntry) {
                extraReady = true;
            } else {
                objects[entryOf[k]]->settle(records[entryOf[k]]);
            }
        }
    }
}

DWORD WaitForObjects(DWORD count, const HANDLE* handles, bool waitAll, DWORD timeoutMs,
                     int extraFd) {
    if (count > MAXIMUM_WAIT_OBJECTS || (count == 0 && extraFd < 0) ||
        (count > 0 && handles == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    Waitable* objects[MAXIMUM_WAIT_OBJECTS];
    for (DWORD i = 0; i < count; ++i) {
        objects[i] = ObjectOf(handles[i]);
        if (objects[i] == nullptr) {
            return WAIT_FAILED;
        }
    }
    if (waitAll) {
        // One object twice cannot be acquired "together" with itself.
        for (DWORD i = 0; i < count; ++i) {
            for (DWORD j = i + 1; j < count; ++j) {
                if (objects[i] == objects[j]) {
                    SetLastError(ERROR_INVALID_PARAMETER);
                    return WAIT_FAILED;
                }
            }
        }
    }
    return WaitOnObjects(count, objects, waitAll, timeoutMs, extraFd);
}

BOOL CloseHandle(HANDLE handle) {
    if (!plausible(handle)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    {
        HandleTable& table = handleTable();
        std::lock_guard<std::mutex> guard(table.lock);
        if (table.open.erase(handle) == 0) {
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
    }
    handle->tag.store(0, std::memory_order_relaxed);
    Waitable* object = handle->object;
    delete handle;
    object->release();
    return TRUE;
}

DWORD WaitForSingleObject(HANDLE handle, DWORD timeoutMs) {
    Waitable* object = ObjectOf(handle);
    if (object == nullptr) {
        return WAIT_FAILED;
    }
    return object->waitOne(timeoutMs);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD timeoutMs) {
    if (count == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    return WaitForObjects(count, handles, waitAll != FALSE, timeoutMs, -1);
}

DWORD WaitForSingleObjectEx(HANDLE handle, DWORD timeoutMs, BOOL /*alertable*/) {
    return WaitForSingleObject(handle, timeoutMs);
}

DWORD WaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD timeoutMs,
                               BOOL /*alertable*/) {
    return WaitForMultipleObjects(count, handles, waitAll, timeoutMs);
}

}  // namespace Tessel::Platform
