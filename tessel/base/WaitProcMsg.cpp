#include "tessel/base/WaitProcMsg.h"

#include <cstring>

#include "tessel/platform/Clock.h"
#include "tessel/platform/MessageQueue.h"

using namespace Tessel::Platform;

namespace {

// Takes the messages for window out of the calling thread's queue and dispatches them.
void PumpMessages(HWND window) {
    MSG message;
    while (PeekMessageA(&message, window, 0, 0, PM_REMOVE | PM_NOYIELD) != FALSE) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
}

// The 32-bit time-out of the platform's waits; longer ones wait for ever.
DWORD ToTimeout(unsigned long timeoutMs) {
    return timeoutMs > INFINITE ? INFINITE : static_cast<DWORD>(timeoutMs);
}

// What is left of a finite timeout in remaining after the time from start until now, with
// start moved to now. The sum is unsigned: a result above timeout went below zero, and the
// time is up.
void ChargeElapsed(DWORD timeout, DWORD& remaining, DWORD& start) {
    if (timeout == INFINITE) {
        return;
    }
    const DWORD now = GetTickCount();
    remaining += start - now;
    start = now;
    if (remaining > timeout) {
        remaining = 0;
    }
}

}  // namespace

int WaitForSingleObjectProcMsg(HANDLE object, HWND window, unsigned long timeoutMs) {
    const DWORD timeout = ToTimeout(timeoutMs);
    DWORD start = GetTickCount();
    PumpMessages(window);
    DWORD remaining = timeout;
    ChargeElapsed(timeout, remaining, start);
    for (;;) {
        const DWORD result = MsgWaitForMultipleObjects(1, &object, FALSE, remaining, QS_ALLINPUT);
        if (result == WAIT_OBJECT_0) {
            return 1;
        }
        if (result == WAIT_TIMEOUT || result == WAIT_FAILED) {
            return 0;
        }
        // A message, or anything else: keep the queue moving and wait for the rest of the time.
        PumpMessages(window);
        ChargeElapsed(timeout, remaining, start);
    }
}

int WaitForMultipleObjectsProcMsg(HANDLE* objects, int count, HWND window,
                                  unsigned long timeoutMs) {
    const DWORD timeout = ToTimeout(timeoutMs);
    DWORD start = GetTickCount();
    if (objects == nullptr || count <= 0) {
        return 0;
    }
    PumpMessages(window);
    DWORD remaining = timeout;
    ChargeElapsed(timeout, remaining, start);
    while (count != 0) {
        const DWORD result = MsgWaitForMultipleObjects(static_cast<DWORD>(count), objects, FALSE,
                                                       remaining, QS_ALLINPUT);
        if (result == static_cast<DWORD>(count)) {
            // A message. Only a count of 258 could make this result a time-out.
            if (result == WAIT_TIMEOUT || result == WAIT_FAILED) {
                return 0;
            }
            PumpMessages(window);
            ChargeElapsed(timeout, remaining, start);
            continue;
        }
        // The index of a signalled object, taken without further checks: a time-out or an
        // abandoned mutex lies past the end and drops the last entry, a failure is -1.
        const int index = static_cast<int>(result);
        --count;
        if (index < count) {
            std::memmove(objects + index, objects + index + 1,
                         static_cast<std::size_t>(count - index) * sizeof(HANDLE));
        }
    }
    return 1;
}
