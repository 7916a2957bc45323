// Top-level windows of other processes, found by title and sent WM_COPYDATA messages.
//
// A process that offers a window listens on the abstract Unix SOCK_SEQPACKET socket
// "\0<title>". FindWindowA connects to it; SendMessageTimeoutA sends one packet, the message's
// dwData as 8 bytes little-endian followed by its cbData bytes of data, and takes the
// receiver's answer, one byte, as the message's result. WM_COPYDATA is the only message that
// crosses processes this way.
//
// A window handle stands for a title. The process keeps one connection per title: FindWindowA
// hands out the same handle for the same title each time, makes the connection when there is
// none, and makes it anew when the receiver has gone, so that looking a window up for every
// message costs no descriptor; a look-up also closes the connections of other titles whose
// receivers have gone. A handle found before a receiver went away and came back
// reaches the new receiver of that title. Handles are never freed; messages to one title are
// sent one at a time, in the order in which their senders got hold of the connection.
//
// The window handles of this file are not those of a thread's message queue: the functions
// here refuse any other kind of HWND with ERROR_INVALID_WINDOW_HANDLE. All functions are
// thread-safe. A forked child does not share its parent's connections: the handles that it
// inherited are invalid there, and it looks its windows up anew.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Unsigned numbers as wide as a pointer.
using ULONG_PTR = std::uintptr_t;
using DWORD_PTR = ULONG_PTR;

// The message that carries a block of data to another process.
inline constexpr UINT WM_COPYDATA = 0x004A;

// Flags of SendMessageTimeoutA. A receiver here is either there or gone, never hung: the
// flags are accepted and change nothing.
inline constexpr UINT SMTO_NORMAL = 0x0000;
inline constexpr UINT SMTO_BLOCK = 0x0001;
inline constexpr UINT SMTO_ABORTIFHUNG = 0x0002;
inline constexpr UINT SMTO_NOTIMEOUTIFNOTHUNG = 0x0008;

inline constexpr DWORD ERROR_INVALID_WINDOW_HANDLE = 1400;

// The data of WM_COPYDATA: a number, and cbData bytes at lpData.
struct COPYDATASTRUCT {
    ULONG_PTR dwData;
    DWORD cbData;
    void* lpData;
};

// The window of another process whose title is windowName, or null when no process offers
// it (last error ERROR_FILE_NOT_FOUND; ERROR_FILENAME_EXCED_RANGE for a title longer than 107
// bytes, ERROR_INVALID_PARAMETER for a null or empty one). Windows have no classes here:
// className is not part of the look-up.
TESSEL_API HWND FindWindowA(const char* className, const char* windowName);

// Sends message to window and waits up to timeoutMs in all for its answer, which is stored in
// *result when result is not null. Non-zero when the receiver answered; 0 otherwise, with the
// last error ERROR_TIMEOUT when the time ran out, ERROR_BROKEN_PIPE when the receiver has
// gone (the connection is made anew by the next FindWindowA), ERROR_INVALID_WINDOW_HANDLE
// for a handle that is not a window of this file, ERROR_NOT_SUPPORTED for a message other
// than WM_COPYDATA, ERROR_INVALID_PARAMETER for a WM_COPYDATA without its COPYDATASTRUCT in
// lParam. wParam, the sender's window on the platform, is not passed on.
TESSEL_API LRESULT SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam,
                                       UINT flags, UINT timeoutMs, DWORD_PTR* result);

}  // namespace Tessel::Platform
