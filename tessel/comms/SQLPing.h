// CSQLPing: asks the network for database server instances through their browser service
// (UDP port 1434).
//
// The request is the single byte 0x02, sent to one address or to the broadcast address
// 255.255.255.255. Each instance that hears it answers with one datagram: a 3-byte header and
// the ASCII text "ServerName;<name>;InstanceName;<name>;IsClustered;<Yes|No>;Version;<v>;
// tcp;<port>;np;<pipe>;". A listener thread (the active object, thread name "CSQLPing", stop
// time-out 1000 ms) reads the replies, each one for at most one second after the last, and
// adds the first instance of each reply to the list of servers found.
//
// The search runs in the constructor, which takes a little over three seconds: it starts the
// listener, sleeps 3000 ms, stops the listener, empties the list and only then opens the
// socket and sends the request. So the listener has had its run before the request goes out,
// and a new object holds an empty list; the replies wait in the socket until a caller starts
// the listener again (StartThread), which then reads them and ends by itself one second after
// the last. The text "SQL-Pinging a.b.c.d\n" with the destination goes to the debugger output.
//
// Lifetime: the destructor stops the listener and closes the socket. Copying is not for use.
//
// Thread safety: the list belongs to the listener while it runs: read it (GetAllSQLServers)
// only after StopThread. The listener's receive buffer (64,000 bytes) is its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/platform/UdpSocket.h"
#include "tessel/threads/ActiveObject.h"

class TESSEL_API CSQLPing : public CActiveObject {
  public:
    // One instance as its reply describes it.
    struct _SQL_SERVER_DATA {
        std::string strServerName;
        std::string strInstanceName;
        bool bClustered = false;  // any text other than "No"
        std::string strVersion;
        std::int32_t lTcpPort = 0;  // atol of the text, 0 for none
        std::string strNamedPipe;
    };

    // Searches by broadcast.
    CSQLPing();
    // Searches at address, a dotted address or a host name; null or empty broadcasts. A name
    // that does not resolve also broadcasts.
    explicit CSQLPing(const char* address);
    // Stops the listener, then shuts the socket down and closes it.
    ~CSQLPing() override;

    // The servers found, in the order of their replies.
    std::vector<_SQL_SERVER_DATA>* GetAllSQLServers() { return &m_servers; }

  protected:
    // The address of a dotted text or, failing that, the first IPv4 address of a host name,
    // in network byte order; 0xFFFFFFFF (-1) if it is neither.
    unsigned int ResolveIP(const char* address);
    // Decodes the reply of length bytes in data (a 3-byte header, then the text) and appends
    // its first instance to target's list. true if all six keys were found; false adds
    // nothing.
    bool DecodeResponse(char* data, int length, CSQLPing* target);
    // Takes from text the value behind key, up to the next ';', and cuts text to what follows
    // that ';'. false, text unchanged, if no ';' follows. A key that is missing is not noticed
    // as such: the value is then looked for from the key's length minus one.
    bool GetItemText(std::string& text, const std::string& key, std::string& value);
    // The listener: parameter is the CSQLPing. Returns 0.
    static unsigned long ListenerThread(void* parameter);

  private:
    void StartServerSearch(const char* address);

    std::vector<_SQL_SERVER_DATA> m_servers;
    Tessel::Platform::SOCKET m_socket = Tessel::Platform::INVALID_SOCKET;
};
