#include "tessel/comms/SMTP.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/TestSupport.h"
#include "tessel/comms/ESMTP.h"
#include "tessel/platform/Sockets.h"

namespace {

// An SMTP server (support/SmtpPeer.py on aiosmtpd, with options of its own) on a free port of
// 127.0.0.1, which it sets as TESSEL_SMTP_PORT. file() reads what it stored. Its end closes
// the server's input: it stops, or is killed after two seconds.
struct SmtpPeer {
    explicit SmtpPeer(const std::vector<std::string>& options = {})
        : folder(::mkdtemp(std::string("/tmp/tessel-smtp-XXXXXX").data())),
          server(Arguments(options)) {
        ::setenv("TESSEL_SMTP_PORT", server.readLine(std::chrono::seconds(20)).c_str(), 1);
    }
    ~SmtpPeer() { std::filesystem::remove_all(folder); }
    std::vector<std::string> Arguments(const std::vector<std::string>& options) const {
        const auto script =
            std::filesystem::path(__FILE__).parent_path() / "../support/SmtpPeer.py";
        std::vector<std::string> argv = {"/usr/bin/python3", script.string(), folder};
        argv.insert(argv.end(), options.begin(), options.end());
        return argv;
    }
    std::string file(const std::string& name) const {
        std::ostringstream text;
        text << std::ifstream(folder + "/" + name, std::ios::binary).rdbuf();
        return text.str();
    }
    const std::string folder;
    TesselTest::ChildProcess server;
};

const std::string kNoNumber = " No Error Number is matched with ";
const std::string kOkay = " Requested mail action okay, completed.";
const std::string k550 = " Error 550: Relaying not allowed.";

TEST(SMTPTest, DeliversTheMessageWithItsHeaderAndBody) {
    SmtpPeer peer;
    TesselTest::InvalidParameterThrows throws;
    CSMTP smtp;
    EXPECT_EQ(smtp.Disconnect(), 1);
    smtp.SetHost("127.0.0.1");
    smtp.SetFrom("alarm@tessel.test");
    ASSERT_EQ(smtp.Connect(), 1) << smtp.GetErrorMessage();
    EXPECT_EQ(smtp.IsConnected(), 1);
    ASSERT_EQ(smtp.Mail(), 1) << smtp.GetErrorMessage();
    ASSERT_EQ(smtp.SetTo("op1@tessel.test"), 1) << smtp.GetErrorMessage();
    ASSERT_EQ(smtp.SetTo(std::vector<std::string>{"op2@tessel.test", "op3@tessel.test"}), 1);
    std::vector<std::string> lines = {"Disk D: is full.", "", "Recording stopped."};
    ASSERT_EQ(smtp.Data("Alarm", lines), 1) << smtp.GetErrorMessage();
    EXPECT_EQ(smtp.Disconnect(), 1) << smtp.GetErrorMessage();
    EXPECT_EQ(smtp.IsConnected(), 1);

    EXPECT_EQ(peer.file("1.envelope"),
              "alarm@tessel.test\nalarm@tessel.test\nop1@tessel.test\nop2@tessel.test\n"
              "op3@tessel.test");
    EXPECT_EQ(peer.file("1.content"),
              "SUBJECT:Alarm\r\n\r\nDisk D: is full.\r\n\r\nRecording stopped.\r\n");
    // Only the single form stores its recipient.
    EXPECT_EQ(smtp.GetTo(), "op1@tessel.test");
    EXPECT_THROW(smtp.GetTo(), TesselTest::InvalidParameterError);
    EXPECT_EQ(smtp.GetTo(), "No more To available");
}

TEST(SMTPTest, TextFormDeliversButReportsTheAcceptance) {
    SmtpPeer peer;
    TesselTest::InvalidParameterThrows throws;
    CSMTP smtp;
    ASSERT_EQ(smtp.Connect("127.0.0.1", "host.tessel.test"), 1) << smtp.GetErrorMessage();
    ASSERT_EQ(smtp.Mail("alarm@tessel.test"), 1);
    ASSERT_EQ(smtp.SetTo("op@tessel.test"), 1);
    // A body too long for its field sends nothing, and the dialogue goes on.
    EXPECT_THROW(smtp.Data("Alarm", std::string(CSMTP::CommandFieldSize, 'x')),
                 TesselTest::InvalidParameterError);
    EXPECT_EQ(smtp.Data("Alarm", "Disk D: is full."), 0);
    EXPECT_EQ(smtp.GetErrorMessage(), kOkay);
    EXPECT_EQ(peer.file("1.envelope"), "host.tessel.test\nalarm@tessel.test\nop@tessel.test");
    EXPECT_EQ(peer.file("1.content"), "SUBJECT:Alarm\r\nDisk D: is full.\r\n");
}

struct Refusal {
    std::string name;
    std::vector<std::string> options;
    int failingStep;  // 1 Mail, 2 SetTo
    std::string message;
};
// Shown by its name in the test names.
void PrintTo(const Refusal& value, std::ostream* out) {
    *out << value.name;
}

class SMTPRefusalTest : public testing::TestWithParam<Refusal> {};

TEST_P(SMTPRefusalTest, StopsAtTheRefusedStepWithItsText) {
    SmtpPeer peer(GetParam().options);
    CSMTP smtp;
    ASSERT_EQ(smtp.Connect("127.0.0.1", "host"), 1) << smtp.GetErrorMessage();
    const int failed = !smtp.Mail("a@t") ? 1 : !smtp.SetTo("o@t") ? 2 : 0;
    EXPECT_EQ(failed, GetParam().failingStep);
    EXPECT_EQ(smtp.GetErrorMessage(), GetParam().message);
    std::vector<std::string> lines = {"text"};
    EXPECT_EQ(smtp.Data("Alarm", lines), 0);
    smtp.Disconnect();
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SMTPRefusalTest,
    testing::Values(Refusal{"Sender", {"--refuse-sender", "a@t"}, 1, k550},
                    Refusal{"Recipient", {"--refuse-recipient", "o@t"}, 2, k550},
                    Refusal{"Policy",
                            {"--refuse-recipient", "o@t", "--refusal", "554 No"},
                            2,
                            " Error 554: Rejected for policy reasons."},
                    Refusal{"NumberAnywhere",
                            {"--refuse-recipient", "o@t", "--refusal", "500 box 250 unknown"},
                            2,
                            kOkay},
                    Refusal{"ClosedAtSender", {"--close-at", "MAIL"}, 1, kNoNumber},
                    Refusal{"ClosedAtRecipient", {"--close-at", "RCPT"}, 2, kNoNumber}),
    TesselTest::ParamName());

TEST(SMTPTest, UnreachablePortIsReported) {
    // A port that is bound but not listening refuses connections.
    const int holder = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address), size), 0);
    ::getsockname(holder, reinterpret_cast<sockaddr*>(&address), &size);
    ::setenv("TESSEL_SMTP_PORT", std::to_string(ntohs(address.sin_port)).c_str(), 1);

    CSMTP smtp;
    EXPECT_EQ(smtp.Connect("127.0.0.1", "host"), 0);
    EXPECT_EQ(smtp.GetErrorMessage(), "Server cannot be connected");
    EXPECT_EQ(smtp.IsConnected(), 0);
    // The extended form reads a greeting all the same, which does not come.
    CESMTP esmtp;
    EXPECT_EQ(esmtp.Connect("127.0.0.1", "", "", ""), 0);
    EXPECT_EQ(esmtp.GetErrorMessage(), kNoNumber);
    ::close(holder);
}

TEST(SMTPTest, SilentServerTimesOutSlow) {
    SmtpPeer peer({"--silent"});
    CSMTP smtp;
    EXPECT_EQ(smtp.Connect("127.0.0.1", "host"), 0);
    EXPECT_EQ(smtp.GetErrorMessage(), kNoNumber);
    EXPECT_EQ(smtp.IsConnected(), 0);
}

TEST(ESMTPTest, OpensDigestAuthenticationWhereOfferedAndNeverConnects) {
    for (const bool offered : {true, false}) {
        SmtpPeer peer(offered ? std::vector<std::string>{"--digest"} : std::vector<std::string>{});
        CESMTP esmtp;
        EXPECT_EQ(esmtp.Connect("127.0.0.1", "user", "password", "realm"), 0);
        EXPECT_EQ(esmtp.IsConnected(), 0);
        // The server has the EHLO name, and the empty answer to its challenge where it offered
        // one; where not, the session goes on after the EHLO.
        if (offered) {
            const std::string expected = Tessel::Platform::GetHostName() + "\nb''";
            EXPECT_TRUE(TesselTest::eventually([&] { return peer.file("auth") == expected; }))
                << peer.file("auth");
        } else {
            EXPECT_EQ(esmtp.Mail("alarm@tessel.test"), 1) << esmtp.GetErrorMessage();
            EXPECT_EQ(peer.file("auth"), "");
        }
    }
}

}  // namespace
