// CSMTP: sends a plain text mail to an SMTP server, in single steps that the caller drives:
// Connect (greeting and HELO), Mail (the sender), SetTo (each recipient), Data (subject and
// body), Disconnect (QUIT).
//
// Each step sends its command line in one send and reads the server's reply with one receive
// of up to 1000 bytes, whose first three characters are taken as the reply code. A reply that
// takes several lines or packets leaves its rest to the next step's receive. There is no
// encryption, no queue and no retry; lines are not dot-stuffed, the subject is the only
// header, and the body is sent as it is. A step that fails returns 0 and leaves the reason as
// a text in GetErrorMessage; a step that succeeds leaves the text alone.
//
// The server is reached on port 25, or on the port that the environment variable
// TESSEL_SMTP_PORT names (1 .. 65535) at the time of connecting. No call waits for ever:
// connecting, each send and each receive give up after 30 seconds (CSocket's time-out), and
// a reply that does not come counts as an empty one.
//
// Command lines are formed in fixed fields of CommandFieldSize bytes: a command that does not
// fit (a long address, subject or text-form body) calls the invalid-parameter handler, and
// the step returns 0 without sending anything if the handler returns.
//
// Lifetime: the socket is made with the object and closed by its destructor; Disconnect sends
// QUIT but leaves the socket open and the connected flag set, so one object connects once.
// Thread safety: an object belongs to one thread.
#pragma once

#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/platform/Socket.h"

class TESSEL_API CSMTP {
  public:
    // Size in bytes of the fields that command lines are formed in, with their NUL.
    static constexpr int CommandFieldSize = 512;

    CSMTP();
    virtual ~CSMTP();
    CSMTP(const CSMTP&) = delete;
    CSMTP& operator=(const CSMTP&) = delete;

    // Connects to host (a name or a dotted IPv4 address), reads the greeting (220) and sends
    // "HELO localName" (250). 1 and the connected flag set on success; 0 and the flag clear
    // otherwise, with "Server cannot be connected" when the TCP connect fails, else the text
    // of the reply. The stored host is not changed.
    int Connect(std::string const& host, std::string const& localName);
    // Connect(GetHost(), GetFrom()): the sender address stands as the HELO name.
    int Connect();

    // Stores from as the sender and sends "MAIL FROM:<from>" (250). 1 or 0.
    int Mail(std::string const& from);
    // The same with the stored sender.
    int Mail();

    // Appends to to the stored recipients and sends "RCPT TO:<to>" (250). 1 or 0.
    int SetTo(std::string const& to);
    // Sends "RCPT TO" for each address in order, without storing them; 0 at the first
    // refusal, 1 when all are accepted or to is empty.
    int SetTo(std::vector<std::string> const& to);

    // Text form: "DATA" (354), "SUBJECT:subject", the whole body as one line (no empty line
    // between), and ".", whose reply must be 354: a server that accepts the mail with 250
    // makes this form return 0, with the text for 250 as the error message.
    int Data(std::string const& subject, std::string const& body);
    // Line form: "DATA" (354), "SUBJECT:subject", an empty line, each line, and "." (250).
    // Meant for long bodies: the lines are not formed in fixed fields.
    int Data(std::string const& subject, std::vector<std::string>& lines);

    // 1 without sending anything when not connected; otherwise sends "QUIT " and returns 1
    // when the reply is 221, else 0.
    int Disconnect();

    void SetFrom(std::string const& from) { m_strFrom = from; }
    std::string GetFrom() const { return m_strFrom; }
    void SetHost(std::string const& host) { m_strHost = host; }
    std::string GetHost() const { return m_strHost; }
    std::string GetErrorMessage() const { return m_strErrorMessage; }
    // 1 after a successful Connect (also after Disconnect), else 0.
    int IsConnected() const { return m_bConnected; }

    // The next stored recipient, moving on by one each call; "No more To available" once the
    // position has passed the number of recipients. The call at the position equal to that
    // number reads past them: it calls the invalid-parameter handler and, if that returns,
    // gives "" and moves on. A caller stops by the number of addresses it stored.
    std::string GetTo();

  protected:
    // Reads one reply (one receive of up to 1000 bytes) and checks its code against mode's
    // (the Mode constants). 1 when it matches, else 0 with the error message set from
    // GetError of the reply. Mode 8 sets the error message and gives 1; modes outside 0 .. 8
    // give 1.
    int CheckResponse(int mode);

    // The text of the first of the known reply codes found anywhere in response (211, 214,
    // 220, 221, 250, 251, 354, 550, 554 in that order), else " No Error Number is matched
    // with " followed by response.
    std::string GetError(std::string response);

    // Sends the NUL-terminated command in one send.
    void SendCommand(const char* command);

    // The server's port: TESSEL_SMTP_PORT when it names one, else 25.
    static unsigned int ServerPort();

    // The modes of CheckResponse, by the step whose reply is checked.
    static constexpr int ModeConnect = 0;     // 220
    static constexpr int ModeHelo = 1;        // 250
    static constexpr int ModeMailFrom = 2;    // 250
    static constexpr int ModeRcptTo = 3;      // 250
    static constexpr int ModeStartInput = 4;  // 354, not used by any step
    static constexpr int ModeEndOfData = 5;   // 250, end of data in the line form
    static constexpr int ModeQuit = 6;        // 221
    static constexpr int ModeData = 7;        // 354, DATA and end of data in the text form
    static constexpr int ModeReport = 8;      // no code: sets the error message, succeeds

    std::string m_strErrorMessage;
    int m_nToIndex = 0;
    std::vector<std::string> m_vecTo;
    std::string m_strFrom;
    Tessel::Platform::CSocket m_Socket;
    std::string m_strHost;
    int m_bConnected = 0;
};
