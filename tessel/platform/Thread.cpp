#include "tessel/platform/Thread.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {
namespace {

std::string commPath(DWORD threadId) {
    return "/proc/self/task/" + std::to_string(threadId) + "/comm";
}

}  // namespace

int NiceValueOfPriority(int priority) {
    switch (priority) {
        case THREAD_PRIORITY_IDLE:
            return 19;
        case THREAD_PRIORITY_LOWEST:
            return 10;
        case THREAD_PRIORITY_BELOW_NORMAL:
            return 5;
        case THREAD_PRIORITY_ABOVE_NORMAL:
            return -5;
        case THREAD_PRIORITY_HIGHEST:
            return -10;
        case THREAD_PRIORITY_TIME_CRITICAL:
            return -20;
        case THREAD_PRIORITY_NORMAL:
        default:
            return 0;
    }
}

BOOL SetThreadPriority(DWORD threadId, int priority) {
    if (priority < THREAD_PRIORITY_IDLE || priority > THREAD_PRIORITY_TIME_CRITICAL ||
        (priority > THREAD_PRIORITY_HIGHEST && priority < THREAD_PRIORITY_TIME_CRITICAL) ||
        (priority < THREAD_PRIORITY_LOWEST && priority > THREAD_PRIORITY_IDLE)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (::setpriority(PRIO_PROCESS, static_cast<id_t>(threadId), NiceValueOfPriority(priority)) !=
        0) {
        if (errno == EPERM || errno == EACCES) {
            return TRUE;  // a raise that the system does not allow this process
        }
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    return TRUE;
}

BOOL SetThreadName(DWORD threadId, const char* name) {
    const int fd = ::open(commPath(threadId).c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    const std::size_t length = std::min<std::size_t>(std::strlen(name), 15);
    const bool written = ::write(fd, name, length) == static_cast<ssize_t>(length);
    ::close(fd);
    return written ? TRUE : FALSE;
}

std::string GetThreadName(DWORD threadId) {
    char name[32] = {};
    const int fd = ::open(commPath(threadId).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::string();
    }
    const ssize_t n = ::read(fd, name, sizeof name - 1);
    ::close(fd);
    std::string text(name, n > 0 ? static_cast<std::size_t>(n) : 0);
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

BOOL TerminateThread(pthread_t thread, DWORD /*exitCode*/) {
    const int rc = ::pthread_cancel(thread);
    if (rc != 0) {
        SetLastErrorFromErrno(rc);
        return FALSE;
    }
    return TRUE;
}

DWORD GetProcessHandleCount() {
    DIR* fds = ::opendir("/proc/self/fd");
    if (fds == nullptr) {
        return 0;
    }
    DWORD count = 0;
    while (const dirent* entry = ::readdir(fds)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    ::closedir(fds);
    return count > 0 ? count - 1 : 0;  // less the descriptor of the listing itself
}

}  // namespace Tessel::Platform
