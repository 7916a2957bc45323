// CESMTP: CSMTP with an EHLO greeting and the opening of a DIGEST-MD5 authentication.
//
// Its Connect greets with EHLO and the computer name, and when the server offers DIGEST-MD5
// asks for the mechanism and reads the challenge; no answer to the challenge is computed or
// sent. The result is 0 in every case and the connected flag is not set: a caller of this
// class never has a connection reported as such. The other steps are those of CSMTP, whose
// port, time-outs, error texts, lifetime and thread rules hold here too.
#pragma once

#include <string>

#include "tessel/Export.h"
#include "tessel/comms/SMTP.h"

class TESSEL_API CESMTP : public CSMTP {
  public:
    CESMTP() = default;
    ~CESMTP() override = default;

    using CSMTP::Connect;
    // Connects to host, reads the greeting (220), sends "EHLO <computer name>", reads one reply
    // of up to 512 bytes without checking it, and runs AuthDigestMD5 when that reply names
    // DIGEST-MD5. Always 0: with "Server cannot be connected" overwritten by the text of the
    // missing greeting when the TCP connect fails, with the text of a wrong greeting, and
    // with the message unchanged otherwise. The other three arguments are not used.
    int Connect(std::string const& host, std::string const& user, std::string const& password,
                std::string const& realm);

    // Sends "AUTH DIGEST-MD5" followed by an empty line, receives up to 512 bytes and, when
    // they hold "334 " and "==", decodes the challenge from Base64 and drops it. Always 0.
    int AuthDigestMD5();
};
