// Kernel mutexes: robust, recursive pthread mutexes.
//
// An unnamed mutex lives on the heap. A named one lives in a POSIX shared memory segment,
// "/tessel.mutex." followed by the name ('/', '\' and '%' escaped as %2F, %5C, %25), which
// other processes open by that name.
//
// Lifetime of a name. On the platform a named object disappears when its last handle in the
// last process is closed, and a program may rely on that: "CreateMutex, then
// ERROR_ALREADY_EXISTS" is the usual test for a second instance. The segment therefore
// carries a count of its users that the kernel keeps right even when a process dies: every
// process that has the mutex open holds a shared flock on its descriptor of the segment.
//  - The last handle of a process drops the process's descriptor; if an exclusive flock can
//    then be had, no other process has the mutex open, and the name is removed.
//  - Creation uses O_EXCL. An opener that finds a segment which nobody holds (an exclusive
//    flock succeeds) has found the remnant of a process that died with the last handle, or
//    while creating it: it removes it and creates afresh, so the name exists exactly while
//    some process holds it.
//  - Whoever takes a shared flock checks that the segment still has a link; one that was
//    removed meanwhile is dropped and the open starts again. Only the holder of the exclusive
//    flock removes a name, and only after checking that its segment is still the one linked.
//  - An opener waits, bounded, for the creator to finish initialising ("ready" in the
//    segment).
// A process that closes its last handle while one of its threads owns the mutex keeps the
// segment (and so the name) until it exits: the mutex is on that thread's robust list, which
// would be corrupted if its memory went away.
//
// A dead owner: the next acquirer gets EOWNERDEAD from pthread, makes the mutex consistent
// and reports WAIT_ABANDONED. The library keeps the owner's thread id and nesting depth beside
// the mutex, to tell a nested acquisition from a fresh one and to check ReleaseMutex without
// a system call.
#include "tessel/platform/Mutex.h"

#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

#include "tessel/platform/Clock.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/detail/KernelObject.h"

namespace Tessel::Platform {
namespace {

constexpr std::uint32_t kReadyMagic = 0x314D5854u;  // "TXM1": layout version 1
constexpr char kSegmentPrefix[] = "/tessel.mutex.";
// Attempts of an open that keeps losing races against creators and removers.
constexpr int kOpenAttempts = 100;
// How long an opener waits for the creator to initialise the segment.
constexpr std::uint64_t kInitialisationWaitMs = 2000;

// The mutex and the library's notes beside it; on the heap, or in shared memory. Fields that
// other threads read without the mutex are plain integers accessed through std::atomic_ref,
// since the block may be mapped by several processes.
struct MutexBlock {
    // kReadyMagic once initialised (named mutexes): stored with release after the mutex is
    // made, loaded with acquire by an opener, which then sees the mutex made.
    std::uint32_t ready;
    // Thread id of the owner, 0 when free. Relaxed: written only by the thread that holds the
    // mutex, whose lock and unlock order it; others read it only to ask "is it me?", which
    // an untorn value answers.
    std::int32_t owner;
    std::uint32_t depth;  // acquisitions of the owner; changed only by the owner
    // 1: an abandonment given back by a wait for all. Relaxed: changed only while the mutex
    // is held.
    std::uint32_t abandonedPending;
    pthread_mutex_t mutex;
};

pid_t currentThreadId() {
    return static_cast<pid_t>(GetCurrentThreadId());
}

int initialiseMutex(pthread_mutex_t* mutex, bool processShared) {
    pthread_mutexattr_t attributes;
    int rc = ::pthread_mutexattr_init(&attributes);
    if (rc != 0) {
        return rc;
    }
    ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    if (processShared) {
        ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    }
    rc = ::pthread_mutex_init(mutex, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
    return rc;
}

timespec monotonicAfter(DWORD ms) {
    timespec at;
    ::clock_gettime(CLOCK_MONOTONIC, &at);
    at.tv_sec += static_cast<time_t>(ms / 1000);
    at.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (at.tv_nsec >= 1000000000L) {
        at.tv_nsec -= 1000000000L;
        ++at.tv_sec;
    }
    return at;
}

// Locks with a time-out measured on the monotonic clock.
int timedLock(pthread_mutex_t* mutex, DWORD timeoutMs) {
    const timespec deadline = monotonicAfter(timeoutMs);
#if defined(__SANITIZE_THREAD__)
    // The thread sanitizer of this tool chain does not intercept pthread_mutex_clocklock, and
    // its pthread_mutex_timedlock does not book an acquisition that returns EOWNERDEAD; it
    // would then report every later unlock. Its trylock books both, so the sanitizer build
    // tries in slices of 1 ms until the monotonic deadline.
    for (;;) {
        const int rc = ::pthread_mutex_trylock(mutex);
        if (rc != EBUSY) {
            return rc;
        }
        timespec now;
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec > deadline.tv_sec ||
            (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec)) {
            return ETIMEDOUT;
        }
        timespec slice{0, 1000000L};
        ::nanosleep(&slice, nullptr);
    }
#else
    int rc;
    do {
        rc = ::pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline);
    } while (rc == EINTR);
    return rc;
#endif
}

class MutexObject : public Waitable {
  public:
    explicit MutexObject(MutexBlock* block) : Waitable(Kind::Mutex), m_block(block) {}

    Acquire tryAcquire(WaitRecord* /*record*/) override {
        return finish(::pthread_mutex_trylock(&m_block->mutex));
    }

    void undoAcquire(Acquire how, WaitRecord* /*record*/) override {
        MutexBlock& block = *m_block;
        if (--block.depth == 0) {
            // An abandonment reported to nobody stays for the next acquirer.
            if (how == Acquire::Abandoned) {
                std::atomic_ref<std::uint32_t>(block.abandonedPending)
                    .store(1, std::memory_order_relaxed);
            }
            std::atomic_ref<std::int32_t>(block.owner).store(0, std::memory_order_relaxed);
        }
        ::pthread_mutex_unlock(&block.mutex);
    }

    DWORD waitOne(DWORD timeoutMs) override {
        int rc;
        if (timeoutMs == 0) {
            rc = ::pthread_mutex_trylock(&m_block->mutex);
        } else if (timeoutMs == INFINITE) {
            rc = ::pthread_mutex_lock(&m_block->mutex);
        } else {
            rc = timedLock(&m_block->mutex, timeoutMs);
        }
        switch (finish(rc)) {
            case Acquire::None:
                return WAIT_TIMEOUT;
            case Acquire::Taken:
            case Acquire::Released:
                return WAIT_OBJECT_0;
            case Acquire::Abandoned:
                return WAIT_ABANDONED;
            case Acquire::Failed:
                break;
        }
        return WAIT_FAILED;
    }

    // Takes the mutex for the creator that asked to own it.
    void acquireInitially() { finish(::pthread_mutex_lock(&m_block->mutex)); }

    BOOL releaseByCaller() {
        MutexBlock& block = *m_block;
        std::atomic_ref<std::int32_t> owner(block.owner);
        if (owner.load(std::memory_order_relaxed) != currentThreadId()) {
            SetLastError(ERROR_NOT_OWNER);
            return FALSE;
        }
        if (--block.depth == 0) {
            owner.store(0, std::memory_order_relaxed);
        }
        const int rc = ::pthread_mutex_unlock(&block.mutex);
        if (rc != 0) {
            SetLastError(rc == EPERM ? ERROR_NOT_OWNER : ErrnoToError(rc));
            return FALSE;
        }
        return TRUE;
    }

  protected:
    // Whether a live thread of this process owns the mutex; its memory must then stay.
    bool ownedHere() const {
        const pid_t owner =
            std::atomic_ref<std::int32_t>(m_block->owner).load(std::memory_order_relaxed);
        return owner != 0 && ::syscall(SYS_tgkill, ::getpid(), owner, 0) == 0;
    }

    MutexBlock* m_block;

  private:
    // Books a lock result: the owner and depth beside the mutex, and abandonment.
    Acquire finish(int rc) {
        MutexBlock& block = *m_block;
        bool abandoned = false;
        switch (rc) {
            case 0:
                break;
            case EOWNERDEAD:
                ::pthread_mutex_consistent(&block.mutex);
                abandoned = true;
                break;
            case EBUSY:
            case ETIMEDOUT:
                return Acquire::None;
            default:
                SetLastErrorFromErrno(rc);
                return Acquire::Failed;
        }
        const pid_t self = currentThreadId();
        std::atomic_ref<std::int32_t> owner(block.owner);
        if (!abandoned && owner.load(std::memory_order_relaxed) == self) {
            ++block.depth;
            return Acquire::Taken;
        }
        owner.store(self, std::memory_order_relaxed);
        block.depth = 1;
        std::atomic_ref<std::uint32_t> pending(block.abandonedPending);
        if (pending.load(std::memory_order_relaxed) != 0) {
            pending.store(0, std::memory_order_relaxed);
            abandoned = true;
        }
        return abandoned ? Acquire::Abandoned : Acquire::Taken;
    }
};

class UnnamedMutex final : public MutexObject {
  public:
    using MutexObject::MutexObject;

    ~UnnamedMutex() override {
        if (ownedHere()) {
            return;  // still on the owner's robust list: the block must stay
        }
        ::pthread_mutex_destroy(&m_block->mutex);
        delete m_block;
    }
};

class NamedMutex;

// The named mutexes this process has open, by name. Guarded by its lock, as are the
// reference counts of the named mutexes and the opening and closing of their segments.
struct MutexNames {
    std::mutex lock;
    std::unordered_map<std::string, NamedMutex*> byName;
};

MutexNames& mutexNames() {
    static MutexNames* names = new MutexNames;
    return *names;
}

bool linked(int fd) {
    struct stat status;
    return ::fstat(fd, &status) == 0 && status.st_nlink > 0;
}

int lockFile(int fd, int operation) {
    int rc;
    do {
        rc = ::flock(fd, operation);
    } while (rc != 0 && errno == EINTR);
    return rc;
}

void sleepOneMillisecond() {
    timespec span{0, 1000000L};
    ::nanosleep(&span, nullptr);
}

enum class Step { Done, Retry, Failed };

struct Segment {
    int fd = -1;
    MutexBlock* block = nullptr;
    bool created = false;
};

// Initialises a segment that this process has just created with O_EXCL.
Step initialiseSegment(int fd, const std::string& segmentName, bool initialOwner, Segment& out) {
    if (lockFile(fd, LOCK_SH) != 0) {
        SetLastErrorFromErrno(errno);
        ::close(fd);
        return Step::Failed;
    }
    // An opener may have taken the fresh segment for a remnant and removed it before the
    // flock was taken.
    if (!linked(fd)) {
        ::close(fd);
        return Step::Retry;
    }
    // From here the name is held and still ours: nobody else removes or replaces it.
    void* map = MAP_FAILED;
    if (::ftruncate(fd, sizeof(MutexBlock)) == 0) {
        map = ::mmap(nullptr, sizeof(MutexBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    int rc = map == MAP_FAILED ? errno : 0;
    auto* block = static_cast<MutexBlock*>(map);
    if (rc == 0) {
        rc = initialiseMutex(&block->mutex, true);
        if (rc != 0) {
            ::munmap(map, sizeof(MutexBlock));
        }
    }
    if (rc != 0) {
        ::shm_unlink(segmentName.c_str());
        ::close(fd);
        SetLastErrorFromErrno(rc);
        return Step::Failed;
    }
    if (initialOwner) {
        // Before "ready", so that no other process can take it first.
        ::pthread_mutex_lock(&block->mutex);
        block->owner = currentThreadId();
        block->depth = 1;
    }
    std::atomic_ref<std::uint32_t>(block->ready).store(kReadyMagic, std::memory_order_release);
    out.fd = fd;
    out.block = block;
    return Step::Done;
}

// Attaches to a segment that another process created.
Step attachSegment(int fd, const std::string& segmentName, Segment& out) {
    // Held by nobody: a remnant of a process that died holding the last handle, or while
    // creating it. The mutex no longer exists; remove the name and start afresh.
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
        if (linked(fd)) {
            ::shm_unlink(segmentName.c_str());
        }
        ::close(fd);
        return Step::Retry;
    }
    // Blocks only while a closing process decides whether to remove the name.
    if (lockFile(fd, LOCK_SH) != 0) {
        SetLastErrorFromErrno(errno);
        ::close(fd);
        return Step::Failed;
    }
    if (!linked(fd)) {
        ::close(fd);
        return Step::Retry;  // its last user removed it meanwhile
    }
    const std::uint64_t start = GetTickCount64();
    MutexBlock* block = nullptr;
    for (;;) {
        if (block == nullptr) {
            struct stat status;
            if (::fstat(fd, &status) == 0 &&
                status.st_size >= static_cast<off_t>(sizeof(MutexBlock))) {
                void* map =
                    ::mmap(nullptr, sizeof(MutexBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
                if (map == MAP_FAILED) {
                    SetLastErrorFromErrno(errno);
                    ::close(fd);
                    return Step::Failed;
                }
                block = static_cast<MutexBlock*>(map);
            }
        }
        if (block != nullptr &&
            std::atomic_ref<std::uint32_t>(block->ready).load(std::memory_order_acquire) ==
                kReadyMagic) {
            out.fd = fd;
            out.block = block;
            return Step::Done;
        }
        if (GetTickCount64() - start >= kInitialisationWaitMs) {
            // No progress. If nobody else holds it now, its creator died half-way.
            const bool remnant = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
            if (remnant && linked(fd)) {
                ::shm_unlink(segmentName.c_str());
            }
            if (block != nullptr) {
                ::munmap(block, sizeof(MutexBlock));
            }
            ::close(fd);
            if (remnant) {
                return Step::Retry;
            }
            SetLastError(ERROR_TIMEOUT);
            return Step::Failed;
        }
        sleepOneMillisecond();
    }
}

// Opens the segment of a name, creating it if mayCreate. ERROR_SUCCESS, or the error (also
// set as the last error).
DWORD openSegment(const std::string& segmentName, bool mayCreate, bool initialOwner, Segment& out) {
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        if (mayCreate) {
            const int fd =
                ::shm_open(segmentName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd >= 0) {
                const Step step = initialiseSegment(fd, segmentName, initialOwner, out);
                if (step == Step::Done) {
                    out.created = true;
                    return ERROR_SUCCESS;
                }
                if (step == Step::Failed) {
                    return GetLastError();
                }
                continue;
            }
            if (errno != EEXIST) {
                return SetLastErrorFromErrno(errno);
            }
        }
        const int fd = ::shm_open(segmentName.c_str(), O_RDWR | O_CLOEXEC, 0);
        if (fd < 0) {
            if (errno == ENOENT && mayCreate) {
                continue;
            }
            return SetLastErrorFromErrno(errno);
        }
        const Step step = attachSegment(fd, segmentName, out);
        if (step == Step::Done) {
            return ERROR_SUCCESS;
        }
        if (step == Step::Failed) {
            return GetLastError();
        }
    }
    SetLastError(ERROR_BUSY);
    return ERROR_BUSY;
}

class NamedMutex final : public MutexObject {
  public:
    NamedMutex(std::string key, std::string segmentName)
        : MutexObject(nullptr), m_key(std::move(key)), m_segmentName(std::move(segmentName)) {}

    void attach(const Segment& segment) {
        m_block = segment.block;
        m_fd = segment.fd;
    }

    void release() override {
        MutexNames& names = mutexNames();
        {
            std::lock_guard<std::mutex> guard(names.lock);
            if (m_refs.fetch_sub(1, std::memory_order_acq_rel) != 1) {
                return;
            }
            names.byName.erase(m_key);
            detach();
        }
        delete this;
    }

    // In a forked child: take a descriptor of its own, so that the child's closing the
    // mutex does not drop the flock that the parent's descriptor holds. Only system calls
    // that are safe after fork.
    void reopenInChild() {
        char path[32] = "/proc/self/fd/";
        char digits[12];
        int length = 0;
        for (unsigned value = static_cast<unsigned>(m_fd); length == 0 || value != 0; value /= 10) {
            digits[length++] = static_cast<char>('0' + value % 10);
        }
        char* end = path + 14;
        while (length > 0) {
            *end++ = digits[--length];
        }
        *end = '\0';
        const int fd = ::open(path, O_RDWR | O_CLOEXEC);
        if (fd < 0) {
            return;
        }
        if (::flock(fd, LOCK_SH | LOCK_NB) == 0) {
            ::dup3(fd, m_fd, O_CLOEXEC);
        }
        ::close(fd);
    }

  private:
    // The last handle of this process is closed (under the name table's lock).
    void detach() {
        if (m_block == nullptr) {
            return;
        }
        if (ownedHere()) {
            return;  // kept until the process exits: see the top of this file
        }
        ::munmap(m_block, sizeof(MutexBlock));
        m_block = nullptr;
        if (::flock(m_fd, LOCK_EX | LOCK_NB) == 0 && linked(m_fd)) {
            ::shm_unlink(m_segmentName.c_str());
        }
        ::close(m_fd);
    }

    const std::string m_key;
    const std::string m_segmentName;
    int m_fd = -1;
};

void prepareFork() {
    mutexNames().lock.lock();
}

void afterForkInParent() {
    mutexNames().lock.unlock();
}

void afterForkInChild() {
    MutexNames& names = mutexNames();
    for (auto& entry : names.byName) {
        entry.second->reopenInChild();
    }
    names.lock.unlock();
}

void registerForkHandlers() {
    static const int registered =
        ::pthread_atfork(&prepareFork, &afterForkInParent, &afterForkInChild);
    (void)registered;
}

std::string segmentNameOf(const std::string& key) {
    std::string name(kSegmentPrefix);
    for (const char c : key) {
        switch (c) {
            case '/':
                name += "%2F";
                break;
            case '\\':
                name += "%5C";
                break;
            case '%':
                name += "%25";
                break;
            default:
                name += c;
                break;
        }
    }
    return name;
}

HANDLE openNamed(const char* name, bool mayCreate, bool initialOwner) {
    std::string key;
    if (!NormaliseObjectName(name, key)) {
        return nullptr;
    }
    std::string segmentName;
    try {
        segmentName = segmentNameOf(key);
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (segmentName.size() - 1 > NAME_MAX) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return nullptr;
    }
    registerForkHandlers();

    MutexNames& names = mutexNames();
    NamedMutex* mutex = nullptr;
    bool created = false;
    {
        std::lock_guard<std::mutex> guard(names.lock);
        decltype(names.byName)::iterator entry;
        try {
            entry = names.byName.try_emplace(key, nullptr).first;
        } catch (const std::bad_alloc&) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        if (entry->second != nullptr) {
            mutex = entry->second;
            mutex->addRef();
        } else {
            NamedMutex* fresh = nullptr;
            try {
                fresh = new NamedMutex(key, segmentName);
            } catch (const std::bad_alloc&) {
                names.byName.erase(entry);
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return nullptr;
            }
            Segment segment;
            if (openSegment(segmentName, mayCreate, initialOwner, segment) != ERROR_SUCCESS) {
                names.byName.erase(entry);
                delete fresh;
                return nullptr;
            }
            fresh->attach(segment);
            entry->second = fresh;
            mutex = fresh;
            created = segment.created;
        }
    }
    HANDLE handle = MakeHandle(mutex);
    if (handle != nullptr && mayCreate) {
        SetLastError(created ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS);
    }
    return handle;
}

}  // namespace

HANDLE CreateMutexA(SECURITY_ATTRIBUTES* /*attributes*/, BOOL initialOwner, const char* name) {
    registerForkHandlers();
    if (name != nullptr && *name != '\0') {
        return openNamed(name, true, initialOwner != FALSE);
    }
    auto* block = new (std::nothrow) MutexBlock{};
    if (block == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const int rc = initialiseMutex(&block->mutex, false);
    if (rc != 0) {
        delete block;
        SetLastErrorFromErrno(rc);
        return nullptr;
    }
    auto* mutex = new (std::nothrow) UnnamedMutex(block);
    if (mutex == nullptr) {
        ::pthread_mutex_destroy(&block->mutex);
        delete block;
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    HANDLE handle = MakeHandle(mutex);
    if (handle != nullptr) {
        if (initialOwner != FALSE) {
            mutex->acquireInitially();
        }
        SetLastError(ERROR_SUCCESS);
    }
    return handle;
}

HANDLE OpenMutexA(DWORD /*desiredAccess*/, BOOL /*inheritHandle*/, const char* name) {
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (*name == '\0') {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return nullptr;
    }
    registerForkHandlers();
    return openNamed(name, false, false);
}

BOOL ReleaseMutex(HANDLE handle) {
    auto* mutex = ObjectOfKind<MutexObject>(handle, Waitable::Kind::Mutex);
    return mutex != nullptr ? mutex->releaseByCaller() : FALSE;
}

}  // namespace Tessel::Platform
