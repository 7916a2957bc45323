// CTapiConnection: dials a data call over a modem line of the platform's telephony functions
// (tessel/platform/Telephony.h) and hands the caller the communication handle of the
// connected modem.
//
// The service is used in its event mode: the object runs its own message loop
// (WaitForReply) over the service's event, follows the call through its line call states
// (HandleLineCallState) and tears everything down on any failure (HangUpCall, which also
// shuts the service down). DialCall initialises the service when it has to (Create), opens
// the line named by its line name (the first line that works when the name is empty), makes
// the call and waits for it to connect; the result is non-zero exactly while the call stands.
// GetCommHandle then gives the modem's file handle, CheckAndProvideConnection tells whether
// the call still stands, HangUpCall ends it and brings the object back to its first state, so
// that the next DialCall initialises anew.
//
// Status. Every progress report and every failure goes through SetLastTapiConnectionError as
// a number and a text, word for word, which GetLastTapiConnectionError hands out: 0 and ""
// (no error), -1000 (initialisation, opening the line), -1001 (closing the line, shutting the
// service down), -1002 (the progress and the errors of a call), -1003 (no communication
// handle), -1004 (the line's capabilities), -1005 (buffers, freeing the call). The text is at
// each moment the last thing that happened: after a failed dial, the reports of the hang-up
// that followed (such as "Line idle.") or the wait's own verdict may stand where the cause
// (such as "Line busy, shutting down.") stood a moment before. Each report is also traced.
// Trace goes to CTraceUtil::OutputString under category 0x800000, with a CTraceGuard that
// marks the entry and exit of each routine with the phone number; the numbered exits of
// DialCall and MakeTheCall are logged at error level as "throw <n>".
//
// Waits. A dial waits up to the reply time-out (SetReplyTimeoutSeconds, 60 s unless set) for
// the call to connect; so does the drop of a call in HangUpCall. The host's cancel event
// (Create) ends a dial's wait at once.
//
// Lifetime: the destructor hangs up a call that stands, shuts the service down, closes the
// communication handle and the synchronisation event and frees the working buffers. Copying
// copies the values, the service's handles and the cancel event included, so that a copy
// refers to the same call as its source; the copy has its own synchronisation event and its
// own copies of the working buffers, and no communication handle (GetCommHandle fetches one).
// Copy an object only while no other thread uses it.
//
// Thread safety: one object serves one call on one thread. HangUpCall may also be called from
// another thread while a dial waits: it ends the call and the dial's wait returns
// WAITERR_WAITABORTED. For that, a recursive lock serialises HangUpCall, the message handling
// of WaitForReply and the status. WaitForReply takes it only to handle a message, never to
// wait; HangUpCall holds it throughout, its own wait for the drop included, so that the
// messages of that drop reach that wait and no other. The flags and handles that both threads
// read are atomics. Setting the cancel event is the other safe way to stop a dial.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>

#include "tessel/Export.h"
#include "tessel/platform/Telephony.h"
#include "tessel/platform/Types.h"

class TESSEL_API CTapiConnection {
  public:
    // Results of WaitForReply.
    static constexpr long WAITREPLY_SUCCESS = 0;    // the call is connected
    static constexpr long WAITERR_WAITABORTED = 1;  // the wait failed, or a hang-up ended it
    static constexpr long WAITERR_WAITTIMEDOUT = 2;
    static constexpr long WAITREPLY_FAILED = 3;  // the call ended without connecting
    static constexpr long WAITERR_WAITCANCELED = 4;

    // The reply time-out unless set: 60 s.
    static constexpr long DefaultReplyTimeoutSeconds = 60;

    // Clears all, sets the status to 0 and creates the synchronisation event.
    CTapiConnection();
    CTapiConnection(const CTapiConnection& other);
    CTapiConnection& operator=(const CTapiConnection& other);
    virtual ~CTapiConnection();

    // Initialises the service and stores cancelEvent (an event handle that the host sets to
    // cancel a dial; null keeps the stored one), lineName (up to 256 characters; null keeps
    // the stored one) and phoneNumber (up to 128; null keeps it). 1 when the service is ready (also
    // when it was already), 0 when it cannot be initialised, has no line devices, or another Create
    // runs.
    int Create(void* cancelEvent, char const* lineName, char const* phoneNumber);

    // Dials phoneNumber on the line named lineName (null keeps the stored values), initialising
    // the service first where needed, and waits for the call to connect. Non-zero while the
    // call stands: at once, changing nothing, when a call stands already; 0 on any failure,
    // with the service shut down and the reason in the status.
    int DialCall(char const* lineName, char const* phoneNumber);

    // Drops the call (waiting up to the reply time-out for the drop), frees it, closes the
    // line and the communication handle, and shuts the service down. 1, also when nothing was
    // in use or a hang-up is under way already (a re-entry from its own wait).
    int HangUpCall();

    // The modem's file handle of the connected call (a character device: ReadFile and
    // WriteFile move the call's data), fetched once and then kept; it belongs to the object.
    // Null on failure: when the service cannot give it, or (after a hang-up) when it is not a
    // character device, with -1003 "Get Comm hadle failed".
    Tessel::Platform::HANDLE GetCommHandle();

    // 1 while the call stands: nothing has happened, or the call is still connected; 0 when
    // there is no call or it is no longer connected.
    int CheckAndProvideConnection();

    // Copies the status text into text (size bytes; a text that does not fit is cut and its
    // last byte zeroed) and the number into *number (sign-extended: -1002 reads back as
    // (long)-1002). Either may be null.
    void GetLastTapiConnectionError(int size, char* text, unsigned long* number);

    // The time-out of the waits of a dial and of a drop, in seconds (at least 0).
    void SetReplyTimeoutSeconds(long seconds);
    long GetReplyTimeoutSeconds() const { return m_lReplyTimeoutSeconds; }

  protected:
    // Waits up to timeoutSeconds for the call to connect or end, handling the service's
    // messages. A requestId of 0 or below is returned at once. Then WAITREPLY_SUCCESS,
    // WAITERR_WAITABORTED, WAITERR_WAITTIMEDOUT, WAITREPLY_FAILED or WAITERR_WAITCANCELED.
    long WaitForReply(long requestId, long timeoutSeconds);

    // Handles one message of the service: call states, LINE_CLOSE, LINE_REPLY, LINE_CREATE.
    // Messages whose device is not the call are refused.
    void HandleLineCallState(Tessel::Platform::DWORD hDevice, Tessel::Platform::DWORD messageId,
                             Tessel::Platform::DWORD_PTR instance,
                             Tessel::Platform::DWORD_PTR param1, Tessel::Platform::DWORD_PTR param2,
                             Tessel::Platform::DWORD_PTR param3);

    // 1 for 0; 0 for anything else, with the known service errors reported (-1002).
    int HandleLineErr(long lineError);

    // Makes the call and waits for it; 1 when connected, else 0.
    int MakeTheCall();
    // Hangs up and shuts the service down; 1 if it did, 0 when there was nothing to do.
    int ShutdownTAPI();

    // The capabilities of the wanted line in lineDevCaps (grown or made as needed), with its
    // negotiated API version in *apiVersion and its id stored; null (the buffer freed, the id
    // -1) when no line fits.
    Tessel::Platform::LINEDEVCAPS* GetDeviceLine(unsigned long* apiVersion,
                                                 Tessel::Platform::LINEDEVCAPS* lineDevCaps);
    // Call parameters in callParams (grown or made): data modem, with displayableAddress as
    // the display text behind the fixed part. Null when no buffer can be had.
    Tessel::Platform::LINECALLPARAMS* CreateCallParams(Tessel::Platform::LINECALLPARAMS* callParams,
                                                       char const* displayableAddress);
    // The capabilities of a device or of its address, in a buffer grown until they fit; null
    // (the buffer freed) on an error.
    Tessel::Platform::LINEDEVCAPS* MylineGetDevCaps(Tessel::Platform::LINEDEVCAPS* lineDevCaps,
                                                    Tessel::Platform::DWORD deviceId,
                                                    Tessel::Platform::DWORD apiVersion);
    Tessel::Platform::LINEADDRESSCAPS* MylineGetAddressCaps(
        Tessel::Platform::LINEADDRESSCAPS* addressCaps, Tessel::Platform::DWORD deviceId,
        Tessel::Platform::DWORD addressId, Tessel::Platform::DWORD apiVersion);
    // A zeroed local block of at least size bytes whose first field holds its size: buffer
    // itself where it is large enough, else a new one (buffer freed). Null on failure.
    void* CheckAndReAllocBuffer(void* buffer, size_t size);
    // Stores number and text (cut to 1023 characters) as the status and traces them; a null
    // text changes nothing.
    void SetLastTapiConnectionError(unsigned long number, char const* text);

    // Size of the text fields, with their NUL.
    static constexpr std::size_t PhoneNumberSize = 129;
    static constexpr std::size_t LineNameSize = 257;
    static constexpr std::size_t LastErrorSize = 1024;

    // The number of line devices; grows on LINE_CREATE, which either thread may handle.
    std::atomic<Tessel::Platform::DWORD> m_dwNumDevs;
    Tessel::Platform::DWORD m_dwDeviceID;      // the chosen line; -1 for none
    Tessel::Platform::LONG m_lAsyncRequestID;  // the request waited for; under m_lock
    Tessel::Platform::LONG m_lAsyncReply;      // its result; under m_lock
    // The flags and handles that a HangUpCall of another thread reads and clears. Each is
    // written under m_lock (or by the dialling thread before it waits, which the lock then
    // publishes) and read by the other thread only after it took m_lock or as a hint that it
    // confirms under it; sequentially consistent operations, as there are only a few per call.
    std::atomic<bool> m_bShuttingDown;
    std::atomic<bool> m_bStoppingCall;
    std::atomic<bool> m_bInitializing;
    std::atomic<bool> m_bTapiInUse;
    std::atomic<Tessel::Platform::HLINEAPP> m_hLineApp;
    std::atomic<Tessel::Platform::HCALL> m_hCall;
    std::atomic<Tessel::Platform::HLINE> m_hLine;
    Tessel::Platform::DWORD m_dwAPIVersion;
    char m_szPhoneNumber[PhoneNumberSize];
    char m_szLineName[LineNameSize];
    Tessel::Platform::LONG m_lLastError;               // under m_lock
    char m_szLastError[LastErrorSize];                 // under m_lock
    Tessel::Platform::HANDLE m_hComm;                  // under m_lock
    Tessel::Platform::HANDLE m_hSynchronisationEvent;  // automatic reset
    std::atomic<bool> m_bConnected;
    Tessel::Platform::LINEDEVCAPS* m_pLineDevCaps;  // the chosen line's capabilities
    Tessel::Platform::LINEINITIALIZEEXPARAMS* m_pLineInitParams;
    Tessel::Platform::HANDLE m_hCancelEvent;

  private:
    void CopyFrom(const CTapiConnection& other);
    void SetSynchronisation();
    void ResetSynchronisation();
    bool TakeSynchronisation();
    void CloseCommHandle();

    long m_lReplyTimeoutSeconds = DefaultReplyTimeoutSeconds;
    // Whether the synchronisation event was set and not yet taken, under m_lock. The event
    // only wakes the waits; this decides, so that a wait of the other thread that happened to
    // wake on the event cannot take a set meant for the hang-up's own wait.
    bool m_bSynchronised = false;
    std::recursive_mutex m_lock;
};
