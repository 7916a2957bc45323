#include "tessel/comms/SQLPing.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/asio/ip/udp.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "support/Eventually.h"
#include "support/TestSupport.h"

using boost::asio::ip::udp;
using namespace TesselTest;

namespace {

// A loopback address of this process's own, so that parallel tests each have port 1434.
std::string ownLoopbackAddress() {
    const unsigned pid = static_cast<unsigned>(getpid());
    return "127." + std::to_string((pid >> 16) & 0x7F) + "." + std::to_string((pid >> 8) & 0xFF) +
           "." + std::to_string(pid % 250 + 2);
}

// A reply datagram: the 3-byte header, then the text.
std::string reply(const std::string& text) {
    return std::string("\x05\x7F\x00", 3) + text;
}

const std::string kFirst =
    "ServerName;HOST1;InstanceName;MSSQLSERVER;IsClustered;No;Version;"
    "15.0.2000.5;tcp;1433;np;\\\\HOST1\\pipe\\sql\\query;;";
const std::string kSecond =
    "ServerName;HOST2;InstanceName;VELKOR;IsClustered;Yes;Version;"
    "11.0.2100.60;tcp;;np;\\\\HOST2\\pipe\\MSSQL$VELKOR\\sql\\query;;";
const std::string kFound1 = "HOST1|MSSQLSERVER|-|15.0.2000.5|1433|\\\\HOST1\\pipe\\sql\\query";
const std::string kFound2 =
    "HOST2|VELKOR|C|11.0.2100.60|0|\\\\HOST2\\pipe\\MSSQL$VELKOR\\sql\\query";

struct Exchange {
    std::string name;
    std::vector<std::string> replies;
    std::vector<std::string> found;
};
// Shown by its name in the test names.
void PrintTo(const Exchange& value, std::ostream* out) {
    *out << value.name;
}

class SQLPingExchange : public testing::TestWithParam<Exchange> {};

TEST_P(SQLPingExchange, SlowListenerAddsTheFirstInstanceOfEachWholeReply) {
    const std::string address = ownLoopbackAddress();
    boost::asio::io_context io;
    udp::socket responder(io, udp::endpoint(boost::asio::ip::make_address_v4(address), 1434));
    CSQLPing ping(address.c_str());
    EXPECT_TRUE(ping.GetAllSQLServers()->empty());  // the listener ran before the request

    ASSERT_TRUE(eventually([&] { return responder.available() > 0; }));
    char request[16];
    udp::endpoint client;
    ASSERT_EQ(responder.receive_from(boost::asio::buffer(request), client), 1u);
    EXPECT_EQ(request[0], 0x02);
    for (const std::string& datagram : GetParam().replies) {
        responder.send_to(boost::asio::buffer(datagram), client);
    }
    ping.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0);
    // The listener ends by itself once no reply has come for a second.
    ASSERT_TRUE(eventually([&] { return ping.GetThreadExitCode() == 0; }, 30s));
    ping.StopThread();
    std::vector<std::string> found;
    for (const auto& s : *ping.GetAllSQLServers()) {
        found.push_back(s.strServerName + "|" + s.strInstanceName + "|" +
                        (s.bClustered ? "C" : "-") + "|" + s.strVersion + "|" +
                        std::to_string(s.lTcpPort) + "|" + s.strNamedPipe);
    }
    EXPECT_EQ(found, GetParam().found);
}

INSTANTIATE_TEST_SUITE_P(
    Replies, SQLPingExchange,
    testing::Values(Exchange{"Single", {reply(kFirst)}, {kFound1}},
                    Exchange{"SeveralInOneReply", {reply(kFirst + kSecond)}, {kFound1}},
                    Exchange{"SeveralReplies", {reply(kFirst), reply(kSecond)}, {kFound1, kFound2}},
                    Exchange{"Damaged",
                             {reply(kFirst.substr(0, kFirst.size() - 3)), "\x05", reply(""),
                              reply(kSecond)},
                             {kFound2}},
                    Exchange{"NoReply", {}, {}}),
    ParamName());

TEST(SQLPing, SlowRequestGoesToTheResolvedAddressOrElseBroadcast) {
    const char* const cases[][2] = {{nullptr, "255.255.255.255"},
                                    {"", "255.255.255.255"},
                                    {"no-such-host.invalid", "255.255.255.255"},
                                    {"localhost", "127.0.0.1"}};
    for (const auto& [address, pinged] : cases) {
        DebugOutputCapture output;
        CSQLPing ping(address);
        EXPECT_NE(output.joined().find("SQL-Pinging " + std::string(pinged) + "\n"),
                  std::string::npos)
            << output.joined();
    }
}

}  // namespace
