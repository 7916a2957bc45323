// Files on descriptors; sharing by flock.
//
// A file handle's object holds the descriptor and the access it was opened with. It is
// always signalled, as a file handle without pending I/O is on the platform. The sharing lock
// is a flock of the handle's open file description: it lives as long as the descriptor, and
// it is independent of the OFD byte-range locks that mapped sections hold, which the cutting
// operations consult (detail/FileMapping.h).
#include "tessel/platform/File.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <string>

#include "tessel/platform/FileFind.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/PendingDeletions.h"
#include "tessel/platform/detail/FileMapping.h"
#include "tessel/platform/detail/FileObject.h"
#include "tessel/platform/detail/KernelObject.h"

namespace Tessel::Platform {
namespace {

class FileObject final : public Waitable {
  public:
    // stream: a character device, read and written one call at a time.
    FileObject(int fd, DWORD access, bool stream)
        : Waitable(Kind::Other), m_fd(fd), m_access(access), m_stream(stream) {}
    ~FileObject() override { ::close(m_fd); }

    Acquire tryAcquire(WaitRecord* /*record*/) override { return Acquire::Taken; }
    void undoAcquire(Acquire /*how*/, WaitRecord* /*record*/) override {}

    int fd() const { return m_fd; }
    DWORD access() const { return m_access; }
    bool stream() const { return m_stream; }

  private:
    const int m_fd;
    const DWORD m_access;
    const bool m_stream;
};

// The file object of an open file handle, or null with ERROR_INVALID_HANDLE.
FileObject* fileOf(HANDLE file) {
    if (file == INVALID_HANDLE_VALUE) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    Waitable* object = ObjectOf(file);
    if (object == nullptr) {
        return nullptr;
    }
    auto* fileObject = dynamic_cast<FileObject*>(object);
    if (fileObject == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
    }
    return fileObject;
}

// The folder part of path, "." for a name without one.
std::string folderOf(const std::string& path) {
    const std::string::size_type slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Stores the error of a file operation on path that failed with errno e: ENOENT is
// ERROR_PATH_NOT_FOUND where the folder is missing too, a folder where a file was meant
// ERROR_ACCESS_DENIED, a full device ERROR_DISK_FULL.
DWORD setFileError(int e, const char* path = nullptr) {
    switch (e) {
        case ENOENT:
            if (path != nullptr) {
                struct stat folder {};
                if (::stat(folderOf(path).c_str(), &folder) != 0 || !S_ISDIR(folder.st_mode)) {
                    SetLastError(ERROR_PATH_NOT_FOUND);
                    return ERROR_PATH_NOT_FOUND;
                }
            }
            SetLastError(ERROR_FILE_NOT_FOUND);
            return ERROR_FILE_NOT_FOUND;
        case EISDIR:
            SetLastError(ERROR_ACCESS_DENIED);
            return ERROR_ACCESS_DENIED;
        case ENOSPC:
        case EFBIG:
        case EDQUOT:
            SetLastError(ERROR_DISK_FULL);
            return ERROR_DISK_FULL;
        case EXDEV:
            SetLastError(ERROR_NOT_SAME_DEVICE);
            return ERROR_NOT_SAME_DEVICE;
        case ELOOP:
            SetLastError(ERROR_CANTOPEN);
            return ERROR_CANTOPEN;
        default:
            return SetLastErrorFromErrno(e);
    }
}

// Opens path with flags, retrying on EINTR.
int openRetrying(const char* path, int flags) {
    int fd;
    do {
        fd = ::open(path, flags | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Opens path by the disposition; *existed tells whether the file was there before. -1 with
// errno set on failure.
int openByDisposition(const char* path, int accessFlags, DWORD disposition, bool* existed) {
    *existed = true;
    switch (disposition) {
        case CREATE_NEW:
            *existed = false;
            return openRetrying(path, accessFlags | O_CREAT | O_EXCL);
        case OPEN_EXISTING:
        case TRUNCATE_EXISTING:
            return openRetrying(path, accessFlags);
        case CREATE_ALWAYS:
        case OPEN_ALWAYS:
            // Tells a new file from an existing one, also when another process makes or
            // removes it in between.
            for (;;) {
                int fd = openRetrying(path, accessFlags | O_CREAT | O_EXCL);
                if (fd >= 0 || errno != EEXIST) {
                    *existed = false;
                    return fd;
                }
                fd = openRetrying(path, accessFlags);
                if (fd >= 0 || errno != ENOENT) {
                    return fd;
                }
            }
        default:
            errno = EINVAL;
            return -1;
    }
}

// The name of the temporary file number in folder (with its separator) and prefix (at most
// three characters).
std::string tempName(const std::string& folder, const std::string& prefix, UINT number) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%X", number & 0xFFFFu);
    return folder + prefix + digits + ".tmp";
}

// The number at which the next search for a free temporary name starts: seeded once from the
// process id and the clock, so that processes started together begin apart, and advanced by
// every call, so that calls of one process begin apart.
UINT nextTempNumber() {
    static std::atomic<UINT> next = [] {
        struct timespec now {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<UINT>(::getpid()) * 40503u + static_cast<UINT>(now.tv_nsec / 1000);
    }();
    // Relaxed: the number is only a starting point; O_EXCL decides which file is whose.
    return next.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

int FileDescriptorOf(HANDLE file) {
    FileObject* object = fileOf(file);
    return object != nullptr ? object->fd() : -1;
}

DWORD FileAccessOf(HANDLE file) {
    FileObject* object = fileOf(file);
    return object != nullptr ? object->access() : 0;
}

HANDLE MakeFileHandle(int fd, DWORD access) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        setFileError(errno);
        ::close(fd);
        return INVALID_HANDLE_VALUE;
    }
    auto* object = new (std::nothrow)
        FileObject(fd, access & (GENERIC_READ | GENERIC_WRITE), S_ISCHR(status.st_mode));
    if (object == nullptr) {
        ::close(fd);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    HANDLE handle = MakeHandle(object);
    return handle != nullptr ? handle : INVALID_HANDLE_VALUE;
}

HANDLE CreateFileA(const char* fileName, DWORD desiredAccess, DWORD shareMode,
                   SECURITY_ATTRIBUTES* /*attributes*/, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE /*templateFile*/) {
    if (fileName == nullptr || *fileName == '\0' || creationDisposition < CREATE_NEW ||
        creationDisposition > TRUNCATE_EXISTING ||
        (creationDisposition == TRUNCATE_EXISTING && (desiredAccess & GENERIC_WRITE) == 0)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    const bool reads = (desiredAccess & GENERIC_READ) != 0;
    const bool writes = (desiredAccess & GENERIC_WRITE) != 0;
    int flags = writes ? (reads ? O_RDWR : O_WRONLY) : O_RDONLY;
    if ((flagsAndAttributes & FILE_FLAG_WRITE_THROUGH) != 0) {
        flags |= O_DSYNC;
    }

    bool existed = true;
    const int fd = openByDisposition(fileName, flags, creationDisposition, &existed);
    if (fd < 0) {
        const int e = errno;
        if (e == EEXIST) {
            SetLastError(ERROR_FILE_EXISTS);
        } else {
            setFileError(e, fileName);
        }
        return INVALID_HANDLE_VALUE;
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || S_ISDIR(status.st_mode)) {
        ::close(fd);
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    int locked;
    do {
        locked = ::flock(fd, (shareMode == 0 ? LOCK_EX : LOCK_SH) | LOCK_NB);
    } while (locked != 0 && errno == EINTR);
    if (locked != 0) {
        const int e = errno;
        ::close(fd);
        if (e == EWOULDBLOCK) {
            SetLastError(ERROR_SHARING_VIOLATION);
        } else {
            setFileError(e);
        }
        return INVALID_HANDLE_VALUE;
    }
    if (existed &&
        (creationDisposition == CREATE_ALWAYS || creationDisposition == TRUNCATE_EXISTING) &&
        status.st_size != 0) {
        if (MappedSectionInTheWay(fd, 0)) {
            ::close(fd);
            SetLastError(ERROR_USER_MAPPED_FILE);
            return INVALID_HANDLE_VALUE;
        }
        if (::ftruncate(fd, 0) != 0) {
            const int e = errno;
            ::close(fd);
            setFileError(e);
            return INVALID_HANDLE_VALUE;
        }
    }

    auto* object = new (std::nothrow)
        FileObject(fd, desiredAccess & (GENERIC_READ | GENERIC_WRITE), S_ISCHR(status.st_mode));
    if (object == nullptr) {
        ::close(fd);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    HANDLE handle = MakeHandle(object);
    if (handle == nullptr) {
        return INVALID_HANDLE_VALUE;
    }
    SetLastError(
        existed && (creationDisposition == CREATE_ALWAYS || creationDisposition == OPEN_ALWAYS)
            ? ERROR_ALREADY_EXISTS
            : ERROR_SUCCESS);
    return handle;
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead, void* overlapped) {
    if (bytesRead != nullptr) {
        *bytesRead = 0;
    }
    FileObject* object = fileOf(file);
    if (object == nullptr) {
        return FALSE;
    }
    if (overlapped != nullptr || (buffer == nullptr && bytesToRead != 0)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if ((object->access() & GENERIC_READ) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    auto* bytes = static_cast<unsigned char*>(buffer);
    DWORD done = 0;
    while (done < bytesToRead) {
        const ssize_t n = ::read(object->fd(), bytes + done, bytesToRead - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            setFileError(errno);
            if (bytesRead != nullptr) {
                *bytesRead = done;
            }
            return FALSE;
        }
        done += static_cast<DWORD>(n);
        if (n == 0 || object->stream()) {
            break;
        }
    }
    if (bytesRead != nullptr) {
        *bytesRead = done;
    }
    return TRUE;
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten,
               void* overlapped) {
    if (bytesWritten != nullptr) {
        *bytesWritten = 0;
    }
    FileObject* object = fileOf(file);
    if (object == nullptr) {
        return FALSE;
    }
    if (overlapped != nullptr || (buffer == nullptr && bytesToWrite != 0)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if ((object->access() & GENERIC_WRITE) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    DWORD done = 0;
    while (done < bytesToWrite) {
        const ssize_t n = ::write(object->fd(), bytes + done, bytesToWrite - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            setFileError(errno);
            if (bytesWritten != nullptr) {
                *bytesWritten = done;
            }
            return FALSE;
        }
        done += static_cast<DWORD>(n);
        if (object->stream()) {
            break;
        }
    }
    if (bytesWritten != nullptr) {
        *bytesWritten = done;
    }
    return TRUE;
}

BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* newPosition,
                      DWORD moveMethod) {
    FileObject* object = fileOf(file);
    if (object == nullptr) {
        return FALSE;
    }
    int whence;
    switch (moveMethod) {
        case FILE_BEGIN:
            whence = SEEK_SET;
            break;
        case FILE_CURRENT:
            whence = SEEK_CUR;
            break;
        case FILE_END:
            whence = SEEK_END;
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
    }
    if (moveMethod == FILE_BEGIN && distance.QuadPart < 0) {
        SetLastError(ERROR_NEGATIVE_SEEK);
        return FALSE;
    }
    const off_t position = ::lseek(object->fd(), static_cast<off_t>(distance.QuadPart), whence);
    if (position < 0) {
        if (errno == EINVAL) {
            SetLastError(ERROR_NEGATIVE_SEEK);
        } else {
            setFileError(errno);
        }
        return FALSE;
    }
    if (newPosition != nullptr) {
        newPosition->QuadPart = position;
    }
    return TRUE;
}

BOOL SetEndOfFile(HANDLE file) {
    FileObject* object = fileOf(file);
    if (object == nullptr) {
        return FALSE;
    }
    if ((object->access() & GENERIC_WRITE) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    const int fd = object->fd();
    const off_t position = ::lseek(fd, 0, SEEK_CUR);
    struct stat status {};
    if (position < 0 || ::fstat(fd, &status) != 0) {
        setFileError(errno);
        return FALSE;
    }
    if (position < status.st_size &&
        MappedSectionInTheWay(fd, static_cast<std::uint64_t>(position))) {
        SetLastError(ERROR_USER_MAPPED_FILE);
        return FALSE;
    }
    int result;
    do {
        result = ::ftruncate(fd, position);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        setFileError(errno);
        return FALSE;
    }
    return TRUE;
}

BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size) {
    FileObject* object = fileOf(file);
    if (object == nullptr) {
        return FALSE;
    }
    if (size == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    struct stat status {};
    if (::fstat(object->fd(), &status) != 0) {
        setFileError(errno);
        return FALSE;
    }
    size->QuadPart = status.st_size;
    return TRUE;
}

BOOL FlushFileBuffers(HANDLE file) {
    FileObject* object = fileOf(file);
    if (object == nullptr) {
        return FALSE;
    }
    if (::fsync(object->fd()) != 0) {
        setFileError(errno);
        return FALSE;
    }
    return TRUE;
}

BOOL DeleteFileA(const char* fileName) {
    if (fileName == nullptr || *fileName == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (::unlink(fileName) != 0) {
        setFileError(errno, fileName);
        return FALSE;
    }
    return TRUE;
}

BOOL MoveFileExA(const char* existingName, const char* newName, DWORD flags) {
    if ((flags & MOVEFILE_DELAY_UNTIL_REBOOT) != 0) {
        if (existingName == nullptr || *existingName == '\0') {
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        if (newName != nullptr) {
            SetLastError(ERROR_NOT_SUPPORTED);
            return FALSE;
        }
        return MarkForDeletionAtReboot(existingName);
    }
    if (existingName == nullptr || *existingName == '\0' || newName == nullptr ||
        *newName == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const unsigned int renameFlags =
        (flags & MOVEFILE_REPLACE_EXISTING) != 0 ? 0u : static_cast<unsigned int>(RENAME_NOREPLACE);
    if (::renameat2(AT_FDCWD, existingName, AT_FDCWD, newName, renameFlags) != 0) {
        if (errno == EEXIST) {
            SetLastError(ERROR_ALREADY_EXISTS);
        } else {
            setFileError(errno, existingName);
        }
        return FALSE;
    }
    if ((flags & MOVEFILE_WRITE_THROUGH) != 0) {
        const int folder = openRetrying(folderOf(newName).c_str(), O_RDONLY | O_DIRECTORY);
        if (folder < 0) {
            setFileError(errno);
            return FALSE;
        }
        const int synced = ::fsync(folder);
        const int e = errno;
        ::close(folder);
        if (synced != 0) {
            setFileError(e);
            return FALSE;
        }
    }
    return TRUE;
}

BOOL CopyFileA(const char* existingName, const char* newName, BOOL failIfExists) {
    if (existingName == nullptr || *existingName == '\0' || newName == nullptr ||
        *newName == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const int source = openRetrying(existingName, O_RDONLY);
    if (source < 0) {
        setFileError(errno, existingName);
        return FALSE;
    }
    struct stat info {};
    if (::fstat(source, &info) != 0 || S_ISDIR(info.st_mode)) {
        const int e = S_ISDIR(info.st_mode) ? EISDIR : errno;
        ::close(source);
        setFileError(e);
        return FALSE;
    }
    const int target =
        openRetrying(newName, O_WRONLY | O_CREAT | (failIfExists ? O_EXCL : O_TRUNC));
    if (target < 0) {
        const int e = errno;
        ::close(source);
        if (e == EEXIST) {
            SetLastError(ERROR_FILE_EXISTS);
        } else {
            setFileError(e, newName);
        }
        return FALSE;
    }
    // copy_file_range lets the file system share or copy the blocks itself; read and write
    // are the way where it cannot (another file system, an old kernel).
    int e = 0;
    for (;;) {
        const ssize_t n = ::copy_file_range(source, nullptr, target, nullptr, 1 << 30, 0);
        if (n > 0) {
            continue;
        }
        if (n == 0) {
            break;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP) {
            e = errno;
            break;
        }
        char buffer[65536];
        for (;;) {
            const ssize_t got = ::read(source, buffer, sizeof buffer);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                e = got < 0 ? errno : 0;
                break;
            }
            for (ssize_t done = 0; done < got && e == 0;) {
                const ssize_t put = ::write(target, buffer + done, static_cast<size_t>(got - done));
                if (put < 0 && errno != EINTR) {
                    e = errno;
                } else if (put > 0) {
                    done += put;
                }
            }
            if (e != 0) {
                break;
            }
        }
        break;
    }
    if (e == 0) {
        ::fchmod(target, info.st_mode & 07777);
        const struct timespec times[2] = {info.st_atim, info.st_mtim};
        ::futimens(target, times);
    }
    ::close(source);
    if (::close(target) != 0 && e == 0) {
        e = errno;
    }
    if (e != 0) {
        ::unlink(newName);
        setFileError(e);
        return FALSE;
    }
    return TRUE;
}

BOOL CreateDirectoryA(const char* pathName, SECURITY_ATTRIBUTES* /*securityAttributes*/) {
    if (pathName == nullptr || *pathName == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (::mkdir(pathName, 0777) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            SetLastError(ERROR_PATH_NOT_FOUND);
        } else {
            SetLastErrorFromErrno(errno);
        }
        return FALSE;
    }
    return TRUE;
}

BOOL RemoveDirectoryA(const char* pathName) {
    if (pathName == nullptr || *pathName == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::string name(pathName);
    while (name.size() > 1 && name.back() == '/') {
        name.pop_back();
    }
    struct stat own {};
    struct stat target {};
    if (::lstat(name.c_str(), &own) == 0 && S_ISLNK(own.st_mode) &&
        ::stat(name.c_str(), &target) == 0 && S_ISDIR(target.st_mode)) {
        if (::unlink(name.c_str()) == 0) {
            return TRUE;
        }
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    if (::rmdir(pathName) != 0) {
        switch (errno) {
            case ENOTEMPTY:
            case EEXIST:
                SetLastError(ERROR_DIR_NOT_EMPTY);
                break;
            case ENOTDIR: {
                struct stat info {};
                SetLastError(::stat(pathName, &info) == 0 ? ERROR_DIRECTORY : ERROR_PATH_NOT_FOUND);
                break;
            }
            case EBUSY:
            case EINVAL:
                SetLastError(ERROR_ACCESS_DENIED);
                break;
            default: {
                std::string path(pathName);
                while (path.size() > 1 && path.back() == '/') {
                    path.pop_back();
                }
                setFileError(errno, path.c_str());
            }
        }
        return FALSE;
    }
    return TRUE;
}

UINT GetTempFileNameA(const char* path, const char* prefix, UINT unique, char* tempFileName) {
    if (tempFileName != nullptr) {
        *tempFileName = '\0';
    }
    if (path == nullptr || prefix == nullptr || tempFileName == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::string folder(path);
    if (!folder.empty() && folder.back() != '/' && folder.back() != '\\') {
        folder += '/';
    }
    const std::string lead(prefix, ::strnlen(prefix, 3));
    // Stores name as the result if it fits with its NUL.
    const auto store = [tempFileName](const std::string& name) {
        if (name.size() >= MAX_PATH) {
            SetLastError(ERROR_BUFFER_OVERFLOW);
            return false;
        }
        std::memcpy(tempFileName, name.c_str(), name.size() + 1);
        return true;
    };
    if (unique != 0) {
        return store(tempName(folder, lead, unique)) ? unique : 0;
    }
    const UINT start = nextTempNumber();
    for (UINT step = 0; step <= 0xFFFFu; ++step) {
        const UINT number = (start + step) & 0xFFFFu;
        if (number == 0) {
            continue;  // 0 is the failure result
        }
        const std::string name = tempName(folder, lead, number);
        if (name.size() >= MAX_PATH) {
            SetLastError(ERROR_BUFFER_OVERFLOW);
            return 0;
        }
        const int fd = openRetrying(name.c_str(), O_WRONLY | O_CREAT | O_EXCL);
        if (fd >= 0) {
            ::close(fd);
            store(name);
            return number;
        }
        if (errno != EEXIST) {
            setFileError(errno, name.c_str());
            return 0;
        }
    }
    SetLastError(ERROR_FILE_EXISTS);
    return 0;
}

DWORD GetFileType(HANDLE file) {
    FileObject* object = fileOf(file);
    if (object == nullptr) {
        return FILE_TYPE_UNKNOWN;
    }
    struct stat status {};
    if (::fstat(object->fd(), &status) != 0) {
        setFileError(errno);
        return FILE_TYPE_UNKNOWN;
    }
    SetLastError(ERROR_SUCCESS);
    if (S_ISCHR(status.st_mode)) {
        return FILE_TYPE_CHAR;
    }
    if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode)) {
        return FILE_TYPE_PIPE;
    }
    return S_ISREG(status.st_mode) || S_ISBLK(status.st_mode) || S_ISDIR(status.st_mode)
               ? FILE_TYPE_DISK
               : FILE_TYPE_UNKNOWN;
}

DWORD GetFinalPathNameByHandleA(HANDLE file, char* buffer, DWORD size, DWORD /*flags*/) {
    const int fd = FileDescriptorOf(file);
    if (fd < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    char link[32];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char path[4096];
    const ssize_t length = ::readlink(link, path, sizeof path);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof path) {
        if (length <= 0) {
            SetLastErrorFromErrno(errno);
        } else {
            SetLastError(ERROR_BUFFER_OVERFLOW);
        }
        return 0;
    }
    if (buffer == nullptr || static_cast<DWORD>(length) >= size) {
        return static_cast<DWORD>(length) + 1;
    }
    std::memcpy(buffer, path, static_cast<size_t>(length));
    buffer[length] = '\0';
    return static_cast<DWORD>(length);
}

}  // namespace Tessel::Platform
