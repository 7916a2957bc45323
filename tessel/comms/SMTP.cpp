#include "tessel/comms/SMTP.h"

#include <cstdlib>
#include <cstring>

#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/InvalidParameter.h"

namespace {

// The reply code that each mode of CheckResponse expects.
constexpr int kExpectedCode[] = {220, 250, 250, 250, 354, 250, 221, 354};

// The known reply codes and their texts, in the order GetError searches for them.
struct KnownReply {
    const char* code;
    const char* text;
};
constexpr KnownReply kKnownReplies[] = {
    {"211", " System status or system help reply."},
    {"214", " Help Message."},
    {"220", " Service is ready."},
    {"221", " Service closing transmission channel."},
    {"250", " Requested mail action okay, completed."},
    {"251", " user not local: will forward to forward path."},
    {"354", " Start mail input; end with <CRLF>.<CRLF>."},
    {"550", " Error 550: Relaying not allowed."},
    {"554", " Error 554: Rejected for policy reasons."},
};

constexpr int kReplyBufferSize = 1000;

}  // namespace

CSMTP::CSMTP() {
    m_Socket.Create();
}

CSMTP::~CSMTP() {
    m_Socket.Close();
}

int CSMTP::Connect(std::string const& host, std::string const& localName) {
    m_bConnected = 0;
    if (!m_Socket.Connect(host.c_str(), ServerPort())) {
        m_strErrorMessage = "Server cannot be connected";
        return 0;
    }
    if (!CheckResponse(ModeConnect)) {
        return 0;
    }
    char command[CommandFieldSize];
    if (Tessel::Platform::sprintf_s(command, sizeof(command), "HELO %s\r\n", localName.c_str()) <
        0) {
        return 0;
    }
    SendCommand(command);
    if (!CheckResponse(ModeHelo)) {
        return 0;
    }
    m_bConnected = 1;
    return 1;
}

int CSMTP::Connect() {
    return Connect(m_strHost, m_strFrom);
}

int CSMTP::Mail(std::string const& from) {
    m_strFrom = from;
    return Mail();
}

int CSMTP::Mail() {
    char command[CommandFieldSize];
    if (Tessel::Platform::sprintf_s(command, sizeof(command), "MAIL FROM:<%s>\r\n",
                                    m_strFrom.c_str()) < 0) {
        return 0;
    }
    SendCommand(command);
    return CheckResponse(ModeMailFrom);
}

int CSMTP::SetTo(std::string const& to) {
    m_vecTo.push_back(to);
    char command[CommandFieldSize];
    if (Tessel::Platform::sprintf_s(command, sizeof(command), "RCPT TO:<%s>\r\n", to.c_str()) < 0) {
        return 0;
    }
    SendCommand(command);
    return CheckResponse(ModeRcptTo);
}

int CSMTP::SetTo(std::vector<std::string> const& to) {
    for (const std::string& address : to) {
        char command[CommandFieldSize];
        if (Tessel::Platform::sprintf_s(command, sizeof(command), "RCPT TO:<%s>\r\n",
                                        address.c_str()) < 0) {
            return 0;
        }
        SendCommand(command);
        if (!CheckResponse(ModeRcptTo)) {
            return 0;
        }
    }
    return 1;
}

int CSMTP::Data(std::string const& subject, std::string const& body) {
    char subjectLine[CommandFieldSize];
    char bodyLine[CommandFieldSize];
    if (Tessel::Platform::sprintf_s(subjectLine, sizeof(subjectLine), "SUBJECT:%s\r\n",
                                    subject.c_str()) < 0 ||
        Tessel::Platform::sprintf_s(bodyLine, sizeof(bodyLine), "%s\r\n", body.c_str()) < 0) {
        return 0;
    }
    SendCommand("DATA\r\n");
    if (!CheckResponse(ModeData)) {
        return 0;
    }
    SendCommand(subjectLine);
    SendCommand(bodyLine);
    SendCommand(".\r\n");
    // The text form expects 354 here, not the 250 of an accepted mail.
    return CheckResponse(ModeData);
}

int CSMTP::Data(std::string const& subject, std::vector<std::string>& lines) {
    char subjectLine[CommandFieldSize];
    if (Tessel::Platform::sprintf_s(subjectLine, sizeof(subjectLine), "SUBJECT:%s\r\n",
                                    subject.c_str()) < 0) {
        return 0;
    }
    SendCommand("DATA\r\n");
    if (!CheckResponse(ModeData)) {
        return 0;
    }
    SendCommand(subjectLine);
    SendCommand("\r\n");
    for (const std::string& line : lines) {
        const std::string text = line + "\r\n";
        m_Socket.Send(text.data(), static_cast<int>(text.size()));
    }
    SendCommand(".\r\n");
    return CheckResponse(ModeEndOfData);
}

int CSMTP::Disconnect() {
    if (!m_bConnected) {
        return 1;
    }
    SendCommand("QUIT \r\n");
    return CheckResponse(ModeQuit);
}

std::string CSMTP::GetTo() {
    const std::size_t index = static_cast<std::size_t>(m_nToIndex);
    if (index > m_vecTo.size()) {
        return "No more To available";
    }
    ++m_nToIndex;
    if (index == m_vecTo.size()) {
        Tessel::Platform::InvokeInvalidParameter("m_nToIndex < m_vecTo.size()", __func__, __FILE__,
                                                 __LINE__);
        return std::string();
    }
    return m_vecTo[index];
}

int CSMTP::CheckResponse(int mode) {
    char reply[kReplyBufferSize + 1] = {};
    m_Socket.Receive(reply, kReplyBufferSize);
    char codeText[4] = {};
    std::memcpy(codeText, reply, 3);
    const int code = std::atoi(codeText);
    if (mode < ModeConnect || mode > ModeReport) {
        return 1;
    }
    if (mode == ModeReport) {
        m_strErrorMessage = GetError(reply);
        return 1;
    }
    if (code == kExpectedCode[mode]) {
        return 1;
    }
    m_strErrorMessage = GetError(reply);
    return 0;
}

std::string CSMTP::GetError(std::string response) {
    for (const KnownReply& known : kKnownReplies) {
        if (response.find(known.code) != std::string::npos) {
            return known.text;
        }
    }
    return " No Error Number is matched with " + response;
}

void CSMTP::SendCommand(const char* command) {
    m_Socket.Send(command, static_cast<int>(std::strlen(command)));
}

unsigned int CSMTP::ServerPort() {
    const char* configured = std::getenv("TESSEL_SMTP_PORT");
    if (configured != nullptr) {
        char* end = nullptr;
        const long port = std::strtol(configured, &end, 10);
        if (end != configured && *end == '\0' && port >= 1 && port <= 65535) {
            return static_cast<unsigned int>(port);
        }
    }
    return 25;
}
