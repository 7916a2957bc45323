// CRasServer: dials one phone book entry of the remote access service by name, and hangs up.
//
// ConnectRAS dials synchronously (Ras.h: pppd for the entry, waited for up to the service's
// dial time-out) and returns with the outcome. A failed dial whose handle came back is hung
// up, and the handle forgotten after three seconds in which the line settles: a failure takes
// at least that long. The last error number is then the hang-up's, while the text stays the
// dial's. DisconnectRAS hangs up and waits, asking the state every 100 ms, at most 49 times
// (about five seconds), until the service reports the link gone; it succeeds also when that
// is not seen in time.
//
// ConnectRAS while connected does not hang up first: it clears the connected flag, whereupon
// DisconnectRAS has nothing to do, and dials anew; the first link stays up without a handle
// here (and a second dial of the same entry usually finds its port taken).
//
// The last error text is that of the service (RasGetErrorStringA) for the last error number,
// at most 1023 characters; it is set by a failed dial or hang-up and kept until the next.
//
// Lifetime: the destructor leaves the link as it is; a link outlives the object, as it
// outlives the process. Not copyable.
// Thread safety: none; an object belongs to one thread at a time.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Ras.h"

class TESSEL_API CRasServer {
  public:
    // The longest entry name kept, in characters.
    static constexpr int MaxServerName = 256;

    // No entry: ConnectRAS fails until a name is set.
    CRasServer();
    // The entry name, as SetServerName sets it.
    explicit CRasServer(char const* name);
    virtual ~CRasServer();
    CRasServer(const CRasServer&) = delete;
    CRasServer& operator=(const CRasServer&) = delete;

    // Stores name (cut to MaxServerName characters) as the entry to dial. false, the name
    // unchanged, while connected or for a null name.
    bool SetServerName(char const* name);

    // Dials the entry. true when the link is up. false at once, the last error untouched, for
    // an empty name; otherwise false with the last error set.
    bool ConnectRAS();

    // Hangs up the link. true when not connected, and when the hang-up was sent (whether or
    // not the link's end was seen within about five seconds). false with the last error set
    // when the service refuses the hang-up.
    bool DisconnectRAS();

    // Copies the last error text into text, of size bytes, cut to size - 1 characters and
    // NUL-terminated. Nothing for a null text or a size below 1.
    void GetLastRasError(char* text, long size);

  private:
    // Sets the last error text to the service's text for the last error number ("" when the
    // service has none).
    void SetLastRasError();

    char m_szLastError[1024] = {};
    char m_szServerName[MaxServerName + 1] = {};
    bool m_bConnected = false;
    Tessel::Platform::HRASCONN m_hConnection = nullptr;
    Tessel::Platform::DWORD m_dwLastError = 0;
};
