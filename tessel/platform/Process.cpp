#include "tessel/platform/Process.h"

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "tessel/platform/LastError.h"
#include "tessel/platform/detail/Modules.h"

namespace Tessel::Platform {

namespace {
// The calling thread's id, 0 until first asked for. A forked child's only thread has an id of
// its own, so the child forgets the id that it inherited.
thread_local DWORD t_threadId = 0;

const int g_forgetThreadIdInChild = ::pthread_atfork(nullptr, nullptr, [] { t_threadId = 0; });
}  // namespace

DWORD GetCurrentThreadId() {
    if (t_threadId == 0) {
        t_threadId = static_cast<DWORD>(::gettid());
    }
    return t_threadId;
}

DWORD GetCurrentProcessId() {
    return static_cast<DWORD>(::getpid());
}

DWORD GetNumberOfUsableProcessors() {
    cpu_set_t mask;
    CPU_ZERO(&mask);
    if (::sched_getaffinity(0, sizeof mask, &mask) == 0) {
        const int count = CPU_COUNT(&mask);
        if (count > 0) {
            return static_cast<DWORD>(count);
        }
    }
    // A mask wider than cpu_set_t (more than 1024 processors) is refused with EINVAL.
    const long online = ::sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<DWORD>(online) : 1;
}

std::string GetExecutablePath() {
    char buffer[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) {
        return std::string();
    }
    return std::string(buffer, static_cast<std::size_t>(n));
}

std::string GetExecutableName() {
    const std::string path = GetExecutablePath();
    std::string name = path.substr(path.rfind('/') + 1);
    const std::size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0) {
        name.erase(dot);
    }
    return name;
}

std::string GetApplicationDirectory() {
    const char* dir = std::getenv("TESSEL_APP_DIR");
    if (dir != nullptr && *dir != '\0') {
        std::string result(dir);
        while (result.size() > 1 && result.back() == '/') {
            result.pop_back();
        }
        return result;
    }
    const std::string exe = GetExecutablePath();
    const std::size_t slash = exe.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? std::string("/") : exe.substr(0, slash);
}

std::string GetModulePath() {
    const std::string exe = GetExecutablePath();
    const std::size_t slash = exe.rfind('/');
    const std::string name = slash == std::string::npos ? exe : exe.substr(slash + 1);
    std::string dir = GetApplicationDirectory();
    if (dir.back() != '/') {
        dir += '/';
    }
    return dir + name;
}

DWORD GetModuleFileNameA(char* buffer, DWORD size) {
    return CopyModulePath(GetModulePath(), buffer, size);
}

}  // namespace Tessel::Platform
