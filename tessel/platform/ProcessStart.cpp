// Starting programs with posix_spawn; process handles on pidfds.
//
// The process handle's object polls the pidfd, which becomes readable when the process ends
// and stays readable after it has been reaped. The reaper is a detached thread per process
// that blocks in waitpid: it needs no SIGCHLD handler, which the host process may have set to
// its own use, and it ends with the process it waits for.
#include "tessel/platform/ProcessStart.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/detail/KernelObject.h"

extern char** environ;

namespace Tessel::Platform {
namespace {

// A started process; signalled once it has ended.
class ProcessObject final : public Waitable {
  public:
    explicit ProcessObject(int pidfd) : Waitable(Kind::Other), m_fd(pidfd) {}
    ~ProcessObject() override { ::close(m_fd); }

    Acquire tryAcquire(WaitRecord* /*record*/) override {
        return ended() ? Acquire::Taken : Acquire::None;
    }
    void undoAcquire(Acquire /*how*/, WaitRecord* /*record*/) override {}
    bool looksSignalled(const WaitRecord* /*record*/) const override { return ended(); }
    int pollFd() const override { return m_fd; }

  private:
    bool ended() const {
        pollfd entry{m_fd, POLLIN, 0};
        int ready;
        do {
            ready = ::poll(&entry, 1, 0);
        } while (ready < 0 && errno == EINTR);
        return ready > 0;
    }

    const int m_fd;
};

// The words of text, split at spaces and tabs.
std::vector<std::string> splitAtBlanks(const char* text) {
    std::vector<std::string> words;
    std::string word;
    for (const char* c = text; *c != '\0'; ++c) {
        if (*c == ' ' || *c == '\t') {
            if (!word.empty()) {
                words.push_back(std::move(word));
                word.clear();
            }
        } else {
            word += *c;
        }
    }
    if (!word.empty()) {
        words.push_back(std::move(word));
    }
    return words;
}

// Null-terminated pointers to the texts.
std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Collects the exit status of pid in the background.
void reapLater(pid_t pid) {
    try {
        std::thread([pid] {
            EnsureAlternateSignalStack();
            ::pthread_setname_np(::pthread_self(), "tessel-reaper");
            int status;
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
        }).detach();
    } catch (const std::system_error&) {
        // No thread to spare: the process stays a zombie until this one ends.
    }
}

// Starts the program with the prepared arguments. 0 or an errno value.
int spawn(pid_t& pid, const char* applicationName, std::vector<char*>& arguments,
          char* const* environment, const char* currentDirectory) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    int error = ::posix_spawn_file_actions_init(&actions);
    if (error != 0) {
        return error;
    }
    error = ::posix_spawnattr_init(&attributes);
    if (error != 0) {
        ::posix_spawn_file_actions_destroy(&actions);
        return error;
    }
    sigset_t none, all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    error = ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (error == 0 && currentDirectory != nullptr) {
        error = ::posix_spawn_file_actions_addchdir_np(&actions, currentDirectory);
    }
    if (error == 0) {
        error = ::posix_spawnattr_setsigmask(&attributes, &none);
    }
    if (error == 0) {
        error = ::posix_spawnattr_setsigdefault(&attributes, &all);
    }
    if (error == 0) {
        error =
            ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    if (error == 0) {
        error = applicationName != nullptr
                    ? ::posix_spawn(&pid, applicationName, &actions, &attributes, arguments.data(),
                                    environment)
                    : ::posix_spawnp(&pid, arguments[0], &actions, &attributes, arguments.data(),
                                     environment);
    }
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    return error;
}

}  // namespace

BOOL CreateProcessA(const char* applicationName, char* commandLine,
                    SECURITY_ATTRIBUTES* /*processAttributes*/,
                    SECURITY_ATTRIBUTES* /*threadAttributes*/, BOOL /*inheritHandles*/,
                    DWORD /*creationFlags*/, void* environment, const char* currentDirectory,
                    STARTUPINFOA* /*startupInfo*/, PROCESS_INFORMATION* information) {
    if (information == nullptr || (commandLine == nullptr && applicationName == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    pid_t pid = 0;
    int error = 0;
    try {
        std::vector<std::string> words =
            splitAtBlanks(commandLine != nullptr ? commandLine : applicationName);
        if (words.empty()) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        std::vector<char*> arguments = pointersTo(words);
        std::vector<std::string> variables;
        std::vector<char*> variablePointers;
        if (environment != nullptr) {
            for (const char* entry = static_cast<const char*>(environment); *entry != '\0';
                 entry += std::strlen(entry) + 1) {
                variables.emplace_back(entry);
            }
            variablePointers = pointersTo(variables);
        }
        error = spawn(pid, applicationName, arguments,
                      environment != nullptr ? variablePointers.data() : environ, currentDirectory);
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    if (error != 0) {
        SetLastErrorFromErrno(error == ENOEXEC ? EACCES : error);
        return FALSE;
    }

    // The pidfd is opened before the reaper may collect the process, so that it cannot name
    // another process that got the number meanwhile.
    HANDLE process = nullptr;
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    reapLater(pid);
    if (pidfd >= 0) {
        auto* object = new (std::nothrow) ProcessObject(pidfd);
        if (object != nullptr) {
            process = MakeHandle(object);
        } else {
            ::close(pidfd);
        }
    }
    information->hProcess = process;
    information->hThread = nullptr;
    information->dwProcessId = static_cast<DWORD>(pid);
    information->dwThreadId = static_cast<DWORD>(pid);
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

}  // namespace Tessel::Platform
