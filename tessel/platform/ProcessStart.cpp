// Starting programs with posix_spawn; process handles on pidfds.
//
// The process handle's object polls the pidfd, which becomes readable when the process ends
// and stays readable after it has been reaped. The reaper is a detached thread per process
// that blocks in waitpid: it needs no SIGCHLD handler, which the host process may have set to
// its own use, and it ends with the process it waits for.
//
// Termination signals the process through its pidfd, which cannot name another process that
// got the number after this one was reaped. A process group is signalled by its number: the
// kernel does not hand out a group's number while a process of the group lives, so the group
// kill can only miss its target once the group is empty, when there is nothing left to kill.
#include "tessel/platform/ProcessStart.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
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
#include "tessel/platform/detail/Spawn.h"

extern char** environ;

namespace Tessel::Platform {
namespace {

// The shell that runs batch files.
const char* const kShell = "/bin/sh";

// A started process; signalled once it has ended.
class ProcessObject final : public Waitable {
  public:
    ProcessObject(int pidfd, pid_t pid, bool ownGroup)
        : Waitable(Kind::Other), m_fd(pidfd), m_pid(pid), m_ownGroup(ownGroup) {}
    ~ProcessObject() override { ::close(m_fd); }

    // SIGKILL to the process group, if the process leads one, and to the process.
    BOOL terminate() const {
        if (m_ownGroup && ::kill(-m_pid, SIGKILL) < 0 && errno != ESRCH) {
            SetLastErrorFromErrno(errno);
            return FALSE;
        }
        if (::syscall(SYS_pidfd_send_signal, m_fd, SIGKILL, nullptr, 0) < 0 && errno != ESRCH) {
            SetLastErrorFromErrno(errno);
            return FALSE;
        }
        return TRUE;
    }

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
    const pid_t m_pid;
    const bool m_ownGroup;
};

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// Whether name ends in ".bat" or ".cmd", in any case.
bool isBatchFile(const std::string& name) {
    if (name.size() < 4) {
        return false;
    }
    std::string extension = name.substr(name.size() - 4);
    for (char& c : extension) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return extension == ".bat" || extension == ".cmd";
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

}  // namespace

std::vector<std::string> SplitCommandLine(const char* commandLine) {
    std::vector<std::string> words;
    if (commandLine == nullptr) {
        return words;
    }
    const char* c = commandLine;
    while (isBlank(*c)) {
        ++c;
    }
    if (*c == '\0') {
        return words;
    }
    // The program: quotes group, backslashes are plain characters.
    std::string word;
    bool quoted = false;
    for (; *c != '\0' && (quoted || !isBlank(*c)); ++c) {
        if (*c == '"') {
            quoted = !quoted;
        } else {
            word += *c;
        }
    }
    words.push_back(std::move(word));

    for (;;) {
        while (isBlank(*c)) {
            ++c;
        }
        if (*c == '\0') {
            return words;
        }
        word.clear();
        quoted = false;
        while (*c != '\0' && (quoted || !isBlank(*c))) {
            if (*c == '\\') {
                std::size_t count = 0;
                while (c[count] == '\\') {
                    ++count;
                }
                if (c[count] != '"') {
                    word.append(count, '\\');  // not before a quote: literal
                    c += count;
                    continue;
                }
                word.append(count / 2, '\\');
                c += count;
                if (count % 2 == 1) {
                    word += '"';  // an escaped quote
                    ++c;
                }
                continue;  // after an even count, the quote groups
            }
            if (*c == '"') {
                if (quoted && c[1] == '"') {
                    word += '"';  // "" inside quotes, and the quotation goes on
                    c += 2;
                } else {
                    quoted = !quoted;
                    ++c;
                }
                continue;
            }
            word += *c++;
        }
        words.push_back(std::move(word));
    }
}

BOOL CreateProcessA(const char* applicationName, char* commandLine,
                    SECURITY_ATTRIBUTES* /*processAttributes*/,
                    SECURITY_ATTRIBUTES* /*threadAttributes*/, BOOL /*inheritHandles*/,
                    DWORD creationFlags, void* environment, const char* currentDirectory,
                    STARTUPINFOA* /*startupInfo*/, PROCESS_INFORMATION* information) {
    if (information == nullptr || (commandLine == nullptr && applicationName == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    pid_t pid = 0;
    int error = 0;
    try {
        std::vector<std::string> words =
            SplitCommandLine(commandLine != nullptr ? commandLine : applicationName);
        if (words.empty()) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        // A batch file is the script of a shell.
        std::string batchFile = applicationName != nullptr ? applicationName : words[0];
        if (isBatchFile(batchFile)) {
            words[0] = std::move(batchFile);
            words.insert(words.begin(), kShell);
            applicationName = kShell;
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
        SpawnOptions options;
        options.program = applicationName;
        options.currentDirectory = currentDirectory;
        options.newGroup = (creationFlags & CREATE_NEW_PROCESS_GROUP) != 0;
        error = Spawn(pid, arguments.data(),
                      environment != nullptr ? variablePointers.data() : environ, options);
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
        auto* object = new (std::nothrow)
            ProcessObject(pidfd, pid, (creationFlags & CREATE_NEW_PROCESS_GROUP) != 0);
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

BOOL TerminateProcess(HANDLE process, UINT /*exitCode*/) {
    const auto* object = dynamic_cast<ProcessObject*>(ObjectOf(process));
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return object->terminate();
}

}  // namespace Tessel::Platform
