// CWatchdogClient: the supervised side of the external watchdog program.
//
// A server process is watched by a small program of its own, "TarvoWD.exe", one instance per
// supervised process. The client starts it, tells it which threads exist and what they are
// called, reports that a long operation is under way, and says goodbye. All traffic is
// one-way, from client to watchdog, through objects that both find by name, the number in
// each being the decimal id of the supervised process:
//  - the start event "Watchdog<pid>", made by the client and set by the watchdog once it is
//    ready (a system event, tessel/platform/SystemEvent.h, since it crosses processes);
//  - the watchdog's window "Watchdog_<pid>", to which every message is sent as WM_COPYDATA
//    with a CWatchdogMessage as its data and the message type as its dwData
//    (tessel/platform/Window.h).
//
// Clients are cheap and know nothing of each other: a thread with something to say makes a
// local client, and every message looks the window up anew. Only the client whose
// CreateWatchdog got the start event holds it, and holding it makes that client the owner:
// only the owner sends the shutdown message, and it does so at its destruction at the latest.
// A client reuses one message record for all its messages, and only the thread-info message
// writes the text: every other message carries the text of the message before it.
//
// Failures are quiet. Without a watchdog every operation is a no-op: no window, nothing sent,
// no error. A failed CreateWatchdog shows only in its result of 0, and the process goes on
// unsupervised. A watchdog that does not answer costs its sender at most 2000 ms per message,
// and nothing is retried. A text that does not fit the record's 260 characters with its NUL
// is an invalid parameter (tessel/platform/InvalidParameter.h).
//
// Thread safety: none. One client is not for use by several threads at once, since the
// message record and the stored window are unguarded; threads make clients of their own.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"
#include "tessel/supervision/WatchdogMessage.h"

class TESSEL_API CWatchdogClient {
  public:
    using HANDLE = Tessel::Platform::HANDLE;
    using HWND = Tessel::Platform::HWND;

    // An owner of one handle, simpler than Tessel::CHandle: copying and assignment copy the
    // raw handle value, so that two objects then own one handle, and its users must not let
    // both close it.
    class TESSEL_API CSimpleHandle {
      public:
        // Takes ownership of handle, which may be null.
        CSimpleHandle(HANDLE handle = nullptr) noexcept : m_h(handle) {}
        CSimpleHandle(const CSimpleHandle& other) noexcept = default;
        CSimpleHandle& operator=(const CSimpleHandle& other) noexcept = default;
        // As Close.
        ~CSimpleHandle() { Close(); }

        // Stores handle as the one owned, without closing the one held before.
        void Attach(HANDLE handle) noexcept { m_h = handle; }
        // Closes a held handle and stores null.
        void Close() noexcept;

        // The raw handle, null when empty.
        operator HANDLE() const noexcept { return m_h; }

      protected:
        HANDLE m_h;
    };

    // No window, no event, a new cleared message record. Should the record not be
    // allocated, every send does nothing.
    CWatchdogClient();
    // ShutdownWatchdog, then frees the record and closes the event.
    ~CWatchdogClient();
    // A client owns its record and its event: it is not copied.
    CWatchdogClient(const CWatchdogClient&) = delete;
    CWatchdogClient& operator=(const CWatchdogClient&) = delete;

    // Starts the watchdog of this process: creates the start event, runs
    // "TarvoWD.exe /P <pid> [/H ]/I <interval> /T <timeout> /B <b>" (found on PATH; "/H " when
    // show is 0) and waits up to 2000 ms for the watchdog to set the event. What the three
    // numbers and the switch /H mean is the watchdog's business.
    // 1 when the watchdog is ready, and at once, without a second watchdog, on a client that
    // holds the event already. 0 when the event cannot be made; when it exists already, since
    // another client of this process (or another process) has made it, in which case this
    // client holds it from now on all the same; when the program cannot be started; and when
    // it has not set the event in time, in which case the event is given up again.
    int CreateWatchdog(int show, unsigned long interval, unsigned long timeout, unsigned long b);
    // On the owner, sends the shutdown message if the window is found. Does nothing on any
    // other client.
    void ShutdownWatchdog();
    // Names the calling thread: thread info with data 2 if flag is non-zero, else 1, and name
    // as the text (null keeps the text that the record holds).
    void SetWatchdogThreadInfo(const char* name, int flag);
    // Reports that the calling thread ends.
    void NotifyWatchdogThisThreadClosing();
    // Reports that the thread threadId ends.
    void NotifyWatchdogThreadClosing(unsigned long threadId);
    // Reports that the calling thread is in long work and alive, with data.
    void NotifyWatchdogLongOperationIsOk(unsigned long data);
    // Registers, for the calling thread, the address of a routine of the form of
    // APCIdleHandler.
    void SetWatchdogThreadIdleHandler(void* handler);
    // Reports that the crash handler has been entered; sent before the dumps are written.
    void NotifyUnhandledExceptionHandlerCalled();

    // A routine in the form of an asynchronous procedure call: makes a local client and
    // reports a long operation with data 0 for the thread on which it runs. Nothing in the
    // library queues it; its address is what a thread may hand over with
    // SetWatchdogThreadIdleHandler.
    static void APCIdleHandler(std::size_t parameter);

  protected:
    // Sends one message: none of type shutdown from a client that holds no event, and none
    // without a record or a window. Stores threadId and data in the record and, when text is
    // not null, the text. Non-zero if the watchdog answered within 2000 ms.
    int SendMessageA(CWatchdogMessage::enumWatchDogMessageType type, long threadId,
                     const char* text, long long data);
    // Looks the watchdog's window up and stores the result; non-zero if it was found.
    int GetWatchdogWnd();

    HWND m_hWnd;                   // result of the last look-up
    CSimpleHandle m_hEvent;        // the start event; held by the owner only
    CWatchdogMessage* m_pMessage;  // owned; reused for every message
};
