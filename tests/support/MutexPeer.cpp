// tessel_mutex_peer: a second process that takes a named mutex, for the tests of the
// mutex guard.
//
//   tessel_mutex_peer hold NAME
//       locks the named mutex, writes 'L' to descriptor 3, waits until descriptor 4 yields a
//       byte or its end, releases the mutex and exits 0.
//   tessel_mutex_peer die NAME
//       locks the named mutex, writes 'L' to descriptor 3 and kills itself (SIGKILL) while it
//       holds the mutex, which is thereby abandoned.
// Exits 1 if the mutex cannot be had, 2 on bad arguments.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tessel/platform/Handle.h"
#include "tessel/platform/Mutex.h"

using namespace Tessel::Platform;

namespace {
constexpr int kReportFd = 3;
constexpr int kCommandFd = 4;
}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    const bool die = std::strcmp(argv[1], "die") == 0;
    if (!die && std::strcmp(argv[1], "hold") != 0) {
        return 2;
    }
    HANDLE mutex = CreateMutexA(nullptr, FALSE, argv[2]);
    if (mutex == nullptr) {
        return 1;
    }
    const DWORD result = WaitForSingleObject(mutex, INFINITE);
    if (result != WAIT_OBJECT_0 && result != WAIT_ABANDONED) {
        return 1;
    }
    const char held = 'L';
    if (::write(kReportFd, &held, 1) != 1) {
        return 1;
    }
    if (die) {
        ::kill(::getpid(), SIGKILL);
    }
    char command;
    while (::read(kCommandFd, &command, 1) < 0 && errno == EINTR) {
    }
    ReleaseMutex(mutex);
    CloseHandle(mutex);
    return 0;
}
