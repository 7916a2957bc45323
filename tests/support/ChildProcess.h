// Second processes for the tests: a program started with posix_spawn and talked to over
// pipes, a program run to its end with its output captured, and a function run in a forked
// child. Every child is waited for; none outlives its test.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace TesselTest {

using std::chrono::milliseconds;

struct ChildOptions {
    // Variables of the child's environment that replace or add to the test's own.
    std::map<std::string, std::string> environment;
    // Standard error on a pipe of its own (readError), instead of the test's.
    bool captureError = false;
};

// A second process with its standard input and output on pipes. argv[0] is the program's
// path, or a name looked up on PATH. The destructor closes its input and kills it if it has
// not ended within two seconds. Throws std::runtime_error when it cannot be started.
class ChildProcess {
  public:
    explicit ChildProcess(const std::vector<std::string>& argv, const ChildOptions& options = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }
    // Writes all of text to its standard input; false when it cannot be written.
    bool write(const std::string& text);
    // Closes its standard input: the child reads its end.
    void closeInput();
    // One line of its standard output without the line end, or "" at its end or after timeout.
    std::string readLine(milliseconds timeout);
    // All of its standard output up to its end (or what came within timeout).
    std::string readAll(milliseconds timeout);
    // All of its standard error up to its end; "" unless captured.
    std::string readError(milliseconds timeout);
    // Closes its standard input and waits up to timeout for its end: its exit status, 128 +
    // the signal for a child ended by a signal, or -1 (and the child killed) after timeout.
    int finish(milliseconds timeout = milliseconds(60000));

  private:
    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    int m_err = -1;
    std::string m_buffer;
};

struct RunResult {
    int status = -1;  // as ChildProcess::finish
    std::string out;
    std::string err;
};

// Runs argv to its end with input on its standard input; standard output and error captured.
RunResult Run(const std::vector<std::string>& argv, const std::string& input = "",
              const ChildOptions& options = {}, milliseconds timeout = milliseconds(60000));

// Runs a shell command line and returns its standard output; *status gets the exit status.
std::string RunCaptured(const std::string& command, int* status = nullptr);

// Runs body in a forked child, which ends with body's result as its exit status (an
// exception ends it with 99). Returns that status, 128 + the signal for a child ended by a
// signal, or -1 when it has not ended within timeout (it is killed then).
int RunInChild(const std::function<int()>& body, milliseconds timeout = milliseconds(60000));

// Waits up to timeout for child pid to end: its status as ChildProcess::finish gives it, -1
// after timeout (the child is then killed and reaped).
int WaitForChild(pid_t pid, milliseconds timeout);

// Resident memory of a process in bytes, from /proc/<pid>/statm.
long long ResidentBytes(pid_t pid);

}  // namespace TesselTest
