// Thread message queues, and the waits that keep them moving.
//
// Every thread may have one queue of posted messages. It is made the first time the thread
// looks at its queue (PeekMessageA, MsgWaitForMultipleObjects) and freed when the thread
// ends; posting to a thread that has no queue fails with ERROR_INVALID_THREAD_ID (1444), as
// on the platform, where a queue also comes into being with the thread's first call of this
// kind. A queue holds at most 10000 messages; a post beyond that fails with
// ERROR_NOT_ENOUGH_QUOTA (1816). Messages are taken in the order in which they were posted.
//
// Each queue has an eventfd that a post makes readable; MsgWaitForMultipleObjects waits for it
// beside its objects. As on the platform, the wait ends for a message that arrived since the
// thread last looked at its queue: every PeekMessageA, whether it finds something or not,
// counts as a look. A message left in the queue (PM_NOREMOVE, or one outside the filter of
// the Peek) does not end the next wait, so that a pump with a filter cannot spin on it.
//
// There are no windows here: every message is a thread message, with hwnd null. A filter of
// (HWND)-1 takes thread messages only; any other window takes nothing.
//
// DispatchMessageA has no window procedure to call. A message WM_TESSEL_CALLBACK carries a
// function and its argument (see PostThreadCallback), which DispatchMessageA runs on the
// dispatching thread; every other message is dispatched to nobody.
//
// Thread safety: posting is safe from any thread, to any thread; PeekMessageA and the wait
// work on the calling thread's own queue. A forked child starts with no queue.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

struct MSG {
    HWND hwnd;      // always null: a thread message
    UINT message;   // the message number
    WPARAM wParam;  // first parameter
    LPARAM lParam;  // second parameter
    DWORD time;     // tick count (GetTickCount) when it was posted
};

// Message numbers.
inline constexpr UINT WM_NULL = 0x0000;
inline constexpr UINT WM_QUIT = 0x0012;
inline constexpr UINT WM_USER = 0x0400;
inline constexpr UINT WM_APP = 0x8000;
// The library's own message: wParam is a MessageCallback, lParam its argument.
inline constexpr UINT WM_TESSEL_CALLBACK = WM_APP + 0x3FF0;

// Options of PeekMessageA.
inline constexpr UINT PM_NOREMOVE = 0x0000;
inline constexpr UINT PM_REMOVE = 0x0001;
inline constexpr UINT PM_NOYIELD = 0x0002;

// Kinds of input for the wake mask of MsgWaitForMultipleObjects. Only posted messages exist
// here: a mask with QS_POSTMESSAGE or QS_ALLPOSTMESSAGE (both part of QS_ALLINPUT) wakes the
// wait for them; the other kinds are accepted and never occur.
inline constexpr DWORD QS_KEY = 0x0001;
inline constexpr DWORD QS_MOUSEMOVE = 0x0002;
inline constexpr DWORD QS_MOUSEBUTTON = 0x0004;
inline constexpr DWORD QS_POSTMESSAGE = 0x0008;
inline constexpr DWORD QS_TIMER = 0x0010;
inline constexpr DWORD QS_PAINT = 0x0020;
inline constexpr DWORD QS_SENDMESSAGE = 0x0040;
inline constexpr DWORD QS_HOTKEY = 0x0080;
inline constexpr DWORD QS_ALLPOSTMESSAGE = 0x0100;
inline constexpr DWORD QS_RAWINPUT = 0x0400;
inline constexpr DWORD QS_TOUCH = 0x0800;
inline constexpr DWORD QS_POINTER = 0x1000;
inline constexpr DWORD QS_MOUSE = QS_MOUSEMOVE | QS_MOUSEBUTTON;
inline constexpr DWORD QS_INPUT = QS_MOUSE | QS_KEY | QS_RAWINPUT | QS_TOUCH | QS_POINTER;
inline constexpr DWORD QS_ALLINPUT =
    QS_INPUT | QS_POSTMESSAGE | QS_TIMER | QS_PAINT | QS_HOTKEY | QS_SENDMESSAGE;  // 0x1CFF

// The function that a WM_TESSEL_CALLBACK message runs when it is dispatched.
using MessageCallback = void (*)(LPARAM argument);

// Appends a message to the queue of thread threadId (a kernel thread id, as
// GetCurrentThreadId gives it). FALSE with ERROR_INVALID_THREAD_ID when that thread has no
// queue (or does not exist), ERROR_NOT_ENOUGH_QUOTA when its queue is full.
TESSEL_API BOOL PostThreadMessageA(DWORD threadId, UINT message, WPARAM wParam, LPARAM lParam);

// Posts WM_TESSEL_CALLBACK, so that the thread runs callback(argument) when it dispatches it.
// Results as PostThreadMessageA; ERROR_INVALID_PARAMETER for a null callback.
TESSEL_API BOOL PostThreadCallback(DWORD threadId, MessageCallback callback, LPARAM argument);

// Looks for the first message of the calling thread's queue that passes the filter: window
// (null: any; (HWND)-1: thread messages; else a window, which has none) and the number range
// minMessage to maxMessage (both 0: any). Copies it into message and, with PM_REMOVE, takes
// it out of the queue. Non-zero if one was found. Never blocks; makes the queue if the
// thread has none. FALSE with ERROR_INVALID_PARAMETER for a null message.
TESSEL_API BOOL PeekMessageA(MSG* message, HWND window, UINT minMessage, UINT maxMessage,
                             UINT removeFlags);

// There are no keyboard messages to translate: FALSE.
TESSEL_API BOOL TranslateMessage(const MSG* message);

// Runs the callback of a WM_TESSEL_CALLBACK message and returns 0; any other message (and a
// null one) is dispatched to nobody, with result 0.
TESSEL_API LRESULT DispatchMessageA(const MSG* message);

// WaitForMultipleObjects that also ends, with WAIT_OBJECT_0 + count, when a message arrives in
// the calling thread's queue that the thread has not looked at yet (see the top of this file)
// and wakeMask asks for posted messages; count may then be 0. An object that is signalled at
// the same time takes precedence. With waitAll, a message ends the wait as well, before all
// objects are signalled. Makes the queue if the thread has none. Without objects and without
// posted messages in wakeMask: WAIT_FAILED with ERROR_INVALID_PARAMETER.
TESSEL_API DWORD MsgWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll,
                                           DWORD timeoutMs, DWORD wakeMask);

}  // namespace Tessel::Platform
