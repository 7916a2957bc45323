#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <thread>

#include "support/Eventually.h"

extern char** environ;

namespace TesselTest {

namespace {

int statusOf(int raw) {
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

// Reads from fd into buffer until stop(buffer) holds, the end of the stream or the deadline;
// true unless the deadline passed first.
template <class Stop>
bool readInto(int fd, std::string& buffer, const Deadline& deadline, Stop stop) {
    while (!stop(buffer)) {
        pollfd ready{fd, POLLIN, 0};
        if (fd < 0 || ::poll(&ready, 1, deadline.leftMs()) <= 0) {
            return false;
        }
        char chunk[4096];
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n <= 0) {
            return true;
        }
        buffer.append(chunk, static_cast<std::size_t>(n));
    }
    return true;
}

std::string readToEnd(int fd, milliseconds timeout) {
    std::string text;
    readInto(fd, text, Deadline(timeout), [](const std::string&) { return false; });
    return text;
}

}  // namespace

int WaitForChild(pid_t pid, milliseconds timeout) {
    int raw = 0;
    pid_t ended = 0;
    eventually([&] { return (ended = ::waitpid(pid, &raw, WNOHANG)) != 0; }, timeout);
    if (ended == pid) {
        return statusOf(raw);
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    return -1;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const ChildOptions& options) {
    int input[2];
    int output[2];
    int error[2] = {-1, -1};
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0 ||
        (options.captureError && ::pipe2(error, O_CLOEXEC) != 0)) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    if (options.captureError) {
        posix_spawn_file_actions_adddup2(&actions, error[1], STDERR_FILENO);
    }
    std::vector<char*> arguments;
    for (const std::string& argument : argv) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string entry(*variable);
        if (options.environment.count(entry.substr(0, entry.find('='))) == 0) {
            variables.push_back(entry);
        }
    }
    for (const auto& [name, value] : options.environment) {
        variables.push_back(name + "=" + value);
    }
    std::vector<char*> environment;
    for (std::string& variable : variables) {
        environment.push_back(variable.data());
    }
    environment.push_back(nullptr);
    const int result = ::posix_spawnp(&m_pid, arguments[0], &actions, nullptr, arguments.data(),
                                      environment.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    ::close(output[1]);
    if (error[1] >= 0) {
        ::close(error[1]);
    }
    m_in = input[1];
    m_out = output[0];
    m_err = error[0];
    if (result != 0) {
        m_pid = -1;
        closeFd(m_in);
        closeFd(m_out);
        closeFd(m_err);
        throw std::runtime_error("cannot start " + argv[0]);
    }
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0) {
        finish(milliseconds(2000));
    }
    closeFd(m_in);
    closeFd(m_out);
    closeFd(m_err);
}

bool ChildProcess::write(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(m_in, text.data() + done, text.size() - done);
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

void ChildProcess::closeInput() {
    closeFd(m_in);
}

std::string ChildProcess::readLine(milliseconds timeout) {
    readInto(m_out, m_buffer, Deadline(timeout),
             [](const std::string& buffer) { return buffer.find('\n') != std::string::npos; });
    const std::size_t end = m_buffer.find('\n');
    if (end == std::string::npos) {
        return std::string();
    }
    std::string line = m_buffer.substr(0, end);
    m_buffer.erase(0, end + 1);
    return line;
}

std::string ChildProcess::readAll(milliseconds timeout) {
    std::string text = std::move(m_buffer);
    m_buffer.clear();
    return text + readToEnd(m_out, timeout);
}

std::string ChildProcess::readError(milliseconds timeout) {
    return readToEnd(m_err, timeout);
}

int ChildProcess::finish(milliseconds timeout) {
    closeInput();
    if (m_pid <= 0) {
        return -1;
    }
    const int status = WaitForChild(m_pid, timeout);
    m_pid = -1;
    return status;
}

RunResult Run(const std::vector<std::string>& argv, const std::string& input,
              const ChildOptions& options, milliseconds timeout) {
    ChildOptions capturing = options;
    capturing.captureError = true;
    ChildProcess child(argv, capturing);
    // Standard error is read on a thread of its own, so that neither pipe fills up while
    // the other is read.
    RunResult result;
    std::thread errorReader([&] { result.err = child.readError(timeout); });
    child.write(input);
    child.closeInput();
    result.out = child.readAll(timeout);
    errorReader.join();
    result.status = child.finish(timeout);
    return result;
}

std::string RunCaptured(const std::string& command, int* status) {
    ChildProcess child({"/bin/sh", "-c", command});
    child.closeInput();
    std::string output = child.readAll(milliseconds(60000));
    const int result = child.finish();
    if (status != nullptr) {
        *status = result;
    }
    return output;
}

int RunInChild(const std::function<int()>& body, milliseconds timeout) {
    const pid_t pid = ::fork();
    if (pid < 0) {
        return -1;
    }
    if (pid == 0) {
        int result = 99;
        try {
            result = body();
        } catch (...) {
        }
        ::_exit(result);
    }
    return WaitForChild(pid, timeout);
}

long long ResidentBytes(pid_t pid) {
    std::ifstream statm("/proc/" + std::to_string(pid) + "/statm");
    long long size = 0;
    long long resident = 0;
    statm >> size >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

}  // namespace TesselTest
