// Mapping objects on descriptors of their own, views in a table by address.
//
// A mapping object opens its file anew through /proc/self/fd, which gives it an open file
// description of its own: its OFD read lock then conflicts with a write lock asked for through
// any other open of the file, the file handle it was made from included. Where /proc is not
// mounted it falls back to a duplicate of the handle's descriptor, whose lock the handle
// itself cannot see.
//
// Read-only views are cut from spans. Unmapping a range that was read costs a flush of the
// translation buffers, which on virtual machines dwarfs the copy of the bytes: a reader that
// moves a 64 KiB window along a file would spend most of its time in munmap. So a mapping
// object maps its section for reading in aligned spans of 16 MiB, hands out read-only views
// that fit within one span as pointers into it, and keeps a span mapped after its last view
// is gone, up to two idle spans per mapping object (the least recently used one goes first);
// all go with the mapping object. A view that crosses a span boundary, and every writable
// view, is an mmap of its own. Views of one range may therefore share their address.
#include "tessel/platform/FileMapping.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "tessel/platform/File.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/SystemInfo.h"
#include "tessel/platform/detail/FileMapping.h"
#include "tessel/platform/detail/FileObject.h"
#include "tessel/platform/detail/KernelObject.h"

namespace Tessel::Platform {
namespace {

// The spans of read-only views: their size, a multiple of the allocation granularity, and how
// many a mapping object keeps mapped without a view.
constexpr std::uint64_t kSpanSize = std::uint64_t{16} << 20;
constexpr std::size_t kIdleSpans = 2;

// How often, and how long apart, a mapping tries again for its lock while someone else holds
// a write lock of the section's bytes for a moment (a truncation in progress).
constexpr int kLockAttempts = 1000;
constexpr useconds_t kLockRetryUs = 1000;

// The open file description lock of fd over [start, start + length); length 0 reaches to the
// end of any file size. type: F_RDLCK, F_WRLCK or F_UNLCK.
struct flock lockRange(short type, std::uint64_t start, std::uint64_t length) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(start);
    range.l_len = static_cast<off_t>(length);
    range.l_pid = 0;  // required for open file description locks
    return range;
}

// A section of a file. Never signalled: a wait on it fails.
class FileMappingObject final : public Waitable {
  public:
    FileMappingObject(int fd, std::uint64_t size, DWORD protect)
        : Waitable(Kind::Other), m_fd(fd), m_size(size), m_protect(protect) {
        lock();
    }
    ~FileMappingObject() override {
        for (const Span& span : m_spans) {
            ::munmap(span.address, span.length);
        }
        ::close(m_fd);  // ends the lock with the description
    }

    Acquire tryAcquire(WaitRecord* /*record*/) override {
        SetLastError(ERROR_INVALID_HANDLE);
        return Acquire::Failed;
    }
    void undoAcquire(Acquire /*how*/, WaitRecord* /*record*/) override {}

    int fd() const { return m_fd; }
    std::uint64_t size() const { return m_size; }
    DWORD protect() const { return m_protect; }

    // A read-only view of bytes bytes from offset within one span, mapping the span where
    // needed; null (errno set where mapping failed) when the range crosses a span boundary
    // or the span cannot be mapped.
    unsigned char* spanView(std::uint64_t offset, std::size_t bytes) {
        const std::uint64_t start = offset - offset % kSpanSize;
        const std::uint64_t end = m_size - start < kSpanSize ? m_size : start + kSpanSize;
        if (bytes > end - offset) {
            return nullptr;
        }
        std::lock_guard<std::mutex> guard(m_spanLock);
        for (Span& span : m_spans) {
            if (span.offset == start) {
                ++span.views;
                return span.address + (offset - start);
            }
        }
        dropIdleSpans(kIdleSpans - 1);
        const auto length = static_cast<std::size_t>(end - start);
        void* address =
            ::mmap(nullptr, length, PROT_READ, MAP_SHARED, m_fd, static_cast<off_t>(start));
        if (address == MAP_FAILED) {
            return nullptr;
        }
        try {
            m_spans.push_back(Span{start, length, static_cast<unsigned char*>(address), 1, 0});
        } catch (const std::bad_alloc&) {
            ::munmap(address, length);
            errno = ENOMEM;
            return nullptr;
        }
        return static_cast<unsigned char*>(address) + (offset - start);
    }

    // The view at address of a span is gone; the span stays mapped.
    void endSpanView(const void* address) {
        const auto* at = static_cast<const unsigned char*>(address);
        std::lock_guard<std::mutex> guard(m_spanLock);
        for (Span& span : m_spans) {
            if (at >= span.address && at < span.address + span.length && span.views > 0) {
                --span.views;
                span.lastUse = ++m_uses;
                return;
            }
        }
    }

  private:
    struct Span {
        std::uint64_t offset;
        std::size_t length;
        unsigned char* address;
        unsigned views;
        std::uint64_t lastUse;  // m_uses when its last view ended
    };

    // Unmaps idle spans, the least recently used first, until at most keep are left. Under
    // m_spanLock.
    void dropIdleSpans(std::size_t keep) {
        for (;;) {
            std::size_t idle = 0;
            auto oldest = m_spans.end();
            for (auto span = m_spans.begin(); span != m_spans.end(); ++span) {
                if (span->views == 0) {
                    ++idle;
                    if (oldest == m_spans.end() || span->lastUse < oldest->lastUse) {
                        oldest = span;
                    }
                }
            }
            if (idle <= keep) {
                return;
            }
            ::munmap(oldest->address, oldest->length);
            m_spans.erase(oldest);
        }
    }

    // Takes the read lock of the section's bytes, trying again while a write lock of someone
    // else is in the way; without it after kLockAttempts.
    void lock() {
        struct flock range = lockRange(F_RDLCK, 0, m_size);
        for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
            if (::fcntl(m_fd, F_OFD_SETLK, &range) == 0) {
                return;
            }
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN && errno != EACCES) {
                return;  // the file system has no locks: the mapping does without
            }
            ::usleep(kLockRetryUs);
        }
    }

    const int m_fd;
    const std::uint64_t m_size;
    const DWORD m_protect;
    std::mutex m_spanLock;
    std::vector<Span> m_spans;
    std::uint64_t m_uses = 0;
};

// One mapped view: its length, the mapping object it holds a reference of, and whether it
// lies in a span of that object rather than in an mmap of its own.
struct View {
    std::size_t length;
    FileMappingObject* mapping;
    bool inSpan;
};

// The views of the process by their first byte; views of one range of a span share it. Never
// destroyed, so that views unmapped by static destructors still find it.
struct ViewTable {
    std::mutex lock;
    std::multimap<std::uintptr_t, View> views;
};

void lockViewsForFork();
void unlockViewsAfterFork();

ViewTable& viewTable() {
    static ViewTable* const table = [] {
        auto* made = new ViewTable;
        // A fork from another thread while the table's lock is held must not leave the
        // child with a lock that nobody will release. The lock is a leaf: nothing else is
        // locked while it is held.
        ::pthread_atfork(&lockViewsForFork, &unlockViewsAfterFork, &unlockViewsAfterFork);
        return made;
    }();
    return *table;
}

void lockViewsForFork() {
    viewTable().lock.lock();
}

void unlockViewsAfterFork() {
    viewTable().lock.unlock();
}

// A descriptor of its own open file description for the file of fd, read-only or for reading
// and writing; -1 with errno set.
int reopen(int fd, bool write) {
    const int flags = (write ? O_RDWR : O_RDONLY) | O_CLOEXEC;
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    int own;
    do {
        own = ::open(path.c_str(), flags);
    } while (own < 0 && errno == EINTR);
    if (own >= 0 || (errno != ENOENT && errno != ENOTDIR)) {
        return own;
    }
    return ::fcntl(fd, F_DUPFD_CLOEXEC, 0);  // no /proc
}

// The mapping object of a handle, or null with ERROR_INVALID_HANDLE.
FileMappingObject* mappingOf(HANDLE handle) {
    auto* mapping = dynamic_cast<FileMappingObject*>(ObjectOf(handle));
    if (mapping == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
    }
    return mapping;
}

// The view that holds address, under the table's lock; views.end() if none.
std::multimap<std::uintptr_t, View>::iterator viewHolding(ViewTable& table, const void* address) {
    const auto at = reinterpret_cast<std::uintptr_t>(address);
    auto next = table.views.upper_bound(at);
    if (next == table.views.begin()) {
        return table.views.end();
    }
    auto view = std::prev(next);
    return at - view->first < view->second.length ? view : table.views.end();
}

}  // namespace

bool MappedSectionInTheWay(int fd, std::uint64_t newSize) {
    struct flock range = lockRange(F_WRLCK, newSize, 0);
    int result;
    do {
        result = ::fcntl(fd, F_OFD_GETLK, &range);
    } while (result < 0 && errno == EINTR);
    return result == 0 && range.l_type == F_RDLCK;
}

HANDLE CreateFileMappingA(HANDLE file, SECURITY_ATTRIBUTES* /*attributes*/, DWORD protect,
                          DWORD maximumSizeHigh, DWORD maximumSizeLow, const char* name) {
    if (name != nullptr) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return nullptr;
    }
    bool write = false;
    DWORD needed = GENERIC_READ;
    switch (protect) {
        case PAGE_READONLY:
        case PAGE_WRITECOPY:
            break;
        case PAGE_READWRITE:
            write = true;
            needed |= GENERIC_WRITE;
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
    }
    const int fd = FileDescriptorOf(file);
    if (fd < 0) {
        return nullptr;
    }
    if ((FileAccessOf(file) & needed) != needed) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    struct stat status;
    if (::fstat(fd, &status) != 0) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    const auto fileSize = static_cast<std::uint64_t>(status.st_size);
    std::uint64_t size = (std::uint64_t{maximumSizeHigh} << 32) | maximumSizeLow;
    if (size == 0) {
        if (fileSize == 0) {
            SetLastError(ERROR_FILE_INVALID);
            return nullptr;
        }
        size = fileSize;
    } else if (size > fileSize && !write) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const int own = reopen(fd, write);
    if (own < 0) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    if (size > fileSize && ::ftruncate(own, static_cast<off_t>(size)) != 0) {
        SetLastErrorFromErrno(errno);
        ::close(own);
        return nullptr;
    }
    auto* mapping = new (std::nothrow) FileMappingObject(own, size, protect);
    if (mapping == nullptr) {
        ::close(own);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return MakeHandle(mapping);
}

void* MapViewOfFile(HANDLE handle, DWORD desiredAccess, DWORD fileOffsetHigh, DWORD fileOffsetLow,
                    std::size_t bytes) {
    FileMappingObject* mapping = mappingOf(handle);
    if (mapping == nullptr) {
        return nullptr;
    }
    const std::uint64_t offset = (std::uint64_t{fileOffsetHigh} << 32) | fileOffsetLow;
    if (offset % ALLOCATION_GRANULARITY != 0) {
        SetLastError(ERROR_MAPPED_ALIGNMENT);
        return nullptr;
    }
    const std::uint64_t size = mapping->size();
    if (offset >= size || bytes > size - offset) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    const std::size_t length = bytes != 0 ? bytes : static_cast<std::size_t>(size - offset);
    int protection = PROT_READ;
    int sharing = MAP_SHARED;
    if (desiredAccess == FILE_MAP_COPY) {
        protection |= PROT_WRITE;
        sharing = MAP_PRIVATE;
    } else if ((desiredAccess & FILE_MAP_WRITE) != 0) {
        if (mapping->protect() != PAGE_READWRITE) {
            SetLastError(ERROR_ACCESS_DENIED);
            return nullptr;
        }
        protection |= PROT_WRITE;
    } else if ((desiredAccess & FILE_MAP_READ) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    if (mapping->protect() == PAGE_WRITECOPY) {
        sharing = MAP_PRIVATE;
    }
    void* view = protection == PROT_READ ? mapping->spanView(offset, length) : nullptr;
    const bool inSpan = view != nullptr;
    if (!inSpan) {
        view =
            ::mmap(nullptr, length, protection, sharing, mapping->fd(), static_cast<off_t>(offset));
        if (view == MAP_FAILED) {
            SetLastErrorFromErrno(errno);
            return nullptr;
        }
    }
    try {
        ViewTable& table = viewTable();
        std::lock_guard<std::mutex> guard(table.lock);
        table.views.emplace(reinterpret_cast<std::uintptr_t>(view), View{length, mapping, inSpan});
    } catch (const std::bad_alloc&) {
        if (inSpan) {
            mapping->endSpanView(view);
        } else {
            ::munmap(view, length);
        }
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    mapping->addRef();
    return view;
}

BOOL UnmapViewOfFile(const void* baseAddress) {
    View view{};
    {
        ViewTable& table = viewTable();
        std::lock_guard<std::mutex> guard(table.lock);
        const auto found = table.views.find(reinterpret_cast<std::uintptr_t>(baseAddress));
        if (found == table.views.end()) {
            SetLastError(ERROR_INVALID_ADDRESS);
            return FALSE;
        }
        view = found->second;
        table.views.erase(found);
    }
    if (view.inSpan) {
        view.mapping->endSpanView(baseAddress);
    } else {
        ::munmap(const_cast<void*>(baseAddress), view.length);
    }
    view.mapping->release();
    return TRUE;
}

BOOL FlushViewOfFile(const void* baseAddress, std::size_t bytes) {
    std::uintptr_t start = 0;
    std::size_t length = 0;
    {
        ViewTable& table = viewTable();
        std::lock_guard<std::mutex> guard(table.lock);
        const auto view = viewHolding(table, baseAddress);
        if (view == table.views.end()) {
            SetLastError(ERROR_INVALID_ADDRESS);
            return FALSE;
        }
        const auto at = reinterpret_cast<std::uintptr_t>(baseAddress);
        const std::size_t left = view->second.length - (at - view->first);
        const long page = ::sysconf(_SC_PAGESIZE);
        start = at - at % static_cast<std::uintptr_t>(page > 0 ? page : 4096);
        length = (at - start) + (bytes == 0 || bytes > left ? left : bytes);
    }
    if (::msync(reinterpret_cast<void*>(start), length, MS_SYNC) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    return TRUE;
}

}  // namespace Tessel::Platform
