// tessel_mutex_peer: a second process that takes a named mutex, for the tests of the
// mutex guard.
//
//   tessel_mutex_peer hold NAME
//       locks the named mutex, writes "locked" and a line end to its standard output, waits
//       for the end of its standard input, releases the mutex and exits 0.
//   tessel_mutex_peer die NAME
//       locks the named mutex, writes "locked" and a line end and kills itself (SIGKILL)
//       while it holds the mutex, which is thereby abandoned.
// Exits 1 if the mutex cannot be had, 2 on bad arguments.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "tessel/platform/Handle.h"
#include "tessel/platform/Mutex.h"

using namespace Tessel::Platform;

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
    if (std::fputs("locked\n", stdout) < 0 || std::fflush(stdout) != 0) {
        return 1;
    }
    if (die) {
        ::kill(::getpid(), SIGKILL);
    }
    while (std::fgetc(stdin) != EOF) {
    }
    ReleaseMutex(mutex);
    CloseHandle(mutex);
    return 0;
}
