#include "tessel/comms/ESMTP.h"

#include <cstring>

#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/Sockets.h"

namespace {

constexpr int kEhloReplySize = 512;
constexpr Tessel::Platform::DWORD kComputerNameField = 255;

// The bytes that text gives as Base64, characters outside the alphabet (also '=') left out.
std::string DecodeBase64(const std::string& text) {
    std::string bytes;
    unsigned int bits = 0;
    int count = 0;
    for (const char c : text) {
        const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        const char* found = c == '\0' ? nullptr : std::strchr(alphabet, c);
        if (found == nullptr) {
            continue;
        }
        bits = (bits << 6) | static_cast<unsigned int>(found - alphabet);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes.push_back(static_cast<char>((bits >> count) & 0xFF));
        }
    }
    return bytes;
}

}  // namespace

int CESMTP::Connect(std::string const& host, std::string const&, std::string const&,
                    std::string const&) {
    if (!m_Socket.Connect(host.c_str(), ServerPort())) {
        m_strErrorMessage = "Server cannot be connected";
    }
    if (!CheckResponse(ModeConnect)) {
        return 0;
    }
    char name[kComputerNameField] = {};
    Tessel::Platform::DWORD size = kComputerNameField;
    if (!Tessel::Platform::GetComputerNameA(name, &size)) {
        return 0;
    }
    char command[CommandFieldSize];
    if (Tessel::Platform::sprintf_s(command, sizeof(command), "EHLO %s\r\n", name) < 0) {
        return 0;
    }
    SendCommand(command);
    char reply[kEhloReplySize + 1] = {};
    m_Socket.Receive(reply, kEhloReplySize);
    if (std::strstr(reply, "DIGEST-MD5") != nullptr) {
        AuthDigestMD5();
    }
    return 0;
}

int CESMTP::AuthDigestMD5() {
    char command[CommandFieldSize];
    if (Tessel::Platform::sprintf_s(command, sizeof(command), "%s\r\n", "AUTH DIGEST-MD5\r\n") <
        0) {
        return 0;
    }
    SendCommand(command);
    char reply[kEhloReplySize + 1] = {};
    m_Socket.Receive(reply, kEhloReplySize);
    const std::string text = reply;
    const std::size_t padding = text.find("==");
    if (text.find("334 ") != std::string::npos && padding != std::string::npos) {
        // The length is the position of "==", counted from index 4: the text may run past it.
        const std::string challenge = DecodeBase64(text.substr(4, padding));
        static_cast<void>(challenge);
    }
    return 0;
}
